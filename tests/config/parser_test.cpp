// The grammar and its messages, file handling, and the limits that keep a text from overrunning
// its rows: each broken input fails with its own text and leaves nothing allocated.
#include <cerrno>
#include <string>

#include "config/config_support.h"

namespace {

using namespace tvx_test;

class Parser : public ConfigTest {};

const char *kDeviceSpec =
    "DEFINE \"DEVICE\" Horizontal Atleast\n"
    "  name, \"a\", sa\n";

// Rows of a section as "{[a][b]}{[c]}", through the same printing the library offers.
std::string rows_of(HANDLE config, const char *section) {
  std::string text = printed([&](FILE *out) { config_print(config, out); });
  std::string marker = std::string("\n\nActual: section ") + section + "\n";
  size_t at = text.find(marker);
  if (at == std::string::npos) return "?";
  size_t end = text.find("\n\n", at + marker.size());
  std::string rows = text.substr(at + marker.size() - 1, end - at - marker.size() + 1);
  std::string flat;
  for (char c : rows)
    if (c != '\n') flat += c;
  return flat;
}

TEST_F(Parser, RowsEndWhereAValueIsNotFollowedByASeparator) {
  HANDLE c = parse(std::string(kDeviceSpec) +
                   "DEVICE\n name = a, b c\n d =\n e\n \"quoted, with = inside\" TRUE 1.5\n");
  ASSERT_NE(c, nullptr) << story();
  EXPECT_EQ(rows_of(c, "DEVICE"),
            "{[name][a][b]}{[c]}{[d][e]}{[quoted, with = inside]}{[TRUE]}{[1.5]}");
}

TEST_F(Parser, EmptyFilesAndFilesThatRunTogether) {
  HANDLE c = parse("");
  ASSERT_NE(c, nullptr) << story();
  EXPECT_EQ(printed([&](FILE *out) { config_print(c, out); }), "") << "no sections";

  // Nothing is put between files: the last token of one and the first of the next are one.
  c = parse(std::string(kDeviceSpec) + "DEVICE name = sim", "ulator\n");
  ASSERT_NE(c, nullptr) << story();
  EXPECT_EQ(rows_of(c, "DEVICE"), "{[name][simulator]}");
  c = parse(std::string(kDeviceSpec) + "DEVICE name = sim\n", "ulator\n");
  EXPECT_EQ(rows_of(c, "DEVICE"), "{[name][sim]}{[ulator]}");
}

TEST_F(Parser, SyntaxErrorsCarryTheirLine) {
  struct Broken {
    std::string text;
    std::string story;
  };
  const std::string tail =
      ": No reasonable data was supplied. Sorry, there are no suggested causes.\n";
  const Broken cases[] = {
      {std::string(kDeviceSpec) + "DEVICE\n name = a,\n",
       "error in section 'DEVICE', missing value at line 5" + tail},
      {std::string(kDeviceSpec) + "DEVICE\n name = 12ab\n",
       "error in section 'DEVICE', syntax error, unrecognized input at line 4" + tail},
      {std::string(kDeviceSpec) + "DEVICE\n name = a\n 12ab\n",
       "error in config file, unrecognized input at line 5" + tail},
      {"DEFINE DEVICE Horizontal Only\n", "invalid string at line 1" + tail},
      {"DEFINE \"DEVICE\" Horizontal\n", "invalid string at line 2" + tail},
      {"\n\nDEFINE \"" + std::string(50, 'N') + "\" Horizontal Only\n",
       "invalid string at line 3" + tail},
      {"DEFINE \"DEVICE\" Sideways Only name, \"a\", sa\n",
       "error in DEFINE section 'DEVICE', defining section DEVICE, invalid data alignment string "
       "'Sideways': Data supplied was out of expected range. Sorry, there are no suggested "
       "causes.\n"},
      {"DEVICE\n name = a\n", "error in section 'DEVICE', section 'DEVICE' is not defined" + tail},
      {"name = a\n", "unexpected 'name' outside a section at line 1" + tail},
      {"x\n\"open", "unexpected 'x' outside a section at line 1" + tail},
      {std::string(kDeviceSpec) + "DEVICE\n name = \"never\nclosed\n",
       "error in section 'DEVICE', syntax error, missing end \" at line 4" + tail},
  };
  for (const Broken &b : cases) {
    EXPECT_EQ(parse(b.text), nullptr) << b.text;
    EXPECT_EQ(story(), b.story) << b.text;
  }

  // A tokenizing error inside DEFINE lets the parse go on, but not succeed; what is left of the
  // line ends it without a record of its own, so the tokenizer's error stays on top.
  EXPECT_EQ(parse("DEFINE 12ab\nDEFINE \"CCD\" Horizontal Only xsize, \"1 4\", ir\n"), nullptr);
  EXPECT_EQ(print_last(ERR_MODE_PATH), "define-> \ntokenize\n");
  story();
  for (const char *text : {"DEFINE \"CCD\" Horiz@ntal Only\n", "DEFINE 12ab\n,\n"}) {
    EXPECT_EQ(parse(text), nullptr);
    EXPECT_EQ(print_all(ERR_MODE_PATH), "define-> \ntokenize\n") << text;
    story();
  }
}

TEST_F(Parser, FilesThatCannotBeReadNameTheFileAndItsCauses) {
  std::string missing = dir_ + "/no/such/file.def";
  EXPECT_EQ(config_new(missing.c_str(), nullptr), nullptr);
  EXPECT_EQ((*stack())->category, ERR_OS);
  EXPECT_EQ((*stack())->code, ENOENT);
  EXPECT_EQ(
      print_last(ERR_MODE_ADVICE),
      "An error has occurred. Possible causes: The configuration file doesn't have the correct "
      "access permissions.\nThe configuration file doesn't exist or has been moved.\n");
  EXPECT_NE(story().find("configuration file '" + missing + "'"), std::string::npos);

  std::string good = file("good.def", kDeviceSpec);
  EXPECT_EQ(config_new(good.c_str(), dir_.c_str(), nullptr), nullptr) << "a directory is no file";
  EXPECT_EQ((*stack())->category, ERR_OS);
  story();

  EXPECT_EQ(config_new(nullptr), nullptr);
  EXPECT_EQ(story(),
            "no configuration file specified: No reasonable data was supplied. Sorry, "
            "there are no suggested causes.\n");
}

TEST_F(Parser, CapacitiesAreRefusedNotOverrun) {
  std::string spec = "DEFINE \"SECT\" Horizontal Atleast\n";
  std::string row = "id";
  for (int i = 1; i < 40; ++i) row += ", " + std::to_string(i);
  ASSERT_NE(parse(spec + "SECT\n" + row + "\n"), nullptr) << "40 values fit";
  EXPECT_EQ(parse(spec + "SECT\n" + row + ", 40\n"), nullptr);
  EXPECT_NE(story().find("too many values at line 3 (at most 40 in a row)"), std::string::npos);

  std::string rows;
  for (int i = 0; i < 100; ++i) rows += "r" + std::to_string(i) + "\n";
  ASSERT_NE(parse(spec + "SECT\n" + rows), nullptr) << "100 rows fit";
  EXPECT_EQ(parse(spec + "SECT\n" + rows + "extra\n"), nullptr);
  EXPECT_NE(story().find("too many rows at line 103 (at most 100 in a section)"),
            std::string::npos);

  EXPECT_EQ(parse(spec + "-- " + std::string(CONFIG_MAX_TEXT, '-') + "\n"), nullptr);
  EXPECT_NE(story().find("configuration files too large"), std::string::npos);

  std::string many;
  for (int i = 0; i < 31; ++i) many += "DEFINE \"N" + std::to_string(i) + "\" Horizontal Only\n";
  EXPECT_EQ(parse(many), nullptr);
  EXPECT_NE(story().find("too many sections, cannot define section 'N30'"), std::string::npos);
}

}  // namespace
