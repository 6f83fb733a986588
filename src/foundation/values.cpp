// Acquisition parameters: numbered values gathered in a parameter list, and the lookups that read
// the ones each camera call needs. The lookups are one table and one walk over the list.
#include <cstdio>

#include "foundation/fail.h"
#include "foundation/locked.h"
#include "tvx/list.h"
#include "tvx/memory.h"
#include "tvx/values.h"

namespace {

using tvx::Locked;

struct ParamRecord {
  INT32 id;
  INT32 kind;
  union {
    INT32 ival;
    HANDLE pval;
    double fval;
    BYTE bval;
  };
};

struct ParamsRecord {
  HANDLE list;  // of parameter handles, newest first
};

constexpr INT32 kProgrammerError = 0x1040;

bool read_param(HANDLE param, const char *op, ParamRecord *out) {
  Locked<ParamRecord> p(param, op);
  if (!p) return tvx::qualify(op);
  *out = *p;
  return true;
}

HANDLE make(INT32 id, INT32 kind, const char *op, void (*fill)(ParamRecord &, const void *),
            const void *value) {
  HANDLE param = sysparam_new(id, kind);
  if (param == nullptr) {
    tvx::qualify(op);
    return nullptr;
  }
  Locked<ParamRecord> p(param, op);
  if (!p) {
    tvx::qualify(op);
    sysparam_delete(param);
    return nullptr;
  }
  fill(*p, value);
  return param;
}

// ---- Lookups -----------------------------------------------------------------------------------

enum class Read { kInteger, kHandle, kFlag };
enum class Rule {
  kBoth,      // both values must be present
  kOptional,  // absent values read as 0 and the lookup still succeeds
  kFound,     // succeeds only when the value is present
  kNewest,    // as kFound, but the newest wins and an absent value leaves the output alone
};

struct Lookup {
  const char *name;
  INT32 ids[2];
  int outputs;
  Read read;
  Rule rule;
  int line;             // assertion line for a NULL output; 0 where a NULL output is an error
  const char *missing;  // for kBoth
};

enum LookupIndex {
  kBinning,
  kSize,
  kPixelLowHigh,
  kRegionsImages,
  kExposeTime,
  kRegionsImageLists,
  kFrameDelay,
  kShutterDisable,
  kPreflush,
};

constexpr Lookup kLookups[] = {
    {"sysparams_ccdbinning",
     {SYSPARAM_XBIN, SYSPARAM_YBIN},
     2,
     Read::kInteger,
     Rule::kBoth,
     63,
     "failed to find xbin & ybin parameters."},
    {"sysparams_ccdsize",
     {SYSPARAM_XSIZE, SYSPARAM_YSIZE},
     2,
     Read::kInteger,
     Rule::kBoth,
     135,
     "failed to find both xsize & ysize parameters"},
    {"sysparams_pixel_lowhigh",
     {SYSPARAM_PIXEL_LOW, SYSPARAM_PIXEL_HIGH},
     2,
     Read::kInteger,
     Rule::kBoth,
     207,
     "failed to find both pixel low & high parameters"},
    {"sysparams_regions_images",
     {SYSPARAM_REGIONS, SYSPARAM_IMAGES},
     2,
     Read::kHandle,
     Rule::kOptional,
     277,
     nullptr},
    {"sysparams_exposetime",
     {SYSPARAM_EXPOSURE_TIME, -1},
     1,
     Read::kInteger,
     Rule::kFound,
     340,
     nullptr},
    {"sysparams_regions_imagelists",
     {SYSPARAM_REGIONS, SYSPARAM_IMAGE_LISTS},
     2,
     Read::kHandle,
     Rule::kOptional,
     409,
     nullptr},
    {"sysparams_framedelay",
     {SYSPARAM_FRAME_DELAY, -1},
     1,
     Read::kInteger,
     Rule::kFound,
     472,
     nullptr},
    {"sysparams_shutter_disable",
     {SYSPARAM_SHUTTER_DISABLE, -1},
     1,
     Read::kFlag,
     Rule::kNewest,
     0,
     nullptr},
    {"sysparams_preflush", {SYSPARAM_PREFLUSH, -1}, 1, Read::kInteger, Rule::kFound, 0, nullptr},
};

void store(Read read, void *out, const ParamRecord *param) {
  switch (read) {
    case Read::kInteger:
      *static_cast<INT32 *>(out) = param != nullptr ? param->ival : 0;
      break;
    case Read::kHandle:
      *static_cast<HANDLE *>(out) = param != nullptr ? param->pval : nullptr;
      break;
    case Read::kFlag:
      *static_cast<BYTE *>(out) = param != nullptr ? param->bval : 0;
      break;
  }
}

bool lookup(LookupIndex index, HANDLE params, void *first, void *second) {
  const Lookup &l = kLookups[index];
  void *out[2] = {first, second};
  for (int i = 0; i < l.outputs; ++i) {
    if (out[i] != nullptr) continue;
    if (l.line != 0) tvx::require_failed(l.line, "values");
    return tvx::fail(ERR_PROGRAMMER, 0, l.name, {kProgrammerError}, "no place for the result.");
  }
  if (l.rule != Rule::kNewest)
    for (int i = 0; i < l.outputs; ++i) store(l.read, out[i], nullptr);

  Locked<ParamsRecord> p(params, l.name);
  if (!p) return tvx::qualify(l.name);
  HANDLE list = p->list;
  if (list == nullptr)
    return tvx::fail(ERR_NO_DATA, 0, l.name, {kProgrammerError}, "null parameter list.");

  bool found[2] = {false, false};
  if (!list_head(list)) return tvx::qualify(l.name);
  while (list_more(list)) {
    HANDLE object = nullptr;
    ParamRecord param{};
    if (!list_get_object_x(list, &object) || !read_param(object, l.name, &param))
      return tvx::qualify(l.name);
    for (int i = 0; i < l.outputs; ++i) {
      if (param.id != l.ids[i]) continue;
      store(l.read, out[i], &param);
      found[i] = true;
    }
    if (l.rule == Rule::kNewest && found[0]) return true;
    if (!list_next(list)) return tvx::qualify(l.name);
  }

  bool all = found[0] && (l.outputs < 2 || found[1]);
  switch (l.rule) {
    case Rule::kBoth:
      if (!all) return tvx::fail(ERR_NO_DATA, 0, l.name, {kProgrammerError}, "%s", l.missing);
      return true;
    case Rule::kOptional:
      return true;
    default:
      return all;
  }
}

}  // namespace

