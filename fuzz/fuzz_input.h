// What every fuzz target shares: the input written where the library reads files from, and the
// promise checked after each run: the error stack cleared and every block given back.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tvx/tvx.h"

namespace tvx_fuzz {

// Writes the input to a file of this process's own; its path, or NULL when it cannot be written.
inline const char *write_input(const uint8_t *data, size_t size, const char *extension) {
  static const std::string path = "/tmp/tvx-fuzz-" + std::to_string(getpid()) + "." + extension;
  FILE *out = std::fopen(path.c_str(), "wb");
  if (out == nullptr) return nullptr;
  std::fwrite(data, 1, size, out);
  std::fclose(out);
  return path.c_str();
}

inline err_stack errors() {
  err_stack stack = nullptr;
  return *err_where_is(&stack);
}

inline void clear_errors() {
  if ((*errors())->category != 0) err_reset_all(errors());
}

// The library's block totals when constructed; check() ends the run when they did not come back.
struct Totals {
  INT32 blocks = number_of_allocations(), strings = number_of_strings();
  void check() const {
    clear_errors();
    if (number_of_allocations() != blocks || number_of_strings() != strings) std::abort();
  }
};

}  // namespace tvx_fuzz
