// The camera record behind its handle.
#pragma once

#include "foundation/locked.h"
#include "tvx/camera.h"

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
  INT32 counters[CAMERA_OPERATION_COUNTERS];
};

using Locked = tvx::Locked<Record>;

}  // namespace tvx::camera
