// Centiseconds from the monotonic clock, or from a virtual clock that tests move by hand.
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

}  // namespace

DWORD clock_centiseconds() {
  if (virt.on) {
    DWORD now = virt.now;
    virt.now += virt.step;
    return now;
  }
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  // Wraps like the 32-bit tick count it stands for; callers compare differences.
  auto ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
  return static_cast<DWORD>(ms / 10u);
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

void clock_idle() {
  if (virt.on) {
    ++virt.now;
    return;
  }
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

}  // namespace tvx::platform
