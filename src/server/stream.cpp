// The server's side of the readout stream: which data mode the converter's setting makes the
// controller send, and reading one region into one image or a read sequence into its scramble
// image.
#include "foundation/fail.h"
#include "server/regions.h"
#include "tvx/atlink.h"
#include "tvx/cs71.h"
#include "tvx/image.h"
#include "tvx/readout.h"

namespace tvx::server {

namespace {
constexpr INT32 kCauseAdcSection = 8212;
constexpr INT32 kTwoChannelMode = 17;
}  // namespace

bool data_mode_of(const Record &r, INT32 *mode) {
  const INT32 adc = r.converter.mode;
  // Longer integrations send each channel's bytes whole; short ones interleave them.
  const bool whole = r.gains.current.integr_time > r.converter.h1h2l1l2;
  switch (adc & 7) {
    case 0:
    case 4:
      *mode = 0;
      return true;
    case 1:
      *mode = (adc & 0x3F) == kTwoChannelMode ? 10 : whole ? 9 : 5;
      return true;
    case 5:
      *mode = whole ? 9 : 5;
      return true;
    case 3:
    case 7:
      *mode = whole ? 18 : 14;
      return true;
    default:
      return fail(ERR_OUT_OF_RANGE, 0, "server_data_mode", {kCauseAdcSection, kCauseMissing},
                  "invalid adc mode");
  }
}

tvx::link::Constants constants_of(const Record &r) {
  return {static_cast<INT16>(r.converter.const1), static_cast<INT16>(r.converter.const2),
          static_cast<INT16>(r.converter.const3)};
}

bool stop_controller(const Record &r) {
  // The link is drained even when the stop could not be sent: what is in it goes either way.
  const bool stopped = cs71_stop(r.controller) != FALSE;
  return tvx::link::drain(r.link) && stopped;
}

Acquisition::~Acquisition() {
  if (!finished_ && tvx::Interruptible::depth() == 1) stop_controller(r_);
}

}  // namespace tvx::server

namespace {

using namespace tvx::server;
using tvx::qualify;

// Every pixel block of the image from the stream, the data mode taken anew for each block.
bool read_blocks(const Record &r, HANDLE image, const char *routine) {
  INT32 mode = 0;
  if (!data_mode_of(r, &mode)) return false;
  return tvx::link::read_image(r.link, image, mode, constants_of(r), routine);
}

}  // namespace

extern "C" {

BOOL server_data_mode(HANDLE server, INT32 *mode) {
  static const char *const kOp = "server_data_mode";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  return data_mode_of(*r, mode) ? TRUE : qualify(kOp);
}

BOOL server_execute_readout(HANDLE server, HANDLE region, HANDLE image) {
  static const char *const kOp = "server_execute_readout";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  if (image == nullptr) return missing(kOp, "image handle is NULL.");
  INT32 x, y, w, h;
  if (!region_rect(region, &x, &y, &w, &h, nullptr, kOp)) return FALSE;
  Acquisition run(*r);
  if (!cs71_set_region(r->controller, 0, x, y, w, h) ||
      !image_check_size(image, w, h, readout_depth(r->converter.mode)) ||
      !cs71_set_ccd_read(r->controller, 1, 0) || !cs71_start_ccd_read(r->controller) ||
      !atlink_wait_for_input(r->link) || !read_blocks(*r, image, kOp))
    return qualify(kOp);
  if (!cs71_wait_complete(r->controller, 0, 0))
    return qualify(kOp, "readout did not complete correctly");
  run.finished();
  return TRUE;
}

BOOL server_grab(HANDLE server, INT32 pixel_count, HANDLE image) {
  static const char *const kOp = "server_grab";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  if (image == nullptr) return missing(kOp, "image handle is NULL.");
  Acquisition run(*r);
  INT32 mode = 0, width = 0, height = 0, depth = 0;
  if (!atlink_wait_for_input(r->link) || !data_mode_of(*r, &mode) ||
      !image_size(image, &width, &height, &depth))
    return qualify(kOp);
  if (width * height != pixel_count)
    return tvx::fail(ERR_INCONSISTENT, 0, kOp, {},
                     "image size not equal to pixel count (%ld != %ld)", long{width * height},
                     long{pixel_count});
  if (!tvx::link::read_image(r->link, image, mode, constants_of(*r), kOp)) return qualify(kOp);
  run.finished();
  return TRUE;
}

BOOL server_collect_WORD16(HANDLE server) {
  Locked r(server, "server_collect_WORD16");
  return r ? TRUE : refused("server_collect_WORD16");
}

BOOL server_from_link0_INT16(HANDLE server) {
  Locked r(server, "server_from_link0_INT16");
  return r ? TRUE : refused("server_from_link0_INT16");
}

}  // extern "C"
