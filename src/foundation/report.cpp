// The four report channels and the capture of the information report.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tvx/report.h"

namespace {

report channels[4] = {
    {nullptr, "INFO: "},
    {nullptr, "WARNING: "},
    {nullptr, "ERROR: "},
    {nullptr, "PANIC: "},
};
report &information = channels[REPORT_INFO];
report &panic_channel = channels[REPORT_PANIC];

[[noreturn]] void panic(const char *format, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void panic(const char *format, ...) {
  char line[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  report_send(&panic_channel, "%s", line);
  std::abort();
}

// The composition buffer grows to whatever a message needs; it is kept for the next one.
char *composed = nullptr;
size_t composed_room = 0;

const char *compose(const char *prefix, const char *format, va_list args) {
  va_list measure;
  va_copy(measure, args);
  size_t prefix_length = std::strlen(prefix);
  int length = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (length < 0) length = 0;
  size_t needed = prefix_length + static_cast<size_t>(length) + 1;
  if (needed > composed_room) {
    auto *grown = static_cast<char *>(std::realloc(composed, needed));
    if (grown == nullptr) std::abort();
    composed = grown;
    composed_room = needed;
  }
  std::memcpy(composed, prefix, prefix_length);
  std::vsnprintf(composed + prefix_length, composed_room - prefix_length, format, args);
  return composed;
}

constexpr size_t kCaptureSize = 256;
struct Capture {
  report_destination saved = nullptr;
  char text[kCaptureSize] = {};
  size_t length = 0;
};
Capture capture;

}  // namespace

extern "C" {

report **report_new(report **out) {
  auto *r = static_cast<report *>(std::malloc(sizeof(report)));
  if (r == nullptr) panic("report_send: malloc failed");
  r->destination = nullptr;
  r->prefix = "";
  *out = r;
  return out;
}

void report_delete(report *r) {
  if (r == nullptr) panic("report_delete: NULL object");
  std::free(r);
}

void report_set_destination(report *r, report_destination fn) {
  if (r == nullptr) panic("report_set_destination: NULL object");
  if (fn == nullptr) panic("report_set_destination: NULL destination");
  r->destination = fn;
}

const char **report_get_prefix(report *r, const char **out) {
  if (r == nullptr) panic("%s: NULL object", "report_get_prefix");
  if (out == nullptr) panic("%s: NULL prefix pointer", "report_get_prefix");
  *out = r->prefix;
  return out;
}

void report_set_prefix(report *r, const char *prefix) {
  if (r == nullptr) panic("report_set_prefix: NULL object");
  if (prefix == nullptr) panic("report_set_prefix: NULL prefix");
  r->prefix = prefix;
}

int report_send(report *r, const char *format, ...) {
  if (r == nullptr) std::abort();
  // A broken panic report cannot report itself.
  if (r == &panic_channel &&
      (r->destination == nullptr || r->prefix == nullptr || format == nullptr))
    std::abort();
  if (r->destination == nullptr) panic("report_send: NULL destination\n");
  if (r->prefix == nullptr) panic("report_send: NULL prefix");
  if (format == nullptr) panic("report_send: NULL format");
  va_list args;
  va_start(args, format);
  const char *line = compose(r->prefix, format, args);
  va_end(args);
  return r->destination(line);
}

report **report_where_is(INT32 id, report **out) {
  if (id < REPORT_INFO || id > REPORT_PANIC)
    panic("report_where_is: invalid object identifier : %ld\n", long{id});
  *out = &channels[id];
  return out;
}

report **report_get_objects(report **array) {
  for (int id = REPORT_INFO; id <= REPORT_PANIC; ++id) array[REPORT_PANIC - id] = &channels[id];
  return array;
}

void report_capture_start(void) {
  capture.saved = information.destination;
  capture.length = 0;
  capture.text[0] = '\0';
  information.destination = report_capture_send;
}

void report_capture_stop(void) {
  information.destination = capture.saved;
}

int report_capture_send(const char *text) {
  if (text != nullptr) {
    size_t length = std::strlen(text);
    if (capture.length + length < kCaptureSize) {
      std::memcpy(capture.text + capture.length, text, length + 1);
      capture.length += length;
    }
  }
  return capture.saved != nullptr ? capture.saved(capture.text) : 0;
}

}  // extern "C"
