// Addresses one tile of a quadtree pyramid: level, row and column. Rows and
// columns may be negative; parent and child arithmetic folds the negative side
// onto the positive one mirror-wise (-1 to 0, -2 to 1, ...), so negative
// indices nest exactly like positive ones. A plain value: no I/O, no logging.
#pragma once

#include <cstdint>

#include "kel/export.h"

namespace kel {

struct KEL_API TileCoords {
  std::int32_t level;   // negative marks invalid coordinates
  std::int32_t row;     // along y
  std::int32_t column;  // along x

  // Stores the values unchecked; the default is the invalid tile (-1, 0, 0).
  TileCoords(int level = -1, int row = 0, int column = 0) : level(level), row(row), column(column) {}

  bool isValid() const { return level >= 0; }
  static const TileCoords& InvalidTileCoords();

  // rowBit * 2 + columnBit; the bits are not checked.
  static int ChildIndex(int rowBit, int columnBit) { return rowBit * 2 + columnBit; }
  // Position among the parent's four children; 0 at level 0.
  int getChildIndex() const;
  // One level up; invalid for the root level and for invalid tiles.
  TileCoords getParent() const;
  // The ancestor at `level`; a copy for this tile's own level, invalid for a
  // deeper level or an invalid tile. Levels must differ by less than 32.
  TileCoords getParentAtLevel(int level) const;
  // One level down. On the negative side bit 0 is the child nearer zero: the
  // children of row -1 are -1 and -2. Invalid for an invalid tile.
  TileCoords getChild(int rowBit, int columnBit) const;
  // getChild(index / 2, index % 2).
  TileCoords getChild(int index) const;
  // True for this tile itself and every tile below `ancestor`.
  bool isSubTileOf(const TileCoords& ancestor) const;

  friend bool operator==(const TileCoords& a, const TileCoords& b) {
    return a.level == b.level && a.row == b.row && a.column == b.column;
  }
  friend bool operator!=(const TileCoords& a, const TileCoords& b) { return !(a == b); }
  // Row first, then column, then level: an ordered map lists a region row by
  // row with the levels of one row/column side by side. Kept on purpose.
  friend bool operator<(const TileCoords& a, const TileCoords& b) {
    if (a.row != b.row) return a.row < b.row;
    if (a.column != b.column) return a.column < b.column;
    return a.level < b.level;
  }
  friend bool operator>(const TileCoords& a, const TileCoords& b) { return b < a; }
};

}  // namespace kel
