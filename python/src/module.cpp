// The module _tvx: the camera session, frames and image files of the library for the package
// tvx. Everything that reaches the library goes through call(), on the library's thread.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "arrays.h"
#include "camera.h"
#include "cooling.h"
#include "fits.h"
#include "header.h"
#include "library_thread.h"
#include "tvx/testing.h"

namespace py = pybind11;

namespace tvxpy {
namespace {

// A camera dropped without being closed is closed on the library's thread.
struct CameraDeleter {
  void operator()(Camera *c) const {
    if (!c->closed()) run_on_library([c] { c->close(); });
    delete c;
  }
};
using CameraHolder = std::unique_ptr<Camera, CameraDeleter>;

// A member of Camera as a Python method that runs on the library's thread.
template <class R, class... A>
auto on_library(R (Camera::*method)(A...)) {
  return [method](Camera &c, A... args) -> R { return call([&] { return (c.*method)(args...); }); };
}
template <class R, class... A>
auto on_library(R (Camera::*method)(A...) const) {
  return [method](const Camera &c, A... args) -> R {
    return call([&] { return (c.*method)(args...); });
  };
}

py::tuple frame_to_python(Frame &&f) {
  return py::make_tuple(to_numpy(std::move(f.pixels)), std::move(f.info));
}

// The header's cards as (key, value, comment, decimals).
py::list cards_of(const FrameInfo &f, const std::string &creator) {
  py::list out;
  for (const session::Card &c : session::header_cards(f.plane(nullptr), &f.exposure, creator)) {
    py::object value = std::visit([](const auto &v) { return py::object(py::cast(v)); }, c.value);
    out.append(py::make_tuple(c.key, value, c.comment, c.decimals));
  }
  return out;
}

void write_fits(const std::string &path, const std::vector<std::pair<py::array, FrameInfo>> &frames,
                const std::string &creator) {
  if (frames.empty()) throw std::invalid_argument("no frames to write");
  std::vector<ArrayView> views;
  for (const auto &[array, info] : frames) {
    views.push_back(view_of(array));
    check_fits(views.back(), info.kind);
  }
  call([&] {
    std::vector<OwnedImage> images;
    std::vector<session::Plane> planes;
    for (size_t i = 0; i < frames.size(); ++i) {
      images.push_back(copy_in(views[i], frames[i].second.kind));
      planes.push_back(frames[i].second.plane(images.back().image));
    }
    session::write_fits(path, planes, &frames.front().second.exposure, creator);
  });
}

py::array read_image(const std::string &path) {
  return to_numpy(call([&] {
    OwnedImage image;
    image.image = image_new(1, 1, 16);
    session::check(image.image != nullptr, "making an image");
    session::check(image_read(image.image, path.c_str()), "reading '" + path + "'");
    const session::Shape s = session::shape_of(image.image);
    return copy_out(image.image, ImageKind{s.depth, s.is_signed, Layout::stored});
  }));
}

void write_image(const std::string &path, const py::array &array, int depth) {
  const ArrayView view = view_of(array);
  const ImageKind kind{depth, view.is_signed, Layout::stored};
  check_fits(view, kind);
  call([&] {
    const OwnedImage image = copy_in(view, kind);
    session::check(image_write(image.image, path.c_str()), "writing '" + path + "'");
  });
}

}  // namespace
}  // namespace tvxpy

