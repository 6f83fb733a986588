// Running out of memory anywhere in a whole acquisition: every allocation of it is made to fail
// in turn, and each time the acquisition must fail with the allocation failure itself on top of
// the error stack, give back every block it took, and leave the camera able to take the next
// picture.
#include <cerrno>

#include "camera/camera_support.h"
#include "support/error_trace.h"

namespace {

using namespace tvx_test;

class OutOfMemory : public CameraTest {
 protected:
  void SetUp() override {
    CameraTest::SetUp();
    frames_ = list_new();
  }
  void TearDown() override {
    list_delete(frames_, nullptr);  // its image lists are the fixture's
    CameraTest::TearDown();
  }

  // What the application brings: its region list, and the lists the camera fills with images.
  struct Lists {
    HANDLE two_regions, one, two, frames;
  };
  Lists lists() {
    for (int i = 0; i < 2; ++i) list_append_tail(frames_, images());
    return {regions({{2, 3, 20, 10}, {40, 30, 16, 20}}), images(), images(), frames_};
  }
  // The application lets go of the images it was given.
  static void let_go(const Lists &l) {
    for (HANDLE list : {l.one, l.two}) list_empty(list, image_delete);
    for (INT32 n = 1; n <= list_size(l.frames); ++n)
      list_empty(list_get_nth_object(l.frames, n), image_delete);
  }

  // A camera started on the server, the whole chip read raw, two regions in one pass, a
  // processed series, a readout with image zero taken off, and two-channel data joined into 20
  // bits; the first failure ends it.
  bool acquire(const Lists &l) {
    HANDLE camera = camera_new(server_, shipped("sim_small.def").c_str());
    if (camera == nullptr) return false;
    // Two channels are joined with the stored line, not a fitted one: the coordinate scene has
    // no stars to fit it to.
    const bool ok =
        camera_set_20_bit_data(camera, 16.0, 0.0, FALSE) && server_set_adc_mode(server_, 1) &&
        camera_set_operation_mode(camera, 0) && camera_readout_ccd(camera, nullptr, l.one) &&
        camera_readout_ccd(camera, l.two_regions, l.two) && camera_set_operation_mode(camera, 3) &&
        camera_expose_and_readout_ccd(camera, nullptr, l.frames, 100, 0) &&
        camera_set_operation_mode(camera, 2) && readout(camera, l) &&
        server_set_adc_mode(server_, 17) && readout(camera, l);
    camera_delete(camera);
    return ok;
  }
  // A camera starts and takes a raw picture of the whole chip.
  bool still_works(const Lists &l) {
    HANDLE camera = camera_new(server_, shipped("sim_small.def").c_str());
    const bool ok = camera != nullptr && server_set_adc_mode(server_, 1) &&
                    camera_set_operation_mode(camera, 0) && readout(camera, l);
    camera_delete(camera);
    let_go(l);
    return ok;
  }
  // One more readout into the first list, emptied first.
  static bool readout(HANDLE camera, const Lists &l) {
    list_empty(l.one, image_delete);
    return camera_readout_ccd(camera, nullptr, l.one);
  }

  HANDLE frames_ = nullptr;
};

TEST_F(OutOfMemory, EveryAllocationOfAnAcquisitionFailsCleanly) {
  const Lists l = lists();
  const INT32 blocks = tvx_test_platform_blocks();
  int walked = 0;
  for (INT32 nth = 1;; ++nth) {
    tvx_test_fail_allocation(nth, FALSE);
    const bool ok = acquire(l);
    const bool injected = tvx_test_injected_failures() > 0;
    tvx_test_fail_allocation(0, FALSE);
    let_go(l);
    if (!injected) {
      EXPECT_TRUE(ok) << whole_story();
      break;
    }
    ++walked;
    ASSERT_FALSE(ok) << "allocation " << nth << " failed and nobody noticed";
    EXPECT_EQ(category(), ERR_OS) << "allocation " << nth << ":\n" << print_all(ERR_MODE_TRACEBACK);
    EXPECT_EQ((*stack())->code, ENOMEM) << "allocation " << nth;
    EXPECT_EQ((*stack())->next, nullptr)
        << "allocation " << nth << ": a second record on top of the failure:\n"
        << print_all(ERR_MODE_TRACEBACK);
    const std::string cause = terminal();
    EXPECT_TRUE(cause == "handle_allocate: unable to continue" ||
                cause == "standard_allocate: unable to continue")
        << "allocation " << nth << ": " << cause;
    const std::string told = whole_story();
    // The camera still works. A new one is started, which reloads the server's programs that a
    // start which failed may have left half loaded; then nothing may be left over.
    ASSERT_TRUE(still_works(l)) << "after allocation " << nth << ": " << whole_story();
    ASSERT_EQ(tvx_test_platform_blocks(), blocks) << "allocation " << nth << " leaked:\n" << told;
  }
  EXPECT_GT(walked, 400) << "a camera's start and its pictures allocate";
  RecordProperty("allocations", walked);
}

}  // namespace
