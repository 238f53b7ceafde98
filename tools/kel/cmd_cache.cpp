// kel cache: tile cache file names and placeholder states.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include <kel/kel.h>

#include "commands.h"
#include "options.h"

namespace {

struct TileFileArgs {
  std::string root, name;
  std::int64_t level = 0, row = 0, column = 0;
};

int RunTileFile(const TileFileArgs& a) {
  const kel::TileCoords tile(static_cast<int>(a.level), static_cast<int>(a.row), static_cast<int>(a.column));
  std::wstring file;
  kel::TileCacheFileUtil::GetTileFile(file, kel::Utf8String2WString(a.root), kel::Utf8String2WString(a.name), tile);
  std::printf("%s\n", kel::WString2Utf8String(file).c_str());
  return 0;
}

int RunState(const std::string& path) {
  const auto state = kel::TileCacheFileUtil::GetSffFileState(kel::Utf8String2WString(path).c_str());
  const char* name = state == kel::TileCacheFileUtil::SffNull      ? "null tile (empty file)"
                     : state == kel::TileCacheFileUtil::SffPresent ? "has content"
                                                                   : "missing or unreadable";
  std::printf("%d %s\n", static_cast<int>(state), name);
  return 0;
}

int RunCreate(const std::string& path, bool empty) {
  const std::wstring wpath = kel::Utf8String2WString(path);
  const bool ok = empty ? kel::TileCacheFileUtil::CreateEmptySff(wpath.c_str())
                        : kel::TileCacheFileUtil::CreateNullSff(wpath.c_str());
  if (!ok) {
    std::fprintf(stderr, "kel: cannot create %s\n", path.c_str());
    return 1;
  }
  return 0;
}

}  // namespace

void AddCacheCommands(CLI::App& app) {
  CLI::App* group = tool::AddGroup(app, "cache", "tile cache file names and states");

  auto tf = std::make_shared<TileFileArgs>();
  CLI::App* cmd = tool::AddCommand(*group, "tile-file", "cache file name of a tile",
                                   "Prints ROOT/LEVEL/ROW/NAME_LEVEL_ROW_COLUMN.sff (cut at 259 characters).",
                                   [tf] { return RunTileFile(*tf); });
  cmd->add_option("ROOT", tf->root, "cache root folder")->required();
  cmd->add_option("NAME", tf->name, "tile set name")->required();
  tool::AddInt(*cmd, "LEVEL", tf->level, 0, 30, "tile level, 0-30")->required();
  tool::AddInt(*cmd, "ROW", tf->row, INT32_MIN, INT32_MAX, "tile row")->required();
  tool::AddInt(*cmd, "COLUMN", tf->column, INT32_MIN, INT32_MAX, "tile column")->required();

  auto file = std::make_shared<std::string>();
  cmd = tool::AddCommand(*group, "state", "placeholder state of a tile file",
                         "Prints 0 (missing or unreadable), 2 (empty: a null tile) or 3 (has content).\n"
                         "Only the first byte is looked at.",
                         [file] { return RunState(*file); });
  cmd->add_option("FILE", *file, "tile file")->required();

  cmd = tool::AddCommand(*group, "empty-sff", "write an empty tile file (one empty node)",
                         "Writes the 9-byte SFF file holding one empty node.",
                         [file] { return RunCreate(*file, true); });
  cmd->add_option("FILE", *file, "tile file to write")->required();

  cmd = tool::AddCommand(*group, "null-sff", "write a null tile file (zero bytes)",
                         "Creates or truncates FILE to zero bytes.", [file] { return RunCreate(*file, false); });
  cmd->add_option("FILE", *file, "tile file to write")->required();
}
