#include "serial_wire.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace tvxsim {

namespace {

constexpr uint8_t kAck = 255;
constexpr int kLongestPacket = 200;
// How long the server waits for the host to acknowledge a block before it drops the packet.
constexpr int kAckWaitMs = 2000;
// Words of a packet the server has begun to give follow at once; this only bounds a bug.
constexpr int kRestOfPacketMs = 1000;
constexpr int kPollMs = 10;

}  // namespace

// Polls in short slices, so that a request to stop is heard while the host keeps us waiting.
bool SerialWire::read_byte(uint8_t &byte, int ms) {
  pollfd p{fd_, POLLIN, 0};
  for (int waited = 0; stop_ == 0 && waited < ms;) {
    const int ready = ::poll(&p, 1, kPollMs);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      waited += kPollMs;
      continue;
    }
    const ssize_t n = ready < 0 ? -1 : ::read(fd_, &byte, 1);
    if (n == 1) return true;
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    failed_ = true;  // the line itself has gone
    return false;
  }
  return false;
}

bool SerialWire::write_all(const uint8_t *bytes, size_t count) {
  size_t done = 0;
  while (done < count) {
    const ssize_t n = ::write(fd_, bytes + done, count - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      pollfd p{fd_, POLLOUT, 0};
      ::poll(&p, 1, kPollMs);
      continue;
    }
    failed_ = true;
    return false;
  }
  return true;
}

// One byte from the host. The size word is acknowledged as soon as it is whole, the packet's
// words once the last has come; a size the server cannot take announces no block.
bool SerialWire::take(uint8_t byte) {
  if (block_left_ > 0) {
    if (feeding_) server_.receive(byte);
    if (--block_left_ == 0) return write_all(&kAck, 1);
    return true;
  }
  size_bytes_[size_got_++] = byte;
  if (size_got_ < 2) return true;
  size_got_ = 0;
  const auto size = static_cast<int16_t>(size_bytes_[0] | size_bytes_[1] << 8);
  server_.receive(size_bytes_[0]);
  server_.receive(size_bytes_[1]);
  if (!write_all(&kAck, 1)) return false;
  if (size < 0 || size > kLongestPacket) return true;
  feeding_ = size >= 3;
  block_left_ = 2L * size;
  // An empty block is acknowledged all the same: its sender waits for the byte.
  if (block_left_ == 0) return write_all(&kAck, 1);
  return true;
}

bool SerialWire::send_block(const std::vector<uint8_t> &bytes, size_t from, size_t count) {
  if (!write_all(bytes.data() + from, count)) return false;
  uint8_t ack = 0;
  if (!read_byte(ack, kAckWaitMs)) {
    if (!failed_ && stop_ == 0) std::fprintf(stderr, "tvxsim: no acknowledgement from the host\n");
    return false;
  }
  if (ack != kAck) {
    std::fprintf(stderr, "tvxsim: ack error: ack=%d\n", int{ack});
    return false;
  }
  return true;
}

// Sends every packet the server has ready. A packet the host does not acknowledge is dropped,
// as a controller drops a reply nobody takes.
bool SerialWire::serve_output() {
  WORD item = 0;
  while (!failed_ && server_.next_output(item)) {
    std::vector<uint8_t> packet{static_cast<uint8_t>(item)};
    size_t wanted = 2;
    int waited = 0;
    while (packet.size() < wanted) {
      if (server_.next_output(item)) {
        packet.push_back(static_cast<uint8_t>(item));
        if (packet.size() == 2) {
          const auto size = static_cast<int16_t>(packet[0] | packet[1] << 8);
          wanted = 2 + 2 * static_cast<size_t>(size < 0 ? 0 : size);
        }
      } else if ((waited += kPollMs) > kRestOfPacketMs) {
        std::fprintf(stderr, "tvxsim: the server stopped inside a packet\n");
        return true;
      } else {
        ::usleep(kPollMs * 1000);
      }
    }
    if (!send_block(packet, 0, 2)) continue;
    send_block(packet, 2, packet.size() - 2);
  }
  return !failed_;
}

bool SerialWire::run() {
  uint8_t bytes[512];
  while (stop_ == 0) {
    if (idle() && !serve_output()) return false;
    pollfd p{fd_, POLLIN, 0};
    const int ready = ::poll(&p, 1, kPollMs);
    if (ready < 0 && errno != EINTR) return false;
    if (ready <= 0) continue;
    const ssize_t n = ::read(fd_, bytes, sizeof bytes);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) return false;
    for (ssize_t i = 0; i < n; ++i)
      if (!take(bytes[i])) return false;
  }
  return true;
}

}  // namespace tvxsim
