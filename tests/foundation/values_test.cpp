// Tagged values, parameter lists and their lookups, and the small helpers: which parameter wins,
// what a missing one costs, how values print, and what the text-buffer pool will not tolerate.
#include <cstdint>
#include <cstring>
#include <string>

#include "foundation/gdt.h"
#include "support/error_trace.h"

namespace {

using namespace tvx_test;

std::string captured(BOOL (*print)(HANDLE, FILE *), HANDLE object) {
  char *text = nullptr;
  size_t length = 0;
  FILE *stream = open_memstream(&text, &length);
  print(object, stream);
  std::fclose(stream);
  std::string result = text;
  std::free(text);
  return result;
}

// ---- Tagged values -----------------------------------------------------------------------------

class Gdt : public FrameTest {};

TEST_F(Gdt, EachTypeReadsPrintsAndComparesAsItsOwn) {
  INT32 i = -5;
  double f = 2.5;
  BYTE b = 1;
  HANDLE gi = gdt_new(GDT_IVAL, &i), gf = gdt_new(GDT_FVAL, &f), gb = gdt_new(GDT_BVAL, &b);
  HANDLE gs = gdt_new(GDT_SVAL, "slow scan");
  ASSERT_TRUE(gi && gf && gb && gs);
  EXPECT_EQ(gdt_getIval(gi), -5);
  EXPECT_EQ(gdt_getFval(gf), 2.5);
  EXPECT_TRUE(gdt_getBval(gb));
  EXPECT_STREQ(gdt_getSval(gs), "slow scan");
  EXPECT_EQ(gdt_get_type(gs), GDT_SVAL);

  EXPECT_EQ(captured(gdt_print1, gi), "-5");
  EXPECT_EQ(captured(gdt_print1, gf), "2.50");
  EXPECT_EQ(captured(gdt_print2, gb), "TRUE ");
  EXPECT_EQ(captured(gdt_print3, gs), "gdt(sval, slow scan)");
  EXPECT_EQ(captured(gdt_print3, gb), "gdt(bval, TRUE)");
  EXPECT_STREQ(gdt_printstr1(gf), "2.50");
  EXPECT_FALSE(tvx::error_pending());

  EXPECT_EQ(gdt_getIval(gs), 0) << "a string is not read as a number";
  EXPECT_EQ(category(), ERR_PROGRAMMER);
  err_reset_all(stack());

  // Equality compares the type, then the value; assignment copies the text.
  INT32 one = 1;
  double d = 1.0;
  HANDLE i1 = gdt_new(GDT_IVAL, &one), i2 = gdt_new(GDT_IVAL, &one), f1 = gdt_new(GDT_FVAL, &d);
  HANDLE s2 = gdt_new(GDT_SVAL, "b");
  EXPECT_TRUE(gdt_equal(i1, i2));
  EXPECT_FALSE(gdt_equal(i1, f1)) << "1 and 1.0 are of different types";
  EXPECT_FALSE(gdt_equal(gs, s2));
  ASSERT_TRUE(gdt_assign(s2, gs));
  EXPECT_TRUE(gdt_equal(gs, s2));
  EXPECT_NE(gdt_getSval(gs), gdt_getSval(s2)) << "assignment copies the text";
  for (HANDLE g : {gi, gf, gb, gs, i1, i2, f1, s2}) gdt_delete(g);
}

TEST_F(Gdt, StringsAreOwnedAndARefusedChangeKeepsTheOldValue) {
  INT32 v = 1;
  long changes = tvx::value_changes();
  EXPECT_EQ(gdt_new(3, &v), nullptr);
  EXPECT_EQ(category(), ERR_PROGRAMMER);
  EXPECT_EQ(terminal(), "gdt_new: type not supported\n");
  err_reset_all(stack());

  char source[] = "kept";
  HANDLE g = gdt_new(GDT_SVAL, source);
  std::strcpy(source, "xxxx");
  EXPECT_STREQ(gdt_getSval(g), "kept") << "the value's own copy";
  EXPECT_FALSE(gdt_set(g, 7, &v));
  EXPECT_EQ(terminal(), "gdt_set: type not supported\n");
  err_reset_all(stack());
  EXPECT_STREQ(gdt_getSval(g), "kept") << "the old value survives a refused change";

  // Running out of memory for the new string keeps the old one too.
  tvx_test_fail_allocation(1, FALSE);
  EXPECT_FALSE(gdt_set(g, GDT_SVAL, "lost"));
  err_reset_all(stack());
  EXPECT_STREQ(gdt_getSval(g), "kept");
  // A copy outlives its original; a string replaced by a number is freed.
  HANDLE copy = gdt_duplicate(g);
  INT32 strings = number_of_strings(), seven = 7;
  ASSERT_TRUE(gdt_set(g, GDT_IVAL, &seven));
  EXPECT_EQ(number_of_strings(), strings - 1) << "the old string is freed";
  EXPECT_EQ(gdt_getIval(g), 7);
  EXPECT_EQ(tvx::value_changes(), changes + 3) << "only a successful new, copy or set counts";
  gdt_delete(g);
  EXPECT_STREQ(gdt_getSval(copy), "kept");
  gdt_delete(copy);
}

// ---- Parameters ----------------------------------------------------------------------------

class Params : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    params_ = sysparams_new();
    ASSERT_NE(params_, nullptr);
  }
  void TearDown() override {
    sysparams_delete(params_);  // deletes every parameter: the fixture checks the totals
    FrameTest::TearDown();
  }
  void add(INT32 id, INT32 value) {
    ASSERT_TRUE(sysparams_append(params_, sysparam_make_ival(id, value)));
  }
  HANDLE params_ = nullptr;
};
using ParamsDeath = Params;

