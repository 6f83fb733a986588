// A camera session: the server and camera brought up from the definition files (the shipped
// simulated camera unless told otherwise), the simulator's scene and clock as the program chose
// them, and the pictures taken through it. tvxcam, the INDI driver and the Python package all
// take their pictures through it, so the three describe a frame the same way.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "cooling.h"
#include "definitions.h"
#include "errors.h"
#include "tvx/tvx.h"

namespace session {

// A failure of the program's own, not of the library: its text is the whole story.
struct Failure {
  std::string text;
};

// The library refused: its error stack tells why. `what` says what the program was doing;
// `definition_files` are the files the library was reading as one text, if it was, so that the
// lines its messages count can be told as lines of those files (`take_errors`).
struct LibraryError {
  std::string what;
  std::vector<std::string> definition_files;
};

// The program asked the session to stop (see `Session::set_cancel`): the picture or the wait in
// progress was given up, and the camera is ready for the next.
struct Aborted {
  std::string during;  // where: "while exposing", "before the readout", "while cooling", ...
};

// Which camera to bring up, and for the simulated one what it looks at.
struct Setup {
  std::string hw;   // hardware definition file; empty: the shipped simulated camera's
  std::string ccd;  // CCD definition file; empty: the shipped small chip
  // Where the shipped simulated camera's files lie, when the program carries its own copy (the
  // Python package does); empty: shipped_data_dir().
  std::string data_dir;
  std::string scene;
  std::optional<long> seed;
  bool realtime = false;
  bool virtual_clock = false;
};

// A rectangle on the chip in unbinned pixels.
struct Region {
  int x = 0, y = 0, width = 0, height = 0;
};

// One header keyword. A real keeps `decimals` places after the point, or when that is negative,
// as many significant digits in whichever form is shorter.
struct Card {
  std::string key;
  std::variant<std::string, long, double> value;
  std::string comment;
  int decimals = 0;
};

// What the observer says of a picture, beside what the camera knows: the FITS keywords OBJECT,
// TELESCOP, OBSERVER and FILTER (left out when empty) and keywords of the observer's own.
struct Observation {
  std::string object, telescope, observer, filter;
  std::vector<Card> extra;
};

// One exposure's settings.
struct Shot {
  long exposure_ms = 0;
  int xbin = 1, ybin = 1;
  std::vector<Region> regions;  // none: the whole chip
  int mode = 0;                 // operation mode 0 .. 3
  bool dark = false;            // the shutter stays closed
  // "light", "dark", "bias" or "flat"; empty: told by the exposure (none is a bias, a closed
  // shutter a dark). Dark and bias frames keep the shutter closed as `dark` does.
  std::string type;
  Observation observation;
};

// Whether the shutter stays closed for `shot`.
bool shutter_closed(const Shot &shot);

// raw, iz, processed or pedestal; "unknown" for any other mode.
const char *mode_name(int mode);

// The directory of the shipped simulated camera: the first of $TVX_DATA_DIR, the installed
// share/tvx/sim beside the program or beside the library, and the source tree's data/sim that
// holds the hardware file. Empty when none does.
std::string shipped_data_dir();

// Throws LibraryError when the library call failed.
inline void check(BOOL ok, const std::string &what) {
  if (!ok) throw LibraryError{what, {}};
}

// The whole error stack with its possible causes, then cleared (see errors.h for the records).
std::string error_story();
// The same, with the lines of the definition text told as lines of `definition_files`.
std::string error_story(const std::vector<std::string> &definition_files);

// Now, in UTC to the millisecond: "2026-11-21T18:04:29.565".
std::string utc_now();

// One image of a picture: the region it holds and where on the chip it starts (unbinned).
struct Plane {
  HANDLE image = nullptr;  // owned by the picture
  std::string name;
  std::optional<int> x0, y0;
  // 2: each 32-bit pixel holds two channels of the converter, channel 1 in its upper 16 bits
  // and channel 2 in its lower (raw and image-zero modes of a two-channel camera).
  int channels = 1;
};

// What the FITS header and the summary say about a picture.
struct Exposure {
  double seconds = 0;
  std::string date_obs;  // UTC, start of the exposure
  bool dark = false;
  int xbin = 1, ybin = 1;
  int mode = 0;
  std::optional<double> ccd_celsius;  // at the start of the exposure
  double electrons_per_level = 0;
  std::string readout_mode;  // the gain setting's description
  std::string detector, serial_no, instrument;
  std::string date_end;                   // UTC, end of the exposure
  std::optional<double> ccd_celsius_end;  // at the end of the exposure
  std::optional<double> set_point;        // the cooler's, in degrees Celsius, while it runs
  std::optional<long> image_zero;         // measured from this readout's reference columns
  std::string type;                       // as Shot::type; empty: told by the exposure
  Observation observation;
};

// "Light Frame", "Dark Frame", "Bias Frame" or "Flat Field": the exposure's own type, else none
// for a bias, a closed shutter for a dark and a light frame otherwise.
const char *image_type(const Exposure &e);

// One exposure's images; frees them when it goes.
class Picture {
 public:
  Picture();
  ~Picture();
  Picture(const Picture &) = delete;
  Picture &operator=(const Picture &) = delete;
  Picture(Picture &&other) noexcept;
  Picture &operator=(Picture &&other) noexcept;

