// Reading an image's pixels as numbers, whatever their size and sign, and their statistics.
#pragma once

#include <functional>
#include <vector>

#include "tvx/tvx.h"

namespace session {

struct Shape {
  int width = 0, height = 0, depth = 0;
  int bytes = 0;  // per pixel
  bool is_signed = false;
};

Shape shape_of(HANDLE image);
// Each raster in turn, locked only while `fn` runs.
void for_each_row(HANDLE image, const std::function<void(int row, const BYTE *raster)> &fn);
// One raster's pixels as numbers.
void decode_row(const Shape &s, const BYTE *raster, double *out);
std::vector<double> values_of(HANDLE image);
// The pixels of one channel of a two-channel image: 1 the upper 16 bits, 2 the lower.
std::vector<double> channel_values(HANDLE image, int channel);

struct Stats {
  double min = 0, max = 0, mean = 0, sdev = 0, median = 0, lower_quartile = 0, upper_quartile = 0,
         mode = 0;
  double count = 0;
};

// 16-bit images are measured by the library; other depths here, by the same rules.
Stats stats_of(HANDLE image);
Stats stats_of(std::vector<double> values);
// The level below which `percent` of `values` lie (nearest rank); reorders `values`.
double percentile(std::vector<double> &values, double percent);

}  // namespace session
