// tvxcam: takes pictures with a CCD camera on a 7100 controller from the command line, on the
// simulated camera unless told otherwise, and shows the camera's state and image files.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "commands.h"
#include "options.h"
#include "session.h"

namespace {

using namespace tvxcam;

int run(const Command &c) {
  if (c.name == "snap") return run_snap(c);
  if (c.name == "series") return run_series(c);
  if (c.name == "status") return run_status(c);
  if (c.name == "cool") return run_cool(c);
  if (c.name == "info") return run_info(c);
  return run_convert(c);
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

constexpr int kUsage = 2;

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{
      "Takes pictures with a CCD camera on a 7100 controller, the simulated one unless --hw and "
      "--ccd name another, and shows the camera and image files.",
      "tvxcam"};
  Command command;
  define_command_line(app, command);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp &e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp &e) {
    return app.exit(e);
  } catch (const CLI::ParseError &e) {
    std::fprintf(stderr, "tvxcam: %s\n\n%s", e.what(), usage(app).c_str());
    return kUsage;
  }
  try {
    return run(command);
  } catch (const LibraryError &e) {
    std::string story = error_story();
    if (story.empty()) story = "the library gave no reason.\n";
    std::fprintf(stderr, "tvxcam: failed while %s:\n%s%s", e.what.c_str(), story.c_str(),
                 story.back() == '\n' ? "" : "\n");
  } catch (const Failure &f) {
    std::fprintf(stderr, "tvxcam: %s\n", f.text.c_str());
  }
  // Whatever was left on the stack belongs to the failure just told.
  error_story();
  return 1;
}
