// The list and its cursor: where each operation leaves the cursor, removal at every position,
// sorting with its stall on a NULL element, reversal, and failures that leave the list whole.
#include <cstdint>
#include <string>
#include <vector>

#include "support/error_trace.h"

namespace {

using namespace tvx_test;
using Objects = std::vector<uintptr_t>;

class List : public FrameTest {
 protected:
  // Every block moves when its last lock goes, so that a node or list record read through a
  // pointer kept past its unlock shows as garbage in every test.
  void SetUp() override {
    FrameTest::SetUp();
    tvx_test_moving_blocks(TRUE);
    list_ = list_new();
    ASSERT_NE(list_, nullptr);
  }
  void TearDown() override {
    list_delete(list_, nullptr);
    FrameTest::TearDown();
  }
  void fill(const Objects &objects) {
    for (uintptr_t o : objects) ASSERT_TRUE(list_append_tail(list_, obj(o)));
  }
  static HANDLE obj(uintptr_t n) { return reinterpret_cast<HANDLE>(n); }
  static uintptr_t num(HANDLE h) { return reinterpret_cast<uintptr_t>(h); }

  // Read both ways, so that a broken `prev` link shows as well as a broken `next`.
  Objects contents() {
    Objects forwards, backwards;
    for (list_head(list_); list_more(list_); list_next(list_))
      forwards.push_back(num(list_get_object(list_)));
    for (list_tail(list_); list_more(list_); list_prev(list_))
      backwards.insert(backwards.begin(), num(list_get_object(list_)));
    EXPECT_EQ(forwards, backwards) << "next and prev links disagree";
    return forwards;
  }

