// The library-wide count of value changes, for whoever wants to know that a value was set.
#pragma once

#include "tvx/types.h"

namespace tvx {

// Successful gdt_new and gdt_set calls since the library was loaded.
long value_changes();

}  // namespace tvx
