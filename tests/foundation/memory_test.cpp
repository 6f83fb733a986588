// Guarded blocks: accounting to the byte, lock counting, and every way a caller can misuse a
// block (stale, forged, overrun, double free, free while locked), each caught before harm.
#include <cerrno>
#include <cstring>
#include <string>

#include "support/frame.h"

namespace {

using namespace tvx_test;

class Memory : public FrameTest {};
using MemoryDeath = Memory;

const memrec *header(const void *contents) {
  return reinterpret_cast<const memrec *>(static_cast<const char *>(contents) - TVX_BLOCK_HEADER);
}

TEST_F(Memory, BlocksAreAccountedToTheByteAndDescribedByTheirHeader) {
  INT32 bytes = total_allocated(), blocks = number_of_allocations();
  HANDLE h = handle_allocate(1, 100, MEM_IMAGE);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(total_allocated(), bytes + 128);
  EXPECT_EQ(number_of_allocations(), blocks + 1);

  INT32 string_bytes = total_string_allocated(), strings = number_of_strings();
  void *s = standard_allocate(100, 1, MEM_PLAIN);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(total_string_allocated(), string_bytes + 156) << "the header is counted twice";
  EXPECT_EQ(number_of_strings(), strings + 1);

  standard_free(s, "test");
  handle_free(h, "test");

  h = handle_allocate(10, 4, MEM_LIST);
  auto *contents = static_cast<unsigned char *>(handle_lock(h, "test"));
  ASSERT_NE(contents, nullptr);
  const memrec *rec = header(contents);
  const unsigned char mark_bytes[] = {0x54, 0x51, 0x4B, 0x5A};
  EXPECT_EQ(std::memcmp(rec, mark_bytes, 4), 0) << "the mark is stored little-endian";
  EXPECT_EQ(rec->size, 68u);
  EXPECT_EQ(rec->guard_offset, 64u);
  EXPECT_EQ(rec->memclass, MEM_LIST);
  EXPECT_EQ(rec->address, static_cast<DWORD>(reinterpret_cast<uintptr_t>(h)));
  EXPECT_EQ(std::memcmp(contents + 40, mark_bytes, 4), 0) << "guard word follows the contents";
  for (int i = 0; i < 40; ++i) ASSERT_EQ(contents[i], 0) << "contents start zeroed";

  char *printed = nullptr;
  size_t length = 0;
  FILE *stream = open_memstream(&printed, &length);
  memrec_print(rec, stream);
  std::fclose(stream);
  EXPECT_STREQ(printed, "memrec(class 1039, size 68, count 2)");
  std::free(printed);
  handle_unlock(h, "test");
  handle_free(h, "test");
}

TEST_F(Memory, LocksCountAndOnlyUnlockedBlocksMove) {
  tvx_test_moving_blocks(TRUE);
  HANDLE h = handle_allocate(1, 64, MEM_IMAGE);
  auto *before = static_cast<char *>(handle_lock(h, "test"));
  ASSERT_NE(before, nullptr);
  std::strcpy(before, "pixels");
  handle_unlock(h, "test");
  auto *first = static_cast<char *>(handle_lock(h, "test"));
  auto *second = static_cast<char *>(handle_lock(h, "test"));
  ASSERT_NE(first, nullptr);
  EXPECT_NE(first, before) << "the last unlock moved it";
  EXPECT_STREQ(first, "pixels");
  EXPECT_EQ(first, second) << "blocks stay put while locked";
  EXPECT_EQ(header(first)->count, 3u);
  handle_unlock(h, "test");
  handle_unlock(h, "test");
  handle_unlock(h, "test");
  const memrec *rec = header(handle_lock(h, "test"));
  EXPECT_EQ(rec->count, 2u) << "unlocked back to 1, then locked once";
  handle_unlock(h, "test");
  handle_free(h, "test");
}

TEST_F(Memory, RefusedRequestsLeaveNothingBehind) {
  INT32 bytes = total_allocated();
  EXPECT_EQ(handle_allocate(0, 8, MEM_IMAGE), nullptr);
  EXPECT_EQ((*stack())->category, ERR_OUT_OF_RANGE);
  EXPECT_EQ(print_last(ERR_MODE_PATH), "handle_allocate\n");
  EXPECT_EQ(print_last(ERR_MODE_BRIEF),
            "requested allocation is zero: Data supplied was out of expected range. Sorry, there "
            "are no suggested causes.\n");
  err_reset_all(stack());
  const INT32 refused[][2] = {{-1, 8}, {65536, 65536}};  // negative, and too big for a block
  for (const auto &r : refused) {
    EXPECT_EQ(handle_allocate(r[0], r[1], MEM_IMAGE), nullptr) << r[0];
    EXPECT_EQ((*stack())->category, ERR_OUT_OF_RANGE) << r[0];
    err_reset_all(stack());
  }
  EXPECT_EQ(total_allocated(), bytes);
}

TEST_F(Memory, ExhaustedMemoryIsReportedWithItsCauses) {
  tvx_test_fail_allocation(1, FALSE);
  EXPECT_EQ(handle_allocate(1, 100, MEM_IMAGE), nullptr);
  EXPECT_EQ(tvx_test_injected_failures(), 1);
  EXPECT_EQ((*stack())->category, ERR_OS);
  EXPECT_EQ((*stack())->code, ENOMEM);
  EXPECT_EQ(print_last(ERR_MODE_ADVICE),
            "An error has occurred. Possible causes: Too many applications active at once.\nNot "
            "enough system memory and/or swap space.\n");
  err_reset_all(stack());

  tvx_test_fail_allocation(1, FALSE);
  EXPECT_EQ(standard_allocate(1, 100, MEM_PLAIN), nullptr);
  EXPECT_EQ(print_last(ERR_MODE_PATH), "standard_allocate\n");
  err_reset_all(stack());

  tvx_test_fail_allocation(1, FALSE);
  EXPECT_EQ(string_duplicate("name"), nullptr);
  EXPECT_EQ(print_last(ERR_MODE_PATH), "string_duplicate-> \nstandard_allocate\n");
}

TEST_F(Memory, StaleAndForgedHandlesAreRefusedUnread) {
  HANDLE h = handle_allocate(1, 16, MEM_REGION);
  handle_free(h, "test");
  const HANDLE bad[] = {h, nullptr, reinterpret_cast<HANDLE>(uintptr_t{0x12345678}),
                        reinterpret_cast<HANDLE>(~uintptr_t{0})};
  for (HANDLE handle : bad) {
    EXPECT_EQ(handle_lock(handle, "test"), nullptr);
    EXPECT_EQ(print_last(ERR_MODE_ADVICE),
              "An error has occurred. Possible cause: A programmer error has occurred.\n");
    EXPECT_EQ(print_last(ERR_MODE_TRACEBACK).rfind("handle_lock-> invalid memory handle.\n", 0),
              0u);
    err_reset_all(stack());
    handle_unlock(handle, "test");  // ignored
  }
  HANDLE reused = handle_allocate(1, 16, MEM_REGION);
  EXPECT_EQ(handle_lock(h, "test"), nullptr) << "a new block never answers to an old handle";
  err_reset_all(stack());
  handle_free(reused, "test");
}

TEST_F(Memory, OverrunIsCaughtByTheNextLockUnlockOrFree) {
  skip_totals();  // a broken block cannot be freed
  channel(REPORT_WARNING)->destination = catch_report;
  HANDLE h = handle_allocate(1, 100, MEM_IMAGE);
  auto *kept = static_cast<char *>(handle_lock(h, "test"));
  handle_unlock(h, "test");
  kept[100] = 0;  // one byte past the request, through a pointer kept past its unlock
  EXPECT_DEATH(handle_free(h, "test"),
               "Require assertion failed at line 236 in file free\nCalled by test. Memory class "
               "1038\n");
  EXPECT_EQ(handle_lock(h, "test"), nullptr);
  EXPECT_EQ((*stack())->category, ERR_INCONSISTENT);
  EXPECT_EQ(print_last(ERR_MODE_BRIEF).rfind("memory overrun. class code 1038: ", 0), 0u);
  EXPECT_EQ(caught().rfind("WARNING: memrec_overrun: rec sysmemid 5a4b5154, rec address ", 0), 0u);

  HANDLE locked = handle_allocate(1, 100, MEM_REGION);
  static_cast<char *>(handle_lock(locked, "test"))[100] = 0;
  EXPECT_DEATH(handle_unlock(locked, "test"),
               "Checkpointer assertion failure \\(overrun\\) at line 83 in file unlock\nCalled by "
               "test. Memory class 1042\n");
}

TEST_F(Memory, BrokenHeaderIsAnInvalidHandle) {
  skip_totals();
  channel(REPORT_WARNING)->destination = catch_report;
  HANDLE h = handle_allocate(1, 8, MEM_GDT);
  auto *contents = static_cast<char *>(handle_lock(h, "test"));
  const_cast<memrec *>(header(contents))->sysmemid = 0;
  EXPECT_DEATH(handle_unlock(h, "test"),
               "Checkpointer assertion failure \\(invalid pointer\\) at line 83 in file unlock\n");
  EXPECT_EQ(handle_lock(h, "test"), nullptr);
  EXPECT_EQ(
      print_last(ERR_MODE_BRIEF).rfind("invalid memory handle. class code 0: Inconsistency", 0),
      0u);
  EXPECT_NE(caught().find("memrec_valid: rec sysmemid 0 != 5a4b5154"), std::string::npos);
}

TEST_F(MemoryDeath, FreeingWhatCannotBeFreedEndsTheProcess) {
  auto shown = [](auto misuse) {
    channel(REPORT_WARNING)->destination = to_stderr;
    misuse();
  };
  HANDLE h = handle_allocate(1, 8, MEM_CAMERA);
  handle_lock(h, "test");
  EXPECT_DEATH(
      shown([h] { handle_free(h, "caller"); }),
      "WARNING: freeing bytes of memory that are still locked\nWARNING: id is 5a4b5154 "
      "\\(5a4b5154\\).*count is 2\nRequire assertion failed at line 229 in file free\nCalled "
      "by caller. Memory class 1025\n");
  handle_unlock(h, "test");
  handle_free(h, "test");
  EXPECT_DEATH(shown([h] { handle_free(h, "caller"); }),
               "freeing bytes of memory already deallocated\n.*line 219 in file free");
  EXPECT_DEATH(shown([] { handle_free(reinterpret_cast<HANDLE>(uintptr_t{77}), "caller"); }),
               "freeing bytes of memory not allocated by handle_free function\n.*line 209 in file "
               "free");

  char *s = static_cast<char *>(standard_allocate(4, 1, MEM_NAME));
  char local[32] = {};
  EXPECT_DEATH(shown([&] { standard_free(local + 24, "caller"); }),
               "not allocated by standard_free function\n.*line 325 in file free");
  s[4] = 'x';
  EXPECT_DEATH(standard_free(s, "caller"),
               "line 342 in file free\nCalled by caller. Memory class 100");
  s[4] = 0x54;  // the guard's first byte again
  standard_free(s, "test");
  EXPECT_DEATH(shown([s] { standard_free(s, "caller"); }),
               "freeing bytes of memory already deallocated\n.*line 335 in file free");
  EXPECT_DEATH(
      standard_free(nullptr, "caller"),
      "Require assertion failed at line 305 in file free\nCalled by caller. Memory class 0");
  EXPECT_DEATH(standard_allocate(0, 4, MEM_PLAIN),
               "Require assertion failed at line 498 in file alloc");
}

TEST_F(Memory, TraceReportsEveryAllocationAndFree) {
  tvx_test_memory_trace(TRUE);
  channel(REPORT_INFO)->destination = catch_report;
  INT32 blocks = number_of_allocations(), total = total_allocated();
  HANDLE h = handle_allocate(1, 100, MEM_IMAGE);
  handle_free(h, "test");
  char *s = string_duplicate("abc");
  standard_free(s, "test");
  auto totals = [](INT32 bytes) {
    return "INFO: \ttotal memory already allocated " + std::to_string(bytes / 1024) + " k " +
           std::to_string(bytes % 1024) + " bytes\n";
  };
  std::string expected =
      "INFO: handle_allocate: numelements 1, elementsize 100\n"
      "INFO: account_allocate_block: " +
      std::to_string(blocks + 1) + " allocations: request is 100, allocation is 128\n" +
      totals(total + 128) + "INFO: account_free_block: " + std::to_string(blocks) +
      " allocations: freeing 128 bytes (request size 100)\n" + totals(total) +
      "INFO: standard_allocate: numelements 4, elementsize 1\n";
  EXPECT_EQ(caught().substr(0, expected.size()), expected);
  EXPECT_NE(caught().find("strings: request is 32, allocation is 60\n"), std::string::npos);
  EXPECT_NE(caught().find("strings: freeing 60 bytes (request size 32)\n"), std::string::npos);
}

TEST_F(Memory, StringDuplicateCopiesIntoANameBlockAndSurvivesEveryFailure) {
  char *copy = string_duplicate("camera one");
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "camera one");
  EXPECT_EQ(header(copy)->memclass, MEM_NAME);
  INT32 memclass = -1;
  EXPECT_TRUE(stringrec_valid(header(copy), &memclass));
  EXPECT_EQ(memclass, MEM_NAME);
  standard_free(copy, "test");
  EXPECT_EQ(string_duplicate(nullptr), nullptr);
  EXPECT_EQ((*stack())->category, ERR_NO_DATA);
  err_reset_all(stack());

  // The pattern later suites use: fail the 1st, 2nd, ... allocation of an operation until it
  // needs no more, checking each time that it failed cleanly.
  for (INT32 nth = 1;; ++nth) {
    tvx_test_fail_allocation(nth, FALSE);
    HANDLE a = handle_allocate(1, 10, MEM_LIST);
    char *b = a != nullptr ? string_duplicate("b") : nullptr;
    bool injected = tvx_test_injected_failures() > 0;
    tvx_test_fail_allocation(0, FALSE);
    if (b != nullptr) standard_free(b, "test");
    if (a != nullptr) handle_free(a, "test");
    if (!injected) break;
    EXPECT_EQ((*stack())->category, ERR_OS) << "failure " << nth;
    err_reset_all(stack());
  }
}

}  // namespace
