// The camera server the controller's transputer runs once booted. It reads packets off the link
// (a word count, then destination, source, control and parameters, every word as two bytes, low
// byte first), acts on each control code, keeps what the commands set, and answers: control 100
// when a command is done, 101 (a character) and 102 (a stage number) while a long one runs.
//
// Right after the boot only the probe (1), the link speed (43) and installation (46) are
// understood; the camera's commands exist once the "camera" program has been installed.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "sim/ccd.h"
#include "sim/controller.h"
#include "tvx/types.h"

namespace tvx::sim {

// What the commands have set in the controller, in the units they travel in.
struct CameraState {
  std::array<int16_t, 24> voltages{};  // hundredths of a volt, by DAC channel
  std::array<bool, 24> voltage_set{};  // the channel was driven since power-up
  std::vector<int16_t> configured_voltages;
  std::vector<int16_t> registers;
  std::vector<int16_t> parallel_timing;
  std::vector<uint32_t> read_sequence;
  int16_t vss_readout = 0, vss_flush = 0;
  int pgain_code = 0, time_constant_code = 0, integration_tenths = 0;
  int adc_polarity = 0, adc_auxiliary = 0, adc_mode = 0;
  int parallel_mode = 0, serial_mode = 0, acdc = 0;
  int blacklevel = 0;
  struct {
    int id = 0, x = 0, y = 0, width = 0, height = 0;
  } region;
  int ccd_width = 0, ccd_height = 0, xbin = 1, ybin = 1;
  bool shutter_open = false;
  bool exposing = false;  // an exposure is under way: the shutter is open until it ends
  int16_t userport = 0;
  std::array<int16_t, 40> iospace{};
  bool concurrent = false;
  bool dummy_detector = false;
  bool break_ground = false, rstclk_feed_through = false;
  std::array<int16_t, 4> shutter_widths{};
  int16_t reverse_clocks[2] = {};
  int parallel_transfers = 0, parallel_multiplier = 0, n_parallel_transfers = 0;
  int16_t shuffle[2] = {};
  long shuffle_ms = 0;
  long frames = 0;
  int frame_delay = 0;
  bool initialised = false, droop_set = false, offset_set = false, noise_trimmed = false;
  bool temperature_set = false, adc_calibrated = false;
  long flushes = 0, exposures = 0, last_exposure_ms = 0, readouts = 0;
  long frames_sent = 0;  // frames whose whole stream has been handed to the link
  bool stopped = false;  // a stop ended the last read
};

class CameraServer : public ControllerProgram {
 public:
  CameraServer();
  void receive(WORD item) override;
  bool next_output(WORD &item) override;
  size_t next_outputs(WORD *items, size_t most) override;
  int take_speed_change() override;

  const CameraState &state() const { return state_; }
  // Names of the programs installed, in order.
  const std::vector<std::string> &installed() const { return installed_; }
  // Requests it could not make sense of, in words: a well-behaved host leaves this empty.
  const std::vector<std::string> &complaints() const { return complaints_; }
  // Control codes of the packets taken, in order.
  const std::vector<int> &controls() const { return controls_; }
  // Lines the recorder holds until it is emptied.
  const std::string &recorder() const { return recorder_; }
  bool dead() const { return dead_; }

 private:
  struct Packet {
    int16_t destination, source, control;
    std::vector<int16_t> params;
  };
  void take_word(uint16_t word);
  void act(const Packet &p);
  void install(const Packet &p);
  void finish_installation();
  void complain(const char *format, ...) __attribute__((format(printf, 2, 3)));
  void send(const Packet &request, int16_t control, const std::vector<int16_t> &params,
            bool final_reply = true);
  void progress(const Packet &request, int stages, bool may_stall);
  void repeat_stage();
  // Drives one DAC channel to a level in hundredths of a volt.
  void drive(size_t channel, int16_t hundredths);
  // What the controller's converter reads on a channel, in hundredths.
  int16_t read_channel(int channel) const;
  // The exposure under way, ended: its completion answered, or (stopped) never.
  void end_exposure(bool answer);
  // The chip's temperature at a moment: ambient until the cooler is set, then closing on its
  // target.
  double chip_kelvin(DWORD now) const;
  // Adds the light that came through a shutter opened by command, up to `now`.
  void gather_light(DWORD now);

  // The readout: frames streamed one after another, then the completion.
  void start_stream(const Packet &request, bool sequence);
  void begin_frame();
  bool stream_next(WORD &item);
  struct Run {
    int x, y, count;
  };
  std::vector<Run> frame_runs();
  // The next `n` pixels of the frame's runs.
  void read_runs(uint32_t *out, size_t n);
  int data_mode() const;

  CameraState state_;
  Ccd ccd_;
  bool streaming_ = false;
  bool sequence_ = false;
  Packet stream_request_{};
  long frames_left_ = 0;
  DWORD frame_at_ = 0;       // when the next frame's stream starts
  DWORD frame_started_ = 0;  // when the current one started
  double words_per_cs_ = 0;  // the pixel rate in real time; 0: at once
  // The frame being sent: its runs and how far they are read, and the words of the pixel block
  // on its way, which begin `frame_base_` words into the frame.
  std::vector<Run> runs_;
  size_t run_ = 0, run_done_ = 0;
  FrameEncoder encoder_;
  std::vector<uint16_t> words_;
  std::vector<size_t> block_ends_;
  size_t frame_base_ = 0;
  size_t sent_ = 0, released_ = 0, next_block_ = 0;
  bool frame_open_ = false;
  DWORD charge_since_ = 0;  // the last flush or read
  double light_seconds_ = 0;
  DWORD shutter_opened_ = 0;     // light gathered through the open shutter up to here
  double cooler_from_ = 293.15;  // kelvin when the cooler was last set
  DWORD cooler_since_ = 0;
  std::vector<std::string> installed_;
  std::vector<std::string> complaints_;
  std::vector<int> controls_;
  std::string recorder_;
  size_t played_ = 0;  // how much of the recorder a playback has sent so far

  // Assembly of the incoming bytes into words and words into a packet.
  int low_byte_ = -1;
  int expected_ = -1;
  std::vector<int16_t> packet_words_;

  // Installation: opened and closed by an empty packet of control 46.
  bool installing_ = false;
  std::vector<uint8_t> image_;
  bool camera_ready_ = false;
  bool dead_ = false;  // an installed program was corrupt: the server answers nothing more

  // A long operation that never completes, and when it last reported its stage.
  struct Stuck {
    bool on = false;
    Packet request{};
    int16_t stage = 0;
    DWORD last = 0;
  } stuck_;

  std::deque<WORD> out_;   // bytes ready for the link
  std::deque<WORD> held_;  // replies held back behind an exposure's completion
  Packet exposure_{};      // the exposure under way, answered when it ends
  DWORD ready_at_ = 0;     // when it ends; 0 when none is under way
  int speed_change_ = 0;
};

// The camera server behind the simulated card at `base`, or nullptr when that controller runs
// something else (or nothing).
CameraServer *camera_server_at(WORD base);
std::unique_ptr<ControllerProgram> make_camera_server();
// Clears the faults set through the test controls.
void reset_camera_faults();

}  // namespace tvx::sim
