// Bringing the camera up and taking pictures through the library's camera calls.
#include "session.h"

#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "cooling.h"
#include "definitions.h"
#include "tvx/testing.h"

namespace session {

namespace fs = std::filesystem;

namespace {
const char *const kModeNames[] = {"raw", "iz", "processed", "pedestal"};
}

const char *mode_name(int mode) {
  return mode >= 0 && mode < 4 ? kModeNames[mode] : "unknown";
}

std::string shipped_data_dir() {
  std::vector<fs::path> candidates;
  if (const char *env = std::getenv("TVX_DATA_DIR"); env != nullptr && *env != '\0')
    candidates.emplace_back(env);
  const auto share_beside = [](const fs::path &file) {
    return file.parent_path() / ".." / "share" / "tvx" / "sim";
  };
  // An installed program finds the files in its own prefix; a program that only loads the
  // library (a Python interpreter, say) finds them in the library's prefix.
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    self[n] = '\0';
    candidates.push_back(share_beside(self));
  }
  Dl_info library{};
  if (dladdr(reinterpret_cast<void *>(&camera_new), &library) != 0 && library.dli_fname != nullptr)
    candidates.push_back(share_beside(library.dli_fname));
  candidates.emplace_back(TVX_SOURCE_DATA_DIR);
  for (const fs::path &dir : candidates) {
    std::error_code ec;
    if (fs::is_regular_file(dir / SERVER_DEFINITION_FILE, ec))
      return fs::weakly_canonical(dir, ec).string();
  }
  return {};
}

std::string error_story() {
  return story_of(take_errors());
}

std::string error_story(const std::vector<std::string> &definition_files) {
  const DefinitionText text(definition_files);
  return story_of(take_errors(&text));
}

bool shutter_closed(const Shot &shot) {
  return shot.dark || shot.type == "dark" || shot.type == "bias";
}

const char *image_type(const Exposure &e) {
  static const std::pair<const char *, const char *> kTypes[] = {{"light", "Light Frame"},
                                                                 {"dark", "Dark Frame"},
                                                                 {"bias", "Bias Frame"},
                                                                 {"flat", "Flat Field"}};
  const std::string type = !e.type.empty()  ? e.type
                           : e.seconds == 0 ? "bias"  // read straight after the flush
                           : e.dark         ? "dark"
                                            : "light";
  for (const auto &[name, text] : kTypes)
    if (type == name) return text;
  return "Light Frame";
}

// ---- Pictures -----------------------------------------------------------------------------

Picture::Picture() : images_(list_new()) {
  check(images_ != nullptr, "making an image list");
}

Picture::~Picture() {
  if (images_ != nullptr) image_list_delete(images_);
}

Picture::Picture(Picture &&other) noexcept
    : planes(std::move(other.planes)), exposure(other.exposure), images_(other.images_) {
  other.images_ = nullptr;
}

Picture &Picture::operator=(Picture &&other) noexcept {
  std::swap(planes, other.planes);
  std::swap(exposure, other.exposure);
  std::swap(images_, other.images_);
  return *this;
}

namespace {

// A list of regions of our own, deleted with them.
struct RegionList {
  HANDLE list = nullptr;
  ~RegionList() {
    if (list != nullptr) region_list_delete(list);
  }
};

// A moment as FITS dates it, `centiseconds` after `start`.
std::string utc_text(const timespec &start, DWORD centiseconds = 0) {
  const long long ms = static_cast<long long>(start.tv_sec) * 1000 + start.tv_nsec / 1000000 +
                       static_cast<long long>(centiseconds) * 10;
  const time_t seconds = static_cast<time_t>(ms / 1000);
  tm t{};
  gmtime_r(&seconds, &t);
  char text[96];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03lld", t.tm_year + 1900,
                t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, ms % 1000);
  return text;
}

}  // namespace

std::string utc_now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return utc_text(now);
}

namespace {

fs::path absolute(const std::string &path) {
  std::error_code ec;
  fs::path p = fs::absolute(path, ec);
  return ec ? fs::path(path) : p;
}

}  // namespace

// ---- The session ---------------------------------------------------------------------------

Session::Session(const Setup &g) {
  try {
    start(g);
  } catch (...) {
    release();
    throw;
  }
}

Session::~Session() {
  release();
}

