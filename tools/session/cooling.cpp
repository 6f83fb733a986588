// The set point from the hardware definition, and the judgement of a run of readings.
#include "cooling.h"

#include <algorithm>
#include <cmath>

namespace session {

std::optional<double> cooler_set_point(const Definitions &d) {
  for (size_t i = 0; i < d.volt_names.size() && i < d.volts.size(); ++i)
    if (d.volt_names[i] == "ccdtmp1") return d.volts[i].nominal - kKelvinAtZeroCelsius;
  return std::nullopt;
}

CoolingWatch::CoolingWatch(double set_point_celsius, double tolerance_k, double settle_s)
    : set_point_(set_point_celsius), tolerance_(tolerance_k), settle_(settle_s) {}

void CoolingWatch::add(double seconds, double celsius) {
  readings_.emplace_back(seconds, celsius);
  // Keep the oldest reading that still covers the whole settle period, so that `reached` knows
  // the period was watched from its start.
  while (readings_.size() > 1 && seconds - readings_[1].first >= settle_) readings_.pop_front();
}

bool CoolingWatch::reached() const {
  if (readings_.empty() || readings_.back().first - readings_.front().first < settle_) return false;
  return std::all_of(readings_.begin(), readings_.end(), [this](const auto &r) {
    return std::fabs(r.second - set_point_) <= tolerance_;
  });
}

double CoolingWatch::per_minute() const {
  if (readings_.size() < 2) return 0.0;
  const auto &[t0, c0] = readings_.front();
  const auto &[t1, c1] = readings_.back();
  return t1 > t0 ? (c1 - c0) * 60.0 / (t1 - t0) : 0.0;
}

}  // namespace session
