// The log file. Each message reopens the file and writes at its start, so the file holds the
// latest message over whatever is left of longer earlier ones; readers of the log rely on that
// shape, so it is not an append.
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

namespace tvx::platform {

bool log_create(const char *name, char *path, size_t room) {
  int fd = ::open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  ::close(fd);
  char full[PATH_MAX];
  if (::realpath(name, full) == nullptr || std::strlen(full) >= room) return false;
  std::strcpy(path, full);
  return true;
}

namespace {

bool write_all(int fd, const char *text, size_t length) {
  while (length > 0) {
    ssize_t n = ::write(fd, text, length);
    if (n <= 0) return false;
    text += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool log_write(const char *path, const char *text, size_t length, bool crlf) {
  int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = write_all(fd, text, length) && (!crlf || write_all(fd, "\r\n", 2));
  ::close(fd);
  return ok;
}

}  // namespace tvx::platform
