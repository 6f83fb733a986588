// Image files from the fuzzer, examined and read into an image. Any input must come back as an
// image or an error on the stack, with every block freed and no read outside the pixels.
#include <cstdlib>

#include "fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *path = tvx_fuzz::write_input(data, size, "img");
  if (path == nullptr) return 0;
  const tvx_fuzz::Totals totals;
  INT32 format = 0, width = 0, height = 0, depth = 0;
  BOOL swapped = FALSE;
  image_get_file_format(path, &format, &swapped, &width, &height, &depth);
  tvx_fuzz::clear_errors();

  HANDLE image = image_new(2, 2, 8);
  if (image == nullptr) std::abort();
  if (image_read(image, path)) {
    image_stats stats;
    if (image_getpixelsize(image) == 2) image_histogram_stats(image, nullptr, &stats, FALSE);
  }
  image_delete(image);
  totals.check();
  return 0;
}
