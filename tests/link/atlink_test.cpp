// The adapter against a scripted card and the simulated one: set-up checks, control-register
// patterns, waits that give up, status texts and checks, and the transfers' byte order.
#include <cstdio>
#include <regex>

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
  std::string printed() {
    FILE *f = std::tmpfile();
    atlink_print(link_, f);
    std::rewind(f);
    char line[256] = {};
    std::fgets(line, sizeof line, f);
    std::fclose(f);
    return line;
  }
  WORD control() {
    WORD value = 0;
    EXPECT_TRUE(atlink_read_control_register(link_, 0xFFFF, &value));
    return value;
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
  EXPECT_NE(printed().find(", 250, "), std::string::npos) << "the old value is kept";
  EXPECT_FALSE(atlink_set_timeout(link_, 6500));
  EXPECT_NE(last_text().find("io_timeout (6500) is out of range: 1 - 6500"), std::string::npos);
  err_reset_all(stack());
  EXPECT_TRUE(atlink_set_timeout(link_, 1));
  EXPECT_TRUE(atlink_set_timeout(link_, 6499));
  // io_loops is calibrated from the timer: a positive count for any time-out.
  std::smatch m;
  const std::string text = printed();
  ASSERT_TRUE(std::regex_match(
      text, m, std::regex(R"(atlink\(0, -1, 6499, (\d+), 0, addr\(200, 202, 204\)\))")))
      << text;
  EXPECT_GT(std::stol(m[1]), 0);
}

TEST_F(Adapter, BaseAddressIsOneOfFour) {
  ASSERT_NE(open("atlink"), nullptr);
  EXPECT_FALSE(atlink_set_base_address(link_, 0x280));
  EXPECT_NE(last_text().find("invalid base address 0x280 (valid addresses 0x150, 0x200, 0x250, "
                             "0x300)."),
            std::string::npos);
  EXPECT_EQ(last_causes(), std::vector<INT32>{0x3002});
  err_reset_all(stack());
  EXPECT_NE(printed().find("addr(200, 202, 204)"), std::string::npos) << "ports unchanged";
  EXPECT_TRUE(atlink_set_base_address(link_, 0x300));
  EXPECT_NE(printed().find("addr(300, 302, 304)"), std::string::npos);
  // A constructor that meets a bad address gives no adapter and keeps nothing.
  EXPECT_EQ(atlink_new(100, "atlink", 0x151), nullptr);
  EXPECT_NE(last_text().find("atlink_new"), std::string::npos);
}

TEST_F(Adapter, LinkSpeedBitsOnTheSimulatedCard) {
  ASSERT_NE(open("simulator"), nullptr);
  tvx::sim::Card *card = tvx::sim::card_at(kBase);
  ASSERT_NE(card, nullptr);
  ASSERT_TRUE(atlink_write_control_register(link_, 0x8101, 1));
  struct Case {
    INT16 speed;
    WORD bits;
  };
  for (Case c : {Case{20, 0x00E0}, Case{5, 0x00C0}, Case{10, 0x0000}, Case{5, 0x00C0}}) {
    EXPECT_TRUE(atlink_linkspeed(link_, c.speed));
    EXPECT_EQ(card->control() & 0x00E0, c.bits) << c.speed;
    EXPECT_EQ(card->control() & ~0x00E0, 0x8101) << "other bits kept at " << c.speed;
  }
  EXPECT_FALSE(atlink_linkspeed(link_, 15));
  EXPECT_NE(last_text().find("invalid transputer link speed setting '15'. (valid speeds 5, 10, "
                             "20)."),
            std::string::npos);
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
  EXPECT_NE(last_text().find("change_bits-> unknown binary value"), std::string::npos)
      << last_text();
  EXPECT_EQ(card.control_writes.size(), 3u) << "nothing written";
  err_reset_all(stack());
  EXPECT_FALSE(atlink_enable_interrupts(link_));
  EXPECT_EQ((*stack())->category, ERR_PROGRAMMER);
  EXPECT_NE(last_text().find("not implemented."), std::string::npos);
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
  EXPECT_NE(last_text().find("atlink_wait_for_input-> no input available (Receiver Fifo Empty)."),
            std::string::npos);
  err_reset_all(stack());
  start = time_centiseconds();
  EXPECT_FALSE(atlink_write_INT16(link_, 7));
  EXPECT_GE(time_centiseconds() - start, 300u);
  EXPECT_EQ(last_causes(), kWaitCauses);
  EXPECT_NE(last_text().find("atlink_write_INT16-> .\natlink_wait_to_output-> unable to output "
                             "(Transmit Fifo Full)."),
            std::string::npos)
      << last_text();
  err_reset_all(stack());
  // A word that comes in during the wait ends it.
  card.incoming = {0x0102};
  INT16 value = 0;
  EXPECT_FALSE(atlink_read_INT16_array(link_, &value, 1));
  EXPECT_NE(last_text().find("atlink_read_INT16-> .\natlink_read_BYTE_array"), std::string::npos)
      << "the array reads in the single value's name: " << last_text();
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
  INT16 i16 = 0;
  INT32 i32 = 0;
  INT16 array[2] = {};
  WORD word = 0;
  BYTE byte = 0;
  EXPECT_TRUE(atlink_read_INT16(link_, &i16));
  EXPECT_EQ(i16, -2);
  EXPECT_TRUE(atlink_read_INT32(link_, &i32));
  EXPECT_EQ(i32, 0x12345678);
  EXPECT_TRUE(atlink_read_INT16_array(link_, array, 2));
  EXPECT_EQ(array[0], 0x0102);
  EXPECT_EQ(array[1], static_cast<INT16>(0x8004));
  EXPECT_TRUE(atlink_read_WORD(link_, &word));
  EXPECT_EQ(word, 0xBEEF);
  EXPECT_TRUE(atlink_read_BYTE(link_, &byte));
  EXPECT_EQ(byte, 0x99);
}

