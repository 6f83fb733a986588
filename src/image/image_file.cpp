// Image files: telling the format from a file's size and first six bytes, the four readers in
// either byte order, and the writer of the native format. A reader refuses a header it cannot
// read before it resizes the image; a file that ends early leaves the image resized with the
// pixels it held. No header can ask for more than the largest image there may be.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "image/pixels.h"

namespace {

using tvx::fail;
using tvx::Locked;
using tvx::qualify;
using tvx::image::pixel_size_of;

constexpr const char *kFileText = "image file '%s'.";

// The one shape of a failed file operation: category 13, the system's error number, the path.
bool fail_file(const char *routine, const char *path) {
  return fail(ERR_OS, errno, routine, {}, kFileText, path);
}

// A descriptor closed on every path out.
class File {
 public:
  explicit File(int fd) : fd_(fd) {}
  ~File() {
    if (fd_ >= 0) close(fd_);
  }
  File(const File &) = delete;
  File &operator=(const File &) = delete;
  int fd() const { return fd_; }
  bool ok() const { return fd_ >= 0; }
  void reset(int fd) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

// Reads exactly `size` bytes; false at the end of the file or on an error.
bool read_fully(int fd, void *to, size_t size) {
  auto *p = static_cast<BYTE *>(to);
  errno = 0;
  while (size > 0) {
    ssize_t n = read(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Writes `count` pieces in order, as many to a system call as it takes.
bool write_gathered(int fd, iovec *pieces, int count) {
  iovec *next = pieces, *end = pieces + count;
  while (next < end) {
    ssize_t n = writev(fd, next, static_cast<int>(end - next));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    for (; next < end && static_cast<size_t>(n) >= next->iov_len; ++next)
      n -= static_cast<ssize_t>(next->iov_len);
    if (next < end) {
      next->iov_base = static_cast<BYTE *>(next->iov_base) + n;
      next->iov_len -= static_cast<size_t>(n);
    }
  }
  return true;
}

WORD word_at(const BYTE *p) {
  return static_cast<WORD>(p[0] | (p[1] << 8));
}
WORD swap16(WORD w) {
  return static_cast<WORD>((w >> 8) | (w << 8));
}
DWORD dword_at(const BYTE *p) {
  return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<DWORD>(p[3]) << 24);
}
DWORD swap32(DWORD d) {
  return (d >> 24) | ((d >> 8) & 0xFF00u) | ((d << 8) & 0xFF0000u) | (d << 24);
}

// ---- Detection ---------------------------------------------------------------------------------
constexpr size_t kOlvane1Record = 147;
constexpr unsigned long long kRecordWidthAt = 143, kRecordHeightAt = 145;
constexpr WORD kTiffLittle = 0x4949, kTiffBig = 0x4D4D, kTiffMagic = 0x2A;
constexpr DWORD kOlvane2V3Magic = 0x6931, kOlvane2V4Magic = 0x6932;

// What the rules look at: the file's size and its first six bytes read both ways round.
struct Facts {
  unsigned long long size, a, b, c, n, sn;
  WORD w[3], s[3];
  DWORD m, sm;
  bool record_matches, swapped_record_matches;
};

enum class Dims { kNone, kOlvane1, kNative };

struct Rule {
  bool (*applies)(const Facts &);
  INT32 format;
  bool swapped;
  Dims dims;
};

// First match wins.
constexpr Rule kRules[] = {
    {[](const Facts &f) { return f.a == f.n; }, IMAGE_FORMAT_OLVANE1, false, Dims::kOlvane1},
    {[](const Facts &f) { return f.a == f.sn; }, IMAGE_FORMAT_OLVANE1, true, Dims::kOlvane1},
    {[](const Facts &f) { return f.size >= f.n * 2 + 576 && f.record_matches; },
     IMAGE_FORMAT_OLVANE1, false, Dims::kOlvane1},
    {[](const Facts &f) { return f.size >= f.sn * 2 + 576 && f.swapped_record_matches; },
     IMAGE_FORMAT_OLVANE1, true, Dims::kOlvane1},
    {[](const Facts &f) { return f.a - 1 == f.n; }, IMAGE_FORMAT_NATIVE, false, Dims::kNative},
    {[](const Facts &f) { return f.a - 1 == f.sn; }, IMAGE_FORMAT_NATIVE, true, Dims::kNative},
    {[](const Facts &f) { return f.b == f.n; }, IMAGE_FORMAT_NATIVE, false, Dims::kNative},
    {[](const Facts &f) { return f.b == f.sn || f.c == f.sn; }, IMAGE_FORMAT_NATIVE, true,
     Dims::kNative},
    {[](const Facts &f) { return f.c == f.n; }, IMAGE_FORMAT_NATIVE, false, Dims::kNative},
    {[](const Facts &f) { return f.w[0] == kTiffLittle && f.w[1] == kTiffMagic; },
     IMAGE_FORMAT_TIFF_LE, false, Dims::kNone},
    {[](const Facts &f) { return f.s[0] == kTiffLittle && f.s[1] == kTiffMagic; },
     IMAGE_FORMAT_TIFF_LE, true, Dims::kNone},
    {[](const Facts &f) { return f.w[0] == kTiffBig && f.w[1] == kTiffMagic; },
     IMAGE_FORMAT_TIFF_BE, false, Dims::kNone},
    {[](const Facts &f) { return f.s[0] == kTiffBig && f.s[1] == kTiffMagic; },
     IMAGE_FORMAT_TIFF_BE, true, Dims::kNone},
    {[](const Facts &f) { return f.m == kOlvane2V3Magic; }, IMAGE_FORMAT_OLVANE2_V3, false,
     Dims::kNone},
    {[](const Facts &f) { return f.sm == kOlvane2V3Magic; }, IMAGE_FORMAT_OLVANE2_V3, true,
     Dims::kNone},
    {[](const Facts &f) { return f.m == kOlvane2V4Magic; }, IMAGE_FORMAT_OLVANE2_V4, false,
     Dims::kNone},
    {[](const Facts &f) { return f.sm == kOlvane2V4Magic; }, IMAGE_FORMAT_OLVANE2_V4, true,
     Dims::kNone},
};

// Whether the olvane 1 database record that would follow `pixels` 16-bit pixels repeats the
// width and height. False when the file is too short to hold it.
bool record_repeats(int fd, const Facts &f, unsigned long long pixels, bool swapped, bool *matches,
                    const char *routine) {
  *matches = false;
  if (pixels * 2 + 4 + kOlvane1Record > f.size) return true;
  BYTE record[kOlvane1Record];
  errno = 0;
  auto at = static_cast<off_t>(pixels * 2 + 4);
  if (pread(fd, record, sizeof record, at) != static_cast<ssize_t>(sizeof record))
    return fail(ERR_OS, errno, routine, {}, "olvane 1 database information");
  WORD width = word_at(record + kRecordWidthAt), height = word_at(record + kRecordHeightAt);
  if (swapped) width = swap16(width), height = swap16(height);
  const WORD *expect = swapped ? f.s : f.w;
  *matches = width == expect[0] && height == expect[1];
  return true;
}

// ---- Readers -----------------------------------------------------------------------------------
// The header of a reader's file, read and byte-swapped, and the file left open after it.
struct Header {
  BYTE bytes[108];
};

// Opens the file for `routine` and reads its header of `size` bytes.
bool open_header(const char *routine, const char *path, size_t size, File *file, Header *h) {
  if (access(path, R_OK) != 0) return fail_file(routine, path);
  file->reset(open(path, O_RDONLY));
  if (!file->ok()) return fail_file(routine, path);
  if (!read_fully(file->fd(), h->bytes, size)) return fail_file(routine, path);
  return true;
}

// Resizes the image when needed, sets its signed flag and reads the pixels.
bool take_pixels(HANDLE image, int fd, const char *path, bool swapped, INT32 width, INT32 height,
                 INT32 depth, int is_signed, const char *routine) {
  if (!image_check_size(image, width, height, depth)) return qualify(routine);
  if (is_signed >= 0 && !image_set_signed(image, is_signed)) return qualify(routine);
  if (!image_read_blocks(image, fd, path, swapped)) return qualify(routine);
  return true;
}
constexpr int kKeepSign = -1;

// Olvane 2 pixel formats: those that cannot be read, and those whose pixels are signed.
struct PixelFormat {
  DWORD code;
  const char *refused;  // the name in "%s pixel data", or NULL when readable
  bool is_signed;
};
constexpr PixelFormat kPixelFormats[] = {
    {0, "floating point", true},    {1, nullptr, true}, {2, nullptr, true}, {4, nullptr, true},
    {0x20, "packed binary", false},
};

// The signed flag of a pixel format code, or false with the refusal set.
bool olvane2_format(DWORD code, const char *routine, int *is_signed) {
  *is_signed = 0;
  for (const PixelFormat &f : kPixelFormats) {
    if (f.code != code) continue;
    if (f.refused != nullptr)
      return fail(ERR_NOT_SUPPORTED, 0, routine, {}, "%s pixel data", f.refused);
    *is_signed = f.is_signed ? 1 : 0;
  }
  return true;
}

void swap_fields(Header *h, size_t size) {
  for (size_t at = 0; at < size; at += 4) {
    DWORD v = swap32(dword_at(h->bytes + at));
    std::memcpy(h->bytes + at, &v, 4);  // little-endian host
  }
}

using Reader = BOOL (*)(HANDLE, const char *, BOOL);

struct FormatReader {
  INT32 format;
  Reader reader;
};
constexpr FormatReader kReaders[] = {
    {IMAGE_FORMAT_OLVANE1, image_read_olvane1_format},
    {IMAGE_FORMAT_NATIVE, image_read_tvx_format},
    {IMAGE_FORMAT_OLVANE2_V3, image_read_olvane2_v3_format},
    {IMAGE_FORMAT_OLVANE2_V4, image_read_olvane2_v4_format},
};

bool fail_argument(const char *routine) {
  return fail(ERR_INCONSISTENT, 0, routine, {tvx::image::kCauseProgrammer}, "invalid argument");
}

// Where the two versions of the olvane 2 header keep their fields; 0 for a field a version
// does not have.
struct Olvane2Layout {
  size_t header;
  size_t width, height, bytes_per_pixel, code, depth, data_at;
};
constexpr Olvane2Layout kOlvane2V3{76, 4, 8, 16, 32, 36, 72};
constexpr Olvane2Layout kOlvane2V4{108, 4, 8, 0, 44, 48, 0};

bool read_olvane2(HANDLE image, const char *path, BOOL swapped, const Olvane2Layout &at,
                  const char *op) {
  Locked<image_rec> img(image, op);
  if (!img) return qualify(op);
  File file(-1);
  Header h{};
  if (!open_header(op, path, at.header, &file, &h)) return false;
  if (swapped) swap_fields(&h, at.header);
  const auto field = [&](size_t offset) { return offset != 0 ? dword_at(h.bytes + offset) : 0; };
  const auto width = static_cast<INT32>(field(at.width));
  const auto height = static_cast<INT32>(field(at.height));
  const auto bytes_per_pixel = static_cast<INT32>(field(at.bytes_per_pixel));
  const auto depth = static_cast<INT32>(field(at.depth));
  const DWORD data_at = field(at.data_at);
  int is_signed = 0;
  if (!olvane2_format(field(at.code), op, &is_signed)) return false;
  if (bytes_per_pixel >= 1 && (depth < 1 || depth > 32 || bytes_per_pixel != pixel_size_of(depth)))
    return fail(ERR_NOT_SUPPORTED, 0, op, {}, "pixel bit packing is %ld bits per %ld bytes",
                long{depth}, long{bytes_per_pixel});
  if (data_at >= 1 && data_at != at.header &&
      lseek(file.fd(), static_cast<off_t>(data_at), SEEK_SET) < 0)
    return fail_file(op, path);
  return take_pixels(image, file.fd(), path, swapped, width, height, depth, is_signed, op);
}

}  // namespace

extern "C" {

BOOL image_get_file_format(const char *path, INT32 *format, BOOL *swapped, INT32 *width,
                           INT32 *height, INT32 *depth) {
  static const char *const kOp = "image_get_file_format";
  if (path == nullptr || format == nullptr || swapped == nullptr || width == nullptr ||
      height == nullptr || depth == nullptr)
    return fail_argument(kOp);
  struct stat st {};
  if (stat(path, &st) != 0) return fail(ERR_OS, errno, kOp, {}, "image file '%s'", path);
  File file(open(path, O_RDONLY));
  if (!file.ok()) return fail(ERR_OS, errno, kOp, {}, "image file '%s'", path);
  BYTE head[6];
  if (!read_fully(file.fd(), head, sizeof head))
    return fail(ERR_OS, errno, kOp, {}, "image file '%s'", path);

  Facts f{};
  f.size = static_cast<unsigned long long>(st.st_size);
  for (int i = 0; i < 3; ++i) {
    f.w[i] = word_at(head + 2 * i);
    f.s[i] = swap16(f.w[i]);
  }
  f.n = static_cast<unsigned long long>(f.w[0]) * f.w[1];
  f.sn = static_cast<unsigned long long>(f.s[0]) * f.s[1];
  f.m = dword_at(head);
  f.sm = swap32(f.m);
  f.a = (f.size - 4) / 2;
  f.b = f.size - 6;
  f.c = (f.size - 6) / 4;
  if (!record_repeats(file.fd(), f, f.n, false, &f.record_matches, kOp) ||
      !record_repeats(file.fd(), f, f.sn, true, &f.swapped_record_matches, kOp))
    return false;

  *format = IMAGE_FORMAT_UNKNOWN;
  *swapped = FALSE;
  *width = *height = *depth = 0;
  for (const Rule &rule : kRules) {
    if (!rule.applies(f)) continue;
    *format = rule.format;
    *swapped = rule.swapped;
    const WORD *words = rule.swapped ? f.s : f.w;
    if (rule.dims != Dims::kNone) {
      *width = words[0];
      *height = words[1];
      *depth = rule.dims == Dims::kOlvane1 ? 16 : words[2];
    }
    break;
  }
  return true;
}

BOOL image_read(HANDLE image, const char *path) {
  static const char *const kOp = "image_read";
  if (path == nullptr) return fail_argument(kOp);
  if (access(path, R_OK) != 0) return fail_file(kOp, path);
  INT32 format = 0, width = 0, height = 0, depth = 0;
  BOOL swapped = FALSE;
  if (!image_get_file_format(path, &format, &swapped, &width, &height, &depth)) return qualify(kOp);
  if (format == IMAGE_FORMAT_TIFF_LE || format == IMAGE_FORMAT_TIFF_BE)
    return fail(ERR_NOT_SUPPORTED, 0, kOp, {}, "unable to read tiff file formats");
  for (const FormatReader &r : kReaders)
    if (r.format == format) return r.reader(image, path, swapped) ? true : qualify(kOp);
  return fail(ERR_OUT_OF_RANGE, 0, kOp, {}, "unknown image file format");
}

BOOL image_read_tvx_format(HANDLE image, const char *path, BOOL swapped) {
  static const char *const kOp = "image_read_tvx_format";
  Locked<image_rec> img(image, kOp);
  if (!img) return qualify(kOp);
  File file(-1);
  Header h{};
  if (!open_header(kOp, path, 6, &file, &h)) return false;
  WORD words[3];
  for (int i = 0; i < 3; ++i)
    words[i] = swapped ? swap16(word_at(h.bytes + 2 * i)) : word_at(h.bytes + 2 * i);
  INT32 depth = words[2] & 0xFF;
  int marker = words[2] >> 8;
  if (depth == 0 || depth > 32)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {}, "image depth not in range 1 - 32");
  return take_pixels(image, file.fd(), path, swapped, words[0], words[1], depth, marker != 0, kOp);
}

BOOL image_read_olvane1_format(HANDLE image, const char *path, BOOL swapped) {
  static const char *const kOp = "image_read_olvane1_format";
  Locked<image_rec> img(image, kOp);
  if (!img) return qualify(kOp);
  File file(-1);
  Header h{};
  if (!open_header(kOp, path, 4, &file, &h)) return false;
  WORD width = word_at(h.bytes), height = word_at(h.bytes + 2);
  if (swapped) width = swap16(width), height = swap16(height);
  return take_pixels(image, file.fd(), path, swapped, width, height, 16, kKeepSign, kOp);
}

BOOL image_read_olvane2_v3_format(HANDLE image, const char *path, BOOL swapped) {
  return read_olvane2(image, path, swapped, kOlvane2V3, "image_read_olvane2_v3_format");
}

BOOL image_read_olvane2_v4_format(HANDLE image, const char *path, BOOL swapped) {
  return read_olvane2(image, path, swapped, kOlvane2V4, "image_read_olvane2_v4_format");
}

BOOL image_read_blocks(HANDLE image, int fd, const char *path, BOOL swapped) {
  static const char *const kOp = "image_read_blocks";
  tvx::image::Image img(image, kOp);
  if (!img.ok()) return qualify(kOp);
  INT32 size = pixel_size_of(img->depth);
  for (INT32 b = 0; b < img->block_cnt; ++b) {
    const image_block &entry = img.blocks()[b];
    Locked<BYTE> block(tvx::image::block_handle(entry), kOp);
    if (!block) return qualify(kOp);
    if (!read_fully(fd, block.get(), entry.size)) return fail_file(kOp, path);
    if (!swapped || (size != 2 && size != 4)) continue;
    for (BYTE *p = block.get(), *end = p + entry.size; p < end; p += size) {
      std::swap(p[0], p[size - 1]);
      if (size == 4) std::swap(p[1], p[2]);
    }
  }
  return true;
}

BOOL image_write(HANDLE image, const char *path) {
  static const char *const kOp = "image_write";
  if (path == nullptr) return fail_argument(kOp);
  tvx::image::Image img(image, kOp);
  if (!img.ok()) return qualify(kOp);
  if (img->width > 0xFFFF || img->height > 0xFFFF)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {}, "image size (%ld x %ld) too large for an image file.",
                long{img->width}, long{img->height});
  tvx::image::AllRows blocks(img.rec(), img.blocks(), kOp);
  if (!blocks.ok()) return qualify(kOp);
  File file(open(path, O_CREAT | O_TRUNC | O_WRONLY, 0666));
  if (!file.ok()) return fail_file(kOp, path);
  BYTE header[6] = {static_cast<BYTE>(img->width),  static_cast<BYTE>(img->width >> 8),
                    static_cast<BYTE>(img->height), static_cast<BYTE>(img->height >> 8),
                    static_cast<BYTE>(img->depth),  static_cast<BYTE>(img->is_signed ? 0xFF : 0)};
  // The header, then every pixel block's bytes in order, many blocks to a system call: a file of
  // many blocks costs about what one write of the same bytes costs.
  constexpr int kBatch = 256;
  iovec pieces[kBatch] = {{header, sizeof header}};
  int count = 1;
  for (INT32 b = 0; b < img->block_cnt; ++b) {
    pieces[count++] = {blocks.row(b * img->rasters_per_block), img.blocks()[b].size};
    if (count < kBatch && b + 1 < img->block_cnt) continue;
    if (!write_gathered(file.fd(), pieces, count)) return fail_file(kOp, path);
    count = 0;
  }
  return true;
}

}  // extern "C"
