// What a frame's header says: the one description of a picture from which tvxcam's FITS files,
// the INDI driver's keywords and the Python frame's header are all made, so the three agree.
#pragma once

#include <fitsio.h>

#include <string>
#include <variant>
#include <vector>

#include "session.h"

namespace session {

// A keyword a frame's header may carry, and how its number is written.
struct Keyword {
  enum Kind { text, whole, real };
  const char *key;
  Kind kind;
  int decimals;  // for a real
  const char *comment;
};

// Every keyword the header knows, in the order they are written. A converted file keeps these.
const std::vector<Keyword> &keywords();
// The row of `key`, or null for a keyword the header does not know.
const Keyword *keyword(const std::string &key);

// The keywords of one image: `plane` says which region it is, where it starts and how its pixels
// are laid out, `exposure` (null for a file that knows nothing of its exposure) how it was
// taken, `creator` the program that writes it. The observer's own keywords come last.
std::vector<Card> header_cards(const Plane &plane, const Exposure *exposure,
                               const std::string &creator);

// Why an observer may not set `key` with a keyword of their own: it is not a FITS keyword (one
// to eight capitals, digits, "-" and "_"), the file's structure needs it, or the header writes
// it from what it knows. Empty when it may.
std::string reserved_keyword(const std::string &key);
// Writes `cards` into the current header of `f`, replacing keywords already there (fits.cpp).
// Throws Failure naming `path`.
void write_cards(fitsfile *f, const std::vector<Card> &cards, const std::string &path);

// The name of the program and library that write a file, for CREATOR: "tvx 0.1.0.0".
std::string default_creator();

}  // namespace session