TEST_F(Adapter, StatusTextsFollowEachFlagsPolarity) {
  ScriptedCard card(kBase);
  ASSERT_NE(open("atlink"), nullptr);
  char text[264];
  card.status = 0x0000;
  EXPECT_TRUE(atlink_describe_status(link_, 0x03, text));
  EXPECT_STREQ(text, "Local transputer not in error\nDistant transputer not in error\n");
  card.status = 0x0003;
  EXPECT_TRUE(atlink_describe_status(link_, 0x03, text));
  EXPECT_STREQ(text, "Local transputer in error\nDistant transputer in error\n");
  EXPECT_TRUE(atlink_describe_status(link_, 0x08, text));
  EXPECT_STREQ(text, "Receiver fifo half full\n") << "bit 0x08 reads 0";
  card.status = 0x0008;
  EXPECT_TRUE(atlink_describe_status(link_, 0x08, text));
  EXPECT_STREQ(text, "");
  card.status = 0x0020;
  EXPECT_TRUE(atlink_describe_status(link_, 0xFC, text));
  EXPECT_STREQ(text,
               "Receiver fifo half full\nReceiver fifo full\nTransmit fifo not empty\n"
               "Transmit fifo half full\nTransmit fifo full\n");
}

TEST_F(Adapter, CheckStatusNamesTheFirstFault) {
  ScriptedCard card(kBase);
  ASSERT_NE(open("atlink"), nullptr);
  struct Case {
    WORD status;
    bool receiving;
    const char *text;
    std::vector<INT32> causes;
  };
  const Case cases[] = {
      {0x00FF, true, "local transputer in error", {0x200c}},
      {0x00FE, true, "host transmit fifo not empty", {0x3004, 0x200c}},
      {0x00DA, true, "host receiver fifo not empty", {0x200c}},
  };
  for (const Case &c : cases) {
    card.status = c.status;
    card.incoming.assign(c.receiving ? 1 : 0, 0);
    EXPECT_FALSE(atlink_check_status(link_));
    EXPECT_EQ((*stack())->category, ERR_OUT_OF_RANGE);
    EXPECT_NE(last_text().find(std::string("atlink_check_status-> ") + c.text), std::string::npos)
        << last_text();
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
  EXPECT_NE(last_text().find("atlink_linkspeed-> .\nhandle_lock-> invalid memory handle"),
            std::string::npos)
      << last_text();
  err_reset_all(stack());
  EXPECT_FALSE(atlink_verbose(stale));
  EXPECT_TRUE(atlink_delete(nullptr));
}

TEST_F(Adapter, RunningOutOfMemoryLeavesNothingBehind) {
  for (INT32 nth = 1; nth <= 2; ++nth) {
    tvx_test_fail_allocation(nth, FALSE);
    EXPECT_EQ(open("simulator"), nullptr) << nth;
    EXPECT_NE(last_text().find("atlink_new"), std::string::npos);
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
  EXPECT_NE(last_text().find("port 0x300 is already claimed"), std::string::npos);
}

}  // namespace
