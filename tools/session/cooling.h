// Cooling as this controller does it. The cooler command carries no temperature: the controller
// cools the chip to its own set point, the chip's nominal temperature in the hardware definition
// (the "ccdtmp1" row of VOLTAGES, in kelvin). A program can switch the cooler on and watch the
// chip close on that set point; it cannot ask for another temperature.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <utility>

#include "definitions.h"

namespace session {

constexpr double kKelvinAtZeroCelsius = 273.15;

// The controller's set point in degrees Celsius, from the hardware definition; none when the
// definition names no chip temperature.
std::optional<double> cooler_set_point(const Definitions &definitions);

// How a program waits for the chip to reach the set point (Session::cool_down).
struct CoolingWait {
  double tolerance_k = 0.5;  // how near the set point every reading must lie
  double settle_s = 30;      // for how long, to count as stable there
  double timeout_s = 600;    // the longest wait
  double poll_s = 1;         // time between readings
};

// One reading of a cooling wait.
struct CoolingReading {
  double seconds = 0;     // since the wait began
  double celsius = 0;     // the CCD
  double per_minute = 0;  // kelvin a minute over the readings the watch keeps
  double set_point = 0;   // degrees Celsius
};

// Judges a run of temperature readings against the set point: the chip has reached it when every
// reading of the last `settle` seconds lies within `tolerance` kelvin of it.
class CoolingWatch {
 public:
  CoolingWatch(double set_point_celsius, double tolerance_k, double settle_s);

  // One reading at `seconds` since the watch began.
  void add(double seconds, double celsius);
  bool reached() const;
  double last() const { return readings_.empty() ? 0.0 : readings_.back().second; }
  // Kelvin a minute over the readings kept (the last `settle` seconds); 0 with fewer than two.
  double per_minute() const;
  double set_point() const { return set_point_; }
  double tolerance() const { return tolerance_; }

 private:
  double set_point_, tolerance_, settle_;
  std::deque<std::pair<double, double>> readings_;  // (seconds, celsius), oldest first
};

}  // namespace session
