// Regions: named rectangles of an image, their list helpers, and the check that a region lies on
// an image before anything is cut from it.
#include <cstdio>

#include "foundation/fail.h"
#include "foundation/locked.h"
#include "tvx/image.h"
#include "tvx/list.h"
#include "tvx/memory.h"

namespace {

using tvx::fail;
using tvx::Locked;
using tvx::qualify;

constexpr INT32 kCauseProgrammer = 0x1040;

}  // namespace

extern "C" {

HANDLE region_new(INT32 x, INT32 y, INT32 width, INT32 height, const char *name) {
  static const char *const kOp = "region_new";
  HANDLE region = handle_allocate(1, sizeof(region_rec), MEM_REGION);
  if (region == nullptr) {
    qualify(kOp);
    return nullptr;
  }
  if (!region_ctor(region, x, y, width, height, name)) {
    qualify(kOp);
    region_delete(region);
    return nullptr;
  }
  return region;
}

BOOL region_ctor(HANDLE region, INT32 x, INT32 y, INT32 width, INT32 height, const char *name) {
  static const char *const kOp = "region_ctor";
  {
    Locked<region_rec> r(region, kOp);
    if (!r) return qualify(kOp);
    *r = region_rec{0, nullptr, x, y, width, height};
  }
  if (!region_setname(region, name)) return qualify(kOp);
  return true;
}

void region_dtor(HANDLE region) {
  static const char *const kOp = "region_dtor";
  Locked<region_rec> r(region, kOp);
  if (!r) {
    qualify(kOp);
    return;
  }
  if (r->name != nullptr) standard_free(r->name, kOp);
  *r = region_rec{};
}

void region_delete(HANDLE region) {
  if (region == nullptr) return;
  region_dtor(region);
  handle_free(region, "region_delete");
}

const char *region_getname(HANDLE region) {
  Locked<region_rec> r(region, "region_getname");
  if (!r) {
    qualify("region_getname");
    return nullptr;
  }
  return r->name;  // a standard block: it stays where it is after the unlock
}

BOOL region_setname(HANDLE region, const char *name) {
  static const char *const kOp = "region_setname";
  Locked<region_rec> r(region, kOp);
  if (!r) return qualify(kOp);
  char *copy = nullptr;
  if (name != nullptr && (copy = string_duplicate(name)) == nullptr) return qualify(kOp);
  if (r->name != nullptr) standard_free(r->name, kOp);
  r->name = copy;
  return true;
}

BOOL region_get(HANDLE region, INT32 *x, INT32 *y, INT32 *width, INT32 *height) {
  static const char *const kOp = "region_get";
  if (x == nullptr || y == nullptr || width == nullptr || height == nullptr)
    return fail(ERR_INCONSISTENT, 0, kOp, {kCauseProgrammer}, "invalid argument");
  Locked<region_rec> r(region, kOp);
  if (!r) return qualify(kOp);
  *x = r->x;
  *y = r->y;
  *width = r->width;
  *height = r->height;
  return true;
}

BOOL region_print(HANDLE region, FILE *stream) {
  static const char *const kOp = "region_print";
  Locked<region_rec> r(region, kOp);
  if (!r) return qualify(kOp);
  std::fprintf(stream, "region(name %s, x %ld, y %ld, width %ld, height %ld)",
               r->name != nullptr ? r->name : "(null)", long{r->x}, long{r->y}, long{r->width},
               long{r->height});
  return true;
}

BOOL region_list_delete(HANDLE list) {
  if (list == nullptr) return true;
  if (!list_delete(list, region_delete)) return qualify("region_list_delete");
  return true;
}

BOOL region_exchangefn1(HANDLE a, HANDLE b) {
  if (a == nullptr || b == nullptr) return false;
  INT32 xa = 0, xb = 0;
  {
    Locked<region_rec> ra(a, "region_exchangefn1");
    if (!ra) return qualify("region_exchangefn1");
    xa = ra->x;
  }
  Locked<region_rec> rb(b, "region_exchangefn1");
  if (!rb) return qualify("region_exchangefn1");
  xb = rb->x;
  return xa > xb;
}

BOOL region_valid(const region_rec *record, INT32 image_width, INT32 image_height,
                  const char *what) {
  if (record == nullptr)
    return fail(ERR_INCONSISTENT, 0, "region_valid", {kCauseProgrammer}, "invalid argument");
  // A negative origin or extent would reach before the image; it is refused with the same words.
  long long x = record->x, y = record->y, w = record->width, h = record->height;
  if (x >= 0 && y >= 0 && w >= 0 && h >= 0 && x <= image_width && y <= image_height &&
      x + w <= image_width && y + h <= image_height)
    return true;
  return fail(ERR_OUT_OF_RANGE, 0, "region_valid", {kCauseProgrammer},
              "region specification (%ld %ld, %ld %ld) off %s (%ld x %ld)", long{record->x},
              long{record->y}, long{record->width}, long{record->height},
              what != nullptr ? what : "image", long{image_width}, long{image_height});
}

}  // extern "C"
