#include "kel/geometry/geometry_buffer.h"

#include <cfloat>
#include <cmath>
#include <functional>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "geometry/geometry_test_util.h"
#include "support/log_capture.h"

namespace kel {
namespace {

// Bezier points by the Bernstein form, for checking the forward differences.
Vec3d Quad(const Vec3d& p0, const Vec3d& c, const Vec3d& e, double t) {
  const double u = 1 - t;
  return p0 * (u * u) + c * (2 * u * t) + e * (t * t);
}
Vec3d Cubic(const Vec3d& p0, const Vec3d& c1, const Vec3d& c2, const Vec3d& e, double t) {
  const double u = 1 - t;
  return p0 * (u * u * u) + c1 * (3 * u * u * t) + c2 * (3 * u * t * t) + e * (t * t * t);
}

void ExpectNear(const Vec3d& a, const Vec3d& b, double eps, int i) {
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(a[k], b[k], eps) << "point " << i << " axis " << k;
}

TEST(GeometryBuffer, BoxAndTriangleConstructorsMakeClosedPolygons) {
  struct Case {
    const char* label;
    BBox<2, double> box;
    double area;
  } cases[] = {
      {"box", BBox<2, double>(Vec2d(1, 2), Vec2d(4, 6)), 12.0},
      {"degenerate box", BBox<2, double>(Vec2d(3, 3), Vec2d(3, 3)), 0.0},
      {"flat box", BBox<2, double>(Vec2d(0, 1), Vec2d(5, 1)), 0.0},
  };
  for (const Case& c : cases) {
    GeometryBuffer g(c.box);
    EXPECT_EQ(g.geometryType(), FdoGeometryType_Polygon) << c.label;
    EXPECT_EQ(g.dimensionality(), FdoDimensionality_XY) << c.label;
    ASSERT_EQ(g.pointCount(), 5) << c.label;
    EXPECT_EQ(g.contourCount(), 1) << c.label;
    EXPECT_EQ(g.GetPoint(0), g.GetPoint(4)) << c.label;
    EXPECT_EQ(g.GetPoint(2), Vec3d(c.box.max[0], c.box.max[1], 0)) << c.label;
    EXPECT_EQ(test::RingArea(g, 0), c.area) << c.label << ": counter-clockwise";
    EXPECT_EQ(g.GetBBox2d(), c.box) << c.label;
  }
  GeometryBuffer tri(Vec3d(0, 0, 1), Vec3d(2, 0, 2), Vec3d(0, 2, 3));
  EXPECT_EQ(tri.dimensionality(), FdoDimensionality_XYZ);
  EXPECT_TRUE(tri.Is3D());
  ASSERT_EQ(tri.pointCount(), 4);
  EXPECT_EQ(tri.GetPoint(3), Vec3d(0, 0, 1));
  EXPECT_EQ(tri.GetBBox3d(), (BBox<3, double>(Vec3d(0, 0, 1), Vec3d(2, 2, 3))));
}

TEST(GeometryBuffer, CurvesSampleTheBezierAtHundredthSteps) {
  const Vec3d p0(1, 2, 5), c1(40, 90, 25), c2(80, -30, 0), e(100, 10, -5);
  struct Case {
    const char* label;
    std::function<void(GeometryBuffer&)> draw;
    std::function<Vec3d(double)> curve;
  } cases[] = {
      {"quad", [&](GeometryBuffer& g) { g.QuadTo(c1.x(), c1.y(), e.x(), e.y(), 0.0); },
       [&](double t) { Vec3d v = Quad(p0, c1, e, t); return Vec3d(v.x(), v.y(), 0); }},
      {"quad 3D", [&](GeometryBuffer& g) { g.QuadTo3D(c1.x(), c1.y(), c1.z(), e.x(), e.y(), e.z(), 0.0); },
       [&](double t) { return Quad(p0, c1, e, t); }},
      {"cubic", [&](GeometryBuffer& g) { g.CubicTo(c1.x(), c1.y(), c2.x(), c2.y(), e.x(), e.y(), 0.0); },
       [&](double t) { Vec3d v = Cubic(p0, c1, c2, e, t); return Vec3d(v.x(), v.y(), 0); }},
  };
  for (const Case& c : cases) {
    GeometryBuffer g(0, FdoDimensionality_XYZ, false);
    g.MoveTo(p0);
    c.draw(g);
    ASSERT_EQ(g.pointCount(), 1 + 99 + 1) << c.label << ": tolerance 0 emits every sample";
    for (int k = 1; k <= 100; ++k) ExpectNear(g.GetPoint(k), c.curve(k / 100.0), 1e-9, k);
    EXPECT_EQ(g.GetPoint(100).x(), e.x()) << c.label << ": the end is exact";
  }

  // Tolerance is a Chebyshev chord length: a quad with its control on the
  // chord's middle moves (1, 0.4) a step, so 9.5 emits every tenth sample.
  GeometryBuffer line(0, FdoDimensionality_XY, false);
  line.MoveTo(Vec2d(0, 0));
  line.QuadTo(50, 20, 100, 40, 9.5);
  ASSERT_EQ(line.pointCount(), 1 + 9 + 1);
  for (int k = 1; k <= 10; ++k) ExpectNear(line.GetPoint(k), Vec3d(10.0 * k, 4.0 * k, 0), 1e-9, k);
  line.CubicTo(Vec3d(110, 70, 4), Vec3d(160, 20, 4), Vec3d(200, 80, 4), 1000.0);
  EXPECT_EQ(line.pointCount(), 12) << "beyond the curve's length only the end, z dropped";
  EXPECT_EQ(line.GetPoint(11), Vec3d(200, 80, 0));
}

TEST(GeometryBuffer, BoundsAndDimensionEdits) {
  GeometryBuffer g(0, FdoDimensionality_XY, false);
  g.RecomputeBBox();
  EXPECT_EQ(g.GetBBox3d().min, Vec3d(DBL_MAX, DBL_MAX, DBL_MAX));
  EXPECT_EQ(g.GetBBox3d().max, Vec3d(-DBL_MAX, -DBL_MAX, -DBL_MAX));
  g.MoveTo(Vec2d(0, 0));
  g.LineTo(Vec2d(4, 3));
  g.SetPoint(1, Vec3d(-2, 8, 1));
  EXPECT_EQ(g.GetBBox2d().max, Vec2d(4, 3)) << "SetPoint leaves the bounds";
  g.RecomputeBBox();
  g.Translate(Vec3d(1, 1, 1));
  EXPECT_EQ(g.GetBBox3d(), (BBox<3, double>(Vec3d(-1, 1, 1), Vec3d(1, 9, 2))));
  g.To3D(5);
  EXPECT_TRUE(g.Is3D());
  EXPECT_EQ(g.GetBBox3d().min.z(), 5);
  g.To2D();
  EXPECT_EQ(g.dimensionality(), FdoDimensionality_XY);
  EXPECT_EQ(g.GetPoint(1).z(), 0);
  EXPECT_FALSE(GeometryBuffer(0, FdoDimensionality_XYZ, true).Is3D());
}

TEST(GeometryBuffer, WindingEditsFollowRingNesting) {
  GeometryBuffer g(0, FdoDimensionality_XY, false);
  g.SetGeometryType(FdoGeometryType_Polygon);
  auto square = [&](double lo, double hi, bool ccw) {
    g.MoveTo(Vec2d(lo, lo));
    g.LineTo(ccw ? Vec2d(hi, lo) : Vec2d(lo, hi));
    g.LineTo(Vec2d(hi, hi));
    g.LineTo(ccw ? Vec2d(lo, hi) : Vec2d(hi, lo));
    g.Close();
  };
  square(2, 8, true);    // hole first, in the "wrong" order
  square(0, 10, false);  // shell
  square(4, 6, true);    // island inside the hole
  g.MoveTo(Vec2d(50, 50));  // a lone point: not a ring
  g.OrientPolygons(true);
  EXPECT_LT(test::RingArea(g, 0), 0) << "hole clockwise";
  EXPECT_GT(test::RingArea(g, 1), 0) << "shell counter-clockwise";
  EXPECT_GT(test::RingArea(g, 2), 0) << "island counter-clockwise";
  g.OrientPolygons(false);
  EXPECT_GT(test::RingArea(g, 0), 0);
  EXPECT_LT(test::RingArea(g, 1), 0);

  const Vec3d first = g.GetPoint(g.contourStart(1)), second = g.GetPoint(g.contourStart(1) + 1);
  g.InvertWinding(1);
  EXPECT_EQ(g.GetPoint(g.contourEnd(1)), first);
  EXPECT_EQ(g.GetPoint(g.contourEnd(1) - 1), second);
  g.InvertWinding(3);
  EXPECT_EQ(g.GetPoint(g.contourStart(3)), Vec3d(50, 50, 0));

  // The WKT of the three rings: a polygon with a hole and the island.
  auto back = GeometryBuffer::FromWKT(g.ToWKT());
  ASSERT_TRUE(back);
  EXPECT_EQ(back->geometryType(), FdoGeometryType_MultiPolygon);
  EXPECT_EQ(back->geometryCount(), 2);
}

TEST(GeometryBuffer, WktKeepsEveryDoubleAndReportsBadText) {
  std::mt19937 rng(2);
  std::uniform_real_distribution<double> u(-1e7, 1e7);
  GeometryBuffer g(0, FdoDimensionality_XYZ, false);
  g.SetGeometryType(FdoGeometryType_LineString);
  for (int i = 0; i < 200; ++i) g.LineTo(u(rng), u(rng) * 1e-9, u(rng));
  auto back = GeometryBuffer::FromWKT(g.ToWKT());
  ASSERT_TRUE(back);
  ASSERT_TRUE(back->Is3D());
  EXPECT_EQ(test::Points(*back), test::Points(g));

  // Far from 1: still exact, up to the magnitudes GEOS can print.
  GeometryBuffer wide(0, FdoDimensionality_XY, false);
  wide.SetGeometryType(FdoGeometryType_MultiPoint);
  wide.MoveTo(Vec2d(1.2345678901234567e-30, -9.87654321e39));
  wide.MoveTo(Vec2d(0, 1.0 / 3));
  auto wideBack = GeometryBuffer::FromWKT(wide.ToWKT());
  ASSERT_TRUE(wideBack);
  EXPECT_EQ(test::Points(*wideBack), test::Points(wide));

  test::LogCapture log;
  wide.SetPoint(1, Vec3d(1e300, 0, 0));
  EXPECT_EQ(wide.ToWKT(), L"");
  EXPECT_TRUE(log.contains("ToWKT"));
  for (const wchar_t* bad : {L"", L"POLYGON ((0 0, 1 1", L"CIRCLE (1 2)", L"POINT (1 nan)"}) {
    EXPECT_FALSE(GeometryBuffer::FromWKT(bad)) << bad;
  }
  EXPECT_TRUE(log.contains("FromWKT"));

  // A line of one point cannot go to GEOS.
  GeometryBuffer sliver(0, FdoDimensionality_XY, false);
  sliver.SetGeometryType(FdoGeometryType_LineString);
  sliver.MoveTo(Vec2d(1, 1));
  EXPECT_EQ(sliver.ToWKT(), L"");
  EXPECT_FALSE(sliver.toGeosGeometry());
}

TEST(GeometryBuffer, GeosGeometriesRoundTripInTheirContext) {
  auto g = GeometryBuffer::FromWKT(L"MULTIPOLYGON Z (((0 0 1, 4 0 1, 4 4 2, 0 0 1)), ((10 10 0, 12 10 0, 12 12 0, 10 10 0)))");
  ASSERT_TRUE(g);
  GeosContextPtr context = MakeGeosContext();
  GeosGeometryPtr geos = g->toGeosGeometry(context);
  ASSERT_TRUE(geos);
  EXPECT_EQ(geos.get_deleter().context, context);
  auto back = GeometryBuffer::FromGeosGeometry(geos);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->ToWKT(), g->ToWKT());
}

TEST(GeometryBuffer, CopyLineBufferCopiesAllOrOneContour) {
  auto src = GeometryBuffer::FromWKT(L"MULTILINESTRING ((0 0, 1 1), (5 5, 6 7, 8 8))");
  ASSERT_TRUE(src);
  GeometryBuffer all(0, FdoDimensionality_XYZ, true);
  GeometryBuffer::CopyLineBuffer(&all, src.get());
  EXPECT_EQ(all.ToWKT(), src->ToWKT());
  EXPECT_EQ(all.dimensionality(), FdoDimensionality_XY);

  GeometryBuffer one(0, FdoDimensionality_XY, false);
  one.SetGeometryType(FdoGeometryType_LineString);
  GeometryBuffer::CopyLineBuffer(&one, src.get(), 1);
  EXPECT_EQ(one.ToWKT(), L"LINESTRING (5 5, 6 7, 8 8)");
}

}  // namespace
}  // namespace kel
