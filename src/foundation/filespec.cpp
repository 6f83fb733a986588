// File-name helpers for names written with either separator, "\" or "/". Each returns its own
// static buffer, so a result stays valid until the same helper is called again.
#include <cctype>
#include <cstring>

#include "tvx/values.h"

namespace {

constexpr size_t kRoom = 256;
constexpr const char *kNone = "";

bool is_separator(char c) {
  return c == '\\' || c == '/';
}

// Position of the last separator among the first `length` characters; -1 when there is none.
long last_separator(const char *spec, size_t length) {
  for (size_t i = length; i > 0; --i)
    if (is_separator(spec[i - 1])) return static_cast<long>(i - 1);
  return -1;
}

// Copies `length` characters from `from` into `room`, cut to what the buffer holds.
const char *keep(char (&room)[kRoom], const char *from, size_t length) {
  if (length > kRoom - 1) length = kRoom - 1;
  std::memcpy(room, from, length);
  room[length] = '\0';
  return room;
}

// The name after the last separator, or the whole spec when none or nothing follows it.
const char *name_of(const char *spec) {
  long sep = last_separator(spec, std::strlen(spec));
  if (sep < 0 || spec[sep + 1] == '\0') return spec;
  return spec + sep + 1;
}

}  // namespace

extern "C" {

const char *filespec_path(const char *spec) {
  static char room[kRoom];
  if (spec == nullptr) spec = kNone;
  size_t length = std::strlen(spec);
  if (length > kRoom - 1) length = kRoom - 1;
  return keep(room, spec, static_cast<size_t>(last_separator(spec, length) + 1));
}

const char *filespec_name(const char *spec) {
  static char room[kRoom];
  const char *name = name_of(spec != nullptr ? spec : kNone);
  return keep(room, name, std::strlen(name));
}

const char *filespec_name_noext(const char *spec) {
  static char room[kRoom];
  const char *name = name_of(spec != nullptr ? spec : kNone);
  const char *dot = std::strrchr(name, '.');
  // A name that starts with its only dot, such as ".profile", has no extension to cut.
  size_t length =
      dot != nullptr && dot != name ? static_cast<size_t>(dot - name) : std::strlen(name);
  return keep(room, name, length);
}

const char *filespec_ext(const char *spec) {
  static char room[kRoom];
  if (spec == nullptr) spec = kNone;
  const char *dot = std::strrchr(spec, '.');
  if (dot == nullptr || dot == spec) return keep(room, kNone, 0);
  for (const char *c = dot; *c != '\0'; ++c)
    if (is_separator(*c)) return keep(room, kNone, 0);
  return keep(room, dot, std::strlen(dot));
}

INT32 filespec_dir_count(const char *spec) {
  INT32 count = 0;
  for (const char *c = spec; c != nullptr && *c != '\0'; ++c)
    if (is_separator(*c)) ++count;
  return count;
}

// A long name shown in a message keeps its first directories and its last two, with "..." for
// what lies between: C:\a\b\c\d\e\f.txt becomes C:\a\b\...\d\e\f.txt.
const char *filespec_summarise(const char *spec) {
  static char room[kRoom];
  if (spec == nullptr) spec = kNone;
  const size_t length = std::strlen(spec);
  const INT32 count = filespec_dir_count(spec);
  if (count < 6) return keep(room, spec, length);

  const bool rooted = is_separator(spec[0]) ||
                      (std::isalpha(static_cast<unsigned char>(spec[0])) && spec[1] == ':');
  const INT32 head_separators = rooted ? 3 : 2;
  const INT32 tail_separator = count - 2;  // the first that leaves fewer than 3 after it
  size_t head = 0;
  size_t tail = 0;
  INT32 seen = 0;
  for (size_t i = 0; i < length; ++i) {
    if (!is_separator(spec[i])) continue;
    ++seen;
    if (seen == head_separators) head = i + 1;
    if (seen == tail_separator) tail = i;
  }

  char whole[kRoom * 2 + 4];
  size_t used = 0;
  auto add = [&](const char *from, size_t n) {
    if (n > sizeof whole - 1 - used) n = sizeof whole - 1 - used;
    std::memcpy(whole + used, from, n);
    used += n;
  };
  add(spec, head);
  add("...", 3);
  add(spec + tail, length - tail);
  return keep(room, whole, used);
}

}  // extern "C"
