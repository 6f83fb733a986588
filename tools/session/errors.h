// The library's error stack as a program shows it: records with the routine that met the fault,
// its text, the calls it passed on the way out and the possible causes, with the lines of the
// definition text named in the file that holds them. tvxcam prints them as a story or as JSON;
// the INDI driver and the Python package raise them.
#pragma once

#include <string>
#include <vector>

namespace session {

class DefinitionText;

struct ErrorStep {
  std::string routine, text;
};

struct ErrorCause {
  int code = 0;
  std::string text;
};

// One fault on the stack.
struct ErrorRecord {
  int category = 0, code = 0;
  std::string routine, text;      // where the fault was met and what it was
  std::vector<ErrorStep> passed;  // the calls it passed on the way out, innermost first
  std::vector<ErrorCause> causes;
};

struct ErrorReport {
  std::vector<ErrorRecord> records;  // the newest fault first
  std::string advice;                // the library's own summary of the possible causes
};

// Takes the whole stack and clears it. With `text`, every "at line N" of the definition text and
// every section the stack names also say which file and which line of it.
ErrorReport take_errors(const DefinitionText *text = nullptr);

// Each record from the fault out to the call that met it, one routine a line, then the advice.
std::string story_of(const ErrorReport &report);

}  // namespace session
