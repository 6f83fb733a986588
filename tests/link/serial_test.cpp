// The serial transport over real pseudo-terminals: bytes and acknowledged word blocks against a
// far end the test plays by hand, the line's set-up and its failures, and the command set driven
// through a packet object over the line against tvxsim, the simulated controller's camera server.
#include <chrono>
#include <cstring>

#include "link/link_support.h"
#include "link/serial_support.h"
#include "tvx/cs71.h"
#include "tvx/csp.h"

namespace {

using namespace tvx_test;

INT32 port_of(HANDLE line) {
  auto *r = static_cast<rs232 *>(handle_lock(line, "test"));
  const INT32 port = r->port;
  handle_unlock(line, "test");
  return port;
}

// A line on COM1 opened over a pseudo-terminal whose far end the test holds.
class SerialLine : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    ASSERT_TRUE(pty_.ok());
    line_ = rs232_new(0, 0);
    ASSERT_NE(line_, nullptr) << last_text();
  }
  void TearDown() override {
    rs232_delete(line_);
    FrameTest::TearDown();
  }
  Pty pty_;
  HANDLE line_ = nullptr;
};

TEST_F(SerialLine, WordBlocksTravelLowByteFirstAndAreAcknowledgedByTheirReceiver) {
  const INT16 out[3] = {1, -2, 0x1234};
  pty_.send({RS232_ACK});
  ASSERT_TRUE(rs232_write_INT16_array(line_, out, 3)) << last_text();
  EXPECT_EQ(pty_.take(16, 50), (std::vector<BYTE>{0x01, 0x00, 0xFE, 0xFF, 0x34, 0x12}));

  pty_.send({0x78, 0x56, 0x00, 0x80});
  INT16 in[2] = {};
  ASSERT_TRUE(rs232_read_INT16_array(line_, in, 2)) << last_text();
  EXPECT_EQ(in[0], 0x5678);
  EXPECT_EQ(in[1], INT16(-32768));
  EXPECT_EQ(pty_.take(16, 50), std::vector<BYTE>{RS232_ACK});

  // One word is a block of one, acknowledged like any other.
  pty_.send({RS232_ACK, 0x07, 0x00});
  INT16 one = 0;
  ASSERT_TRUE(rs232_write_INT16(line_, -1) && rs232_read_INT16(line_, &one)) << last_text();
  EXPECT_EQ(one, 7);
  EXPECT_EQ(pty_.take(16, 50), (std::vector<BYTE>{0xFF, 0xFF, RS232_ACK}));
}

TEST_F(SerialLine, BytesCarryNoAcknowledgement) {
  const BYTE out[4] = {0, 255, 17, 254};
  ASSERT_TRUE(rs232_write_BYTE_array(line_, out, 4) && rs232_write_BYTE(line_, 9)) << last_text();
  EXPECT_EQ(pty_.take(16, 50), (std::vector<BYTE>{0, 255, 17, 254, 9}));

  pty_.send({3, 4, 5});
  BYTE in[2] = {}, last = 0;
  ASSERT_TRUE(rs232_read_BYTE_array(line_, in, 2) && rs232_read_BYTE(line_, &last)) << last_text();
  EXPECT_EQ((std::vector<BYTE>{in[0], in[1], last}), (std::vector<BYTE>{3, 4, 5}));
  EXPECT_TRUE(pty_.take(1, 30).empty());
}

// A block fails on a wrong acknowledgement, and every wait on a silent peer after the time-out.
TEST_F(SerialLine, AWrongAcknowledgementOrASilentPeerFailsTheTransfer) {
  const INT16 out[2] = {5, 6};
  pty_.send({254});
  EXPECT_FALSE(rs232_write_INT16_array(line_, out, 2));
  EXPECT_EQ((*stack())->category, ERR_TIMEOUT);
  EXPECT_HAS(last_text(), "ack error: ack=254");
  EXPECT_HAS(last_text(), "rs232_write_INT16_array");
  err_reset_all(stack());
  pty_.take(16, 50);

  EXPECT_EQ(SetSerialTimeOut(port_of(line_), 30), RS232_TIMEOUT_MS);
  INT16 in[2] = {};
  BYTE byte = 0;
  const auto start = std::chrono::steady_clock::now();

  EXPECT_FALSE(rs232_write_INT16_array(line_, out, 1));
  EXPECT_HAS(last_text(), "Ack receive failed");
  EXPECT_HAS(last_text(), "unable to read serial data.");
  err_reset_all(stack());

  // Three bytes of the four a block of two words needs.
  pty_.send({1, 2, 3});
  EXPECT_FALSE(rs232_read_INT16_array(line_, in, 2));
  EXPECT_EQ((*stack())->category, ERR_TIMEOUT);
  EXPECT_HAS(last_text(), "ri16a data failed");
  EXPECT_HAS(last_text(), "(3 came)");
  err_reset_all(stack());

  EXPECT_FALSE(rs232_read_BYTE(line_, &byte));
  EXPECT_HAS(last_text(), "read byte array failed");
  EXPECT_HAS(last_text(), "No ack");

  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(3 * 25));
  EXPECT_LT(took, std::chrono::milliseconds(900));
  EXPECT_EQ(SetSerialTimeOut(port_of(line_), RS232_TIMEOUT_MS), 30);
}

