// SIGINT and SIGTERM. The first asks the library's wait in progress to give up
// (tvx_abort_request) and tvxcam to stop at the next stage: the picture in hand is given up,
// files already written stay whole, and tvxcam says what it kept. A second one ends tvxcam at
// once, as the signal would have without it.
#pragma once

namespace tvxcam {

void catch_interrupts();
// The signal that asked tvxcam to stop, or 0.
int interrupted();
// "SIGINT" or "SIGTERM".
const char *signal_name(int signal);

}  // namespace tvxcam
