// The subcommands. Each returns the exit status, or throws Failure or LibraryError.
#pragma once

#include "options.h"

namespace tvxcam {

int run_snap(const Command &c);
int run_series(const Command &c);
int run_status(const Command &c);
int run_cool(const Command &c);
int run_info(const Command &c);
int run_convert(const Command &c);

}  // namespace tvxcam
