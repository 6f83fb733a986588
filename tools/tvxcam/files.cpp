// info and convert: image files as the library reads them, or FITS files as cfitsio does,
// described or written anew with every image they hold and the header keywords tvx knows.
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

// An image file: its format, as the library or cfitsio tells it, and what it holds.
struct ImageFile {
  INT32 format = 0;
  bool fits = false;  // read through cfitsio rather than the library
  BOOL swapped = FALSE;
  FitsContents contents;  // the images, and for a FITS file the keywords of each
};

void detect(const std::string &path, ImageFile *f) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec))
    throw Failure{"cannot read '" + path + "': no such file"};
  INT32 width = 0, height = 0, depth = 0;
  check(image_get_file_format(path.c_str(), &f->format, &f->swapped, &width, &height, &depth),
        "examining '" + path + "'");
  // FITS is big-endian whatever the machine: swapped, as the library counts it, on this one.
  if (f->format == IMAGE_FORMAT_UNKNOWN && is_fits(path)) {
    const uint16_t probe = 1;
    f->fits = true;
    f->swapped = *reinterpret_cast<const uint8_t *>(&probe) == 1;
  }
}

const char *format_of(const ImageFile &f) {
  return f.fits ? "FITS" : format_name(f.format);
}

void read_images(const std::string &path, ImageFile *f) {
  if (f->fits) {
    f->contents = read_fits_file(path);
    return;
  }
  if (f->format == IMAGE_FORMAT_UNKNOWN)
    throw Failure{"'" + path +
                  "' is not an image file tvx reads (native, olvane 1, olvane 2 or FITS)"};
  HANDLE image = image_new(1, 1, 16);
  check(image != nullptr, "making an image");
  Plane &p = f->contents.picture.adopt(image);
  check(image_read(p.image, path.c_str()), "reading '" + path + "'");
}

const char *byte_order(BOOL swapped) {
  // The library calls a file swapped when its words are the reverse of this machine's.
  const uint16_t probe = 1;
  const bool little = *reinterpret_cast<const uint8_t *>(&probe) == 1;
  return (little != (swapped != FALSE)) ? "little-endian" : "big-endian";
}

}  // namespace

int run_info(const Command &c, Report &) {
  ImageFile f;
  detect(c.input, &f);
  const std::string order =
      std::string(byte_order(f.swapped)) + (f.swapped ? " (swapped)" : " (this machine's)");
  const bool text = !c.globals.json && !c.globals.quiet;
  if (text) {
    std::printf("%s\n  %-12s %s\n", c.input.c_str(), "format", format_of(f));
    std::printf("  %-12s %s\n  %-12s %s\n", "byte order", order.c_str(), "file size",
                size_text(c.input).c_str());
  }
  read_images(c.input, &f);
  const std::vector<Plane> &planes = f.contents.picture.planes;
  if (c.globals.json) {
    const Shape s = shape_of(planes.front().image);
    Json j;
    j.open()
        .field("command", "info")
        .field("file", c.input)
        .field("format", format_of(f))
        .field("byte_order", byte_order(f.swapped))
        .field("swapped", f.swapped != FALSE)
        .field("width", s.width)
        .field("height", s.height)
        .field("depth", s.depth)
        .field("signed", s.is_signed);
    json_stats(j, "stats", stats_of(planes.front().image));
    json_planes(j, planes);
    j.field("ok", true).close();
    std::printf("%s\n", j.text().c_str());
    return 0;
  }
  if (!text) return 0;
  for (const Plane &p : planes) {
    std::printf("  %-12s %s\n", p.name.empty() ? "image" : p.name.c_str(),
                shape_text(shape_of(p.image), p.channels).c_str());
    for (const auto &[label, st] : plane_stats(p)) {
      print_stats(label.empty() ? "levels" : label.c_str(), st);
      std::printf("  %-12s lower quartile %.0f  upper quartile %.0f  mode %.0f  pixels %.0f\n", "",
                  st.lower_quartile, st.upper_quartile, st.mode, st.count);
    }
  }
  return 0;
}

int run_convert(const Command &c, Report &report) {
  const Acquisition &a = c.acquisition;
  ImageFile f;
  detect(c.input, &f);
  read_images(c.input, &f);
  const FitsContents &in = f.contents;
  const std::vector<Target> targets = targets_of(a, {c.output}, 0, 0, in.picture.planes.size());
  check_targets(targets, a.overwrite);
  const std::string creator = std::string("tvxcam ") + TVXCAM_VERSION;
  const auto fits = [&] {
    if (!f.fits) return fits_bytes(in.picture.planes, nullptr, creator);
    // The keywords the source's header holds and tvx knows go across; CREATOR is tvxcam now.
    const auto restamped = [&creator](std::vector<Card> cards) {
      std::erase_if(cards, [](const Card &card) { return card.key == "CREATOR"; });
      cards.push_back({"CREATOR", creator, keyword("CREATOR")->comment});
      return cards;
    };
    std::vector<std::vector<Card>> cards;
    for (const std::vector<Card> &each : in.cards) cards.push_back(restamped(each));
    return fits_bytes(in.picture.planes, restamped(in.shared), cards);
  };
  const Writing w = write_targets(targets, in.picture.planes, fits, a);
  report.written = w.written;
  if (c.globals.json) {
    Json j;
    j.open().field("command", "convert").field("input", c.input).field("format", format_of(f));
    json_planes(j, in.picture.planes);
    json_writing(j, w);
    j.field("ok", w.failed.empty()).close();
    std::printf("%s\n", j.text().c_str());
  } else if (!c.globals.quiet) {
    const Plane &first = in.picture.planes.front();
    std::printf("tvxcam convert: %s (%s, %s%s)\n", c.input.c_str(), format_of(f),
                shape_text(shape_of(first.image), first.channels).c_str(),
                in.picture.planes.size() > 1
                    ? (", " + std::to_string(in.picture.planes.size()) + " images").c_str()
                    : "");
    print_writing(w);
  } else {
    print_writing(Writing{{}, w.failed});
  }
  return w.failed.empty() ? 0 : 1;
}

}  // namespace tvxcam
