// info and convert: image files as the library reads them, described or written anew.
#include <cstdio>
#include <filesystem>

#include "commands.h"
#include "fits.h"
#include "json.h"
#include "summary.h"

namespace tvxcam {

namespace {

const char *format_name(INT32 format) {
  switch (format) {
    case IMAGE_FORMAT_OLVANE1:
      return "olvane 1";
    case IMAGE_FORMAT_NATIVE:
      return "native";
    case IMAGE_FORMAT_TIFF_LE:
      return "TIFF (little-endian)";
    case IMAGE_FORMAT_TIFF_BE:
      return "TIFF (big-endian)";
    case IMAGE_FORMAT_OLVANE2_V3:
      return "olvane 2 (v3)";
    case IMAGE_FORMAT_OLVANE2_V4:
      return "olvane 2 (v4)";
    default:
      return "unknown";
  }
}

// An image read from a file, deleted when it goes.
struct FileImage {
  HANDLE image = nullptr;
  INT32 format = 0;
  bool fits = false;  // read through cfitsio rather than the library
  BOOL swapped = FALSE;
  INT32 width = 0, height = 0, depth = 0;
  ~FileImage() { image_delete(image); }
};

void detect(const std::string &path, FileImage *f) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec))
    throw Failure{"cannot read '" + path + "': no such file"};
  check(image_get_file_format(path.c_str(), &f->format, &f->swapped, &f->width, &f->height,
                              &f->depth),
        "examining '" + path + "'");
  // FITS is big-endian whatever the machine: swapped, as the library counts it, on this one.
  if (f->format == IMAGE_FORMAT_UNKNOWN && is_fits(path)) {
    const uint16_t probe = 1;
    f->fits = true;
    f->swapped = *reinterpret_cast<const uint8_t *>(&probe) == 1;
  }
}

const char *format_of(const FileImage &f) {
  return f.fits ? "FITS" : format_name(f.format);
}

void read_image(const std::string &path, FileImage *f) {
  if (f->fits) {
    f->image = read_fits(path);
    return;
  }
  if (f->format == IMAGE_FORMAT_UNKNOWN)
    throw Failure{"'" + path +
                  "' is not an image file tvx reads (native, olvane 1, olvane 2 or FITS)"};
  f->image = image_new(1, 1, 16);
  check(f->image != nullptr, "making an image");
  check(image_read(f->image, path.c_str()), "reading '" + path + "'");
}

const char *byte_order(BOOL swapped) {
  // The library calls a file swapped when its words are the reverse of this machine's.
  const uint16_t probe = 1;
  const bool little = *reinterpret_cast<const uint8_t *>(&probe) == 1;
  return (little != (swapped != FALSE)) ? "little-endian" : "big-endian";
}

}  // namespace

int run_info(const Command &c) {
  FileImage f;
  detect(c.input, &f);
  const std::string order =
      std::string(byte_order(f.swapped)) + (f.swapped ? " (swapped)" : " (this machine's)");
  if (!c.globals.json && !c.globals.quiet) {
    std::printf("%s\n  %-12s %s\n", c.input.c_str(), "format", format_of(f));
    std::printf("  %-12s %s\n  %-12s %s\n", "byte order", order.c_str(), "file size",
                size_text(c.input).c_str());
  }
  read_image(c.input, &f);
  const Shape s = shape_of(f.image);
  const Stats st = stats_of(f.image);
  if (c.globals.json) {
    Json j;
    j.open()
        .field("file", c.input)
        .field("format", format_of(f))
        .field("byte_order", byte_order(f.swapped))
        .field("swapped", f.swapped != FALSE)
        .field("width", s.width)
        .field("height", s.height)
        .field("depth", s.depth)
        .field("signed", s.is_signed);
    j.open("stats")
        .field("min", st.min)
        .field("max", st.max)
        .field("mean", st.mean)
        .field("sdev", st.sdev)
        .field("median", st.median)
        .field("lower_quartile", st.lower_quartile)
        .field("upper_quartile", st.upper_quartile)
        .field("mode", st.mode)
        .field("pixels", st.count)
        .close();
    j.close();
    std::printf("%s\n", j.text().c_str());
    return 0;
  }
  if (c.globals.quiet) return 0;
  std::printf("  %-12s %s\n", "image", shape_text(s).c_str());
  print_stats("levels", st);
  std::printf("  %-12s lower quartile %.0f  upper quartile %.0f  mode %.0f  pixels %.0f\n", "",
              st.lower_quartile, st.upper_quartile, st.mode, st.count);
  return 0;
}

int run_convert(const Command &c) {
  FileImage f;
  detect(c.input, &f);
  read_image(c.input, &f);
  std::vector<Plane> planes(1);
  planes[0].image = f.image;
  const std::vector<Written> written =
      write_outputs({c.output}, planes, nullptr, c.acquisition, 0, 0);
  if (c.globals.quiet) return 0;
  std::printf("tvxcam convert: %s (%s, %s)\n", c.input.c_str(), format_of(f),
              shape_text(shape_of(f.image)).c_str());
  print_written(written);
  return 0;
}

}  // namespace tvxcam