TEST_F(Params, PairsAreFoundTogetherOrNotAtAll) {
  add(SYSPARAM_XBIN, 2);
  INT32 x = -1, y = -1;
  EXPECT_FALSE(sysparams_ccdbinning(params_, &x, &y));
  EXPECT_EQ(terminal(), "sysparams_ccdbinning: failed to find xbin & ybin parameters.");
  err_reset_all(stack());
  add(SYSPARAM_YBIN, 4);
  ASSERT_TRUE(sysparams_ccdbinning(params_, &x, &y));
  EXPECT_EQ(x, 2);
  EXPECT_EQ(y, 4);

  add(SYSPARAM_XSIZE, 1024);
  EXPECT_FALSE(sysparams_ccdsize(params_, &x, &y));
  EXPECT_EQ(x, 1024) << "what was found is still given";
  EXPECT_EQ(y, 0) << "outputs are cleared first";
  EXPECT_EQ(category(), ERR_NO_DATA);
  EXPECT_EQ(terminal(), "sysparams_ccdsize: failed to find both xsize & ysize parameters");
  EXPECT_EQ(causes(), std::vector<INT32>{0x1040});
  err_reset_all(stack());

  EXPECT_FALSE(sysparams_pixel_lowhigh(params_, &x, &y));
  EXPECT_EQ(terminal(), "sysparams_pixel_lowhigh: failed to find both pixel low & high parameters");
}

