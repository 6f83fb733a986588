// The session's camera, its settings and its pictures, for the Python package.
#include "camera.h"

namespace tvxpy {

using session::check;

session::Plane FrameInfo::plane(HANDLE image) const {
  session::Plane p;
  p.image = image;
  p.name = region;
  p.x0 = x0;
  p.y0 = y0;
  return p;
}

void Camera::open(const session::Setup &setup) {
  if (session_) throw session::Failure{"the camera is open already"};
  session_ = std::make_unique<session::Session>(setup);
}

void Camera::close() {
  session_.reset();
}

session::Session &Camera::session() const {
  if (!session_) throw session::Failure{"the camera is closed"};
  return *session_;
}

session::ChipFacts Camera::chip() const {
  return session().chip();
}

std::string Camera::hardware_file() const {
  return session().hardware_file();
}

std::string Camera::ccd_file() const {
  return session().ccd_file();
}

bool Camera::simulated() const {
  return session().simulated();
}

std::pair<int, int> Camera::binning() const {
  INT32 x = 0, y = 0;
  check(camera_get_binning(session().camera(), &x, &y), "reading the binning");
  return {x, y};
}

int Camera::operation_mode() const {
  INT32 mode = 0;
  check(camera_get_operation_mode(session().camera(), &mode), "reading the operation mode");
  return mode;
}

void Camera::configure(int xbin, int ybin, int mode) {
  session::Shot shot;
  shot.xbin = xbin;
  shot.ybin = ybin;
  shot.mode = mode;
  session().configure(shot);
}

std::pair<int, int> Camera::gain_setting() const {
  INT32 rate = 0, sensitivity = 0;
  check(camera_get_gain_settings(session().camera(), &rate, &sensitivity),
        "reading the gain setting");
  return {rate, sensitivity};
}

void Camera::set_gain_setting(int pixel_rate, int sensitivity) {
  check(camera_set_gain(session().camera(), pixel_rate, sensitivity), "setting the gain");
}

std::vector<GainRow> Camera::gain_table() const {
  std::vector<GainRow> rows;
  for (const session::GainRow &g : session().definitions().gains) {
    GainRow row{g.pixel_rate, g.sensitivity, 0, g.ms_per_pixel, g.comment};
    check(camera_get_electrons_per_level(session().camera(), g.pixel_rate, g.sensitivity,
                                         &row.electrons_per_level),
          "reading the gain table");
    rows.push_back(row);
  }
  return rows;
}

double Camera::temperature() {
  return session().ccd_celsius();
}

std::optional<double> Camera::set_point() const {
  return session().cooler_set_point();
}

void Camera::start_cooling() {
  session().start_cooling();
}

void Camera::wait_ms(long ms) {
  session().wait_ms(ms);
}

std::vector<Frame> Camera::take(const session::Shot &shot, long preflush) {
  session::Session &s = session();
  s.configure(shot);
  static const session::Stages kQuiet{[](const char *) {}, [](const char *, double) {}, [] {}};
  const session::Picture picture = s.take(shot, preflush, kQuiet);
  std::vector<Frame> frames;
  for (const session::Plane &p : picture.planes) {
    Frame f;
    f.info.exposure = picture.exposure;
    f.info.region = p.name;
    f.info.x0 = p.x0;
    f.info.y0 = p.y0;
    f.info.kind = frame_kind(session::shape_of(p.image), shot.mode);
    f.pixels = copy_out(p.image, f.info.kind);
    frames.push_back(std::move(f));
  }
  return frames;
}

}  // namespace tvxpy
