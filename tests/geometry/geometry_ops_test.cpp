#define GEOS_USE_ONLY_R_API
#include <geos_c.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "geometry/geometry_test_util.h"
#include "kel/geometry/geometry_buffer.h"
#include "support/log_capture.h"

namespace kel {
namespace {

using test::Points;

// Textbook recursive Douglas-Peucker over one contour, the model for ours.
void ModelSimplify(const std::vector<Vec3d>& p, int i, int j, double limit, std::vector<Vec3d>& out) {
  double best = -1;
  int k = -1;
  for (int m = i + 1; m < j; ++m) {
    const Vec3d s = p[j] - p[i], v = p[m] - p[i];
    const double len2 = s[0] * s[0] + s[1] * s[1] + s[2] * s[2];
    double t = len2 == 0 ? 0 : (v[0] * s[0] + v[1] * s[1] + v[2] * s[2]) / len2;
    t = std::clamp(t, 0.0, 1.0);
    const Vec3d d = p[m] - (p[i] + s * t);
    const double d2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
    if (d2 > best) best = d2, k = m;
  }
  if (k < 0 || best <= limit) return;
  ModelSimplify(p, i, k, limit, out);
  out.push_back(p[k]);
  ModelSimplify(p, k, j, limit, out);
}

std::vector<Vec3d> Model(const std::vector<Vec3d>& p, double tolerance) {
  std::vector<Vec3d> out{p.front()};
  ModelSimplify(p, 0, int(p.size()) - 1, tolerance * tolerance, out);
  out.push_back(p.back());
  return out;
}

// The coordinates of a GEOS line string.
std::vector<Vec3d> Coords(GEOSContextHandle_t h, const GEOSGeometry* g) {
  const GEOSCoordSequence* seq = GEOSGeom_getCoordSeq_r(h, g);
  unsigned n = 0;
  GEOSCoordSeq_getSize_r(h, seq, &n);
  std::vector<Vec3d> out(n);
  for (unsigned i = 0; i < n; ++i) GEOSCoordSeq_getXY_r(h, seq, i, &out[i][0], &out[i][1]);
  return out;
}

TEST(GeometryOps, GeneralizeMatchesTheRecursiveModelIn3D) {
  std::mt19937 rng(7);
  for (double tolerance : {0.0, 0.5, 2.0, 10.0}) {
    GeometryBuffer walk = test::RandomWalk(rng, 3000, true);
    walk.NewGeometry();
    test::AddStarRing(walk, rng, 500, 0, 0, 50);
    GeometryBuffer out(0, FdoDimensionality_XY, false);
    ASSERT_TRUE(walk.Generalize(&out, tolerance));
    ASSERT_EQ(out.geometryCount(), 2);
    ASSERT_EQ(out.contourCount(), 2);
    EXPECT_EQ(out.dimensionality(), FdoDimensionality_XYZ) << "an empty output takes the input's labels";
    for (int c = 0; c < 2; ++c) {
      std::vector<Vec3d> in, got;
      for (int i = walk.contourStart(c); i <= walk.contourEnd(c); ++i) in.push_back(walk.GetPoint(i));
      for (int i = out.contourStart(c); i <= out.contourEnd(c); ++i) got.push_back(out.GetPoint(i));
      ASSERT_EQ(got, Model(in, tolerance)) << "tolerance " << tolerance << " contour " << c;
    }
  }
}

// In 2D, GEOS simplify is the same Douglas-Peucker (segment distance, first
// of equals) and GEOS densify the same equal split; every input vertex stays.
TEST(GeometryOps, GeneralizeAndTessellateMatchGeosIn2D) {
  std::mt19937 rng(8);
  GeosContextPtr context = MakeGeosContext();
  GEOSContextHandle_t h = context.get();
  for (double amount : {0.3, 1.0, 5.0}) {
    GeometryBuffer walk = test::RandomWalk(rng, 3000, false);
    GeosGeometryPtr theirs = walk.toGeosGeometry(context);
    GeometryBuffer simple(0, FdoDimensionality_XY, false), dense(0, FdoDimensionality_XY, false);
    ASSERT_TRUE(walk.Generalize(&simple, amount));
    ASSERT_TRUE(walk.Tessellate(&dense, amount));
    GEOSGeometry* s = GEOSSimplify_r(h, theirs.get(), amount);
    GEOSGeometry* d = GEOSDensify_r(h, theirs.get(), amount);
    EXPECT_EQ(Points(simple), Coords(h, s)) << amount;
    const std::vector<Vec3d> densified = Coords(h, d);
    GEOSGeom_destroy_r(h, s);
    GEOSGeom_destroy_r(h, d);
    ASSERT_EQ(dense.pointCount(), int(densified.size())) << amount;
    int next = 0;  // the next input vertex to find, in order
    for (int i = 0; i < dense.pointCount(); ++i) {
      for (int k = 0; k < 2; ++k) ASSERT_NEAR(dense.GetPoint(i)[k], densified[i][k], 1e-9) << i;
      if (next < walk.pointCount() && dense.GetPoint(i) == walk.GetPoint(next)) ++next;
    }
    EXPECT_EQ(next, walk.pointCount());
  }
}

TEST(GeometryOps, GeneralizeEdgeCases) {
  GeometryBuffer g(0, FdoDimensionality_XY, false);
  g.SetGeometryType(FdoGeometryType_LineString);
  for (Vec2d p : {Vec2d(0, 0), Vec2d(1, 0), Vec2d(2, 0), Vec2d(3, 1), Vec2d(3, 1), Vec2d(6, 4)}) g.LineTo(p);
  g.MoveTo(Vec2d(9, 9));  // one point: written as its first and last
  struct Case {
    const char* label;
    double tolerance;
    bool ok;
    std::vector<Vec3d> points;
  } cases[] = {
      {"0 drops points on their chord only", 0.0, true,
       {Vec3d(0, 0, 0), Vec3d(2, 0, 0), Vec3d(6, 4, 0), Vec3d(9, 9, 0), Vec3d(9, 9, 0)}},
      {"huge keeps the ends", 1e9, true, {Vec3d(0, 0, 0), Vec3d(6, 4, 0), Vec3d(9, 9, 0), Vec3d(9, 9, 0)}},
      {"negative writes nothing", -1.0, false, {Vec3d(7, 7, 7)}},
      {"NaN writes nothing", std::nan(""), false, {Vec3d(7, 7, 7)}},
  };
  for (const Case& c : cases) {
    GeometryBuffer out(0, FdoDimensionality_XYZ, false);
    out.MoveTo(Vec3d(7, 7, 7));
    if (!c.ok) {
      EXPECT_FALSE(g.Generalize(&out, c.tolerance)) << c.label;
    } else {
      out.Clear();
      EXPECT_TRUE(g.Generalize(&out, c.tolerance)) << c.label;
    }
    EXPECT_EQ(Points(out), c.points) << c.label;
  }
}

TEST(GeometryOps, TessellateWorkedExamples) {
  struct Case {
    const char* label;
    FdoDimensionality dim;
    std::vector<Vec3d> in;
    double length;
    std::vector<Vec3d> out;
  } cases[] = {
      {"twice the maximum adds the midpoint", FdoDimensionality_XY, {Vec3d(0, 0, 0), Vec3d(2, 0, 0)}, 1.0,
       {Vec3d(0, 0, 0), Vec3d(1, 0, 0), Vec3d(2, 0, 0)}},
      {"a bit more adds two points", FdoDimensionality_XY, {Vec3d(0, 0, 0), Vec3d(2.0000001, 0, 0)}, 1.0,
       {Vec3d(0, 0, 0), Vec3d(2.0000001 / 3, 0, 0), Vec3d(2.0000001 * 2 / 3, 0, 0), Vec3d(2.0000001, 0, 0)}},
      {"z is interpolated and counts in the length", FdoDimensionality_XYZ, {Vec3d(0, 0, 0), Vec3d(0, 0, 3)}, 1.5,
       {Vec3d(0, 0, 0), Vec3d(0, 0, 1.5), Vec3d(0, 0, 3)}},
      {"short segments pass through", FdoDimensionality_XY, {Vec3d(0, 0, 0), Vec3d(0.5, 0, 0), Vec3d(0.5, 1, 0)}, 1.0,
       {Vec3d(0, 0, 0), Vec3d(0.5, 0, 0), Vec3d(0.5, 1, 0)}},
      {"a closed ring stays closed without a doubled end", FdoDimensionality_XY,
       {Vec3d(0, 0, 0), Vec3d(2, 0, 0), Vec3d(0, 1, 0), Vec3d(0, 0, 0)}, 1.5,
       {Vec3d(0, 0, 0), Vec3d(1, 0, 0), Vec3d(2, 0, 0), Vec3d(1, 0.5, 0), Vec3d(0, 1, 0), Vec3d(0, 0, 0)}},
      {"a 3D ring whose end differs in z stays open", FdoDimensionality_XYZ,
       {Vec3d(0, 0, 0), Vec3d(1, 0, 0), Vec3d(0, 0, 1)}, 5.0, {Vec3d(0, 0, 0), Vec3d(1, 0, 0), Vec3d(0, 0, 1)}},
  };
  for (const Case& c : cases) {
    GeometryBuffer in(0, c.dim, false);
    for (const Vec3d& p : c.in) in.LineTo(p);
    GeometryBuffer out(0, FdoDimensionality_XY, false);
    ASSERT_TRUE(in.Tessellate(&out, c.length)) << c.label;
    const auto got = Points(out);
    ASSERT_EQ(got.size(), c.out.size()) << c.label;
    for (std::size_t i = 0; i < got.size(); ++i)
      for (int k = 0; k < 3; ++k) EXPECT_NEAR(got[i][k], c.out[i][k], 1e-12) << c.label << " point " << i;
  }

  GeometryBuffer seg(0, FdoDimensionality_XY, false);
  seg.LineTo(Vec2d(0, 0));
  seg.LineTo(Vec2d(1e300, 0));
  GeometryBuffer out(0, FdoDimensionality_XY, false);
  for (double bad : {0.0, -1.0, std::nan("")}) EXPECT_FALSE(seg.Tessellate(&out, bad)) << bad;
  test::LogCapture log;
  out.MoveTo(Vec2d(5, 5));
  EXPECT_FALSE(seg.Tessellate(&out, 1.0)) << "1e300 points do not fit";
  EXPECT_EQ(out.pointCount(), 1) << "a failed call leaves out as it was";
  EXPECT_TRUE(log.contains("Tessellate"));
  GeometryBuffer none(0, FdoDimensionality_XY, false);
  EXPECT_TRUE(none.Tessellate(&out, 1.0));
}

TEST(GeometryOps, HeightFilterMatchesABruteForceMean) {
  std::mt19937 rng(10);
  std::uniform_real_distribution<double> u(-5, 5);
  for (bool closed : {false, true}) {
    GeometryBuffer in(0, FdoDimensionality_XYZ, false);
    const int n = 60;
    for (int i = 0; i < n; ++i) in.LineTo(Vec3d(i + 0.3 * u(rng), 2 * std::sin(i * 0.2), u(rng)));
    if (closed) in.Close();
    for (double window : {0.5, 4.0, 15.0, 1e6}) {
      GeometryBuffer out(0, FdoDimensionality_XY, false);
      ASSERT_TRUE(in.SmoothHeightChanges(&out, window));
      ASSERT_EQ(out.pointCount(), in.pointCount());
      const int m = closed ? in.pointCount() - 1 : in.pointCount();
      std::vector<double> along(std::size_t(in.pointCount()), 0.0);
      for (int i = 1; i < in.pointCount(); ++i)
        along[i] = along[i - 1] + std::hypot(in.x(i) - in.x(i - 1), in.y(i) - in.y(i - 1));
      const double lap = along.back();
      for (int i = 0; i < m; ++i) {
        double sum = 0;
        int count = 0;
        for (int j = 0; j < m; ++j) {
          double d = std::abs(along[i] - along[j]);
          if (closed) d = std::min(d, lap - d);
          const bool inWindow = closed && window >= lap ? true : d <= window / 2;
          if (inWindow) sum += in.z(j), ++count;
        }
        EXPECT_NEAR(out.z(i), sum / count, 1e-9) << "closed " << closed << " window " << window << " point " << i;
        EXPECT_EQ(out.x(i), in.x(i));
      }
      if (closed) {
        EXPECT_EQ(out.GetPoint(m), out.GetPoint(0));
      }
    }
  }
  GeometryBuffer out(0, FdoDimensionality_XY, false);
  EXPECT_FALSE(GeometryBuffer(BBox<2, double>()).SmoothHeightChanges(&out, 0.0));
}

TEST(GeometryOps, ChaikinSmoothingCutsCorners) {
  GeometryBuffer square(BBox<2, double>(Vec2d(0, 0), Vec2d(4, 4)));
  GeometryBuffer once(0, FdoDimensionality_XY, false);
  GeometryBuffer::SmoothPolygon(&once, &square, 0.25, 1);
  EXPECT_EQ(Points(once), (std::vector<Vec3d>{Vec3d(1, 0, 0), Vec3d(3, 0, 0), Vec3d(4, 1, 0), Vec3d(4, 3, 0),
                                              Vec3d(3, 4, 0), Vec3d(1, 4, 0), Vec3d(0, 3, 0), Vec3d(0, 1, 0),
                                              Vec3d(1, 0, 0)}));
  GeometryBuffer many(0, FdoDimensionality_XY, false);
  GeometryBuffer::SmoothPolygon(&many, &square, 0.25, 5);
  EXPECT_EQ(many.pointCount(), 4 * 32 + 1);
  // Every pass cuts area off, never below the inscribed diamond.
  EXPECT_GT(test::AbsArea(many), 8.0);
  EXPECT_LT(test::AbsArea(many), test::AbsArea(once));

  GeometryBuffer line(0, FdoDimensionality_XY, false);
  for (Vec2d p : {Vec2d(0, 0), Vec2d(4, 0), Vec2d(4, 4)}) line.LineTo(p);
  GeometryBuffer out(0, FdoDimensionality_XY, false);
  GeometryBuffer::SmoothPolygon(&out, &line, 0.5, 1);
  EXPECT_EQ(Points(out), (std::vector<Vec3d>{Vec3d(0, 0, 0), Vec3d(2, 0, 0), Vec3d(4, 2, 0), Vec3d(4, 4, 0)}));

  test::LogCapture log;
  GeometryBuffer untouched(0, FdoDimensionality_XY, false);
  GeometryBuffer::SmoothPolygon(&untouched, &square, std::nan(""), 1);
  EXPECT_TRUE(untouched.empty());
  EXPECT_TRUE(log.contains("SmoothPolygon"));
}

GeometryBuffer Wkt(const wchar_t* text) { return *GeometryBuffer::FromWKT(text); }

TEST(GeometryOps, GeosOperationsGiveTheExpectedAreas) {
  const GeometryBuffer square = Wkt(L"POLYGON ((0 0, 10 0, 10 10, 0 10, 0 0))");
  const GeometryBuffer hole = Wkt(L"POLYGON ((3 3, 7 3, 7 7, 3 7, 3 3))");
  const GeometryBuffer band = Wkt(L"POLYGON ((4 -1, 6 -1, 6 11, 4 11, 4 -1))");
  const GeometryBuffer strip = Wkt(L"POLYGON ((-1 4, 11 4, 11 6, -1 6, -1 4))");
  const GeometryBuffer point = Wkt(L"POINT (5 5)");
  // A bow tie is invalid: the difference repairs it (two triangles of 25,
  // less a band of 9 from each, in four pieces) rather than failing.
  const GeometryBuffer bowtie = Wkt(L"POLYGON ((0 0, 10 10, 10 0, 0 10, 0 0))");
  using G = GeometryBuffer;
  struct Case {
    const char* label;
    std::function<bool(G&)> op;
    double area;
    int geometries;
  } cases[] = {
      {"mitred offset stays square", [&](G& o) { G::OffsetPolygon(&o, &square, 1); return true; }, 144, 1},
      {"negative offset shrinks", [&](G& o) { G::OffsetPolygon(&o, &square, -1); return true; }, 64, 1},
      {"a point's buffer is a 32-gon", [&](G& o) { return G::BufferGeometry(&o, &point, 2); },
       0.5 * 32 * std::sin(2 * std::acos(-1.0) / 32) * 4, 1},
      {"a hole", [&](G& o) { return G::SubtractGeometry(&o, &square, &hole); }, 84, 1},
      {"the hole from GEOS", [&](G& o) { return G::SubtractGeometry(&o, &square, hole.toGeosGeometry()); }, 84, 1},
      {"a band splits in two", [&](G& o) { return G::SubtractGeometry(&o, &square, &band); }, 80, 2},
      {"a repaired bow tie", [&](G& o) { return G::SubtractGeometry(&o, &bowtie, &strip); }, 32, 4},
  };
  for (const Case& c : cases) {
    G out(0, FdoDimensionality_XY, false);
    ASSERT_TRUE(c.op(out)) << c.label;
    EXPECT_EQ(out.geometryCount(), c.geometries) << c.label;
    out.OrientPolygons(true);  // shells count, holes subtract
    double area = 0;
    for (int r = 0; r < out.contourCount(); ++r) area += test::RingArea(out, r);
    EXPECT_NEAR(area, c.area, 1e-9) << c.label;
  }

  // A U shape: a box across its arms cuts it in two; a box beside it, nothing.
  auto u = GeometryBuffer::FromWKT(L"POLYGON ((0 0, 10 0, 10 10, 7 10, 7 3, 3 3, 3 10, 0 10, 0 0))");
  auto arms = GeometryBuffer::ClipPoly(u, BBox<2, double>(Vec2d(-1, 5), Vec2d(11, 8)));
  ASSERT_TRUE(arms);
  EXPECT_EQ(arms->geometryType(), FdoGeometryType_MultiPolygon);
  EXPECT_EQ(arms->geometryCount(), 2);
  EXPECT_NEAR(test::AbsArea(*arms), 18.0, 1e-12);
  EXPECT_EQ(GeometryBuffer::ClipPoly(u, BBox<2, double>(Vec2d(20, 20), Vec2d(30, 30)))->geometryCount(), 0);
}

TEST(GeometryOps, GeosFailuresAreFalseAndLeaveTheOutputAlone) {
  GeometryBuffer nan = Wkt(L"POLYGON ((0 0, 1 0, 1 1, 0 0))");
  nan.SetPoint(1, Vec3d(1, std::numeric_limits<double>::quiet_NaN(), 0));
  const GeometryBuffer square = Wkt(L"POLYGON ((0 0, 10 0, 10 10, 0 10, 0 0))");
  const BBox<2, double> unit(Vec2d(0, 0), Vec2d(1, 1));
  GeometryBuffer out(0, FdoDimensionality_XY, false);
  out.MoveTo(Vec2d(42, 42));
  test::LogCapture log;
  EXPECT_FALSE(GeometryBuffer::BufferGeometry(&out, &nan, 1.0));
  EXPECT_FALSE(GeometryBuffer::BufferGeometry(&out, &square, std::nan("")));
  EXPECT_FALSE(GeometryBuffer::SubtractGeometry(&out, &square, &nan));
  EXPECT_FALSE(GeometryBuffer::SubtractGeometry(&out, &square, GeosGeometryPtr(nullptr, GeosGeometryDeleter{})));
  GeometryBuffer::OffsetPolygon(&out, &nan, 1.0);
  EXPECT_FALSE(nan.ClipPolyline(&out, unit));
  EXPECT_EQ(Points(out), std::vector<Vec3d>{Vec3d(42, 42, 0)});
  EXPECT_GE(log.events().size(), 6u);
  EXPECT_FALSE(GeometryBuffer::ClipPoly(nullptr, unit));
  EXPECT_FALSE(GeometryBuffer::ClipPoly(std::make_shared<GeometryBuffer>(square), BBox<2, double>(Vec2d(0, 0), Vec2d(std::nan(""), 1))));
  EXPECT_FALSE(GeometryBuffer::ClipPoly(GeometryBuffer::FromWKT(L"LINESTRING (0 0, 1 1)"), unit));
}

}  // namespace
}  // namespace kel
