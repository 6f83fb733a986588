// The error stack as an application reads it: every printing mode to the character, records
// stacked while handling a failure, causes, the older error-number facility, and the misuses
// that end the process.
#include <cerrno>
#include <cstring>
#include <string>

#include "support/frame.h"

namespace {

using namespace tvx_test;

class ErrorStack : public FrameTest {};

const std::string kNoCauses = "Sorry, there are no suggested causes.\n";
const std::string kTwoCauses =
    "Possible causes: The camera hardware is not switched on.\n"
    "The AT Link card, in the computer, has failed or is not installed.\n";

// A failure three routines deep, as a read from the adapter would leave it.
void fail_three_deep() {
  err_terminal(stack(), ERR_HARDWARE, 0, "inner", "reading port");
  err_qualify(stack(), "mid", "while reading.");
  err_qualify(stack(), "outer", "");
  err_append_cause(stack(), 0x2000);
  err_append_cause(stack(), 0x200c);
}

TEST_F(ErrorStack, NoneOneAndThreeDeepWithCausesInEveryMode) {
  EXPECT_EQ(print_last(ERR_MODE_BRIEF), "No error. " + kNoCauses);
  EXPECT_EQ(print_all(ERR_MODE_TRACEBACK), "No error.\n" + kNoCauses);
  err_terminal(stack(), ERR_NO_DATA, 0, "f", "x");
  EXPECT_EQ(print_last(ERR_MODE_BRIEF), "x: No reasonable data was supplied. " + kNoCauses);
  EXPECT_EQ(print_last(ERR_MODE_TRACEBACK),
            "f-> x.\nNo reasonable data was supplied.\n" + kNoCauses);
  EXPECT_EQ(print_last(ERR_MODE_PATH), "f\n");
  // Without causes, advice reads as the brief form.
  EXPECT_EQ(print_last(ERR_MODE_ADVICE), "x: No reasonable data was supplied. " + kNoCauses);
  err_reset_all(stack());

  fail_three_deep();
  EXPECT_EQ(print_last(ERR_MODE_BRIEF),
            "while reading, reading port: Hardware error. " + kTwoCauses);
  EXPECT_EQ(
      print_last(ERR_MODE_TRACEBACK),
      "outer-> .\nmid-> while reading.\ninner-> reading port.\nHardware error.\n" + kTwoCauses);
  EXPECT_EQ(print_last(ERR_MODE_PATH), "outer-> \nmid-> \ninner\n");
  EXPECT_EQ(print_last(ERR_MODE_ADVICE), "An error has occurred. " + kTwoCauses);
  char *text = nullptr;
  err_cause_last(stack(), ERR_MODE_BRIEF, &text);
  EXPECT_EQ(std::string(text), kTwoCauses);
  err_cause_last(stack(), ERR_MODE_PATH, &text);
  EXPECT_EQ(std::string(text), "");
}

TEST_F(ErrorStack, OneCauseUnknownCategoriesAndTrimmedFullStops) {
  err_terminal(stack(), ERR_TIMEOUT, 0, "wait", "no reply");
  err_append_cause(stack(), 0x1045);
  EXPECT_EQ(print_last(ERR_MODE_BRIEF),
            "no reply: Operation not completed within allotted time. Possible cause: Application "
            "programmer error\n");
  err_reset_all(stack());
  err_terminal(stack(), 42, 0, "f", "x");
  err_append_cause(stack(), 0x9999);
  EXPECT_EQ(print_last(ERR_MODE_BRIEF),
            "x: unknown error category 42. Possible cause: Unknown cause code 39321 (9999H)\n");
  err_reset_all(stack());
  // Exactly one full stop is trimmed; the category's own is dropped too, and one put back.
  err_terminal(stack(), ERR_INCONSISTENT, 0, "f", "a..");
  EXPECT_EQ(print_last(ERR_MODE_BRIEF), "a.: Inconsistency error. " + kNoCauses);
}

TEST_F(ErrorStack, SystemAndLibraryErrorsShowTheirOwnTexts) {
  errno = EINTR;
  err_terminal(stack(), ERR_OS, ENOENT, "open", "opening file");
  EXPECT_EQ(errno, 0) << "setting an error clears errno";
  errno = EBADF;
  EXPECT_EQ(print_last(ERR_MODE_BRIEF), "opening file: No such file or directory. " + kNoCauses);
  EXPECT_EQ(print_last(ERR_MODE_TRACEBACK),
            "open-> opening file.\nOperating system detected error.: No such file or directory.\n" +
                kNoCauses);
  EXPECT_EQ(errno, EBADF) << "printing leaves errno as it was";
  err_reset_all(stack());

  set_error(3);
  set_reason("the port did not answer.");
  err_terminal(stack(), ERR_HW_LIBRARY, 5, "g", "talking");
  EXPECT_EQ(print_last(ERR_MODE_BRIEF),
            "talking: No such file or device.the port did not answer. " + kNoCauses);
  EXPECT_EQ(error_code(), 3) << "the global number is restored";
  clear_error();
}

TEST_F(ErrorStack, PushedRecordsPrintNewestFirstAndResetFreesThemAll) {
  INT32 blocks = tvx_test_platform_blocks();
  err_terminal(stack(), ERR_NO_DATA, 0, "first", "a");
  err_record *pushed = err_push(stack());
  EXPECT_EQ(*stack(), pushed);
  EXPECT_EQ(pushed->category, 0);
  err_terminal(stack(), ERR_TIMEOUT, 0, "second", "b");
  err_append_cause(stack(), 0x2001);
  EXPECT_EQ(print_all(ERR_MODE_BRIEF),
            "b: Operation not completed within allotted time. Possible cause: The camera hardware "
            "is not connected.\n...occurred during error...\na: No reasonable data was supplied. " +
                kNoCauses);
  char *text = nullptr;
  err_cause_all(stack(), ERR_MODE_BRIEF, &text);
  EXPECT_EQ(std::string(text),
            "Possible cause: The camera hardware is not connected.\n"
            "...occurred during error...\n" +
                kNoCauses);
  err_pop(stack());
  EXPECT_EQ(print_all(ERR_MODE_BRIEF), "a: No reasonable data was supplied. " + kNoCauses);
  err_push(stack());
  fail_three_deep();
  err_qualify(stack(), "g", nullptr);
  EXPECT_GT(tvx_test_platform_blocks(), blocks);
  err_reset_all(stack());
  EXPECT_EQ((*stack())->next, nullptr);
  EXPECT_EQ(print_all(ERR_MODE_BRIEF), "No error. " + kNoCauses);
  EXPECT_EQ(tvx_test_platform_blocks(), blocks) << "every record, entry and cause is freed";
}

TEST_F(ErrorStack, AFailureWhilePendingStacksAboveAndAnEditReplaces) {
  EXPECT_EQ(handle_allocate(0, 1, MEM_PLAIN), nullptr);
  EXPECT_EQ(handle_lock(nullptr, "test"), nullptr);
  EXPECT_EQ(print_all(ERR_MODE_PATH),
            "handle_lock\n...occurred during error...\nhandle_allocate\n");
  err_reset_all(stack());

  // Editing replaces category and code, and adds its own line.
  err_terminal(stack(), ERR_NO_DATA, 1, "f", "x");
  err_edit(stack(), ERR_OUT_OF_RANGE, 2, "g", "y");
  EXPECT_EQ((*stack())->category, ERR_OUT_OF_RANGE);
  EXPECT_EQ((*stack())->code, 2);
  EXPECT_EQ(print_last(ERR_MODE_PATH), "g-> \nf\n");
}

TEST_F(ErrorStack, CompositionStopsBeforeOverflowingItsBuffer) {
  std::string long_text(1200, 'x');
  err_terminal(stack(), ERR_NO_DATA, 0, "f", long_text.c_str());
  err_qualify(stack(), "g", long_text.c_str());
  EXPECT_DEATH(
      {
        channel(REPORT_PANIC)->destination = to_stderr;
        print_last(ERR_MODE_BRIEF);
      },
      "PANIC: buffer full while error reporting");
}

using ErrorStackDeath = ErrorStack;

TEST_F(ErrorStackDeath, MisuseEndsTheProcessWithATraceback) {
  auto with_errors_shown = [](auto misuse) {
    channel(REPORT_ERROR)->destination = to_stderr;
    misuse();
  };
  err_terminal(stack(), ERR_NO_DATA, 7, "f", "x");
  EXPECT_DEATH(with_errors_shown([] { err_terminal(stack(), ERR_NO_DATA, 9, "g", "y"); }),
               "ERROR: err_terminal: error already set\nerr_terminal: trying to set error code 9 "
               "description:\n - g: y\nerr_terminal: Traceback so far:\nf-> x.\n");
  err_reset_all(stack());

  EXPECT_DEATH(with_errors_shown([] { err_push(stack()); }), "err_push: error not set\n");
  EXPECT_DEATH(with_errors_shown([] { err_pop(stack()); }), "err_pop: error stack underflowed\n");
  EXPECT_DEATH(with_errors_shown([] { err_reset_last(stack()); }), "err_reset_last: error not set");
  EXPECT_DEATH(with_errors_shown([] { err_reset_all(stack()); }), "err_reset_all: error not set");
  EXPECT_DEATH(with_errors_shown([] { err_qualify(stack(), "g", "y"); }),
               "err_qualify: error not set\nerr_qualify: trying to append description:\n - g: y");
  EXPECT_DEATH(with_errors_shown([] { err_edit(stack(), 1, 4, "g", "y"); }),
               "err_edit: error not set\nerr_edit: trying to edit code 4 description:");
  EXPECT_DEATH(with_errors_shown([] { err_terminal(stack(), 2, 3, nullptr, "y"); }),
               "err_terminal: routine is NULL\nerr_terminal: trying to set error category 2 code "
               "3 description:");
  EXPECT_DEATH(with_errors_shown([] { err_terminal(stack(), 2, 3, "g", nullptr); }),
               "err_terminal: text is NULL\n");
}

TEST_F(ErrorStackDeath, RunningOutOfMemoryWhileRecordingEndsTheProcess) {
  err_terminal(stack(), ERR_NO_DATA, 0, "f", "x");
  auto failing = [](auto misuse) {
    channel(REPORT_ERROR)->destination = to_stderr;
    tvx_test_fail_allocation(1, FALSE);
    misuse();
  };
  EXPECT_DEATH(failing([] { err_qualify(stack(), "g", "y"); }),
               "err_qualify: Out of memory\nerr_qualify: trying to append routine:\n - g\n");
  EXPECT_DEATH(failing([] { err_append_cause(stack(), 0x1001); }),
               "err_append_cause: Out of memory\nerr_append_cause: trying to append cause 4097");
  EXPECT_DEATH(failing([] { err_push(stack()); }), "err_push: Out of memory\n");
}

TEST_F(ErrorStackDeath, ExitPrintsTheStoryAndQuits) {
  err_terminal(stack(), ERR_NO_DATA, 0, "f", "x");
  EXPECT_EXIT(
      {
        channel(REPORT_ERROR)->destination = to_stderr;
        err_exit(stack(), 1, ERR_MODE_BRIEF);
      },
      ::testing::ExitedWithCode(0), "ERROR: x: No reasonable data was supplied. Sorry");
}

bool register_own_table() {
  static const cause_entry own[] = {{0x1002, "overridden"}, {0x5000, "own"}, {-1, nullptr}};
  bool fresh = !cause_check_list(own) && cause_initialise(own) != nullptr;
  bool found = std::strcmp(cause_message(0x5000), "own") == 0;
  bool newest_first = std::strcmp(cause_message(0x1002), "overridden") == 0;
  return fresh && found && newest_first;
}

TEST(Causes, RegisteredTablesAreSearchedAndKeptOnce) {
  EXPECT_TRUE(cause_check_list(where_is_tvx_causes())) << "start-up registers the camera table";
  EXPECT_STREQ(cause_message(0x1002), "Not enough system memory and/or swap space.");
  EXPECT_STREQ(cause_message(0x4001),
               "Readout AOI too large for live mode - use smaller AOI, Super VGA display or Grab "
               "Loop.");
  cause_node *again = cause_initialise(where_is_tvx_causes());
  EXPECT_NE(again, nullptr);
  EXPECT_EQ(again, cause_initialise(where_is_tvx_causes())) << "no second registration";

  // A registration lasts as long as the process, so this one is made in a child of its own.
  EXPECT_EXIT(std::exit(register_own_table() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

const char *library_error_text() {
  return "driver says no";
}
const char *library_reason_text() {
  return "because";
}

TEST(ErrorNumber, TextsCallbacksAndReason) {
  set_error(1);
  EXPECT_STREQ(error_msg(), "Out of memory.");
  set_error(38);
  EXPECT_STREQ(error_msg(), "Software signal received.");
  set_error(39);
  EXPECT_STREQ(error_msg(), "Unrecognised error number 39");
  set_error(-1);
  EXPECT_STREQ(error_msg(), "Unrecognised error number -1");

  set_error(30);
  EXPECT_STREQ(error_msg(), "Error in library.");
  set_libraryerror(library_error_text);
  set_libraryreason(library_reason_text);
  EXPECT_STREQ(error_msg(), "driver says no");
  EXPECT_STREQ(get_reason(), "because");
  set_libraryerror(nullptr);
  set_libraryreason(nullptr);

  clear_error();
  EXPECT_EQ(error_code(), 0);
  EXPECT_STREQ(get_reason(), "No reason specified.");

  std::string full(1999, 'r');
  set_reason((full + "overflow").c_str());
  EXPECT_EQ(std::string(get_reason()), full) << "at most 1999 characters are kept";
  append_reason("more");
  EXPECT_EQ(std::string(get_reason()), full) << "a full reason takes no more";
  set_reason("port ");
  append_reason("0x150");
  EXPECT_STREQ(get_reason(), "port 0x150");
  clear_error();

  errno = ENOENT;
  EXPECT_STREQ(syserror_msg(), "No such file or directory");
  EXPECT_DEATH(set_reason(nullptr), "Require assertion failed at line 83 in file reason\n");
  EXPECT_DEATH(append_reason(nullptr), "Require assertion failed at line 122 in file reason\n");
}

}  // namespace
