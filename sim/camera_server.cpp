#include "sim/camera_server.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "foundation/fail.h"
#include "sim/card.h"
#include "sim/slot.h"
#include "sim/ucode.h"
#include "tvx/report.h"
#include "tvx/testing.h"

namespace tvx::sim {

// A spoilt readout stream, as the test controls ask for.
StreamFault stream_fault;
bool no_completion = false;

namespace {

// Read-only supply and sensor channels, in hundredths of a volt (of a kelvin for temperatures),
// as a healthy head reads them.
struct Reading {
  int channel;
  int16_t value;
};
constexpr Reading kReadOnly[] = {
    {24, 0},    {25, -1500}, {26, -500}, {27, 500}, {28, 500}, {29, 1500},
    {30, 2000}, {31, 200},   {32, 427},  {33, 640}, {34, 0},   {37, 30315},
    {38, 0},    {39, 500},   {40, 500},  {41, 500}, {42, 500},
};

constexpr double kAmbient = 293.15;  // kelvin
constexpr double kCoolerTarget = 173.15;
constexpr double kCoolerTau = 4000.0;  // centiseconds to close two thirds of the gap
// The heat sink on the cooler's hot side: the electronics keep it a little above ambient, and
// it warms by a share of the heat pumped off the chip.
constexpr double kSinkAboveAmbient = 2.0;
constexpr double kSinkShareOfPumpedHeat = 0.05;
constexpr int kThermistorChannel = 15, kChipSensorChannel = 35, kSinkSensorChannel = 36;

// The head's wiring of the desired-voltage packet: the DAC channel each of its 17 values drives,
// in packet order. The two substrate levels share channel 2 and the two image-clock lows channel
// 8, so those channels hold whichever value of the pair came last.
constexpr int kDesiredChannel[] = {0, 5, 1, 3, 4, 6, 2, 2, 7, 11, 12, 13, 14, 8, 9, 8, 10};

// A small wander of a few hundredths, the same for the same moment: noise a test can repeat.
int wander(DWORD now, int channel) {
  uint32_t x = now / 50 * 2654435761u ^ static_cast<uint32_t>(channel) * 40503u;
  x ^= x >> 15;
  return static_cast<int>(x % 5) - 2;
}

constexpr int16_t kOwnAddress = 1;
constexpr int kLongestPacket = 200;
constexpr size_t kPlaybackChunk = 197;
constexpr int16_t kDone = 100, kCharacter = 101, kStage = 102;
constexpr int32_t kRepeatEvery = 50;  // centiseconds between the reports of a stuck operation

// The controller's side of the command set: how many parameters each control code carries,
// how many its completion carries (-1: none is sent), whether it needs the camera program, and
// the name the recorder writes.
struct Control {
  int16_t code;
  int min_params, max_params;
  int reply_params;
  bool needs_camera;
  const char *name;
};

// clang-format off
constexpr Control kControls[] = {
  {1, 0, 0, 0, false, "probe"},          {2, 1, 1, 0, true, "hwinit"},
  {3, 1, 1, 1, true, "read adc"},        {4, 1, 1, 1, true, "get voltage"},
  {5, 2, 2, 0, true, "set voltage"},     {6, 0, 0, 0, true, "droop"},
  {7, 0, 0, 0, true, "offset"},          {8, 1, 1, 0, true, "blacklevel"},
  {9, 0, 0, 0, true, "noise trim"},      {10, 2, 2, 0, true, "vss"},
  {11, 1, 1, 0, true, "pgain"},          {12, 1, 1, 0, true, "time constant"},
  {13, 1, 1, 0, true, "integration"},    {14, 0, 0, 0, true, "adc calibrate"},
  {15, 1, 1, 0, true, "adc polarity"},   {16, 1, 1, 0, true, "adc auxiliary"},
  {17, 5, 5, 0, true, "region"},         {18, 0, 0, 0, true, "start read"},
  {19, 0, 0, 0, true, "record row"},     {20, 0, 0, 0, true, "flush"},
  {21, 2, 2, 0, true, "ccd size"},       {22, 2, 2, 0, true, "binning"},
  {23, 2, 2, 0, true, "expose"},         {24, 0, 0, 0, true, "close shutter"},
  {25, 0, 0, 0, true, "open shutter"},   {26, 0, 0, 0, true, "empty recorder"},
  {29, 1, 1, 0, true, "dummy load"},     {30, 1, 1, 0, true, "break ground"},
  {31, 1, 1, 0, true, "rstclk feed"},    {32, 1, 1, 0, true, "write userport"},
  {33, 0, 0, 1, true, "read userport"},  {34, 2, 2, 0, true, "write iospace"},
  {35, 1, 1, 1, true, "read iospace"},   {36, 0, 0, 0, true, "playback"},
  {38, 0, 197, 0, true, "registers"},    {39, 0, 197, 0, true, "voltages"},
  {40, 1, 1, 0, true, "adc mode"},       {41, 1, 1, 0, true, "parallel mode"},
  {42, 1, 1, 0, true, "serial mode"},    {43, 1, 1, -1, false, "link speed"},
  {44, 1, 1, 0, true, "acdc coupling"},  {45, 0, 0, 0, true, "ccd temperature"},
  {46, 0, 197, -1, false, "install"},    {47, 0, 197, 0, true, "parallel timing"},
  {48, 0, 0, 0, true, "read fifo"},      {49, 1, 1, 0, true, "concurrent"},
  {50, 0, 0, 3, true, "adc constants"},  {51, 0, 196, 0, true, "read sequence"},
  {52, 0, 0, 0, true, "start sequence"}, {53, 4, 4, 0, true, "shutter widths"},
  {54, 0, 0, 16, true, "state vector"},  {55, 2, 2, 0, true, "reverse clocks"},
  {56, 0, 0, -1, true, "test1"},         {57, 0, 0, -1, true, "test2"},
  {58, 3, 3, 0, true, "ccd read"},       {59, 1, 1, 0, true, "parallel transfers"},
  {60, 1, 1, 0, true, "parallel multiplier"}, {61, 1, 1, 0, true, "n parallel transfers"},
  {62, 0, 0, -1, true, "stop"},          {63, 4, 4, 0, true, "shuffle"},
};
// clang-format on

const Control *control_of(int16_t code) {
  for (const Control &c : kControls)
    if (c.code == code) return &c;
  return nullptr;
}

struct Fault {
  INT32 kind = TVX_CTL_FAULT_NONE;
  INT32 control = 0;  // the request whose reply is spoilt; 0: every request
};
Fault fault;

bool fault_hits(INT32 kind, int16_t control) {
  return fault.kind == kind && (fault.control == 0 || fault.control == control);
}

long joined(int16_t low, int16_t high) {
  return static_cast<long>(static_cast<uint16_t>(low) | static_cast<uint32_t>(high) << 16);
}

}  // namespace

CameraServer::CameraServer() = default;

void CameraServer::complain(const char *format, ...) {
  char text[160];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  complaints_.emplace_back(text);
}

void CameraServer::receive(WORD item) {
  if (dead_) return;
  const int byte = item & 0xFF;
  if (low_byte_ < 0) {
    low_byte_ = byte;
    return;
  }
  const auto word = static_cast<uint16_t>(low_byte_ | byte << 8);
  low_byte_ = -1;
  take_word(word);
}

void CameraServer::take_word(uint16_t word) {
  if (expected_ < 0) {
    const auto count = static_cast<int16_t>(word);
    if (count < 3 || count > kLongestPacket) {
      complain("packet size %d", int{count});
      return;
    }
    expected_ = count;
    packet_words_.clear();
    return;
  }
  packet_words_.push_back(static_cast<int16_t>(word));
  if (static_cast<int>(packet_words_.size()) < expected_) return;
  expected_ = -1;
  Packet p{packet_words_[0],
           packet_words_[1],
           packet_words_[2],
           {packet_words_.begin() + 3, packet_words_.end()}};
  act(p);
}

void CameraServer::send(const Packet &request, int16_t control, const std::vector<int16_t> &params,
                        bool final_reply) {
  int16_t destination = request.source;
  std::vector<int16_t> carried = params;
  if (final_reply) {
    if (fault_hits(TVX_CTL_NO_REPLY, request.control)) return;
    if (fault_hits(TVX_CTL_WRONG_CONTROL, request.control)) control = 99;
    if (fault_hits(TVX_CTL_WRONG_DESTINATION, request.control)) destination = 7;
    if (fault_hits(TVX_CTL_WRONG_COUNT, request.control)) carried.push_back(0);
  }
  std::vector<int16_t> words = {static_cast<int16_t>(3 + carried.size()), destination, kOwnAddress,
                                control};
  words.insert(words.end(), carried.begin(), carried.end());
  // While an exposure runs, whatever would follow its completion waits.
  std::deque<WORD> &queue = ready_at_ == 0 ? out_ : held_;
  for (int16_t w : words) {
    queue.push_back(static_cast<WORD>(w) & 0xFF);
    queue.push_back(static_cast<WORD>(w) >> 8 & 0xFF);
  }
}

void CameraServer::progress(const Packet &request, int stages, bool may_stall) {
  for (int16_t stage = 1; stage <= stages; ++stage) {
    send(request, kStage, {stage}, false);
    if (may_stall && stage == 9 && fault_hits(TVX_CTL_STALL_AT_STAGE_9, request.control)) return;
    send(request, kCharacter, {'*'}, false);
  }
  if (fault_hits(TVX_CTL_ENDLESS_PROGRESS, request.control)) {
    stuck_ = Stuck{true, request, static_cast<int16_t>(stages), time_centiseconds()};
    return;
  }
  send(request, kDone, {});
}

// A stuck operation says again where it is, every so often, until its fault is cleared.
void CameraServer::repeat_stage() {
  if (!stuck_.on) return;
  if (!fault_hits(TVX_CTL_ENDLESS_PROGRESS, stuck_.request.control)) {
    stuck_.on = false;
    return;
  }
  const DWORD now = time_centiseconds();
  if (static_cast<int32_t>(now - stuck_.last) < kRepeatEvery) return;
  stuck_.last = now;
  send(stuck_.request, kStage, {stuck_.stage}, false);
}

bool CameraServer::next_output(WORD &item) {
  if (out_.empty() && ready_at_ != 0 && time_centiseconds() - ready_at_ < 0x80000000u)
    end_exposure(true);
  if (out_.empty()) repeat_stage();
  if (out_.empty()) return stream_next(item);
  item = out_.front();
  out_.pop_front();
  return true;
}

size_t CameraServer::next_outputs(WORD *items, size_t most) {
  // A frame's released words go in one copy while no reply waits before them.
  if (out_.empty() && ready_at_ == 0 && streaming_ && frame_open_ && sent_ < released_) {
    const size_t n = std::min(most, released_ - sent_);
    std::copy_n(words_.begin() + long(sent_), n, items);
    sent_ += n;
    return n;
  }
  return ControllerProgram::next_outputs(items, most);
}

int CameraServer::take_speed_change() {
  const int speed = speed_change_;
  speed_change_ = 0;
  return speed;
}

void CameraServer::install(const Packet &p) {
  if (p.params.empty()) {
    if (!installing_) {
      installing_ = true;
      image_.clear();
    } else {
      finish_installation();
    }
    return;
  }
  if (!installing_) return complain("install data outside an installation");
  for (int16_t v : p.params) image_.push_back(static_cast<uint8_t>(v & 0xFF));
}

// The files of one installation arrive back to back; each says its own length in its header.
void CameraServer::finish_installation() {
  installing_ = false;
  size_t at = 0;
  while (at < image_.size()) {
    const size_t left = image_.size() - at;
    size_t total = left;
    if (left >= ucode::kImageHeader)
      total = std::min(
          left, ucode::kImageHeader + ucode::le32(image_.data() + at + 6) + ucode::kImageTrailer);
    std::vector<uint8_t> one(image_.begin() + long(at), image_.begin() + long(at + total));
    std::string name;
    const ucode::Verdict verdict = ucode::check_image(one, ucode::kProgramMagic, &name);
    if (verdict != ucode::Verdict::ok) {
      complain("installed program %zu: %s", installed_.size() + 1, ucode::verdict_text(verdict));
      dead_ = true;
      return;
    }
    installed_.push_back(name);
    if (name == "camera") camera_ready_ = true;
    at += total;
  }
  image_.clear();
}

void CameraServer::act(const Packet &p) {
  controls_.push_back(p.control);
  if (p.destination != kOwnAddress)
    return complain("packet for %d (control %d)", int{p.destination}, int{p.control});
  const Control *c = control_of(p.control);
  if (c == nullptr) return complain("unknown control %d", int{p.control});
  const int n = static_cast<int>(p.params.size());
  if (n < c->min_params || n > c->max_params)
    return complain("control %d with %d parameters", int{p.control}, n);
  if (c->needs_camera && !camera_ready_)
    return complain("control %d before the camera program is installed", int{p.control});
  // The recorder keeps a line for every command it carries out, with its first parameters.
  if (p.control != 1 && p.control != 36 && p.control != 46) {
    std::string line = c->name;
    for (int i = 0; i < n && i < 4; ++i)
      line += (i == 0 ? " " : ",") + std::to_string(p.params[size_t(i)]);
    recorder_ += line + "\n";
  }

  const auto &a = p.params;
  std::vector<int16_t> reply;
  CameraState &s = state_;
  switch (p.control) {
    case 2:
      s.blacklevel = static_cast<uint16_t>(a[0]);
      s.initialised = true;
      return progress(p, 10, true);
    case 3:
      // Multiplexer channels read a few millivolts apart.
      reply = {static_cast<int16_t>(1000 + 25 * (a[0] - 16))};
      break;
    case 4:
      reply = {read_channel(a[0])};
      break;
    case 5:
      if (a[0] < 0 || a[0] >= 24) return complain("voltage identifier %d", int{a[0]});
      drive(size_t(a[0]), a[1]);
      break;
    case 6:
      s.droop_set = true;
      break;
    case 7:
      s.offset_set = true;
      break;
    case 8:
      s.blacklevel = static_cast<uint16_t>(a[0]);
      return progress(p, 4, false);
    case 9:
      s.noise_trimmed = true;
      return progress(p, 3, false);
    case 10:
      s.vss_readout = a[0];
      s.vss_flush = a[1];
      break;
    case 11:
      if (a[0] != 0 && a[0] != 1) return complain("pgain code %d", int{a[0]});
      s.pgain_code = a[0];
      break;
    case 12:
      if (a[0] < 0 || a[0] > 3) return complain("time constant code %d", int{a[0]});
      s.time_constant_code = a[0];
      break;
    case 13:
      s.integration_tenths = a[0];
      break;
    case 14:
      s.adc_calibrated = true;
      break;
    case 15:
      s.adc_polarity = a[0];
      break;
    case 16:
      s.adc_auxiliary = a[0];
      break;
    case 17:
      s.region = {a[0], a[1], a[2], a[3], a[4]};
      break;
    case 18:
    case 52:
      ++s.readouts;
      return start_stream(p, p.control == 52);
    case 19:
      break;
    case 20:
      ++s.flushes;
      charge_since_ = time_centiseconds();
      gather_light(charge_since_);
      light_seconds_ = 0;
      break;
    case 21:
      s.ccd_width = a[0];
      s.ccd_height = a[1];
      break;
    case 22:
      s.xbin = a[0];
      s.ybin = a[1];
      break;
    case 23: {
      const long ms = joined(a[0], a[1]);
      ++s.exposures;
      s.last_exposure_ms = ms;
      s.exposing = true;
      light_seconds_ += static_cast<double>(ms) / 1000.0;
      // The completion is answered when the exposure is over.
      exposure_ = p;
      ready_at_ = time_centiseconds() + static_cast<DWORD>(ms / 10);
      if (ready_at_ == 0) ready_at_ = 1;
      return;
    }
    case 24:
      // A program may time an exposure itself: open the shutter, wait, close it.
      gather_light(time_centiseconds());
      s.shutter_open = false;
      break;
    case 25:
      if (!s.shutter_open) shutter_opened_ = time_centiseconds();
      s.shutter_open = true;
      break;
    case 26:
      recorder_.clear();
      played_ = 0;
      break;
    case 29:
      s.dummy_detector = a[0] != 0;
      break;
    case 30:
      s.break_ground = a[0] != 0;
      break;
    case 31:
      s.rstclk_feed_through = a[0] != 0;
      break;
    case 32:
      s.userport = a[0];
      break;
    case 33:
      reply = {s.userport};
      break;
    case 34:
      if (a[0] < 0 || a[0] >= 40) return complain("ios address %d", int{a[0]});
      s.iospace[size_t(a[0])] = a[1];
      break;
    case 35:
      if (a[0] < 0 || a[0] >= 40) return complain("ios address %d", int{a[0]});
      reply = {s.iospace[size_t(a[0])]};
      break;
    case 36: {
      // The recorder goes out a packet at a time; an empty reply ends it and rewinds it.
      const size_t n_out = std::min(kPlaybackChunk, recorder_.size() - played_);
      for (size_t i = 0; i < n_out; ++i)
        reply.push_back(static_cast<int16_t>(static_cast<uint8_t>(recorder_[played_ + i])));
      played_ = n_out == 0 ? 0 : played_ + n_out;
      break;
    }
    case 38:
      s.registers = a;
      break;
    case 39:
      s.configured_voltages = a;
      for (size_t k = 0; k < a.size() && k < std::size(kDesiredChannel); ++k)
        drive(size_t(kDesiredChannel[k]), a[k]);
      break;
    case 40:
      s.adc_mode = a[0];
      break;
    case 41:
      s.parallel_mode = a[0];
      break;
    case 42:
      s.serial_mode = a[0];
      break;
    case 43:
      if (a[0] != 5 && a[0] != 10 && a[0] != 20) return complain("link speed %d", int{a[0]});
      speed_change_ = a[0];
      return;
    case 44:
      s.acdc = a[0];
      break;
    case 45:
      // The cooler sets out from wherever the chip is now.
      cooler_from_ = chip_kelvin(time_centiseconds());
      cooler_since_ = time_centiseconds();
      s.temperature_set = true;
      break;
    case 46:
      return install(p);
    case 47:
      s.parallel_timing = a;
      break;
    case 48:
      break;
    case 49:
      s.concurrent = a[0] != 0;
      break;
    case 50:
      reply = {12, -7, 3};
      break;
    case 51:
      if (a.size() % 2 != 0) return complain("read sequence of %zu words", a.size());
      s.read_sequence.clear();
      for (size_t i = 0; i < a.size(); i += 2)
        s.read_sequence.push_back(static_cast<uint32_t>(joined(a[i], a[i + 1])));
      break;
    case 53:
      std::copy(a.begin(), a.end(), s.shutter_widths.begin());
      break;
    case 54:
      // Droop level, offsets and the shutter's hold data, as the controller last measured them:
      // the droop settles higher once it has been set, the offset is measured only once it has
      // been set, and the hold data tell an open shutter from a closed one.
      reply = {static_cast<int16_t>(s.droop_set ? 140 : 128),
               0,
               0,
               0,
               static_cast<int16_t>(s.offset_set ? 1 : 0),
               0,
               0,
               static_cast<int16_t>(s.offset_set ? 96 : 0),
               0,
               0,
               0,
               0,
               0,
               0,
               0,
               static_cast<int16_t>(s.shutter_open ? 2 : 1)};
      if (fault_hits(TVX_CTL_BAD_STATE_VECTOR, 54)) {
        reply[0] = 0;
        reply[4] = 1;
        reply[7] = 255;
        reply[15] = 0;
      }
      break;
    case 55:
      s.reverse_clocks[0] = a[0];
      s.reverse_clocks[1] = a[1];
      break;
    case 56:
    case 57:
      return;
    case 58:
      s.frames = joined(a[0], a[1]);
      s.frame_delay = a[2];
      break;
    case 59:
      s.parallel_transfers = a[0];
      break;
    case 60:
      s.parallel_multiplier = a[0];
      break;
    case 61:
      s.n_parallel_transfers = a[0];
      break;
    case 62:
      // A stop ends whatever the controller is doing for the host. An exposure under way ends at
      // once: the shutter closes, the chip keeps the light it has had so far, the exposure is never
      // answered, and the replies its completion held back go out. A read ends where it is, with
      // no completion and no further frame. What the link holds already stays there: the host
      // reads it off.
      if (ready_at_ != 0) end_exposure(false);
      if (streaming_) s.stopped = true;
      streaming_ = false;
      words_.clear();
      block_ends_.clear();
      sent_ = released_ = next_block_ = 0;
      return;
    case 63:
      s.shuffle[0] = a[0];
      s.shuffle[1] = a[1];
      s.shuffle_ms = joined(a[2], a[3]);
      break;
    default:
      break;
  }
  if (c->reply_params >= 0) send(p, kDone, reply);
}

void CameraServer::end_exposure(bool answer) {
  if (!answer) {
    const auto left = static_cast<int32_t>(ready_at_ - time_centiseconds());
    if (left > 0) light_seconds_ = std::max(0.0, light_seconds_ - left / 100.0);
  }
  ready_at_ = 0;
  state_.exposing = false;
  if (answer) send(exposure_, kDone, {});
  out_.insert(out_.end(), held_.begin(), held_.end());
  held_.clear();
}

CameraServer *camera_server_at(WORD base) {
  Card *card = card_at(base);
  if (card == nullptr) return nullptr;
  return dynamic_cast<CameraServer *>(card->distant().controller());
}

std::unique_ptr<ControllerProgram> make_camera_server() {
  return std::make_unique<CameraServer>();
}

// A failing cooler: the chip warms this many kelvin a minute once the cooler has been set.
double cooler_drift = 0.0;
constexpr double kMinute = 6000.0;  // centiseconds

void reset_camera_faults() {
  cooler_drift = 0.0;
  fault = Fault{};
  stream_fault = StreamFault{};
  no_completion = false;
  set_scene_settings(SceneSettings{});
}

}  // namespace tvx::sim

