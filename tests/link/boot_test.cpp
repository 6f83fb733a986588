// Booting the controller through the simulated card: the shipped micro code at every base
// address, crafted initialisation files, and the faults a real installation shows: no card, a
// camera switched off, a link at the wrong speed, corrupt or out-of-date micro code.
#include <cerrno>
#include <cstdio>

#include "link/link.h"
#include "link/link_support.h"
#include "sim/slot.h"
#include "sim/ucode.h"

namespace {

using namespace tvx_test;
using tvx::sim::Distant;

constexpr WORD kBase = 0x250;
const std::vector<INT32> kWaitCauses = {0x2000, 0x2003, 0x2001, 0x200a, 0x2005};

// Initialisation-file words, as a test writes them.
std::vector<uint8_t> as_bytes(const std::vector<INT16> &words) {
  std::vector<uint8_t> bytes;
  for (INT16 w : words) {
    bytes.push_back(static_cast<uint8_t>(w & 0xFF));
    bytes.push_back(static_cast<uint8_t>((w >> 8) & 0xFF));
  }
  return bytes;
}

class Boot : public LinkTest {
 protected:
  void SetUp() override {
    LinkTest::SetUp();
    atlinit_ = data_file("atlinit.btm");
    install_ = data_file("install.btl");
  }
  void TearDown() override {
    atlink_delete(link_);
    LinkTest::TearDown();
  }
  // The start-up sequence of a server: an adapter, interrupts off, speed 5, the boot.
  BOOL bring_up(const char *name, INT32 base = kBase) {
    link_ = atlink_new(100, name, base);
    if (link_ == nullptr) return FALSE;
    return atlink_disable_interrupts(link_) && atlink_linkspeed(link_, 5) &&
           atlink_boot(link_, atlinit_.c_str(), install_.c_str());
  }
  const Distant &controller(WORD base = kBase) { return tvx::sim::card_at(base)->distant(); }
  BYTE boot_number() {
    int boots = -1;
    EXPECT_EQ(std::sscanf(printed(link_).c_str(), "atlink(%*d, %*d, %*d, %*d, %d", &boots), 1);
    return static_cast<BYTE>(boots);
  }
  void expect_boot_failure(const std::string &text, const std::vector<INT32> &causes) {
    EXPECT_HAS(last_text(), text);
    EXPECT_HAS(last_text(), "atlink_boot-> unable to boot camera");
    EXPECT_EQ(last_causes(), causes);
  }