TEST_F(Params, OldestAppendedWinsExceptForTheShutterFlagAndAbsentOnesFailQuietly) {
  add(SYSPARAM_EXPOSURE_TIME, 100);
  add(SYSPARAM_EXPOSURE_TIME, 200);
  INT32 time = 0;
  ASSERT_TRUE(sysparams_exposetime(params_, &time));
  EXPECT_EQ(time, 100) << "appending puts the newest first, and the last match wins";

  sysparams_append(params_, sysparam_make_bval(SYSPARAM_SHUTTER_DISABLE, 1));
  sysparams_append(params_, sysparam_make_bval(SYSPARAM_SHUTTER_DISABLE, 0));
  BYTE flag = 9;
  ASSERT_TRUE(sysparams_shutter_disable(params_, &flag));
  EXPECT_EQ(flag, 0) << "the newest shutter flag wins";
  sysparams_delete(params_);
  params_ = sysparams_new();

  // Absent values fail without an error; an absent shutter flag leaves the output alone.
  using Single = BOOL (*)(HANDLE, INT32 *);
  const std::pair<Single, INT32> singles[] = {{sysparams_exposetime, SYSPARAM_EXPOSURE_TIME},
                                              {sysparams_framedelay, SYSPARAM_FRAME_DELAY},
                                              {sysparams_preflush, SYSPARAM_PREFLUSH}};
  for (const auto &[lookup, id] : singles) {
    INT32 value = 5;
    EXPECT_FALSE(lookup(params_, &value)) << id;
    EXPECT_EQ(value, 0) << id;
    add(id, 30 + id);
    EXPECT_TRUE(lookup(params_, &value)) << id;
    EXPECT_EQ(value, 30 + id);
  }
  flag = 7;
  EXPECT_FALSE(sysparams_shutter_disable(params_, &flag));
  EXPECT_EQ(flag, 7);
  EXPECT_FALSE(tvx::error_pending());
}

TEST_F(Params, RegionsAndImagesAreOptionalAndHandleWide) {
  HANDLE regions = reinterpret_cast<HANDLE>(1), images = reinterpret_cast<HANDLE>(1);
  EXPECT_TRUE(sysparams_regions_images(params_, &regions, &images));
  EXPECT_EQ(regions, nullptr);
  EXPECT_EQ(images, nullptr);

  HANDLE wide = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0xABCDEF012345ULL));
  sysparams_append(params_, sysparam_make_pval(SYSPARAM_REGIONS, wide));
  sysparams_append(params_, sysparam_make_pval(SYSPARAM_IMAGE_LISTS, wide));
  EXPECT_TRUE(sysparams_regions_imagelists(params_, &regions, &images));
  EXPECT_EQ(regions, wide);
  EXPECT_EQ(images, wide);
  EXPECT_TRUE(sysparams_regions_images(params_, &regions, &images));
  EXPECT_EQ(regions, wide);
  EXPECT_EQ(images, nullptr) << "image lists are not images";
}

TEST_F(Params, NullListAndNullParameterAreErrors) {
  EXPECT_FALSE(sysparams_append(params_, nullptr));
  EXPECT_EQ(terminal(), "sysparams_append: no parameter to append.");
  EXPECT_EQ(category(), ERR_NO_DATA);
  err_reset_all(stack());

  // A parameter that could not be made leaves its own failure on top; one whose list node cannot
  // be made is let go (the fixture counts the blocks).
  tvx_test_fail_allocation(1, FALSE);
  EXPECT_FALSE(sysparams_append(params_, sysparam_make_ival(SYSPARAM_XBIN, 2)));
  EXPECT_EQ(terminal(), "handle_allocate: unable to continue");
  EXPECT_EQ((*stack())->next, nullptr) << "no second record";
  err_reset_all(stack());
  HANDLE param = sysparam_make_ival(SYSPARAM_XBIN, 2);
  tvx_test_fail_allocation(1, FALSE);
  EXPECT_FALSE(sysparams_append(params_, param));
  EXPECT_EQ(terminal(), "handle_allocate: unable to continue");
  err_reset_all(stack());

  // A parameter list whose inner list is gone (as after a half-failed construction).
  auto *inner = static_cast<HANDLE *>(handle_lock(params_, "test"));
  HANDLE saved = *inner;
  *inner = nullptr;
  INT32 x = 0, y = 0;
  EXPECT_FALSE(sysparams_ccdbinning(params_, &x, &y));
  EXPECT_EQ(terminal(), "sysparams_ccdbinning: null parameter list.");
  EXPECT_EQ(causes(), std::vector<INT32>{0x1040});
  *inner = saved;
  handle_unlock(params_, "test");
}

