// FITS files through cfitsio: unsigned 16- and 32-bit pixels as signed integers with BZERO, the
// keywords astronomers' tools look for, one extension per region when there are several, and
// two-channel pixels as a cube of one 16-bit plane per channel.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "header.h"
#include "session.h"

namespace session {

// The bytes of a FITS file holding `planes`: one image in the primary HDU, several as image
// extensions after an empty primary HDU that carries `shared` and NREGIONS; `cards[i]` are
// plane i's keywords. A plane of two channels becomes a cube of two 16-bit planes, channel 1
// first. Throws Failure with cfitsio's message. The bytes lie in memory this thread keeps for
// its FITS files: they last until the next file is made on the same thread.
std::span<const char> fits_bytes(const std::vector<Plane> &planes, const std::vector<Card> &shared,
                                 const std::vector<std::vector<Card>> &cards);
// The same with the keywords `header_cards` makes: `exposure` may be null (a converted file
// knows nothing of its exposure); `creator` names the program for CREATOR.
std::span<const char> fits_bytes(const std::vector<Plane> &planes, const Exposure *exposure,
                                 const std::string &creator);

// Writes those bytes to `path` whole (writing.h), replacing it only when `overwrite`.
void write_fits(const std::string &path, const std::vector<Plane> &planes, const Exposure *exposure,
                const std::string &creator, bool overwrite = true);

// Whether a file begins as every FITS file does.
bool is_fits(const std::string &path);

// Every image of a FITS file, as a picture: each plane named (EXTNAME), placed (XORGSUBF,
// YORGSUBF) and laid out (CHANNELS: a cube of two channels is packed into 32-bit pixels again)
// as its header says, with the keywords of that header the session knows.
struct FitsContents {
  Picture picture;
  std::vector<Card> shared;              // the primary header's, when the images follow it
  std::vector<std::vector<Card>> cards;  // each plane's
};
// Throws Failure for a file cfitsio cannot read, one with no image, or floating-point pixels.
FitsContents read_fits_file(const std::string &path);

// The first image of a FITS file in a new image of the library, unsigned where BZERO says so.
HANDLE read_fits(const std::string &path);

}  // namespace session