PYBIND11_MODULE(_tvx, m) {
  using namespace tvxpy;
  m.doc() = "The tvx library's camera session, frames and image files; use the package tvx.";
  register_error_translator();

  py::class_<FrameInfo>(m, "FrameInfo")
      .def_property_readonly("seconds", [](const FrameInfo &f) { return f.exposure.seconds; })
      .def_property_readonly("date_obs", [](const FrameInfo &f) { return f.exposure.date_obs; })
      .def_property_readonly("dark", [](const FrameInfo &f) { return f.exposure.dark; })
      .def_property_readonly(
          "binning",
          [](const FrameInfo &f) { return std::make_pair(f.exposure.xbin, f.exposure.ybin); })
      .def_property_readonly("mode", [](const FrameInfo &f) { return f.exposure.mode; })
      .def_property_readonly("ccd_celsius",
                             [](const FrameInfo &f) { return f.exposure.ccd_celsius; })
      .def_property_readonly("gain",
                             [](const FrameInfo &f) { return f.exposure.electrons_per_level; })
      .def_property_readonly("readout_mode",
                             [](const FrameInfo &f) { return f.exposure.readout_mode; })
      .def_property_readonly("detector", [](const FrameInfo &f) { return f.exposure.detector; })
      .def_property_readonly("serial_no", [](const FrameInfo &f) { return f.exposure.serial_no; })
      .def_property_readonly("instrument", [](const FrameInfo &f) { return f.exposure.instrument; })
      .def_property_readonly("region", [](const FrameInfo &f) { return f.region; })
      .def_property_readonly("origin",
                             [](const FrameInfo &f) -> std::optional<std::pair<int, int>> {
                               if (!f.x0 || !f.y0) return std::nullopt;
                               return std::make_pair(*f.x0, *f.y0);
                             })
      .def_property_readonly(
          "two_channel", [](const FrameInfo &f) { return f.kind.layout == Layout::two_channel; })
      .def("cards", &cards_of, py::arg("creator"));

  py::class_<GainRow>(m, "GainRow")
      .def_readonly("pixel_rate", &GainRow::pixel_rate)
      .def_readonly("sensitivity", &GainRow::sensitivity)
      .def_readonly("electrons_per_level", &GainRow::electrons_per_level)
      .def_readonly("ms_per_pixel", &GainRow::ms_per_pixel)
      .def_readonly("description", &GainRow::description);

  py::class_<session::ChipFacts>(m, "ChipFacts")
      .def_readonly("type", &session::ChipFacts::type)
      .def_readonly("mode", &session::ChipFacts::mode)
      .def_readonly("serial_no", &session::ChipFacts::serial_no)
      .def_readonly("product", &session::ChipFacts::product)
      .def_readonly("xsize", &session::ChipFacts::xsize)
      .def_readonly("ysize", &session::ChipFacts::ysize)
      .def_property_readonly("active_area", [](const session::ChipFacts &c) {
        return py::make_tuple(c.active[0], c.active[1], c.active[2], c.active[3]);
      });

  py::class_<Camera, CameraHolder>(m, "Camera")
      .def(py::init([] { return CameraHolder(new Camera); }))
      .def(
          "open",
          [](Camera &c, std::string hw, std::string ccd, std::string data_dir, std::string scene,
             std::optional<long> seed, bool realtime, bool virtual_clock) {
            session::Setup setup;
            setup.hw = std::move(hw);
            setup.ccd = std::move(ccd);
            setup.data_dir = std::move(data_dir);
            setup.scene = std::move(scene);
            setup.seed = seed;
            setup.realtime = realtime;
            setup.virtual_clock = virtual_clock;
            call([&] { c.open(setup); });
          },
          py::arg("hw"), py::arg("ccd"), py::arg("data_dir"), py::arg("scene"), py::arg("seed"),
          py::arg("realtime"), py::arg("virtual_clock"))
      .def("close", on_library(&Camera::close))
      .def_property_readonly("closed", on_library(&Camera::closed))
      .def_property_readonly("chip", on_library(&Camera::chip))
      .def_property_readonly("hardware_file", on_library(&Camera::hardware_file))
      .def_property_readonly("ccd_file", on_library(&Camera::ccd_file))
      .def_property_readonly("simulated", on_library(&Camera::simulated))
      .def_property_readonly("binning", on_library(&Camera::binning))
      .def_property_readonly("operation_mode", on_library(&Camera::operation_mode))
      .def("configure", on_library(&Camera::configure))
      .def_property_readonly("gain_setting", on_library(&Camera::gain_setting))
      .def("set_gain_setting", on_library(&Camera::set_gain_setting))
      .def_property_readonly("gain_table", on_library(&Camera::gain_table))
      .def_property_readonly("temperature", on_library(&Camera::temperature))
      .def_property_readonly("set_point", on_library(&Camera::set_point))
      .def("start_cooling", on_library(&Camera::start_cooling))
      .def("wait_ms", on_library(&Camera::wait_ms))
      .def(
          "take",
          [](Camera &c, long exposure_ms, int xbin, int ybin,
             const std::vector<std::tuple<int, int, int, int>> &regions, int mode, bool dark,
             long preflush) {
            session::Shot shot;
            shot.exposure_ms = exposure_ms;
            shot.xbin = xbin;
            shot.ybin = ybin;
            for (const auto &[x, y, w, h] : regions) shot.regions.push_back({x, y, w, h});
            shot.mode = mode;
            shot.dark = dark;
            std::vector<Frame> frames = call([&] { return c.take(shot, preflush); });
            py::list out;
            for (Frame &f : frames) out.append(frame_to_python(std::move(f)));
            return out;
          },
          py::arg("exposure_ms"), py::arg("xbin"), py::arg("ybin"), py::arg("regions"),
          py::arg("mode"), py::arg("dark"), py::arg("preflush"));

  py::class_<session::CoolingWatch>(m, "CoolingWatch")
      .def(py::init<double, double, double>(), py::arg("set_point"), py::arg("tolerance"),
           py::arg("settle"))
      .def("add", &session::CoolingWatch::add, py::arg("seconds"), py::arg("celsius"))
      .def_property_readonly("reached", &session::CoolingWatch::reached)
      .def_property_readonly("last", &session::CoolingWatch::last)
      .def_property_readonly("per_minute", &session::CoolingWatch::per_minute);

  m.def("write_fits", &write_fits, py::arg("path"), py::arg("frames"), py::arg("creator"));
  m.def("read_image", &read_image, py::arg("path"));
  m.def("write_image", &write_image, py::arg("path"), py::arg("array"), py::arg("depth"));
  m.def("mode_name", &session::mode_name);
  m.def("default_creator", &session::default_creator);
  m.def("shipped_data_dir", [] { return call([] { return session::shipped_data_dir(); }); });
  m.def("version", [] {
    return call([] {
      char version[32] = {};
      GetDllVersion(version, nullptr);
      return std::string(version);
    });
  });
  m.def("memory_totals", [] {
    return call([] {
      return std::make_tuple(total_allocated(), number_of_allocations(), total_string_allocated(),
                             number_of_strings());
    });
  });
  m.def("clock_centiseconds", [] { return call([] { return time_centiseconds(); }); });

  // For the package's own tests.
  m.def("_abort_pending", [] { return tvx_abort_pending() != FALSE; });
  m.def("_library_busy", &library_busy);
  m.def("_use_real_clock", [] { call([] { tvx_test_clock_real(); }); });
  m.def("_cooler_drift",
        [](double kelvin_per_minute) { call([&] { tvx_test_cooler_drift(kelvin_per_minute); }); });
}
