// A camera made from the shipped small chip over a server brought up on the simulated
// controller, looking at the scene a test picks.
#pragma once

#include "server/readout_support.h"
#include "tvx/camera.h"

namespace tvx_test {

class CameraTest : public ReadoutTest {
 protected:
  void SetUp() override {
    ReadoutTest::SetUp();
    bring_up();
    camera_ = camera_new(server_, shipped("sim_small.def").c_str());
    ASSERT_NE(camera_, nullptr) << whole_story();
  }
  void TearDown() override {
    camera_delete(camera_);
    ReadoutTest::TearDown();
  }
  HANDLE camera_ = nullptr;
};

}  // namespace tvx_test
