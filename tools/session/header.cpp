// The keywords astronomers' tools look for, in the order they are written.
#include "header.h"

namespace session {

std::vector<Card> header_cards(const Plane &p, const Exposure *e, const std::string &creator) {
  std::vector<Card> cards;
  const auto text = [&cards](const char *key, const std::string &value, const char *comment) {
    cards.push_back({key, value, comment});
  };
  const auto whole = [&cards](const char *key, long value, const char *comment) {
    cards.push_back({key, value, comment});
  };
  const auto real = [&cards](const char *key, double value, int decimals, const char *comment) {
    cards.push_back({key, value, comment, decimals});
  };
  if (!p.name.empty()) text("EXTNAME", p.name, "region of the readout");
  if (e != nullptr) {
    real("EXPTIME", e->seconds, 3, "[s] exposure time");
    text("DATE-OBS", e->date_obs, "[UTC] start of the exposure");
    // A frame read straight after the flush holds only the bias.
    text("IMAGETYP",
         e->seconds == 0 ? "Bias Frame"
         : e->dark       ? "Dark Frame"
                         : "Light Frame",
         "type of image");
    whole("XBINNING", e->xbin, "binning along rows");
    whole("YBINNING", e->ybin, "binning along columns");
  }
  if (p.x0 && p.y0) {
    whole("XORGSUBF", *p.x0, "[pixel] subframe origin on the chip, x");
    whole("YORGSUBF", *p.y0, "[pixel] subframe origin on the chip, y");
  }
  if (e != nullptr) {
    if (e->ccd_celsius) real("CCD-TEMP", *e->ccd_celsius, 2, "[C] CCD temperature at the start");
    real("GAIN", e->electrons_per_level, 4, "[e-/ADU] electrons per level");
    text("INSTRUME", e->instrument, "camera controller");
    text("DETECTOR", e->detector, "CCD type");
    if (!e->serial_no.empty()) text("CCDSERNO", e->serial_no, "CCD serial number");
    text("READOUTM", e->readout_mode, "readout mode (pixel rate, sensitivity)");
    text("OPMODE", mode_name(e->mode), "tvx operation mode");
  }
  text("BUNIT", "adu", "pixel values are converter levels");
  text("CREATOR", creator, "program that wrote the file");
  return cards;
}

std::string default_creator() {
  return std::string("tvx ") + TVX_SESSION_VERSION;
}

}  // namespace session
