#include "city/polygon.h"

#include <cmath>
#include <random>

#include <gtest/gtest.h>

namespace city {
namespace {

double TriangleArea2(const std::vector<Vec2d>& pts, std::uint32_t a, std::uint32_t b, std::uint32_t c) {
  return (pts[b].x() - pts[a].x()) * (pts[c].y() - pts[a].y()) - (pts[b].y() - pts[a].y()) * (pts[c].x() - pts[a].x());
}

std::vector<Vec2d> Points(const Polygon& p) {
  std::vector<Vec2d> out;
  for (const Ring& r : p.rings) out.insert(out.end(), r.begin(), r.end());
  return out;
}

kel::LineBuffer Outline(const Polygon& p) {
  kel::LineBuffer b;
  for (const Ring& r : p.rings) {
    b.MoveTo(r[0].x(), r[0].y());
    for (std::size_t i = 1; i < r.size(); ++i) b.LineTo(r[i].x(), r[i].y());
    b.Close();
  }
  return b;
}

// A triangulation covers the polygon exactly: the triangles' areas add up
// to the polygon's, each turns counter-clockwise, and each lies inside
// (its centroid passes the even-odd test against every ring).
void ExpectCovers(const Polygon& p, const std::vector<std::uint32_t>& tris, const std::string& label) {
  SCOPED_TRACE(label);
  const std::vector<Vec2d> pts = Points(p);
  // Collinear points may go without a triangle of their own.
  EXPECT_LE(tris.size() / 3, pts.size() - 2 + 2 * (p.rings.size() - 1));
  const kel::LineBuffer outline = Outline(p);
  double sum = 0;
  for (std::size_t i = 0; i < tris.size(); i += 3) {
    const double a2 = TriangleArea2(pts, tris[i], tris[i + 1], tris[i + 2]);
    EXPECT_GE(a2, 0) << "triangle " << i / 3 << " turns clockwise";
    sum += a2 / 2;
    if (a2 <= 1e-9) continue;
    const Vec2d c = (pts[tris[i]] + pts[tris[i + 1]] + pts[tris[i + 2]]) * (1.0 / 3);
    EXPECT_TRUE(outline.PointInPolygon(c.x(), c.y())) << "triangle " << i / 3 << " lies outside";
  }
  EXPECT_NEAR(sum, Area(p), 1e-9 * std::max(1.0, Area(p)));
}

// A star-shaped ring of n points around c, radii in [0.3, 1] * r: as
// concave as footprints get, never self-intersecting.
Ring Star(std::mt19937& rng, int n, Vec2d c, double r) {
  std::uniform_real_distribution<double> radius(0.3, 1.0);
  Ring ring;
  for (int i = 0; i < n; ++i) {
    const double a = 2 * M_PI * i / n;
    const double k = radius(rng) * r;
    ring.push_back(c + Vec2d(std::cos(a), std::sin(a)) * k);
  }
  return ring;
}

TEST(EarClip, CoversHandDrawnFootprints) {
  struct Case {
    const char* label;
    Polygon polygon;
  };
  const Case cases[] = {
      {"square", {{{{0, 0}, {10, 0}, {10, 10}, {0, 10}}}}},
      {"L", {{{{0, 0}, {20, 0}, {20, 8}, {8, 8}, {8, 15}, {0, 15}}}}},
      {"U", {{{{0, 0}, {30, 0}, {30, 20}, {22, 20}, {22, 6}, {8, 6}, {8, 20}, {0, 20}}}}},
      {"comb", {{{{0, 0}, {50, 0}, {50, 20}, {45, 20}, {45, 5}, {35, 5}, {35, 20}, {25, 20}, {25, 5}, {15, 5},
                 {15, 20}, {5, 20}, {5, 5}, {0, 5}}}}},
      {"collinear points on an edge", {{{{0, 0}, {5, 0}, {10, 0}, {10, 10}, {5, 10}, {0, 10}}}}},
      {"courtyard", {{{{0, 0}, {40, 0}, {40, 30}, {0, 30}}, {{10, 10}, {10, 20}, {30, 20}, {30, 10}}}}},
      {"two holes side by side", {{{{0, 0}, {60, 0}, {60, 20}, {0, 20}},
                                   {{5, 5}, {5, 15}, {25, 15}, {25, 5}},
                                   {{35, 5}, {35, 15}, {55, 15}, {55, 5}}}}},
      {"hole aligned with a reflex corner", {{{{0, 0}, {20, 0}, {20, 10}, {30, 10}, {30, 20}, {0, 20}},
                                              {{5, 5}, {5, 15}, {15, 15}, {15, 5}}}}},
  };
  for (const Case& c : cases) {
    Polygon p = c.polygon;
    Orient(p);
    std::vector<std::uint32_t> tris;
    ASSERT_TRUE(EarClip(p, tris)) << c.label;
    ExpectCovers(p, tris, c.label);
  }
}

TEST(EarClip, CoversRandomStarsWithHoles) {
  std::mt19937 rng(20261123);
  for (int k = 0; k < 1000; ++k) {
    Polygon p;
    p.rings.push_back(Star(rng, 5 + int(rng() % 40), Vec2d(1000, 2000), 50));
    // Up to four holes within the inner radius (0.3 r = 15), apart from each
    // other; bridges of later holes then meet earlier bridges.
    const int holes = int(rng() % 5);
    for (int h = 0; h < holes; ++h) {
      const double a = M_PI / 2 * h + 0.3;
      p.rings.push_back(Star(rng, 3 + int(rng() % 6), Vec2d(1000, 2000) + Vec2d(std::cos(a), std::sin(a)) * 9, 4));
    }
    Orient(p);
    std::vector<std::uint32_t> tris;
    ASSERT_TRUE(EarClip(p, tris)) << k;
    ExpectCovers(p, tris, "star " + std::to_string(k));
  }
}

// The fallback for what ear clipping refuses: GEOS's constrained Delaunay
// triangulation, through the same index numbering.
TEST(Triangulate, FallsBackToGeosForLongRings) {
  std::mt19937 rng(7);
  Polygon p;
  p.rings.push_back(Star(rng, 600, Vec2d(0, 0), 100));
  p.rings.push_back(Star(rng, 12, Vec2d(0, 0), 20));
  Orient(p);
  std::vector<std::uint32_t> tris;
  ASSERT_TRUE(Triangulate(p, tris));
  ExpectCovers(p, tris, "600-point star");
}

TEST(IsSimple, TellsSimpleRingsFromTouchingOnes) {
  struct Case {
    const char* label;
    Ring ring;
    bool simple;
  };
  const Case cases[] = {
      {"square", {{0, 0}, {1, 0}, {1, 1}, {0, 1}}, true},
      {"bow tie", {{0, 0}, {1, 1}, {1, 0}, {0, 1}}, false},
      {"spike folding back", {{0, 0}, {4, 0}, {4, 4}, {4, 2}, {0, 4}}, false},
      {"vertex on another edge", {{0, 0}, {4, 0}, {4, 4}, {2, 0}, {0, 4}}, false},
      {"two points", {{0, 0}, {1, 0}}, false},
      {"collinear corner", {{0, 0}, {2, 0}, {4, 0}, {4, 4}, {0, 4}}, true},
  };
  for (const Case& c : cases) EXPECT_EQ(IsSimple(c.ring), c.simple) << c.label;
}

TEST(Orient, TurnsOuterRingsCounterClockwiseAndHolesClockwise) {
  Polygon p{{{{0, 0}, {0, 10}, {10, 10}, {10, 0}}, {{2, 2}, {4, 2}, {4, 4}, {2, 4}}}};
  Orient(p);
  EXPECT_GT(SignedArea2(p.rings[0]), 0);
  EXPECT_LT(SignedArea2(p.rings[1]), 0);
  EXPECT_DOUBLE_EQ(Area(p), 96);
  Ring closed{{0, 0}, {1, 0}, {1, 0}, {1, 1}, {0, 0}};
  DropRepeats(closed);
  EXPECT_EQ(closed, (Ring{{0, 0}, {1, 0}, {1, 1}}));
}

}  // namespace
}  // namespace city
