// Image files from the fuzzer, examined and read into an image. Any input must come back as an
// image or an error on the stack, with every block freed and no read outside the pixels.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tvx/tvx.h"

namespace {

std::string input_path() {
  return "/tmp/tvx-fuzz-" + std::to_string(getpid()) + ".img";
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
  INT32 format = 0, width = 0, height = 0, depth = 0;
  BOOL swapped = FALSE;
  image_get_file_format(path.c_str(), &format, &swapped, &width, &height, &depth);
  if ((*stack)->category != 0) err_reset_all(stack);

  HANDLE image = image_new(2, 2, 8);
  if (image == nullptr) std::abort();
  if (image_read(image, path.c_str())) {
    image_stats stats;
    if (image_getpixelsize(image) == 2) image_histogram_stats(image, nullptr, &stats, FALSE);
  }
  if ((*stack)->category != 0) err_reset_all(stack);
  image_delete(image);
  if (number_of_allocations() != blocks || number_of_strings() != strings) std::abort();
  return 0;
}