  HANDLE list_ = nullptr;
};

BOOL equal(HANDLE object, HANDLE key) {
  return object == key;
}
BOOL greater(HANDLE a, HANDLE b) {
  return reinterpret_cast<uintptr_t>(a) > reinterpret_cast<uintptr_t>(b);
}
std::vector<HANDLE> destroyed;
void record_destroy(HANDLE object) {
  destroyed.push_back(object);
}

TEST_F(List, CursorGoesToAppendedNodesCountsFromOneAndReadsNothingOffTheList) {
  ASSERT_TRUE(list_append_tail(list_, obj(2)));
  EXPECT_EQ(list_size(list_), 1);
  EXPECT_EQ(num(list_get_object(list_)), 2u) << "cursor on the first node";
  EXPECT_EQ(contents(), Objects{2}) << "head and tail both set";

  ASSERT_TRUE(list_append_head(list_, obj(1)));
  EXPECT_EQ(num(list_get_object(list_)), 1u);
  ASSERT_TRUE(list_append_tail(list_, obj(3)));
  EXPECT_EQ(num(list_get_object(list_)), 3u);
  EXPECT_EQ(list_size(list_), 3);
  EXPECT_EQ(contents(), (Objects{1, 2, 3}));

  // Elements are as wide as a handle: nothing above 32 bits is lost.
  const uintptr_t wide = static_cast<uintptr_t>(0x1234567890ABULL);
  ASSERT_TRUE(list_append_head(list_, obj(wide)));
  EXPECT_EQ(num(list_get_nth_object(list_, 1)), wide);

  // A cursor off the list reads nothing; nth counts from one.
  list_empty(list_, nullptr);
  fill({10, 20, 30});
  list_tail(list_);
  EXPECT_EQ(list_get_next_object(list_), nullptr);
  ASSERT_TRUE(list_next(list_));
  EXPECT_FALSE(list_more(list_));
  EXPECT_TRUE(list_next(list_)) << "stepping off the end is harmless";
  HANDLE out = obj(99);
  EXPECT_TRUE(list_get_object_x(list_, &out));
  EXPECT_EQ(out, nullptr);
  EXPECT_TRUE(list_set_object(list_, obj(77))) << "does nothing off the list";

  ASSERT_TRUE(list_nth(list_, 2));
  EXPECT_EQ(num(list_get_next_object(list_)), 30u);
  EXPECT_EQ(num(list_get_object(list_)), 20u) << "peeking ahead does not move the cursor";
  ASSERT_TRUE(list_set_object(list_, obj(25)));
  EXPECT_EQ(contents(), (Objects{10, 25, 30}));
  for (INT32 n : {0, 4}) {
    list_head(list_);
    EXPECT_FALSE(list_get_nth_object_x(list_, n, &out)) << n;
    EXPECT_EQ(out, nullptr);
    EXPECT_FALSE(list_more(list_)) << n;
  }
  EXPECT_FALSE(tvx::error_pending()) << "out of range is not an error";
}

TEST_F(List, RemovalRelinksTheNeighboursAndReturnsTheCursorToTheHead) {
  fill({1, 2, 3, 4});
  destroyed.clear();
  list_nth(list_, 2);
  ASSERT_TRUE(list_remove(list_, record_destroy));
  EXPECT_EQ(destroyed, std::vector<HANDLE>{obj(2)});
  EXPECT_EQ(num(list_get_object(list_)), 1u) << "cursor back on the head";
  EXPECT_EQ(contents(), (Objects{1, 3, 4}));

  list_tail(list_);
  ASSERT_TRUE(list_remove(list_, nullptr));
  EXPECT_EQ(contents(), (Objects{1, 3}));
  list_head(list_);
  ASSERT_TRUE(list_remove(list_, nullptr));
  EXPECT_EQ(contents(), Objects{3});
  list_head(list_);
  ASSERT_TRUE(list_remove(list_, nullptr));
  EXPECT_EQ(list_size(list_), 0);
  list_head(list_);
  EXPECT_FALSE(list_more(list_));
  list_tail(list_);
  EXPECT_FALSE(list_more(list_)) << "head and tail both gone";
  EXPECT_FALSE(list_remove(list_, nullptr)) << "nothing under the cursor";

  ASSERT_TRUE(list_append_tail(list_, obj(5)));
  EXPECT_EQ(contents(), Objects{5}) << "an emptied list takes nodes again";
}

TEST_F(List, FindPassesTheElementFirstAndStopsAtTheFirstMatch) {
  fill({5, 7, 5});
  static std::vector<std::pair<HANDLE, HANDLE>> calls;
  calls.clear();
  auto spy = [](HANDLE object, HANDLE key) -> BOOL {
    calls.emplace_back(object, key);
    return object == key;
  };
  ASSERT_TRUE(list_find(list_, obj(7), spy));
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[1], std::make_pair(obj(7), obj(7)));
  EXPECT_EQ(calls[0], std::make_pair(obj(5), obj(7))) << "element first, key second";

  ASSERT_TRUE(list_find(list_, obj(5), equal));
  HANDLE found = list_get_current(list_);
  list_head(list_);
  EXPECT_EQ(found, list_get_current(list_)) << "the first of two matches";

  HANDLE out = obj(1);
  EXPECT_FALSE(list_find_object(list_, obj(9), equal, &out));
  EXPECT_EQ(out, nullptr);
  EXPECT_FALSE(list_more(list_)) << "no match leaves the cursor off the list";
  EXPECT_TRUE(list_find_object(list_, obj(7), equal, &out));
  EXPECT_EQ(num(out), 7u);

  EXPECT_TRUE(list_remove_object(list_, obj(5), equal, nullptr));
  EXPECT_EQ(contents(), (Objects{7, 5})) << "only the first match goes";
  EXPECT_FALSE(list_remove_object(list_, obj(9), equal, nullptr));
  EXPECT_EQ(list_size(list_), 2);
  EXPECT_FALSE(tvx::error_pending());
}

