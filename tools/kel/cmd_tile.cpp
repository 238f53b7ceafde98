// kel tile: tile addressing (parent chain, children) and index ranges.
#include <cstdio>

#include <kel/kel.h>

#include "cli.h"
#include "commands.h"

namespace {

void PrintTile(const char* label, const kel::TileCoords& t) {
  if (t.isValid())
    std::printf("%-14s level %d, row %d, column %d\n", label, t.level, t.row, t.column);
  else
    std::printf("%-14s (none)\n", label);
}

int RunInfo(const cli::Args& args) {
  args.expectPositional(3, 3, "kel tile info LEVEL ROW COLUMN");
  args.rejectUnknown({});
  const auto level = cli::ParseInt(args.at(0), "LEVEL");
  if (level < 0 || level > 30) throw cli::UsageError("LEVEL must be between 0 and 30");
  const kel::TileCoords tile(static_cast<int>(level), static_cast<int>(cli::ParseInt(args.at(1), "ROW")),
                             static_cast<int>(cli::ParseInt(args.at(2), "COLUMN")));
  PrintTile("tile", tile);
  std::printf("%-14s %d\n", "child index", tile.getChildIndex());
  std::puts("parent chain:");
  for (kel::TileCoords p = tile.getParent(); p.isValid(); p = p.getParent())
    std::printf("  level %d, row %d, column %d (child index %d)\n", p.level, p.row, p.column, p.getChildIndex());
  std::puts("children:");
  for (int i = 0; i < 4; ++i) {
    const kel::TileCoords c = tile.getChild(i);
    std::printf("  [%d] level %d, row %d, column %d\n", i, c.level, c.row, c.column);
  }
  return 0;
}

int RunRange(const cli::Args& args) {
  args.expectPositional(0, 0, "kel tile range --origin X,Y --size S --level L --box X0,Y0,X1,Y1");
  args.rejectUnknown({"origin", "size", "level", "box", "list"});
  auto need = [&](const char* name) {
    auto v = args.option(name);
    if (!v) throw cli::UsageError(std::string("missing --") + name);
    return *v;
  };
  const auto origin = cli::ParseDoubles(need("origin"), 2, "--origin");
  const double size = cli::ParseDouble(need("size"), "--size");
  if (!(size != 0.0)) throw cli::UsageError("--size must be a non-zero number");
  const auto level = cli::ParseInt(need("level"), "--level");
  if (level < 0 || level > 30) throw cli::UsageError("--level must be between 0 and 30");
  const auto box = cli::ParseDoubles(need("box"), 4, "--box");
  const kel::BBox<2, double> region({box[0], box[1]}, {box[2], box[3]});
  const kel::BBox<2, int> range = kel::TileSetInfo::GetIndexRange(
      static_cast<std::uint64_t>(level), kel::Vec<2, double>(origin[0], origin[1]), region, size);
  const long long columns = static_cast<long long>(range.max.x()) - range.min.x() + 1;
  const long long rows = static_cast<long long>(range.max.y()) - range.min.y() + 1;
  std::printf("level %lld: columns %d..%d, rows %d..%d (%lld tiles)\n", static_cast<long long>(level),
              range.min.x(), range.max.x(), range.min.y(), range.max.y(), columns * rows);
  const long long limit = args.option("list") ? cli::ParseInt(*args.option("list"), "--list") : 16;
  long long shown = 0;
  const kel::Vec<3, double> origin3(origin[0], origin[1], 0.0);
  for (int r = range.min.y(); r <= range.max.y() && shown < limit; ++r)
    for (int c = range.min.x(); c <= range.max.x() && shown < limit; ++c, ++shown) {
      const auto reg = kel::TileSetInfo::GetTileRegion(kel::TileCoords(static_cast<int>(level), r, c), size, origin3);
      std::printf("  row %d, column %d: (%g, %g)-(%g, %g)\n", r, c, reg.min.x(), reg.min.y(), reg.max.x(), reg.max.y());
    }
  if (shown < columns * rows) std::printf("  ... %lld more (--list N shows more)\n", columns * rows - shown);
  return 0;
}

const std::vector<cli::Command> kCommands = {
    {"info", "parent chain, children and child index of a tile",
     "usage: kel tile info LEVEL ROW COLUMN\n\n"
     "Prints the tile's child index, its parents up to level 0 and its four children.\n"
     "Negative rows and columns are allowed; they nest mirror-wise like positive ones.\n",
     {}, &RunInfo},
    {"range", "tile index range covering a ground box",
     "usage: kel tile range --origin X,Y --size S --level L --box X0,Y0,X1,Y1 [--list N]\n\n"
     "Prints the inclusive column and row range of level-L tiles touched by the box\n"
     "(a right edge on a tile boundary is exclusive, a top edge is not) and the\n"
     "ground regions of the first N of them (default 16).\n",
     {}, &RunRange},
};

}  // namespace

int RunTileCommand(const std::vector<std::string>& words) { return cli::RunGroup("tile", kCommands, words); }
