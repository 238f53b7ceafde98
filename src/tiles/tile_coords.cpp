#include "kel/tiles/tile_coords.h"

namespace kel {
namespace {

// Mirror negative indices onto the non-negative side: -1 -> 0, -2 -> 1, ...
constexpr std::int32_t Fold(std::int32_t v) { return v >= 0 ? v : -1 - v; }
// The complement that takes a folded result back to the negative side.
constexpr std::int32_t Complement(std::int32_t v) { return -1 - v; }

constexpr std::int32_t ParentIndex(std::int32_t v, int shift) {
  // A 32-bit index has nothing left after 31 shifts; clamp to stay defined.
  if (shift > 31) shift = 31;
  return v >= 0 ? (v >> shift) : Complement(Fold(v) >> shift);
}

constexpr std::int32_t ChildIndexOf(std::int32_t v, int bit) {
  return v >= 0 ? 2 * v + bit : Complement(2 * Fold(v) + bit);
}

}  // namespace

const TileCoords& TileCoords::InvalidTileCoords() {
  static const TileCoords invalid;
  return invalid;
}

int TileCoords::getChildIndex() const {
  if (level == 0) return 0;
  return ChildIndex(Fold(row) & 1, Fold(column) & 1);
}

TileCoords TileCoords::getParent() const {
  if (level <= 0) return InvalidTileCoords();
  return TileCoords(level - 1, ParentIndex(row, 1), ParentIndex(column, 1));
}

TileCoords TileCoords::getParentAtLevel(int target) const {
  if (level < 0 || target > level) return InvalidTileCoords();
  const int shift = level - target;
  return TileCoords(target, ParentIndex(row, shift), ParentIndex(column, shift));
}

TileCoords TileCoords::getChild(int rowBit, int columnBit) const {
  if (level < 0) return InvalidTileCoords();
  return TileCoords(level + 1, ChildIndexOf(row, rowBit), ChildIndexOf(column, columnBit));
}

TileCoords TileCoords::getChild(int index) const { return getChild(index / 2, index % 2); }

bool TileCoords::isSubTileOf(const TileCoords& ancestor) const {
  if (level < ancestor.level) return false;
  if (level == ancestor.level) return row == ancestor.row && column == ancestor.column;
  return getParentAtLevel(ancestor.level) == ancestor;
}

}  // namespace kel
