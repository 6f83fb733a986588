// The readout block stream. Once a readout is started the controller sends its pixels as blocks:
// a word giving the block's size, then that many words, which are unpacked by the data mode
// straight into the caller's pixel block. Port reads here are the readout's inner loop.
#include <algorithm>

#include "foundation/fail.h"
#include "foundation/locked.h"
#include "foundation/wait.h"
#include "image/pixels.h"
#include "link/link.h"
#include "link/testread.h"
#include "platform/platform.h"
#include "tvx/atlink.h"
#include "tvx/ports.h"
#include "tvx/readout.h"
#include "tvx/report.h"

namespace {

using tvx::link::Constants;

constexpr INT32 kCauseProgrammer = 0x1040;
constexpr INT32 kCauseBlockFailed = 12299;
// A link that brings nothing for this long after a stop has nothing more to bring; one still busy
// after the longer time, or after more words than the largest frame has, will not stop.
constexpr DWORD kQuietDrain = 5, kLongestDrain = 300;  // centiseconds
constexpr long kMostDrained = 1L << 25;
constexpr int kDrainBatch = 1024;

inline WORD swap(WORD w) {
  return static_cast<WORD>(w << 8 | w >> 8);
}
inline WORD lo(WORD w) {
  return w & 0xFF;
}
inline WORD hi(WORD w) {
  return w >> 8;
}
inline WORD join(WORD high, WORD low) {
  return static_cast<WORD>(high << 8 | low);
}
inline WORD plus(WORD w, INT16 k) {
  return static_cast<WORD>(w + static_cast<WORD>(k));
}

// ---- Unpackers: `count` words from the data port into `out`; returns where output goes next --

WORD *unpack_swapped(WORD port, WORD *out, INT32 count, const Constants &) {
  for (INT32 i = 0; i < count; ++i) *out++ = swap(port_in16(port));
  return out;
}

WORD *unpack_plain(WORD port, WORD *out, INT32 count, const Constants &) {
  for (INT32 i = 0; i < count; ++i) *out++ = port_in16(port);
  return out;
}

// Two channels byte-interleaved in pairs of words; the second carries an offset.
WORD *unpack_pairs(WORD port, WORD *out, INT32 count, const Constants &k) {
  for (INT32 i = 0; i + 1 < count; i += 2) {
    const WORD w0 = port_in16(port), w1 = port_in16(port);
    *out++ = join(lo(w0), lo(w1));
    *out++ = plus(join(hi(w0), hi(w1)), k.c1);
  }
  return out;
}

// Two channels alternating word by word; an odd block ends on the first channel.
WORD *unpack_alternating(WORD port, WORD *out, INT32 count, const Constants &k) {
  for (INT32 i = 0; i < count; ++i) {
    const WORD w = swap(port_in16(port));
    *out++ = (i & 1) != 0 ? plus(w, k.c1) : w;
  }
  return out;
}

// Two channels of one 32-bit pixel, no offsets.
WORD *unpack_wide(WORD port, WORD *out, INT32 count, const Constants &) {
  for (INT32 i = 0; i + 1 < count; i += 2) {
    const WORD w0 = port_in16(port), w1 = port_in16(port);
    *out++ = join(hi(w0), hi(w1));
    *out++ = join(lo(w0), lo(w1));
  }
  return out;
}

// Four channels byte-interleaved in groups of four words.
WORD *unpack_quads(WORD port, WORD *out, INT32 count, const Constants &k) {
  for (INT32 i = 0; i + 3 < count; i += 4) {
    const WORD w0 = port_in16(port), w1 = port_in16(port);
    const WORD w2 = port_in16(port), w3 = port_in16(port);
    *out++ = join(lo(w0), lo(w2));
    *out++ = plus(join(hi(w0), hi(w2)), k.c1);
    *out++ = plus(join(lo(w1), lo(w3)), k.c2);
    *out++ = plus(join(hi(w1), hi(w3)), k.c3);
  }
  return out;
}

// Four channels word by word, of which the second is written and then overwritten by the third:
// each group of four words leaves three.
WORD *unpack_three_of_four(WORD port, WORD *out, INT32 count, const Constants &k) {
  for (INT32 i = 0; i + 3 < count; i += 4) {
    out[0] = swap(port_in16(port));
    out[1] = plus(swap(port_in16(port)), k.c1);
    out[1] = plus(swap(port_in16(port)), k.c2);
    out[2] = plus(swap(port_in16(port)), k.c3);
    out += 3;
  }
  return out;
}

using Unpacker = WORD *(*)(WORD, WORD *, INT32, const Constants &);

struct DataMode {
  INT32 mode;
  INT32 multiple;  // a block's size must be a multiple of this
  INT32 refusal;   // the status for one that is not
  Unpacker unpack;
};

constexpr DataMode kDataModes[] = {
    {0, 1, TESTREAD_OK, unpack_swapped},
    {1, 1, TESTREAD_OK, unpack_plain},
    {5, 2, TESTREAD_NOT_EVEN, unpack_pairs},
    {9, 1, TESTREAD_OK, unpack_alternating},
    {10, 2, TESTREAD_NOT_EVEN, unpack_wide},
    {14, 4, TESTREAD_NOT_QUAD, unpack_quads},
    {18, 4, TESTREAD_NOT_QUAD, unpack_three_of_four},
};

const DataMode *data_mode_of(INT32 mode) {
  for (const DataMode &m : kDataModes)
    if (m.mode == mode) return &m;
  return nullptr;
}

// ---- Status messages ------------------------------------------------------------------------

struct StatusText {
  INT32 status;
  const char *text;
  bool link_causes;  // the causes of a link that stops answering
};

// Success has a text of its own, which is never shown.
constexpr StatusText kStatusTexts[] = {
    {TESTREAD_OK, "unsupported read out data format", false},
    {TESTREAD_UNSUPPORTED, "unsupported functionality (7102 mode only)", false},
    {TESTREAD_ABORTED, "readout abandoned.", false},
    {TESTREAD_SYNC_SIZE, "sync failure on block size.", true},
    {TESTREAD_SIZE_RANGE, "block size out of range.", true},
    {TESTREAD_NO_ROOM, "no room for next block.", true},
    {TESTREAD_SYNC_DATA, "sync failure on data.", true},
    {TESTREAD_NOT_EVEN, "block size not divisible by 2.", true},
    {TESTREAD_NOT_QUAD, "block size not divisible by 4.", true},
};
constexpr INT32 kLinkCauses[] = {8192, 8195, 8193, 8202, 8197};

void report_status(INT32 status) {
  static const char *const kOp = "atlink_testread";
  const StatusText *found = nullptr;
  for (const StatusText &s : kStatusTexts)
    if (s.status == status) found = &s;
  const char *text = found != nullptr ? found->text : "unknown error status code.";
  if (tvx::error_pending())
    tvx::qualify(kOp, "%s", text);
  else
    tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {}, "%s", text);
  if (found == nullptr) {
    err_append_cause(tvx::errors(), kCauseProgrammer);
    return;
  }
  if (found->link_causes)
    for (INT32 cause : kLinkCauses) err_append_cause(tvx::errors(), cause);
}

