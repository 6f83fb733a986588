// The library's own thread. tvx is single-threaded and blocking: a readout returns when the
// picture is in, and a controller-timed exposure holds the caller for the whole exposure. The
// driver's event loop must keep answering clients meanwhile, so every call into tvx runs here,
// one job at a time in the order posted, and nothing else calls the library. What a job hands
// back runs on the event loop, where everything of INDI's stays.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace tvx_indi {

class LibraryThread {
 public:
  // Runs on the event loop once its job is done.
  using Completion = std::function<void()>;
  // Runs on the library's thread; returns its completion (may be empty).
  using Job = std::function<Completion()>;

  // Starts the thread and registers the way back with the event loop.
  LibraryThread();
  // Finishes the jobs already queued (the last one should let the camera go), then stops.
  ~LibraryThread();
  LibraryThread(const LibraryThread &) = delete;
  LibraryThread &operator=(const LibraryThread &) = delete;

  // Queues `job` and returns its number.
  uint64_t post(Job job);
  // Asks the library to give up the wait it is in, if job `id` is the one running now. A job
  // that has not started yet, or has finished, is left alone: the request never spills over
  // onto the job after it.
  void abort(uint64_t id);

 private:
  void run();
  // The event loop's side: takes the completions waiting and runs them.
  static void on_wake(int fd, void *self);
  void deliver();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::pair<uint64_t, Job>> jobs_;
  std::deque<Completion> done_;
  uint64_t next_id_ = 1, running_ = 0;
  bool stopping_ = false;
  int pipe_[2] = {-1, -1};
  int callback_ = -1;
  std::thread thread_;
};

}  // namespace tvx_indi
