// Definition texts from the fuzzer, read as a definition file and checked section by section.
// Any input must come back as a config or an error on the stack, with every block freed.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tvx/tvx.h"

namespace {

std::string input_path() {
  return "/tmp/tvx-fuzz-" + std::to_string(getpid()) + ".def";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const std::string path = input_path();
  FILE *out = std::fopen(path.c_str(), "wb");
  if (out == nullptr) return 0;
  std::fwrite(data, 1, size, out);
  std::fclose(out);

  err_stack stack = nullptr;
  err_where_is(&stack);
  const INT32 blocks = number_of_allocations(), strings = number_of_strings();
  HANDLE config = config_new(path.c_str(), nullptr);
  if (config != nullptr) {
    for (const char *section : {"DEVICE", "TRANSPUTER", "ADC", "VOLTAGES", "PROGRAMS", "CCD",
                                "GAIN_TABLE", "SIMULATOR"}) {
      if (config_check_section(config, section)) {
        char text[CONFIG_MAX_STRING + 1];
        config_extract_section(config, section, 1, 1, "s", text);
      }
      if ((*stack)->category != 0) err_reset_all(stack);
    }
    config_delete(config);
  }
  if ((*stack)->category != 0) err_reset_all(stack);
  if (number_of_allocations() != blocks || number_of_strings() != strings) std::abort();
  return 0;
}
