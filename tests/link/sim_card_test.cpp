// The simulated card through its ports, as a host without the adapter code would see it: FIFO
// depths and the polarity of every flag, the FIFO and transputer resets, and the shipped micro
// code judged by the controller's own checks.
#include "link/link_support.h"
#include "sim/slot.h"
#include "sim/ucode.h"

namespace {

using namespace tvx_test;
namespace sim = tvx::sim;

constexpr WORD kBase = 0x150;
constexpr WORD kData = kBase, kStatus = kBase + 2, kControl = kBase + 4;

class SimCard : public LinkTest {
 protected:
  void SetUp() override {
    LinkTest::SetUp();
    ASSERT_TRUE(sim::plug_card(kBase));
  }
  void TearDown() override {
    sim::unplug_card(kBase);
    LinkTest::TearDown();
  }
};

TEST_F(SimCard, TransmitFifoFlagsAtEmptyHalfAndFull) {
  // Both transputers held, FIFOs out of reset: what is written stays in the transmit FIFO.
  port_out16(kControl, 0x8000);
  EXPECT_EQ(port_in16(kStatus), 0x00D8) << "empty: the three active-low flags read 1";
  port_out16(kData, 1);
  EXPECT_EQ(port_in16(kStatus), 0x00F8);
  for (size_t i = 1; i < sim::kTransmitDepth / 2; ++i) port_out16(kData, 1);
  EXPECT_EQ(port_in16(kStatus), 0x00B8) << "half full reads 0";
  for (size_t i = sim::kTransmitDepth / 2; i < sim::kTransmitDepth; ++i) port_out16(kData, 1);
  EXPECT_EQ(port_in16(kStatus), 0x0038) << "full reads 0";
  port_out16(kData, 1);
  EXPECT_EQ(sim::card_at(kBase)->transmit_count(), sim::kTransmitDepth) << "overflow is lost";
  // The FIFO reset empties it, and while it is held nothing goes in.
  port_out16(kControl, 0x0000);
  port_out16(kData, 1);
  EXPECT_EQ(port_in16(kStatus), 0x00D8);
  EXPECT_EQ(port_in16(kControl), 0x0000);
}

// A controller program that echoes every item back, doubled, to fill the receive FIFO.
class Echo : public sim::ControllerProgram {
 public:
  void receive(WORD item) override {
    pending_ += 2;
    last_ = item;
  }
  bool next_output(WORD &item) override {
    if (pending_ == 0) return false;
    --pending_;
    item = last_;
    return true;
  }

 private:
  size_t pending_ = 0;
  WORD last_ = 0;
};

TEST_F(SimCard, ReceiveFifoFlagsAndTheBootedControllersTraffic) {
  sim::set_controller_factory([](const std::string &) { return std::make_unique<Echo>(); });
  HANDLE link = atlink_new(100, "simulator", kBase);
  ASSERT_NE(link, nullptr);
  ASSERT_TRUE(atlink_linkspeed(link, 5));
  ASSERT_TRUE(
      atlink_boot(link, data_file("atlinit.btm").c_str(), data_file("install.btl").c_str()));
  sim::set_controller_factory(nullptr);
  for (size_t i = 0; i < sim::kReceiveDepth / 4; ++i) port_out16(kData, 0x4242);
  EXPECT_EQ(port_in16(kStatus) & 0x1C, 0x14) << "not empty, half full (reads 0)";
  for (size_t i = 0; i < sim::kReceiveDepth / 4; ++i) port_out16(kData, 0x4242);
  EXPECT_EQ(port_in16(kStatus) & 0x1C, 0x04) << "full reads 0 too";
  EXPECT_EQ(port_in16(kData), 0x4242);
  // Reading makes room, and the controller's waiting output moves in behind.
  for (size_t i = 1; i < sim::kReceiveDepth; ++i) port_in16(kData);
  EXPECT_EQ(port_in16(kStatus) & 0x1C, 0x18) << "empty";
  EXPECT_EQ(port_in16(kData), 0x4242) << "an empty FIFO shows its last word again";
  EXPECT_TRUE(atlink_delete(link));
}

// A block run with the ROM loader off stays in the FIFO; one run out of order stops the card.
TEST_F(SimCard, LoaderNeedsTheRomBitAndBlocksInOrder) {
  const std::vector<uint8_t> file = slurp(data_file("atlinit.btm"));
  auto word = [&](size_t i) { return static_cast<WORD>(file[2 * i] | file[2 * i + 1] << 8); };
  ASSERT_EQ(word(0), 30);
  auto run_block = [&](size_t first, WORD control) {
    port_out16(kControl, static_cast<WORD>(control & ~0x0001));
    for (size_t i = 0; i < word(first); ++i) port_out16(kData, word(first + 1 + i));
    port_out16(kControl, control);
  };
  run_block(0, 0x8001);
  EXPECT_EQ(sim::card_at(kBase)->local(), sim::Card::Local::link_wait);
  EXPECT_EQ(port_in16(kStatus) & 0x21, 0x20) << "the block waits in the FIFO";
  port_out16(kControl, 0x8100);
  port_out16(kControl, 0x8101);
  EXPECT_EQ(port_in16(kStatus) & 0x21, 0x00) << "with the ROM bit, the same block runs";
  EXPECT_EQ(sim::card_at(kBase)->local(), sim::Card::Local::idle);
  const size_t third = 1 + 30 + 1 + 18;
  run_block(third, 0x8101);
  EXPECT_EQ(port_in16(kStatus) & 0x01, 0x01) << "block 3 cannot follow block 1";
  EXPECT_EQ(sim::card_at(kBase)->local(), sim::Card::Local::halted);
}

TEST(SimMicroCode, ShippedFilesPassTheControllersChecks) {
  namespace uc = sim::ucode;
  auto read = [](const char *name) { return slurp(data_file(name)); };
  std::string name;
  EXPECT_EQ(uc::check_image(read("install.btl"), uc::kBootMagic, &name), uc::Verdict::ok);
  EXPECT_EQ(name, "install");
  EXPECT_EQ(uc::check_image(read("procinit"), uc::kProgramMagic, &name), uc::Verdict::ok);
  EXPECT_EQ(name, "procinit");
  std::vector<uint8_t> camera = read("camera.r2h");
  EXPECT_EQ(uc::check_image(camera, uc::kProgramMagic, &name), uc::Verdict::ok);
  EXPECT_EQ(name, "camera");
  EXPECT_EQ(uc::check_image(camera, uc::kBootMagic), uc::Verdict::bad_magic);
  camera.pop_back();
  EXPECT_EQ(uc::check_image(camera, uc::kProgramMagic), uc::Verdict::truncated);
  camera.push_back(0);
  EXPECT_EQ(uc::check_image(camera, uc::kProgramMagic), uc::Verdict::corrupt);
  camera[4] = uc::kVersion + 1;
  EXPECT_EQ(uc::check_image(camera, uc::kProgramMagic), uc::Verdict::out_of_date);
}

}  // namespace