  HANDLE list() const { return images_; }
  // Takes `image` into the picture, which frees it, as a new plane of one channel.
  Plane &adopt(HANDLE image);
  std::vector<Plane> planes;
  Exposure exposure;

 private:
  HANDLE images_ = nullptr;
};

// The stages of one exposure, for whoever shows them: flush, exposure, readout.
struct Stages {
  std::function<void(const char *label)> start_open;
  std::function<void(const char *label, double seconds)> start_timed;
  std::function<void()> end;
};

struct ChipFacts {
  std::string type, mode, serial_no, product;
  int xsize = 0, ysize = 0;
  int active[4] = {};
  int pixel_rate = 1, sensitivity = 1;
};

class Session {
 public:
  explicit Session(const Setup &setup);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  HANDLE camera() const { return camera_; }
  HANDLE server() const { return server_; }
  const std::string &hardware_file() const { return hw_; }
  const std::string &ccd_file() const { return ccd_; }
  bool simulated() const { return simulated_; }
  bool realtime() const { return realtime_; }
  bool virtual_clock() const { return virtual_clock_; }
  const ChipFacts &chip() const { return chip_; }
  const Definitions &definitions() const { return defs_; }

  // Binning and operation mode for the next pictures.
  void configure(const Shot &a);
  // Flushes `preflush` times, exposes (or, for a dark frame, waits with the shutter closed) and
  // reads out the regions (none: the whole chip).
  Picture take(const Shot &a, long preflush, const Stages &stages);
  // The CCD temperature of the first sensor in degrees Celsius.
  double ccd_celsius(double *second = nullptr);
  // Fills in what the header says of the camera: gain, readout mode, detector and instrument.
  void describe(Exposure *e);
  // The controller's cooling set point in degrees Celsius (see cooling.h); none when the hardware
  // definition gives the chip no nominal temperature.
  std::optional<double> cooler_set_point() const;
  // Switches the cooler on: the controller cools the chip to its own set point.
  void start_cooling();
  // Whether this session has switched the cooler on.
  bool cooling() const { return cooling_; }
  // Switches the cooler on unless it is, then reads the CCD every `poll` seconds until the
  // watch says it has reached the set point (cooling.h). `each` sees every reading. Throws
  // Failure when the hardware definition gives no set point or the time-out passes first (its
  // text says where the chip is and where it is heading), Aborted when cancelled.
  CoolingReading cool_down(const CoolingWait &wait,
                           const std::function<void(const CoolingReading &)> &each);
  // Reads out at another row of the gain table from now on.
  void set_gain(int pixel_rate, int sensitivity);
  // Points the simulated camera at another scene (a name of the SIMULATOR section's scenes).
  // Throws Failure for a camera that is not simulated.
  void set_scene(const std::string &scene);
  // Waits `ms` on the library's clock, so that a virtual clock jumps rather than sleeps.
  void wait_ms(long ms);

  // Asked between the stages of a picture, between the readings of a cooling wait and whenever
  // a library call fails: when it says yes, the session throws Aborted. A program that stops on
  // a signal or a button says yes from then on and calls tvx_abort_request, which makes the
  // library's wait in progress give up; the session clears that request when it throws, so the
  // next picture starts clean once the program says no again.
  void set_cancel(std::function<bool()> cancelled) { cancelled_ = std::move(cancelled); }

 private:
  void start(const Setup &g);
  void release();
  void open_server(const Setup &g);
  void apply_simulator(const Setup &g);
  std::vector<Plane> planes_of(const Shot &a, HANDLE images);
  // check() that tells an abort from a failure, and tests for one between stages.
  void call(BOOL ok, const std::string &what, const char *during);
  void stop_if_cancelled(const char *during);

  std::string hw_, ccd_;
  std::string staging_;  // a directory of our own when the hardware file is not "7100hw.def"
  HANDLE server_ = nullptr, camera_ = nullptr;
  bool simulated_ = false, realtime_ = false, virtual_clock_ = false, cooling_ = false;
  std::function<bool()> cancelled_;
  ChipFacts chip_;
  Definitions defs_;
};

}  // namespace session
