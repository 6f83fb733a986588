// The controller's side of the serial line: the camera server's packets as acknowledged blocks.
// Each packet, either way, is its size word, then its words; whoever receives a block of words
// answers it with the byte 255. The server itself sees the packets as the byte stream it takes
// off any link.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "sim/controller.h"

namespace tvxsim {

class SerialWire {
 public:
  SerialWire(int fd, tvx::sim::ControllerProgram &server, const volatile std::sig_atomic_t &stop)
      : fd_(fd), server_(server), stop_(stop) {}
  // Serves until `stop` is set or the line fails; false when the line failed.
  bool run();

 private:
  bool idle() const { return size_got_ == 0 && block_left_ == 0; }
  bool take(uint8_t byte);
  bool serve_output();
  bool send_block(const std::vector<uint8_t> &bytes, size_t from, size_t count);
  bool write_all(const uint8_t *bytes, size_t count);
  // Waits at most `ms` for one byte; false on time-out or a failed line (see `failed_`).
  bool read_byte(uint8_t &byte, int ms);

  int fd_;
  tvx::sim::ControllerProgram &server_;
  const volatile std::sig_atomic_t &stop_;
  uint8_t size_bytes_[2] = {};
  size_t size_got_ = 0;
  long block_left_ = 0;  // bytes of the incoming block still to come
  bool feeding_ = true;  // the block belongs to a packet the server can take
  bool failed_ = false;
};

}  // namespace tvxsim
