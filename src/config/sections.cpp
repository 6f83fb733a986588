// Declared sections: recording their rows, checking them against their declarations, and handing
// their values out by row and position.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "config/config_record.h"
#include "foundation/fail.h"
#include "foundation/locked.h"
#include "tvx/list.h"
#include "tvx/memory.h"
#include "tvx/values.h"

namespace {

using tvx::config::Record;
using tvx::config::Slot;

const char *entry_text(const char *text, INT32 entry) {
  return hlist_string(text, entry);
}
INT32 entry_kind(INT32 entry) {
  return hlist_id(entry);
}

INT32 row_count(INT32 *const *rows) {
  INT32 n = 0;
  while (rows != nullptr && rows[n] != nullptr) ++n;
  return n;
}

// Index of the first row led by `identifier`, or -1.
INT32 row_led_by(const char *text, INT32 *const *rows, const char *identifier) {
  for (INT32 i = 0; rows != nullptr && rows[i] != nullptr; ++i)
    if (rows[i][0] != 0 && std::strcmp(entry_text(text, rows[i][0]), identifier) == 0) return i;
  return -1;
}

struct WordCode {
  const char *word;
  INT32 code;
};
constexpr WordCode kIdExpect[] = {{"Only", CONFIG_ONLY}, {"Atleast", CONFIG_ATLEAST}};
constexpr WordCode kAlignment[] = {{"Vertical", CONFIG_VERTICAL},
                                   {"Horizontal", CONFIG_HORIZONTAL}};

template <size_t N>
bool parse_word(const WordCode (&table)[N], const char *word, const char *routine, const char *what,
                INT32 *code) {
  for (const WordCode &row : table)
    if (std::strcmp(row.word, word) == 0) {
      *code = row.code;
      return true;
    }
  return tvx::fail(ERR_OUT_OF_RANGE, 0, routine, {}, "invalid %s string '%s'.", what, word);
}

bool find_slot(Record &record, const char *name, INT32 *index) {
  for (INT32 i = 0; i < record.section_count; ++i)
    if (std::strcmp(record.sections[i].name, name) == 0) {
      *index = i;
      return true;
    }
  return tvx::fail(ERR_NO_DATA, 0, "config_section_defined", {}, "section '%s' is not defined.",
                   name);
}

// The actual row for row index `row`: by file order in an "Atleast" section, by declaration order
// in an "Only" one. A row that is simply not there is no error: readers walk until one is missing.
bool find_actual(const char *text, INT32 id_expect, INT32 *const *definition, INT32 *const *actual,
                 INT32 row, INT32 *found) {
  if (row < 0) return false;
  if (id_expect == CONFIG_ATLEAST) {
    if (row >= row_count(actual)) return false;
    *found = row;
    return true;
  }
  if (id_expect != CONFIG_ONLY || row >= row_count(definition) || definition[row][0] == 0)
    return false;
  INT32 index = row_led_by(text, actual, entry_text(text, definition[row][0]));
  if (index < 0) return false;
  *found = index;
  return true;
}

bool unknown_identifiers(const char *text, INT32 *const *definition, INT32 *const *actual) {
  if (row_count(actual) == 0)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, "check_section_unknown", {}, "no identifiers found");
  for (INT32 i = 0; actual[i] != nullptr; ++i) {
    const char *identifier = entry_text(text, actual[i][0]);
    if (row_led_by(text, definition, identifier) < 0)
      return tvx::fail(ERR_OUT_OF_RANGE, 0, "check_section_unknown", {},
                       "unknown identifier '%s' found", identifier);
  }
  return true;
}

bool missing_identifiers(const char *text, INT32 *const *definition, INT32 *const *actual) {
  for (INT32 i = 0; definition != nullptr && definition[i] != nullptr; ++i) {
    const char *identifier = entry_text(text, definition[i][0]);
    if (row_led_by(text, actual, identifier) < 0)
      return tvx::fail(ERR_NO_DATA, 0, "check_section_missing", {}, "identifier '%s' not found.",
                       identifier);
  }
  return true;
}

bool row_validity(const char *text, const INT32 *definition, const INT32 *actual,
                  const char *identifier) {
  INT32 pairs = (hlist_size(definition) - 1) / 2;
  INT32 values = hlist_size(actual) - 1;
  if (values <= 0) return true;
  if (pairs <= 0)
    return tvx::fail(ERR_SYNTAX, 0, "check_row_validity", {},
                     "configuration file specification error found.");
  for (INT32 v = 0; v < values; ++v) {
    INT32 pair = v < pairs ? v : pairs - 1;
    INT32 value = actual[1 + v];
    if (!valid(identifier, entry_text(text, value), entry_kind(value),
               entry_text(text, definition[1 + 2 * pair]),
               entry_text(text, definition[2 + 2 * pair])))
      return false;
  }
  return true;
}