  HANDLE link_ = nullptr;
  std::string atlinit_, install_;
};

TEST_F(Boot, ShippedMicroCodeBootsAtEveryBaseAddress) {
  for (INT32 base : {0x150, 0x200, 0x250, 0x300}) {
    ASSERT_TRUE(bring_up("simulator", base)) << std::hex << base << "\n" << last_text();
    const tvx::sim::Card &card = *tvx::sim::card_at(static_cast<WORD>(base));
    EXPECT_EQ(card.local(), tvx::sim::Card::Local::relay);
    EXPECT_EQ(controller(static_cast<WORD>(base)).state(), Distant::State::running);
    EXPECT_EQ(controller(static_cast<WORD>(base)).program(), "install");
    EXPECT_NE(controller(static_cast<WORD>(base)).controller(), nullptr);
    WORD errors = 0xFFFF;
    EXPECT_TRUE(atlink_transputer_error(link_, &errors));
    EXPECT_EQ(errors, 0);
    EXPECT_TRUE(atlink_check_status(link_));
    atlink_delete(link_);
    link_ = nullptr;
    EXPECT_FALSE(port_claimed(static_cast<WORD>(base))) << "deleting the adapter detaches";
  }
}

TEST_F(Boot, CounterMarksAdaptersAsBooted) {
  ASSERT_TRUE(bring_up("simulator"));
  const BYTE first = boot_number();
  EXPECT_NE(first, 0);
  // Booting once more on a booted adapter touches nothing.
  tvx::sim::Card &card = *tvx::sim::card_at(kBase);
  ASSERT_TRUE(atlink_write_control_register(link_, 0x0010, 1));
  EXPECT_TRUE(atlink_boot_once(link_, "no such file", "nor this"));
  EXPECT_EQ(card.control() & 0x0010, 0x0010) << "no reset sequence ran";
  // A second adapter in the same process starts out counted as booted, and a real boot on it
  // counts one more.
  HANDLE second = atlink_new(100, "simulator", 0x300);
  ASSERT_NE(second, nullptr);
  EXPECT_TRUE(atlink_boot_once(second, "no such file", "nor this"));
  EXPECT_TRUE(atlink_linkspeed(second, 5));
  EXPECT_TRUE(atlink_boot(second, atlinit_.c_str(), install_.c_str()));
  EXPECT_TRUE(atlink_delete(second));
  EXPECT_TRUE(atlink_boot(link_, atlinit_.c_str(), install_.c_str()));
  EXPECT_EQ(boot_number(), static_cast<BYTE>(first + 2));
}

// No card in the slot: the ports float, the status reads all ones, and the first block's check
// finds the "error" flag up, as it does when the card's transputer raises it on demand. The
// controller's flag, raised on demand, is what the adapter then reads.
TEST_F(Boot, NoCardOrARaisedFlagFailsWithLocalTransputerInError) {
  const std::pair<INT32, const char *> cases[] = {{TVX_SIM_CARD_ABSENT, "atlink"},
                                                  {TVX_SIM_CARD_ABSENT, "simulator"},
                                                  {TVX_SIM_LOCAL_ERROR, "simulator"}};
  for (const auto &[flag, name] : cases) {
    tvx_test_simulator_set(flag, TRUE);
    EXPECT_FALSE(bring_up(name)) << name;
    expect_boot_failure("atlink_check_status-> local transputer in error", {0x200c});
    EXPECT_HAS(last_text(), "atlink_atlinit-> failed to initialise the AT-Link");
    EXPECT_HAS(last_text(), "atlink_copy_block-> during block 1.");
    err_reset_all(stack());
    tvx_test_simulator_set(flag, FALSE);
    atlink_delete(link_);
  }
  ASSERT_TRUE(bring_up("simulator"));
  tvx_test_simulator_set(TVX_SIM_DISTANT_ERROR, TRUE);
  WORD errors = 0;
  EXPECT_TRUE(atlink_transputer_error(link_, &errors));
  EXPECT_EQ(errors, ATLINK_DISTANT_ERROR);
}

// A camera that is off never takes a byte: the FIFO fills and the boot stream times out.
TEST_F(Boot, CameraSwitchedOffTimesOut) {
  tvx_test_simulator_set(TVX_SIM_POWER_OFF, TRUE);
  const BYTE boots = tvx::link::boot_counter();
  const DWORD start = time_centiseconds();
  EXPECT_FALSE(bring_up("simulator"));
  expect_boot_failure("atlink_wait_to_output-> unable to output (Transmit Fifo Full).",
                      kWaitCauses);
  EXPECT_HAS(last_text(), "atlink_copy-> ");
  EXPECT_EQ((*stack())->category, ERR_TIMEOUT);
  EXPECT_GE(time_centiseconds() - start, 100u + 100u) << "the reset wait and one time-out";
  EXPECT_EQ(tvx::sim::card_at(kBase)->transmit_count(), tvx::sim::kTransmitDepth);
  EXPECT_EQ(tvx::link::boot_counter(), boots) << "a failed boot is not counted";
}

TEST_F(Boot, CorruptBootFiles) {
  std::vector<uint8_t> image = slurp(install_);
  ASSERT_GT(image.size(), 2 * tvx::sim::kTransmitDepth);
  // A wrong header stops the controller at once: the rest of the stream backs up.
  std::vector<uint8_t> bad_header = image;
  bad_header[0] ^= 0x40;
  install_ = craft("bad_header.btl", bad_header);
  EXPECT_FALSE(bring_up("simulator"));
  expect_boot_failure("unable to output (Transmit Fifo Full).", kWaitCauses);
  EXPECT_EQ(controller().verdict(), tvx::sim::ucode::Verdict::bad_magic);
  err_reset_all(stack());
  WORD errors = 0;
  EXPECT_TRUE(atlink_transputer_error(link_, &errors));
  EXPECT_EQ(errors, ATLINK_DISTANT_ERROR);
  atlink_delete(link_);

  // A damaged payload is only found at its end: the host's part succeeds, the controller stops
  // with its error flag up.
  std::vector<uint8_t> bad_payload = image;
  bad_payload[image.size() / 2] ^= 0x01;
  install_ = craft("bad_payload.btl", bad_payload);
  EXPECT_TRUE(bring_up("simulator"));
  EXPECT_EQ(controller().state(), Distant::State::halted);
  EXPECT_EQ(controller().verdict(), tvx::sim::ucode::Verdict::corrupt);
  EXPECT_TRUE(atlink_transputer_error(link_, &errors));
  EXPECT_EQ(errors, ATLINK_DISTANT_ERROR);
  atlink_delete(link_);

  // A truncated one leaves the controller waiting for the rest.
  image.resize(image.size() - 100);
  install_ = craft("short.btl", image);
  EXPECT_TRUE(bring_up("simulator"));
  EXPECT_EQ(controller().state(), Distant::State::awaiting_boot);
  EXPECT_EQ(controller().boot_bytes(), image.size());
}

// Blocks the card's transputer cannot trust stop it with its error flag up.
TEST_F(Boot, CorruptOrOutOfDateInitialisationBlocks) {
  const std::vector<uint8_t> shipped = slurp(atlinit_);
  // Word 2 of the file is the first block's version, word 7 a code word.
  std::vector<uint8_t> old = shipped;
  old[4] = static_cast<uint8_t>(tvx::sim::ucode::kVersion - 1);
  old[12] = static_cast<uint8_t>(old[12] + 1);  // the check word still balances
  std::vector<uint8_t> corrupt = shipped;
  corrupt[14] ^= 0x10;
  for (const auto &bytes : {old, corrupt}) {
    atlinit_ = craft("block.btm", bytes);
    EXPECT_FALSE(bring_up("simulator"));
    expect_boot_failure("atlink_check_status-> local transputer in error", {0x200c});
    EXPECT_EQ(tvx::sim::card_at(kBase)->local(), tvx::sim::Card::Local::halted);
    err_reset_all(stack());
    atlink_delete(link_);
    link_ = nullptr;
  }
}

TEST_F(Boot, BadAtlinitFiles) {
  const std::vector<uint8_t> shipped = slurp(atlinit_);
  const size_t first_block = 2 + 2 * 30;
  struct Case {
    const char *name;
    std::vector<uint8_t> bytes;
    const char *text;
  };
  const Case cases[] = {
      {"empty", {}, "bad atlinit file: no block size"},
      {"no_end",
       {shipped.begin(), shipped.begin() + first_block},
       "bad atlinit file: no block size"},
      {"short",
       {shipped.begin(), shipped.begin() + first_block - 2},
       "bad atlinit file: not enough data"},
      {"size32", as_bytes({32}), "bad atlinit file: invalid block size"},
      {"minus1", as_bytes({-1}), "bad atlinit file: invalid block size"},
  };
  link_ = atlink_new(100, "simulator", kBase);
  ASSERT_NE(link_, nullptr);
  for (const Case &c : cases) {
    EXPECT_FALSE(atlink_atlinit(link_, craft(c.name, c.bytes).c_str())) << c.name;
    EXPECT_HAS(last_text(), std::string("atlink_copy_block-> ") + c.text) << c.name;
    EXPECT_EQ((*stack())->category, ERR_OUT_OF_RANGE);
    EXPECT_EQ(last_causes(), std::vector<INT32>{0x3004});
    err_reset_all(stack());
  }
  // An end word alone runs no block; 31 ends a file as 0 does.
  for (INT16 end : {0, 31}) {
    EXPECT_TRUE(atlink_atlinit(link_, craft("end", as_bytes({end})).c_str())) << last_text();
    EXPECT_EQ(tvx::sim::card_at(kBase)->local(), tvx::sim::Card::Local::reset);
  }
}

TEST_F(Boot, MissingFilesNameThemselves) {
  const BYTE boots = tvx::link::boot_counter();
  link_ = atlink_new(100, "simulator", kBase);
  ASSERT_NE(link_, nullptr);
  EXPECT_FALSE(atlink_boot(link_, "/nonexistent/atlinit.btm", install_.c_str()));
  EXPECT_HAS(last_text(), "atlink_copy_init-> initialisation file '/nonexistent/atlinit.btm'");
  EXPECT_EQ((*stack())->category, ERR_OS);
  EXPECT_EQ((*stack())->code, ENOENT);
  EXPECT_EQ(last_causes(), (std::vector<INT32>{0x3003, 0x3001}));
  err_reset_all(stack());
  EXPECT_FALSE(atlink_boot(link_, atlinit_.c_str(), "/nonexistent/install.btl"));
  EXPECT_HAS(last_text(), "atlink_copy-> byte stream file '/nonexistent/install.btl'");
  err_reset_all(stack());
  EXPECT_FALSE(atlink_copy_WORD(link_, "/nonexistent/words"));
  EXPECT_HAS(last_text(), "atlink_copy_WORD-> byte stream file /nonexistent/words");
  EXPECT_EQ(tvx::link::boot_counter(), boots);
}

// Traffic between ends at different speeds, or past a failing link's last good word, is lost:
// the host's part of the boot goes through, and the controller never starts.
TEST_F(Boot, LostTrafficLeavesTheControllerWaiting) {
  tvx_test_simulator_set(TVX_SIM_CONTROLLER_SPEED, 10);
  EXPECT_TRUE(bring_up("simulator")) << last_text();
  EXPECT_EQ(controller().state(), Distant::State::awaiting_boot);
  EXPECT_EQ(controller().boot_bytes(), 0u);
  atlink_delete(link_);

  tvx_test_simulator_reset();
  tvx_test_simulator_set(TVX_SIM_DROP_AFTER, 1000);
  EXPECT_TRUE(bring_up("simulator"));
  EXPECT_EQ(controller().state(), Distant::State::awaiting_boot);
  EXPECT_EQ(controller().boot_bytes(), 1000u);
  EXPECT_FALSE(tvx_test_simulator_set(TVX_SIM_CONTROLLER_SPEED, 7));
  EXPECT_HAS(last_text(), "invalid controller link speed 7");
}

TEST_F(Boot, VerboseBlocksReportTheirStatus) {
  report_set_destination(channel(REPORT_INFO), catch_report);
  link_ = atlink_new(100, "simulator", kBase);
  ASSERT_NE(link_, nullptr);
  ASSERT_TRUE(atlink_atlinit(link_, atlinit_.c_str()));
  EXPECT_EQ(caught(), "") << "quiet unless verbose";
  atlink_set_verbose(link_, TRUE);
  ASSERT_TRUE(atlink_atlinit(link_, atlinit_.c_str()));
  EXPECT_HAS(caught(), "INFO: block 1. status before reset ");
  EXPECT_HAS(caught(), "INFO: block 3. status after execute 00d8\n");
  EXPECT_EQ(caught().find("block 4."), std::string::npos);
}

TEST_F(Boot, WordFilesGoOutWholeWords) {
  ScriptedCard card(kBase);
  link_ = atlink_new(100, "atlink", kBase);
  ASSERT_NE(link_, nullptr);
  std::vector<uint8_t> bytes(2 * 700 + 1);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7);
  EXPECT_TRUE(atlink_copy_WORD(link_, craft("words", bytes).c_str()));
  ASSERT_EQ(card.sent.size(), 700u) << "the odd last byte is no word";
  EXPECT_EQ(card.sent[0], 0x0700);
  EXPECT_EQ(card.sent[600], static_cast<WORD>(bytes[1200] | bytes[1201] << 8));
  // The byte stream's buffer cannot be had: nothing is sent, nothing leaks, the file is closed.
  card.sent.clear();
  tvx_test_fail_allocation(1, FALSE);
  EXPECT_FALSE(atlink_copy(link_, install_.c_str()));
  EXPECT_HAS(last_text(), "atlink_copy-> ");
  EXPECT_TRUE(card.sent.empty());
}

}  // namespace
