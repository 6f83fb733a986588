// Whether one value of a section row is what its declaration allows: its kind, then a range or a
// selection written as text in the declaration.
#include <cctype>
#include <cstdio>
#include <cstring>

#include "foundation/fail.h"
#include "tvx/config.h"
#include "tvx/values.h"

namespace {

struct TypeLetter {
  char letter;
  INT32 kind;
};
constexpr TypeLetter kTypeLetters[] = {
    {'s', CONFIG_STRING}, {'f', CONFIG_FLOAT}, {'i', CONFIG_INTEGER}, {'b', CONFIG_BOOLEAN}};

// Steps over what separates numbers in an allowed-values text: anything up to the next character
// that can start a number. A minus sign can start one, so "1-16" reads as 1 and -16.
const char *to_number(const char *p, const char *starts) {
  while (*p != '\0' && std::strchr(starts, *p) == nullptr) ++p;
  return p;
}
constexpr const char *kIntegerStarts = "0123456789-+";
constexpr const char *kFloatStarts = "0123456789-+.";

template <class T>
bool in_range(const char *allowed, T value, const char *first, const char *second,
              const char *starts) {
  T low{}, high{};
  int used = 0;
  if (std::sscanf(allowed, first, &low, &used) != 1) return false;
  if (std::sscanf(to_number(allowed + used, starts), second, &high) != 1) return false;
  return low <= value && value <= high;
}

template <class T>
bool in_selection(const char *allowed, T value, const char *format, const char *starts) {
  const char *p = to_number(allowed, starts);
  T candidate{};
  int used = 0;
  while (*p != '\0' && std::sscanf(p, format, &candidate, &used) == 1) {
    if (candidate == value) return true;
    p = to_number(p + (used > 0 ? used : 1), starts);
  }
  return false;
}

// Each blank-separated word of the selection, handed to `match` until it says yes.
template <class Match>
bool any_word(const char *allowed, Match match) {
  char word[264];
  int used = 0;
  for (const char *p = allowed; std::sscanf(p, "%263s%n", word, &used) == 1; p += used)
    if (match(word)) return true;
  return false;
}

}  // namespace

extern "C" {

BOOL valid_type(INT32 kind, const char *type) {
  for (const TypeLetter &row : kTypeLetters)
    if (type[0] == row.letter) return kind == row.kind;
  return FALSE;
}

BOOL check_ival_range(const char *allowed, INT32 value) {
  long v = value;
  return in_range<long>(allowed, v, "%li%n", "%li", kIntegerStarts);
}

BOOL check_fval_range(const char *allowed, double value) {
  return in_range<double>(allowed, value, "%lf%n", "%lf", kFloatStarts);
}

BOOL check_ival_selection(const char *allowed, INT32 value) {
  return in_selection<long>(allowed, value, "%li%n", kIntegerStarts);
}

BOOL check_fval_selection(const char *allowed, double value) {
  return in_selection<double>(allowed, value, "%lf%n", kFloatStarts);
}

BOOL check_bval_selection(const char *allowed, BOOL value) {
  const char *wanted = value ? "TRUE" : "FALSE";
  return any_word(allowed, [wanted](char *word) {
    for (char *c = word; *c != '\0'; ++c) *c = static_cast<char>(std::toupper(*c));
    return std::strcmp(word, wanted) == 0;
  });
}

BOOL check_sval_selection(const char *allowed, const char *value) {
  return any_word(allowed, [value](const char *word) { return std::strcmp(word, value) == 0; });
}

BOOL valid_range(const char *allowed, const char *value, INT32 kind) {
  if (kind == CONFIG_INTEGER) return check_ival_range(allowed, str_to_int(value));
  if (kind == CONFIG_FLOAT) return check_fval_range(allowed, str_to_float(value));
  return FALSE;
}

BOOL valid_selection(const char *allowed, const char *value, INT32 kind) {
  switch (kind) {
    case CONFIG_INTEGER:
      return check_ival_selection(allowed, str_to_int(value));
    case CONFIG_FLOAT:
      return check_fval_selection(allowed, str_to_float(value));
    case CONFIG_BOOLEAN:
      return check_bval_selection(allowed, str_to_bool(value));
    case CONFIG_STRING:
      return check_sval_selection(allowed, value);
    default:
      return FALSE;
  }
}

BOOL valid(const char *identifier, const char *value, INT32 kind, const char *allowed,
           const char *type) {
  static const char *const kOp = "valid";
  if (!valid_type(kind, type))
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {},
                     "invalid data type '%c' for identifier '%s' in def file.", type[0],
                     identifier);
  const char *problem = nullptr;
  switch (type[1]) {
    case 'a':
      return TRUE;
    case 'r':
      if (valid_range(allowed, value, kind)) return TRUE;
      problem = "not in the range";
      break;
    case 's':
      if (valid_selection(allowed, value, kind)) return TRUE;
      problem = "not in the selection";
      break;
    default:
      problem = "has invalid syntax in def file";
      break;
  }
  return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {}, "identifier '%s' (%s) %s '%s'.", identifier, value,
                   problem, allowed);
}

}  // extern "C"
