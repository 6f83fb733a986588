// A readout that fails or is aborted leaves nothing behind: the controller's stream stopped, the
// link drained, nothing allocated, and the same camera reads the coordinate scene pixel-exact
// right after; a new server starts after a failure of the old one.
#include <chrono>
#include <thread>

#include "camera/camera_support.h"
#include "sim/card.h"
#include "sim/slot.h"

namespace {

using namespace tvx_test;

constexpr INT32 kStop = 62;

class Recover : public CameraTest {
 protected:
  // Each image of `list` holds the scene of its region, or of the whole chip when there are none.
  void expect_scene(HANDLE list, HANDLE regions) {
    const INT32 n = regions != nullptr ? list_size(regions) : 0;
    ASSERT_EQ(list_size(list), std::max(n, 1));
    for (INT32 i = 1; i <= list_size(list); ++i) {
      INT32 x = 0, y = 0, w = 0, h = 0;
      if (n > 0) region_get(list_get_nth_object(regions, i), &x, &y, &w, &h);
      std::string where;
      EXPECT_EQ(mismatches(list_get_nth_object(list, i), x, y, 1, 1, &where), 0) << where;
    }
  }

  void expect_reads_back(HANDLE regions) {
    HANDLE list = images();
    ASSERT_TRUE(camera_readout_ccd(camera_, regions, list)) << whole_story();
    expect_scene(list, regions);
  }

  // Frames of a series, each an image list, deleted with the test.
  HANDLE frames(int n) {
    HANDLE lists = list_new();
    for (int i = 0; i < n; ++i) list_append_tail(lists, images());
    series_.push_back(lists);
    return lists;
  }

  // The link holds nothing for the host, and the controller sends nothing more.
  void expect_link_quiet() {
    tvx::sim::Card *card = tvx::sim::card_at(kSimBase);
    ASSERT_NE(card, nullptr);
    WORD status = 0;
    EXPECT_EQ(card->receive_count(), 0u);
    EXPECT_EQ((status = card->read(2)) & ATLINK_RX_NOT_EMPTY, 0) << "status " << status;
  }

  // A new server and camera over the same simulated card.
  void start_again(const char *chip = "sim_small.def") {
    camera_delete(camera_);
    camera_ = nullptr;
    server_delete(server_);
    server_ = server_new(shipped(chip).c_str());
    ASSERT_NE(server_, nullptr) << whole_story();
    camera_ = camera_new(server_, shipped(chip).c_str());
    ASSERT_NE(camera_, nullptr) << whole_story();
    // The new server took the scene of its hardware file.
    ASSERT_TRUE(tvx_test_simulator_scene(TVX_SCENE_COORDINATES, 1, FALSE));
  }

  // Runs `acquire` on the real clock while another thread asks for an abort 50 ms into it, and
  // checks that it failed and left the camera ready: the abort forgotten, the controller told to
  // stop, the link quiet. Returns how long `acquire` took.
  template <class Acquire>
  std::chrono::steady_clock::duration abort_during(Acquire acquire) {
    tvx_test_clock_real();
    std::thread asker([] {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      tvx_abort_request();
    });
    const auto start = std::chrono::steady_clock::now();
    const BOOL ok = acquire();
    const auto took = std::chrono::steady_clock::now() - start;
    asker.join();
    tvx_test_clock_virtual(1000);
    EXPECT_FALSE(ok);
    expect_aborted();
    return took;
  }

  void expect_aborted() {
    const std::string told = whole_story();
    EXPECT_NE(told.find("aborted at the application's request."), std::string::npos) << told;
    EXPECT_FALSE(tvx_abort_pending()) << "the abort is met once";
    EXPECT_EQ(controller().controls().back(), kStop);
    EXPECT_FALSE(controller().state().exposing) << "the shutter is closed";
    expect_link_quiet();
  }

