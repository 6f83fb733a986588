// The adapter against a scripted card and the simulated one: set-up checks, control-register
// patterns, waits that give up, status texts and checks, and the transfers' byte order.
#include <sys/resource.h>

#include <cstdio>
#include <regex>
#include <tuple>

#include "foundation/wait.h"
#include "link/link_support.h"
#include "sim/slot.h"

namespace {

using namespace tvx_test;

constexpr WORD kBase = 0x200;
const std::vector<INT32> kWaitCauses = {0x2000, 0x2003, 0x2001, 0x200a, 0x2005};

class Adapter : public LinkTest {
 protected:
  void TearDown() override {
    atlink_delete(link_);
    LinkTest::TearDown();
  }
  HANDLE open(const char *name, INT32 timeout = 100, INT32 base = kBase) {
    link_ = atlink_new(timeout, name, base);
    return link_;
  }
  HANDLE link_ = nullptr;
};

TEST_F(Adapter, TimeoutMustLieBetweenOneAnd6499) {
  ASSERT_NE(open("atlink", 250), nullptr);
  for (INT32 bad : {0, 6500, -1}) {
    EXPECT_FALSE(atlink_set_timeout(link_, bad));
    EXPECT_EQ((*stack())->category, ERR_OUT_OF_RANGE);
    EXPECT_EQ(last_causes(), std::vector<INT32>{0x3001});
    err_reset_all(stack());
  }
  EXPECT_HAS(printed(link_), ", 250, ");  // the old value is kept
  EXPECT_FALSE(atlink_set_timeout(link_, 6500));
  EXPECT_HAS(last_text(), "io_timeout (6500) is out of range: 1 - 6500");
  err_reset_all(stack());
  EXPECT_TRUE(atlink_set_timeout(link_, 1));
  EXPECT_TRUE(atlink_set_timeout(link_, 6499));
  // io_loops is calibrated from the timer: a positive count for any time-out.
  std::smatch m;
  const std::string text = printed(link_);
  ASSERT_TRUE(std::regex_match(
      text, m, std::regex(R"(atlink\(0, -1, 6499, (\d+), 0, addr\(200, 202, 204\)\))")))
      << text;
  EXPECT_GT(std::stol(m[1]), 0);
}

TEST_F(Adapter, BaseAddressIsOneOfFour) {
  ASSERT_NE(open("atlink"), nullptr);
  EXPECT_FALSE(atlink_set_base_address(link_, 0x280));
  EXPECT_HAS(last_text(),
             "invalid base address 0x280 (valid addresses 0x150, 0x200, 0x250, 0x300).");
  EXPECT_EQ(last_causes(), std::vector<INT32>{0x3002});
  err_reset_all(stack());
  EXPECT_HAS(printed(link_), "addr(200, 202, 204)");  // ports unchanged
  EXPECT_TRUE(atlink_set_base_address(link_, 0x300));
  EXPECT_HAS(printed(link_), "addr(300, 302, 304)");
  // A constructor that meets a bad address gives no adapter and keeps nothing.
  EXPECT_EQ(atlink_new(100, "atlink", 0x151), nullptr);
  EXPECT_HAS(last_text(), "atlink_new");
}

TEST_F(Adapter, LinkSpeedBitsOnTheSimulatedCard) {
  ASSERT_NE(open("simulator"), nullptr);
  tvx::sim::Card *card = tvx::sim::card_at(kBase);
  ASSERT_NE(card, nullptr);
  ASSERT_TRUE(atlink_write_control_register(link_, 0x8101, 1));
  const std::pair<INT16, WORD> cases[] = {{20, 0x00E0}, {5, 0x00C0}, {10, 0x0000}, {5, 0x00C0}};
  for (const auto &[speed, bits] : cases) {
    EXPECT_TRUE(atlink_linkspeed(link_, speed));
    EXPECT_EQ(card->control() & 0x00E0, bits) << speed;
    EXPECT_EQ(card->control() & ~0x00E0, 0x8101) << "other bits kept at " << speed;
  }
  EXPECT_FALSE(atlink_linkspeed(link_, 15));
  EXPECT_HAS(last_text(), "invalid transputer link speed setting '15'. (valid speeds 5, 10, 20).");
  EXPECT_EQ(card->control() & 0x00E0, 0x00C0);
  err_reset_all(stack());
  // The resets leave both transputers running and the FIFOs out of reset.
  EXPECT_TRUE(atlink_transputer_reset_low(link_));
  EXPECT_EQ(card->local(), tvx::sim::Card::Local::reset);
  EXPECT_TRUE(atlink_transputer_reset(link_));
  EXPECT_EQ(card->control(), 0x81C1);
  EXPECT_EQ(card->local(), tvx::sim::Card::Local::rom_loader);
  EXPECT_EQ(card->distant().state(), tvx::sim::Distant::State::awaiting_boot);
}

TEST_F(Adapter, ControlChangesReadModifyWriteAndRefuseUnknownModes) {
  ScriptedCard card(kBase);
  ASSERT_NE(open("atlink"), nullptr);
  card.control = 0x1234;
  EXPECT_TRUE(atlink_write_control_register(link_, 0x0030, 0));
  EXPECT_TRUE(atlink_write_control_register(link_, 0x8001, 1));
  EXPECT_TRUE(atlink_disable_interrupts(link_));
  EXPECT_EQ(card.control_writes, (std::vector<WORD>{0x1204, 0x9205, 0x9005}));
  EXPECT_FALSE(atlink_write_control_register(link_, 0x0001, 2));
  EXPECT_HAS(last_text(), "change_bits-> unknown binary value");
  EXPECT_EQ(card.control_writes.size(), 3u) << "nothing written";
  err_reset_all(stack());
  EXPECT_FALSE(atlink_enable_interrupts(link_));
  EXPECT_EQ((*stack())->category, ERR_PROGRAMMER);
  EXPECT_HAS(last_text(), "not implemented.");
  EXPECT_EQ(card.control_writes.size(), 3u);
}

// The pulses, as the card sees them, and how long each takes on the clock.
TEST_F(Adapter, ResetPulsesHaveTheirPolarityAndLength) {
  ScriptedCard card(kBase);
  ASSERT_NE(open("atlink"), nullptr);
  card.control = 0x0100;
  struct Case {
    BOOL (*run)(HANDLE);
    std::vector<WORD> writes;
    DWORD centiseconds;
  };
  const Case cases[] = {
      {atlink_local_transputer_reset, {0x0100, 0x0101}, 4},
      {atlink_distant_transputer_reset, {0x0103, 0x0101}, 4},
      {atlink_fifo_reset, {0x0101, 0x8101}, 0},
      {atlink_transputer_reset, {0x0101, 0x8101, 0x8100, 0x8101, 0x8103, 0x8101}, 10},
      {atlink_analyse, {0x810D, 0x010D, 0x810D, 0x810C, 0x810D, 0x810F, 0x810D, 0x8101}, 14},
  };
  for (const Case &c : cases) {
    card.control_writes.clear();
    const DWORD start = time_centiseconds();
    EXPECT_TRUE(c.run(link_));
    EXPECT_EQ(card.control_writes, c.writes);
    EXPECT_EQ(time_centiseconds() - start, c.centiseconds);
  }
}

TEST_F(Adapter, WaitsGiveUpAfterTheTimeoutWithFiveCauses) {
  ScriptedCard card(kBase);
  ASSERT_NE(open("atlink", 300), nullptr);
  card.status = 0x005A;  // receiver empty, transmit FIFO full
  DWORD start = time_centiseconds();
  EXPECT_FALSE(atlink_wait_for_input(link_));
  EXPECT_GE(time_centiseconds() - start, 300u);
  EXPECT_LT(time_centiseconds() - start, 310u);
  EXPECT_EQ((*stack())->category, ERR_TIMEOUT);
  EXPECT_EQ(last_causes(), kWaitCauses);
  EXPECT_HAS(last_text(), "atlink_wait_for_input-> no input available (Receiver Fifo Empty).");
  err_reset_all(stack());
  start = time_centiseconds();
  EXPECT_FALSE(atlink_write_INT16(link_, 7));
  EXPECT_GE(time_centiseconds() - start, 300u);
  EXPECT_EQ(last_causes(), kWaitCauses);
  EXPECT_HAS(
      last_text(),
      "atlink_write_INT16-> .\natlink_wait_to_output-> unable to output (Transmit Fifo Full).");
  err_reset_all(stack());
  // A word that comes in during the wait ends it.
  card.incoming = {0x0102};
  INT16 value = 0;
  EXPECT_FALSE(atlink_read_INT16_array(link_, &value, 1));
  // The array reads in the single value's name.
  EXPECT_HAS(last_text(), "atlink_read_INT16-> .\natlink_read_BYTE_array");
}

// A silent device: the wait for it sleeps once it has waited a while, and gives up on an abort
// only where the controller can be stopped afterwards.
TEST_F(Adapter, AWaitForASilentDeviceSleepsAndMeetsAnAbortOnlyWhenInterruptible) {
  ScriptedCard card(kBase);
  ASSERT_NE(open("atlink", 20), nullptr);
  tvx_test_clock_real();
  rusage before{}, after{};
  getrusage(RUSAGE_THREAD, &before);
  EXPECT_FALSE(atlink_wait_for_input(link_));
  getrusage(RUSAGE_THREAD, &after);
  EXPECT_GE(after.ru_nvcsw - before.ru_nvcsw, 10) << "a spinning poll never gives way";
  EXPECT_EQ((*stack())->category, ERR_TIMEOUT);
  err_reset_all(stack());

  tvx_test_clock_virtual(1000);
  tvx_abort_request();
  EXPECT_FALSE(atlink_wait_for_input(link_));
  EXPECT_EQ((*stack())->category, ERR_TIMEOUT) << "a reply is waited for to the end";
  EXPECT_TRUE(tvx_abort_pending());
  err_reset_all(stack());
  {
    tvx::Interruptible inside;
    const DWORD start = time_centiseconds();
    EXPECT_FALSE(atlink_wait_for_input(link_));
    EXPECT_LE(time_centiseconds() - start, 1u);
  }
  EXPECT_EQ((*stack())->category, ERR_INTERRUPT);
  EXPECT_HAS(last_text(), "atlink_wait_for_input-> aborted at the application's request.");
  EXPECT_FALSE(tvx_abort_pending());
}

TEST_F(Adapter, IntegersCrossTheLinkLowByteFirst) {
  ScriptedCard card(kBase);
  ASSERT_NE(open("atlink"), nullptr);
  EXPECT_TRUE(atlink_write_INT16(link_, -2));
  EXPECT_TRUE(atlink_write_INT32(link_, 0x12345678));
  const INT16 pair[] = {0x0102, 0x0304};
  EXPECT_TRUE(atlink_write_INT16_array(link_, pair, 2));
  const WORD words[] = {0xBEEF, 0x0001};
  EXPECT_TRUE(atlink_write_WORD_array(link_, words, 2));
  EXPECT_TRUE(atlink_write_BYTE(link_, 0x7F));
  EXPECT_EQ(card.sent, (std::vector<WORD>{0xFE, 0xFF, 0x78, 0x56, 0x34, 0x12, 0x02, 0x01, 0x04,
                                          0x03, 0xBEEF, 0x0001, 0x7F}));

  // Reading takes the low byte of each port word for bytes, and the whole word for WORDs.
  card.incoming = {0x11FE, 0x22FF, 0x78, 0x56, 0x34, 0x12, 0x02, 0x01, 0x04, 0x80, 0xBEEF, 0x99};
  INT16 i16 = 0, array[2] = {};
  INT32 i32 = 0;
  WORD word = 0;
  BYTE byte = 0;
  ASSERT_TRUE(atlink_read_INT16(link_, &i16) && atlink_read_INT32(link_, &i32) &&
              atlink_read_INT16_array(link_, array, 2) && atlink_read_WORD(link_, &word) &&
              atlink_read_BYTE(link_, &byte));
  EXPECT_EQ(std::vector<INT32>({i16, i32, array[0], array[1], word, byte}),
            std::vector<INT32>({-2, 0x12345678, 0x0102, INT16(0x8004), 0xBEEF, 0x99}));
}

// The error flags read 1 when set, the FIFO flags 0 (bit 0x08: half full).
TEST_F(Adapter, StatusTextsFollowEachFlagsPolarity) {
  ScriptedCard card(kBase);
  ASSERT_NE(open("atlink"), nullptr);
  const std::tuple<WORD, WORD, const char *> cases[] = {
      {0x0000, 0x03, "Local transputer not in error\nDistant transputer not in error\n"},
      {0x0003, 0x03, "Local transputer in error\nDistant transputer in error\n"},
      {0x0003, 0x08, "Receiver fifo half full\n"},
      {0x0008, 0x08, ""},
      {0x0020, 0xFC,
       "Receiver fifo half full\nReceiver fifo full\nTransmit fifo not empty\n"
       "Transmit fifo half full\nTransmit fifo full\n"},
  };
  for (const auto &[status, mask, expected] : cases) {
    char text[264];
    card.status = status;
    EXPECT_TRUE(atlink_describe_status(link_, mask, text));
    EXPECT_STREQ(text, expected) << std::hex << status << " " << mask;
  }
}

TEST_F(Adapter, CheckStatusNamesTheFirstFault) {
  ScriptedCard card(kBase);
  ASSERT_NE(open("atlink"), nullptr);
  struct Case {
    WORD status;
    const char *text;
    std::vector<INT32> causes;
  };
  const Case cases[] = {
      {0x00FF, "local transputer in error", {0x200c}},
      {0x00FE, "host transmit fifo not empty", {0x3004, 0x200c}},
      {0x00DA, "host receiver fifo not empty", {0x200c}},
  };
  // A word waits in the receiver each time.
  for (const Case &c : cases) {
    card.status = c.status;
    card.incoming = {0};
    EXPECT_FALSE(atlink_check_status(link_));
    EXPECT_EQ((*stack())->category, ERR_OUT_OF_RANGE);
    EXPECT_HAS(last_text(), std::string("atlink_check_status-> ") + c.text);
    EXPECT_EQ(last_causes(), c.causes);
    err_reset_all(stack());
  }
  card.status = 0x00DA;
  card.incoming.clear();
  EXPECT_TRUE(atlink_check_status(link_));
  WORD errors = 0;
  card.status = 0x00DB;
  EXPECT_TRUE(atlink_transputer_error(link_, &errors));
  EXPECT_EQ(errors, 0x0003);
}

TEST_F(Adapter, StaleHandleIsRefusedWithTheOperationsName) {
  ASSERT_NE(open("atlink"), nullptr);
  HANDLE stale = link_;
  EXPECT_TRUE(atlink_delete(link_));
  link_ = nullptr;
  EXPECT_FALSE(atlink_linkspeed(stale, 5));
  EXPECT_HAS(last_text(), "atlink_linkspeed-> .\nhandle_lock-> invalid memory handle");
  err_reset_all(stack());
  EXPECT_FALSE(atlink_verbose(stale));
  EXPECT_TRUE(atlink_delete(nullptr));
}

TEST_F(Adapter, RunningOutOfMemoryLeavesNothingBehind) {
  for (INT32 nth = 1; nth <= 2; ++nth) {
    tvx_test_fail_allocation(nth, FALSE);
    EXPECT_EQ(open("simulator"), nullptr) << nth;
    EXPECT_HAS(last_text(), "atlink_new");
    EXPECT_FALSE(port_claimed(kBase)) << "no card left on the bus";
    err_reset_all(stack());
  }
  tvx_test_fail_allocation(0, FALSE);
}

// The simulated card is on the bus while an adapter named "simulator" holds it, and only then.
TEST_F(Adapter, SimulatorComesAndGoesWithTheAdapter) {
  ASSERT_NE(open("atlink"), nullptr);
  EXPECT_FALSE(port_claimed(kBase)) << "any other name uses the ports as they are";
  atlink_delete(link_);
  ASSERT_NE(open("simulator"), nullptr);
  EXPECT_TRUE(port_claimed(kBase + 4));
  EXPECT_TRUE(atlink_set_base_address(link_, 0x150));
  EXPECT_FALSE(port_claimed(kBase));
  EXPECT_TRUE(port_claimed(0x150));
  EXPECT_TRUE(atlink_close_device(link_));
  EXPECT_FALSE(port_claimed(0x150));
  ScriptedCard other(0x300);
  EXPECT_EQ(atlink_new(100, "simulator", 0x300), nullptr) << "the ports are taken";
  EXPECT_HAS(last_text(), "port 0x300 is already claimed");
}

}  // namespace
