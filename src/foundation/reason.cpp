// The older error facility: a global error number with its texts, and a global reason text.
// The error stack prints through it for hardware-library errors.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "foundation/fail.h"
#include "tvx/error.h"

namespace {

constexpr const char *kNumbers[] = {
    "No Error.",
    "Out of memory.",
    "No RISC code available for use.",
    "No image available.",
    "Unable to open file/device for read/write.",
    "No such file or device.",
    "Value out of range.",
    "No name specified for file.",
    "Unable to open file/device for read access.",
    "Unable to open file/device for write access.",
    "Numeric/boundary overflow.",
    "Unknown version of the DDE attached.",
    "Parameter specification error.",
    "File contains no data.",
    "Parameter missing.",
    "Parameter text record missing.",
    "Ground reference missing from text file.",
    "Faulty read or DAC failure.",
    "Mode not supported.",
    "System error.",
    "File/device is not open for access.",
    "Timeout on risc code operation.",
    "Data is in the wrong format or is missing.",
    "Unable to write to pipe/file.",
    "Unable to read from pipe/file.",
    "Bad or missing header information.",
    "Bad or missing data.",
    "Null region.",
    "Interrupted operation.",
    "Configuration error.",
    "Error in library.",
    "Bad data/program memory.",
    "Unable to control device driver.",
    "Control operation error.",
    "Gel lamp blown.",
    "Stage stuck at limit switch.",
    "Instrument door open when imaging.",
    "Unable to control HT power supply.",
    "Software signal received.",
};
constexpr INT32 kLibraryError = 30;
constexpr const char *kNoReason = "No reason specified.";
constexpr size_t kReasonSize = 2000;

INT32 number = 0;
char message[80];
char reason[kReasonSize];
library_text_fn library_error = nullptr;
library_text_fn library_reason = nullptr;

}  // namespace

extern "C" {

void set_error(INT32 n) {
  number = n;
}
INT32 error_code(void) {
  return number;
}

void clear_error(void) {
  set_reason(kNoReason);
  number = 0;
}

const char *error_msg(void) {
  if (number == kLibraryError && library_error != nullptr) return library_error();
  bool known = number >= 0 && number < static_cast<INT32>(std::size(kNumbers));
  // The texts are formats taking the number, though only the unknown one shows it.
  std::snprintf(message, sizeof message, known ? kNumbers[number] : "Unrecognised error number %d",
                number);
  return message;
}

const char *syserror_msg(void) {
  std::snprintf(message, sizeof message, "%s", std::strerror(errno));
  return message;
}

void set_libraryerror(library_text_fn fn) {
  library_error = fn;
}
void set_libraryreason(library_text_fn fn) {
  library_reason = fn;
}

void set_reason(const char *text) {
  if (text == nullptr) tvx::require_failed(83, "reason");
  std::memset(reason, 0, sizeof reason);
  std::strncpy(reason, text, kReasonSize - 1);
}

void append_reason(const char *text) {
  if (text == nullptr) tvx::require_failed(122, "reason");
  size_t length = std::strlen(reason);
  if (length < kReasonSize - 1) std::strncat(reason, text, kReasonSize - 1 - length);
}

const char *get_reason(void) {
  if (number == kLibraryError && library_reason != nullptr) return library_reason();
  if (reason[0] == '\0') std::strcpy(reason, kNoReason);
  return reason;
}

}  // extern "C"
