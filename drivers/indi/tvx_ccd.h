// indi_tvx_ccd: the camera kept up for as long as a client keeps the device connected, so the
// cooler, the gain and the settings hold between exposures, served by indiserver to any INDI
// client. The device is "tvx CCD".
#pragma once

#include <libindi/indiccd.h>
#include <libindi/indipropertyswitch.h>
#include <libindi/indipropertytext.h>
#include <libindi/inditimer.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cooling.h"
#include "frame.h"
#include "library_thread.h"
#include "session.h"

namespace tvx_indi {

// What the camera told when it came up, kept on the event loop's side.
struct CameraFacts {
  int xsize = 0, ysize = 0, bits = 16;
  int active[4] = {};
  std::optional<double> set_point;  // degrees Celsius
  double celsius = 0;
  struct Gain {
    int pixel_rate = 0, sensitivity = 0;
    std::string label;
  };
  std::vector<Gain> gains;
  int gain_in_use = -1;
};

class TvxCcd : public INDI::CCD {
 public:
  TvxCcd();
  ~TvxCcd() override;

  void ISGetProperties(const char *dev) override;
  bool ISNewSwitch(const char *dev, const char *name, ISState *states, char *names[],
                   int n) override;
  bool ISNewText(const char *dev, const char *name, char *texts[], char *names[], int n) override;
  // Stops the library's thread, letting the camera go first. Called once the event loop is over.
  void release_camera();

 protected:
  const char *getDefaultName() override;
  bool initProperties() override;
  bool updateProperties() override;
  bool saveConfigItems(FILE *fp) override;

  bool StartExposure(float duration) override;
  bool AbortExposure() override;
  bool UpdateCCDFrame(int x, int y, int w, int h) override;
  bool UpdateCCDBin(int hor, int ver) override;
  int SetTemperature(double temperature) override;
  void checkTemperatureTarget() override;
  void addFITSKeywords(INDI::CCDChip *chip) override;

 private:
  enum class Link { down, coming_up, up, going_down };
  enum class Phase { idle, starting, counting, reading };

  // ---- event loop ----
  void bring_up();
  void came_up(const std::string &story, const CameraFacts &facts);
  void let_go();
  void poll_temperature();
  void begin_cooling();
  void choose_gain(int index);
  void choose_scene(const std::string &scene);
  void tick();
  void finish_exposure();
  void readout_done(uint64_t number, const std::string &story, const std::shared_ptr<Frame> &frame);
  void exposure_failed(const std::string &story);
  void close_shutter();
  // A failure's story as the driver's messages, a line each.
  void tell(const std::string &story);
  session::Shot shot_of(double seconds) const;
  bool whole_chip(const session::Region &r) const;

  // ---- library thread ----
  // Runs `work`, turning what it throws into a failure's story ("" when all went well).
  static std::string attempt(const std::function<void()> &work);
  // The camera, or a failure when it is not up.
  session::Session &camera();

  // Only the library's thread touches the session.
  std::unique_ptr<session::Session> session_;

  Link link_ = Link::down;
  bool config_loaded_ = false;
  CameraFacts facts_;
  session::Region requested_;  // the frame last asked for, unbinned
  int mode_ = 0;

  Phase phase_ = Phase::idle;
  uint64_t exposure_job_ = 0;
  uint64_t exposure_number_ = 0;  // a completion for an earlier number is stale
  session::Shot shot_;
  INDI::CCDChip::CCD_FRAME frame_type_ = INDI::CCDChip::LIGHT_FRAME;
  double seconds_ = 0;
  session::Exposure opened_;  // what was known when a timed exposure began
  std::chrono::steady_clock::time_point deadline_;
  std::vector<session::Card> cards_;  // for the file INDI writes next
  bool shifted_ = false;

  bool temperature_pending_ = false;
  std::optional<session::CoolingWatch> watch_;
  std::chrono::steady_clock::time_point watch_start_;

  INDI::PropertyText definitions_{2};
  INDI::PropertySwitch scene_{4};
  INDI::PropertySwitch mode_switch_{4};
  INDI::PropertySwitch gain_{0};
  INDI::PropertySwitch cooler_{2};
  INDI::Timer countdown_, temperature_timer_;

  // Last, so that it stops (and lets the camera go) before anything above is destroyed.
  std::unique_ptr<LibraryThread> library_;
};

}  // namespace tvx_indi