// Waits for an input word; the status says what ended a wait that found none.
bool input_ready(const atlink &r, INT32 *status, INT32 timed_out) {
  using tvx::link::Await;
  const Await met = tvx::link::await_status(r, ATLINK_RX_NOT_EMPTY, "atlink_testread");
  if (met == Await::ready) return true;
  *status = met == Await::aborted ? TESTREAD_ABORTED : timed_out;
  return false;
}

// The block loop; returns the status.
INT32 stream(const atlink &r, WORD *buffer, INT32 words, INT32 min_block, INT32 max_block,
             const DataMode &m, const Constants &k) {
  INT32 done = 0, status = TESTREAD_OK;
  WORD *out = buffer;
  for (;;) {
    // A controller that streams as fast as the host reads never makes a wait wait: the abort is
    // looked for at every block as well.
    if (tvx::interrupted("atlink_testread")) return TESTREAD_ABORTED;
    if (!input_ready(r, &status, TESTREAD_SYNC_SIZE)) return status;
    const INT32 size = port_in16(r.data_port);
    if (size < min_block || size > max_block) return TESTREAD_SIZE_RANGE;
    if (size == 0) return TESTREAD_NO_ROOM;
    if (size % m.multiple != 0) return m.refusal;
    if (done + size > words) return TESTREAD_NO_ROOM;
    if (!input_ready(r, &status, TESTREAD_SYNC_DATA)) return status;
    out = m.unpack(r.data_port, out, size, k);
    if (done + size >= words) return TESTREAD_OK;
    done += size;
  }
}

}  // namespace

