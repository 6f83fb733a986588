// The controller's readout drivers: set the frames, start the read, and take each frame's blocks
// from the link into an image.
#include "tvx/readout.h"
#include "foundation/fail.h"
#include "link/testread.h"
#include "tvx/cs71.h"
#include "tvx/list.h"

namespace {

using tvx::qualify;

bool grab(HANDLE link, HANDLE image, INT32 mode, tvx::link::Constants k) {
  return tvx::link::read_image(link, image, mode, k, "cs71_grab");
}

}  // namespace

extern "C" {

BOOL cs71_ccd_read(HANDLE controller, HANDLE link, HANDLE frames, INT32 delay, INT32 data_mode,
                   INT16 const1, INT16 const2, INT16 const3) {
  static const char *const kOp = "cs71_ccd_read";
  const INT32 n = list_size(frames);
  bool ok = cs71_set_ccd_read(controller, n, delay) && cs71_start_ccd_read(controller);
  for (INT32 i = 0; ok && i < n; ++i)
    ok = grab(link, list_get_nth_object(frames, i + 1), data_mode, {const1, const2, const3});
  if (!ok || !cs71_wait_complete(controller, 0, 0)) return qualify(kOp, "ccd read");
  return TRUE;
}

BOOL cs71_grab(HANDLE, HANDLE link, HANDLE image, INT32 data_mode, INT16 const1, INT16 const2,
               INT16 const3) {
  return grab(link, image, data_mode, {const1, const2, const3}) ? TRUE : FALSE;
}

BOOL cs71_ccd_read1(HANDLE controller, HANDLE link, HANDLE image, INT32 data_mode, INT16 const1,
                    INT16 const2, INT16 const3) {
  if (!cs71_set_ccd_read(controller, 1, 0) || !cs71_start_ccd_read(controller) ||
      !grab(link, image, data_mode, {const1, const2, const3}) ||
      !cs71_wait_complete(controller, 0, 0))
    return qualify("cs71_ccd_read", "ccd read");
  return TRUE;
}

BOOL cs71_ccd_read2(HANDLE controller, HANDLE link, HANDLE image, INT32 count, INT32 delay,
                    INT32 data_mode, INT16 const1, INT16 const2, INT16 const3) {
  static const char *const kOp = "cs71_ccd_read2";
  bool ok = cs71_set_ccd_read(controller, 2000000000, delay) && cs71_start_ccd_read(controller);
  for (INT32 i = 0; ok && i < count; ++i)
    ok = grab(link, image, data_mode, {const1, const2, const3});
  if (!ok || !cs71_stop(controller)) return qualify(kOp, "ccd read2");
  return TRUE;
}

}  // extern "C"
