// The controller's transputer, at the far end of the link. After its reset it takes a boot
// stream byte by byte, checks it, and starts the program it carries; a stream it cannot trust
// stops it with its error flag up, as a transputer that ran garbage would stop.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sim/controller.h"
#include "sim/ucode.h"
#include "tvx/types.h"

namespace tvx::sim {

class Distant {
 public:
  enum class State { reset, awaiting_boot, halted, running };

  explicit Distant(int speed) : speed_(speed) {}

  void hold_reset();
  void release_reset();

  // Whether the transputer takes an item from the link now: a halted one or one held in reset
  // leaves the link unacknowledged.
  bool accepts() const { return state_ == State::awaiting_boot || state_ == State::running; }
  void receive(WORD item);
  // Up to `most` items for the host; returns how many.
  size_t next_outputs(WORD *items, size_t most);

  State state() const { return state_; }
  bool error() const { return error_; }
  int speed() const { return speed_; }
  void set_speed(int mbits) { speed_ = mbits; }
  // What the boot loader made of the last stream, and the name of the program it started.
  ucode::Verdict verdict() const { return verdict_; }
  const std::string &program() const { return program_; }
  ControllerProgram *controller() const { return controller_.get(); }
  size_t boot_bytes() const { return boot_.size(); }

 private:
  void halt(ucode::Verdict why);

  State state_ = State::awaiting_boot;
  bool error_ = false;
  int speed_;
  std::vector<uint8_t> boot_;
  size_t expected_ = 0;  // bytes of the whole stream, once its header is in
  ucode::Verdict verdict_ = ucode::Verdict::truncated;
  std::string program_;
  std::unique_ptr<ControllerProgram> controller_;
};

}  // namespace tvx::sim