bool section_validity(const char *text, INT32 *const *definition, INT32 *const *actual) {
  for (INT32 i = 0; definition != nullptr && definition[i] != nullptr; ++i) {
    const char *identifier = entry_text(text, definition[i][0]);
    INT32 index = row_led_by(text, actual, identifier);
    if (index >= 0 && !row_validity(text, definition[i], actual[index], identifier)) return false;
  }
  return true;
}

// Stores one entry through the destination for its letter; false when the kinds differ.
bool store(const char *text, INT32 entry, char letter, void *destination) {
  const char *value = entry_text(text, entry);
  switch (letter) {
    case 'b':
      if (entry_kind(entry) != CONFIG_BOOLEAN) return false;
      *static_cast<BYTE *>(destination) = static_cast<BYTE>(str_to_bool(value));
      return true;
    case 'f':
      if (entry_kind(entry) != CONFIG_FLOAT) return false;
      *static_cast<double *>(destination) = str_to_float(value);
      return true;
    case 'i':
      if (entry_kind(entry) != CONFIG_INTEGER) return false;
      *static_cast<INT32 *>(destination) = str_to_int(value);
      return true;
    case 's':
      if (entry_kind(entry) != CONFIG_STRING) return false;
      std::strcpy(static_cast<char *>(destination), value);
      return true;
    default:
      return false;
  }
}

void print_rows(const char *text, INT32 **rows, FILE *stream) {
  if (rows == nullptr)
    std::fputs("\nNo data for this section", stream);
  else
    hlist_print(text, rows, stream);
}

}  // namespace

extern "C" {

BOOL config_define_section(HANDLE config, const char *name, const char *alignment,
                           const char *id_expect, INT32 **rows) {
  static const char *const kOp = "config_define_section";
  tvx::Locked<Record> record(config, kOp);
  if (!record) return tvx::qualify(kOp);
  INT32 expect = 0, align = 0;
  if (!parse_word(kIdExpect, id_expect, "parse_cie_string", "id_expect", &expect) ||
      !parse_word(kAlignment, alignment, "parse_cda_string", "data alignment", &align))
    return tvx::qualify(kOp, "defining section %s", name);
  if (record->section_count == CONFIG_MAX_SECTIONS)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {}, "too many sections, cannot define section '%s'.",
                     name);
  char *copy = string_duplicate(name);
  if (copy == nullptr) return tvx::qualify(kOp, "defining section %s", name);
  record->sections[record->section_count++] = Slot{copy, align, expect, rows, nullptr};
  return TRUE;
}

BOOL config_section(HANDLE config, const char *name, INT32 **rows) {
  static const char *const kOp = "config_section";
  tvx::Locked<Record> record(config, kOp);
  INT32 index = 0;
  if (!record || !find_slot(*record, name, &index)) return tvx::qualify(kOp);
  Slot &slot = record->sections[index];
  if (slot.alignment == CONFIG_VERTICAL) {
    INT32 **turned = section_vtoh(rows);
    if (turned == nullptr) return tvx::qualify(kOp);
    vlist_delete(rows);
    rows = turned;
  }
  if (slot.actual != nullptr) vlist_delete(slot.actual);
  slot.actual = rows;
  return TRUE;
}

BOOL config_section_defined(HANDLE config, const char *name, INT32 *index) {
  static const char *const kOp = "config_section_defined";
  tvx::Locked<Record> record(config, kOp);
  if (!record) return tvx::qualify(kOp);
  return find_slot(*record, name, index);
}

INT32 **section_vtoh(INT32 **rows) {
  static const char *const kOp = "section_vtoh";
  const INT32 records = row_count(rows);
  const INT32 columns = records > 0 ? hlist_size(rows[0]) : 0;
  for (INT32 r = 1; r < records; ++r)
    if (hlist_size(rows[r]) != columns)
      return tvx::fail(ERR_NO_DATA, 0, kOp, {},
                       "row %ld of a vertical section holds %ld values, not %ld.", long{r + 1},
                       long{hlist_size(rows[r])}, long{columns}),
             nullptr;
  if (columns > CONFIG_MAX_ROWS || records > CONFIG_MAX_VALUES)
    return tvx::fail(ERR_NO_DATA, 0, kOp, {},
                     "a vertical section of %ld identifiers and %ld records is too large (at "
                     "most %d and %d).",
                     long{columns}, long{records - 1}, CONFIG_MAX_ROWS, CONFIG_MAX_VALUES - 1),
           nullptr;
  auto **turned = static_cast<INT32 **>(standard_allocate(CONFIG_MAX_ROWS + 1, sizeof(INT32 *), 0));
  if (turned == nullptr)
    return tvx::qualify(kOp, "copying vertical list to horizontal list"), nullptr;
  for (INT32 c = 0; c < columns; ++c) {
    turned[c] = hlist_new(CONFIG_MAX_VALUES);
    if (turned[c] == nullptr) {
      vlist_delete(turned);
      return tvx::qualify(kOp, "copying vertical list to horizontal list"), nullptr;
    }
    for (INT32 r = 0; r < records; ++r) turned[c][r] = rows[r][c];
  }
  return turned;
}

