// tvxsim: the simulated controller's camera server, answering on a serial line as a controller
// does once booted and reachable over its serial port.
//
//   tvxsim --pty        makes a pseudo-terminal, prints the device the host is to open on the
//                       first line of its output, and serves the other end
//   tvxsim DEVICE       serves a serial device (9600 baud, no parity, 8 data bits, 1 stop bit)
//
// It runs until it is told to stop (SIGTERM, SIGINT, SIGHUP) or the line fails. What the server
// could not make sense of is written to stderr.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "serial_wire.h"
#include "sim/camera_server.h"

namespace {

volatile std::sig_atomic_t stop = 0;

void on_signal(int) {
  stop = 1;
}

int usage() {
  std::fprintf(stderr, "usage: tvxsim --pty | tvxsim DEVICE\n");
  return 2;
}

bool make_raw(int fd, bool set_speed) {
  termios t{};
  if (::tcgetattr(fd, &t) != 0) return false;
  ::cfmakeraw(&t);
  t.c_cflag |= CLOCAL | CREAD;
  t.c_cc[VMIN] = 0;
  t.c_cc[VTIME] = 0;
  if (set_speed && (::cfsetispeed(&t, B9600) != 0 || ::cfsetospeed(&t, B9600) != 0)) return false;
  return ::tcsetattr(fd, TCSANOW, &t) == 0;
}

// The master end of a fresh pseudo-terminal; `keeper` holds its other end open, so that the
// master never sees a hang-up while no host has the device open.
int open_pty(int &keeper) {
  const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) return -1;
  const char *name = ::ptsname(master);
  if (name == nullptr) return -1;
  keeper = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (keeper < 0 || !make_raw(master, false)) return -1;
  std::printf("%s\n", name);
  std::fflush(stdout);
  return master;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) return usage();
  struct sigaction action {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  for (int s : {SIGTERM, SIGINT, SIGHUP}) sigaction(s, &action, nullptr);

  int keeper = -1;
  int fd = -1;
  if (std::strcmp(argv[1], "--pty") == 0) {
    fd = open_pty(keeper);
  } else if (argv[1][0] == '-') {
    return usage();
  } else {
    fd = ::open(argv[1], O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0 && !make_raw(fd, true)) {
      ::close(fd);
      fd = -1;
    }
  }
  if (fd < 0) {
    std::fprintf(stderr, "tvxsim: cannot open %s: %s\n", argv[1], std::strerror(errno));
    return 1;
  }

  tvx::sim::CameraServer server;
  tvxsim::SerialWire wire(fd, server, stop);
  const bool ok = wire.run();
  for (const std::string &complaint : server.complaints())
    std::fprintf(stderr, "tvxsim: %s\n", complaint.c_str());
  ::close(fd);
  if (keeper >= 0) ::close(keeper);
  if (!ok) std::fprintf(stderr, "tvxsim: the line failed\n");
  return ok ? 0 : 1;
}
