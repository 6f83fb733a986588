// Reading a readout's pixel words into an image, pixel block by pixel block, shared by the
// server's readouts and the controller's readout drivers; and emptying the link of what a readout
// abandoned part way leaves in it.
#pragma once

#include "tvx/types.h"

namespace tvx::link {

struct Constants {
  INT16 c1, c2, c3;
};

// Reads every pixel block of `image` from the block stream in `data_mode`. A failed block pushes
// "block# %ld failed (...)" under `routine`.
bool read_image(HANDLE link, HANDLE image, INT32 data_mode, Constants k, const char *routine);

// Reads and drops what the link still brings until it has been quiet for a while: the rest of a
// stream the host gave up on, a reply it stopped waiting for. Bounded: a link that never falls
// quiet fails under "atlink_drain".
bool drain(HANDLE link);

}  // namespace tvx::link
