// The serial line over termios. A port is a terminal's file descriptor, opened without blocking;
// every wait is a poll bounded by the port's time-outs, on the monotonic clock itself rather than
// the library's clock, so that a virtual clock in a test cannot stretch or shrink a wait on a
// real device.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <string>

#include "platform/platform.h"

namespace tvx::platform {
namespace {

struct Speed {
  DWORD baud;
  speed_t code;
};
constexpr Speed kSpeeds[] = {
    {50, B50},       {75, B75},         {110, B110},       {134, B134},       {150, B150},
    {200, B200},     {300, B300},       {600, B600},       {1200, B1200},     {1800, B1800},
    {2400, B2400},   {4800, B4800},     {9600, B9600},     {19200, B19200},   {38400, B38400},
    {57600, B57600}, {115200, B115200}, {230400, B230400}, {460800, B460800}, {921600, B921600},
};

struct DataBits {
  int bits;
  tcflag_t flag;
};
constexpr DataBits kDataBits[] = {{5, CS5}, {6, CS6}, {7, CS7}, {8, CS8}};

// What a freshly opened port waits for a whole transfer, until its owner sets its own time-outs.
constexpr SerialTimeouts kFreshTimeouts = {0, 0, 1000, 0, 1000};

std::map<int, SerialTimeouts> &open_ports() {
  static std::map<int, SerialTimeouts> ports;
  return ports;
}

std::map<std::string, std::string> &mapped() {
  static std::map<std::string, std::string> names;
  return names;
}

// Port names are case-blind, as the names of the line's ports always were.
std::string key_of(const char *name) {
  std::string key = name;
  for (char &c : key) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return key;
}

uint64_t now_ms() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

// Moves `count` bytes one way until done, the device fails, or the time runs out.
template <class Step>
long transfer(int port, size_t count, short event, DWORD multiplier, DWORD constant, DWORD interval,
              Step step) {
  const uint64_t start = now_ms();
  const uint64_t deadline = start + uint64_t{multiplier} * count + constant;
  uint64_t last = start;
  size_t done = 0;
  while (done < count) {
    const ssize_t n = step(done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      last = now_ms();
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    const uint64_t now = now_ms();
    uint64_t until = deadline;
    if (interval != 0 && done > 0 && last + interval < until) until = last + interval;
    if (now >= until) break;
    pollfd p{port, event, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(until - now));
    if (ready < 0 && errno != EINTR) return -1;
    if (ready > 0 && (p.revents & (POLLERR | POLLNVAL)) != 0) return -1;
    // The far end has gone and nothing more will move.
    if (ready > 0 && (p.revents & event) == 0) break;
  }
  return static_cast<long>(done);
}

}  // namespace

bool serial_device(const char *name, char *path, size_t room) {
  if (room == 0) return false;
  path[0] = '\0';
  if (name == nullptr) return false;
  const std::string key = key_of(name);
  auto it = mapped().find(key);
  if (it != mapped().end()) {
    if (it->second.size() >= room) return false;
    std::memcpy(path, it->second.c_str(), it->second.size() + 1);
    return true;
  }
  unsigned number = 0;
  char rest = 0;
  if (std::sscanf(key.c_str(), "COM%u%c", &number, &rest) != 1 || number == 0) return false;
  const int length = std::snprintf(path, room, "/dev/ttyS%u", number - 1);
  return length > 0 && static_cast<size_t>(length) < room;
}

bool serial_map(const char *name, const char *path) {
  if (name == nullptr || name[0] == '\0') return false;
  if (path == nullptr || path[0] == '\0')
    mapped().erase(key_of(name));
  else
    mapped()[key_of(name)] = path;
  return true;
}

int serial_open(const char *path, bool *missing) {
  *missing = false;
  const int port = ::open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (port < 0) {
    *missing = errno == ENOENT || errno == ENODEV || errno == ENXIO || errno == ENOTDIR;
    return -1;
  }
  // Nobody else may open the line while it is ours (root excepted, as the system decides).
  if (::isatty(port) != 0) ::ioctl(port, TIOCEXCL);
  open_ports()[port] = kFreshTimeouts;
  return port;
}

int serial_get_line(int port, SerialLine *line) {
  termios t{};
  if (::tcgetattr(port, &t) != 0) return -1;
  const speed_t code = ::cfgetospeed(&t);
  line->baud = 0;
  for (const Speed &s : kSpeeds)
    if (s.code == code) line->baud = s.baud;
  line->data_bits = 8;
  for (const DataBits &d : kDataBits)
    if ((t.c_cflag & CSIZE) == d.flag) line->data_bits = d.bits;
  if ((t.c_cflag & PARENB) == 0)
    line->parity = 'n';
  else if ((t.c_cflag & CMSPAR) != 0)
    line->parity = (t.c_cflag & PARODD) != 0 ? 'm' : 's';
  else
    line->parity = (t.c_cflag & PARODD) != 0 ? 'o' : 'e';
  line->stop_bits = (t.c_cflag & CSTOPB) != 0 ? 2 : 1;
  return 0;
}

int serial_set_line(int port, const SerialLine &line) {
  const Speed *speed = nullptr;
  for (const Speed &s : kSpeeds)
    if (s.baud == line.baud) speed = &s;
  const DataBits *bits = nullptr;
  for (const DataBits &d : kDataBits)
    if (d.bits == line.data_bits) bits = &d;
  // A terminal has no stop bit and a half.
  if (speed == nullptr || bits == nullptr || (line.stop_bits != 1 && line.stop_bits != 2)) {
    errno = EINVAL;
    return -1;
  }
  termios t{};
  if (::tcgetattr(port, &t) != 0) return -1;
  ::cfmakeraw(&t);
  t.c_cflag &= ~(CSIZE | PARENB | PARODD | CMSPAR | CSTOPB | CRTSCTS);
  t.c_cflag |= bits->flag | CLOCAL | CREAD;
  switch (line.parity) {
    case 'n':
      break;
    case 'o':
      t.c_cflag |= PARENB | PARODD;
      break;
    case 'e':
      t.c_cflag |= PARENB;
      break;
    case 'm':
      t.c_cflag |= PARENB | CMSPAR | PARODD;
      break;
    case 's':
      t.c_cflag |= PARENB | CMSPAR;
      break;
    default:
      errno = EINVAL;
      return -1;
  }
  if (line.stop_bits == 2) t.c_cflag |= CSTOPB;
  t.c_iflag &= ~(IXON | IXOFF | IXANY);
  // A read with nothing to give says so at once (the port never blocks): the waits are ours.
  t.c_cc[VMIN] = 1;
  t.c_cc[VTIME] = 0;
  if (::cfsetispeed(&t, speed->code) != 0 || ::cfsetospeed(&t, speed->code) != 0) return -1;
  return ::tcsetattr(port, TCSANOW, &t);
}

int serial_get_timeouts(int port, SerialTimeouts *timeouts) {
  auto it = open_ports().find(port);
  if (it == open_ports().end()) {
    errno = EBADF;
    return -1;
  }
  *timeouts = it->second;
  return 0;
}

int serial_set_timeouts(int port, const SerialTimeouts &timeouts) {
  auto it = open_ports().find(port);
  if (it == open_ports().end()) {
    errno = EBADF;
    return -1;
  }
  it->second = timeouts;
  return 0;
}

int serial_purge(int port) {
  return ::tcflush(port, TCIOFLUSH);
}

int serial_close(int port) {
  auto it = open_ports().find(port);
  if (it == open_ports().end()) {
    errno = EBADF;
    return -1;
  }
  open_ports().erase(it);
  if (::isatty(port) != 0) {
    ::ioctl(port, TIOCNXCL);
    // What was written is let go first: discarding it would lose the acknowledgement of the
    // last block read, and leave the far end waiting for it. Without flow control the drain
    // is bounded by the little the driver holds.
    ::tcdrain(port);
    ::tcflush(port, TCIFLUSH);
  }
  return ::close(port);
}

long serial_read(int port, void *buffer, size_t count) {
  SerialTimeouts t{};
  if (serial_get_timeouts(port, &t) < 0) return -1;
  auto *bytes = static_cast<char *>(buffer);
  return transfer(port, count, POLLIN, t.read_multiplier, t.read_constant, t.read_interval,
                  [&](size_t done) { return ::read(port, bytes + done, count - done); });
}

long serial_write(int port, const void *buffer, size_t count) {
  SerialTimeouts t{};
  if (serial_get_timeouts(port, &t) < 0) return -1;
  const auto *bytes = static_cast<const char *>(buffer);
  return transfer(port, count, POLLOUT, t.write_multiplier, t.write_constant, 0,
                  [&](size_t done) { return ::write(port, bytes + done, count - done); });
}

}  // namespace tvx::platform
