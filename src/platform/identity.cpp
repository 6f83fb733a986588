// Who the library is: the module that holds this code, its path, and the version it was built as.
#include <dlfcn.h>

#include "platform/platform.h"

namespace tvx::platform {
namespace {

Dl_info self() {
  Dl_info info{};
  dladdr(reinterpret_cast<void *>(&module_handle), &info);
  return info;
}

}  // namespace

HANDLE module_handle() {
  return self().dli_fbase;
}

const char *module_path() {
  const char *path = self().dli_fname;
  return path != nullptr ? path : "";
}

Version file_version() {
  return {TVX_VERSION_MAJOR, TVX_VERSION_MINOR, TVX_VERSION_PATCH, TVX_VERSION_BUILD};
}

Version product_version() {
  return file_version();
}

}  // namespace tvx::platform
