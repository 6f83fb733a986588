// One line for each common shape of error handling: set a terminal error with a formatted text,
// add causes, qualify on the way out, and end the process on misuse of the foundation.
#pragma once

#include <initializer_list>

#include "tvx/error.h"

namespace tvx {

// The library's one error stack.
err_stack errors();

// Sets a terminal error whose text is formatted, then appends the causes. Returns false, so that
// a failing operation can end with `return fail(...)`. A fault met while an earlier one is still
// pending goes on a record of its own above it, so that both stay in the story and bad input
// never ends the process.
bool fail(INT32 category, INT32 code, const char *routine, std::initializer_list<INT32> causes,
          const char *format, ...) __attribute__((format(printf, 5, 6)));

// A fault that an earlier one may have caused, such as a handle missing because its allocation
// failed: with an error already pending, only qualifies it with the text, so that the real cause
// stays on top of the stack; otherwise sets the error as `fail` does. Returns false.
bool fail_unless_pending(INT32 category, INT32 code, const char *routine,
                         std::initializer_list<INT32> causes, const char *format, ...)
    __attribute__((format(printf, 5, 6)));

// Qualifies the error on the way out with a formatted text. Returns false.
bool qualify(const char *routine, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Qualifies the error on the way out with the routine's name alone. Returns false.
bool qualify(const char *routine);

// True when the top record of the stack holds an error.
bool error_pending();

// Misuse of the foundation: "Require assertion failed at line %d in file %s\n" shown through the
// fatal exit.
[[noreturn]] void require_failed(int line, const char *file);

// A broken invariant of the library's own state: "Check assertion failed at line %d in file %s\n"
// shown through the fatal exit.
[[noreturn]] void check_failed(int line, const char *file);

}  // namespace tvx
