// The handler only sets flags and writes one line, which is all a signal handler may do.
#include "interrupt.h"

#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <initializer_list>

#include "tvx/abort.h"

namespace tvxcam {

namespace {

volatile sig_atomic_t caught = 0;

void on_signal(int signal) {
  if (caught != 0) {
    ::signal(signal, SIG_DFL);
    raise(signal);
    return;
  }
  caught = signal;
  tvx_abort_request();
  static const char kNote[] =
      "\ntvxcam: stopping; the files already written are kept (again to stop at once)\n";
  const ssize_t ignored = write(STDERR_FILENO, kNote, sizeof kNote - 1);
  (void)ignored;
}

}  // namespace

void catch_interrupts() {
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  for (int signal : {SIGINT, SIGTERM}) sigaction(signal, &action, nullptr);
}

int interrupted() {
  return caught;
}

const char *signal_name(int signal) {
  return signal == SIGTERM ? "SIGTERM" : "SIGINT";
}

}  // namespace tvxcam
