// Progress on the terminal: a bar with the time left for stages of known length (an exposure, a
// real-time readout), a spinner with the time spent for the others, and a prefix such as the
// frame of a series. It draws on its own thread, so a library call that blocks for the whole
// exposure still shows the countdown; it is silent when standard error is not a terminal.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

namespace tvxcam {

class Progress {
 public:
  // Draws on `stream` only when `enabled` and the stream is a terminal.
  Progress(bool enabled, FILE *stream = stderr);
  ~Progress();
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

  bool active() const { return active_; }
  void set_prefix(const std::string &prefix);
  // A stage of `seconds` expected length: a bar that fills and counts down.
  void start_timed(const std::string &label, double seconds);
  // A stage of unknown length.
  void start_open(const std::string &label);
  // A line of the caller's own, drawn in place (the cooling temperature).
  void show(const std::string &text);
  // Ends the stage and clears the line.
  void end();

  // The line for a stage `elapsed` seconds into `seconds` (0: of unknown length), `width` bar
  // characters wide.
  static std::string render(const std::string &prefix, const std::string &label, double elapsed,
                            double seconds, int width);

 private:
  void run();
  void draw_locked();

  FILE *stream_;
  bool active_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::thread thread_;
  bool stop_ = false, running_ = false;
  std::string prefix_, label_, text_;
  double seconds_ = 0;
  std::chrono::steady_clock::time_point started_;
};

}  // namespace tvxcam
