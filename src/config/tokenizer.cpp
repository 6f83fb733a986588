#include "config/tokenizer.h"

#include <cstdio>
#include <cstring>

#include "foundation/fail.h"

namespace tvx::config {
namespace {

constexpr unsigned char kEndByte = 0xFF;
constexpr size_t kLongestString = 16000;

// A keyword or boolean may be shortened to any leading part of it.
bool prefix_of(const char *word, const char *token, size_t length) {
  return length <= std::strlen(word) && std::strncmp(word, token, length) == 0;
}

bool is_hex(char c) {
  return std::strchr("0123456789abcdefABCDEF", c) != nullptr && c != '\0';
}
bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
bool is_upper(char c) {
  return c >= 'A' && c <= 'Z';
}
bool is_lower(char c) {
  return c >= 'a' && c <= 'z';
}

bool ends_bare_token(unsigned char c) {
  return c == ' ' || c == ',' || c == '\r' || c == '\n' || c == '=' || c == '\t' || c == kEndByte;
}

enum Keyword { kDefineWord, kVerboseWord, kSilentWord, kEndConfigWord, kEndSpecWord };
struct KeywordRow {
  const char *word;
  Keyword keyword;
};
constexpr KeywordRow kKeywords[] = {
    {"DEFINE", kDefineWord},        {"VERBOSE", kVerboseWord},  {"SILENT", kSilentWord},
    {"END_CONFIG", kEndConfigWord}, {"END_SPEC", kEndSpecWord},
};

bool all_of(const char *token, size_t from, size_t length, bool (*test)(char)) {
  for (size_t i = from; i < length; ++i)
    if (!test(token[i])) return false;
  return true;
}

}  // namespace

INT32 classify(const char *token, size_t length, int *verbose) {
  // Whether a conversion of the start succeeds is settled by its first characters; the copy
  // ends in a NUL, which the text itself does not yet hold.
  char start[64];
  const size_t kept = length < sizeof start - 1 ? length : sizeof start - 1;
  std::memcpy(start, token, kept);
  start[kept] = '\0';
  float ignored = 0;
  if (std::memchr(token, '.', length) != nullptr && std::sscanf(start, "%f", &ignored) == 1)
    return kFloat;
  if (length >= 2 && token[0] == '0' && (token[1] == 'x' || token[1] == 'X') &&
      all_of(token, 2, length, is_hex))
    return kInteger;
  if (std::strchr("-+0123456789", token[0]) != nullptr && token[0] != '\0' &&
      all_of(token, 1, length, is_digit))
    return kInteger;
  if (prefix_of("TRUE", token, length) || prefix_of("FALSE", token, length)) return kBoolean;
  for (const KeywordRow &row : kKeywords) {
    if (!prefix_of(row.word, token, length)) continue;
    switch (row.keyword) {
      case kDefineWord:
        return kDefine;
      case kVerboseWord:
        *verbose = 1;
        return kEnd;
      case kSilentWord:
        *verbose = 0;
        return kEnd;
      default:
        return kEnd;
    }
  }
  if (all_of(token, 0, length, [](char c) { return is_upper(c) || c == '_'; })) return kSectionName;
  if ((is_lower(token[0]) || is_upper(token[0]) || token[0] == '/') &&
      all_of(token, 1, length, [](char c) {
        return is_lower(c) || is_upper(c) || is_digit(c) || std::strchr("/_.$", c) != nullptr;
      }))
    return kString;
  return kError;
}

unsigned char Tokenizer::byte_at(size_t pos) const {
  return pos >= size_ ? kEndByte : static_cast<unsigned char>(text_[pos]);
}

void Tokenizer::push_back(const Token &token) {
  pushed_ = token;
  has_pushed_ = true;
}

void Tokenizer::finish() {
  if (pending_ != kNone && pending_ <= size_) text_[pending_] = '\0';
  pending_ = kNone;
}

Token Tokenizer::next() {
  if (has_pushed_) {
    has_pushed_ = false;
    return pushed_;
  }
  for (;;) {
    const unsigned char c = byte_at(pos_);
    if (pos_ == pending_) finish();  // read first, then end the token before it
    const size_t at = pos_;
    switch (c) {
      case ' ':
      case '\t':
      case '\r':
      case 0x1A:
        ++pos_;
        continue;
      case '\n':
        ++line_;
        ++pos_;
        continue;
      case kEndByte:
        return Token{kEnd, at, 0, line_};
      case ',':
        ++pos_;
        return Token{kComma, at, 1, line_};
      case '=':
        ++pos_;
        return Token{kEquals, at, 1, line_};
      case '"':
        return quoted(at);
      default:
        break;
    }
    if (c == '-' && byte_at(at + 1) == '-') {
      while (byte_at(pos_) != '\r' && byte_at(pos_) != '\n' && byte_at(pos_) != kEndByte) ++pos_;
      continue;
    }
    Token token = bare(at);
    if (token.kind == kEnd) continue;  // END_CONFIG, END_SPEC, VERBOSE, SILENT
    return token;
  }
}

Token Tokenizer::quoted(size_t start) {
  size_t end = start + 1;
  // Line feeds inside the quotes are not counted.
  while (byte_at(end) != '"' && byte_at(end) != kEndByte && end - start - 1 < kLongestString) ++end;
  const size_t length = end - start - 1;
  if (length >= kLongestString) {
    pos_ = end;
    fail(ERR_NO_DATA, 0, "tokenize", {}, "string too long at line %ld", line_);
    return Token{kError, start, 0, line_};
  }
  if (byte_at(end) != '"') {
    pos_ = end;
    fail(ERR_NO_DATA, 0, "tokenize", {}, "missing end \" at line %ld", line_);
    return Token{kError, start, 0, line_};
  }
  text_[end] = '\0';
  pos_ = end + 1;
  return Token{kString, start + 1, length, line_};
}

Token Tokenizer::bare(size_t start) {
  size_t end = start;
  while (!ends_bare_token(byte_at(end))) ++end;
  pos_ = end;
  pending_ = end;
  // Values are copied into fixed fields; a word is held to the same length as a quoted string.
  if (end - start >= kLongestString) {
    fail(ERR_NO_DATA, 0, "tokenize", {}, "string too long at line %ld", line_);
    return Token{kError, start, 0, line_};
  }
  Token token{classify(text_ + start, end - start, &verbose_), start, end - start, line_};
  if (token.kind == kError)
    fail(ERR_NO_DATA, 0, "tokenize", {}, "unrecognized input at line %ld", line_);
  return token;
}

}  // namespace tvx::config
