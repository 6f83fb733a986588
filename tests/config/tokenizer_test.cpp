// How the tokenizer classifies and counts: the table of bare tokens, line numbers (with the
// shortfall after quoted line breaks), comments, the end byte and values ended in place.
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "config/tokenizer.h"
#include "support/frame.h"

namespace {

using namespace tvx::config;
using namespace tvx_test;

TEST(Tokenizer, ClassifiesBareTokensByTheFirstRuleTheyPass) {
  const std::pair<INT32, std::vector<const char *>> cases[] = {
      {kFloat, {"3.btm", "1.5.2", ".5"}},
      {kInteger, {"0x", "0x1F", "0XaB", "+", "-", "-12", "007"}},
      {kBoolean, {"T", "TR", "TRUE", "F", "FALSE"}},
      {kDefine, {"D", "DEFINE"}},
      {kEnd, {"E", "END", "END_SPEC", "END_CONFIG"}},
      {kSectionName, {"TRUEX", "CCD", "GAIN_TABLE"}},
      {kString, {"atlinit.btm", "ADC1", "/dev/ttyS0", "camera.r2h", "x$y_z", "Horizontal", "true"}},
      {kError, {"12ab", "0xG", "$x", "a:b", "c\\d"}},
  };
  for (const auto &[kind, tokens] : cases) {
    for (const char *token : tokens) {
      int verbose = 0;
      std::string text = std::string(token) + " ";  // a bare token is followed by its end
      EXPECT_EQ(classify(text.c_str(), std::strlen(token), &verbose), kind) << token;
    }
  }
  int verbose = 0;
  EXPECT_EQ(classify("V ", 1, &verbose), kEnd);
  EXPECT_EQ(verbose, 1) << "VERBOSE, shortened";
  EXPECT_EQ(classify("SIL ", 3, &verbose), kEnd);
  EXPECT_EQ(verbose, 0);
}

class Tokens : public FrameTest {
 protected:
  // Tokens of `source` as kind@line, with each value's text once the whole text is taken.
  std::string tokens(std::string source) {
    source.push_back(static_cast<char>(0xFF));
    text_ = source;
    Tokenizer t(text_.data(), text_.size() - 1);
    std::string out;
    std::vector<Token> values;
    for (Token token = t.next(); token.kind != kEnd; token = t.next()) {
      out += std::to_string(token.kind) + "@" + std::to_string(token.line) + " ";
      if (is_value(token.kind)) values.push_back(token);
      if (token.kind == kError) break;  // the parser goes no further either
    }
    t.finish();
    for (const Token &v : values) out += "[" + std::string(text_.c_str() + v.offset) + "]";
    return out;
  }
  std::string text_;
};

TEST_F(Tokens, LinesCommentsSeparatorsAndValuesEndedInPlace) {
  EXPECT_EQ(tokens("name = atlink -- a comment, = ignored\n  base_address,0x150\r\n"),
            "256@1 301@1 256@1 256@2 300@2 257@2 [name][atlink][base_address][0x150]");
  // Line feeds inside quotes are not counted, so later lines fall short by them.
  EXPECT_EQ(tokens("\"two\nlines\"\nnext"), "256@1 256@2 [two\nlines][next]");
  EXPECT_EQ(tokens("\x1A\ta"), "256@1 [a]") << "0x1A is a blank between tokens";
  // The end byte inside a text ends it there.
  EXPECT_EQ(tokens(std::string("a\xFF b")), "256@1 [a]");
  EXPECT_EQ(tokens("last"), "256@1 [last]") << "a value at the very end is ended too";
  EXPECT_EQ(tokens("END_SPEC VERBOSE E\nDEFINE"), "302@2 ");
}

TEST_F(Tokens, QuotedStringErrorsNameTheLineTheyOpenedOn) {
  EXPECT_EQ(tokens("a\n\"never closed\nstill"), "256@1 305@2 [a]");
  EXPECT_EQ(print_last(ERR_MODE_BRIEF),
            "missing end \" at line 2: No reasonable data was supplied. Sorry, there are no "
            "suggested causes.\n");
  err_reset_all(stack());
  EXPECT_EQ(tokens("\"" + std::string(16000, 'x') + "\""), "305@1 ");
  EXPECT_EQ(print_last(ERR_MODE_PATH), "tokenize\n");
  err_reset_all(stack());
  EXPECT_EQ(tokens("\"" + std::string(15999, 'x') + "\""),
            "256@1 [" + std::string(15999, 'x') + "]");
  EXPECT_EQ(tokens("ok 12ab"), "256@1 305@1 [ok]");
  EXPECT_EQ(print_last(ERR_MODE_BRIEF).rfind("unrecognized input at line 1: ", 0), 0u);
}

}  // namespace
