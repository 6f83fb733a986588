// The files a picture goes to. Every one is named and checked before the camera is started (its
// directory takes a new file, its name is free unless --overwrite), then written whole, each in
// the format its extension or --format picks, numbered by frame and region where one name must
// serve several images. One output that cannot be written does not stop the others.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "options.h"
#include "session.h"

namespace tvxcam {

// One file to write for one frame: a FITS file holds every plane, a preview or native file one.
struct Target {
  std::string path;
  Format format = Format::fits;
  int plane = -1;  // the plane a preview or native file holds; -1: all
};

struct Written {
  std::string path;
  std::string description;  // "FITS, 3 extensions", "preview, asinh 1003 .. 2210", "native"
};

struct Unwritten {
  std::string path, message;  // "cannot write 'x.fits': disk full"
};

struct Writing {
  std::vector<Written> written;
  std::vector<Unwritten> failed;
};

// "name.ext" as "name_007.ext" for frame 7 of a series (frame 0: not a series) and with "_r2"
// for the second region.
std::string numbered(const std::string &path, long frame, int digits, int region);

// The files frame `frame` (0: not a series) of `planes` images goes to.
std::vector<Target> targets_of(const Acquisition &a, const std::vector<std::string> &outputs,
                               long frame, int digits, size_t planes);

// Refuses, with every reason at once, targets that cannot be written: a missing or unwritable
// directory, a file that exists (unless `overwrite`), a name given twice.
void check_targets(const std::vector<Target> &targets, bool overwrite);

// The highest frame number any of `outputs` already has in its directory ("name_012.fits"), 0
// for none: a series that continues numbers on from it.
long highest_number(const std::vector<std::string> &outputs);

// Writes `planes` to every target; `fits` makes the bytes of the FITS file.
Writing write_targets(const std::vector<Target> &targets, const std::vector<Plane> &planes,
                      const std::function<std::span<const char>()> &fits, const Acquisition &a);

}  // namespace tvxcam