TEST_F(List, SortMovesElementsBetweenNodesThatStayPutAndStallsOnANull) {
  auto never = [](HANDLE, HANDLE) -> BOOL {
    ADD_FAILURE() << "one element is never compared";
    return FALSE;
  };
  EXPECT_TRUE(list_sort(list_, never));
  fill({8});
  EXPECT_TRUE(list_sort(list_, never));
  list_empty(list_, nullptr);

  fill({4, 1, 3, 2});
  std::vector<HANDLE> nodes;
  for (list_head(list_); list_more(list_); list_next(list_))
    nodes.push_back(list_get_current(list_));
  ASSERT_TRUE(list_sort(list_, greater));
  EXPECT_EQ(contents(), (Objects{1, 2, 3, 4}));
  std::vector<HANDLE> after;
  for (list_head(list_); list_more(list_); list_next(list_))
    after.push_back(list_get_current(list_));
  EXPECT_EQ(after, nodes);

  // A NULL element stalls every pass at the pair (3, NULL), comparing nothing after it: the tail
  // stays unsorted, while the part before the NULL still sorts.
  list_empty(list_, nullptr);
  fill({3, 2, 0, 9, 1});
  ASSERT_TRUE(list_sort(list_, greater));
  EXPECT_EQ(contents(), (Objects{2, 3, 0, 9, 1}));
}

TEST_F(List, ReverseSwapsTheEndsAndBothLinkDirections) {
  EXPECT_TRUE(list_reverse(list_)) << "an empty list";
  fill({1, 2, 3});
  ASSERT_TRUE(list_reverse(list_));
  EXPECT_EQ(num(list_get_object(list_)), 3u) << "cursor on the new head";
  EXPECT_EQ(contents(), (Objects{3, 2, 1}));
  ASSERT_TRUE(list_append_tail(list_, obj(0)));
  EXPECT_EQ(contents(), (Objects{3, 2, 1, 0})) << "the old head is the tail";
}

TEST_F(List, EmptyAndDeleteHandEveryElementToDestroy) {
  fill({1, 2, 3});
  destroyed.clear();
  ASSERT_TRUE(list_empty(list_, record_destroy));
  EXPECT_EQ(destroyed, (std::vector<HANDLE>{obj(1), obj(2), obj(3)}));
  EXPECT_EQ(list_size(list_), 0);

  fill({4, 5});
  destroyed.clear();
  EXPECT_TRUE(list_delete(list_, record_destroy));
  list_ = nullptr;
  EXPECT_EQ(destroyed.size(), 2u);
  EXPECT_FALSE(list_delete(nullptr, record_destroy));
}

TEST_F(List, FailuresLeaveTheListAsItWasAndNameTheOperation) {
  // No node is made while an error is pending, and the pending error is kept.
  fill({1});
  err_terminal(stack(), ERR_HARDWARE, 0, "earlier", "something broke");
  EXPECT_FALSE(list_append_tail(list_, obj(2)));
  EXPECT_FALSE(list_append_head(list_, obj(3)));
  EXPECT_EQ(list_size(list_), 1);
  EXPECT_EQ(terminal(), "earlier: something broke");
  EXPECT_EQ(routines().front(), "list_append_head");
  err_reset_all(stack());
  EXPECT_EQ(contents(), Objects{1});

  fill({2});
  tvx_test_fail_allocation(1, FALSE);
  EXPECT_FALSE(list_append_head(list_, obj(3)));
  EXPECT_EQ(routines().front(), "list_append_head");
  err_reset_all(stack());
  EXPECT_EQ(contents(), (Objects{1, 2}));
  tvx_test_fail_allocation(1, FALSE);
  EXPECT_EQ(list_new(), nullptr);
  EXPECT_EQ(routines().front(), "list_new");
  err_reset_all(stack());

  HANDLE stale = list_new();
  list_delete(stale, nullptr);
  EXPECT_EQ(list_size(stale), 0);
  EXPECT_EQ(terminal(), "handle_lock: invalid memory handle.");
  EXPECT_EQ(routines().front(), "list_size");
  err_reset_all(stack());
  EXPECT_FALSE(list_head(stale));
  EXPECT_EQ(routines().front(), "list_head");
}

