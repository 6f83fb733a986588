// The keywords astronomers' tools look for, in the order they are written.
#include "header.h"

#include <algorithm>
#include <cctype>

namespace session {

namespace {

using K = Keyword;

// FITS row 1 holds raster 0, the first row read out; a viewer draws row 1 at the bottom, and
// the preview does the same.
constexpr const char *kRowOrder = "BOTTOM-UP";

const std::vector<Keyword> kKeywords = {
    {"EXTNAME", K::text, 0, "region of the readout"},
    {"IMAGETYP", K::text, 0, "type of image"},
    {"EXPTIME", K::real, 3, "[s] exposure time"},
    {"DATE-OBS", K::text, 0, "[UTC] start of the exposure"},
    {"DATE-END", K::text, 0, "[UTC] end of the exposure"},
    {"XBINNING", K::whole, 0, "binning along rows"},
    {"YBINNING", K::whole, 0, "binning along columns"},
    {"XORGSUBF", K::whole, 0, "[pixel] subframe origin on the chip, x"},
    {"YORGSUBF", K::whole, 0, "[pixel] subframe origin on the chip, y"},
    {"CCD-TEMP", K::real, 2, "[C] CCD temperature at the start"},
    {"CCD-TEND", K::real, 2, "[C] CCD temperature at the end"},
    {"SET-TEMP", K::real, 2, "[C] the cooler's set point"},
    {"GAIN", K::real, 4, "[e-/ADU] electrons per level"},
    {"IMGZERO", K::whole, 0, "[adu] image zero of the reference columns"},
    {"INSTRUME", K::text, 0, "camera controller"},
    {"DETECTOR", K::text, 0, "CCD type"},
    {"CCDSERNO", K::text, 0, "CCD serial number"},
    {"READOUTM", K::text, 0, "readout mode (pixel rate, sensitivity)"},
    {"OPMODE", K::text, 0, "tvx operation mode"},
    {"OBJECT", K::text, 0, "object observed"},
    {"TELESCOP", K::text, 0, "telescope"},
    {"OBSERVER", K::text, 0, "observer"},
    {"FILTER", K::text, 0, "filter"},
    {"CHANNELS", K::whole, 0, "converter channels, one plane each"},
    {"PLANE1", K::text, 0, "the upper 16 bits of the converter's word"},
    {"PLANE2", K::text, 0, "the lower 16 bits of the converter's word"},
    {"ROWORDER", K::text, 0, "row 1 is the bottom of the picture"},
    {"BUNIT", K::text, 0, "pixel values are converter levels"},
    {"CREATOR", K::text, 0, "program that wrote the file"},
};

// Keywords the file's structure owns, which no header card may set.
bool structural(const std::string &key) {
  static const char *const kOwn[] = {"SIMPLE",  "BITPIX",   "EXTEND",  "XTENSION", "PCOUNT",
                                     "GCOUNT",  "BZERO",    "BSCALE",  "END",      "CHECKSUM",
                                     "DATASUM", "NREGIONS", "COMMENT", "HISTORY"};
  for (const char *own : kOwn)
    if (key == own) return true;
  return key.starts_with("NAXIS");
}

}  // namespace

const std::vector<Keyword> &keywords() {
  return kKeywords;
}

const Keyword *keyword(const std::string &key) {
  for (const Keyword &k : kKeywords)
    if (key == k.key) return &k;
  return nullptr;
}

std::vector<Card> header_cards(const Plane &p, const Exposure *e, const std::string &creator) {
  std::vector<Card> cards;
  const auto add = [&cards](const char *key, std::variant<std::string, long, double> value) {
    const Keyword *k = keyword(key);
    cards.push_back({key, std::move(value), k->comment, k->decimals});
  };
  const auto text = [&add](const char *key, const std::string &value) {
    if (!value.empty()) add(key, value);
  };
  if (!p.name.empty()) add("EXTNAME", p.name);
  if (e != nullptr) {
    add("IMAGETYP", image_type(*e));
    add("EXPTIME", e->seconds);
    add("DATE-OBS", e->date_obs);
    text("DATE-END", e->date_end);
    add("XBINNING", long{e->xbin});
    add("YBINNING", long{e->ybin});
  }
  if (p.x0 && p.y0) {
    add("XORGSUBF", long{*p.x0});
    add("YORGSUBF", long{*p.y0});
  }
  if (e != nullptr) {
    if (e->ccd_celsius) add("CCD-TEMP", *e->ccd_celsius);
    if (e->ccd_celsius_end) add("CCD-TEND", *e->ccd_celsius_end);
    if (e->set_point) add("SET-TEMP", *e->set_point);
    add("GAIN", e->electrons_per_level);
    if (e->image_zero) add("IMGZERO", *e->image_zero);
    add("INSTRUME", e->instrument);
    add("DETECTOR", e->detector);
    text("CCDSERNO", e->serial_no);
    add("READOUTM", e->readout_mode);
    add("OPMODE", mode_name(e->mode));
    const Observation &o = e->observation;
    text("OBJECT", o.object);
    text("TELESCOP", o.telescope);
    text("OBSERVER", o.observer);
    text("FILTER", o.filter);
  }
  if (p.channels == 2) {
    add("CHANNELS", 2L);
    add("PLANE1", "channel 1");
    add("PLANE2", "channel 2");
  }
  add("ROWORDER", kRowOrder);
  add("BUNIT", "adu");
  add("CREATOR", creator);
  if (e != nullptr)
    cards.insert(cards.end(), e->observation.extra.begin(), e->observation.extra.end());
  return cards;
}

std::string reserved_keyword(const std::string &key) {
  const bool well_formed =
      !key.empty() && key.size() <= 8 && std::all_of(key.begin(), key.end(), [](char c) {
        return std::isupper(static_cast<unsigned char>(c)) ||
               std::isdigit(static_cast<unsigned char>(c)) || c == '-' || c == '_';
      });
  if (!well_formed)
    return "'" + key + "' is not a FITS keyword: one to eight capitals, digits, '-' or '_'";
  if (structural(key)) return key + " belongs to the file's structure";
  if (keyword(key) != nullptr) return key + " is written from what the camera and options say";
  return {};
}

std::string default_creator() {
  return std::string("tvx ") + TVX_SESSION_VERSION;
}

}  // namespace session
