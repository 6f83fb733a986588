// Centiseconds from the monotonic clock, or from a virtual clock that tests move by hand; and how
// a wait lets time pass: sleeping, with a short spin where an answer or a deadline is close.
#include <algorithm>
#include <ctime>

#include "platform/platform.h"

namespace tvx::platform {
namespace {

struct Virtual {
  bool on = false;
  DWORD now = 0;
  DWORD step = 0;
};
Virtual virt;

constexpr uint64_t kNsPerCentisecond = 10'000'000;
// A sleep ends a little late (the kernel's timer slack and the wake-up); a wait for the clock
// spins this long before its deadline rather than sleep past it.
constexpr uint64_t kDeadlineSpin = 300'000;
// A device silent for longer than this is not about to answer: its poll starts to sleep.
constexpr uint64_t kPollSpin = 2'000'000;
constexpr uint64_t kShortestPollSleep = 50'000, kLongestPollSleep = 1'000'000;

uint64_t monotonic_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(ts.tv_nsec);
}

void sleep_ns(uint64_t ns) {
  const timespec ts{static_cast<time_t>(ns / 1'000'000'000u),
                    static_cast<long>(ns % 1'000'000'000u)};
  // A signal cuts the sleep short; the caller looks again and pauses again if it must.
  clock_nanosleep(CLOCK_MONOTONIC, 0, &ts, nullptr);
}

void spin() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

}  // namespace

DWORD clock_centiseconds() {
  if (virt.on) {
    DWORD now = virt.now;
    virt.now += virt.step;
    return now;
  }
  // Wraps like the 32-bit tick count it stands for; callers compare differences.
  return static_cast<DWORD>(monotonic_ns() / kNsPerCentisecond);
}

void clock_virtual(DWORD start) {
  virt.on = true;
  virt.now = start;
  virt.step = 0;
}

void clock_real() {
  virt = Virtual{};
}
bool clock_is_virtual() {
  return virt.on;
}
void clock_set(DWORD centiseconds) {
  virt.now = centiseconds;
}
void clock_advance(DWORD centiseconds) {
  virt.now += centiseconds;
}
void clock_step(DWORD per_read) {
  virt.step = per_read;
}

void clock_rest(DWORD deadline) {
  if (virt.on) {
    ++virt.now;
    return;
  }
  const uint64_t now = monotonic_ns();
  const uint64_t ticks = now / kNsPerCentisecond;
  const auto left = static_cast<int32_t>(deadline - static_cast<DWORD>(ticks));
  if (left <= 0) return;
  // The moment the clock turns to `deadline`.
  const uint64_t until = (ticks + static_cast<uint64_t>(left)) * kNsPerCentisecond - now;
  if (until <= kDeadlineSpin) return spin();
  sleep_ns(std::min(until - kDeadlineSpin, kNsPerCentisecond));
}

void PollPauses::pause() {
  if (virt.on) {
    ++virt.now;
    return;
  }
  const uint64_t now = monotonic_ns();
  if (silent_since_ == 0) silent_since_ = now;
  const uint64_t silent = now - silent_since_;
  if (silent < kPollSpin) return spin();
  sleep_ns(std::clamp(silent / 8, kShortestPollSleep, kLongestPollSleep));
}

}  // namespace tvx::platform