extern "C" {

// ---- A parameter ---------------------------------------------------------------------------

HANDLE sysparam_new(INT32 id, INT32 kind) {
  static const char *const kOp = "sysparam_new";
  HANDLE param = handle_allocate(1, sizeof(ParamRecord), MEM_SYSPARAM);
  if (param == nullptr) {
    tvx::qualify(kOp);
    return nullptr;
  }
  Locked<ParamRecord> p(param, kOp);
  if (!p) {
    tvx::qualify(kOp);
    handle_free(param, kOp);
    return nullptr;
  }
  p->id = id;
  p->kind = kind;
  return param;
}

HANDLE sysparam_make_ival(INT32 id, INT32 value) {
  return make(
      id, SYSPARAM_IVAL, "sysparam_make_ival",
      [](ParamRecord &p, const void *v) { p.ival = *static_cast<const INT32 *>(v); }, &value);
}

HANDLE sysparam_make_pval(INT32 id, HANDLE value) {
  return make(
      id, SYSPARAM_PVAL, "sysparam_make_pval",
      [](ParamRecord &p, const void *v) { p.pval = *static_cast<const HANDLE *>(v); }, &value);
}

HANDLE sysparam_make_fval(INT32 id, double value) {
  return make(
      id, SYSPARAM_FVAL, "sysparam_make_fval",
      [](ParamRecord &p, const void *v) { p.fval = *static_cast<const double *>(v); }, &value);
}

HANDLE sysparam_make_bval(INT32 id, BYTE value) {
  return make(
      id, SYSPARAM_BVAL, "sysparam_make_bval",
      [](ParamRecord &p, const void *v) { p.bval = *static_cast<const BYTE *>(v); }, &value);
}

void sysparam_delete(HANDLE param) {
  if (param != nullptr) handle_free(param, "sysparam_delete");
}

INT32 sysparam_get_type(HANDLE param) {
  ParamRecord p{};
  return read_param(param, "sysparam_get_type", &p) ? p.id : -1;
}

INT32 sysparam_get_ival(HANDLE param) {
  ParamRecord p{};
  return read_param(param, "sysparam_get_ival", &p) ? p.ival : 0;
}

HANDLE sysparam_get_pval(HANDLE param) {
  ParamRecord p{};
  return read_param(param, "sysparam_get_pval", &p) ? p.pval : nullptr;
}

double sysparam_get_fval(HANDLE param) {
  ParamRecord p{};
  return read_param(param, "sysparam_get_fval", &p) ? p.fval : 0.0;
}

BYTE sysparam_get_bval(HANDLE param) {
  ParamRecord p{};
  return read_param(param, "sysparam_get_bval", &p) ? p.bval : 0;
}

BOOL sysparam_print(HANDLE param, FILE *stream) {
  ParamRecord p{};
  if (!read_param(param, "sysparam_print", &p)) return false;
  switch (p.kind) {
    case SYSPARAM_IVAL:
      std::fprintf(stream, "(%ld)", long{p.ival});
      break;
    case SYSPARAM_PVAL:
      std::fprintf(stream, "(%lX)",
                   static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p.pval)));
      break;
    case SYSPARAM_FVAL:
      // Written as two whole numbers, so 2.0625 shows as (2.6): the hundredths lose their zero.
      std::fprintf(stream, "(%ld.%ld)", static_cast<long>(whole_part(p.fval)),
                   static_cast<long>(frac_part(p.fval, 2)));
      break;
    case 3:
      std::fprintf(stream, "(%s)", p.pval != nullptr ? static_cast<const char *>(p.pval) : "");
      break;
    default:
      std::fputs("(Invalid data type)", stream);
      break;
  }
  return true;
}

