// Reading the library's error stack into records, and telling them.
#include "errors.h"

#include <regex>

#include "definitions.h"
#include "tvx/tvx.h"

namespace session {

namespace {

// The reader counts lines of the whole definition text; the user edits files. Each "at line N"
// and each named section also says where in which file.
std::string located(const std::string &text, const DefinitionText *definitions) {
  if (definitions == nullptr) return text;
  static const std::regex kLine(R"(at line (\d+))"), kSection(R"(section '([A-Z_]+)')");
  std::smatch m;
  std::string where;
  if (std::regex_search(text, m, kLine))
    where = definitions->where(std::stol(m[1]));
  else if (std::regex_search(text, m, kSection))
    where = definitions->section(m[1]);
  return where.empty() ? text : text + " (" + where + ")";
}

std::string trimmed(const char *text) {
  std::string s = text != nullptr ? text : "";
  if (!s.empty() && s.back() == '.') s.pop_back();
  return s;
}

}  // namespace

ErrorReport take_errors(const DefinitionText *definitions) {
  ErrorReport report;
  err_stack stack = nullptr;
  err_where_is(&stack);
  for (const err_record *r = *stack; r != nullptr && r->category != ERR_NONE; r = r->next) {
    ErrorRecord record;
    record.category = r->category;
    record.code = r->code;
    // The trace holds the newest entry first: the fault itself is its last.
    std::vector<ErrorStep> steps;
    for (const err_trace *t = r->trace; t != nullptr; t = t->next)
      steps.insert(steps.begin(), {t->routine != nullptr ? t->routine : "",
                                   located(trimmed(t->text), definitions)});
    if (!steps.empty()) {
      record.routine = steps.front().routine;
      record.text = steps.front().text;
      record.passed.assign(steps.begin() + 1, steps.end());
    }
    for (const err_cause *c = r->causes; c != nullptr; c = c->next)
      record.causes.push_back({c->cause, cause_message(c->cause)});
    report.records.push_back(std::move(record));
  }
  // Clearing a stack that holds nothing is a misuse the library does not forgive.
  if (report.records.empty()) return report;
  char *advice = nullptr;
  err_print_all(stack, ERR_MODE_ADVICE, &advice);
  if (advice != nullptr) report.advice = advice;
  err_reset_all(stack);
  return report;
}

std::string story_of(const ErrorReport &report) {
  std::string story;
  const auto line = [&story](const ErrorStep &s) {
    if (!s.text.empty()) story += "  " + s.routine + ": " + s.text + "\n";
  };
  for (const ErrorRecord &r : report.records) {
    line({r.routine, r.text});
    for (const ErrorStep &s : r.passed) line(s);
  }
  return story + report.advice;
}

}  // namespace session
