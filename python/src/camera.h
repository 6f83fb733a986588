// The camera as the Python package holds it: one session, reached only from the library's
// thread, and the frames it takes, copied out of the library before they reach Python.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "arrays.h"
#include "cooling.h"
#include "session.h"

namespace tvxpy {

// What a frame says about itself: how it was taken, which region it holds and where, and the
// image it came from, so that the library's writers can make it again.
struct FrameInfo {
  session::Exposure exposure;
  std::string region;
  std::optional<int> x0, y0;
  ImageKind kind;

  session::Plane plane(HANDLE image) const;
};

struct Frame {
  Pixels pixels;
  FrameInfo info;
};

struct GainRow {
  int pixel_rate = 0, sensitivity = 0;
  double electrons_per_level = 0, ms_per_pixel = 0;
  std::string description;
};

// Made with no session, so that a camera whose bring-up was interrupted still holds what it
// brought up, to be closed like any other.
class Camera {
 public:
  // Brings the camera up; call only on the library's thread, as every member below.
  void open(const session::Setup &setup);
  // Ends the session; later calls fail. Safe to repeat.
  void close();
  bool closed() const { return !session_; }

  session::ChipFacts chip() const;
  std::string hardware_file() const;
  std::string ccd_file() const;
  bool simulated() const;

  std::pair<int, int> binning() const;
  int operation_mode() const;
  void configure(int xbin, int ybin, int mode);
  std::pair<int, int> gain_setting() const;
  void set_gain_setting(int pixel_rate, int sensitivity);
  std::vector<GainRow> gain_table() const;
  double temperature();
  std::optional<double> set_point() const;
  void start_cooling();
  void wait_ms(long ms);

  // Flushes, exposes and reads out one picture (see session::Session::take), and copies each of
  // its images out.
  std::vector<Frame> take(const session::Shot &shot, long preflush);

 private:
  session::Session &session() const;

  std::unique_ptr<session::Session> session_;
};

}  // namespace tvxpy
