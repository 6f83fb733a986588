// Each output by its extension: FITS, the PNG preview, or the library's native format.
#include "outputs.h"

#include <cstdio>
#include <filesystem>

#include "fits.h"

namespace tvxcam {

std::string numbered(const std::string &path, long frame, int digits, int region) {
  const std::filesystem::path p(path);
  std::string stem = (p.parent_path() / p.stem()).string();
  if (frame > 0) {
    char number[32];
    std::snprintf(number, sizeof number, "_%0*ld", digits, frame);
    stem += number;
  }
  if (region > 0) stem += "_r" + std::to_string(region);
  return stem + p.extension().string();
}

std::vector<Written> write_outputs(const std::vector<std::string> &outputs,
                                   const std::vector<Plane> &planes, const Exposure *exposure,
                                   const Acquisition &a, long frame, int digits) {
  std::vector<Written> written;
  const bool several = planes.size() > 1;
  for (const std::string &out : outputs) {
    const Format format = format_of(out);
    if (format == Format::fits) {
      const std::string path = numbered(out, frame, digits, 0);
      write_fits(path, planes, exposure, std::string("tvxcam ") + TVXCAM_VERSION);
      written.push_back(
          {path, several ? "FITS, " + std::to_string(planes.size()) + " extensions" : "FITS"});
      continue;
    }
    for (size_t i = 0; i < planes.size(); ++i) {
      const std::string path = numbered(out, frame, digits, several ? int(i) + 1 : 0);
      if (format == Format::png) {
        const Levels l = write_png(path, planes[i].image, a.stretch, a.low_percent, a.high_percent);
        char text[96];
        std::snprintf(text, sizeof text, "preview, %s %.0f .. %.0f",
                      a.stretch == Stretch::asinh ? "asinh" : "linear", l.black, l.white);
        written.push_back({path, text});
      } else {
        check(image_write(planes[i].image, path.c_str()), "writing '" + path + "'");
        written.push_back({path, "native"});
      }
    }
  }
  return written;
}

}  // namespace tvxcam
