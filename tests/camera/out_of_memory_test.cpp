// Running out of memory anywhere in a camera's start or in a whole acquisition: every allocation
// is made to fail in turn, and each time the call must fail with the allocation failure itself on
// top of the error stack, give back every block it took, and leave the camera able to take the
// next picture.
#include <cerrno>
#include <functional>

#include "camera/camera_support.h"
#include "support/error_trace.h"

namespace {

using namespace tvx_test;

class OutOfMemory : public CameraTest {
 protected:
  void SetUp() override {
    CameraTest::SetUp();
    // The small chip cut to 24 x 12, its 13 reference columns kept: a readout costs a small part
    // of the small chip's, and every path is the same.
    std::string chip = read_text(shipped("sim_small.def"));
    for (const auto &[from, to] : {std::pair<std::string, std::string>{"xsize = 80", "xsize = 24"},
                                   {"ysize = 64", "ysize = 12"},
                                   {"active_area = 0, 0, 64, 64", "active_area = 0, 0, 8, 12"}})
      chip.replace(chip.find(from), from.size(), to);
    chip_file_ = file("tiny.def", chip);
    camera_delete(camera_);
    camera_ = camera_new(server_, chip_file_.c_str());
    ASSERT_NE(camera_, nullptr) << whole_story();
    frames_ = list_new();
    for (int i = 0; i < 2; ++i) list_append_tail(frames_, images());
    two_regions_ = regions({{1, 1, 6, 4}, {12, 6, 8, 5}});
    small_region_ = regions({{2, 2, 3, 3}});
    one_ = images();
    two_ = images();
    // Two channels are joined with the stored line, not a fitted one: the coordinate scene has no
    // stars to fit it to.
    ASSERT_TRUE(camera_set_20_bit_data(camera_, 16.0, 0.0, FALSE));
  }
  void TearDown() override {
    list_delete(frames_, nullptr);  // its image lists are the fixture's
    CameraTest::TearDown();
  }

  // The application lets go of the images it was given.
  void let_go() {
    for (HANDLE list : {one_, two_}) list_empty(list, image_delete);
    for (INT32 n = 1; n <= list_size(frames_); ++n)
      list_empty(list_get_nth_object(frames_, n), image_delete);
  }

  // Fails the 1st, 2nd, ... allocation of `run` until it runs with none failed; returns how many
  // allocations were failed. A start that failed may have left the server's programs half
  // loaded: `reload` has the camera load them again before it shows that it still works.
  int walk(const std::function<bool()> &run, bool reload) {
    const INT32 blocks = tvx_test_platform_blocks();
    for (INT32 nth = 1;; ++nth) {
      tvx_test_fail_allocation(nth, FALSE);
      const bool ok = run();
      const bool injected = tvx_test_injected_failures() > 0;
      tvx_test_fail_allocation(0, FALSE);
      let_go();
      if (!injected) {
        EXPECT_TRUE(ok) << whole_story();
        return nth - 1;
      }
      EXPECT_FALSE(ok) << "allocation " << nth << " failed and nobody noticed";
      EXPECT_EQ(category(), ERR_OS) << "allocation " << nth << ":\n"
                                    << print_all(ERR_MODE_TRACEBACK);
      EXPECT_EQ((*stack())->code, ENOMEM) << "allocation " << nth;
      EXPECT_EQ((*stack())->next, nullptr)
          << "allocation " << nth << ": a second record on top of the failure:\n"
          << print_all(ERR_MODE_TRACEBACK);
      const std::string cause = terminal();
      EXPECT_TRUE(cause == "handle_allocate: unable to continue" ||
                  cause == "standard_allocate: unable to continue")
          << "allocation " << nth << ": " << cause;
      const std::string told = whole_story();
      const bool works = (!reload || (server_empty(server_) && camera_loadall(camera_))) &&
                         server_set_adc_mode(server_, 1) && camera_set_operation_mode(camera_, 0) &&
                         camera_readout_ccd(camera_, small_region_, one_);
      let_go();
      if (!works) {
        ADD_FAILURE() << "after allocation " << nth << ": " << whole_story();
        return -1;
      }
      if (tvx_test_platform_blocks() != blocks) {
        ADD_FAILURE() << "allocation " << nth << " leaked:\n" << told;
        return -1;
      }
    }
  }

  HANDLE frames_ = nullptr, two_regions_ = nullptr, small_region_ = nullptr;
  HANDLE one_ = nullptr, two_ = nullptr;
  std::string chip_file_;
};

TEST_F(OutOfMemory, EveryAllocationOfACameraStartFailsCleanly) {
  const int walked = walk(
      [this] {
        HANDLE camera = camera_new(server_, chip_file_.c_str());
        camera_delete(camera);
        return camera != nullptr;
      },
      true);
  EXPECT_GT(walked, 200) << "the definition files and the programs are read into blocks";
  RecordProperty("allocations", walked);
}

// The whole chip read raw, two regions in one pass, a series processed in mode 3, and
// two-channel data joined into 20 bits with image zero taken off in mode 2; the first failure
// ends it.
TEST_F(OutOfMemory, EveryAllocationOfAnAcquisitionFailsCleanly) {
  const int walked = walk(
      [this] {
        return server_set_adc_mode(server_, 1) && camera_set_operation_mode(camera_, 0) &&
               camera_readout_ccd(camera_, nullptr, one_) &&
               camera_readout_ccd(camera_, two_regions_, two_) &&
               camera_set_operation_mode(camera_, 3) &&
               camera_expose_and_readout_ccd(camera_, nullptr, frames_, 100, 0) &&
               camera_set_operation_mode(camera_, 2) && server_set_adc_mode(server_, 17) &&
               camera_readout_ccd(camera_, nullptr, one_);
      },
      false);
  EXPECT_GT(walked, 100) << "images, regions, read sequences and parameters are blocks";
  RecordProperty("allocations", walked);
}

}  // namespace
