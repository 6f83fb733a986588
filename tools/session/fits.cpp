// FITS files: each image's rasters go out as they lie in the image's blocks, one row at a time,
// with FITS row 1 holding raster 0, and come back the same way.
#include "fits.h"

#include <fitsio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "header.h"
#include "pixels.h"

namespace session {

namespace {

// cfitsio's status as a Failure naming the file and what was being done.
void fits_check(int status, const std::string &path, const char *doing,
                const char *verb = "write") {
  if (status == 0) return;
  char text[FLEN_STATUS] = {};
  fits_get_errstatus(status, text);
  throw Failure{std::string("cannot ") + verb + " FITS file '" + path + "' (" + doing +
                "): " + text};
}

struct FitsFile {
  fitsfile *f = nullptr;
  ~FitsFile() {
    int ignored = 0;
    if (f != nullptr) fits_close_file(f, &ignored);
  }
};

// The image type by pixel size and sign: unsigned types are stored as signed with BZERO, which
// cfitsio writes for USHORT_IMG and ULONG_IMG. 3-byte pixels widen to 32 bits.
int bitpix_of(const Shape &s) {
  if (s.bytes == 1) return s.is_signed ? SBYTE_IMG : BYTE_IMG;
  if (s.bytes == 2) return s.is_signed ? SHORT_IMG : USHORT_IMG;
  return s.is_signed ? LONG_IMG : ULONG_IMG;
}

void write_pixels(fitsfile *f, HANDLE image, const Shape &s, const std::string &path) {
  int status = 0;
  std::vector<long long> row(size_t(s.width));
  std::vector<double> values(size_t(s.width));
  for_each_row(image, [&](int r, const BYTE *raster) {
    if (status != 0) return;
    decode_row(s, raster, values.data());
    for (int i = 0; i < s.width; ++i) row[size_t(i)] = static_cast<long long>(values[size_t(i)]);
    fits_write_img(f, TLONGLONG, LONGLONG(r) * s.width + 1, s.width, row.data(), &status);
  });
  fits_check(status, path, "pixels");
}

}  // namespace

void write_cards(fitsfile *f, const std::vector<Card> &cards, const std::string &path) {
  int status = 0;
  for (const Card &c : cards) {
    char *comment = const_cast<char *>(c.comment.c_str());
    char *key = const_cast<char *>(c.key.c_str());
    if (const auto *text = std::get_if<std::string>(&c.value)) {
      fits_update_key(f, TSTRING, key, const_cast<char *>(text->c_str()), comment, &status);
    } else if (const auto *number = std::get_if<long>(&c.value)) {
      long value = *number;
      fits_update_key(f, TLONG, key, &value, comment, &status);
    } else {
      fits_update_key_fixdbl(f, key, std::get<double>(c.value), c.decimals, comment, &status);
    }
  }
  fits_check(status, path, "keywords");
}

void write_fits(const std::string &path, const std::vector<Plane> &planes, const Exposure *exposure,
                const std::string &creator) {
  if (planes.empty()) throw Failure{"nothing to write to '" + path + "'"};
  // A disk file with no clobber or extended-name syntax: the name is taken as it stands.
  if (unlink(path.c_str()) != 0 && errno != ENOENT)
    throw Failure{"cannot replace '" + path + "': " + std::strerror(errno)};
  FitsFile file;
  int status = 0;
  fits_create_diskfile(&file.f, const_cast<char *>(path.c_str()), &status);
  fits_check(status, path, "creating");
  if (planes.size() > 1) {
    // An empty primary HDU says what all the regions share; each region is an extension.
    fits_create_img(file.f, BYTE_IMG, 0, nullptr, &status);
    fits_check(status, path, "primary header");
    std::vector<Card> shared = header_cards(Plane{}, exposure, creator);
    shared.push_back({"NREGIONS", long(planes.size()), "regions read, one extension each"});
    write_cards(file.f, shared, path);
    fits_write_chksum(file.f, &status);
    fits_check(status, path, "primary header");
  }
  for (const Plane &p : planes) {
    const Shape s = shape_of(p.image);
    long axes[2] = {s.width, s.height};
    fits_create_img(file.f, bitpix_of(s), 2, axes, &status);
    fits_check(status, path, "image header");
    write_cards(file.f, header_cards(p, exposure, creator), path);
    write_pixels(file.f, p.image, s, path);
    fits_write_chksum(file.f, &status);
    fits_check(status, path, "checksum");
  }
  fits_close_file(file.f, &status);
  file.f = nullptr;
  fits_check(status, path, "closing");
}

bool is_fits(const std::string &path) {
  char start[9] = {};
  std::ifstream(path, std::ios::binary).read(start, 8);
  return std::memcmp(start, "SIMPLE  ", 8) == 0;
}

HANDLE read_fits(const std::string &path) {
  FitsFile file;
  int status = 0;
  fits_open_diskfile(&file.f, path.c_str(), READONLY, &status);
  fits_check(status, path, "opening", "read");
  // The first HDU that holds a picture: an empty primary is followed by the extensions.
  int naxis = 0;
  long axes[3] = {1, 1, 1};
  for (;;) {
    int bitpix = 0, type = 0;
    fits_get_img_param(file.f, 3, &bitpix, &naxis, axes, &status);
    if (status == NOT_IMAGE) status = 0, naxis = 0;
    fits_check(status, path, "image header", "read");
    if (naxis >= 2) break;
    if (fits_movrel_hdu(file.f, 1, &type, &status) == END_OF_FILE)
      throw Failure{"'" + path + "' holds no image"};
    fits_check(status, path, "next extension", "read");
  }
  if (naxis > 3 || axes[2] != 1) throw Failure{"'" + path + "' holds a cube, not one image"};
  int equivalent = 0;
  fits_get_img_equivtype(file.f, &equivalent, &status);
  fits_check(status, path, "pixel type", "read");
  // Each FITS pixel type and the library's image that holds it: depth, sign, cfitsio's type.
  struct Kind {
    int bitpix, depth;
    bool is_signed;
    int datatype;
  };
  static constexpr Kind kKinds[] = {{BYTE_IMG, 8, false, TBYTE},      {SBYTE_IMG, 8, true, TSBYTE},
                                    {USHORT_IMG, 16, false, TUSHORT}, {SHORT_IMG, 16, true, TSHORT},
                                    {ULONG_IMG, 32, false, TUINT},    {LONG_IMG, 32, true, TINT}};
  const Kind *kind = nullptr;
  for (const Kind &k : kKinds)
    if (k.bitpix == equivalent) kind = &k;
  if (kind == nullptr)
    throw Failure{"'" + path + "' has pixels of BITPIX " + std::to_string(equivalent) +
                  ", which no image of the library holds"};
  HANDLE image = image_new(static_cast<INT32>(axes[0]), static_cast<INT32>(axes[1]), kind->depth);
  check(image != nullptr,
        "making a " + std::to_string(axes[0]) + " x " + std::to_string(axes[1]) + " image");
  image_set_signed(image, kind->is_signed ? TRUE : FALSE);
  for (long row = 0; row < axes[1] && status == 0; ++row) {
    void *raster = image_lockraster(image, static_cast<INT32>(row));
    if (raster == nullptr) {
      image_delete(image);
      check(false, "reading '" + path + "'");
    }
    fits_read_img(file.f, kind->datatype, LONGLONG(row) * axes[0] + 1, axes[0], nullptr, raster,
                  nullptr, &status);
    image_unlockraster(image, static_cast<INT32>(row));
  }
  if (status != 0) image_delete(image);
  fits_check(status, path, "pixels", "read");
  return image;
}

}  // namespace session
