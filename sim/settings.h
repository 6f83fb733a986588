// What the simulated card and controller are told to be: faults and link speed. Set by tests
// through the exported test controls, and meant to be filled from a hardware file's SIMULATOR
// section too.
#pragma once

#include <cstdint>

namespace tvx::sim {

struct Settings {
  bool card_absent = false;    // no card in the slot: its ports float
  bool power_off = false;      // the camera is switched off: the link never acknowledges
  bool local_error = false;    // the card's transputer error flag stuck on
  bool distant_error = false;  // the controller transputer's error flag stuck on
  int controller_speed = 5;    // Mbit/s of the controller's end of the link after its reset
  long drop_after = 0;         // items that cross the link before every later one is lost; 0 = none
};

// The settings in force; read on every port access of the card, so reached without a call.
extern Settings current_settings;
inline const Settings &settings() {
  return current_settings;
}
// Applies new settings to every card, on the bus or not, at once: the controller's end takes the
// new speed, a camera switched back on comes up waiting for its boot, and the count of words
// that have crossed the link starts again.
void configure(const Settings &next);
// Every card powered down and forgotten, and the settings back to their defaults.
void reset_all();

}  // namespace tvx::sim
