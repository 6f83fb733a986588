// What the readout files of the server share: fitting a rectangle to the binning grid, the chip
// as the sysparams describe it, the depth of the readout, the stream's constants, and the guard
// every exposure and readout runs under.
#pragma once

#include "foundation/wait.h"
#include "link/testread.h"
#include "server/server_record.h"
#include "tvx/readout.h"

namespace tvx::server {

constexpr INT32 kCauseMissing = 4160;  // a list, an image or a sequence that is not there

// A rectangle fitted to the binning grid: x and y where the readout starts (on the chip, or in
// binned pixels for the region map), width and height in binned pixels.
struct Fitted {
  INT32 x, y, width, height;
};

// Fits x, y, w, h to binning bx, by. The fitted rectangle keeps its right and bottom edges;
// `binned` leaves x and y in binned units; `even` rounds the width up to even.
Fitted fit(INT32 x, INT32 y, INT32 w, INT32 h, INT32 bx, INT32 by, bool binned, bool even);
// The two-channel converter that clocks pixel pairs wants an even binned width.
bool wants_even(INT32 adc_mode, INT32 bx);
// 32 bits a pixel for the two-channel mode, else 16.
INT32 readout_depth(INT32 adc_mode);

// A new image put in a list by `append`, or NULL with the error set and nothing left behind.
HANDLE append_new_image(HANDLE list, INT32 width, INT32 height, INT32 depth,
                        BOOL (*append)(HANDLE, HANDLE));

struct Chip {
  INT32 columns = 0, rows = 0, bx = 1, by = 1;
};
// The binning of the sysparams, 1 x 1 when they carry none.
void binning_of(HANDLE sysparams, INT32 *bx, INT32 *by);
// The chip size and binning of the sysparams; binning defaults to 1 x 1.
bool chip_of(HANDLE sysparams, Chip *chip, const char *routine);

// Reads a region's rectangle; checks it against the chip when `what` is given.
bool region_rect(HANDLE region, INT32 *x, INT32 *y, INT32 *w, INT32 *h, const Chip *chip,
                 const char *routine);

// The data mode and the constants of the stream, from the locked record.
bool data_mode_of(const Record &r, INT32 *mode);
tvx::link::Constants constants_of(const Record &r);

// A pushed terminal error with causes, under `routine`; false.
bool missing(const char *routine, const char *text);

// Stops whatever the controller is doing for the host and empties the link of what it has sent
// already, so that the next command's reply is not read behind stale pixels.
bool stop_controller(const Record &r);

// An exposure or readout under way on the controller, from its first command to its last reply.
// The waits on the controller meet an abort while one is open. The outermost one, closed without
// having finished, stops the controller: however deep a failure came from, and however many
// stages it passed on its way out, the controller is stopped and the link drained once.
class Acquisition {
 public:
  explicit Acquisition(const Record &r) : r_(r) {}
  ~Acquisition();
  Acquisition(const Acquisition &) = delete;
  Acquisition &operator=(const Acquisition &) = delete;
  void finished() { finished_ = true; }

 private:
  const Record &r_;
  tvx::Interruptible waits_;
  bool finished_ = false;
};

}  // namespace tvx::server
