// The simulated AT-Link card: three 16-bit registers at its base address (data +0, status +2,
// control +4), a transmit and a receive FIFO, the card's own transputer with its ROM loader, and
// the link to the controller's transputer.
//
// Control register, as written by the host:
//   0x0001 local transputer reset, active low      0x0002 controller transputer reset, active high
//   0x000C analyse                                 0x0010 event
//   0x00E0 link speed: 0xC0 5, 0x00 10, 0xE0 20 Mbit/s; any other pattern matches no speed
//   0x0100 boot the card's transputer from ROM     0x0600 interrupt enables
//   0x8000 FIFO reset, active low: both FIFOs are empty and take nothing while it is 0
// Status register, low byte:
//   0x01 card transputer error  0x02 controller transputer error
//   0x04 receive FIFO not empty 0x08 receive FIFO half full, active low 0x10 full, active low
//   0x20 transmit FIFO not empty 0x40 transmit half full, active low   0x80 full, active low
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "sim/distant.h"
#include "sim/settings.h"
#include "tvx/types.h"

namespace tvx::sim {

namespace bits {
constexpr WORD kLocalReset = 0x0001;
constexpr WORD kDistantReset = 0x0002;
constexpr WORD kSpeed = 0x00E0;
constexpr WORD kBootFromRom = 0x0100;
constexpr WORD kFifoReset = 0x8000;

constexpr WORD kLocalError = 0x01;
constexpr WORD kDistantError = 0x02;
constexpr WORD kRxNotEmpty = 0x04;
constexpr WORD kRxNotHalf = 0x08;
constexpr WORD kRxNotFull = 0x10;
constexpr WORD kTxNotEmpty = 0x20;
constexpr WORD kTxNotHalf = 0x40;
constexpr WORD kTxNotFull = 0x80;
}  // namespace bits

constexpr size_t kTransmitDepth = 1024;
constexpr size_t kReceiveDepth = 1024;

template <size_t Depth>
class Fifo {
 public:
  bool empty() const { return count_ == 0; }
  bool full() const { return count_ == Depth; }
  bool half() const { return count_ >= Depth / 2; }
  size_t size() const { return count_; }
  void clear() { head_ = count_ = 0; }
  bool push(WORD w) {
    if (full()) return false;
    items_[(head_ + count_++) % Depth] = w;
    return true;
  }
  // Pushes `n` items, as many as there is room for.
  void push(const WORD *w, size_t n) {
    n = std::min(n, Depth - count_);
    const size_t tail = (head_ + count_) % Depth, first = std::min(n, Depth - tail);
    std::copy_n(w, first, items_.begin() + long(tail));
    std::copy_n(w + first, n - first, items_.begin());
    count_ += n;
  }
  WORD front() const { return items_[head_]; }
  WORD at(size_t i) const { return items_[(head_ + i) % Depth]; }
  void pop() {
    head_ = (head_ + 1) % Depth;
    --count_;
  }

 private:
  std::array<WORD, Depth> items_{};
  size_t head_ = 0, count_ = 0;
};

// Link speed in Mbit/s that a control register's speed bits select; 0 for a pattern that
// selects none.
int speed_of(WORD control);

class Card {
 public:
  // What the card's transputer is doing.
  enum class Local { reset, rom_loader, link_wait, idle, relay, halted };

  Card();

  // A readout takes every pixel through the data register: that read is made here, where the
  // port bus's call can take it without a call of its own.
  WORD read(WORD offset) {
    if (offset == kDataRegister && !rx_.empty() && !settings().card_absent) {
      last_read_ = rx_.front();
      rx_.pop();
      return last_read_;
    }
    return read_register(offset);
  }
  void write(WORD offset, WORD value);

  WORD control() const { return control_; }
  Local local() const { return local_; }
  const Distant &distant() const { return distant_; }
  Distant &distant() { return distant_; }
  size_t transmit_count() const { return tx_.size(); }
  size_t receive_count() const { return rx_.size(); }
  // Items that have crossed the link, both ways, since the count last started.
  long crossed() const { return crossed_; }

  // A change of settings from `before`: a new count for dropped words, power, and the speed of
  // the controller's end when that setting is what changed (the live link keeps the speed the
  // controller was switched to otherwise).
  void reconfigure(const Settings &before);

 private:
  static constexpr WORD kDataRegister = 0;
  WORD read_register(WORD offset);
  WORD status();
  void set_control(WORD value);
  void step();
  void run_loader();
  void relay();
  // How many of `count` items in a row get across the link; the rest are lost.
  size_t crossing(size_t count);
  void fail_local();

  WORD control_ = 0;  // at power-up both transputers and the FIFOs are held in reset
  Local local_ = Local::reset;
  bool local_error_ = false;
  // The card transputer's memory outlives its resets: the last block run and what has been set up.
  uint16_t last_block_ = 0;
  unsigned done_ops_ = 0;
  WORD last_read_ = 0;
  Fifo<kTransmitDepth> tx_;
  Fifo<kReceiveDepth> rx_;
  Distant distant_;
  bool powered_ = true;
  long crossed_ = 0;
};

}  // namespace tvx::sim
