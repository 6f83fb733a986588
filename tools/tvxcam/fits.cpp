// Writing FITS: each image's rasters go out as they lie in the image's blocks, one row at a time,
// with FITS row 1 holding raster 0.
#include "fits.h"

#include <fitsio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "pixels.h"

namespace tvxcam {

namespace {

// cfitsio's status as a Failure naming the file and what was being done.
void fits_check(int status, const std::string &path, const char *doing) {
  if (status == 0) return;
  char text[FLEN_STATUS] = {};
  fits_get_errstatus(status, text);
  throw Failure{"cannot write FITS file '" + path + "' (" + doing + "): " + text};
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

void key_string(fitsfile *f, const char *key, const std::string &value, const char *comment,
                int *status) {
  fits_update_key(f, TSTRING, key, const_cast<char *>(value.c_str()), comment, status);
}

void key_int(fitsfile *f, const char *key, long value, const char *comment, int *status) {
  fits_update_key(f, TLONG, key, &value, comment, status);
}

void key_double(fitsfile *f, const char *key, double value, int decimals, const char *comment,
                int *status) {
  fits_update_key_fixdbl(f, key, value, decimals, comment, status);
}

void write_keywords(fitsfile *f, const Plane &p, const Exposure *e, const std::string &path) {
  int status = 0;
  if (!p.name.empty()) key_string(f, "EXTNAME", p.name, "region of the readout", &status);
  if (e != nullptr) {
    key_double(f, "EXPTIME", e->seconds, 3, "[s] exposure time", &status);
    key_string(f, "DATE-OBS", e->date_obs, "[UTC] start of the exposure", &status);
    // A frame read straight after the flush holds only the bias.
    const char *type = e->seconds == 0 ? "Bias Frame" : e->dark ? "Dark Frame" : "Light Frame";
    key_string(f, "IMAGETYP", type, "type of image", &status);
    key_int(f, "XBINNING", e->xbin, "binning along rows", &status);
    key_int(f, "YBINNING", e->ybin, "binning along columns", &status);
  }
  if (p.x0 && p.y0) {
    key_int(f, "XORGSUBF", *p.x0, "[pixel] subframe origin on the chip, x", &status);
    key_int(f, "YORGSUBF", *p.y0, "[pixel] subframe origin on the chip, y", &status);
  }
  if (e != nullptr) {
    if (e->ccd_celsius)
      key_double(f, "CCD-TEMP", *e->ccd_celsius, 2, "[C] CCD temperature at the start", &status);
    key_double(f, "GAIN", e->electrons_per_level, 4, "[e-/ADU] electrons per level", &status);
    key_string(f, "INSTRUME", e->instrument, "camera controller", &status);
    key_string(f, "DETECTOR", e->detector, "CCD type", &status);
    if (!e->serial_no.empty())
      key_string(f, "CCDSERNO", e->serial_no, "CCD serial number", &status);
    key_string(f, "READOUTM", e->readout_mode, "readout mode (pixel rate, sensitivity)", &status);
    key_string(f, "OPMODE", mode_name(e->mode), "tvx operation mode", &status);
  }
  key_string(f, "BUNIT", "adu", "pixel values are converter levels", &status);
  key_string(f, "CREATOR", std::string("tvxcam ") + TVXCAM_VERSION, "program that wrote the file",
             &status);
  fits_check(status, path, "keywords");
}

}  // namespace

void write_fits(const std::string &path, const std::vector<Plane> &planes,
                const Exposure *exposure) {
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
    Plane shared;
    write_keywords(file.f, shared, exposure, path);
    key_int(file.f, "NREGIONS", long(planes.size()), "regions read, one extension each", &status);
    fits_write_chksum(file.f, &status);
    fits_check(status, path, "primary header");
  }
  for (const Plane &p : planes) {
    const Shape s = shape_of(p.image);
    long axes[2] = {s.width, s.height};
    fits_create_img(file.f, bitpix_of(s), 2, axes, &status);
    fits_check(status, path, "image header");
    write_keywords(file.f, p, exposure, path);
    write_pixels(file.f, p.image, s, path);
    fits_write_chksum(file.f, &status);
    fits_check(status, path, "checksum");
  }
  fits_close_file(file.f, &status);
  file.f = nullptr;
  fits_check(status, path, "closing");
}

}  // namespace tvxcam