BOOL config_check_section(HANDLE config, const char *name) {
  static const char *const kOp = "config_check_section";
  tvx::Locked<Record> record(config, kOp);
  INT32 index = 0;
  if (!record || !find_slot(*record, name, &index))
    return tvx::qualify(kOp, "while checking section '%s'.", name);
  const Slot &slot = record->sections[index];
  const char *text = record->text;
  bool ok = false;
  if (slot.id_expect == CONFIG_ATLEAST)
    ok = missing_identifiers(text, slot.definition, slot.actual) &&
         section_validity(text, slot.definition, slot.actual);
  else if (slot.id_expect == CONFIG_ONLY)
    ok = unknown_identifiers(text, slot.definition, slot.actual) &&
         missing_identifiers(text, slot.definition, slot.actual) &&
         section_validity(text, slot.definition, slot.actual);
  else
    tvx::fail(ERR_INCONSISTENT, 0, kOp, {0x1043}, "section '%s' has no identifier rule.", name);
  return ok ? TRUE : tvx::qualify(kOp, "while checking section '%s'.", name);
}

BOOL check_section_unknown(HANDLE config, INT32 **definition, INT32 **actual) {
  tvx::Locked<Record> record(config, "check_section_unknown");
  if (!record) return tvx::qualify("check_section_unknown");
  return unknown_identifiers(record->text, definition, actual);
}

BOOL check_section_missing(HANDLE config, INT32 **definition, INT32 **actual) {
  tvx::Locked<Record> record(config, "check_section_missing");
  if (!record) return tvx::qualify("check_section_missing");
  return missing_identifiers(record->text, definition, actual);
}

BOOL check_section_validity(HANDLE config, INT32 **definition, INT32 **actual) {
  tvx::Locked<Record> record(config, "check_section_validity");
  if (!record) return tvx::qualify("check_section_validity");
  return section_validity(record->text, definition, actual);
}

BOOL check_row_validity(HANDLE config, const INT32 *definition, const INT32 *actual,
                        const char *identifier) {
  tvx::Locked<Record> record(config, "check_row_validity");
  if (!record) return tvx::qualify("check_row_validity");
  return row_validity(record->text, definition, actual, identifier);
}

BOOL config_find_actual(HANDLE config, INT32 id_expect, INT32 **definition, INT32 **actual,
                        INT32 row, INT32 *found) {
  static const char *const kOp = "config_find_actual";
  tvx::Locked<Record> record(config, kOp);
  if (!record) return tvx::qualify(kOp);
  return find_actual(record->text, id_expect, definition, actual, row, found) &&
         !tvx::error_pending();
}

BOOL config_extract_section(HANDLE config, const char *name, INT32 row, INT32 position,
                            const char *letters, ...) {
  static const char *const kOp = "config_extract_section";
  auto failed = [] { return tvx::error_pending() ? tvx::qualify(kOp) : false; };
  tvx::Locked<Record> record(config, kOp);
  INT32 index = 0, found = 0;
  if (!record || !find_slot(*record, name, &index)) return failed();
  const Slot &slot = record->sections[index];
  if (!find_actual(record->text, slot.id_expect, slot.definition, slot.actual, row - 1, &found))
    return failed();
  const INT32 *values = slot.actual[found];
  const INT32 entries = hlist_size(values);
  if (position < 1 || entries <= position - 1) return failed();

  va_list args;
  va_start(args, letters);
  void *destination = va_arg(args, void *);
  const char *letter = letters;
  for (INT32 e = position - 1; *letter != '\0' && e < entries; ++e, ++letter)
    if (store(record->text, values[e], *letter, destination) && letter[1] != '\0')
      destination = va_arg(args, void *);
  va_end(args);
  if (*letter != '\0' || tvx::error_pending()) return failed();
  return TRUE;
}

BOOL config_print(HANDLE config, FILE *stream) {
  tvx::Locked<Record> record(config, "config_print");
  if (!record) return TRUE;
  for (INT32 i = 0; i < record->section_count; ++i) {
    std::fprintf(stream, "\n\nExpected: section %s:", record->sections[i].name);
    print_rows(record->text, record->sections[i].definition, stream);
  }
  for (INT32 i = 0; i < record->section_count; ++i) {
    std::fprintf(stream, "\n\nActual: section %s", record->sections[i].name);
    print_rows(record->text, record->sections[i].actual, stream);
  }
  return TRUE;
}

}  // extern "C"
