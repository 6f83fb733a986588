// A handle locked for the life of a scope: every path out of an operation unlocks it.
#pragma once

#include "tvx/memory.h"

namespace tvx {

template <class T>
class Locked {
 public:
  Locked(HANDLE handle, const char *caller)
      : handle_(handle), caller_(caller), record_(static_cast<T *>(handle_lock(handle, caller))) {}
  ~Locked() {
    if (record_ != nullptr) handle_unlock(handle_, caller_);
  }
  Locked(const Locked &) = delete;
  Locked &operator=(const Locked &) = delete;

  explicit operator bool() const { return record_ != nullptr; }
  T *operator->() const { return record_; }
  T &operator*() const { return *record_; }
  T *get() const { return record_; }

 private:
  HANDLE handle_;
  const char *caller_;
  T *record_;
};

}  // namespace tvx
