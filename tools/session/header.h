// What a frame's header says: the one description of a picture from which tvxcam's FITS files,
// the INDI driver's keywords and the Python frame's header are all made, so the three agree.
#pragma once

#include <fitsio.h>

#include <string>
#include <variant>
#include <vector>

#include "session.h"

namespace session {

// One header keyword. Numbers with a fractional part keep `decimals` places.
struct Card {
  std::string key;
  std::variant<std::string, long, double> value;
  std::string comment;
  int decimals = 0;
};

// The keywords of one image: `plane` says which region it is and where it starts, `exposure`
// (null for a file that knows nothing of its exposure) how it was taken, `creator` the program
// that writes it.
std::vector<Card> header_cards(const Plane &plane, const Exposure *exposure,
                               const std::string &creator);

// Writes `cards` into the current header of `f`, replacing keywords already there (fits.cpp).
// Throws Failure naming `path`.
void write_cards(fitsfile *f, const std::vector<Card> &cards, const std::string &path);

// The name of the program and library that write a file, for CREATOR: "tvx 0.1.0.0".
std::string default_creator();

}  // namespace session
