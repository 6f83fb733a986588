#include "sim/card.h"

#include "sim/settings.h"

namespace tvx::sim {

namespace {

constexpr WORD kStatusOffset = 2;
constexpr WORD kControlOffset = 4;
constexpr WORD kFloating = 0xFFFF;

}  // namespace

int speed_of(WORD control) {
  switch (control & bits::kSpeed) {
    case 0x00C0:
      return 5;
    case 0x0000:
      return 10;
    case 0x00E0:
      return 20;
    default:
      return 0;
  }
}

Card::Card() : distant_(settings().controller_speed) {
  powered_ = !settings().power_off;
}

WORD Card::read_register(WORD offset) {
  if (settings().card_absent) return kFloating;
  switch (offset) {
    case kDataRegister:
      // The link refills the FIFO behind the host's reads; a status read shows it refilled, and
      // so does a data read that finds it empty, which is all the host can tell.
      if (rx_.empty()) step();
      if (!rx_.empty()) {
        last_read_ = rx_.front();
        rx_.pop();
      }
      // An empty FIFO shows its last word again.
      return last_read_;
    case kStatusOffset:
      return status();
    case kControlOffset:
      return control_;
    default:
      return kFloating;
  }
}

void Card::write(WORD offset, WORD value) {
  if (settings().card_absent) return;
  switch (offset) {
    case kDataRegister:
      // A FIFO in reset, or full, loses what is written to it.
      if ((control_ & bits::kFifoReset) != 0) tx_.push(value);
      step();
      return;
    case kControlOffset:
      set_control(value);
      return;
    default:
      return;
  }
}

WORD Card::status() {
  step();
  WORD s = 0;
  if (local_error_ || settings().local_error) s |= bits::kLocalError;
  if ((powered_ && distant_.error()) || settings().distant_error) s |= bits::kDistantError;
  if (!rx_.empty()) s |= bits::kRxNotEmpty;
  if (!rx_.half()) s |= bits::kRxNotHalf;
  if (!rx_.full()) s |= bits::kRxNotFull;
  if (!tx_.empty()) s |= bits::kTxNotEmpty;
  if (!tx_.half()) s |= bits::kTxNotHalf;
  if (!tx_.full()) s |= bits::kTxNotFull;
  return s;
}

void Card::set_control(WORD value) {
  const WORD old = control_;
  control_ = value;
  if ((value & bits::kFifoReset) == 0) {
    tx_.clear();
    rx_.clear();
  }
  if ((value & bits::kLocalReset) == 0) {
    // Held in reset: the transputer stops, and its error flag with it.
    local_ = Local::reset;
    local_error_ = false;
  } else if ((old & bits::kLocalReset) == 0) {
    local_ = (value & bits::kBootFromRom) != 0 ? Local::rom_loader : Local::link_wait;
  }
  const bool distant_held = (value & bits::kDistantReset) != 0;
  const bool was_held = (old & bits::kDistantReset) != 0;
  if (distant_held && !was_held) {
    distant_.hold_reset();
    distant_.set_speed(settings().controller_speed);
  } else if (!distant_held && was_held) {
    distant_.release_reset();
  }
  step();
}

void Card::fail_local() {
  local_error_ = true;
  local_ = Local::halted;
}

// The ROM loader takes one initialisation block from the transmit FIFO once the whole of it is
// there, and runs it.
void Card::run_loader() {
  namespace uc = ucode;
  if (tx_.empty()) return;
  if (tx_.front() != uc::kBlockMagic) return fail_local();
  if (tx_.size() < 3) return;
  const size_t length = tx_.at(2);
  if (length < uc::kBlockMin || length > uc::kBlockMax) return fail_local();
  if (tx_.size() < length) return;
  std::array<uint16_t, uc::kBlockMax> block{};
  for (size_t i = 0; i < length; ++i) {
    block[i] = tx_.front();
    tx_.pop();
  }
  if (block[1] != uc::kVersion) return fail_local();
  if (uc::check_word(block.data(), length) != 0) return fail_local();
  const uint16_t sequence = block[3];
  if (sequence == 1) {
    done_ops_ = 0;
  } else if (sequence != last_block_ + 1) {
    return fail_local();
  }
  last_block_ = sequence;
  switch (static_cast<uc::Op>(block[4])) {
    case uc::Op::memory_test:
    case uc::Op::link_setup:
      done_ops_ |= 1u << block[4];
      local_ = Local::idle;
      return;
    case uc::Op::start_relay: {
      const unsigned needed = 1u << static_cast<unsigned>(uc::Op::memory_test) |
                              1u << static_cast<unsigned>(uc::Op::link_setup);
      if ((done_ops_ & needed) != needed) return fail_local();
      local_ = Local::relay;
      return;
    }
  }
  fail_local();
}

size_t Card::crossing(size_t count) {
  // Ends at different speeds do not understand each other: every item is lost.
  if (speed_of(control_) != distant_.speed()) return 0;
  const long limit = settings().drop_after;
  if (limit > 0) count = std::min(count, size_t(std::max(limit - crossed_, 0L)));
  crossed_ += long(count);
  return count;
}

void Card::relay() {
  // A camera that is switched off never acknowledges: the relay stalls and the FIFO fills.
  if (!powered_) return;
  while (!tx_.empty() && distant_.accepts()) {
    const WORD item = tx_.front();
    tx_.pop();
    if (crossing(1) == 1) distant_.receive(item);
  }
  // What the controller has to send comes over in runs as long as the FIFO has room for.
  std::array<WORD, kReceiveDepth> run;
  while (!rx_.full()) {
    const size_t n = distant_.next_outputs(run.data(), kReceiveDepth - rx_.size());
    if (n == 0) return;
    // The words lost on the way are the last ones: the link stops carrying after its limit.
    rx_.push(run.data(), crossing(n));
  }
}

void Card::step() {
  if (local_ == Local::rom_loader) run_loader();
  if (local_ == Local::relay && (control_ & bits::kFifoReset) != 0) relay();
}

void Card::reconfigure(const Settings &before) {
  const Settings &now = settings();
  if (powered_ && now.power_off) {
    powered_ = false;
  } else if (!powered_ && !now.power_off) {
    // Switched on again: the controller comes up fresh, waiting for its boot.
    powered_ = true;
    distant_ = Distant(now.controller_speed);
  }
  if (now.controller_speed != before.controller_speed) distant_.set_speed(now.controller_speed);
  crossed_ = 0;
}

}  // namespace tvx::sim
