// Support for the serial tests: a pseudo-terminal whose far end the test holds, with "COM1"
// mapped to the near end, and the simulated controller's camera server run as its own process
// on a pseudo-terminal of its own.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/frame.h"
#include "tvx/rs232.h"

extern char **environ;

namespace tvx_test {

// The far end of a pseudo-terminal, with "COM1" opening its near end until it is destroyed.
class Pty {
 public:
  Pty() {
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0) return;
    const char *name = ptsname(master_);
    if (name != nullptr) path_ = name;
    SerialMapPort("COM1", path_.c_str());
  }
  ~Pty() {
    SerialMapPort("COM1", nullptr);
    if (master_ >= 0) close(master_);
  }
  Pty(const Pty &) = delete;
  Pty &operator=(const Pty &) = delete;

  bool ok() const { return master_ >= 0 && !path_.empty(); }
  const std::string &path() const { return path_; }

  void send(const std::vector<BYTE> &bytes) const {
    ASSERT_EQ(write(master_, bytes.data(), bytes.size()), ssize_t(bytes.size()));
  }
  // What the near end has written, waiting at most `ms` for each further byte.
  std::vector<BYTE> take(size_t most, int ms = 200) const {
    std::vector<BYTE> got;
    while (got.size() < most) {
      pollfd p{master_, POLLIN, 0};
      if (poll(&p, 1, ms) <= 0) break;
      BYTE b = 0;
      if (read(master_, &b, 1) != 1) break;
      got.push_back(b);
    }
    return got;
  }

 private:
  int master_ = -1;
  std::string path_;
};

// tvxsim serving a pseudo-terminal of its own; "COM1" opens that terminal while this lives.
// It is always stopped, and a wait for it never outlasts a few seconds.
class SimulatedController {
 public:
  SimulatedController() {
    int out[2];
    if (pipe(out) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    char program[] = TVXSIM;
    char option[] = "--pty";
    char *argv[] = {program, option, nullptr};
    if (posix_spawn(&pid_, program, &actions, nullptr, argv, environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    // The first line of its output names the device to open.
    char c = 0;
    pollfd p{out[0], POLLIN, 0};
    while (pid_ > 0 && poll(&p, 1, 5000) > 0 && read(out[0], &c, 1) == 1 && c != '\n') path_ += c;
    close(out[0]);
    if (!path_.empty()) SerialMapPort("COM1", path_.c_str());
  }
  ~SimulatedController() {
    SerialMapPort("COM1", nullptr);
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    for (int i = 0; i < 300; ++i) {
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) return;
      usleep(10000);
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  SimulatedController(const SimulatedController &) = delete;
  SimulatedController &operator=(const SimulatedController &) = delete;

  bool ok() const { return pid_ > 0 && !path_.empty(); }

 private:
  pid_t pid_ = -1;
  std::string path_;
};

// Descriptors this process has open: a failed open must give back what it took.
inline int open_descriptors() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd)
    if (fcntl(fd, F_GETFD) != -1) ++count;
  return count;
}

}  // namespace tvx_test