TEST_F(Params, PrintShowsEachKind) {
  HANDLE i = sysparam_make_ival(0, -12), f = sysparam_make_fval(6, 3.14159);
  HANDLE g = sysparam_make_fval(6, 2.0625), b = sysparam_make_bval(15, 1);
  HANDLE p = sysparam_make_pval(4, reinterpret_cast<HANDLE>(0xBEEF));
  EXPECT_EQ(captured(sysparam_print, i), "(-12)");
  EXPECT_EQ(captured(sysparam_print, f), "(3.14)");
  EXPECT_EQ(captured(sysparam_print, g), "(2.6)") << "hundredths printed as a whole number";
  EXPECT_EQ(captured(sysparam_print, b), "(Invalid data type)");
  EXPECT_EQ(captured(sysparam_print, p), "(BEEF)");
  EXPECT_EQ(sysparam_get_type(f), 6);
  EXPECT_EQ(sysparam_get_fval(f), 3.14159);
  for (HANDLE h : {i, f, g, b, p}) sysparam_delete(h);
}

TEST_F(ParamsDeath, NullOutputEndsTheProcessWithTheLookupsLine) {
  INT32 v = 0;
  HANDLE h = nullptr;
  EXPECT_DEATH(sysparams_ccdbinning(params_, &v, nullptr),
               "Require assertion failed at line 63 in file values");
  EXPECT_DEATH(sysparams_ccdsize(params_, nullptr, &v), "line 135 in file values");
  EXPECT_DEATH(sysparams_pixel_lowhigh(params_, &v, nullptr), "line 207 in file values");
  EXPECT_DEATH(sysparams_regions_images(params_, &h, nullptr), "line 277 in file values");
  EXPECT_DEATH(sysparams_exposetime(params_, nullptr), "line 340 in file values");
}

// ---- Conversions and helpers -----------------------------------------------------------------

TEST(Conversions, TextNumberPartsSwapsAndCopies) {
  EXPECT_EQ(str_to_int("42"), 42);
  EXPECT_EQ(str_to_int("0x1F"), 31);
  EXPECT_EQ(str_to_int("017"), 15) << "a leading 0 is octal";
  EXPECT_EQ(str_to_int("-8"), -8);
  EXPECT_EQ(str_to_int("volts"), 0);
  EXPECT_EQ(str_to_float("2.75e1"), 27.5);
  EXPECT_EQ(str_to_float("none"), 0.0);
  EXPECT_TRUE(str_to_bool("TRUE"));
  EXPECT_FALSE(str_to_bool("true"));
  EXPECT_FALSE(str_to_bool("T"));
  EXPECT_EQ(whole_part(-2.7), -2);
  EXPECT_EQ(whole_part(5e10), 50000000000LL) << "wider than 32 bits";
  EXPECT_EQ(frac_part(3.14159, 2), 14);
  EXPECT_EQ(frac_part(-2.75, 2), -75);
  EXPECT_EQ(frac_part(3.14159, 0), 1) << "fewer than one digit means one";
  INT16 s = 0x1234;
  EXPECT_EQ(am_swap_INT16(&s), &s);
  EXPECT_EQ(s, 0x3412);
  INT32 w = 0x11223344;
  EXPECT_EQ(am_swap_INT32(&w), &w);
  EXPECT_EQ(w, 0x44332211);
  char out[8];
  std::memset(out, '#', sizeof out);
  EXPECT_EQ(lstrncpy(out, "abc", 8), out + 4) << "the NUL is copied and counted";
  EXPECT_STREQ(out, "abc");
  EXPECT_EQ(out[4], '#');
  std::memset(out, '#', sizeof out);
  EXPECT_EQ(lstrncpy(out, "abcdef", 3), out + 3);
  EXPECT_EQ(std::string(out, 4), "abc#") << "no NUL added at the limit";
  EXPECT_EQ(lstrncpy(out, "xyz", 0), out);
  EXPECT_EQ(out[0], 'a');
}

