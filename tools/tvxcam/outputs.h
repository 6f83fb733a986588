// Writing a picture to the outputs the command line named, each in the format its extension
// picks, numbered by frame and region where one name must serve several images.
#pragma once

#include <string>
#include <vector>

#include "options.h"
#include "preview.h"
#include "session.h"

namespace tvxcam {

struct Written {
  std::string path;
  std::string description;  // "FITS, 3 extensions", "preview, asinh 1003 .. 2210", "native"
};

// "name.ext" as "name_007.ext" for frame 7 of a series (frame 0: not a series) and with "_r2"
// for the second region.
std::string numbered(const std::string &path, long frame, int digits, int region);

// Writes every plane of `planes` to each of `outputs`: a FITS file holds them all, a preview or
// native file holds one, so several regions are numbered.
std::vector<Written> write_outputs(const std::vector<std::string> &outputs,
                                   const std::vector<Plane> &planes, const Exposure *exposure,
                                   const Acquisition &a, long frame, int digits);

}  // namespace tvxcam