namespace tvx::link {

bool read_image(HANDLE link, HANDLE image, INT32 data_mode, Constants k, const char *routine) {
  tvx::image::Image img(image, routine);
  if (!img.ok()) return false;
  for (INT32 b = 0; b < img->block_cnt; ++b) {
    const image_block &entry = img.blocks()[b];
    const HANDLE block = tvx::image::block_handle(entry);
    auto *pixels = static_cast<WORD *>(handle_lock(block, routine));
    if (pixels == nullptr) return tvx::qualify(routine);
    INT32 status = TESTREAD_OK, read = 0;
    const INT32 words = static_cast<INT32>(entry.size / 2);
    const BOOL ok =
        atlink_testread(link, pixels, words, 1, 30, &status, &read, data_mode, k.c1, k.c2, k.c3);
    handle_unlock(block, routine);
    if (!ok) {
      tvx::qualify(routine,
                   "block# %ld failed (expected %ld words, words read %ld, status %ld, mode %ld)",
                   long{b + 1}, long{words}, long{read / 2}, long{status}, long{data_mode});
      if (status != TESTREAD_ABORTED) err_append_cause(tvx::errors(), kCauseBlockFailed);
      return false;
    }
  }
  return true;
}

bool drain(HANDLE link) {
  static const char *const kOp = "atlink_drain";
  tvx::Locked<atlink> r(link, kOp);
  if (!r) return tvx::qualify(kOp);
  const DWORD start = time_centiseconds();
  DWORD heard = start;
  long dropped = 0;
  tvx::platform::PollPauses pauses;
  for (;;) {
    bool taken = false;
    for (int i = 0; i < kDrainBatch && (port_in16(r->status_port) & ATLINK_RX_NOT_EMPTY) != 0;
         ++i) {
      port_in16(r->data_port);
      taken = true;
      ++dropped;
    }
    const DWORD now = time_centiseconds();
    if (taken) {
      heard = now;
      pauses = {};
    } else if (now - heard >= kQuietDrain) {
      return true;
    }
    if (now - start >= kLongestDrain || dropped > kMostDrained)
      return tvx::fail(ERR_TIMEOUT, 0, kOp, {}, "the link did not fall quiet (%ld words dropped).",
                       dropped);
    if (!taken) pauses.pause();
  }
}

}  // namespace tvx::link

extern "C" {

BOOL atlink_testread(HANDLE link, WORD *buffer, INT32 words, INT32 min_block, INT32 max_block,
                     INT32 *status, INT32 *words_read, INT32 data_mode, INT16 const1, INT16 const2,
                     INT16 const3) {
  static const char *const kOp = "atlink_testread";
  *words_read = 0;
  *status = TESTREAD_OK;
  if (words == 0) return TRUE;
  const DataMode *m = data_mode_of(data_mode);
  if (m == nullptr) return TRUE;  // a format without an unpacker reads nothing
  tvx::Locked<atlink> r(link, kOp);
  if (!r) return tvx::qualify(kOp);
  *status = stream(*r, buffer, words, min_block, max_block, *m, {const1, const2, const3});
  if (*status != TESTREAD_OK) {
    report_status(*status);
    return FALSE;
  }
  *words_read = words;
  return TRUE;
}

}  // extern "C"
