// The library's one error stack. The innermost routine that meets a fault sets the error, every
// routine on the way out adds its line, and the application reads the whole story as text.
// Misuse of the stack itself is a programming fault and ends the process with a traceback.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "foundation/fail.h"
#include "platform/platform.h"
#include "tvx/error.h"
#include "tvx/report.h"

namespace {

err_record bottom{};
err_record *top = &bottom;

// ---- Record memory -----------------------------------------------------------------------
// Records, entries and their strings live in fixed platform blocks, one byte longer than asked
// so that a string copy always ends in a zero.

void *record_alloc(size_t size) {
  DWORD token = tvx::platform::block_alloc(size + 1, false);
  return token == 0 ? nullptr : tvx::platform::block_lock(token);
}

void record_free(void *address) {
  DWORD token = tvx::platform::block_handle_of(address);
  tvx::platform::block_unlock(token);
  tvx::platform::block_free(token);
}

char *record_strdup(const char *text) {
  size_t length = std::strlen(text);
  auto *copy = static_cast<char *>(record_alloc(length));
  if (copy != nullptr) std::memcpy(copy, text, length);
  return copy;
}

// ---- Misuse ------------------------------------------------------------------------------

const char *shown(const char *text) {
  return text != nullptr ? text : "(null)";
}

char scratch[2048];

const char *describe_call(const char *format, ...) __attribute__((format(printf, 1, 2)));
const char *describe_call(const char *format, ...) {
  va_list args;
  va_start(args, format);
  std::vsnprintf(scratch, sizeof scratch, format, args);
  va_end(args);
  return scratch;
}

// Sends the operation's name, why it cannot go on, what was attempted (when known) and the
// traceback so far to the error report, then aborts.
[[noreturn]] void misuse(const char *operation, const char *reason, const char *attempt) {
  err_stack stack = &top;
  char *traceback = nullptr;
  err_print_all(stack, ERR_MODE_TRACEBACK, &traceback);
  report *error = nullptr;
  report_where_is(REPORT_ERROR, &error);
  if (attempt != nullptr)
    report_send(error, "%s%s%s%s%s%s", operation, reason, attempt, operation,
                ": Traceback so far:\n", traceback);
  else
    report_send(error, "%s%s%s%s%s", operation, reason, operation, ": Traceback so far:\n",
                traceback);
  std::abort();
}

void free_trace(err_trace *entry) {
  while (entry != nullptr) {
    err_trace *older = entry->next;
    if (entry->routine == nullptr) misuse("free_err_trace", ": freeing NULL routine\n", nullptr);
    record_free(entry->routine);
    // A trace entry may carry no text: err_qualify accepts NULL and keeps it so.
    if (entry->text != nullptr) record_free(entry->text);
    record_free(entry);
    entry = older;
  }
}

void free_causes(err_cause *cause) {
  while (cause != nullptr) {
    err_cause *next = cause->next;
    record_free(cause);
    cause = next;
  }
}

// ---- Composition -------------------------------------------------------------------------

constexpr size_t kTextSize = 2048;
char text[kTextSize];
size_t room = kTextSize;

void text_reset() {
  text[0] = '\0';
  room = kTextSize;
}

void text_add(const char *s, size_t length) {
  if (length == 0) return;
  if (room <= length) {
    report *panic = nullptr;
    report_where_is(REPORT_PANIC, &panic);
    report_send(panic, "buffer full while error reporting\n");
    std::abort();
  }
  size_t used = kTextSize - room;
  std::memcpy(text + used, s, length);
  text[used + length] = '\0';
  room -= length;
}

void append(const char *s) {
  if (s != nullptr) text_add(s, std::strlen(s));
}

// Drops one final full stop, so that texts written as sentences join up without doubling it.
void append_trimmed(const char *s) {
  if (s == nullptr) return;
  size_t length = std::strlen(s);
  if (length > 0 && s[length - 1] == '.') --length;
  text_add(s, length);
}

constexpr const char *kCategories[] = {
    "No error",
    "Inconsistency error.",
    "No reasonable data was supplied",
    "Data supplied was out of expected range",
    "Data supplied too complex to give solution",
    "Tried finding solution but failed",
    "Problem solved with poor solution",
    "Problem solution out of expected range",
    "Hardware error",
    "System I/O error",
    "5300 hardware library error",
    "Hardware interrupt signal error",
    "Maths library error",
    "Operating system detected error",
    "Visilog error",
    "Programmer error",
    "Syntax error",
    "Operation not completed within allotted time",
    "Facility not supported",
};

const char *category_text(INT32 category) {
  static char unknown[48];
  if (category >= 0 && category < static_cast<INT32>(std::size(kCategories)))
    return kCategories[category];
  std::snprintf(unknown, sizeof unknown, "unknown error category %d", category);
  return unknown;
}

void append_causes(const err_record *record, INT32 mode) {
  if (mode == ERR_MODE_PATH) return;
  if (record->causes == nullptr) {
    append("Sorry, there are no suggested causes.\n");
    return;
  }
  append(record->causes->next == nullptr ? "Possible cause: " : "Possible causes: ");
  for (const err_cause *c = record->causes; c != nullptr; c = c->next) {
    append(cause_message(c->cause));
    append("\n");
  }
}

void describe(const err_record *record, INT32 mode) {
  if (mode == ERR_MODE_ADVICE && record->causes != nullptr) {
    append("An error has occurred. ");
    append_causes(record, mode);
    return;
  }
  const bool brief = mode == ERR_MODE_BRIEF || mode == ERR_MODE_ADVICE;
  const bool traceback = mode == ERR_MODE_TRACEBACK;
  const bool path = mode == ERR_MODE_PATH;

  for (const err_trace *entry = record->trace; entry != nullptr; entry = entry->next) {
    const bool older = entry->next != nullptr;
    if (traceback || path) {
      append(entry->routine);
      if (traceback || older) append("-> ");
    }
    if (!path) {
      append_trimmed(entry->text);
      if (traceback)
        append(".\n");
      else if (older && entry->text != nullptr && entry->text[0] != '\0')
        append(", ");
    }
    if (path && older) append("\n");
    if (brief && !older) append(": ");
  }

  bool said = false;
  if (traceback) {
    append_trimmed(category_text(record->category));
    append(".");
    said = true;
  }
  if (!path) {
    if (record->category == ERR_OS && record->code != 0) {
      int saved = errno;
      if (traceback) append(": ");
      append_trimmed(std::strerror(record->code));
      append(".");
      errno = saved;
      said = true;
    } else if (record->category == ERR_HW_LIBRARY && record->code != 0) {
      INT32 saved = error_code();
      if (traceback) append(": ");
      set_error(record->code);
      append(error_msg());
      append_trimmed(get_reason());
      append(".");
      set_error(saved);
      said = true;
    }
    if (!said) {
      append_trimmed(category_text(record->category));
      append(".");
    }
  }
  append(brief ? " " : "\n");
  append_causes(record, mode == ERR_MODE_ADVICE ? ERR_MODE_BRIEF : mode);
}

constexpr const char *kBetweenRecords = "...occurred during error...\n";

template <class Part>
char **compose(err_stack stack, bool all, char **out, Part part) {
  text_reset();
  for (const err_record *r = *stack; r != nullptr; r = all ? r->next : nullptr) {
    part(r);
    if (all && r->next != nullptr) append(kBetweenRecords);
  }
  if (out != nullptr) *out = text;
  return out;
}

void add_trace(err_record *record, const char *routine, const char *text_in) {
  static const char *const kOp = "err_qualify";
  char *routine_copy = record_strdup(routine);
  if (routine_copy == nullptr)
    misuse(kOp, ": Out of memory\n",
           describe_call("%s: trying to append routine:\n - %s\n", kOp, routine));
  char *text_copy = nullptr;
  if (text_in != nullptr) {
    text_copy = record_strdup(text_in);
    if (text_copy == nullptr) {
      record_free(routine_copy);
      misuse(kOp, ": text is NULL\n",
             describe_call("%s: trying to append description:\n - %s\n", kOp, text_in));
    }
  }
  auto *entry = static_cast<err_trace *>(record_alloc(sizeof(err_trace)));
  if (entry == nullptr) {
    record_free(routine_copy);
    if (text_copy != nullptr) record_free(text_copy);
    misuse(kOp, ": Out of memory\n",
           describe_call("%s: trying to append description:\n - %s: %s\n", kOp, routine,
                         shown(text_in)));
  }
  entry->routine = routine_copy;
  entry->text = text_copy;
  entry->next = record->trace;
  record->trace = entry;
}

}  // namespace

