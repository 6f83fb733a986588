// The whole readout path against the simulated camera booted from the shipped files: the
// coordinate scene read back pixel-exact through the single-region and read-sequence paths and
// in every data mode.
#include "server/readout_support.h"

namespace {

using namespace tvx_test;

class EndToEnd : public ReadoutTest {};

TEST_F(EndToEnd, TheWholeChipReadsBackPixelExact) {
  bring_up();
  HANDLE list = images();
  ASSERT_TRUE(server_execute(server_, "readout", params(80, 64, 1, 1, nullptr, list))) << story();
  ASSERT_EQ(list_size(list), 1);
  HANDLE image = list_get_nth_object(list, 1);
  INT32 w, h, d;
  ASSERT_TRUE(image_size(image, &w, &h, &d));
  EXPECT_EQ(w, 80);
  EXPECT_EQ(h, 64);
  EXPECT_EQ(d, 16);
  std::string where;
  EXPECT_EQ(mismatches(image, 0, 0, 1, 1, &where), 0) << where;
  EXPECT_TRUE(controller().complaints().empty());
}

}  // namespace
