// The library's block table. Tokens carry a slot index and a generation, so a stale or forged
// token is recognised by looking it up, never by reading memory through it. Freed slots are
// reused oldest first, which keeps a token stale for as long as possible before its slot could
// carry the same generation again.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <unordered_map>
#include <vector>

#include "platform/platform.h"

namespace tvx::platform {
namespace {

constexpr unsigned kIndexBits = 20;
constexpr DWORD kIndexMask = (1u << kIndexBits) - 1;
constexpr DWORD kGenerationMask = (1u << (32 - kIndexBits)) - 1;
// Freed slots wait in line this long before reuse.
constexpr size_t kReuseDelay = 4096;
constexpr unsigned char kPoison = 0xDD;

enum class State : unsigned char { kLive, kFreed, kVacant };

struct Slot {
  void *address = nullptr;  // live address, or the last one while freed
  size_t size = 0;
  unsigned locks = 0;
  DWORD generation = 0;
  State state = State::kVacant;
  bool movable = false;
};

struct Table {
  std::vector<Slot> slots;
  std::deque<DWORD> vacant;  // slot indexes, oldest freed first
  std::unordered_map<const void *, DWORD> live;
  std::unordered_map<const void *, DWORD> freed;
  size_t live_count = 0;
  long fail_countdown = 0;
  bool fail_persistent = false;
  long injected = 0;
  bool moving = false;
};

// Never destroyed: blocks may be freed by other objects' destructors at exit.
Table &table() {
  static Table *t = new Table;
  return *t;
}

DWORD make_token(DWORD index, DWORD generation) {
  return (generation << kIndexBits) | (index + 1);
}

Slot *live_slot(DWORD token) {
  Table &t = table();
  DWORD index = (token & kIndexMask) - 1;
  if ((token & kIndexMask) == 0 || index >= t.slots.size()) return nullptr;
  Slot &s = t.slots[index];
  if (s.state != State::kLive || s.generation != token >> kIndexBits) return nullptr;
  return &s;
}

bool inject_failure() {
  Table &t = table();
  if (t.fail_countdown <= 0) return false;
  if (t.fail_countdown == 1) {
    if (!t.fail_persistent) t.fail_countdown = 0;
    ++t.injected;
    return true;
  }
  --t.fail_countdown;
  return false;
}

// Moves an unlocked block to fresh memory and poisons the old place.
void relocate(Slot &s, DWORD token) {
  void *fresh = std::malloc(s.size);
  if (fresh == nullptr) return;  // staying put is always correct
  std::memcpy(fresh, s.address, s.size);
  std::memset(s.address, kPoison, s.size);
  Table &t = table();
  t.live.erase(s.address);
  std::free(s.address);
  s.address = fresh;
  t.live[fresh] = token;
}

}  // namespace

DWORD block_alloc(size_t size, bool movable) {
  Table &t = table();
  if (inject_failure()) {
    errno = ENOMEM;
    return 0;
  }
  void *address = std::calloc(1, size == 0 ? 1 : size);
  if (address == nullptr) return 0;

  DWORD index;
  if (t.vacant.size() > kReuseDelay || (t.slots.size() >= kIndexMask && !t.vacant.empty())) {
    index = t.vacant.front();
    t.vacant.pop_front();
    Slot &old = t.slots[index];
    auto it = t.freed.find(old.address);
    if (it != t.freed.end() && it->second == make_token(index, old.generation)) t.freed.erase(it);
  } else if (t.slots.size() < kIndexMask) {
    index = static_cast<DWORD>(t.slots.size());
    t.slots.emplace_back();
  } else {
    std::free(address);
    errno = ENOMEM;
    return 0;
  }
  Slot &s = t.slots[index];
  s.address = address;
  s.size = size;
  s.locks = 0;
  s.generation = (s.generation + 1) & kGenerationMask;
  s.state = State::kLive;
  s.movable = movable;
  DWORD token = make_token(index, s.generation);
  t.freed.erase(address);
  t.live[address] = token;
  ++t.live_count;
  return token;
}

void *block_lock(DWORD token) {
  Slot *s = live_slot(token);
  if (s == nullptr) return nullptr;
  ++s->locks;
  return s->address;
}

bool block_unlock(DWORD token) {
  Slot *s = live_slot(token);
  if (s == nullptr || s->locks == 0) return false;
  if (--s->locks == 0 && s->movable && table().moving) relocate(*s, token);
  return true;
}

bool block_free(DWORD token) {
  Slot *s = live_slot(token);
  if (s == nullptr) return false;
  Table &t = table();
  t.live.erase(s->address);
  t.freed[s->address] = token;
  std::memset(s->address, kPoison, s->size);
  std::free(s->address);
  s->state = State::kFreed;
  s->locks = 0;
  t.vacant.push_back((token & kIndexMask) - 1);
  --t.live_count;
  return true;
}

size_t block_size(DWORD token) {
  Slot *s = live_slot(token);
  return s == nullptr ? 0 : s->size;
}

DWORD block_handle_of(const void *address) {
  auto &live = table().live;
  auto it = live.find(address);
  return it == live.end() ? 0 : it->second;
}

bool block_was_freed(DWORD token) {
  Table &t = table();
  DWORD index = (token & kIndexMask) - 1;
  if ((token & kIndexMask) == 0 || index >= t.slots.size()) return false;
  const Slot &s = t.slots[index];
  return s.state == State::kFreed && s.generation == token >> kIndexBits;
}

DWORD block_freed_handle_of(const void *address) {
  auto &freed = table().freed;
  auto it = freed.find(address);
  return it == freed.end() ? 0 : it->second;
}

size_t block_compact(size_t) {
  return 0;
}

size_t block_count() {
  return table().live_count;
}

void block_fail_nth(long nth, bool persistent) {
  Table &t = table();
  t.fail_countdown = nth > 0 ? nth : 0;
  t.fail_persistent = persistent;
  t.injected = 0;
}

long block_injected_failures() {
  return table().injected;
}

void block_moving(bool on) {
  table().moving = on;
}

}  // namespace tvx::platform
