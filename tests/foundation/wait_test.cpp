// Waits on the real clock sleep rather than spin, last as long as asked, and give up on an abort
// the application asks for, from this thread or another, which they then forget.
#include <sys/resource.h>

#include <chrono>
#include <thread>

#include "support/frame.h"

namespace {

using namespace tvx_test;

// Times this thread gave up the processor of its own accord.
long voluntary_switches() {
  rusage use{};
  getrusage(RUSAGE_THREAD, &use);
  return use.ru_nvcsw;
}

class Waits : public FrameTest {
 protected:
  void TearDown() override {
    tvx_abort_clear();
    FrameTest::TearDown();
  }
};

TEST_F(Waits, ADelaySleepsThroughItsTime) {
  const long switches = voluntary_switches();
  const DWORD start = time_centiseconds();
  EXPECT_TRUE(delay_centiseconds(20));
  EXPECT_GE(time_centiseconds() - start, 20u);
  // A spinning wait never gives up the processor; a sleeping one does at least every centisecond.
  EXPECT_GE(voluntary_switches() - switches, 10);
}

TEST_F(Waits, AnAbortEndsTheDelayAndIsForgotten) {
  tvx_abort_request();
  EXPECT_TRUE(tvx_abort_pending());
  tvx_abort_clear();
  EXPECT_FALSE(tvx_abort_pending());
  EXPECT_TRUE(delay_centiseconds(1)) << "a cleared abort is not met";

  tvx_test_clock_virtual(1000);
  tvx_abort_request();
  EXPECT_FALSE(delay_centiseconds(500));
  EXPECT_LE(time_centiseconds(), 1001u);
  EXPECT_FALSE(tvx_abort_pending()) << "the wait that met it consumed it";
  EXPECT_EQ((*stack())->category, ERR_INTERRUPT);
  EXPECT_NE(print_last(ERR_MODE_TRACEBACK)
                .find("delay_centiseconds-> aborted at the application's request."),
            std::string::npos)
      << print_last(ERR_MODE_TRACEBACK);
  err_reset_all(stack());
  EXPECT_TRUE(delay_centiseconds(500));
  EXPECT_EQ(time_centiseconds(), 1500u);

  // From another thread, into a long wait on the real clock.
  tvx_test_clock_real();
  std::thread asker([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    tvx_abort_request();
  });
  const DWORD start = time_centiseconds();
  EXPECT_FALSE(delay_seconds(30));
  asker.join();
  EXPECT_LT(time_centiseconds() - start, 500u) << "the abort, not the time, ended the wait";
  EXPECT_FALSE(tvx_abort_pending());
}

}  // namespace
