// The library's own thread. The library is single-threaded and blocking, so every call into it
// from Python runs here, one at a time, in the order asked; the Python thread that asked waits
// with the GIL released, so the interpreter's other threads keep running through a long
// exposure. A KeyboardInterrupt while it waits asks the library to abort, and is raised once the
// call has ended and the camera is ready again.
#pragma once

#include <pybind11/pybind11.h>

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "session.h"

namespace tvxpy {

// One record of the library's error stack, as tvx.Error hands it on.
struct ErrorEntry {
  std::string routine;
  std::optional<std::string> text;
};
struct ErrorRecord {
  int category = 0, code = 0;
  std::vector<ErrorEntry> trace;  // the fault first, then each caller that qualified it
  std::vector<std::pair<int, std::string>> causes;
};

// A failure that Python sees as tvx.Error: the library's (with its records, `doing` saying what
// the package was doing) or the package's own (no records).
struct Raised {
  std::string doing;
  std::string story;
  std::vector<ErrorRecord> records;
};

// Turns Raised into tvx.Error; called once when the module is made.
void register_error_translator();

// Runs `work` on the library's thread and waits for it (see above). Anything `work` throws
// comes back here; it must not touch Python objects.
void run_on_library(const std::function<void()> &work);

// Whether a call is under way or waiting on the library's thread.
bool library_busy();

// The error stack's records and story, then the stack cleared: what a failed call leaves behind.
Raised take_failure(const std::string &doing);

// Runs `fn` on the library's thread and returns its result. The session's LibraryError and
// Failure become tvx.Error; the library's error stack is always left empty. Results must own
// nothing of the library's: if the caller is interrupted, they are dropped on this thread.
template <class F>
auto call(F &&fn) -> std::invoke_result_t<F &> {
  using R = std::invoke_result_t<F &>;
  using Slot = std::conditional_t<std::is_void_v<R>, bool, std::optional<R>>;
  Slot result{};
  std::optional<Raised> failure;
  std::exception_ptr other;
  run_on_library([&] {
    try {
      if constexpr (std::is_void_v<R>) {
        fn();
      } else {
        result.emplace(fn());
      }
    } catch (const session::LibraryError &e) {
      failure = take_failure(e.what);
    } catch (const session::Failure &f) {
      failure = take_failure("");
      failure->story = f.text;
    } catch (...) {
      other = std::current_exception();
      take_failure("");
    }
  });
  if (failure) throw *failure;
  if (other) std::rethrow_exception(other);
  if constexpr (!std::is_void_v<R>) return std::move(*result);
}

}  // namespace tvxpy
