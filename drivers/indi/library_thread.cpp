// One thread for the library, a queue of jobs into it and a pipe back out: the pipe is what the
// event loop watches, so a finished job wakes it without a poll.
#include "library_thread.h"

#include <fcntl.h>
#include <libindi/eventloop.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "tvx/abort.h"

namespace tvx_indi {

LibraryThread::LibraryThread() {
  if (pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) != 0)
    throw std::system_error(errno, std::generic_category(), "pipe for the library's thread");
  callback_ = addCallback(pipe_[0], &LibraryThread::on_wake, this);
  thread_ = std::thread([this] { run(); });
}

LibraryThread::~LibraryThread() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  thread_.join();
  rmCallback(callback_);
  close(pipe_[0]);
  close(pipe_[1]);
}

uint64_t LibraryThread::post(Job job) {
  uint64_t id = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    id = next_id_++;
    jobs_.emplace_back(id, std::move(job));
  }
  wake_.notify_one();
  return id;
}

void LibraryThread::abort(uint64_t id) {
  // Under the lock the running job cannot change, so the request lands on `id` or nowhere.
  std::lock_guard<std::mutex> lock(mutex_);
  if (id != 0 && running_ == id) tvx_abort_request();
}

void LibraryThread::run() {
  for (;;) {
    std::pair<uint64_t, Job> next;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
      if (jobs_.empty()) return;
      next = std::move(jobs_.front());
      jobs_.pop_front();
      running_ = next.first;
      // A request that no wait met belonged to the job before.
      tvx_abort_clear();
    }
    Completion completion = next.second();
    const bool answers = completion != nullptr;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      running_ = 0;
      if (answers) done_.push_back(std::move(completion));
    }
    if (!answers) continue;
    const char byte = 1;
    // A full pipe already holds a wake-up, and one wake-up delivers everything waiting.
    [[maybe_unused]] const ssize_t written = write(pipe_[1], &byte, 1);
  }
}

void LibraryThread::on_wake(int fd, void *self) {
  char bytes[64];
  while (read(fd, bytes, sizeof bytes) > 0) {
  }
  static_cast<LibraryThread *>(self)->deliver();
}

void LibraryThread::deliver() {
  std::deque<Completion> ready;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ready.swap(done_);
  }
  for (Completion &c : ready) c();
}

}  // namespace tvx_indi