extern "C" {

err_stack *err_where_is(err_stack *out) {
  *out = &top;
  return out;
}

void err_terminal(err_stack stack, INT32 category, INT32 code, const char *routine,
                  const char *text_in) {
  static const char *const kOp = "err_terminal";
  err_record *r = *stack;
  if (r->category != ERR_NONE)
    misuse(kOp, ": error already set\n",
           describe_call("%s: trying to set error code %d description:\n - %s: %s\n", kOp, code,
                         shown(routine), shown(text_in)));
  if (routine == nullptr)
    misuse(kOp, ": routine is NULL\n",
           describe_call("%s: trying to set error category %d code %d description:\n - %s: %s\n",
                         kOp, category, code, shown(routine), shown(text_in)));
  if (text_in == nullptr)
    misuse(kOp, ": text is NULL\n",
           describe_call("%s: trying to set error code %d description:\n - %s: %s\n", kOp, code,
                         routine, shown(text_in)));
  r->category = category;
  r->code = code;
  errno = 0;
  free_trace(r->trace);
  r->trace = nullptr;
  err_qualify(stack, routine, text_in);
}

void err_edit(err_stack stack, INT32 category, INT32 code, const char *routine,
              const char *text_in) {
  static const char *const kOp = "err_edit";
  err_record *r = *stack;
  if (r->category == ERR_NONE)
    misuse(kOp, ": error not set\n",
           describe_call("%s: trying to edit code %d description:\n - %s: %s\n", kOp, code,
                         shown(routine), shown(text_in)));
  if (routine == nullptr || text_in == nullptr)
    misuse(kOp, routine == nullptr ? ": routine is NULL\n" : ": text is NULL\n",
           describe_call("%s: trying to edit error code %d description:\n - %s: %s\n", kOp, code,
                         shown(routine), shown(text_in)));
  r->category = category;
  r->code = code;
  add_trace(r, routine, text_in);
}

void err_qualify(err_stack stack, const char *routine, const char *text_in) {
  static const char *const kOp = "err_qualify";
  err_record *r = *stack;
  if (r->category == ERR_NONE || routine == nullptr)
    misuse(kOp, r->category == ERR_NONE ? ": error not set\n" : ": routine is NULL\n",
           describe_call("%s: trying to append description:\n - %s: %s\n", kOp, shown(routine),
                         shown(text_in)));
  add_trace(r, routine, text_in);
}

void err_append_cause(err_stack stack, INT32 cause) {
  auto *entry = static_cast<err_cause *>(record_alloc(sizeof(err_cause)));
  if (entry == nullptr)
    misuse("err_append_cause", ": Out of memory\n",
           describe_call("%s: trying to append cause %d\n", "err_append_cause", cause));
  entry->cause = cause;
  err_cause **end = &(*stack)->causes;
  while (*end != nullptr) end = &(*end)->next;
  *end = entry;
}

err_record *err_push(err_stack stack) {
  if ((*stack)->category == ERR_NONE) misuse("err_push", ": error not set\n", nullptr);
  auto *record = static_cast<err_record *>(record_alloc(sizeof(err_record)));
  if (record == nullptr) misuse("err_push", ": Out of memory\n", nullptr);
  record->next = *stack;
  *stack = record;
  return record;
}

void err_pop(err_stack stack) {
  err_record *r = *stack;
  if (r->next == nullptr) misuse("err_pop", ": error stack underflowed\n", nullptr);
  free_trace(r->trace);
  free_causes(r->causes);
  *stack = r->next;
  record_free(r);
}

void err_reset_last(err_stack stack) {
  err_record *r = *stack;
  if (r->category == ERR_NONE) misuse("err_reset_last", ": error not set\n", nullptr);
  r->category = ERR_NONE;
  r->code = 0;
  free_trace(r->trace);
  r->trace = nullptr;
  free_causes(r->causes);
  r->causes = nullptr;
}

void err_reset_all(err_stack stack) {
  if ((*stack)->category == ERR_NONE) misuse("err_reset_all", ": error not set\n", nullptr);
  while ((*stack)->next != nullptr) err_pop(stack);
  err_reset_last(stack);
}

char **err_print_last(err_stack stack, INT32 mode, char **out) {
  return compose(stack, false, out, [mode](const err_record *r) { describe(r, mode); });
}

char **err_print_all(err_stack stack, INT32 mode, char **out) {
  return compose(stack, true, out, [mode](const err_record *r) { describe(r, mode); });
}

char **err_cause_last(err_stack stack, INT32 mode, char **out) {
  return compose(stack, false, out, [mode](const err_record *r) { append_causes(r, mode); });
}

char **err_cause_all(err_stack stack, INT32 mode, char **out) {
  return compose(stack, true, out, [mode](const err_record *r) { append_causes(r, mode); });
}

INT32 ap_exit(INT32) {
  return 0;
}

void err_exit(err_stack stack, INT32, INT32 mode) {
  const INT32 category = (*stack)->category;
  if (category != ERR_NONE) {
    char *story = nullptr;
    err_print_all(stack, mode, &story);
    report *error = nullptr;
    report_where_is(REPORT_ERROR, &error);
    report_send(error, "%s", story);
  }
  ap_exit(category);
  if (category != ERR_NONE) err_reset_all(stack);
  // The application's quit code is 0 whatever went wrong: the story is in the log.
  std::exit(0);
}

}  // extern "C"

