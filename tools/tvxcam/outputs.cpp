// Each output by its format: FITS, the PNG preview, or the library's native format, each written
// aside and renamed into place.
#include "outputs.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <set>

#include "preview.h"
#include "writing.h"

namespace tvxcam {

namespace fs = std::filesystem;

std::string numbered(const std::string &path, long frame, int digits, int region) {
  const fs::path p(path);
  std::string stem = (p.parent_path() / p.stem()).string();
  if (frame > 0) {
    char number[32];
    std::snprintf(number, sizeof number, "_%0*ld", digits, frame);
    stem += number;
  }
  if (region > 0) stem += "_r" + std::to_string(region);
  return stem + p.extension().string();
}

std::vector<Target> targets_of(const Acquisition &a, const std::vector<std::string> &outputs,
                               long frame, int digits, size_t planes) {
  std::vector<Target> targets;
  for (const std::string &out : outputs) {
    const Format format = format_of(out).value_or(a.format.value_or(Format::fits));
    if (format == Format::fits) {
      targets.push_back({numbered(out, frame, digits, 0), format, -1});
      continue;
    }
    for (size_t i = 0; i < planes; ++i)
      targets.push_back(
          {numbered(out, frame, digits, planes > 1 ? int(i) + 1 : 0), format, int(i)});
  }
  return targets;
}

void check_targets(const std::vector<Target> &targets, bool overwrite) {
  std::string problems;
  std::set<std::string> seen, directories_tried, directories_refused;
  for (const Target &t : targets) {
    if (!seen.insert(fs::path(t.path).lexically_normal().string()).second) {
      problems += "\n  '" + t.path + "' is named twice";
      continue;
    }
    const bool tried = !directories_tried.insert(fs::path(t.path).parent_path().string()).second;
    const Obstacle o = obstacle_to_writing(t.path, overwrite, !tried);
    if (o.why.empty()) continue;
    // One line for a directory, however many files would go there.
    if (!o.exists && !directories_refused.insert(o.why).second) continue;
    problems += "\n  cannot write '" + t.path + "': " + o.why;
    if (o.exists) problems += " (--overwrite replaces it)";
  }
  if (!problems.empty()) throw Failure{"nothing was taken:" + problems};
}

long highest_number(const std::vector<std::string> &outputs) {
  long highest = 0;
  for (const std::string &out : outputs) {
    const fs::path p(out);
    const fs::path dir = p.parent_path().empty() ? fs::path(".") : p.parent_path();
    // The stem and extension as they stand, every other character of them taken literally.
    const auto literal = [](const std::string &s) {
      return std::regex_replace(s, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
    };
    const std::regex numbered_name(literal(p.stem().string()) + R"(_(\d+)(_r\d+)?)" +
                                   literal(p.extension().string()));
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator(dir, ec)) {
      std::smatch m;
      const std::string name = entry.path().filename().string();
      if (std::regex_match(name, m, numbered_name)) highest = std::max(highest, std::stol(m[1]));
    }
  }
  return highest;
}

Writing write_targets(const std::vector<Target> &targets, const std::vector<Plane> &planes,
                      const std::function<std::span<const char>()> &fits, const Acquisition &a) {
  Writing w;
  for (const Target &t : targets) {
    try {
      if (t.format == Format::fits) {
        const std::span<const char> bytes = fits();
        write_whole(t.path, a.overwrite, bytes.data(), bytes.size());
        std::string what = "FITS";
        if (planes.size() > 1) what += ", " + std::to_string(planes.size()) + " extensions";
        if (planes.front().channels == 2) what += ", a plane a channel";
        w.written.push_back({t.path, what});
        continue;
      }
      const Plane &p = planes.at(size_t(t.plane));
      if (t.format == Format::png) {
        Levels l;
        const std::vector<unsigned char> png =
            preview_png(p, a.stretch, a.low_percent, a.high_percent, &l);
        write_whole(t.path, a.overwrite, png.data(), png.size());
        char text[96];
        std::snprintf(text, sizeof text, "preview%s, %s %.0f .. %.0f",
                      p.channels == 2 ? " of channel 1" : "",
                      a.stretch == Stretch::asinh ? "asinh" : "linear", l.black, l.white);
        w.written.push_back({t.path, text});
      } else {
        write_whole(t.path, a.overwrite, [&](const std::string &temporary) {
          if (image_write(p.image, temporary.c_str())) return;
          // The library sets the system's error number as the error's code.
          err_stack stack = nullptr;
          err_where_is(&stack);
          const int code = (*stack)->code;
          take_errors();
          throw Failure{"cannot write '" + t.path + "': " + why_not(code)};
        });
        w.written.push_back({t.path, "native"});
      }
    } catch (const Failure &f) {
      w.failed.push_back({t.path, f.text});
    }
  }
  return w;
}

}  // namespace tvxcam