TEST_F(List, PrintWritesEachElementInOrder) {
  char *text = nullptr;
  size_t length = 0;
  FILE *stream = open_memstream(&text, &length);
  EXPECT_TRUE(list_print(nullptr, nullptr, stream));
  fill({1, 2, 3});
  EXPECT_TRUE(list_print(
      list_,
      [](HANDLE o, FILE *s) -> BOOL {
        return std::fprintf(s, "<%lu>", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(o)));
      },
      stream));
  std::fclose(stream);
  EXPECT_STREQ(text, "NULL list\n<1><2><3>");
  std::free(text);
}

// ---- Nodes on their own ----------------------------------------------------------------------

class ListNode : public FrameTest {};

TEST_F(ListNode, MakeNextPutsTheNewNodeInFront) {
  HANDLE c = listnode_new(reinterpret_cast<HANDLE>(3), nullptr, nullptr);
  HANDLE b = listnode_mk_next(reinterpret_cast<HANDLE>(2), c);
  HANDLE a = listnode_mk_next(reinterpret_cast<HANDLE>(1), b);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(listnode_next(a), b);
  EXPECT_EQ(listnode_prev(c), b);
  EXPECT_EQ(listnode_size(a), 3);
  EXPECT_EQ(listnode_size(nullptr), 0);
  EXPECT_EQ(listnode_tail(a), c);
  EXPECT_EQ(listnode_tail(nullptr), nullptr);

  // A list built over the chain adopts it: count, both ends, cursor on the head.
  HANDLE list = list_new();
  ASSERT_TRUE(list_ctor(list, a));
  EXPECT_EQ(list_size(list), 3);
  EXPECT_EQ(list_get_current(list), a);
  list_tail(list);
  EXPECT_EQ(list_get_current(list), c);

  EXPECT_EQ(listnode_reverse(a, nullptr), c);
  EXPECT_EQ(listnode_next(c), b);
  EXPECT_EQ(listnode_prev(a), b) << "each prev is the old next";
  EXPECT_EQ(listnode_prev(c), nullptr);
  EXPECT_EQ(listnode_next(a), nullptr);
  ASSERT_TRUE(list_ctor(list, c));
  EXPECT_TRUE(list_delete(list, nullptr));
  EXPECT_FALSE(tvx::error_pending());
}

// ---- Rows -------------------------------------------------------------------------------------

class Rows : public FrameTest {};

TEST_F(Rows, ValuesCarryAnIdAndTheOffsetOfTheirText) {
  const char text[] = "ADC\0fast\0slow";
  INT32 *row = hlist_new(3);
  ASSERT_NE(row, nullptr);
  row[0] = (1 << 16) | 0;
  row[1] = (2 << 16) | 4;
  row[2] = static_cast<INT32>(0xFFFF0000u | 9);
  EXPECT_EQ(hlist_size(row), 3);
  EXPECT_EQ(hlist_size(nullptr), 0);
  EXPECT_EQ(hlist_id(row[1]), 2);
  EXPECT_EQ(hlist_id(row[2]), -1) << "the id keeps its sign";
  EXPECT_STREQ(hlist_string(text, row[2]), "slow");

  INT32 *second = hlist_new(1);
  second[0] = 4;
  auto **rows = static_cast<INT32 **>(standard_allocate(3, sizeof(INT32 *), MEM_PLAIN));
  rows[0] = row;
  rows[1] = second;
  char *printed = nullptr;
  size_t length = 0;
  FILE *stream = open_memstream(&printed, &length);
  hlist_print(text, rows, stream);
  std::fclose(stream);
  EXPECT_STREQ(printed, "\n{[ADC][fast][slow]}\n{[fast]}");
  std::free(printed);
  vlist_delete(rows);  // the fixture sees every row freed with the array
  hlist_delete(nullptr);
  vlist_delete(nullptr);
}

}  // namespace
