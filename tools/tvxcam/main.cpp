// tvxcam: takes pictures with a CCD camera on a 7100 controller from the command line, on the
// simulated camera unless told otherwise, and shows the camera's state and image files. Exit
// status: 0 done, 1 failed (the library's story on standard error), 2 a command line it cannot
// follow, 130 stopped by SIGINT or SIGTERM. With --json, standard output holds one JSON object
// whatever happens.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "interrupt.h"
#include "json.h"
#include "options.h"
#include "session.h"
#include "summary.h"

namespace {

using namespace tvxcam;

constexpr int kFailed = 1, kUsage = 2, kInterrupted = 130;

int run(const Command &c, Report &report) {
  if (c.name == "snap") return run_snap(c, report);
  if (c.name == "series") return run_series(c, report);
  if (c.name == "status") return run_status(c, report);
  if (c.name == "cool") return run_cool(c, report);
  if (c.name == "info") return run_info(c, report);
  return run_convert(c, report);
}

// The help of the subcommand the user was typing, else of the whole program.
std::string usage(CLI::App &app) {
  for (CLI::App *sub : app.get_subcommands()) {
    std::string text = sub->help();
    const std::string usage = "Usage: " + sub->get_name();
    if (const size_t at = text.find(usage); at != std::string::npos)
      text.replace(at, usage.size(), "Usage: tvxcam " + sub->get_name());
    return text;
  }
  return app.help();
}

std::string library_version() {
  char version[32] = {}, product[32] = {};
  GetDllVersion(version, product);
  return version;
}

// The JSON object of a command that did not finish: what went wrong and what was written.
void print_json_end(const Command &c, const Report &report,
                    const std::function<void(Json &)> &error) {
  Json j;
  j.open();
  if (!c.name.empty()) j.field("command", c.name);
  j.field("ok", false);
  error(j);
  j.open_array("written");
  for (const Written &w : report.written) j.field(nullptr, w.path);
  j.close_array().close();
  std::printf("%s\n", j.text().c_str());
}

void print_kept(const Report &report) {
  if (report.written.empty()) return;
  std::fprintf(stderr, "tvxcam: written before it stopped, each file whole:\n");
  for (const Written &w : report.written) std::fprintf(stderr, "  %s\n", w.path.c_str());
}

int stopped(const Command &c, const Report &report, const std::string &during) {
  const char *signal = signal_name(interrupted());
  if (c.globals.json) {
    print_json_end(c, report,
                   [&](Json &j) { j.field("interrupted", signal).field("where", during); });
  } else {
    std::fprintf(stderr, "tvxcam: stopped by %s%s%s\n", signal, during.empty() ? "" : " ",
                 during.c_str());
    print_kept(report);
    if (report.written.empty()) std::fprintf(stderr, "tvxcam: nothing was written\n");
  }
  return kInterrupted;
}

int failed(const Command &c, const Report &report, const std::string &message,
           const session::ErrorReport &errors) {
  if (c.globals.json) {
    print_json_end(c, report, [&](Json &j) {
      j.open("error").field("message", message);
      json_errors(j, errors);
      j.close();
    });
    return kFailed;
  }
  std::string story = story_of(errors);
  std::fprintf(stderr, "tvxcam: %s%s\n%s%s", message.c_str(), errors.records.empty() ? "" : ":",
               story.c_str(), !story.empty() && story.back() != '\n' ? "\n" : "");
  print_kept(report);
  return kFailed;
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{
      "Takes pictures with a CCD camera on a 7100 controller, the simulated one unless --hw and "
      "--ccd name another, and shows the camera and image files.",
      "tvxcam"};
  Command command;
  define_command_line(app, command);
  app.set_version_flag("--version", "", "print the versions of tvxcam and the library");
  // --json is wanted for a command line that does not parse, too.
  for (int i = 1; i < argc; ++i) command.globals.json |= std::strcmp(argv[i], "--json") == 0;
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForVersion &) {
    if (command.globals.json)
      std::printf("{\"program\":\"tvxcam\",\"version\":\"%s\",\"library\":\"%s\"}\n",
                  TVXCAM_VERSION, library_version().c_str());
    else
      std::printf("tvxcam %s (library tvx %s)\n", TVXCAM_VERSION, library_version().c_str());
    return 0;
  } catch (const CLI::CallForHelp &e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp &e) {
    return app.exit(e);
  } catch (const CLI::ParseError &e) {
    if (command.globals.json)
      print_json_end(command, Report{}, [&](Json &j) {
        j.open("error").field("message", e.what()).field("usage", true).close();
      });
    else
      std::fprintf(stderr, "tvxcam: %s\n\n%s", e.what(), usage(app).c_str());
    return kUsage;
  }
  catch_interrupts();
  Report report;
  try {
    return run(command, report);
  } catch (const Aborted &a) {
    return stopped(command, report, a.during);
  } catch (const LibraryError &e) {
    // A wait that gave up because it was asked to is no fault.
    if (interrupted() != 0) {
      take_errors();
      return stopped(command, report, "");
    }
    const DefinitionText text(e.definition_files);
    const ErrorReport errors = take_errors(e.definition_files.empty() ? nullptr : &text);
    return failed(
        command, report,
        "failed while " + e.what + (errors.records.empty() ? ": the library gave no reason" : ""),
        errors);
  } catch (const Failure &f) {
    if (interrupted() != 0) return stopped(command, report, "");
    return failed(command, report, f.text, take_errors());
  }
}
