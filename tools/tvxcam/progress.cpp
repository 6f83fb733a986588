// The progress line: redrawn ten times a second from its own thread while a stage runs.
#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>

namespace tvxcam {

namespace {

constexpr int kBarWidth = 30;
constexpr auto kRedraw = std::chrono::milliseconds(100);

std::string seconds_text(double s) {
  char text[32];
  if (s >= 60)
    std::snprintf(text, sizeof text, "%d:%02d", static_cast<int>(s) / 60, static_cast<int>(s) % 60);
  else
    std::snprintf(text, sizeof text, "%.1f s", s);
  return text;
}

}  // namespace

Progress::Progress(bool enabled, FILE *stream)
    : stream_(stream), active_(enabled && isatty(fileno(stream)) != 0) {
  if (active_) thread_ = std::thread([this] { run(); });
}

Progress::~Progress() {
  if (!active_) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  thread_.join();
  // A failure or an interrupt leaves no half-drawn line in front of its message.
  end();
}

std::string Progress::render(const std::string &prefix, const std::string &label, double elapsed,
                             double seconds, int width) {
  std::string line = prefix.empty() ? "" : prefix + "  ";
  char head[64];
  std::snprintf(head, sizeof head, "%-12s", label.c_str());
  line += head;
  if (seconds > 0) {
    const double share = std::clamp(elapsed / seconds, 0.0, 1.0);
    const int filled = static_cast<int>(std::lround(share * width));
    line +=
        " [" + std::string(size_t(filled), '#') + std::string(size_t(width - filled), '.') + "]";
    char tail[64];
    std::snprintf(tail, sizeof tail, " %3d%%  %s left", static_cast<int>(share * 100),
                  seconds_text(std::max(seconds - elapsed, 0.0)).c_str());
    line += tail;
  } else {
    static const char kSpin[] = "|/-\\";
    line +=
        std::string(" ") + kSpin[static_cast<int>(elapsed * 10) % 4] + " " + seconds_text(elapsed);
  }
  return line;
}

void Progress::set_prefix(const std::string &prefix) {
  std::lock_guard<std::mutex> lock(mutex_);
  prefix_ = prefix;
}

void Progress::start_timed(const std::string &label, double seconds) {
  if (!active_) return;
  std::lock_guard<std::mutex> lock(mutex_);
  label_ = label;
  text_.clear();
  seconds_ = seconds;
  started_ = std::chrono::steady_clock::now();
  running_ = true;
  draw_locked();
}

void Progress::start_open(const std::string &label) {
  start_timed(label, 0);
}

void Progress::show(const std::string &text) {
  if (!active_) return;
  std::lock_guard<std::mutex> lock(mutex_);
  running_ = false;
  text_ = text;
  std::fprintf(stream_, "\r\033[K%s", text_.c_str());
  std::fflush(stream_);
}

void Progress::end() {
  if (!active_) return;
  std::lock_guard<std::mutex> lock(mutex_);
  running_ = false;
  text_.clear();
  std::fprintf(stream_, "\r\033[K");
  std::fflush(stream_);
}

void Progress::draw_locked() {
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  std::fprintf(stream_, "\r\033[K%s",
               render(prefix_, label_, elapsed, seconds_, kBarWidth).c_str());
  std::fflush(stream_);
}

void Progress::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stop_) {
    wake_.wait_for(lock, kRedraw);
    if (running_ && !stop_) draw_locked();
  }
}

}  // namespace tvxcam
