// Shared test support: a fixture that leaves the error stack, the report channels and the memory
// totals as it found them, and destinations that catch or show what the library reports.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tvx/testing.h"
#include "tvx/tvx.h"

namespace tvx_test {

// Collects everything sent to a destination, in order.
inline std::string &caught() {
  static std::string text;
  return text;
}
inline int catch_report(const char *text) {
  caught() += text;
  return 1;
}
// Shows a report on stderr, where death tests read what the process said before it ended.
inline int to_stderr(const char *text) {
  std::fputs(text, stderr);
  return 1;
}

inline report *channel(INT32 id) {
  report *r = nullptr;
  return *report_where_is(id, &r);
}

inline err_stack stack() {
  err_stack s = nullptr;
  return *err_where_is(&s);
}

inline std::string print_last(INT32 mode) {
  char *text = nullptr;
  err_print_last(stack(), mode, &text);
  return text;
}

inline std::string print_all(INT32 mode) {
  char *text = nullptr;
  err_print_all(stack(), mode, &text);
  return text;
}

// Restores what the library shares between tests, and checks that a test freed what it made.
class FrameTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (INT32 id = REPORT_INFO; id <= REPORT_PANIC; ++id) saved_[id] = channel(id)->destination;
    caught().clear();
    blocks_ = number_of_allocations();
    bytes_ = total_allocated();
    strings_ = number_of_strings();
    string_bytes_ = total_string_allocated();
  }

  void TearDown() override {
    tvx_test_fail_allocation(0, FALSE);
    tvx_test_moving_blocks(FALSE);
    tvx_test_memory_trace(FALSE);
    tvx_test_clock_real();
    for (INT32 id = REPORT_INFO; id <= REPORT_PANIC; ++id) channel(id)->destination = saved_[id];
    if ((*stack())->category != 0) err_reset_all(stack());
    if (check_totals_) {
      EXPECT_EQ(number_of_allocations(), blocks_);
      EXPECT_EQ(total_allocated(), bytes_);
      EXPECT_EQ(number_of_strings(), strings_);
      EXPECT_EQ(total_string_allocated(), string_bytes_);
    }
  }

  // For the few tests that leave a block behind on purpose (a broken one cannot be freed).
  void skip_totals() { check_totals_ = false; }

 private:
  report_destination saved_[4] = {};
  INT32 blocks_ = 0, bytes_ = 0, strings_ = 0, string_bytes_ = 0;
  bool check_totals_ = true;
};

}  // namespace tvx_test
