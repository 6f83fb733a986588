// The 8-bit PNG preview: a robust stretch, so that a few hot pixels or bright stars do not
// squash everything else into black.
#pragma once

#include <string>

#include "options.h"
#include "tvx/tvx.h"

namespace tvxcam {

struct Levels {
  double black = 0, white = 0;
};

// The grey level (0 .. 255) of `value` between `black` and `white`: straight for the percentile
// stretch, through asinh for the other, which keeps faint detail and still shows bright stars
// with structure.
int grey_of(double value, const Levels &levels, Stretch stretch);

// Writes `image` as an 8-bit greyscale PNG, replacing `path`; black and white are the pixels'
// `low_percent` and `high_percent` percentiles. Returns the levels used. Throws Failure.
Levels write_png(const std::string &path, HANDLE image, Stretch stretch, double low_percent,
                 double high_percent);

}  // namespace tvxcam
