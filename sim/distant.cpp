#include "sim/distant.h"

namespace tvx::sim {

void Distant::hold_reset() {
  state_ = State::reset;
  error_ = false;
  controller_.reset();
  program_.clear();
}

void Distant::release_reset() {
  if (state_ != State::reset) return;
  // Out of reset, a transputer waits for a boot on its link.
  state_ = State::awaiting_boot;
  boot_.clear();
  expected_ = 0;
  verdict_ = ucode::Verdict::truncated;
}

void Distant::halt(ucode::Verdict why) {
  state_ = State::halted;
  error_ = true;
  verdict_ = why;
}

void Distant::receive(WORD item) {
  if (state_ == State::running) {
    controller_->receive(item);
    if (int speed = controller_->take_speed_change()) speed_ = speed;
    return;
  }
  if (state_ != State::awaiting_boot) return;
  // The boot link carries bytes: a wider item loses its high byte on the way in.
  boot_.push_back(static_cast<uint8_t>(item & 0xFF));
  if (boot_.size() == ucode::kImageHeader) {
    ucode::Verdict header = ucode::check_header(boot_.data(), ucode::kBootMagic);
    if (header != ucode::Verdict::ok) return halt(header);
    expected_ = ucode::kImageHeader + ucode::le32(boot_.data() + 6) + ucode::kImageTrailer;
  }
  if (expected_ == 0 || boot_.size() < expected_) return;
  std::string name;
  ucode::Verdict verdict = ucode::check_image(boot_, ucode::kBootMagic, &name);
  if (verdict != ucode::Verdict::ok) return halt(verdict);
  verdict_ = verdict;
  program_ = name;
  controller_ = make_controller(name);
  state_ = State::running;
  boot_.clear();
  boot_.shrink_to_fit();
}

size_t Distant::next_outputs(WORD *items, size_t most) {
  if (state_ != State::running) return 0;
  return controller_->next_outputs(items, most);
}

}  // namespace tvx::sim