namespace tvx {

err_stack errors() {
  return &top;
}

bool error_pending() {
  return top->category != ERR_NONE;
}

namespace {

bool vfail(INT32 category, INT32 code, const char *routine, std::initializer_list<INT32> causes,
           const char *format, va_list args) {
  char message[1024];
  std::vsnprintf(message, sizeof message, format, args);
  err_terminal(&top, category, code, routine, message);
  for (INT32 cause : causes) err_append_cause(&top, cause);
  return false;
}

}  // namespace

bool fail(INT32 category, INT32 code, const char *routine, std::initializer_list<INT32> causes,
          const char *format, ...) {
  if (error_pending()) err_push(&top);
  va_list args;
  va_start(args, format);
  vfail(category, code, routine, causes, format, args);
  va_end(args);
  return false;
}

bool fail_unless_pending(INT32 category, INT32 code, const char *routine,
                         std::initializer_list<INT32> causes, const char *format, ...) {
  va_list args;
  va_start(args, format);
  if (error_pending()) {
    char message[1024];
    std::vsnprintf(message, sizeof message, format, args);
    err_qualify(&top, routine, message);
  } else {
    vfail(category, code, routine, causes, format, args);
  }
  va_end(args);
  return false;
}

bool qualify(const char *routine) {
  err_qualify(&top, routine, "");
  return false;
}

bool qualify(const char *routine, const char *format, ...) {
  char message[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(message, sizeof message, format, args);
  va_end(args);
  err_qualify(&top, routine, message);
  return false;
}

}  // namespace tvx
