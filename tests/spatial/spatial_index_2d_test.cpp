#include "kel/spatial/spatial_index_2d.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "geometry/geometry_test_util.h"
#include "spatial/temp_dir.h"

namespace kel {
namespace {

struct Box {
  double minX, minY, maxX, maxY;
};

// A coordinate as the index stores it: a float relative to the origin.
float F(double v, double origin) { return float(v - origin); }

bool Collect(std::uint32_t leaf, void* context) {
  static_cast<std::vector<std::uint32_t>*>(context)->push_back(leaf);
  return true;
}

std::vector<std::uint32_t> AtPoint(const SpatialIndex2D& index, double x, double y) {
  std::vector<std::uint32_t> out;
  SpatialIndex2D::PointQuery(x, y, index).forEachAtPoint(Collect, &out);
  return out;
}

std::vector<std::pair<std::int64_t, std::int64_t>> Runs(const SpatialIndex2D& index, const Box& q) {
  std::vector<std::pair<std::int64_t, std::int64_t>> out;
  SpatialIndex2D::RangeCursor cursor(index, q.minX, q.minY, q.maxX, q.maxY);
  std::int64_t s, e;
  while (cursor.next(s, e)) out.push_back({s, e});
  EXPECT_EQ(s, -1);
  EXPECT_EQ(e, -1);
  return out;
}

TEST(SpatialIndex2D, QueriesMatchABruteForceModelOnRandomBoxes) {
  std::mt19937 rng(21);
  std::uniform_real_distribution<double> u(0, 1000), size(0, 30);
  const std::uint32_t n = 3000;
  std::vector<Box> boxes(n);
  std::vector<bool> used(n, false);
  for (Box& b : boxes) {
    b.minX = 5e6 + u(rng), b.minY = -2e6 + u(rng);  // far from 0: the origin matters
    b.maxX = b.minX + size(rng), b.maxY = b.minY + size(rng);
  }
  // Out of order, with every seventh leaf left out as a gap.
  std::vector<std::uint32_t> order(n);
  std::iota(order.begin(), order.end(), 0u);
  std::shuffle(order.begin(), order.end(), rng);
  SpatialIndex2D index;
  for (std::uint32_t i : order)
    if (i % 7 != 3) {
      index.insert(i, boxes[i].minX, boxes[i].minY, boxes[i].maxX, boxes[i].maxY);
      used[i] = true;
    }
  const std::uint32_t first = *std::find_if(order.begin(), order.end(), [](std::uint32_t i) { return i % 7 != 3; });
  const double ox = boxes[first].minX, oy = boxes[first].minY;

  for (int k = 0; k < 300; ++k) {
    // Random points, and points exactly on box corners (min corners must miss).
    const Box& c = boxes[std::size_t(rng() % n)];
    for (const auto& [x, y] : {std::pair{5e6 + u(rng), -2e6 + u(rng)}, std::pair{c.minX, c.minY}, std::pair{c.maxX, c.maxY}}) {
      std::vector<std::uint32_t> want;
      for (std::uint32_t i = 0; i < n; ++i) {
        const Box& b = boxes[i];
        if (used[i] && F(b.minX, ox) < F(x, ox) && F(b.minY, oy) < F(y, oy) && F(x, ox) <= F(b.maxX, ox) &&
            F(y, oy) <= F(b.maxY, oy))
          want.push_back(i);
      }
      ASSERT_EQ(AtPoint(index, x, y), want);
    }
  }

  for (int k = 0; k < 100; ++k) {
    const double x = 5e6 + u(rng), y = -2e6 + u(rng);
    const Box q{x, y, x + size(rng) * 5, y + size(rng) * 5};
    const auto runs = Runs(index, q);
    std::vector<bool> covered(n, false);
    for (std::size_t r = 0; r < runs.size(); ++r) {
      ASSERT_TRUE(runs[r].first < runs[r].second && (r == 0 || runs[r - 1].second < runs[r].first))
          << "runs are maximal and ascending";
      for (std::int64_t i = runs[r].first; i < runs[r].second; ++i) covered[std::size_t(i)] = true;
    }
    for (std::uint32_t i = 0; i < n; ++i) {
      const Box& b = boxes[i];
      const bool meets = !(F(b.maxX, ox) < F(q.minX, ox) || F(b.maxY, oy) < F(q.minY, oy) ||
                           F(q.maxX, ox) < F(b.minX, ox) || F(q.maxY, oy) < F(b.minY, oy));
      ASSERT_TRUE(!used[i] || covered[i] == meets) << "leaf " << i;
    }
  }
  double all[4];
  index.bounds(all);
  EXPECT_EQ(Runs(index, {all[0], all[1], all[2], all[3]}),
            (std::vector<std::pair<std::int64_t, std::int64_t>>{{0, index.count(0)}}));
}

TEST(SpatialIndex2D, CrossingTestIsEvenOddOverTheEdges) {
  // A star with a hole as edges x0, y0, x1, y1 per leaf; LineBuffer's
  // even-odd test over the same rings is the reference.
  std::mt19937 rng(4);
  GeometryBuffer shape(0, FdoDimensionality_XY, false);
  test::AddStarRing(shape, rng, 700, 0, 0, 100);
  test::AddStarRing(shape, rng, 93, 20, 0, 15);  // its last point falls mid-group
  test::AddStarRing(shape, rng, 60, -40, 40, 12);  // the gap before it is a long slanted segment
  std::vector<double> edges;
  for (int c = 0; c < shape.contourCount(); ++c)
    for (int i = shape.contourStart(c); i < shape.contourEnd(c); ++i)
      edges.insert(edges.end(), {shape.x(i), shape.y(i), shape.x(i + 1), shape.y(i + 1)});
  SpatialIndex2D index;
  for (std::uint32_t i = 0; i < edges.size() / 4; ++i) {
    const double* e = &edges[4 * i];
    index.insert(i, std::min(e[0], e[2]), std::min(e[1], e[3]), std::max(e[0], e[2]), std::max(e[1], e[3]));
  }
  // The polyline forms: leaf n is the segment from point n to n + 1, and
  // each contour's last point starts none (a gap). Reading the leaves and
  // vouching for them must agree, above all on lines through vertices.
  SpatialIndex2D byPoint;
  std::vector<std::uint32_t> gaps;
  for (int c = 0; c < shape.contourCount(); ++c) {
    gaps.push_back(std::uint32_t(shape.contourEnd(c)));
    for (int i = shape.contourStart(c); i < shape.contourEnd(c); ++i)
      byPoint.insert(std::uint64_t(i), std::min(shape.x(i), shape.x(i + 1)), std::min(shape.y(i), shape.y(i + 1)),
                     std::max(shape.x(i), shape.x(i + 1)), std::max(shape.y(i), shape.y(i + 1)));
  }
  std::uniform_real_distribution<double> u(-150, 150);
  std::uniform_int_distribution<int> vertex(0, shape.pointCount() - 1);
  int in = 0;
  for (int k = 0; k < 3000; ++k) {
    const double x = u(rng), y = k % 3 == 0 ? shape.y(vertex(rng)) : u(rng);  // a third through a vertex
    const bool want = shape.PointInPolygon(x, y);
    ASSERT_EQ(index.pointInPolygon(x, y, edges.data()), want) << x << " " << y;
    ASSERT_EQ(byPoint.pointInPolygon(x, y, shape.pointData(), 3), want) << x << " " << y;
    ASSERT_EQ(byPoint.pointInPolygon(x, y, shape.pointData(), 3, gaps.data(), gaps.size()), want) << x << " " << y;
    in += want;
  }
  EXPECT_GT(in, 300);

  SpatialIndex2D empty;
  double b[4];
  empty.bounds(b);
  EXPECT_EQ(b[0], DBL_MAX);
  EXPECT_EQ(b[3], -DBL_MAX);
  EXPECT_FALSE(empty.pointInPolygon(0, 0, edges.data()));
  EXPECT_TRUE(AtPoint(empty, 0, 0).empty());
}

TEST(SpatialIndex2D, ALineAlongThousandsOfEdgesGivesTheSameAnswer) {
  // A saw of 20000 teeth across y = 0: a line through them meets far more
  // boxes per level than the breadth-first walk holds, so it goes depth first.
  GeometryBuffer saw(0, FdoDimensionality_XY, false);
  const int teeth = 20000;
  saw.MoveTo(0, -0.5);
  for (int i = 1; i <= teeth; ++i) saw.LineTo(i * 0.01, i % 2 ? 0.5 : -0.5);
  saw.LineTo(teeth * 0.01, -10);
  saw.LineTo(0, -10);
  saw.Close();
  SpatialIndex2D index;
  for (int i = 0; i < saw.contourEnd(0); ++i)
    index.insert(std::uint64_t(i), std::min(saw.x(i), saw.x(i + 1)), std::min(saw.y(i), saw.y(i + 1)),
                 std::max(saw.x(i), saw.x(i + 1)), std::max(saw.y(i), saw.y(i + 1)));
  const std::uint32_t gap = std::uint32_t(saw.contourEnd(0));
  std::mt19937 rng(9);
  std::uniform_real_distribution<double> ux(-1, teeth * 0.01 + 1), uy(-0.6, 0.6);
  int in = 0;
  for (int k = 0; k < 400; ++k) {
    const double x = ux(rng), y = k % 4 == 0 ? -5.0 : uy(rng);  // a quarter below the teeth
    const bool want = saw.PointInPolygon(x, y);
    ASSERT_EQ(index.pointInPolygon(x, y, saw.pointData(), 3), want) << x << " " << y;
    ASSERT_EQ(index.pointInPolygon(x, y, saw.pointData(), 3, &gap, 1), want) << x << " " << y;
    in += want;
  }
  EXPECT_GT(in, 150);
  EXPECT_LT(in, 350);
}

TEST(SpatialIndex2D, ALateRootTwoLevelsUpKeepsEarlierLeaves) {
  SpatialIndex2D index;
  for (int i = 0; i < 8; ++i) index.insert(std::uint64_t(i), i, 0, i + 1, 1);
  ASSERT_EQ(index.topLevel(), 1);
  index.insert(4096, 100, 100, 101, 101);  // new root at level 5
  EXPECT_EQ(index.topLevel(), 5);
  EXPECT_EQ(AtPoint(index, 3.5, 0.5), std::vector<std::uint32_t>{3});
  EXPECT_EQ(AtPoint(index, 100.5, 100.5), std::vector<std::uint32_t>{4096});
  double b[4];
  index.bounds(b);
  EXPECT_EQ(b[0], 0);
  EXPECT_EQ(b[2], 101);
  // An edge among the early leaves still counts in the crossing test.
  std::vector<double> edges(4 * 4097, 0.0);
  const double e3[4] = {3.5, 0, 3.5, 1};
  std::copy(e3, e3 + 4, edges.begin() + 12);
  EXPECT_TRUE(index.pointInPolygon(0, 0.5, edges.data()));

  // The same from an empty index: a large first leaf, then the small ones.
  SpatialIndex2D late;
  late.insert(4096, 100, 100, 101, 101);
  for (int i = 0; i < 8; ++i) late.insert(std::uint64_t(i), i, 0, i + 1, 1);
  EXPECT_EQ(AtPoint(late, 3.5, 0.5), std::vector<std::uint32_t>{3});
}

TEST(SpatialIndex2D, SpillsLevelsToUnlinkedFilesAndCleansUp) {
  test::TempDir dir;
  const std::wstring prefix = dir.wpath() + L"/edges";
  {
    SpatialIndex2D index(prefix.c_str());
    for (std::uint32_t i = 0; i < 1000; ++i) index.insert(i, i, i, i + 1.0, i + 1.0);
    index.insert(1048576, -5, -5, -4, -4);
    ASSERT_TRUE(index.onFile(0));
    EXPECT_FALSE(index.onFile(1));
    EXPECT_EQ(index.fileBase(), prefix + L".si.");
    EXPECT_TRUE(test::HoldsOpen(dir.path() + "/edges.si.0 (deleted)"));
    EXPECT_TRUE(dir.entries().empty()) << "nothing under a name, even while the index lives";
    EXPECT_EQ(index.count(0), 1048577u);
    EXPECT_EQ(AtPoint(index, 500.5, 500.5), std::vector<std::uint32_t>{500}) << "earlier leaves readable";
    EXPECT_EQ(AtPoint(index, -4.5, -4.5), std::vector<std::uint32_t>{1048576});
    EXPECT_TRUE(AtPoint(index, 2000.5, 2000.5).empty()) << "the gap never matches";
    index.reopenFiles();
    EXPECT_EQ(AtPoint(index, 999.5, 999.5), std::vector<std::uint32_t>{999});
    EXPECT_EQ(index.fileBytes(), 1048577u * 16);

    // clear() drops the files but keeps (and empties) the small arrays.
    index.clear();
    EXPECT_FALSE(test::HoldsOpen(dir.path() + "/edges.si.0 (deleted)"));
    index.insert(7, 0, 0, 1, 1);
    EXPECT_EQ(AtPoint(index, 0.5, 0.5), std::vector<std::uint32_t>{7});
    EXPECT_TRUE(AtPoint(index, 1.5, 1.5).empty()) << "no box survives clear()";
  }

  // Without a prefix: a unique name in $TMPDIR, gone at once as well.
  const char* saved = std::getenv("TMPDIR");
  const std::string savedValue = saved ? saved : "";
  setenv("TMPDIR", dir.path().c_str(), 1);
  {
    SpatialIndex2D index;
    index.insert(1048576, 0, 0, 1, 1);
    const std::wstring base = index.fileBase();
    EXPECT_EQ(base.rfind(dir.wpath() + L"/si", 0), 0u);
    EXPECT_TRUE(test::HoldsOpen(std::string(base.begin(), base.end()) + "0 (deleted)"));
    EXPECT_TRUE(dir.entries().empty());
  }
  if (saved) setenv("TMPDIR", savedValue.c_str(), 1);
  else unsetenv("TMPDIR");
  EXPECT_TRUE(dir.entries().empty());
}

}  // namespace
}  // namespace kel
