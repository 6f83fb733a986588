// The library's thread, its queue of calls, and the waiting Python thread's side of it.
#include "library_thread.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "errors.h"

namespace py = pybind11;

namespace tvxpy {

namespace {

struct Job {
  const std::function<void()> *work = nullptr;
  std::exception_ptr thrown;
  bool started = false, done = false;
};

// Made on first use and never destroyed: the thread waits for work for as long as the process
// lives, and the process's exit takes it down with nothing left to do (the package closes its
// cameras before the interpreter goes).
class LibraryThread {
 public:
  static LibraryThread &get() {
    static auto *thread = new LibraryThread;
    return *thread;
  }

  void submit(Job *job) {
    {
      std::lock_guard lock(mutex_);
      queue_.push_back(job);
    }
    wake_.notify_all();
  }

  // Takes a job that has not started off the queue; false when it is already running or done.
  bool withdraw(Job *job) {
    std::lock_guard lock(mutex_);
    if (job->started) return false;
    std::erase(queue_, job);
    return true;
  }

  bool busy() {
    std::lock_guard lock(mutex_);
    return running_ || !queue_.empty();
  }

  // Waits up to `slice` for the job; true when it is done.
  bool wait(Job *job, std::chrono::milliseconds slice) {
    std::unique_lock lock(mutex_);
    return done_.wait_for(lock, slice, [job] { return job->done; });
  }

 private:
  LibraryThread() : thread_([this] { serve(); }) { thread_.detach(); }

  void serve() {
    for (;;) {
      Job *job = nullptr;
      {
        std::unique_lock lock(mutex_);
        wake_.wait(lock, [this] { return !queue_.empty(); });
        job = queue_.front();
        queue_.pop_front();
        job->started = running_ = true;
      }
      try {
        (*job->work)();
      } catch (...) {
        job->thrown = std::current_exception();
      }
      {
        std::lock_guard lock(mutex_);
        job->done = true;
        running_ = false;
      }
      done_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_, done_;
  std::deque<Job *> queue_;
  bool running_ = false;
  std::thread thread_;
};

// How often a waiting thread looks for a signal, such as the user's Ctrl-C.
constexpr std::chrono::milliseconds kSignalSlice{20};

py::list records_to_python(const std::vector<ErrorRecord> &records) {
  py::list out;
  for (const ErrorRecord &r : records) {
    py::list trace, causes;
    for (const ErrorEntry &e : r.trace)
      trace.append(py::make_tuple(e.routine, e.text ? py::object(py::str(*e.text)) : py::none()));
    for (const auto &[code, text] : r.causes) causes.append(py::make_tuple(code, text));
    out.append(py::make_tuple(r.category, r.code, trace, causes));
  }
  return out;
}

}  // namespace

void register_error_translator() {
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const Raised &r) {
      py::object error_type = py::module_::import("tvx._errors").attr("Error");
      py::object error = error_type.attr("_raised")(r.doing, r.story, records_to_python(r.records));
      PyErr_SetObject(error_type.ptr(), error.ptr());
    }
  });
}

void run_on_library(const std::function<void()> &work) {
  LibraryThread &library = LibraryThread::get();
  Job job;
  job.work = &work;
  // The interrupt that came while we waited, raised once the call has ended.
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  {
    py::gil_scoped_release released;
    library.submit(&job);
    bool interrupted = false;
    while (!library.wait(&job, kSignalSlice)) {
      if (interrupted) continue;
      {
        py::gil_scoped_acquire held;
        if (PyErr_CheckSignals() == 0) continue;
        PyErr_Fetch(&type, &value, &traceback);
      }
      interrupted = true;
      // A call still in the queue is simply not made; one under way is asked to give up.
      if (library.withdraw(&job)) break;
      tvx_abort_request();
    }
  }
  if (type != nullptr) {
    // An abort no wait met must not stop the next call.
    tvx_abort_clear();
    PyErr_Restore(type, value, traceback);
    throw py::error_already_set();
  }
  if (job.thrown) std::rethrow_exception(job.thrown);
}

bool library_busy() {
  return LibraryThread::get().busy();
}

Raised take_failure(const std::string &doing) {
  // The session reads the stack as tvxcam and the INDI driver do; Python says None for no text.
  const session::ErrorReport report = session::take_errors();
  Raised out{doing, session::story_of(report), {}};
  const auto entry = [](const std::string &routine, const std::string &text) {
    return ErrorEntry{routine, text.empty() ? std::nullopt : std::optional<std::string>(text)};
  };
  for (const session::ErrorRecord &r : report.records) {
    ErrorRecord record{r.category, r.code, {}, {}};
    if (!r.routine.empty()) record.trace.push_back(entry(r.routine, r.text));
    for (const session::ErrorStep &s : r.passed) record.trace.push_back(entry(s.routine, s.text));
    for (const session::ErrorCause &c : r.causes) record.causes.emplace_back(c.code, c.text);
    out.records.push_back(std::move(record));
  }
  return out;
}

}  // namespace tvxpy
