// The simulated cards, one per base address, their shared settings, the factory of controller
// programs, and the exported test controls that reach them.
#include "sim/slot.h"

#include <map>
#include <memory>

#include "foundation/fail.h"
#include "sim/camera_server.h"
#include "sim/controller.h"
#include "sim/settings.h"
#include "tvx/ports.h"
#include "tvx/testing.h"

namespace tvx::sim {

namespace {

constexpr WORD kPortsPerCard = 6;

struct Slot {
  std::unique_ptr<Card> card;
  WORD base = 0;
  int plugs = 0;  // adapters open at this address
};

std::map<WORD, Slot> &slots() {
  static std::map<WORD, Slot> all;
  return all;
}

ControllerFactory &factory() {
  static ControllerFactory f;
  return f;
}

WORD card_read(void *context, WORD port) {
  auto *slot = static_cast<Slot *>(context);
  return slot->card->read(static_cast<WORD>(port - slot->base));
}

void card_write(void *context, WORD port, WORD value) {
  auto *slot = static_cast<Slot *>(context);
  slot->card->write(static_cast<WORD>(port - slot->base), value);
}

// Takes every item and answers nothing: a booted controller whose program is not simulated.
class QuietProgram : public ControllerProgram {
 public:
  void receive(WORD) override {}
  bool next_output(WORD &) override { return false; }
};

}  // namespace

Settings current_settings;

void configure(const Settings &next) {
  const Settings before = current_settings;
  current_settings = next;
  for (auto &[base, slot] : slots()) slot.card->reconfigure(before);
}

void reset_all() {
  for (auto &[base, slot] : slots())
    if (slot.plugs > 0) port_detach(base);
  slots().clear();
  current_settings = Settings{};
  reset_camera_faults();
}

bool plug_card(WORD base) {
  Slot &slot = slots()[base];
  if (!slot.card) {
    slot.card = std::make_unique<Card>();
    slot.base = base;
  }
  if (slot.plugs == 0 && !port_attach(base, kPortsPerCard, card_read, card_write, &slot))
    return false;
  ++slot.plugs;
  return true;
}

void unplug_card(WORD base) {
  auto it = slots().find(base);
  if (it == slots().end() || it->second.plugs == 0) return;
  if (--it->second.plugs == 0) port_detach(base);
}

Card *card_at(WORD base) {
  auto it = slots().find(base);
  return it == slots().end() ? nullptr : it->second.card.get();
}

void set_controller_factory(ControllerFactory f) {
  factory() = std::move(f);
}

std::unique_ptr<ControllerProgram> make_controller(const std::string &name) {
  if (factory()) {
    if (auto program = factory()(name)) return program;
  }
  // The boot stream starts the camera server, which takes the rest of the micro code.
  if (name == "install") return make_camera_server();
  return std::make_unique<QuietProgram>();
}

}  // namespace tvx::sim

extern "C" {

BOOL tvx_test_simulator_set(INT32 setting, INT32 value) {
  static const char *const kOp = "tvx_test_simulator_set";
  tvx::sim::Settings next = tvx::sim::settings();
  switch (setting) {
    case TVX_SIM_CARD_ABSENT:
      next.card_absent = value != 0;
      break;
    case TVX_SIM_POWER_OFF:
      next.power_off = value != 0;
      break;
    case TVX_SIM_LOCAL_ERROR:
      next.local_error = value != 0;
      break;
    case TVX_SIM_DISTANT_ERROR:
      next.distant_error = value != 0;
      break;
    case TVX_SIM_CONTROLLER_SPEED:
      if (value != 5 && value != 10 && value != 20)
        return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {0x1040},
                         "invalid controller link speed %ld (valid speeds 5, 10, 20).",
                         long{value});
      next.controller_speed = value;
      break;
    case TVX_SIM_DROP_AFTER:
      if (value < 0)
        return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {0x1040}, "invalid word count %ld.",
                         long{value});
      next.drop_after = value;
      break;
    default:
      return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {0x1040}, "unknown simulator setting %ld.",
                       long{setting});
  }
  tvx::sim::configure(next);
  return TRUE;
}

void tvx_test_simulator_reset(void) {
  tvx::sim::reset_all();
}

}  // extern "C"
