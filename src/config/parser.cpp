// Reading definition files into one text and parsing it into declared sections of rows.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "config/config_record.h"
#include "config/tokenizer.h"
#include "foundation/fail.h"
#include "foundation/locked.h"
#include "tvx/list.h"
#include "tvx/memory.h"
#include "tvx/values.h"

namespace {

using tvx::config::Record;
using tvx::config::Token;
using tvx::config::Tokenizer;
namespace cfg = tvx::config;

constexpr size_t kLongestName = 50;
constexpr INT32 kConfigMissing = 0x1080;
constexpr INT32 kConfigAccess = 0x1084;

bool file_failed(const char *name, int error, std::initializer_list<INT32> causes) {
  return tvx::fail(ERR_OS, error, "config_new", causes, "configuration file '%s'",
                   filespec_summarise(name));
}

// Sizes of the files, or false (with the error set) when one cannot be had.
bool file_sizes(const std::vector<const char *> &files, size_t *total) {
  *total = 0;
  for (const char *name : files) {
    if (access(name, F_OK) != 0) return file_failed(name, errno, {kConfigAccess, kConfigMissing});
    struct stat status {};
    if (stat(name, &status) != 0) return file_failed(name, errno, {});
    *total += static_cast<size_t>(status.st_size);
  }
  if (*total > CONFIG_MAX_TEXT)
    return tvx::fail(ERR_NO_DATA, 0, "config_new", {},
                     "configuration files too large (%zu bytes, at most %d).", *total,
                     CONFIG_MAX_TEXT);
  return true;
}

// Appends each file behind the last with nothing between them, as the format has always been
// read: a file that does not end in a line break runs into the next one.
bool read_files(const std::vector<const char *> &files, char *text, size_t room) {
  size_t used = 0;
  for (const char *name : files) {
    FILE *in = std::fopen(name, "rb");
    if (in == nullptr) return file_failed(name, errno, {});
    struct stat status {};
    size_t size = fstat(fileno(in), &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
    // A file that grew since it was measured cannot overrun the text.
    if (size > room - used) size = room - used;
    errno = 0;
    size_t got = std::fread(text + used, 1, size, in);
    int error = errno != 0 ? errno : EIO;
    std::fclose(in);
    if (got != size) return file_failed(name, error, {});
    used += got;
  }
  return true;
}

// ---- Grammar ---------------------------------------------------------------------------------

class Parser {
 public:
  Parser(HANDLE config, Record *record)
      : config_(config), tokens_(record->text, record->text_size), text_(record->text) {}

  bool parse();

 private:
  bool define_block(bool *carry_on);
  bool section_block(const Token &name);
  INT32 **rows();
  INT32 *row(const Token &first);
  INT32 entry(const Token &value) const {
    return (value.kind << 16) | static_cast<INT32>(value.offset & 0xFFFF);
  }

  HANDLE config_;
  Tokenizer tokens_;
  char *text_;
  bool carried_error_ = false;
};

bool Parser::parse() {
  for (;;) {
    Token token = tokens_.next();
    switch (token.kind) {
      case cfg::kEnd:
        tokens_.finish();
        // A DEFINE whose words met a tokenizing error lets the parse go on, but the error stays
        // and the parse cannot succeed.
        return !carried_error_;
      case cfg::kDefine: {
        bool carry_on = false;
        if (!define_block(&carry_on) && !carry_on) return false;
        carried_error_ = carried_error_ || carry_on;
        break;
      }
      case cfg::kSectionName:
        if (!section_block(token)) return false;
        break;
      case cfg::kError:
        return tvx::qualify("config_parse", "error in config file");
      default:
        // The rest of a DEFINE line whose words met a tokenizing error: that error tells the
        // story, and a record of its own here would only hide it.
        if (carried_error_) return false;
        return tvx::fail(ERR_NO_DATA, 0, "config_parse", {},
                         "unexpected '%.*s' outside a section at line %ld",
                         static_cast<int>(token.length), text_ + token.offset, token.line);
    }
  }
}

bool Parser::define_block(bool *carry_on) {
  const char *words[3] = {};
  for (const char *&word : words) {
    Token token = tokens_.next();
    if (token.kind == cfg::kError) {
      *carry_on = true;
      return tvx::qualify("define", "syntax error");
    }
    if (token.kind != cfg::kString || token.length >= kLongestName)
      return tvx::fail(ERR_NO_DATA, 0, "define", {}, "invalid string at line %ld", token.line);
    word = text_ + token.offset;
  }
  INT32 **block = rows();
  if (block == nullptr) return false;
  if (!config_define_section(config_, words[0], words[1], words[2], block)) {
    vlist_delete(block);
    return tvx::qualify("define", "error in DEFINE section '%s'", words[0]);
  }
  return true;
}

bool Parser::section_block(const Token &name) {
  if (name.length >= kLongestName)
    return tvx::fail(ERR_NO_DATA, 0, "header", {}, "invalid string at line %ld", name.line);
  INT32 **block = rows();
  const char *section = text_ + name.offset;  // its end became NUL when the rows were taken
  if (block == nullptr || !config_section(config_, section, block)) {
    if (block != nullptr) vlist_delete(block);
    return tvx::qualify("header", "error in section '%s'", section);
  }
  return true;
}

INT32 **Parser::rows() {
  auto **block = static_cast<INT32 **>(standard_allocate(CONFIG_MAX_ROWS + 1, sizeof(INT32 *), 0));
  if (block == nullptr) {
    tvx::qualify("make_vlist", "while reading the rows of a section.");
    return nullptr;
  }
  for (INT32 count = 0;; ++count) {
    Token first = tokens_.next();
    if (!cfg::is_value(first.kind)) {
      tokens_.push_back(first);
      return block;
    }
    if (count == CONFIG_MAX_ROWS) {
      vlist_delete(block);
      tvx::fail(ERR_NO_DATA, 0, "make_vlist", {},
                "too many rows at line %ld (at most %d in a section)", first.line, CONFIG_MAX_ROWS);
      return nullptr;
    }
    block[count] = row(first);
    if (block[count] == nullptr) {
      vlist_delete(block);
      return nullptr;
    }
  }
}

INT32 *Parser::row(const Token &first) {
  INT32 *values = hlist_new(CONFIG_MAX_VALUES);
  if (values == nullptr) {
    tvx::qualify("make_hlist", "while reading a row.");
    return nullptr;
  }
  values[0] = entry(first);
  for (INT32 count = 1;; ++count) {
    Token separator = tokens_.next();
    if (separator.kind != cfg::kComma && separator.kind != cfg::kEquals) {
      tokens_.push_back(separator);
      return values;
    }
    Token value = tokens_.next();
    bool failed = true;
    if (!cfg::is_value(value.kind)) {
      if (value.kind == cfg::kError)
        tvx::qualify("make_hlist", "syntax error");
      else
        tvx::fail(ERR_NO_DATA, 0, "make_hlist", {}, "missing value at line %ld", value.line);
    } else if (count == CONFIG_MAX_VALUES) {
      tvx::fail(ERR_NO_DATA, 0, "make_hlist", {},
                "too many values at line %ld (at most %d in a row)", value.line, CONFIG_MAX_VALUES);
    } else {
      values[count] = entry(value);
      failed = false;
    }
    if (failed) {
      hlist_delete(values);
      return nullptr;
    }
  }
}

}  // namespace

extern "C" {

HANDLE config_new(const char *file, ...) {
  static const char *const kOp = "config_new";
  if (file == nullptr) {
    tvx::fail(ERR_NO_DATA, 0, kOp, {}, "no configuration file specified.");
    return nullptr;
  }
  std::vector<const char *> files{file};
  va_list args;
  va_start(args, file);
  while (const char *next = va_arg(args, const char *)) files.push_back(next);
  va_end(args);

  size_t total = 0;
  if (!file_sizes(files, &total)) return nullptr;
  HANDLE config = handle_allocate(1, sizeof(Record), MEM_CONFIG);
  if (config == nullptr) {
    tvx::qualify(kOp, "while reading the configuration files.");
    return nullptr;
  }
  bool ok = config_ctor(config, static_cast<DWORD>(total));
  if (ok) {
    tvx::Locked<Record> record(config, kOp);
    ok = record && read_files(files, record->text, total);
  }
  if (!ok || !config_parse(config)) {
    config_delete(config);
    return nullptr;
  }
  return config;
}

BOOL config_ctor(HANDLE config, DWORD size) {
  static const char *const kOp = "config_ctor";
  tvx::Locked<Record> record(config, kOp);
  if (!record) return tvx::qualify(kOp);
  for (cfg::Slot &slot : record->sections)
    slot = cfg::Slot{nullptr, cfg::kEmptySlot, cfg::kEmptySlot, nullptr, nullptr};
  record->section_count = 0;
  if (size > CONFIG_MAX_TEXT)
    return tvx::fail(ERR_NO_DATA, 0, kOp, {}, "configuration text too large (%lu bytes).",
                     static_cast<unsigned long>(size));
  // The end byte, and a NUL behind it so that no text routine can run past the buffer.
  record->text = static_cast<char *>(standard_allocate(static_cast<INT32>(size) + 2, 1, 0));
  if (record->text == nullptr) return tvx::qualify(kOp, "while making room for the text.");
  record->text[size] = static_cast<char>(0xFF);
  record->text[size + 1] = '\0';
  record->text_size = size;
  return TRUE;
}

BOOL config_parse(HANDLE config) {
  static const char *const kOp = "config_parse";
  tvx::Locked<Record> record(config, kOp);
  if (!record || record->text == nullptr) return tvx::qualify(kOp);
  Parser parser(config, record.get());
  return parser.parse();
}

void config_delete(HANDLE config) {
  if (config == nullptr) return;
  {
    tvx::Locked<Record> record(config, "config_delete");
    if (!record) return;
    for (INT32 i = 0; i < record->section_count; ++i) {
      cfg::Slot &slot = record->sections[i];
      if (slot.actual != nullptr) vlist_delete(slot.actual);
      if (slot.definition != nullptr) vlist_delete(slot.definition);
      if (slot.name != nullptr) standard_free(slot.name, "config_delete");
    }
    if (record->text != nullptr) standard_free(record->text, "config_delete");
  }
  handle_free(config, "config_delete");
}

const char *config_text(HANDLE config) {
  tvx::Locked<Record> record(config, "config_text");
  return record ? record->text : nullptr;
}

}  // extern "C"
