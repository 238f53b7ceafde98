#include "kel/tiles/tile_coords.h"

#include <map>
#include <random>

#include <gtest/gtest.h>

namespace kel {
namespace {

using T = TileCoords;

// Reference model: plain floor arithmetic, which folding must reproduce.
std::int64_t FloorDiv(std::int64_t v, std::int64_t d) { return v >= 0 ? v / d : -((-v + d - 1) / d); }

TEST(TileCoords, DefaultAndInvalidAreMinusOneZeroZero) {
  EXPECT_EQ(T(), T(-1, 0, 0));
  EXPECT_EQ(T::InvalidTileCoords(), T(-1, 0, 0));
  EXPECT_FALSE(T().isValid());
  EXPECT_TRUE(T(0, 0, 0).isValid());
}

TEST(TileCoords, ParentsChildrenAndSubTilesFollowTheWorkedExamples) {
  struct Case {
    T tile;
    T parent;
  } cases[] = {
      {T(0, 5, 7), T()},          {T(3, -1, -2), T(2, -1, -1)}, {T(3, 5, 4), T(2, 2, 2)},
      {T(-1, 0, 0), T()},         {T(1, -3, 3), T(0, -2, 1)},
  };
  for (const auto& c : cases) EXPECT_EQ(c.tile.getParent(), c.parent) << c.tile.level << "," << c.tile.row;
  EXPECT_EQ(T(3, 5, 4).getParentAtLevel(3), T(3, 5, 4));
  EXPECT_EQ(T(3, 5, 4).getParentAtLevel(4), T());
  EXPECT_EQ(T(3, -5, 9).getParentAtLevel(1), T(1, -2, 2));
  EXPECT_EQ(T().getParentAtLevel(0), T());
  // A negative target is not rejected; the result is itself invalid.
  EXPECT_FALSE(T(2, 1, 1).getParentAtLevel(-1).isValid());
  EXPECT_EQ(T(2, -1, 3).getChild(1, 0), T(3, -2, 6));
  EXPECT_EQ(T(0, 0, 0).getChild(3), T(1, 1, 1));
  EXPECT_EQ(T().getChild(0), T());
  EXPECT_EQ(T(4, -1, 0).getChild(0, 0), T(5, -1, 0));  // bit 0 is nearer zero
  EXPECT_EQ(T(4, 2, 0).getChild(1, 0), T(5, 5, 0));
  EXPECT_EQ(T(3, -2, 6).getChildIndex(), 2);
  EXPECT_EQ(T(3, -1, 7).getChildIndex(), 1);
  EXPECT_EQ(T(0, 9, 9).getChildIndex(), 0);
  EXPECT_TRUE(T(2, 1, 1).isSubTileOf(T(2, 1, 1)));
  EXPECT_TRUE(T(2, 1, 1).isSubTileOf(T(0, 0, 0)));
  EXPECT_FALSE(T(2, 1, 1).isSubTileOf(T(3, 2, 2)));
  EXPECT_TRUE(T(4, -3, 5).isSubTileOf(T(2, -1, 1)));
  EXPECT_FALSE(T(4, -3, 5).isSubTileOf(T(2, 0, 1)));
}

TEST(TileCoords, RandomTilesAgreeWithFloorArithmeticAndRoundTripThroughChildren) {
  std::mt19937 rng(42);
  std::uniform_int_distribution<int> level(1, 20);
  for (int i = 0; i < 20000; ++i) {
    const int l = level(rng);
    const int span = 1 << l;
    std::uniform_int_distribution<int> idx(-span, span - 1);
    const T t(l, idx(rng), idx(rng));
    ASSERT_EQ(t.getParent().getChild(t.getChildIndex()), t);
    const int up = std::uniform_int_distribution<int>(0, l)(rng);
    const T a = t.getParentAtLevel(l - up);
    ASSERT_EQ(a.row, FloorDiv(t.row, std::int64_t{1} << up));
    ASSERT_EQ(a.column, FloorDiv(t.column, std::int64_t{1} << up));
    ASSERT_TRUE(t.isSubTileOf(a));
    ASSERT_EQ(a.getChildIndex() == 0 || a.level > 0, true);
    for (int c = 0; c < 4; ++c) ASSERT_EQ(t.getChild(c).getParent(), t);
  }
}

TEST(TileCoords, OrdersByRowThenColumnThenLevel) {
  EXPECT_TRUE(T(5, 0, 9) < T(1, 1, 0));
  EXPECT_TRUE(T(1, 2, 3) < T(2, 2, 3));
  EXPECT_TRUE(T(1, 2, 4) > T(9, 2, 3));
  EXPECT_FALSE(T(1, 2, 3) < T(1, 2, 3));
  EXPECT_FALSE(T(1, 2, 3) > T(1, 2, 3));
  std::map<T, int> byRow{{T(2, 1, 0), 0}, {T(1, 0, 5), 1}, {T(0, 0, 5), 2}};
  auto it = byRow.begin();
  EXPECT_EQ((it++)->first, T(0, 0, 5));
  EXPECT_EQ((it++)->first, T(1, 0, 5));
  EXPECT_EQ(it->first, T(2, 1, 0));
}

}  // namespace
}  // namespace kel