extern "C" {

BOOL tvx_test_controller_fault(INT32 kind, INT32 control) {
  static const char *const kOp = "tvx_test_controller_fault";
  if (kind < TVX_CTL_FAULT_NONE || kind > TVX_CTL_ENDLESS_PROGRESS)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {0x1040}, "unknown controller fault %ld.",
                     long{kind});
  if (control < 0 || control > 255)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {0x1040}, "invalid control code %ld.",
                     long{control});
  tvx::sim::fault = {kind, control};
  return TRUE;
}

void tvx_test_cooler_drift(double kelvin_per_minute) {
  tvx::sim::cooler_drift = kelvin_per_minute;
}

}  // extern "C"

namespace tvx::sim {

double CameraServer::chip_kelvin(DWORD now) const {
  if (!state_.temperature_set) return kAmbient;
  const double elapsed = static_cast<double>(now - cooler_since_);
  return kCoolerTarget + (cooler_from_ - kCoolerTarget) * std::exp(-elapsed / kCoolerTau) +
         cooler_drift * elapsed / kMinute;
}

void CameraServer::gather_light(DWORD now) {
  if (!state_.shutter_open) return;
  light_seconds_ += static_cast<double>(now - shutter_opened_) / 100.0;
  shutter_opened_ = now;
}

void CameraServer::drive(size_t channel, int16_t hundredths) {
  state_.voltages[channel] = hundredths;
  state_.voltage_set[channel] = true;
}

int16_t CameraServer::read_channel(int channel) const {
  const DWORD now = time_centiseconds();
  const auto reading = [&](double value) {
    return static_cast<int16_t>(std::lround(value * 100.0) + wander(now, channel));
  };
  if (channel == kThermistorChannel && !state_.voltage_set[size_t(channel)]) {
    // Until it is driven, the thermistor line shows the bridge: 2.5 V at -40 C, 10 mV a kelvin.
    return reading(2.5 + (chip_kelvin(now) - 233.15) / 100.0);
  }
  if (channel >= 0 && channel < 24) {
    // Set voltages read back within a few hundredths of what was set.
    return static_cast<int16_t>(state_.voltages[size_t(channel)] + wander(now, channel));
  }
  if (channel == kChipSensorChannel) return reading(chip_kelvin(now));
  if (channel == kSinkSensorChannel) {
    return reading(kAmbient + kSinkAboveAmbient +
                   kSinkShareOfPumpedHeat * (kAmbient - chip_kelvin(now)));
  }
  for (const Reading &r : kReadOnly)
    if (r.channel == channel) return static_cast<int16_t>(r.value + wander(now, channel));
  return 0;
}

}  // namespace tvx::sim

