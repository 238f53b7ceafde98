// kel settings: the model settings file (where a model sits and in which
// coordinate system).
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "commands.h"
#include "options.h"

namespace {

struct SettingsArgs {
  std::string file;
  std::vector<double> offset;
  std::string srs;
  bool srsGiven = false;
  std::vector<std::string> entries;
  bool clearOffset = false;
};

std::string U8(const std::wstring& s) { return kel::WString2Utf8String(s); }

int RunShow(const SettingsArgs& a) {
  const kel::PosFile f = kel::PosFile::Load(kel::Utf8String2WString(a.file));
  std::printf("%-8s %s\n", "file", a.file.c_str());
  if (f.hasOffset())
    std::printf("%-8s %.17g %.17g %.17g\n", "offset", f.offset()[0], f.offset()[1], f.offset()[2]);
  else
    std::printf("%-8s (none)\n", "offset");
  std::printf("%-8s %s\n", "srs", f.srs().empty() ? "(none)" : U8(f.srs()).c_str());
  for (const auto& [key, value] : f.extra()) std::printf("  %s = %s\n", U8(key).c_str(), U8(value).c_str());
  return 0;
}

int RunSet(const SettingsArgs& a) {
  if (a.offset.empty() && !a.clearOffset && !a.srsGiven && a.entries.empty())
    throw tool::UsageError("nothing to set; give --offset, --srs, --clear-offset or --entry");
  if (!a.offset.empty() && a.clearOffset) throw tool::UsageError("--offset and --clear-offset exclude each other");
  const std::wstring path = kel::Utf8String2WString(a.file);
  // A missing file starts empty; one that exists must read cleanly, so a
  // typo in the name never replaces someone else's file.
  kel::PosFile f = kel::File::Exists(path) ? kel::PosFile::Load(path) : kel::PosFile();
  if (!a.offset.empty()) f.setOffset(kel::Vec<3, double>(a.offset[0], a.offset[1], a.offset[2]));
  if (a.clearOffset) f.clearOffset();
  if (a.srsGiven) f.setSrs(kel::Utf8String2WString(a.srs));
  for (const std::string& entry : a.entries) {
    const auto eq = entry.find('=');
    if (eq == std::string::npos || eq == 0) throw tool::UsageError("--entry needs KEY=VALUE, got '" + entry + "'");
    f.set(kel::Utf8String2WString(entry.substr(0, eq)), kel::Utf8String2WString(entry.substr(eq + 1)));
  }
  f.save(path);
  std::fputs(f.format().c_str(), stdout);
  return 0;
}

}  // namespace

void AddSettingsCommands(CLI::App& app) {
  CLI::App* group = tool::AddGroup(app, "settings", "model settings files: offset and coordinate system");
  auto a = std::make_shared<SettingsArgs>();

  CLI::App* cmd = tool::AddCommand(*group, "show", "offset, coordinate system and other keys of a settings file",
                                   "Reads a model settings file (first line #ORB_ModelSettings_V1.0) and prints\n"
                                   "its offset, its coordinate system and any other keys. Exit code 1 when the\n"
                                   "file is missing or not a model settings file.",
                                   [a] { return RunShow(*a); });
  cmd->add_option("FILE", a->file, "model settings file")->required();

  cmd = tool::AddCommand(*group, "set", "create or change a settings file",
                         "Changes the given keys of FILE, creating it when it does not exist, and prints\n"
                         "the result. Other keys are kept. The file is replaced as a whole, so a failed\n"
                         "write leaves the old one.",
                         [a] { return RunSet(*a); });
  cmd->add_option("FILE", a->file, "model settings file")->required();
  tool::AddNumbers(*cmd, "--offset", a->offset, 3, "offset X,Y,Z added to the model's coordinates")
      ->type_name("X,Y,Z");
  cmd->add_option_function<std::string>(
         "--srs",
         [a](const std::string& text) {
           a->srs = text;
           a->srsGiven = true;
         },
         "coordinate-system code or WKT (empty removes it)")
      ->type_name("TEXT");
  cmd->add_flag("--clear-offset", a->clearOffset, "remove the offset");
  cmd->add_option("--entry", a->entries, "any other KEY=VALUE (repeatable)")->type_name("KEY=VALUE");
}
