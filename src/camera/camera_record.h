// The camera record behind its handle.
#pragma once

#include "foundation/locked.h"
#include "tvx/camera.h"
#include "tvx/image.h"

namespace tvx::camera {

struct Record {
  volts voltages;
  ccd chip;
  HANDLE programs;  // camprog handles
  HANDLE server;    // not owned
  char *system_dir;
  INT32 operation_mode;
  INT32 image_zero;
  double ratio_20bit;
  double min_signal_20bit;
  BYTE correlate_20bit;
  double offset_20bit;
  double correlation_20bit;
  image_stats reference1;  // the reference columns' statistics, channel 1 (or the only one)
  image_stats reference2;  // and channel 2 of two-channel data
  INT32 counters[CAMERA_OPERATION_COUNTERS];
};

using Locked = tvx::Locked<Record>;

}  // namespace tvx::camera
