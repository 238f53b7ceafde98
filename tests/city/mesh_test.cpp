#include "city/mesh.h"

#include <cmath>
#include <map>

#include <gtest/gtest.h>

namespace city {
namespace {

Vec3d At(const Mesh& m, std::uint32_t i) {
  return Vec3d(m.positions[3 * i], m.positions[3 * i + 1], m.positions[3 * i + 2]);
}
Vec3d Normal(const Mesh& m, std::uint32_t i) { return Vec3d(m.normals[3 * i], m.normals[3 * i + 1], m.normals[3 * i + 2]); }
Vec3d Cross(const Vec3d& a, const Vec3d& b) {
  return Vec3d(a.y() * b.z() - a.z() * b.y(), a.z() * b.x() - a.x() * b.z(), a.x() * b.y() - a.y() * b.x());
}
double Dot(const Vec3d& a, const Vec3d& b) { return a.x() * b.x() + a.y() * b.y() + a.z() * b.z(); }
double Length(const Vec3d& a) { return std::sqrt(Dot(a, a)); }

// Areas of the triangles by where their normal points, and a check that
// every triangle winds the way its vertex normals point.
struct Surfaces {
  double walls = 0, up = 0, slopes = 0;
};
Surfaces Measure(const Mesh& m) {
  Surfaces s;
  for (std::size_t i = 0; i < m.indices.size(); i += 3) {
    const Vec3d a = At(m, m.indices[i]), b = At(m, m.indices[i + 1]), c = At(m, m.indices[i + 2]);
    const Vec3d n = Cross(b - a, c - a);
    const double area = Length(n) / 2;
    const Vec3d vn = Normal(m, m.indices[i]);
    EXPECT_NEAR(Length(vn), 1, 1e-6);
    if (area > 1e-9) {
      EXPECT_GT(Dot(n, vn), 0) << "triangle " << i / 3 << " winds against its normal";
    }
    if (std::fabs(vn.z()) < 1e-9) s.walls += area;
    else if (std::fabs(vn.z() - 1) < 1e-9) s.up += area;
    else s.slopes += area;
  }
  return s;
}

SurfaceStyle Style() {
  SurfaceStyle st;
  st.facade = {0.5f, 0, 0.25f, 0.25f};
  st.roof = {0, 0.5f, 0.25f, 0.25f};
  return st;
}

TEST(Extrude, WallsCoverThePerimeterAndTheRoofTheFootprint) {
  struct Case {
    const char* label;
    Polygon footprint;
    double perimeter, area;
  };
  const Case cases[] = {
      {"rectangle", {{{{0, 0}, {20, 0}, {20, 10}, {0, 10}}}}, 60, 200},
      {"L", {{{{0, 0}, {20, 0}, {20, 8}, {8, 8}, {8, 15}, {0, 15}}}}, 70, 20 * 8 + 8 * 7},
      {"courtyard", {{{{0, 0}, {40, 0}, {40, 30}, {0, 30}}, {{10, 10}, {10, 20}, {30, 20}, {30, 10}}}}, 140 + 60,
       1200 - 200},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    Polygon p = c.footprint;
    Orient(p);
    Mesh m;
    std::vector<std::uint32_t> scratch;
    Extrusion shape;
    shape.base = 100;
    shape.height = 12;
    ASSERT_TRUE(Extrude({p}, shape, Style(), m, scratch));
    const Surfaces s = Measure(m);
    EXPECT_NEAR(s.walls, c.perimeter * 12, 1e-6);
    EXPECT_NEAR(s.up, c.area, 1e-6);
    EXPECT_EQ(s.slopes, 0);
    ASSERT_EQ(m.atlas.size(), std::size_t(m.vertexCount()) * 6);
    for (std::uint32_t v = 0; v < m.vertexCount(); ++v) {
      EXPECT_GE(m.positions[3 * v + 2], 100.0f);
      EXPECT_LE(m.positions[3 * v + 2], 112.0f);
      // Walls take the facade's rectangle, the roof its own.
      const bool wall = m.normals[3 * v + 2] == 0;
      EXPECT_EQ(m.atlas[6 * v + 2], wall ? 0.5f : 0.0f);
      EXPECT_EQ(m.atlas[6 * v + 3], wall ? 0.0f : 0.5f);
    }
  }
}

TEST(Extrude, CutsAlongTheTileEdgeGetNoWalls) {
  Polygon half{{{{0, 0}, {50, 0}, {50, 10}, {0, 10}}}};  // a building cut at x = 50
  const BBox<2, double> tile(Vec2d(-100, -100), Vec2d(50, 100));
  Mesh m;
  std::vector<std::uint32_t> scratch;
  Extrusion shape;
  shape.height = 10;
  shape.cut = &tile;
  ASSERT_TRUE(Extrude({half}, shape, Style(), m, scratch));
  EXPECT_NEAR(Measure(m).walls, (50 + 50 + 10) * 10, 1e-6);
}

TEST(Extrude, GabledRoofsRiseAlongTheLongerSide) {
  Polygon house{{{{0, 0}, {12, 0}, {12, 8}, {0, 8}}}};
  Mesh m;
  std::vector<std::uint32_t> scratch;
  Extrusion shape;
  shape.height = 6;
  shape.roof = RoofShape::Gabled;
  ASSERT_TRUE(Extrude({house}, shape, Style(), m, scratch));
  const Surfaces s = Measure(m);
  const double rise = 0.35 * 8;
  // Two slopes of 12 x hypot(4, rise), two gable triangles on the short walls.
  EXPECT_NEAR(s.slopes, 2 * 12 * std::hypot(4.0, rise), 1e-4);
  EXPECT_NEAR(s.walls, 40 * 6 + 2 * (8 * rise / 2), 1e-4);
  EXPECT_EQ(s.up, 0);
  float top = 0;
  for (std::uint32_t v = 0; v < m.vertexCount(); ++v) top = std::max(top, m.positions[3 * v + 2]);
  EXPECT_NEAR(top, 6 + rise, 1e-5);
}

class Plane final : public HeightField {
public:
  double height(double x, double y) const override {
    if (x > 90 && y > 90) return NAN;  // a corner without data
    return 10 + 0.5 * x - 0.25 * y;
  }
};

TEST(TerrainPatch, SamplesTheFieldAndLeavesOutCellsWithoutHeights) {
  Plane plane;
  Mesh m;
  TerrainPatch(plane, BBox<2, double>(Vec2d(0, 0), Vec2d(100, 80)), 10, 8, m);
  EXPECT_EQ(m.vertexCount(), 11u * 9);
  EXPECT_EQ(m.triangleCount(), 2u * (10 * 8));
  const Vec3d expected = Vec3d(-0.5, 0.25, 1) * (1 / std::sqrt(0.25 + 0.0625 + 1));
  for (std::uint32_t v = 0; v < m.vertexCount(); ++v) {
    const Vec3d p = At(m, v);
    EXPECT_NEAR(p.z(), 10 + 0.5 * p.x() - 0.25 * p.y(), 1e-4);
    if (p.x() > 0 && p.x() < 90 && p.y() > 0 && p.y() < 70) {
      EXPECT_NEAR(Dot(Normal(m, v), expected), 1, 1e-6);
    }
  }
  // Over the corner without data: one sample and its cell are left out.
  Mesh holed;
  TerrainPatch(plane, BBox<2, double>(Vec2d(0, 0), Vec2d(100, 100)), 10, 10, holed);
  EXPECT_EQ(holed.vertexCount(), 121u - 1);
  EXPECT_EQ(holed.triangleCount(), 2u * (100 - 1));
  EXPECT_TRUE(holed.atlas.empty());
}

}  // namespace
}  // namespace city