TEST(FileSpec, SplitsOnEitherSeparatorAndLongNamesKeepTheirEnds) {
  struct {
    const char *spec, *path, *name, *noext, *ext;
    INT32 dirs;
  } const cases[] = {
      {"a\\b.c", "a\\", "b.c", "b", ".c", 1},
      {"a/b.c", "a/", "b.c", "b", ".c", 1},
      {"C:\\cam\\7100hw.def", "C:\\cam\\", "7100hw.def", "7100hw", ".def", 2},
      {"/usr/x.tar.gz", "/usr/", "x.tar.gz", "x.tar", ".gz", 2},
      {"dir.d\\name", "dir.d\\", "name", "name", "", 1},
      {"plain", "", "plain", "plain", "", 0},
      {"cam\\", "cam\\", "cam\\", "cam\\", "", 1},
      {"a/.profile", "a/", ".profile", ".profile", ".profile", 1},
      {".profile", "", ".profile", ".profile", "", 0},
      {"mixed/dir\\f.r2h", "mixed/dir\\", "f.r2h", "f", ".r2h", 2},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.spec);
    EXPECT_STREQ(filespec_path(c.spec), c.path);
    EXPECT_STREQ(filespec_name(c.spec), c.name);
    EXPECT_STREQ(filespec_name_noext(c.spec), c.noext);
    EXPECT_STREQ(filespec_ext(c.spec), c.ext);
    EXPECT_EQ(filespec_dir_count(c.spec), c.dirs);
  }
  EXPECT_STREQ(filespec_summarise("a\\b\\c\\d\\e\\f"), "a\\b\\c\\d\\e\\f") << "five separators";
  EXPECT_STREQ(filespec_summarise("C:\\a\\b\\c\\d\\e\\f.def"), "C:\\a\\b\\...\\d\\e\\f.def");
  EXPECT_STREQ(filespec_summarise("/a/b/c/d/e/f/g.def"), "/a/b/.../e/f/g.def");
  EXPECT_STREQ(filespec_summarise("a/b/c/d/e/f/g.def"), "a/b/.../e/f/g.def");
  std::string longest = std::string(300, 'x') + "/name";
  EXPECT_STREQ(filespec_path(longest.c_str()), "") << "the separator lies past the cut";
}

// ---- Text buffers ------------------------------------------------------------------------------

class TextBuffers : public FrameTest {};
using TextBuffersDeath = TextBuffers;

TEST_F(TextBuffers, PoolHandsOutSixAndEveryOneComesBack) {
  EXPECT_EQ(tbuffer_size(), 264);
  INT32 before = tbuffer_inuse();
  char *taken[6];
  for (int i = 0; i < 6 - before; ++i) taken[i] = tbuffer_new();
  EXPECT_EQ(tbuffer_inuse(), 6);
  char foreign[264];
  tbuffer_delete(foreign);
  EXPECT_EQ(tbuffer_inuse(), 6) << "a buffer from elsewhere is ignored";
  std::memset(taken[0], 'x', 264);
  tbuffer_delete(taken[0]);
  EXPECT_EQ(tbuffer_new(), taken[0]) << "the first free one is reused";
  for (int i = 0; i < 6 - before; ++i) tbuffer_delete(taken[i]);
  EXPECT_EQ(tbuffer_inuse(), before);

  tvx_test_fail_allocation(1, FALSE);  // a failed allocation returns the buffer it reported in
  EXPECT_EQ(standard_allocate(10, 1, MEM_PLAIN), nullptr);
  EXPECT_EQ(tbuffer_inuse(), before);
}

TEST_F(TextBuffersDeath, SeventhBufferOrABrokenGuardEndsTheProcess) {
  EXPECT_DEATH(
      {
        for (int i = 0; i < 7; ++i) tbuffer_new();
      },
      "Check assertion failed at line 152 in file tbuffer");
  EXPECT_DEATH(
      {
        char *b = tbuffer_new();
        std::memset(b, 'x', 268);
        tbuffer_delete(b);
      },
      "Check assertion failed at line 215 in file tbuffer");
}

}  // namespace
