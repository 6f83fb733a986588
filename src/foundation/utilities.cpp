// Conversions from definition-file text, number splitting for printing, byte swapping and a
// bounded copy.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "tvx/values.h"

extern "C" {

INT32 str_to_int(const char *text) {
  long value = 0;
  if (text == nullptr || std::sscanf(text, "%li", &value) != 1) return 0;
  return static_cast<INT32>(value);
}

double str_to_float(const char *text) {
  double value = 0.0;
  if (text == nullptr || std::sscanf(text, "%lf", &value) != 1) return 0.0;
  return value;
}

BOOL str_to_bool(const char *text) {
  return text != nullptr && std::strcmp(text, "TRUE") == 0;
}

long long whole_part(double x) {
  return static_cast<long long>(x);
}

long long frac_part(double x, INT32 digits) {
  double scale = digits >= 1 ? std::pow(10.0, digits) : 10.0;
  return static_cast<long long>((x - std::trunc(x)) * scale);
}

INT16 *am_swap_INT16(INT16 *p) {
  auto *b = reinterpret_cast<BYTE *>(p);
  BYTE t = b[0];
  b[0] = b[1];
  b[1] = t;
  return p;
}

INT32 *am_swap_INT32(INT32 *p) {
  auto *b = reinterpret_cast<BYTE *>(p);
  BYTE t = b[0];
  b[0] = b[3];
  b[3] = t;
  t = b[1];
  b[1] = b[2];
  b[2] = t;
  return p;
}

char *lstrncpy(char *dst, const char *src, INT32 n) {
  for (INT32 i = 0; i < n; ++i)
    if ((*dst++ = *src++) == '\0') break;
  return dst;
}

}  // extern "C"