// ---- The readout stream -------------------------------------------------------------------------

namespace tvx::sim {

namespace {

// Integration times above this (in tenths of a microsecond) send each channel's bytes whole.
constexpr int kWholeBytesAbove = 10;
constexpr int kTimeConstants[] = {2, 4, 6, 8};
constexpr int kGains[] = {5, 50};
constexpr double kBitWeight = 300.0, kFetGain = 1.5, kFetSwitch = 0.5;
constexpr int kTwoChannels = 17;

}  // namespace

// What the converter's mode and integration time make the controller send.
int CameraServer::data_mode() const {
  const int adc = state_.adc_mode;
  const bool whole = state_.integration_tenths > kWholeBytesAbove;
  switch (adc & 7) {
    case 1:
      return (adc & 0x3F) == kTwoChannels ? 10 : whole ? 9 : 5;
    case 5:
      return whole ? 9 : 5;
    case 3:
    case 7:
      return whole ? 18 : 14;
    default:
      return 0;
  }
}

void CameraServer::start_stream(const Packet &request, bool sequence) {
  stream_request_ = request;
  sequence_ = sequence;
  frames_left_ = sequence || state_.frames < 1 ? 1 : state_.frames;
  streaming_ = true;
  state_.stopped = false;
  frame_open_ = false;
  frame_at_ = time_centiseconds();
  // In real time a word takes the pixel time of the selected integration.
  words_per_cs_ = 0;
  if (scene_settings().realtime) {
    const double integration =
        state_.integration_tenths > 0 ? state_.integration_tenths / 10.0 : 20.0;
    const double us_per_pixel = 1.14375 * integration + 2.125;
    words_per_cs_ = 10000.0 / us_per_pixel;
  }
}

// The runs of one frame in the order the controller reads them: a run is `count` binned pixels of
// a binned row whose first unbinned pixel is (x, y).
std::vector<CameraServer::Run> CameraServer::frame_runs() {
  const CameraState &s = state_;
  const int bx = std::max(s.xbin, 1), by = std::max(s.ybin, 1);
  std::vector<Run> runs;
  auto read = [&](int x, int y, int count) {
    if (count > 0) runs.push_back({x, y, count});
  };
  if (!sequence_) {
    for (int j = 0; j < s.region.height; ++j) read(s.region.x, s.region.y + j * by, s.region.width);
    return runs;
  }
  // The sequence, entry by entry: binned rows shifted or skipped, pixels skipped or read.
  int row = -1, column = 0;
  const auto &q = s.read_sequence;
  for (size_t at = 0; at < q.size(); ++at) {
    size_t first = at, count = 1;
    uint32_t times = 1;
    if ((q[at] & 0xF) == 3) {
      times = q[at] >> 4;
      count = at + 1 < q.size() ? q[at + 1] : 0;
      first = at + 2;
      count = std::min(count, q.size() - std::min(first, q.size()));
      at = first + count - 1;
    }
    for (uint32_t t = 0; t < times; ++t)
      for (size_t e = first; e < first + count; ++e) {
        const int value = static_cast<int>(q[e] >> 4);
        switch (q[e] & 0xF) {
          case 0:
            ++row;
            column = 0;
            break;
          case 1:
            column += value;
            break;
          case 2:
            read(column * bx, row * by, value);
            column += value;
            break;
          case 4:
            row += value;
            column = 0;
            break;
          default:
            complain("read sequence entry %08x", q[e]);
            break;
        }
      }
  }
  return runs;
}

void CameraServer::begin_frame() {
  const CameraState &s = state_;
  const DWORD now = time_centiseconds();
  ChipSetup chip;
  chip.width = s.ccd_width;
  chip.height = s.ccd_height;
  chip.blacklevel = s.blacklevel;
  chip.two_channel = (s.adc_mode & 0x3F) == kTwoChannels;
  const double integration = s.integration_tenths > 0 ? s.integration_tenths / 10.0 : 20.0;
  chip.electrons_per_level = kBitWeight * kTimeConstants[s.time_constant_code & 3] /
                             ((kFetSwitch + integration) * kFetGain * kGains[s.pgain_code & 1]);
  gather_light(now);
  Charge charge;
  charge.light_seconds = light_seconds_;
  if (s.shuffle_ms > 0 && frames_left_ > 1) charge.light_seconds += s.shuffle_ms / 1000.0;
  charge.dark_seconds = static_cast<double>(now - charge_since_) / 100.0;
  charge.kelvin = chip_kelvin(now);
  ccd_.begin_frame(chip, charge, static_cast<uint32_t>(s.frames_sent));
  light_seconds_ = 0;
  charge_since_ = now;

  StreamFormat format;
  format.data_mode = data_mode();
  format.words_per_pixel = chip.two_channel ? 2 : 1;
  format.raster_pixels = sequence_ ? 1 : std::max(s.region.width, 1);
  const int16_t k[3] = {12, -7, 3};  // the converter's channel offsets, as control 50 reports
  std::copy(k, k + 3, format.constants);
  format.seed = static_cast<uint32_t>(s.readouts * 31 + s.frames_sent);
  // The CCD reads its pixels as the encoder asks for them, a host pixel block at a time.
  runs_ = frame_runs();
  size_t count = 0;
  for (const Run &r : runs_) count += size_t(r.count);
  run_ = run_done_ = 0;
  encoder_.start([this](uint32_t *out, size_t n) { read_runs(out, n); }, count, format,
                 stream_fault);
  encoder_.next(&words_, &block_ends_);
  sent_ = released_ = next_block_ = 0;
  frame_base_ = 0;
  frame_started_ = now;
  frame_open_ = true;
}

void CameraServer::read_runs(uint32_t *out, size_t n) {
  const int bx = std::max(state_.xbin, 1), by = std::max(state_.ybin, 1);
  while (n > 0) {
    const Run &r = runs_[run_];
    const size_t piece = std::min(n, size_t(r.count) - run_done_);
    ccd_.read_row(r.x + int(run_done_) * bx, r.y, int(piece), bx, by, out);
    out += piece;
    n -= piece;
    run_done_ += piece;
    if (run_done_ == size_t(r.count)) {
      ++run_;
      run_done_ = 0;
    }
  }
}

bool CameraServer::stream_next(WORD &item) {
  if (!streaming_) return false;
  // Words already released go out without a look at the clock, which costs more than a word.
  if (frame_open_ && sent_ < released_) {
    item = words_[sent_++];
    return true;
  }
  const DWORD now = time_centiseconds();
  if (!frame_open_) {
    if (static_cast<int32_t>(now - frame_at_) < 0) return false;
    begin_frame();
  }
  for (;;) {
    // Blocks go out whole: in real time each when its last pixel has been read.
    while (next_block_ < block_ends_.size() &&
           (words_per_cs_ == 0 || static_cast<double>(frame_base_ + block_ends_[next_block_]) <=
                                      (now - frame_started_) * words_per_cs_))
      released_ = block_ends_[next_block_++];
    if (sent_ < released_) {
      item = words_[sent_++];
      return true;
    }
    if (sent_ < words_.size() || next_block_ < block_ends_.size()) return false;
    // This pixel block's words are out: the next one's, while the frame has more.
    frame_base_ += words_.size();
    if (!encoder_.next(&words_, &block_ends_)) break;
    sent_ = released_ = next_block_ = 0;
  }
  // The frame is out.
  frame_open_ = false;
  ++state_.frames_sent;
  if (stream_fault.stop_after >= 0) {
    streaming_ = false;  // the stream broke off: nothing more comes
    return false;
  }
  if (--frames_left_ > 0) {
    const long delay = state_.shuffle_ms > 0 ? state_.shuffle_ms / 10 : state_.frame_delay;
    frame_at_ = now + static_cast<DWORD>(delay);
    return stream_next(item);
  }
  streaming_ = false;
  if (!no_completion) send(stream_request_, kDone, {});
  return next_output(item);
}

}  // namespace tvx::sim