TEST_F(SerialLine, BadTransferCountsAndAClosedLineAreRefused) {
  INT16 in[1] = {};
  EXPECT_FALSE(rs232_read_INT16_array(line_, in, -1));
  EXPECT_HAS(last_text(), "invalid transfer count -1.");
  err_reset_all(stack());
  EXPECT_FALSE(rs232_write_BYTE_array(line_, nullptr, 3));
  EXPECT_HAS(last_text(), "null transfer buffer.");
  err_reset_all(stack());
  EXPECT_TRUE(pty_.take(1, 20).empty());

  ASSERT_TRUE(rs232_dtor(line_));
  EXPECT_EQ(port_of(line_), -1);
  EXPECT_FALSE(rs232_write_INT16(line_, 1));
  EXPECT_HAS(last_text(), "unable to write serial port.");
}

// ---- Opening ----

class SerialOpening : public FrameTest {
 protected:
  void TearDown() override {
    SerialMapPort("COM1", nullptr);
    FrameTest::TearDown();
  }
};

TEST_F(SerialOpening, ThePortIndexNamesTheLineButCom1IsTheDeviceOpened) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  struct Case {
    INT32 index;
    const char *definition;
  };
  for (const Case &c :
       {Case{-5, "COM1:9600,n,8,1"}, Case{0, "COM1:9600,n,8,1"}, Case{1, "COM2:9600,n,8,1"}}) {
    HANDLE line = rs232_new(0, c.index);
    ASSERT_NE(line, nullptr) << c.index << ": " << last_text();
    EXPECT_STREQ(tvx_test_serial_definition(), c.definition);
    ASSERT_TRUE(rs232_write_BYTE(line, static_cast<BYTE>(c.index + 10)));
    EXPECT_EQ(pty.take(4, 50), std::vector<BYTE>{static_cast<BYTE>(c.index + 10)}) << c.index;
    EXPECT_TRUE(rs232_delete(line));
  }
  char path[64];
  ASSERT_TRUE(SerialPortDevice("com3", path, sizeof path));
  EXPECT_STREQ(path, "/dev/ttyS2");
  ASSERT_TRUE(SerialPortDevice("COM1", path, sizeof path));
  EXPECT_EQ(path, pty.path());
}

