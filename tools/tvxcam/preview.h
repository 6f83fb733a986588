// The 8-bit PNG preview: a robust stretch, so that a few hot pixels or bright stars do not
// squash everything else into black, drawn the way up a FITS viewer draws the file: the first
// row read out at the bottom.
#pragma once

#include <string>
#include <vector>

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

// The PNG file of `plane` (of channel 1 when it holds two) as an 8-bit greyscale image whose black
// and white are the pixels' `low_percent` and `high_percent` percentiles; `levels` gets them.
// Throws Failure.
std::vector<unsigned char> preview_png(const Plane &plane, Stretch stretch, double low_percent,
                                       double high_percent, Levels *levels);

}  // namespace tvxcam