  void TearDown() override {
    tvx_abort_clear();
    for (HANDLE lists : series_) list_delete(lists, nullptr);
    CameraTest::TearDown();
  }
  std::vector<HANDLE> series_;
};

struct Fault {
  const char *name;
  INT32 stream_fault, value;  // or, with no stream fault, words that cross before all are lost
  const char *found;
};

constexpr Fault kFaults[] = {
    {"a block too long", TVX_STREAM_BLOCK_SIZE, 31, "block size out of range."},
    {"an empty block", TVX_STREAM_BLOCK_SIZE, 0, "block size out of range."},
    {"a stream that breaks off", TVX_STREAM_STOP_AFTER, 700, "sync failure on block size."},
    {"no completion", TVX_STREAM_NO_COMPLETION, 0, "failed to complete"},
    {"words lost on the link", TVX_STREAM_FAULT_NONE, 3000, "sync failure on"},
};

void set_fault(const Fault &f, bool on) {
  if (f.stream_fault != TVX_STREAM_FAULT_NONE) {
    ASSERT_TRUE(tvx_test_stream_fault(on ? f.stream_fault : TVX_STREAM_FAULT_NONE, f.value));
    return;
  }
  // The controller's end keeps the speed the server switched the link to.
  ASSERT_TRUE(tvx_test_simulator_set(TVX_SIM_CONTROLLER_SPEED, 20));
  ASSERT_TRUE(tvx_test_simulator_set(TVX_SIM_DROP_AFTER, on ? f.value : 0));
}

TEST_F(Recover, EveryStreamFaultLeavesTheCameraReady) {
  for (const bool sequence : {false, true}) {
    for (const bool series : {false, true}) {
      for (const Fault &f : kFaults) {
        SCOPED_TRACE(std::string(f.name) + (sequence ? ", read sequence" : ", one region") +
                     (series ? ", series" : ", one readout"));
        HANDLE regions = sequence ? this->regions({{0, 0, 40, 64}, {40, 0, 40, 64}})
                                  : this->regions({{0, 0, 80, 64}});
        const size_t controls = controller().controls().size();
        set_fault(f, true);
        const BOOL ok = series ? camera_expose_and_readout_ccd(camera_, regions, frames(2), 100, 0)
                               : camera_readout_ccd(camera_, regions, images());
        set_fault(f, false);
        EXPECT_FALSE(ok);
        const std::string told = whole_story();
        EXPECT_NE(told.find(f.found), std::string::npos) << told;
        expect_link_quiet();
        const std::vector<int> &sent = controller().controls();
        if (f.stream_fault != TVX_STREAM_FAULT_NONE) {
          ASSERT_GT(sent.size(), controls);
          EXPECT_EQ(sent.back(), kStop) << "the controller was told to stop";
        }
        expect_reads_back(regions);
        EXPECT_TRUE(controller().complaints().empty());
      }
    }
  }
  // A new server starts after a failure of the old one, however it was left.
  for (const Fault &f : kFaults) {
    SCOPED_TRACE(f.name);
    set_fault(f, true);
    EXPECT_FALSE(camera_readout_ccd(camera_, nullptr, images()));
    set_fault(f, false);
    err_reset_all(stack());
    start_again();
    expect_reads_back(nullptr);
  }
}

TEST_F(Recover, AnAbortAskedBeforeAReadoutFailsItAndIsForgotten) {
  tvx_abort_request();
  EXPECT_FALSE(camera_readout_ccd(camera_, nullptr, images()));
  expect_aborted();
  expect_reads_back(nullptr);
}

TEST_F(Recover, AnAbortEndsALongExposureAndTheShutterCloses) {
  const auto took = abort_during([&] { return camera_expose_ccd(camera_, 30000); });
  EXPECT_LT(took, std::chrono::seconds(10)) << "the abort, not the exposure's time, ended it";
  expect_reads_back(nullptr);
}

TEST_F(Recover, AnAbortBetweenFramesKeepsTheFrameAlreadyRead) {
  for (const bool sequence : {false, true}) {
    SCOPED_TRACE(sequence ? "read sequence" : "one region");
    HANDLE regions = sequence ? this->regions({{0, 0, 40, 30}, {40, 30, 40, 30}})
                              : this->regions({{0, 0, 80, 60}});
    HANDLE lists = frames(3);
    // No exposure, and half a minute between frames: the first is read at once.
    const auto took = abort_during(
        [&] { return camera_expose_and_readout_ccd(camera_, regions, lists, 0, 30000); });
    EXPECT_LT(took, std::chrono::seconds(10)) << "the abort, not the frame delay, ended it";
    expect_reads_back(regions);
    // A read-sequence series unscrambles its frames once the last is read: it has none to keep.
    if (!sequence) expect_scene(list_get_nth_object(lists, 1), regions);
  }
}

TEST_F(Recover, AnAbortEndsAReadoutOfTheLargeChip) {
  start_again("sim_large.def");
  // At the pixel rate the whole chip takes seconds.
  ASSERT_TRUE(tvx_test_simulator_scene(TVX_SCENE_COORDINATES, 1, TRUE));
  abort_during([&] { return camera_readout_ccd(camera_, nullptr, images()); });
  EXPECT_TRUE(controller().state().stopped) << "the stream was stopped before its end";
  EXPECT_EQ(controller().state().frames_sent, 0);
  ASSERT_TRUE(tvx_test_simulator_scene(TVX_SCENE_COORDINATES, 1, FALSE));
  expect_reads_back(regions({{1000, 1500, 64, 32}}));
}

}  // namespace
