// Putting the simulated card into the bus at a base address and taking it out again. A card
// keeps its state while it is out, as a real one keeps running while no program drives it: an
// adapter opened later at the same address finds the controller as the last one left it.
#pragma once

#include "sim/card.h"
#include "tvx/types.h"

namespace tvx::sim {

// Attaches the card at `base` (ports base .. base + 5) to the port bus, making the card the
// first time. Fails, with the port bus's error on the stack, when the ports are taken.
bool plug_card(WORD base);
// Detaches it; the card itself stays as it is.
void unplug_card(WORD base);
// The card made for `base`, or nullptr when none has been.
Card *card_at(WORD base);

}  // namespace tvx::sim
