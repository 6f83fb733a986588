// The packet layer on an in-memory wire: the words that go out, the bounds that keep a bad size
// off the wire, the copy bounds with their messages, and the checks of a reply.
#include <cstdio>

#include "protocol/protocol_support.h"

namespace {

using namespace tvx_test;

class Packets : public WireTest {};

// A packet without parameters is the probe every command test sees go out.
TEST_F(Packets, WireWordsOfAPacketAndItsReply) {
  ASSERT_TRUE(csp_set_msg_param(packets_, 0, -2) && csp_set_msg_param(packets_, 1, 300));
  ASSERT_TRUE(csp_new_address(packets_, 9));
  ASSERT_TRUE(csp_message_out(packets_, 4, 12, 2));
  EXPECT_EQ(wire_.sent, (std::vector<INT16>{5, 4, 9, 12, -2, 300}));

  wire_.reply(100, {5, 6, 7}, 9);
  ASSERT_TRUE(csp_message_in(packets_));
  INT16 n = 0, control = 0, p2 = 0;
  csp_get_params_size(packets_, &n);
  csp_get_control(packets_, &control);
  csp_get_msg_param(packets_, 2, &p2);
  EXPECT_EQ(std::vector<INT16>({n, control, p2}), std::vector<INT16>({3, 100, 7}));
  EXPECT_TRUE(csp_expected(packets_, 100, 3));

  FILE *f = std::tmpfile();
  csp_print(packets_, f);
  std::rewind(f);
  char line[200] = {};
  ASSERT_NE(std::fgets(line, sizeof line, f), nullptr);
  std::fclose(f);
  EXPECT_STREQ(line, "csp(src 9, packet 6::[dst 9, src 1, cntrl 100: 5 6 7 ]\n");
}

TEST_F(Packets, SizesOutsideThePacketNeverReachTheWire) {
  for (INT16 bad : {INT16{-1}, INT16{201}}) {
    wire_.incoming = {bad, 1, 2, 3};
    EXPECT_FALSE(csp_message_in(packets_));
    EXPECT_HAS(last_text(), "invalid csp receive packet size");
    EXPECT_EQ(last_causes(), (std::vector<INT32>{0x3009, 0x3007}));
    EXPECT_EQ(wire_.incoming.size(), 3u) << "nothing read past the size";
    INT16 n = -5;
    csp_get_params_size(packets_, &n);
    EXPECT_EQ(n, 0);
    err_reset_all(stack());
  }
  // The bad size stays in the buffer: sending it as it is is refused before a word goes out.
  EXPECT_FALSE(csp_send_packet(packets_));
  EXPECT_HAS(last_text(), "invalid csp send packet size");
  EXPECT_EQ(last_causes(), std::vector<INT32>{0x3007});
  err_reset_all(stack());
  EXPECT_FALSE(csp_message_out(packets_, 1, 2, 198));
  EXPECT_TRUE(wire_.sent.empty());
  err_reset_all(stack());

  // A transport that fails is named on the way out.
  wire_.refuse_writes = true;
  EXPECT_FALSE(csp_message_out(packets_, 1, 2, 0));
  EXPECT_HAS(last_text(), "csp_send_packet");
}

TEST_F(Packets, GivesUpAfterThreeMessageFailures) {
  static_cast<csp *>(handle_lock(packets_, "test"))->failures = 3;
  handle_unlock(packets_, "test");
  wire_.complete();
  EXPECT_FALSE(csp_message_in(packets_));
  EXPECT_HAS(last_text(), "giving up after exceeding '3' message failures.");
  EXPECT_EQ(last_causes(), std::vector<INT32>{0x3006});
  EXPECT_EQ(wire_.incoming.size(), 4u);
  // With an error already pending the refusal stacks above it instead of hiding it.
  EXPECT_FALSE(csp_message_out(packets_, 1, 1, 0));
  EXPECT_NE((*stack())->next, nullptr);
  EXPECT_TRUE(wire_.sent.empty());
}

TEST_F(Packets, CopyBoundsAndTheirMessages) {
  BYTE bytes[200] = {0xFF, 0x01};
  INT16 words[200] = {};
  EXPECT_TRUE(csp_copy_BYTE_params(packets_, bytes, 94, 100));
  EXPECT_FALSE(csp_copy_BYTE_params(packets_, bytes, 95, 100));
  EXPECT_HAS(last_text(), "copy (100,95) extends past csp params end (194)");
  err_reset_all(stack());
  EXPECT_TRUE(csp_copy_INT16_params(packets_, words, 7, 190));
  EXPECT_FALSE(csp_copy_INT16_params(packets_, words, 8, 190));
  EXPECT_HAS(last_text(), "copy (8,190) extends past csp params end (197)");
  EXPECT_EQ((*stack())->category, ERR_PROGRAMMER);
  err_reset_all(stack());
  EXPECT_FALSE(csp_copy_INT16_params(packets_, words, -1, 0));
  err_reset_all(stack());
  EXPECT_TRUE(csp_copy_params_to_INT16s(packets_, words, 197));
  EXPECT_FALSE(csp_copy_params_to_INT16s(packets_, words, 198));
  EXPECT_HAS(last_text(), "copy (198) extends past csp params end (197)");
  err_reset_all(stack());

  // Bytes are widened without their sign, and land where the offset says.
  ASSERT_TRUE(csp_copy_BYTE_to_INT16_params(packets_, bytes, 2, 5));
  INT16 p5 = 0, p6 = 0;
  csp_get_msg_param(packets_, 5, &p5);
  csp_get_msg_param(packets_, 6, &p6);
  EXPECT_EQ(std::vector<INT16>({p5, p6}), std::vector<INT16>({255, 1}));
}

TEST_F(Packets, ReplyChecksNameWhatIsWrong) {
  wire_.complete();
  ASSERT_TRUE(csp_message_in(packets_));
  EXPECT_TRUE(csp_expect_n_params(packets_, 0, 0));
  EXPECT_FALSE(csp_expected(packets_, 100, 1));
  EXPECT_HAS(last_text(), "invalid number of csp parameters (bounds (1, 1), actual 0)");
  EXPECT_HAS(last_text(), "csp_expected");
  EXPECT_EQ(last_causes(), (std::vector<INT32>{0x3009, 0x3007}));
  err_reset_all(stack());

  EXPECT_FALSE(csp_expected2(packets_, 101, 0, 5));
  EXPECT_HAS(last_text(), "unexpected csp control (expected 101, actual 100)");
  err_reset_all(stack());

  wire_.reply(100, {}, 3);
  ASSERT_TRUE(csp_message_in(packets_));
  EXPECT_FALSE(csp_expected2(packets_, 100, 0, 0));
  EXPECT_HAS(last_text(), "invalid csp destination (expected -1, actual 3)");
}

}  // namespace
