// FITS files: each image's rasters go out as they lie in the image's blocks, one row at a time,
// with FITS row 1 holding raster 0, and come back the same way. A file is made whole in memory,
// so that writing it to the disk is one step that either succeeds or says why not.
#include "fits.h"

#include <fitsio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "header.h"
#include "pixels.h"
#include "writing.h"

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

constexpr size_t kRecord = 2880;  // FITS files are made of records of this many bytes

// The memory a file is made in, which cfitsio grows with realloc. It is kept for the next file,
// which is most often the same size: fresh memory costs a fault on every page. cfitsio takes
// whatever lies beyond the HDU it has just written for the next one, so what the last file left
// there is cleared first, as fresh memory would be.
struct MemoryFile {
  void *data = nullptr;
  size_t size = 0;
  size_t used = 0;  // bytes of the last file; SIZE_MAX while one is made
  ~MemoryFile() { std::free(data); }
};
thread_local MemoryFile memory;

// Fresh memory costs a fault on each page when first written; asked for a whole range at once,
// the kernel maps it for a third of that. Where the kernel cannot, the faults come as before.
void prefault(void *start, size_t size) {
#ifdef MADV_POPULATE_WRITE
  const auto page = uintptr_t(sysconf(_SC_PAGESIZE));
  const uintptr_t from = (uintptr_t(start) + page - 1) / page * page;
  const uintptr_t to = (uintptr_t(start) + size) / page * page;
  if (to > from) madvise(reinterpret_cast<void *>(from), to - from, MADV_POPULATE_WRITE);
#else
  (void)start;
  (void)size;
#endif
}

// The image type by pixel size and sign: unsigned types are stored as signed with BZERO, which
// cfitsio writes for USHORT_IMG and ULONG_IMG. 3-byte pixels widen to 32 bits; two channels are
// 16 bits each.
int bitpix_of(const Shape &s, int channels) {
  if (s.bytes == 1) return s.is_signed ? SBYTE_IMG : BYTE_IMG;
  if (s.bytes == 2 || channels == 2) return s.is_signed ? SHORT_IMG : USHORT_IMG;
  return s.is_signed ? LONG_IMG : ULONG_IMG;
}

// cfitsio's type for rasters of this pixel size and sign as they lie in the image, or 0 where
// they must be widened first (3-byte pixels).
int datatype_of(const Shape &s) {
  switch (s.bytes) {
    case 1:
      return s.is_signed ? TSBYTE : TBYTE;
    case 2:
      return s.is_signed ? TSHORT : TUSHORT;
    case 4:
      return s.is_signed ? TINT : TUINT;
    default:
      return 0;
  }
}

void write_pixels(fitsfile *f, const Plane &p, const Shape &s) {
  int status = 0;
  const int datatype = p.channels == 1 ? datatype_of(s) : 0;
  if (datatype != 0) {
    // cfitsio takes the raster as it is, offset by BZERO for unsigned pixels.
    for_each_row(p.image, [&](int r, const BYTE *raster) {
      if (status == 0)
        fits_write_img(f, datatype, LONGLONG(r) * s.width + 1, s.width, const_cast<BYTE *>(raster),
                       &status);
    });
    fits_check(status, "(memory)", "pixels");
    return;
  }
  std::vector<long long> row(size_t(s.width));
  std::vector<double> values(size_t(s.width));
  // Plane k of a two-channel cube holds channel k + 1: the upper word first.
  for (int k = 0; k < p.channels; ++k) {
    const int shift = p.channels == 2 ? 16 * (1 - k) : 0;
    for_each_row(p.image, [&](int r, const BYTE *raster) {
      if (status != 0) return;
      decode_row(s, raster, values.data());
      for (int i = 0; i < s.width; ++i) {
        const auto v = static_cast<long long>(values[size_t(i)]);
        row[size_t(i)] = p.channels == 2 ? (v >> shift) & 0xFFFF : v;
      }
      fits_write_img(f, TLONGLONG, (LONGLONG(k) * s.height + r) * s.width + 1, s.width, row.data(),
                     &status);
    });
  }
  fits_check(status, "(memory)", "pixels");
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
    } else if (c.decimals >= 0) {
      fits_update_key_fixdbl(f, key, std::get<double>(c.value), c.decimals, comment, &status);
    } else {
      fits_update_key_dbl(f, key, std::get<double>(c.value), c.decimals, comment, &status);
    }
  }
  fits_check(status, path, "keywords");
}

