// Reading the top error record as a test wants it: who set it and with what text, who qualified
// it, and the causes it suggests.
#pragma once

#include <string>
#include <vector>

#include "foundation/fail.h"
#include "support/frame.h"

namespace tvx_test {

// "routine: text" of the entry that set the error.
inline std::string terminal() {
  const err_trace *t = (*stack())->trace;
  while (t != nullptr && t->next != nullptr) t = t->next;
  return t == nullptr ? "" : std::string(t->routine) + ": " + (t->text ? t->text : "");
}

// Routines of every entry, newest (outermost) first.
inline std::vector<std::string> routines() {
  std::vector<std::string> names;
  for (const err_trace *t = (*stack())->trace; t != nullptr; t = t->next)
    names.push_back(t->routine);
  return names;
}

inline std::vector<INT32> causes() {
  std::vector<INT32> codes;
  for (const err_cause *c = (*stack())->causes; c != nullptr; c = c->next)
    codes.push_back(c->cause);
  return codes;
}

inline INT32 category() {
  return (*stack())->category;
}

}  // namespace tvx_test
