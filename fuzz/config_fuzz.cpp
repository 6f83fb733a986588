// Definition texts from the fuzzer, read as a definition file and checked section by section.
// Any input must come back as a config or an error on the stack, with every block freed.
#include "fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *path = tvx_fuzz::write_input(data, size, "def");
  if (path == nullptr) return 0;
  const tvx_fuzz::Totals totals;
  HANDLE config = config_new(path, nullptr);
  if (config != nullptr) {
    for (const char *section : {"DEVICE", "TRANSPUTER", "ADC", "VOLTAGES", "PROGRAMS", "CCD",
                                "GAIN_TABLE", "SIMULATOR"}) {
      if (config_check_section(config, section)) {
        char text[CONFIG_MAX_STRING + 1];
        config_extract_section(config, section, 1, 1, "s", text);
      }
      tvx_fuzz::clear_errors();
    }
    config_delete(config);
  }
  totals.check();
  return 0;
}
