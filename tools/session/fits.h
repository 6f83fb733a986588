// FITS files through cfitsio: unsigned 16- and 32-bit pixels as signed integers with BZERO, the
// keywords astronomers' tools look for, and one extension per region when there are several.
#pragma once

#include <string>
#include <vector>

#include "session.h"

namespace session {

// Writes `planes` to `path`, replacing it: one image in the primary HDU, several as image
// extensions named by EXTNAME after an empty primary HDU. `exposure` may be null (a converted
// file knows nothing of its exposure); `creator` names the program for CREATOR. Throws Failure
// with cfitsio's message.
void write_fits(const std::string &path, const std::vector<Plane> &planes, const Exposure *exposure,
                const std::string &creator);

// Whether a file begins as every FITS file does.
bool is_fits(const std::string &path);
// Reads the first image of a FITS file (the primary array, or the first image extension when the
// primary holds none) into a new image of the library, unsigned where BZERO says so. Throws
// Failure for a file cfitsio cannot read, no two-dimensional image, or floating-point pixels.
HANDLE read_fits(const std::string &path);

}  // namespace session
