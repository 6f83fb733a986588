// The port bus: devices get their own ports and nothing else, an empty slot reads as a floating
// bus, and the interval timer counts down from the clock.
#include <cstring>

#include "link/link_support.h"

namespace {

using namespace tvx_test;

class PortBus : public LinkTest {};

TEST_F(PortBus, DeviceAnswersOnItsRangeOnly) {
  {
    ScriptedCard card(0x250);
    card.incoming = {0x1234};
    EXPECT_EQ(port_in16(0x250), 0x1234);
    EXPECT_EQ(port_in16(0x254), 0);  // control as the card holds it
    port_out16(0x254, 0x8001);
    EXPECT_EQ(card.control, 0x8001);
    EXPECT_EQ(port_in16(0x24E), PORT_FLOATING_BUS) << "the port below the range";
    EXPECT_EQ(port_in16(0x256), PORT_FLOATING_BUS) << "the port above the range";
    EXPECT_TRUE(port_claimed(0x255));
    EXPECT_FALSE(port_claimed(0x256));
  }
  // Detached with the card: the ports float again and a write goes nowhere.
  EXPECT_EQ(port_in16(0x254), PORT_FLOATING_BUS);
  port_out16(0x254, 0);
  EXPECT_FALSE(port_claimed(0x250));
}

TEST_F(PortBus, RefusesClaimsItCannotHonour) {
  ScriptedCard card(0x300);
  auto read = ScriptedCard::read;
  auto write = ScriptedCard::write;
  EXPECT_FALSE(port_attach(0x2FE, 4, read, write, nullptr));
  EXPECT_NE(last_text().find("port 0x300 is already claimed"), std::string::npos) << last_text();
  err_reset_all(stack());
  EXPECT_FALSE(port_attach(0xFFFE, 4, read, write, nullptr));
  err_reset_all(stack());
  EXPECT_FALSE(port_attach(0x100, 0, read, write, nullptr));
  err_reset_all(stack());
  EXPECT_FALSE(port_attach(0x100, 2, nullptr, write, nullptr));
  err_reset_all(stack());
  EXPECT_FALSE(port_detach(0x302)) << "only the start of a range names its device";
  err_reset_all(stack());
  // The refused claims took nothing: the card still answers and the rest is free.
  EXPECT_EQ(port_in16(0x304), 0);
  EXPECT_FALSE(port_claimed(0x2FE));
  EXPECT_FALSE(port_claimed(0xFFFF));
  EXPECT_FALSE(port_attach(PORT_INTERVAL_TIMER, 1, read, write, nullptr));
}

// Channel 0 counts down at 1.193182 MHz: two latched reads a millisecond apart differ by about
// 1193 ticks (modulo the counter's wrap).
TEST_F(PortBus, IntervalTimerCountsDownFromTheClock) {
  auto counter = [] {
    const WORD low = port_in16(PORT_INTERVAL_TIMER) & 0xFF;
    const WORD high = port_in16(PORT_INTERVAL_TIMER) & 0xFF;
    return static_cast<WORD>(high << 8 | low);
  };
  const WORD first = counter();
  timespec start{}, now{};
  clock_gettime(CLOCK_MONOTONIC, &start);
  do clock_gettime(CLOCK_MONOTONIC, &now);
  while ((now.tv_sec - start.tv_sec) * 1000000000L + (now.tv_nsec - start.tv_nsec) < 1000000L);
  const WORD second = counter();
  const auto elapsed = static_cast<WORD>(first - second);
  EXPECT_GE(elapsed, 1193);
  EXPECT_LT(elapsed, 1193 * 20) << "a millisecond, give or take a busy machine";
}

}  // namespace