extern "C" {

BOOL tvx_test_stream_fault(INT32 kind, INT32 value) {
  static const char *const kOp = "tvx_test_stream_fault";
  tvx::sim::StreamFault next;
  bool silent = false;
  switch (kind) {
    case TVX_STREAM_FAULT_NONE:
      break;
    case TVX_STREAM_BLOCK_SIZE:
      if (value < 0 || value > 65535)
        return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {0x1040}, "invalid block size %ld.",
                         long{value});
      next.block_size = value;
      break;
    case TVX_STREAM_STOP_AFTER:
      if (value < 0)
        return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {0x1040}, "invalid word count %ld.",
                         long{value});
      next.stop_after = value;
      break;
    case TVX_STREAM_NO_COMPLETION:
      silent = true;
      break;
    default:
      return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {0x1040}, "unknown stream fault %ld.", long{kind});
  }
  tvx::sim::stream_fault = next;
  tvx::sim::no_completion = silent;
  return TRUE;
}

BOOL tvx_test_simulator_scene(INT32 scene, INT32 seed, BOOL realtime) {
  static const char *const kOp = "tvx_test_simulator_scene";
  if (scene < TVX_SCENE_STARFIELD || scene > TVX_SCENE_DARK)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {0x1040}, "unknown scene %ld.", long{scene});
  tvx::sim::SceneSettings next = tvx::sim::scene_settings();
  next.kind = static_cast<tvx::sim::SceneKind>(scene);
  next.seed = static_cast<uint32_t>(seed);
  next.realtime = realtime != FALSE;
  tvx::sim::set_scene_settings(next);
  return TRUE;
}

}  // extern "C"
