// The driver: INDI's properties on the event loop, the camera on the library's thread. Each
// request that needs the camera becomes a job for the library's thread; its completion comes
// back to the event loop and answers the client there. A completion that belongs to an exposure
// since aborted finds its number stale and lets go of what it brought.
#include "tvx_ccd.h"

#include <libindi/indilogger.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "header.h"

namespace tvx_indi {

namespace {

using Clock = std::chrono::steady_clock;
using Completion = LibraryThread::Completion;

// How an exposure is timed. The controller can time one itself (camera_expose_ccd), to the
// centisecond and with its own shutter timing, but the library's thread is then held until the
// exposure ends: no temperature reading and no prompt abort until it does. A longer exposure is
// timed here: the shutter is opened, the event loop counts down while the library's thread is
// free to read the temperature, and an abort closes the shutter at once. The event loop's few
// milliseconds of lateness are nothing against a long exposure and a lot against a short flat,
// so exposures up to this long go to the controller's timer.
constexpr long kControllerTimedMs = 1000;
// The CCD temperature is read this often while the camera is up, exposing or not.
constexpr int kTemperaturePeriodMs = 2000;
// The set point counts as reached once the readings of this many seconds all lie this close.
constexpr double kReachedWithinK = 0.5, kReachedForS = 30.0;
// A requested temperature this close to the set point asks for the set point.
constexpr double kSameTemperatureK = 0.5;
constexpr double kLongestExposureS = 86400.0;

struct SceneRow {
  const char *element, *label, *name;  // name: as the SIMULATOR section spells it
};
constexpr SceneRow kScenes[] = {{"STARFIELD", "Star field", "starfield"},
                                {"COORDINATES", "Coordinates", "coordinates"},
                                {"FLAT", "Flat field", "flat"},
                                {"DARK", "Dark", "dark"}};

// In the library's order: a row's index is its operation mode.
struct ModeRow {
  const char *element, *label;
};
constexpr ModeRow kModes[] = {{"RAW", "Raw"},
                              {"IMAGE_ZERO", "Image zero measured"},
                              {"PROCESSED", "Processed (image zero subtracted)"},
                              {"PEDESTAL", "Pedestal (image zero less 256 subtracted)"}};

const std::string kCreator = std::string("indi_tvx_ccd ") + TVX_INDI_VERSION;

// Who shows the stages of an exposure: nobody, here; the countdown is the driver's own.
session::Stages quiet_stages() {
  return session::Stages{[](const char *) {}, [](const char *, double) {}, [] {}};
}

bool same(const session::Region &a, int x, int y, int width, int height) {
  return a.x == x && a.y == y && a.width == width && a.height == height;
}

CameraFacts facts_of(session::Session &s) {
  CameraFacts f;
  const session::ChipFacts &chip = s.chip();
  f.xsize = chip.xsize;
  f.ysize = chip.ysize;
  std::copy(chip.active, chip.active + 4, f.active);
  INT32 bits = 16;
  session::check(server_get_bits_per_pixel(s.server(), &bits), "reading the pixel depth");
  f.bits = bits > 16 ? 32 : 16;
  f.set_point = s.cooler_set_point();
  f.celsius = s.ccd_celsius();
  const std::vector<session::GainRow> &rows = s.definitions().gains;
  for (size_t i = 0; i < rows.size(); ++i) {
    double ms = 0, electrons = 0;
    INT32 valid = 0;
    session::check(camera_get_gain_table(s.camera(), &ms, &electrons, &valid, INT32(i + 1)),
                   "reading the gain table");
    if (!valid) break;
    char label[160];
    std::snprintf(label, sizeof label, "%s, %.3f e-/level", rows[i].comment.c_str(), electrons);
    f.gains.push_back({rows[i].pixel_rate, rows[i].sensitivity, label});
    if (rows[i].pixel_rate == chip.pixel_rate && rows[i].sensitivity == chip.sensitivity)
      f.gain_in_use = int(i);
  }
  return f;
}

}  // namespace

// The one device of this driver; INDI's main finds it through the properties it registers.
static std::unique_ptr<TvxCcd> driver(new TvxCcd());

TvxCcd::TvxCcd() {
  setVersion(0, 1);
  countdown_.setSingleShot(true);
  countdown_.callOnTimeout([this] { tick(); });
  temperature_timer_.setInterval(kTemperaturePeriodMs);
  temperature_timer_.callOnTimeout([this] { poll_temperature(); });
  library_ = std::make_unique<LibraryThread>();
}

TvxCcd::~TvxCcd() {
  release_camera();
}

void TvxCcd::release_camera() {
  if (library_ == nullptr) return;
  // The camera goes on the thread that made it, after whatever was still queued for it.
  library_->abort(exposure_job_);
  library_->post([this] {
    session_.reset();
    return Completion();
  });
  library_.reset();
}

const char *TvxCcd::getDefaultName() {
  return "tvx CCD";
}

bool TvxCcd::initProperties() {
  INDI::CCD::initProperties();
  SetCCDCapability(CCD_CAN_ABORT | CCD_CAN_BIN | CCD_CAN_SUBFRAME | CCD_HAS_SHUTTER |
                   CCD_HAS_COOLER);

  // The shipped simulated camera to begin with, found as tvxcam finds it. The property always
  // names the files in use: a client cannot send an empty text to mean "the default".
  const std::string shipped = session::shipped_data_dir();
  const auto shipped_file = [&](const char *name) {
    return shipped.empty() ? std::string() : shipped + "/" + name;
  };
  definitions_[0].fill("HARDWARE", "Hardware file", shipped_file(SERVER_DEFINITION_FILE));
  definitions_[1].fill("CCD", "CCD file", shipped_file("sim_small.def"));
  definitions_.fill(getDeviceName(), "TVX_DEFINITIONS", "Definition files", MAIN_CONTROL_TAB, IP_RW,
                    60, IPS_IDLE);
  // None on: the scene the hardware file's SIMULATOR section names.
  for (size_t i = 0; i < std::size(kScenes); ++i)
    scene_[i].fill(kScenes[i].element, kScenes[i].label, ISS_OFF);
  scene_.fill(getDeviceName(), "TVX_SCENE", "Simulator scene", MAIN_CONTROL_TAB, IP_RW, ISR_ATMOST1,
              60, IPS_IDLE);
  for (size_t i = 0; i < std::size(kModes); ++i)
    mode_switch_[i].fill(kModes[i].element, kModes[i].label, i == 0 ? ISS_ON : ISS_OFF);
  mode_switch_.fill(getDeviceName(), "TVX_OPERATION_MODE", "Operation mode", IMAGE_SETTINGS_TAB,
                    IP_RW, ISR_1OFMANY, 60, IPS_IDLE);
  gain_.fill(getDeviceName(), "TVX_GAIN", "Gain setting", IMAGE_SETTINGS_TAB, IP_RW, ISR_1OFMANY,
             60, IPS_IDLE);
  cooler_[0].fill("COOLER_ON", "On", ISS_OFF);
  cooler_[1].fill("COOLER_OFF", "Off", ISS_ON);
  cooler_.fill(getDeviceName(), "CCD_COOLER", "Cooler", MAIN_CONTROL_TAB, IP_RW, ISR_1OFMANY, 60,
               IPS_IDLE);

  TemperatureN[0].min = -150;
  TemperatureN[0].max = 50;
  PrimaryCCD.setMinMaxStep("CCD_EXPOSURE", "CCD_EXPOSURE_VALUE", 0, kLongestExposureS, 0.001,
                           false);
  addDebugControl();
  addConfigurationControl();
  return true;
}

void TvxCcd::ISGetProperties(const char *dev) {
  INDI::CCD::ISGetProperties(dev);
  if (dev != nullptr && std::strcmp(dev, getDeviceName()) != 0) return;
  // Which camera to bring up is known before connecting.
  defineProperty(definitions_);
  defineProperty(scene_);
  if (config_loaded_) return;
  config_loaded_ = true;
  loadConfig(true, definitions_.getName());
  loadConfig(true, scene_.getName());
}

bool TvxCcd::updateProperties() {
  INDI::CCD::updateProperties();
  if (isConnected()) {
    // The controller cools at its own pace: there is no ramp to set.
    deleteProperty(TemperatureRampNP.getName());
    defineProperty(cooler_);
    defineProperty(mode_switch_);
    if (gain_.size() > 0) defineProperty(gain_);
  } else {
    deleteProperty(cooler_.getName());
    deleteProperty(mode_switch_.getName());
    deleteProperty(gain_.getName());
  }
  return true;
}

bool TvxCcd::saveConfigItems(FILE *fp) {
  INDI::CCD::saveConfigItems(fp);
  definitions_.save(fp);
  scene_.save(fp);
  mode_switch_.save(fp);
  return true;
}

// ---- Requests -----------------------------------------------------------------------------

bool TvxCcd::ISNewText(const char *dev, const char *name, char *texts[], char *names[], int n) {
  if (dev != nullptr && std::strcmp(dev, getDeviceName()) == 0 && definitions_.isNameMatch(name)) {
    const std::string before[] = {definitions_[0].getText(), definitions_[1].getText()};
    definitions_.update(texts, names, n);
    definitions_.setState(IPS_OK);
    const bool changed =
        before[0] != definitions_[0].getText() || before[1] != definitions_[1].getText();
    if (link_ != Link::down && changed)
      definitions_.apply("The definition files take effect at the next connection.");
    else
      definitions_.apply();
    saveConfig(true, definitions_.getName());
    return true;
  }
  return INDI::CCD::ISNewText(dev, name, texts, names, n);
}

bool TvxCcd::ISNewSwitch(const char *dev, const char *name, ISState *states, char *names[], int n) {
  if (dev == nullptr || std::strcmp(dev, getDeviceName()) != 0)
    return INDI::CCD::ISNewSwitch(dev, name, states, names, n);
  const auto asked = [&](const char *element) {
    for (int i = 0; i < n; ++i)
      if (std::strcmp(names[i], element) == 0 && states[i] == ISS_ON) return true;
    return false;
  };
  if (std::strcmp(name, "CONNECTION") == 0) {
    // Bringing the camera up takes seconds of the controller's start-up: it happens on the
    // library's thread, and the connection shows Busy meanwhile.
    if (asked("CONNECT")) bring_up();
    if (asked("DISCONNECT")) let_go();
    return true;
  }
  if (scene_.isNameMatch(name)) {
    scene_.update(states, names, n);
    const int on = scene_.findOnSwitchIndex();
    if (link_ == Link::up && on >= 0) return choose_scene(kScenes[on].name), true;
    scene_.setState(IPS_OK);
    scene_.apply();
    saveConfig(true, scene_.getName());
    return true;
  }
  if (mode_switch_.isNameMatch(name)) {
    mode_switch_.update(states, names, n);
    mode_ = std::max(mode_switch_.findOnSwitchIndex(), 0);
    mode_switch_.setState(IPS_OK);
    mode_switch_.apply();
    return true;
  }
  if (gain_.isNameMatch(name)) {
    gain_.update(states, names, n);
    const int on = gain_.findOnSwitchIndex();
    if (on >= 0 && on != facts_.gain_in_use) return choose_gain(on), true;
    gain_.setState(IPS_OK);
    gain_.apply();
    return true;
  }
  if (cooler_.isNameMatch(name)) {
    if (asked("COOLER_ON")) {
      begin_cooling();
    } else if (cooler_[0].getState() == ISS_ON) {
      cooler_.setState(IPS_ALERT);
      cooler_.apply(
          "This controller has no command to switch its cooler off: it keeps cooling the chip "
          "to its set point until the controller is powered down.");
    }
    return true;
  }
  return INDI::CCD::ISNewSwitch(dev, name, states, names, n);
}

std::string TvxCcd::attempt(const std::function<void()> &work) {
  try {
    work();
    return {};
  } catch (const session::LibraryError &e) {
    std::string story = session::error_story();
    if (story.empty()) story = "the library gave no reason.";
    return "Failed while " + e.what + ":\n" + story;
  } catch (const session::Failure &f) {
    session::error_story();
    return f.text;
  } catch (const std::exception &e) {
    session::error_story();
    return e.what();
  }
}

session::Session &TvxCcd::camera() {
  if (session_ == nullptr) throw session::Failure{"the camera is not connected"};
  return *session_;
}

void TvxCcd::tell(const std::string &story) {
  std::istringstream lines(story);
  for (std::string line; std::getline(lines, line);)
    if (!line.empty()) LOGF_ERROR("%s", line.c_str());
}

// ---- Connecting ---------------------------------------------------------------------------

void TvxCcd::bring_up() {
  if (link_ == Link::up) return setConnected(true, IPS_OK);
  if (link_ != Link::down) return;  // the answer comes when the change under way is done
  link_ = Link::coming_up;
  setConnected(false, IPS_BUSY, "Bringing the camera up...");
  session::Setup setup;
  setup.hw = definitions_[0].getText();
  setup.ccd = definitions_[1].getText();
  if (const int on = scene_.findOnSwitchIndex(); on >= 0) setup.scene = kScenes[on].name;
  library_->post([this, setup] {
    auto facts = std::make_shared<CameraFacts>();
    const std::string story = attempt([&] {
      session_ = std::make_unique<session::Session>(setup);
      *facts = facts_of(*session_);
    });
    if (!story.empty()) session_.reset();
    return Completion([this, story, facts] { came_up(story, *facts); });
  });
}

void TvxCcd::came_up(const std::string &story, const CameraFacts &facts) {
  if (!story.empty()) {
    link_ = Link::down;
    tell(story);
    setConnected(false, IPS_ALERT);
    return;
  }
  link_ = Link::up;
  facts_ = facts;
  // The driver ends by exit() when indiserver goes. The library's statics made while the camera
  // came up are destroyed at exit in the reverse order of their making: a handler registered
  // after them lets the camera go while they still stand.
  static const bool released_at_exit = std::atexit([] { driver->release_camera(); }) == 0;
  if (!released_at_exit) LOG_WARN("The camera will not be let go when the driver ends.");
  SetCCDParams(facts.xsize, facts.ysize, facts.bits, 0, 0);
  requested_ = {0, 0, facts.xsize, facts.ysize};
  TemperatureN[0].value = facts.celsius;
  TemperatureNP.s = IPS_IDLE;
  gain_.resize(facts.gains.size());
  for (size_t i = 0; i < facts.gains.size(); ++i)
    gain_[i].fill("GAIN_" + std::to_string(i + 1), facts.gains[i].label,
                  int(i) == facts.gain_in_use ? ISS_ON : ISS_OFF);
  gain_.setState(IPS_IDLE);
  cooler_[0].setState(ISS_OFF);
  cooler_[1].setState(ISS_ON);
  cooler_.setState(IPS_IDLE);
  setConnected(true, IPS_OK);
  updateProperties();
  temperature_timer_.start();
  LOGF_INFO("The camera is up: %d x %d pixels, %d bits, CCD at %.1f C.", facts.xsize, facts.ysize,
            facts.bits, facts.celsius);
}

void TvxCcd::let_go() {
  if (link_ == Link::down) return setConnected(false, IPS_IDLE);
  if (link_ != Link::up) return;
  if (phase_ != Phase::idle) {
    AbortExposure();
    PrimaryCCD.setExposureFailed();
  }
  link_ = Link::going_down;
  temperature_timer_.stop();
  setConnected(true, IPS_BUSY, "Letting the camera go...");
  library_->post([this] {
    session_.reset();
    return Completion([this] {
      link_ = Link::down;
      watch_.reset();
      setConnected(false, IPS_IDLE);
      updateProperties();
    });
  });
}

// ---- Exposures ----------------------------------------------------------------------------

bool TvxCcd::whole_chip(const session::Region &r) const {
  // The processed modes cut a whole-chip readout to its active area, which then shows as the
  // frame: asking for that frame again asks for the whole chip, whose reference columns give
  // the image zero.
  const int *a = facts_.active;
  return same(r, 0, 0, facts_.xsize, facts_.ysize) ||
         (mode_ >= 2 && same(r, a[0], a[1], a[2], a[3]));
}

session::Shot TvxCcd::shot_of(double seconds) const {
  session::Shot a;
  a.xbin = PrimaryCCD.getBinX();
  a.ybin = PrimaryCCD.getBinY();
  a.mode = mode_;
  const INDI::CCDChip::CCD_FRAME type = PrimaryCCD.getFrameType();
  // Bias and dark frames keep the shutter closed; a bias frame is read straight after the flush.
  a.dark = type == INDI::CCDChip::BIAS_FRAME || type == INDI::CCDChip::DARK_FRAME;
  a.exposure_ms = type == INDI::CCDChip::BIAS_FRAME ? 0 : std::lround(seconds * 1000.0);
  if (!whole_chip(requested_)) a.regions.push_back(requested_);
  return a;
}

bool TvxCcd::StartExposure(float duration) {
  if (link_ != Link::up || phase_ != Phase::idle) {
    LOG_ERROR(link_ != Link::up ? "The camera is not connected."
                                : "An exposure is already under way.");
    return false;
  }
  seconds_ = duration;
  shot_ = shot_of(duration);
  frame_type_ = PrimaryCCD.getFrameType();
  PrimaryCCD.setExposureDuration(duration);
  const uint64_t number = ++exposure_number_;
  if (shot_.exposure_ms <= kControllerTimedMs) {
    phase_ = Phase::reading;
    exposure_job_ = library_->post([this, number, shot = shot_] {
      auto frame = std::make_shared<Frame>();
      const std::string story = attempt([&] {
        session::Session &s = camera();
        s.configure(shot);
        // One flush first: the chip has gathered dark charge since the last picture.
        *frame = frame_of(s.take(shot, 1, quiet_stages()), kCreator);
      });
      return Completion([this, number, story, frame] { readout_done(number, story, frame); });
    });
    return true;
  }
  phase_ = Phase::starting;
  exposure_job_ = library_->post([this, number, shot = shot_] {
    auto opened = std::make_shared<session::Exposure>();
    Clock::time_point at;
    const std::string story = attempt([&] {
      session::Session &s = camera();
      s.configure(shot);
      session::check(camera_flush_ccd(s.camera(), 1), "flushing the chip");
      opened->ccd_celsius = s.ccd_celsius();
      if (shot.dark)
        session::check(camera_close_shutter(s.camera()), "closing the shutter");
      else
        session::check(camera_open_shutter(s.camera()), "opening the shutter");
      opened->date_obs = session::utc_now();
      at = Clock::now();
    });
    return Completion([this, number, story, opened, at] {
      if (number != exposure_number_) return;
      if (!story.empty()) return exposure_failed(story);
      opened_ = *opened;
      deadline_ = at + std::chrono::milliseconds(shot_.exposure_ms);
      phase_ = Phase::counting;
      tick();
    });
  });
  return true;
}

void TvxCcd::tick() {
  if (phase_ != Phase::counting) return;
  const double left = std::chrono::duration<double>(deadline_ - Clock::now()).count();
  if (left <= 0) return finish_exposure();
  PrimaryCCD.setExposureLeft(left);
  countdown_.start(int(std::ceil(std::min(left, 1.0) * 1000.0)));
}

void TvxCcd::finish_exposure() {
  phase_ = Phase::reading;
  PrimaryCCD.setExposureLeft(0);
  const uint64_t number = exposure_number_;
  exposure_job_ = library_->post([this, number, shot = shot_, opened = opened_, s = seconds_] {
    auto frame = std::make_shared<Frame>();
    const std::string story = attempt([&] {
      session::Session &cam = camera();
      if (!shot.dark) session::check(camera_close_shutter(cam.camera()), "closing the shutter");
      // The exposure is over: read out at once, then describe the picture as it was taken.
      session::Shot now = shot;
      now.exposure_ms = 0;
      now.dark = false;
      session::Picture picture = cam.take(now, 0, quiet_stages());
      session::Exposure &e = picture.exposure;
      e.seconds = s;
      e.dark = shot.dark;
      e.date_obs = opened.date_obs;
      e.ccd_celsius = opened.ccd_celsius;
      *frame = frame_of(picture, kCreator);
    });
    return Completion([this, number, story, frame] { readout_done(number, story, frame); });
  });
}

void TvxCcd::readout_done(uint64_t number, const std::string &story,
                          const std::shared_ptr<Frame> &frame) {
  if (number != exposure_number_) return;
  if (!story.empty()) return exposure_failed(story);
  phase_ = Phase::idle;
  Frame &f = *frame;
  // The frame the controller read: fitted to the binning grid, or cut to the active area.
  const int width = f.width * shot_.xbin, height = f.height * shot_.ybin;
  if (PrimaryCCD.getSubX() != f.x || PrimaryCCD.getSubY() != f.y || PrimaryCCD.getSubW() != width ||
      PrimaryCCD.getSubH() != height)
    PrimaryCCD.setFrame(f.x, f.y, width, height);
  PrimaryCCD.setBPP(f.bits);
  {
    std::lock_guard<std::mutex> guard(ccdBufferLock);
    PrimaryCCD.setFrameBufferSize(uint32_t(f.pixels.size()));
    std::memcpy(PrimaryCCD.getFrameBuffer(), f.pixels.data(), f.pixels.size());
  }
  cards_ = std::move(f.cards);
  // To tvxcam a flat is a light frame; the file keeps the type INDI gives it.
  if (frame_type_ == INDI::CCDChip::FLAT_FRAME)
    std::erase_if(cards_, [](const session::Card &c) { return c.key == "IMAGETYP"; });
  shifted_ = f.shifted;
  PrimaryCCD.setExposureLeft(0);
  ExposureComplete(&PrimaryCCD);
}

void TvxCcd::exposure_failed(const std::string &story) {
  phase_ = Phase::idle;
  countdown_.stop();
  tell(story);
  PrimaryCCD.setExposureFailed();
  close_shutter();
}

bool TvxCcd::AbortExposure() {
  if (phase_ == Phase::idle) return true;
  // Whatever the exposure's jobs still bring back is stale from here on.
  ++exposure_number_;
  library_->abort(exposure_job_);
  countdown_.stop();
  phase_ = Phase::idle;
  close_shutter();
  LOG_INFO("Exposure aborted.");
  return true;
}

void TvxCcd::close_shutter() {
  // Queued behind the exposure's own job, so it runs once that is done with the camera.
  library_->post([this] {
    const std::string story = attempt(
        [&] { session::check(camera_close_shutter(camera().camera()), "closing the shutter"); });
    return story.empty() ? Completion() : Completion([this, story] { tell(story); });
  });
}

bool TvxCcd::UpdateCCDFrame(int x, int y, int w, int h) {
  if (phase_ != Phase::idle) {
    LOG_ERROR("The frame cannot change during an exposure.");
    return false;
  }
  // A frame smaller than the chip is read as one region, fitted to the binning grid by the
  // library; the frame then shows what was read.
  requested_ = {x, y, w, h};
  PrimaryCCD.setFrame(x, y, w, h);
  return true;
}

bool TvxCcd::UpdateCCDBin(int hor, int ver) {
  if (phase_ != Phase::idle) {
    LOG_ERROR("The binning cannot change during an exposure.");
    return false;
  }
  PrimaryCCD.setBin(uint8_t(hor), uint8_t(ver));
  return true;
}

void TvxCcd::addFITSKeywords(INDI::CCDChip *chip) {
  INDI::CCD::addFITSKeywords(chip);
  fitsfile *f = *chip->fitsFilePointer();
  int status = 0;
  // The camera's cards replace the INDI library's where both write one: rows go out in the
  // library's raster order, as tvxcam writes them, and ROWORDER says so.
  try {
    session::write_cards(f, cards_, "the frame's FITS file");
  } catch (const session::Failure &e) {
    tell(e.text);
  }
  if (shifted_) {
    // The pixels are signed and the buffer holds them shifted by half the range (see Frame).
    // The file says BZERO 0, so that they read back as they were; cfitsio keeps subtracting the
    // half range as INDI writes them, once it has read the header as it now stands.
    const int bits = chip->getBPP();
    const double half = std::ldexp(1.0, bits - 1);
    long zero = 0;
    fits_update_key(f, TLONG, "BZERO", &zero, "the pixels are signed", &status);
    fits_set_hdustruc(f, &status);
    fits_set_bscale(f, 1.0, half, &status);
    if (status != 0)
      tell("cannot mark the frame's pixels as signed: cfitsio status " + std::to_string(status));
  }
}

// ---- Temperature and cooling --------------------------------------------------------------

void TvxCcd::poll_temperature() {
  if (link_ != Link::up || temperature_pending_) return;
  temperature_pending_ = true;
  library_->post([this] {
    double celsius = 0;
    const std::string story = attempt([&] { celsius = camera().ccd_celsius(); });
    return Completion([this, celsius, story] {
      temperature_pending_ = false;
      if (link_ != Link::up) return;
      if (!story.empty()) {
        // Told once, when the readings stop; the next good one clears the Alert.
        if (TemperatureNP.s != IPS_ALERT) tell(story);
        TemperatureNP.s = IPS_ALERT;
        IDSetNumber(&TemperatureNP, nullptr);
        return;
      }
      if (TemperatureNP.s == IPS_ALERT) TemperatureNP.s = watch_ ? IPS_BUSY : IPS_IDLE;
      TemperatureN[0].value = celsius;
      if (watch_)
        watch_->add(std::chrono::duration<double>(Clock::now() - watch_start_).count(), celsius);
      IDSetNumber(&TemperatureNP, nullptr);
      checkTemperatureTarget();
    });
  });
}

int TvxCcd::SetTemperature(double temperature) {
  // This controller's cooler command carries no temperature: the controller cools the chip to
  // its own set point, the chip's nominal temperature in the hardware definition (ccdtmp1). That
  // set point is the one temperature it can hold: asking for it switches the cooler on, and any
  // other is refused rather than pretended.
  if (!facts_.set_point) {
    LOG_ERROR(
        "The hardware definition gives the chip no nominal temperature (ccdtmp1): this driver "
        "knows no set point to hold. Switch the cooler on to cool to the controller's own.");
    return -1;
  }
  const double set_point = *facts_.set_point;
  if (std::fabs(temperature - set_point) > kSameTemperatureK) {
    LOGF_ERROR(
        "This controller cools the chip to its own set point, %.1f C, and cannot hold %.1f C: "
        "ask for %.1f C, or switch the cooler on.",
        set_point, temperature, set_point);
    return -1;
  }
  begin_cooling();
  return 0;
}

void TvxCcd::begin_cooling() {
  cooler_.setState(IPS_BUSY);
  cooler_.apply();
  library_->post([this] {
    const std::string story = attempt([&] { camera().start_cooling(); });
    return Completion([this, story] {
      if (link_ != Link::up) return;
      if (!story.empty()) {
        tell(story);
        cooler_.setState(IPS_ALERT);
        cooler_.apply();
        TemperatureNP.s = IPS_ALERT;
        IDSetNumber(&TemperatureNP, nullptr);
        return;
      }
      cooler_[0].setState(ISS_ON);
      cooler_[1].setState(ISS_OFF);
      cooler_.setState(IPS_OK);
      cooler_.apply();
      if (!facts_.set_point) return;
      // The chip is on its way to the set point, and reaches it only when the readings say so.
      if (!watch_) {
        watch_.emplace(*facts_.set_point, kReachedWithinK, kReachedForS);
        watch_start_ = Clock::now();
      }
      m_TargetTemperature = *facts_.set_point;
      TemperatureNP.s = watch_->reached() ? IPS_OK : IPS_BUSY;
      IDSetNumber(&TemperatureNP, nullptr);
    });
  });
}

void TvxCcd::checkTemperatureTarget() {
  // One reading near the set point is not enough: the readings of a while must all be near it.
  if (TemperatureNP.s != IPS_BUSY || !watch_ || !watch_->reached()) return;
  TemperatureNP.s = IPS_OK;
  IDSetNumber(&TemperatureNP, nullptr);
  LOGF_INFO("The CCD has held %.1f C for %.0f s.", watch_->set_point(), kReachedForS);
}

// ---- Gain and scene -----------------------------------------------------------------------

void TvxCcd::choose_gain(int index) {
  gain_.setState(IPS_BUSY);
  gain_.apply();
  const CameraFacts::Gain g = facts_.gains[size_t(index)];
  library_->post([this, g, index] {
    const std::string story = attempt([&] { camera().set_gain(g.pixel_rate, g.sensitivity); });
    return Completion([this, story, index] {
      if (link_ != Link::up) return;
      if (story.empty()) facts_.gain_in_use = index;
      for (size_t i = 0; i < gain_.size(); ++i)
        gain_[i].setState(int(i) == facts_.gain_in_use ? ISS_ON : ISS_OFF);
      tell(story);
      gain_.setState(story.empty() ? IPS_OK : IPS_ALERT);
      gain_.apply();
    });
  });
}

void TvxCcd::choose_scene(const std::string &scene) {
  scene_.setState(IPS_BUSY);
  scene_.apply();
  library_->post([this, scene] {
    const std::string story = attempt([&] { camera().set_scene(scene); });
    return Completion([this, story] {
      tell(story);
      scene_.setState(story.empty() ? IPS_OK : IPS_ALERT);
      scene_.apply();
      if (story.empty()) saveConfig(true, scene_.getName());
    });
  });
}

}  // namespace tvx_indi