namespace {

// The keywords of the current HDU that the header knows.
std::vector<Card> known_cards(fitsfile *f, const std::string &path) {
  std::vector<Card> cards;
  for (const Keyword &k : keywords()) {
    int status = 0;
    char *key = const_cast<char *>(k.key);
    char text[FLEN_VALUE] = {};
    long whole = 0;
    double real = 0;
    Card c{k.key, std::string(), k.comment, k.decimals};
    if (k.kind == Keyword::text) {
      fits_read_key(f, TSTRING, key, text, nullptr, &status);
      c.value = std::string(text);
    } else if (k.kind == Keyword::whole) {
      fits_read_key(f, TLONG, key, &whole, nullptr, &status);
      c.value = whole;
    } else {
      fits_read_key(f, TDOUBLE, key, &real, nullptr, &status);
      c.value = real;
    }
    if (status == KEY_NO_EXIST) continue;
    fits_check(status, path, k.key, "read");
    cards.push_back(std::move(c));
  }
  return cards;
}

template <class T>
const T *value_of(const std::vector<Card> &cards, const char *key) {
  for (const Card &c : cards)
    if (c.key == key) return std::get_if<T>(&c.value);
  return nullptr;
}

// Each FITS pixel type and the library's image that holds it: depth, sign, cfitsio's type.
struct Kind {
  int bitpix, depth;
  bool is_signed;
  int datatype;
};
constexpr Kind kKinds[] = {{BYTE_IMG, 8, false, TBYTE},      {SBYTE_IMG, 8, true, TSBYTE},
                           {USHORT_IMG, 16, false, TUSHORT}, {SHORT_IMG, 16, true, TSHORT},
                           {ULONG_IMG, 32, false, TUINT},    {LONG_IMG, 32, true, TINT}};

// The image of the current HDU, of `axes`; a cube of two 16-bit channels is packed again.
HANDLE read_image(fitsfile *f, const long *axes, int channels, const std::string &path) {
  int status = 0, equivalent = 0;
  fits_get_img_equivtype(f, &equivalent, &status);
  fits_check(status, path, "pixel type", "read");
  const Kind *kind = nullptr;
  for (const Kind &k : kKinds)
    if (k.bitpix == equivalent) kind = &k;
  if (kind == nullptr || (channels == 2 && equivalent != USHORT_IMG))
    throw Failure{"'" + path + "' has pixels of BITPIX " + std::to_string(equivalent) +
                  (channels == 2 ? " in its channels" : "") +
                  ", which no image of the library holds"};
  const long width = axes[0], height = axes[1];
  HANDLE image = image_new(static_cast<INT32>(width), static_cast<INT32>(height),
                           channels == 2 ? 32 : kind->depth);
  check(image != nullptr,
        "making a " + std::to_string(width) + " x " + std::to_string(height) + " image");
  image_set_signed(image, kind->is_signed ? TRUE : FALSE);
  std::vector<uint16_t> upper(static_cast<size_t>(width)), lower(static_cast<size_t>(width));
  for (long row = 0; row < height && status == 0; ++row) {
    void *raster = image_lockraster(image, static_cast<INT32>(row));
    if (raster == nullptr) {
      image_delete(image);
      check(false, "reading '" + path + "'");
    }
    const LONGLONG first = LONGLONG(row) * width + 1;
    if (channels == 2) {
      fits_read_img(f, TUSHORT, first, width, nullptr, upper.data(), nullptr, &status);
      fits_read_img(f, TUSHORT, first + LONGLONG(width) * height, width, nullptr, lower.data(),
                    nullptr, &status);
      auto *out = static_cast<uint32_t *>(raster);
      for (long i = 0; i < width; ++i) out[i] = uint32_t(upper[size_t(i)]) << 16 | lower[size_t(i)];
    } else {
      fits_read_img(f, kind->datatype, first, width, nullptr, raster, nullptr, &status);
    }
    image_unlockraster(image, static_cast<INT32>(row));
  }
  if (status != 0) image_delete(image);
  fits_check(status, path, "pixels", "read");
  return image;
}

}  // namespace

Plane &Picture::adopt(HANDLE image) {
  if (!list_append_tail(images_, image)) {
    image_delete(image);
    check(FALSE, "keeping an image");
  }
  planes.push_back(Plane{image, "", std::nullopt, std::nullopt, 1});
  return planes.back();
}

