// Splitting a definition text into tokens. Values stay where they are in the text: each is ended
// with a NUL in place, so rows hold offsets into the text rather than copies.
#pragma once

#include <cstddef>

#include "tvx/types.h"

namespace tvx::config {

// Value kinds, as stored in row entries and tested against the declared type letters.
enum Kind : INT32 {
  kString = 256,
  kInteger = 257,
  kFloat = 258,
  kBoolean = 259,
  // Tokens that are not values.
  kComma = 300,
  kEquals,
  kDefine,
  kSectionName,
  kEnd,
  kError,
};

inline bool is_value(INT32 kind) {
  return kind >= kString && kind <= kBoolean;
}

struct Token {
  INT32 kind = kEnd;
  size_t offset = 0;
  size_t length = 0;
  long line = 0;
};

// What a bare token (not quoted, not a separator) is, by the first rule that it passes; kEnd
// stands for the keywords that mark the end of a part and are skipped, kError for anything
// unrecognised. `verbose` receives the effect of VERBOSE and SILENT.
INT32 classify(const char *token, size_t length, int *verbose);

class Tokenizer {
 public:
  // `text` holds `size` bytes followed by the end byte 0xFF.
  Tokenizer(char *text, size_t size) : text_(text), size_(size) {}

  // The next token; tokenizing errors are pushed on the error stack and give a kError token.
  Token next();
  // The next request returns `token` again.
  void push_back(const Token &token);
  // Ends the last bare token with its NUL, as taking another token would.
  void finish();

  long line() const { return line_; }
  bool verbose() const { return verbose_ > 0; }

 private:
  unsigned char byte_at(size_t pos) const;
  Token quoted(size_t start);
  Token bare(size_t start);

  char *text_;
  size_t size_;
  size_t pos_ = 0;
  long line_ = 1;
  // Where the last bare token ended: that byte becomes NUL once it has been read.
  size_t pending_ = kNone;
  Token pushed_{};
  bool has_pushed_ = false;
  int verbose_ = 0;

  static constexpr size_t kNone = static_cast<size_t>(-1);
};

}  // namespace tvx::config
