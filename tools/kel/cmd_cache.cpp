// kel cache: tile cache file names and placeholder states.
#include <cstdio>

#include <kel/kel.h>

#include "cli.h"
#include "commands.h"

namespace {

int RunTileFile(const cli::Args& args) {
  args.expectPositional(5, 5, "kel cache tile-file ROOT NAME LEVEL ROW COLUMN");
  args.rejectUnknown({});
  const auto level = cli::ParseInt(args.at(2), "LEVEL");
  if (level < 0 || level > 30) throw cli::UsageError("LEVEL must be between 0 and 30");
  const auto row = cli::ParseInt(args.at(3), "ROW");
  const auto column = cli::ParseInt(args.at(4), "COLUMN");
  if (row < INT32_MIN || row > INT32_MAX || column < INT32_MIN || column > INT32_MAX)
    throw cli::UsageError("ROW and COLUMN must fit in 32 bits");
  const kel::TileCoords tile(static_cast<int>(level), static_cast<int>(row), static_cast<int>(column));
  const std::wstring root = kel::Utf8String2WString(args.at(0));
  std::wstring file;
  kel::TileCacheFileUtil::GetTileFile(file, root, kel::Utf8String2WString(args.at(1)), tile);
  std::printf("%s\n", kel::WString2Utf8String(file).c_str());
  return 0;
}

int RunState(const cli::Args& args) {
  args.expectPositional(1, 1, "kel cache state FILE");
  args.rejectUnknown({});
  const auto state = kel::TileCacheFileUtil::GetSffFileState(kel::Utf8String2WString(args.at(0)).c_str());
  const char* name = state == kel::TileCacheFileUtil::SffNull      ? "null tile (empty file)"
                     : state == kel::TileCacheFileUtil::SffPresent ? "has content"
                                                                   : "missing or unreadable";
  std::printf("%d %s\n", static_cast<int>(state), name);
  return 0;
}

int RunCreate(const cli::Args& args, bool empty) {
  args.expectPositional(1, 1, empty ? "kel cache empty-sff FILE" : "kel cache null-sff FILE");
  args.rejectUnknown({});
  const std::wstring path = kel::Utf8String2WString(args.at(0));
  const bool ok = empty ? kel::TileCacheFileUtil::CreateEmptySff(path.c_str())
                        : kel::TileCacheFileUtil::CreateNullSff(path.c_str());
  if (!ok) {
    std::fprintf(stderr, "kel: cannot create %s\n", args.at(0).c_str());
    return 1;
  }
  return 0;
}

int RunEmpty(const cli::Args& args) { return RunCreate(args, true); }
int RunNull(const cli::Args& args) { return RunCreate(args, false); }

const std::vector<cli::Command> kCommands = {
    {"tile-file", "cache file name of a tile",
     "usage: kel cache tile-file ROOT NAME LEVEL ROW COLUMN\n\n"
     "Prints ROOT/LEVEL/ROW/NAME_LEVEL_ROW_COLUMN.sff (cut at 259 characters).\n",
     {}, &RunTileFile},
    {"state", "placeholder state of a tile file",
     "usage: kel cache state FILE\n\n"
     "Prints 0 (missing or unreadable), 2 (empty: a null tile) or 3 (has content).\n"
     "Only the first byte is looked at.\n",
     {}, &RunState},
    {"empty-sff", "write an empty tile file (one empty node)",
     "usage: kel cache empty-sff FILE\n\nWrites the 9-byte SFF file holding one empty node.\n", {}, &RunEmpty},
    {"null-sff", "write a null tile file (zero bytes)",
     "usage: kel cache null-sff FILE\n\nCreates or truncates FILE to zero bytes.\n", {}, &RunNull},
};

}  // namespace

int RunCacheCommand(const std::vector<std::string>& words) { return cli::RunGroup("cache", kCommands, words); }