std::span<const char> fits_bytes(const std::vector<Plane> &planes, const std::vector<Card> &shared,
                                 const std::vector<std::vector<Card>> &cards) {
  if (planes.empty()) throw Failure{"no image to write"};
  // The whole file is asked for at once: cfitsio would grow it a few records at a time.
  size_t wanted = 0;
  for (const Plane &p : planes) {
    const Shape s = shape_of(p.image);
    wanted += kRecord * 4 + size_t(s.width) * size_t(s.height) * size_t(s.bytes == 3 ? 4 : s.bytes);
  }
  if (memory.data != nullptr) std::memset(memory.data, 0, std::min(memory.used, memory.size));
  if (memory.size < wanted) {
    void *more = std::realloc(memory.data, wanted);
    if (more == nullptr) throw Failure{"no memory for a FITS file"};
    prefault(static_cast<char *>(more) + memory.size, wanted - memory.size);
    memory.data = more;
    memory.size = wanted;
  }
  memory.used = SIZE_MAX;  // until the file is whole, any of it may be written
  FitsFile file;
  int status = 0;
  fits_create_memfile(&file.f, &memory.data, &memory.size, kRecord * 16, std::realloc, &status);
  fits_check(status, "(memory)", "creating");
  if (planes.size() > 1) {
    // An empty primary HDU says what all the regions share; each region is an extension.
    fits_create_img(file.f, BYTE_IMG, 0, nullptr, &status);
    fits_check(status, "(memory)", "primary header");
    std::vector<Card> primary = shared;
    primary.push_back({"NREGIONS", long(planes.size()), "regions read, one extension each"});
    write_cards(file.f, primary, "(memory)");
    fits_write_chksum(file.f, &status);
  }
  LONGLONG end = 0;
  for (size_t i = 0; i < planes.size(); ++i) {
    const Plane &p = planes[i];
    const Shape s = shape_of(p.image);
    long axes[3] = {s.width, s.height, 2};
    fits_create_img(file.f, bitpix_of(s, p.channels), p.channels == 2 ? 3 : 2, axes, &status);
    fits_check(status, "(memory)", "image header");
    if (i < cards.size()) write_cards(file.f, cards[i], "(memory)");
    write_pixels(file.f, p, s);
    fits_write_chksum(file.f, &status);
    LONGLONG header = 0, data = 0;
    fits_get_hduaddrll(file.f, &header, &data, &end, &status);
    fits_check(status, "(memory)", "checksum");
  }
  fits_close_file(file.f, &status);
  file.f = nullptr;
  fits_check(status, "(memory)", "closing");
  memory.used = size_t(end);
  return {static_cast<const char *>(memory.data), memory.used};
}

std::span<const char> fits_bytes(const std::vector<Plane> &planes, const Exposure *exposure,
                                 const std::string &creator) {
  std::vector<std::vector<Card>> cards;
  for (const Plane &p : planes) cards.push_back(header_cards(p, exposure, creator));
  return fits_bytes(planes, header_cards(Plane{}, exposure, creator), cards);
}

void write_fits(const std::string &path, const std::vector<Plane> &planes, const Exposure *exposure,
                const std::string &creator, bool overwrite) {
  const std::span<const char> bytes = fits_bytes(planes, exposure, creator);
  write_whole(path, overwrite, bytes.data(), bytes.size());
}

bool is_fits(const std::string &path) {
  char start[9] = {};
  std::ifstream(path, std::ios::binary).read(start, 8);
  return std::memcmp(start, "SIMPLE  ", 8) == 0;
}

FitsContents read_fits_file(const std::string &path) {
  FitsContents contents;
  FitsFile file;
  int status = 0, count = 0;
  fits_open_diskfile(&file.f, path.c_str(), READONLY, &status);
  fits_get_num_hdus(file.f, &count, &status);
  fits_check(status, path, "opening", "read");
  for (int hdu = 1; hdu <= count; ++hdu) {
    int type = 0, bitpix = 0, naxis = 0;
    long axes[3] = {1, 1, 1};
    fits_movabs_hdu(file.f, hdu, &type, &status);
    if (type != IMAGE_HDU) continue;
    fits_get_img_param(file.f, 3, &bitpix, &naxis, axes, &status);
    fits_check(status, path, "image header", "read");
    std::vector<Card> cards = known_cards(file.f, path);
    if (naxis < 2) {
      // The empty primary HDU in front of the regions.
      if (hdu == 1) contents.shared = std::move(cards);
      continue;
    }
    const long *channels = value_of<long>(cards, "CHANNELS");
    const int planes = channels != nullptr && *channels == 2 && naxis == 3 && axes[2] == 2 ? 2 : 1;
    if (naxis > 3 || (axes[2] != 1 && planes != 2))
      throw Failure{"'" + path + "' holds a cube, not one image"};
    Plane &p = contents.picture.adopt(read_image(file.f, axes, planes, path));
    p.channels = planes;
    if (const std::string *name = value_of<std::string>(cards, "EXTNAME")) p.name = *name;
    const long *x0 = value_of<long>(cards, "XORGSUBF"), *y0 = value_of<long>(cards, "YORGSUBF");
    if (x0 != nullptr && y0 != nullptr) {
      p.x0 = static_cast<int>(*x0);
      p.y0 = static_cast<int>(*y0);
    }
    contents.cards.push_back(std::move(cards));
  }
  if (contents.picture.planes.empty()) throw Failure{"'" + path + "' holds no image"};
  return contents;
}

HANDLE read_fits(const std::string &path) {
  FitsContents contents = read_fits_file(path);
  // The first image leaves the picture, which frees the others.
  HANDLE first = contents.picture.planes.front().image;
  check(list_nth(contents.picture.list(), 1) && list_set_object(contents.picture.list(), nullptr),
        "taking the image");
  return first;
}

}  // namespace session
