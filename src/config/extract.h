// What the section readers share.
#pragma once

#include <initializer_list>

#include "tvx/types.h"

namespace tvx::config {

// A reader that cannot extract a row: "unable to extract '<identifier>' from section
// '<section>'." when the stack is clear, otherwise only the reader's name on the error already
// there. Returns false.
bool unable(const char *routine, const char *identifier, const char *section,
            std::initializer_list<INT32> causes = {}, bool full_stop = true);

}  // namespace tvx::config
