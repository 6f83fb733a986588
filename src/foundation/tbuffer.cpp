// The pool of temporary text buffers for composing messages. Each buffer sits between two guard
// words, so a message written past either end is caught when the buffer comes back.
#include <cstring>

#include "foundation/fail.h"
#include "tvx/memory.h"
#include "tvx/values.h"

namespace {

constexpr int kBuffers = 6;
constexpr int kSize = 264;

struct Slot {
  DWORD front;
  char text[kSize];
  DWORD back;
  bool in_use;
};

Slot pool[kBuffers];

bool guards_intact(const Slot &slot) {
  return slot.front == TVX_BLOCK_MARK && slot.back == TVX_BLOCK_MARK;
}

}  // namespace

extern "C" {

char *tbuffer_new(void) {
  for (Slot &slot : pool) {
    if (slot.in_use) continue;
    slot.in_use = true;
    slot.front = TVX_BLOCK_MARK;
    slot.back = TVX_BLOCK_MARK;
    slot.text[0] = '\0';
    return slot.text;
  }
  // Six messages in composition at once means one was never given back.
  tvx::check_failed(152, "tbuffer");
}

void tbuffer_delete(char *buffer) {
  for (Slot &slot : pool) {
    if (buffer != slot.text) continue;
    if (!guards_intact(slot)) tvx::check_failed(215, "tbuffer");
    slot.in_use = false;
    return;
  }
}

INT32 tbuffer_inuse(void) {
  INT32 count = 0;
  for (const Slot &slot : pool)
    if (slot.in_use) ++count;
  return count;
}

INT32 tbuffer_size(void) {
  return kSize;
}

}  // extern "C"