void Session::release() {
  if (camera_ != nullptr) camera_delete(camera_);
  if (server_ != nullptr) server_delete(server_);
  camera_ = server_ = nullptr;
  if (!staging_.empty()) {
    std::error_code ec;
    fs::remove_all(staging_, ec);
    staging_.clear();
  }
  if (virtual_clock_) tvx_test_clock_real();
  virtual_clock_ = false;
}

void Session::start(const Setup &g) {
  open_server(g);
  // The camera reads the hardware file and the chip's as one text.
  const std::vector<std::string> both{hw_, ccd_definition_file(ccd_)};
  camera_ = camera_new(server_, ccd_.c_str());
  if (camera_ == nullptr) throw LibraryError{"bringing up the camera from " + ccd_, both};
  apply_simulator(g);
  const char *type = nullptr, *mode = nullptr, *serial = nullptr, *product = nullptr;
  INT32 xs = 0, ys = 0, rate = 0, sens = 0;
  INT32 area[4] = {};
  check(camera_get_ccd_information(camera_, &type, &mode, &serial, &product) &&
            camera_get_ccd_size(camera_, &xs, &ys) && camera_get_active_area(camera_, area) &&
            camera_get_gain_settings(camera_, &rate, &sens),
        "reading the chip's description");
  chip_.type = type ? type : "";
  chip_.mode = mode ? mode : "";
  chip_.serial_no = serial ? serial : "";
  chip_.product = product ? product : "";
  chip_.xsize = xs;
  chip_.ysize = ys;
  for (int i = 0; i < 4; ++i) chip_.active[i] = area[i];
  chip_.pixel_rate = rate;
  chip_.sensitivity = sens;
  Definitions full;
  if (!read_definitions(hw_, both[1], &full))
    throw LibraryError{"reading the definition files", both};
  defs_ = std::move(full);
}