// ---- The parameter list ----------------------------------------------------------------------

HANDLE sysparams_new(void) {
  static const char *const kOp = "sysparams_new";
  HANDLE params = handle_allocate(1, sizeof(ParamsRecord), MEM_SYSPARAMS);
  if (params == nullptr) {
    tvx::qualify(kOp);
    return nullptr;
  }
  HANDLE list = list_new();
  if (list == nullptr) {
    tvx::qualify(kOp);
    handle_free(params, kOp);
    return nullptr;
  }
  Locked<ParamsRecord> p(params, kOp);
  if (!p) {
    tvx::qualify(kOp);
    list_delete(list, nullptr);
    handle_free(params, kOp);
    return nullptr;
  }
  p->list = list;
  return params;
}

HANDLE sysparams_get_list(HANDLE params) {
  Locked<ParamsRecord> p(params, "sysparams_get_list");
  if (!p) return tvx::qualify("sysparams_get_list"), nullptr;
  return p->list;
}

void sysparams_delete(HANDLE params) {
  static const char *const kOp = "sysparams_delete";
  if (params == nullptr) return;
  {
    Locked<ParamsRecord> p(params, kOp);
    if (!p) {
      tvx::qualify(kOp);
      return;
    }
    list_delete(p->list, sysparam_delete);
    p->list = nullptr;
  }
  handle_free(params, kOp);
}

BOOL sysparams_append(HANDLE params, HANDLE param) {
  static const char *const kOp = "sysparams_append";
  // A parameter missing because it could not be made leaves that failure on top.
  if (param == nullptr)
    return tvx::fail_unless_pending(ERR_NO_DATA, 0, kOp, {kProgrammerError},
                                    "no parameter to append.");
  // The list owns the parameter from here on; one it cannot take is let go at once.
  Locked<ParamsRecord> p(params, kOp);
  if (!p || !list_append_head(p->list, param)) {
    sysparam_delete(param);
    return tvx::qualify(kOp);
  }
  return true;
}

BOOL sysparams_ccdbinning(HANDLE params, INT32 *xbin, INT32 *ybin) {
  return lookup(kBinning, params, xbin, ybin);
}

BOOL sysparams_ccdsize(HANDLE params, INT32 *xsize, INT32 *ysize) {
  return lookup(kSize, params, xsize, ysize);
}

BOOL sysparams_pixel_lowhigh(HANDLE params, INT32 *low, INT32 *high) {
  return lookup(kPixelLowHigh, params, low, high);
}

BOOL sysparams_regions_images(HANDLE params, HANDLE *regions, HANDLE *images) {
  return lookup(kRegionsImages, params, regions, images);
}

BOOL sysparams_exposetime(HANDLE params, INT32 *time) {
  return lookup(kExposeTime, params, time, nullptr);
}

BOOL sysparams_regions_imagelists(HANDLE params, HANDLE *regions, HANDLE *image_lists) {
  return lookup(kRegionsImageLists, params, regions, image_lists);
}

BOOL sysparams_framedelay(HANDLE params, INT32 *delay) {
  return lookup(kFrameDelay, params, delay, nullptr);
}

BOOL sysparams_shutter_disable(HANDLE params, BYTE *flag) {
  return lookup(kShutterDisable, params, flag, nullptr);
}

BOOL sysparams_preflush(HANDLE params, INT32 *count) {
  return lookup(kPreflush, params, count, nullptr);
}

}  // extern "C"
