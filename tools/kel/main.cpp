// kel: the command-line face of the kel library.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "commands.h"
#include "logging.h"
#include "options.h"
#include "progress_view.h"

namespace tool {
namespace {

struct Globals {
  bool verbose = false;
  bool quiet = false;
};

std::unique_ptr<CLI::App> BuildApp(Globals& globals) {
  auto app = std::make_unique<CLI::App>("kel: tiles, SFF scene files, textures, picking and coordinate systems from the command line",
                                        "kel");
  app->require_subcommand(1);
  // Global flags may also follow the command words ("kel sff pack A B --verbose").
  app->fallthrough();
  app->add_flag("--verbose", globals.verbose, "log everything the library says, not only warnings and errors");
  app->add_flag("--quiet", globals.quiet, "log errors only");
  app->footer("'kel GROUP --help' lists a group's commands; 'kel GROUP COMMAND --help' shows a command's usage.");
  AddTileCommands(*app);
  AddSffCommands(*app);
  AddCacheCommands(*app);
  AddPickCommands(*app);
  AddDdsCommands(*app);
  AddTextureCommands(*app);
  AddSrsCommands(*app);
  AddBagCommands(*app);
  AddSettingsCommands(*app);
  AddFeatureCommands(*app);
  AddDemoCommands(*app);
  AddGeomCommands(*app);
  AddCityCommands(*app);
  return app;
}

// CLI11 messages are one line already; a stray line break would break the
// one-line promise for scripts.
std::string OneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

int Fail(int code, const std::string& message) {
  ConsoleLine("kel: " + OneLine(message));
  return code;
}

}  // namespace

int RunKel(const std::vector<std::string>& args) {
  Globals globals;
  std::unique_ptr<CLI::App> app = BuildApp(globals);
  std::vector<std::string> reversed(args.rbegin(), args.rend());  // CLI11 takes them last first
  TakeChosenCommand();
  try {
    app->parse(reversed);
  } catch (const CLI::Success& e) {  // --help
    return app->exit(e);
  } catch (const CLI::ParseError& e) {
    return Fail(2, e.what());
  } catch (const UsageError& e) {
    return Fail(2, e.what());
  }
  if (globals.verbose && globals.quiet) return Fail(2, "--verbose and --quiet exclude each other");
  if (globals.verbose) SetVerbosity(Verbosity::Verbose);
  if (globals.quiet) SetVerbosity(Verbosity::Quiet);
  const std::function<int()> run = TakeChosenCommand();
  if (!run) return Fail(2, "no command given; try 'kel --help'");
  try {
    return run();
  } catch (const UsageError& e) {
    return Fail(2, e.what());
  } catch (const Interrupted&) {
    return Fail(130, "interrupted");
  } catch (const kel::wexception& e) {
    return Fail(1, kel::WString2Utf8String(e.message()));
  } catch (const std::exception& e) {
    return Fail(1, e.what());
  }
}

}  // namespace tool

int main(int argc, char** argv) {
  tool::ProgressView view;  // first: it blocks Ctrl-C for every thread started later
  // A file size limit (ulimit -f) then fails the write with EFBIG, which the
  // library reports and cleans up after, instead of killing the process.
  std::signal(SIGXFSZ, SIG_IGN);
  tool::ConfigureLogging();
  std::vector<std::string> args(argv + 1, argv + argc);
  if (!args.empty() && args[0] == "help") args[0] = "--help";
  return tool::RunKel(args);
}