void Session::open_server(const Setup &g) {
  const std::string shipped = g.data_dir.empty() ? shipped_data_dir() : g.data_dir;
  if ((g.hw.empty() || g.ccd.empty()) && shipped.empty())
    throw Failure{
        "cannot find the simulated camera's files (7100hw.def): set TVX_DATA_DIR to their "
        "directory, or give --hw and --ccd"};
  ccd_ = g.ccd.empty() ? (fs::path(shipped) / "sim_small.def").string() : g.ccd;
  if (!g.hw.empty()) {
    hw_ = g.hw;
  } else {
    // The library's own rule: the hardware file lies beside the chip's; else the simulator's.
    const fs::path beside = absolute(ccd_).parent_path() / SERVER_DEFINITION_FILE;
    std::error_code ec;
    hw_ = !g.ccd.empty() && fs::is_regular_file(beside, ec)
              ? beside.string()
              : (fs::path(shipped) / SERVER_DEFINITION_FILE).string();
  }
  std::error_code ec;
  for (const std::string *file : {&hw_, &ccd_})
    if (!fs::is_regular_file(*file, ec))
      throw Failure{"cannot read " + std::string(file == &hw_ ? "hardware" : "CCD") +
                    " definition file '" + *file + "': no such file"};

  // The server reads "7100hw.def" in the directory of the file it is given. Another name is
  // served from a directory of our own that shows the file under that name beside links to
  // everything else of its directory (the micro-code files).
  fs::path served = absolute(hw_);
  if (served.filename() != SERVER_DEFINITION_FILE) {
    std::string pattern = (fs::temp_directory_path(ec) / "tvx-hw-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
      throw Failure{"cannot make a directory for the hardware file in " +
                    fs::temp_directory_path(ec).string()};
    staging_ = pattern;
    for (const auto &entry : fs::directory_iterator(served.parent_path(), ec))
      if (entry.path().filename() != SERVER_DEFINITION_FILE)
        fs::create_symlink(entry.path(), fs::path(staging_) / entry.path().filename(), ec);
    fs::create_symlink(served, fs::path(staging_) / SERVER_DEFINITION_FILE, ec);
    if (ec) throw Failure{"cannot link the hardware file into " + staging_ + ": " + ec.message()};
    served = fs::path(staging_) / SERVER_DEFINITION_FILE;
  }

  // The simulator's settings are known before the server boots, so that the clock is already
  // virtual while it waits for the controller.
  Definitions &defs = defs_;
  if (read_definitions(hw_, "", &defs)) {
    simulated_ = defs.device == "simulator";
    realtime_ = simulated_ && defs.has_simulator && defs.sim.realtime != 0;
  } else {
    error_story();  // the server reads the same file and tells the story in full
  }
  const bool sim_options = !g.scene.empty() || g.seed || g.realtime || g.virtual_clock;
  if (sim_options && !defs.device.empty() && !simulated_)
    throw Failure{
        "--scene, --seed, --realtime and --virtual-clock apply only to the simulated "
        "camera, and " +
        hw_ + " names the adapter '" + defs.device + "'"};
  if (g.virtual_clock) {
    tvx_test_clock_virtual(1);
    virtual_clock_ = true;
  }
  server_ = server_new(served.string().c_str());
  if (server_ == nullptr) throw LibraryError{"starting the controller from " + hw_, {hw_}};
}

void Session::apply_simulator(const Setup &g) {
  if (!simulated_) return;
  // The server has applied the hardware file's SIMULATOR section; the command line overrides it.
  if (g.scene.empty() && !g.seed && !g.realtime) return;
  static const std::pair<const char *, INT32> kScenes[] = {{"starfield", TVX_SCENE_STARFIELD},
                                                           {"coordinates", TVX_SCENE_COORDINATES},
                                                           {"flat", TVX_SCENE_FLAT},
                                                           {"dark", TVX_SCENE_DARK}};
  const simulator &file = defs_.sim;
  const std::string named = !g.scene.empty() ? g.scene : defs_.has_simulator ? file.scene : "";
  INT32 scene = TVX_SCENE_STARFIELD;
  for (const auto &[name, code] : kScenes)
    if (named == name) scene = code;
  const long seed = g.seed ? *g.seed : defs_.has_simulator ? long{file.seed} : 7100L;
  realtime_ = g.realtime || (defs_.has_simulator && file.realtime != 0);
  check(tvx_test_simulator_scene(scene, static_cast<INT32>(seed), realtime_ ? TRUE : FALSE),
        "choosing the simulator's scene");
}

void Session::configure(const Shot &a) {
  check(camera_set_binning(camera_, a.xbin, a.ybin), "setting the binning");
  check(camera_set_operation_mode(camera_, a.mode), "setting the operation mode");
}

void Session::call(BOOL ok, const std::string &what, const char *during) {
  if (ok) return;
  if (cancelled_ && cancelled_()) take_errors();  // a wait that gave up as asked: no fault
  stop_if_cancelled(during);
  throw LibraryError{what, {}};
}

void Session::stop_if_cancelled(const char *during) {
  if (!cancelled_ || !cancelled_()) return;
  tvx_abort_clear();
  throw Aborted{during};
}

double Session::ccd_celsius(double *second) {
  double first = 0, other = 0;
  call(camera_get_ccd_temperature(camera_, &first, &other), "reading the CCD temperature",
       "while reading the temperature");
  if (second != nullptr) *second = other;
  return first;
}

void Session::describe(Exposure *e) {
  // The gain setting the camera holds now: a program may have changed it since the start.
  INT32 rate = 0, sensitivity = 0;
  check(camera_get_gain_settings(camera_, &rate, &sensitivity) &&
            camera_get_electrons_per_level(camera_, rate, sensitivity, &e->electrons_per_level),
        "reading the gain");
  for (const GainRow &g : defs_.gains)
    if (g.pixel_rate == rate && g.sensitivity == sensitivity) e->readout_mode = g.comment;
  e->detector = chip_.type;
  e->serial_no = chip_.serial_no;
  e->instrument = simulated_ ? "7100 controller (simulated)" : "7100 controller";
}

std::optional<double> Session::cooler_set_point() const {
  return session::cooler_set_point(defs_);
}

void Session::start_cooling() {
  // The command carries no temperature; the set point is passed only as the call asks for one.
  const double kelvin = cooler_set_point().value_or(0.0) + kKelvinAtZeroCelsius;
  check(server_set_ccd_temp(server_, kelvin), "switching the cooler on");
  cooling_ = true;
}

CoolingReading Session::cool_down(const CoolingWait &w,
                                  const std::function<void(const CoolingReading &)> &each) {
  const std::optional<double> set_point = cooler_set_point();
  if (!set_point)
    throw Failure{
        "the hardware definition gives the chip no nominal temperature (ccdtmp1 in VOLTAGES), so "
        "the cooler has no set point to wait for"};
  if (!cooling_) start_cooling();
  CoolingWatch watch(*set_point, w.tolerance_k, w.settle_s);
  const DWORD start = time_centiseconds();
  for (;;) {
    stop_if_cancelled("while cooling");
    const double seconds = static_cast<double>(time_centiseconds() - start) / 100.0;
    watch.add(seconds, ccd_celsius());
    const CoolingReading r{seconds, watch.last(), watch.per_minute(), *set_point};
    if (each) each(r);
    if (watch.reached()) return r;
    if (seconds >= w.timeout_s) {
      char text[320];
      std::snprintf(text, sizeof text,
                    "the CCD did not reach the cooler's set point, %.1f C, within %.0f s: it is at "
                    "%.2f C and moving %+.2f K a minute (it must hold within %.1f K for %.0f s)",
                    *set_point, w.timeout_s, r.celsius, r.per_minute, w.tolerance_k, w.settle_s);
      throw Failure{text};
    }
    wait_ms(static_cast<long>(w.poll_s * 1000));
  }
}

void Session::set_gain(int pixel_rate, int sensitivity) {
  check(camera_set_gain(camera_, pixel_rate, sensitivity), "setting the gain");
  chip_.pixel_rate = pixel_rate;
  chip_.sensitivity = sensitivity;
}

void Session::set_scene(const std::string &scene) {
  if (!simulated_) throw Failure{"the camera on " + hw_ + " is not simulated: it has no scene"};
  Setup g;
  g.scene = scene;
  apply_simulator(g);
}

void Session::wait_ms(long ms) {
  // The library's delay counts centiseconds; the rest of a centisecond is not worth a wait.
  call(delay_centiseconds(static_cast<DWORD>((ms + 5) / 10)), "waiting", "while waiting");
}

std::vector<Plane> Session::planes_of(const Shot &a, HANDLE images) {
  std::vector<Plane> planes;
  const INT32 n = list_size(images);
  for (INT32 i = 1; i <= n; ++i) {
    Plane p;
    p.image = list_get_nth_object(images, i);
    if (a.regions.size() > 1) p.name = "region " + std::to_string(i);
    // Two channels stay packed until the processed modes join them into one number.
    INT32 w = 0, h = 0, depth = 0;
    check(image_size(p.image, &w, &h, &depth), "reading the image's size");
    if (depth == 32 && a.mode < 2) p.channels = 2;
    planes.push_back(p);
  }
  // Where each image starts on the chip: the readout fits regions to the binning grid, and the
  // processed modes cut the whole chip to its active area.
  if (a.regions.empty()) {
    const bool cut = a.mode >= 2;
    for (Plane &p : planes) {
      p.x0 = cut ? chip_.active[0] : 0;
      p.y0 = cut ? chip_.active[1] : 0;
    }
    return planes;
  }
  HANDLE params = sysparams_new();
  HANDLE fitted = region_new(0, 0, 1, 1, nullptr);
  bool ok = params != nullptr && fitted != nullptr;
  for (auto [id, v] : {std::pair<INT32, INT32>{SYSPARAM_XSIZE, chip_.xsize},
                       {SYSPARAM_YSIZE, chip_.ysize},
                       {SYSPARAM_XBIN, a.xbin},
                       {SYSPARAM_YBIN, a.ybin}})
    ok = ok && sysparams_append(params, sysparam_make_ival(id, v));
  for (size_t i = 0; ok && i < a.regions.size() && i < planes.size(); ++i) {
    const Region &r = a.regions[i];
    HANDLE asked = region_new(r.x, r.y, r.width, r.height, nullptr);
    INT32 x = 0, y = 0, w = 0, h = 0;
    ok = asked != nullptr && server_set_readout_region(server_, params, asked, fitted) &&
         region_get(fitted, &x, &y, &w, &h);
    region_delete(asked);
    planes[i].x0 = x;
    planes[i].y0 = y;
  }
  region_delete(fitted);
  if (params != nullptr) sysparams_delete(params);
  check(ok, "placing the regions on the chip");
  return planes;
}

Picture Session::take(const Shot &a, long preflush, const Stages &stages) {
  // A region off the chip is refused before the exposure rather than after it.
  for (size_t i = 0; i < a.regions.size(); ++i) {
    const Region &r = a.regions[i];
    region_rec rec{0, nullptr, r.x, r.y, r.width, r.height};
    check(region_valid(&rec, chip_.xsize, chip_.ysize, "CCD chip"),
          "checking region " + std::to_string(i + 1));
  }
  RegionList regions;
  if (!a.regions.empty()) {
    regions.list = list_new();
    check(regions.list != nullptr, "making the region list");
    int n = 0;
    for (const Region &r : a.regions) {
      const std::string name = "region " + std::to_string(++n);
      HANDLE region = region_new(r.x, r.y, r.width, r.height, name.c_str());
      check(region != nullptr, "making " + name);
      if (!list_append_tail(regions.list, region)) {
        region_delete(region);
        check(FALSE, "making the region list");
      }
    }
  }
  Picture picture;
  Exposure &e = picture.exposure;
  if (preflush > 0) {
    stop_if_cancelled("before flushing");
    stages.start_open("flushing");
    call(camera_flush_ccd(camera_, static_cast<INT32>(preflush)), "flushing the chip",
         "while flushing");
    stages.end();
  }
  e.seconds = static_cast<double>(a.exposure_ms) / 1000.0;
  e.dark = shutter_closed(a);
  e.type = a.type;
  e.xbin = a.xbin;
  e.ybin = a.ybin;
  e.mode = a.mode;
  e.observation = a.observation;
  if (cooling_) e.set_point = cooler_set_point();
  describe(&e);
  stop_if_cancelled("before the exposure");
  e.ccd_celsius = ccd_celsius();
  // The end is dated by the library's clock, which a virtual clock moves through the exposure.
  timespec started{};
  clock_gettime(CLOCK_REALTIME, &started);
  const DWORD started_cs = time_centiseconds();
  e.date_obs = utc_text(started);
  if (e.dark) {
    // The shutter is closed and never opened: the chip gathers only its dark current while we
    // wait.
    call(camera_close_shutter(camera_), "closing the shutter", "while closing the shutter");
    stages.start_timed("dark", e.seconds);
    wait_ms(a.exposure_ms);
  } else if (a.exposure_ms > 0) {
    stages.start_timed("exposing", e.seconds);
    call(camera_expose_ccd(camera_, static_cast<INT32>(a.exposure_ms)), "exposing",
         "while exposing");
  }
  stages.end();
  e.date_end = utc_text(started, time_centiseconds() - started_cs);
  e.ccd_celsius_end = ccd_celsius();
  stop_if_cancelled("before the readout");

  // In real time the simulated readout takes the pixel time of every pixel read.
  double readout_s = 0;
  if (realtime_ && !virtual_clock_) {
    double ms_per_pixel = 0;
    long pixels = 0;
    if (a.regions.empty()) {
      pixels = long{chip_.xsize} * chip_.ysize / (long{a.xbin} * a.ybin);
    } else {
      for (const Region &r : a.regions)
        pixels += long{r.width} * r.height / (long{a.xbin} * a.ybin);
    }
    if (camera_get_ms_per_pixel(camera_, chip_.pixel_rate, &ms_per_pixel))
      readout_s = static_cast<double>(pixels) * ms_per_pixel / 1000.0;
    error_story();
  }
  if (readout_s > 0)
    stages.start_timed("reading out", readout_s);
  else
    stages.start_open("reading out");
  // The image zero is told only when this readout measured it from the reference columns.
  INT32 before[CAMERA_OPERATION_COUNTERS] = {}, after[CAMERA_OPERATION_COUNTERS] = {};
  check(camera_get_operation_stats(camera_, before), "reading the camera's counters");
  call(camera_readout_ccd(camera_, regions.list, picture.list()), "reading out the chip",
       "while reading out");
  stages.end();
  INT32 zero = 0;
  check(camera_get_operation_stats(camera_, after) && camera_get_image_zero(camera_, &zero),
        "reading the image zero");
  if (after[CAMERA_COUNT_IMAGE_ZERO] > before[CAMERA_COUNT_IMAGE_ZERO]) e.image_zero = zero;
  picture.planes = planes_of(a, picture.list());
  return picture;
}

}  // namespace session
