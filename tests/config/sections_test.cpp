// Declared sections checked against their values in both identifier rules, the range and
// selection texts with their traps, vertical sections, and how values come out by letter.
#include <string>

#include "config/config_support.h"

namespace {

using namespace tvx_test;

class Sections : public ConfigTest {
 protected:
  // A one-identifier section declared with `allowed` and `type`, holding `values`; what the
  // check said is kept in `said`, and the stack is left clear.
  bool check_one(const std::string &allowed, const std::string &type, const std::string &values) {
    HANDLE c = parse("DEFINE \"SECT\" Horizontal Only\n id, \"" + allowed + "\", " + type +
                     "\nSECT\n id = " + values + "\n");
    bool ok = c != nullptr && config_check_section(c, "SECT");
    said = story();
    return ok;
  }
  std::string said;
};

const char *kTwoIds =
    "DEFINE \"SECT\" Horizontal %s\n"
    " xbin, \"1 16\", ir\n"
    " name, \"a\", sa\n";

std::string spec(const char *rule) {
  char text[256];
  std::snprintf(text, sizeof text, kTwoIds, rule);
  return text;
}

TEST_F(Sections, IdentifierRulesInBothModes) {
  const std::string values = "SECT\n name = cam\n xbin = 2\n extra = 1\n";
  HANDLE atleast = parse(spec("Atleast") + values);
  ASSERT_NE(atleast, nullptr) << story();
  EXPECT_TRUE(config_check_section(atleast, "SECT")) << story();
  HANDLE only = parse(spec("Only") + values);
  EXPECT_FALSE(config_check_section(only, "SECT"));
  EXPECT_EQ(story(),
            "while checking section 'SECT', unknown identifier 'extra' found: Data supplied "
            "was out of expected range. Sorry, there are no suggested causes.\n");

  for (const char *rule : {"Atleast", "Only"}) {
    HANDLE c = parse(spec(rule) + "SECT\n xbin = 2\n");
    EXPECT_FALSE(config_check_section(c, "SECT"));
    EXPECT_NE(story().find("identifier 'name' not found"), std::string::npos) << rule;
  }
  HANDLE empty = parse(spec("Only") + "SECT\n");
  EXPECT_FALSE(config_check_section(empty, "SECT"));
  EXPECT_NE(story().find("no identifiers found"), std::string::npos);
  EXPECT_FALSE(config_check_section(empty, "TAB"));
  EXPECT_NE(story().find("section 'TAB' is not defined"), std::string::npos);

  EXPECT_EQ(parse("DEFINE \"SECT\" Horizontal Sometimes\n"), nullptr);
  EXPECT_NE(story().find("invalid id_expect string 'Sometimes'"), std::string::npos);
}

TEST_F(Sections, RangesAndSelectionsUpToTheLastDeclaredPair) {
  EXPECT_TRUE(check_one("1 16", "ir", "1"));
  EXPECT_TRUE(check_one("1 16", "ir", "16"));
  EXPECT_FALSE(check_one("1 16", "ir", "17"));
  EXPECT_NE(said.find("identifier 'id' (17) not in the range '1 16'"), std::string::npos);
  // "1-16" reads as 1 and -16: nothing fits.
  EXPECT_FALSE(check_one("1-16", "ir", "1"));
  EXPECT_FALSE(check_one("1-16", "ir", "5"));
  EXPECT_TRUE(check_one("0x10:0x20", "ir", "0x18"));
  EXPECT_TRUE(check_one("-2.5 2.5", "fr", "-2.5"));
  EXPECT_FALSE(check_one("-2.5 2.5", "fr", "2.6"));
  EXPECT_FALSE(check_one("0 9", "ir", "x"));
  EXPECT_NE(said.find("invalid data type 'i' for identifier 'id' in def file"), std::string::npos);

  EXPECT_TRUE(check_one("5, 10, 20", "is", "10"));
  EXPECT_FALSE(check_one("5, 10, 20", "is", "15"));
  EXPECT_NE(said.find("(15) not in the selection '5, 10, 20'"), std::string::npos);
  EXPECT_TRUE(check_one("0.5 1.5", "fs", "1.5"));
  EXPECT_TRUE(check_one("fast slow", "ss", "slow"));
  EXPECT_FALSE(check_one("fast slow", "ss", "Slow")) << "strings compare exactly";
  // Boolean selections ignore case; a value is true only when written TRUE.
  EXPECT_TRUE(check_one("true false", "bs", "TRUE"));
  EXPECT_TRUE(check_one("true false", "bs", "F"));
  EXPECT_TRUE(check_one("FALSE", "bs", "T")) << "T is taken as false";
  EXPECT_FALSE(check_one("TRUE", "bs", "T"));
  EXPECT_FALSE(check_one("1 2", "iq", "1"));
  EXPECT_NE(said.find("(1) has invalid syntax in def file '1 2'"), std::string::npos);

  // Values beyond the declared pairs are checked against the last pair.
  const std::string declared =
      "DEFINE \"SECT\" Horizontal Only\n shutter, \"a\", sa, \"0 100\", ir\nSECT\n shutter = "
      "open, ";
  EXPECT_NE(parse(declared + "5, 50, 100\n"), nullptr);
  EXPECT_TRUE(config_check_section(made_.back(), "SECT")) << story();
  parse(declared + "5, 50, 101\n");
  EXPECT_FALSE(config_check_section(made_.back(), "SECT"));
  EXPECT_NE(story().find("(101) not in the range '0 100'"), std::string::npos);
  parse("DEFINE \"SECT\" Horizontal Only\n bare\nSECT\n bare = 1\n");
  EXPECT_FALSE(config_check_section(made_.back(), "SECT"));
  EXPECT_NE(story().find("configuration file specification error found"), std::string::npos);
}

TEST_F(Sections, VerticalSectionsAreTurnedToRows) {
  HANDLE c = parse(
      "DEFINE \"TAB\" Vertical Only\n rate, \"1 4\", ir\n ms, \"0.0 1.0\", fr\n"
      "TAB\n rate, ms\n 1, 0.025\n 2, 0.0067\n");
  ASSERT_NE(c, nullptr) << story();
  EXPECT_TRUE(config_check_section(c, "TAB")) << story();
  INT32 rates[2] = {};
  double ms = 0;
  EXPECT_TRUE(config_extract_section(c, "TAB", 1, 2, "ii", &rates[0], &rates[1]));
  EXPECT_EQ(rates[1], 2);
  EXPECT_TRUE(config_extract_section(c, "TAB", 2, 3, "f", &ms));
  EXPECT_DOUBLE_EQ(ms, 0.0067);
  EXPECT_EQ(parse("DEFINE \"TAB\" Vertical Only\nTAB\n rate, ms\n 1\n"), nullptr);
  EXPECT_NE(story().find("row 2 of a vertical section holds 1 values, not 2"), std::string::npos);
}

TEST_F(Sections, ExtractionByLettersKeepsItsDestinationOnAMismatch) {
  HANDLE c = parse(spec("Atleast") + "SECT\n name = cam\n xbin = word, 3, 4\n");
  INT32 first = -1, second = -1;
  EXPECT_TRUE(config_extract_section(c, "SECT", 2, 2, "ii", &first, &second));
  EXPECT_EQ(first, 3) << "the string used up a letter but not a destination";
  EXPECT_EQ(second, -1);
  char name[CONFIG_MAX_STRING + 1] = {};
  BYTE flag = 7;
  EXPECT_TRUE(config_extract_section(c, "SECT", 1, 1, "ss", name, name));
  EXPECT_STREQ(name, "cam");
  EXPECT_FALSE(config_extract_section(c, "SECT", 1, 2, "sb", name, &flag))
      << "the row is too short";
  EXPECT_FALSE(config_extract_section(c, "SECT", 3, 2, "i", &first)) << "no third row";
  EXPECT_FALSE(config_extract_section(c, "SECT", 1, 3, "s", name));
  EXPECT_EQ((*stack())->category, 0) << "a row that is not there is no error";
  EXPECT_FALSE(config_extract_section(c, "QUE", 1, 1, "s", name));
  EXPECT_EQ(print_last(ERR_MODE_PATH), "config_extract_section-> \nconfig_section_defined\n");
  story();

  // Row numbers follow the file in an "Atleast" section and the declaration in an "Only" one.
  INT32 found = -1;
  INT32 *definition[] = {nullptr};
  EXPECT_TRUE(config_find_actual(c, CONFIG_ATLEAST, definition, definition, 0, &found) == FALSE);
  HANDLE only = parse(spec("Only") + "SECT\n name = cam\n xbin = 2\n");
  EXPECT_TRUE(config_extract_section(only, "SECT", 1, 2, "i", &first));
  EXPECT_EQ(first, 2) << "row 1 is xbin, declared first";
}

}  // namespace