TEST_F(SerialOpening, TheSettingsTextBuildsTheLineOrFailsWithNothingLeftOpen) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  serial_dcb dcb{};
  INT32 port = -1;
  ASSERT_TRUE(SerialOpen("COM4", "19200,e,7,2", &dcb, &port)) << last_text();
  EXPECT_STREQ(dcb.definition, "COM4:19200,e,7,2");
  EXPECT_EQ(dcb.baud_rate, 19200u);
  EXPECT_EQ(dcb.parity, SERIAL_EVEN_PARITY);
  EXPECT_EQ(dcb.byte_size, 7);
  EXPECT_EQ(dcb.stop_bits, SERIAL_TWO_STOP_BITS);
  EXPECT_TRUE(SerialClose(port));
  // The short form of the old texts.
  ASSERT_TRUE(SerialOpen("COM1", "96,o,8,1", &dcb, &port)) << last_text();
  EXPECT_EQ(dcb.baud_rate, 9600u);
  EXPECT_EQ(dcb.parity, SERIAL_ODD_PARITY);
  EXPECT_TRUE(SerialClose(port));

  const int descriptors = open_descriptors();
  struct Case {
    const char *settings, *message;
  };
  for (const Case &c :
       {Case{"9600,q,8,1", "unable to build comm DCB."},
        Case{"9600,n,9,1", "unable to build comm DCB."}, Case{"fast", "unable to build comm DCB."},
        Case{"9600,n,8,1,x,more", "unable to build comm DCB."},
        Case{"9600,n,8,1.5", "unable to set comm state."},
        Case{"1234,n,8,1", "unable to set comm state."}}) {
    port = 5;
    EXPECT_FALSE(SerialOpen("COM1", c.settings, &dcb, &port)) << c.settings;
    EXPECT_EQ(port, -1);
    EXPECT_EQ((*stack())->category, ERR_SYSTEM_IO);
    EXPECT_HAS(last_text(), c.message) << c.settings;
    err_reset_all(stack());
  }
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(SerialOpening, AMissingOrWrongDeviceFailsTheConstructor) {
  const int descriptors = open_descriptors();
  struct Case {
    const char *device, *message;
  };
  for (const Case &c : {Case{"/nonexistent/ttyS9", "serial port not present."},
                        Case{"/dev/null", "unable to get comm state."}}) {
    ASSERT_TRUE(SerialMapPort("COM1", c.device));
    EXPECT_EQ(rs232_new(0, 0), nullptr);
    EXPECT_HAS(last_text(), c.message);
    EXPECT_HAS(last_text(), "rs232_ctor(dos)");
    err_reset_all(stack());
  }
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(SerialOpening, ClosingAndDeletingTellWhatWentWrong) {
  EXPECT_TRUE(SerialClose(-1));
  EXPECT_FALSE(SerialClose(1000));
  EXPECT_HAS(last_text(), "unable to close serial port.");
  err_reset_all(stack());

  Pty pty;
  HANDLE line = rs232_new(7, 0);
  ASSERT_NE(line, nullptr) << last_text();
  char *text = nullptr;
  size_t size = 0;
  FILE *stream = open_memstream(&text, &size);
  ASSERT_TRUE(rs232_set_verbose(line, TRUE) && rs232_print(line, stream));
  std::fclose(stream);
  const std::string printed = text;
  std::free(text);
  EXPECT_EQ(printed.rfind("rs232(1, " + std::to_string(port_of(line)) + ", 7, ", 0), 0u) << printed;
  ASSERT_TRUE(rs232_delete(line));

  EXPECT_FALSE(rs232_delete(line));
  EXPECT_HAS(last_text(), "rs2323_delete");
}

// ---- The command set over the line ----

class OverTheLine : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    ASSERT_TRUE(sim_.ok());
    line_ = rs232_new(0, 0);
    ASSERT_NE(line_, nullptr) << last_text();
    packets_ = csp_new(line_, -1, rs232_read_INT16, rs232_read_INT16_array, rs232_write_INT16,
                       rs232_write_INT16_array);
    controller_ = cs71_new(1, packets_);
    ASSERT_NE(controller_, nullptr) << last_text();
  }
  void TearDown() override {
    cs71_delete(controller_);
    csp_delete(packets_);
    rs232_delete(line_);
    FrameTest::TearDown();
  }
  SimulatedController sim_;
  HANDLE line_ = nullptr, packets_ = nullptr, controller_ = nullptr;
};

// Before its camera program is installed the server answers none of the camera's commands, and
// such a command times out; installed, the server answers every command sent across the line.
TEST_F(OverTheLine, TheCameraServerAnswersCommandsSentAcrossAPseudoTerminal) {
  HANDLE c = controller_;
  EXPECT_EQ(SetSerialTimeOut(port_of(line_), 100), RS232_TIMEOUT_MS);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(cs71_set_binning(c, 2, 2));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
  EXPECT_HAS(last_text(), "unable to read serial data.");
  EXPECT_HAS(last_text(), "cs71_wait_complete");
  err_reset_all(stack());
  SetSerialTimeOut(port_of(line_), RS232_TIMEOUT_MS);

  ASSERT_TRUE(cs71_install(c, data_file("procinit").c_str(), data_file("camera.r2h").c_str()))
      << last_text();
  ASSERT_TRUE(cs71_responding(c)) << last_text();
  channel(REPORT_INFO)->destination = catch_report;
  ASSERT_TRUE(cs71_hwinit(c, 1200)) << last_text();
  EXPECT_EQ(caught(), ".1*.2*.3*.4*.5*.6*.7*.8*.9*.10*");

  INT16 userport = 0, iospace = 0;
  ASSERT_TRUE(cs71_set_ccd_size(c, 1024, 512) && cs71_set_binning(c, 2, 2) &&
              cs71_write_userport(c, 0x55) && cs71_read_userport(c, &userport) &&
              cs71_write_iospace(c, 39, -3) && cs71_read_iospace(c, 39, &iospace) &&
              cs71_ccd_expose(c, 100))
      << last_text();
  EXPECT_EQ(std::vector<INT16>({userport, iospace}), std::vector<INT16>({0x55, -3}));
}

}  // namespace
