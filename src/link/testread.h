// Reading a readout's pixel words into an image, pixel block by pixel block: shared by the
// server's readouts and the controller's readout drivers.
#pragma once

#include "tvx/types.h"

namespace tvx::link {

struct Constants {
  INT16 c1, c2, c3;
};

// Reads every pixel block of `image` from the block stream in `data_mode`. A failed block pushes
// "block# %ld failed (...)" under `routine`.
bool read_image(HANDLE link, HANDLE image, INT32 data_mode, Constants k, const char *routine);

}  // namespace tvx::link
