// What the adapter's two source files share.
#pragma once

#include "tvx/types.h"

namespace tvx::link {

// Boots done by any adapter in this process; 0 means none (and a wrap past 255 reads as none).
BYTE &boot_counter();

}  // namespace tvx::link
