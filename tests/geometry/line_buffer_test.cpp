#include "kel/geometry/line_buffer.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "geometry/geometry_test_util.h"
#include "kel/geometry/byte_sink.h"
#include "kel/geometry/geometry_buffer.h"

namespace kel {
namespace {

// Little-endian FGF blobs built by hand.
struct Blob {
  std::vector<std::uint8_t> b;
  Blob& i(std::int32_t v) {
    for (int k = 0; k < 4; ++k) b.push_back(std::uint8_t(std::uint32_t(v) >> (8 * k)));
    return *this;
  }
  Blob& d(double v) {
    std::uint64_t u;
    std::memcpy(&u, &v, 8);
    for (int k = 0; k < 8; ++k) b.push_back(std::uint8_t(u >> (8 * k)));
    return *this;
  }
};

std::vector<std::uint8_t> Hex(const std::string& s) {
  std::vector<std::uint8_t> out;
  for (std::size_t i = 0; i + 1 < s.size(); i += 2) out.push_back(std::uint8_t(std::stoi(s.substr(i, 2), nullptr, 16)));
  return out;
}

std::vector<std::uint8_t> Agf(const LineBuffer& b) {
  memory_byte_sink sink;
  b.ToAgf(sink);
  return sink.release();
}

std::shared_ptr<GeometryBuffer> Wkt(const wchar_t* text) {
  auto g = GeometryBuffer::FromWKT(text);
  EXPECT_TRUE(g) << text;
  return g;
}

TEST(LineBuffer, DrawingBuildsContoursGeometriesAndBounds) {
  LineBuffer b;
  b.LineTo(1, 2, 3);  // no contour yet: starts one
  b.LineTo(4, -1, 0);
  b.Close();
  b.Close();  // already closed: no second closing point
  b.NewGeometry();
  b.NewGeometry();  // an empty geometry stays countable
  b.MoveTo(10, 10);
  b.MoveTo(11, 11);
  b.LineTo(12, 12);
  const BBox<3, double> bounds(Vec3d(1, -1, 0), Vec3d(12, 12, 3));
  auto check = [&](const char* when) {
    EXPECT_EQ(test::Points(b), (std::vector<Vec3d>{{1, 2, 3}, {4, -1, 0}, {1, 2, 3}, {10, 10, 0}, {11, 11, 0}, {12, 12, 0}}))
        << when;
    EXPECT_EQ((std::vector<int>{b.contourStart(2), b.contourSize(2), b.geometryContourCount(0),
                                b.geometryContourCount(1), b.geometryContourCount(2)}),
              (std::vector<int>{4, 2, 1, 0, 2}))
        << when;
    EXPECT_EQ(b.bounds(), bounds) << when;
  };
  check("drawn");
  const LineBuffer::Mark m = b.mark();
  b.LineTo(100, 100);
  b.NewGeometry();
  b.MoveTo(-5, -5);
  b.SetGeometryType(FdoGeometryType_MultiLineString);
  b.rollBack(m);
  check("rolled back");
  EXPECT_EQ(b.geometryType(), FdoGeometryType_None);
  b.Reset(FdoDimensionality_XYZ, true);
  EXPECT_TRUE(b.empty() && b.geometryCount() == 0 && b.hasZ());
  EXPECT_EQ(b.bounds().min, Vec3d(DBL_MAX, DBL_MAX, DBL_MAX));
}

TEST(LineBuffer, BoxClippingMatchesGeosOnRandomStars) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> corner(-150, 150);
  for (int round = 0; round < 40; ++round) {
    auto star = std::make_shared<GeometryBuffer>(test::StarPolygon(rng, 200));
    double x0 = corner(rng), x1 = corner(rng), y0 = corner(rng), y1 = corner(rng);
    const BBox<2, double> box(Vec2d(std::min(x0, x1), std::min(y0, y1)), Vec2d(std::max(x0, x1), std::max(y0, y1)));

    LineBuffer ours;
    star->ClipPolygon(box, &ours);
    auto geos = GeometryBuffer::ClipPoly(star, box);
    ASSERT_TRUE(geos);
    EXPECT_NEAR(test::AbsArea(ours), test::AbsArea(*geos), 1e-7 * test::AbsArea(*star)) << round;
    EXPECT_EQ(ours.geometryCount(), 1);
    for (int i = 0; i < ours.pointCount(); ++i)
      ASSERT_TRUE(box.contains(Vec2d(ours.x(i), ours.y(i))));

    LineBuffer oursLines, geosLines;
    star->LineBuffer::ClipPolyline(box, &oursLines);
    ASSERT_TRUE(star->ClipPolyline(&geosLines, box));
    EXPECT_NEAR(test::Length2D(oursLines), test::Length2D(geosLines), 1e-9 * test::Length2D(*star)) << round;
  }
}

TEST(LineBuffer, PolylineClippingJoinsPiecesAndInterpolatesZ) {
  LineBuffer line(0, FdoDimensionality_XYZ, false);
  line.MoveTo(-10, 5, 0);
  line.LineTo(5, 5, 15);   // enters at x = 0, z = 10
  line.LineTo(5, 20, 30);  // leaves at y = 10, z = 20
  line.LineTo(8, 2, 0);    // re-enters at y = 10
  line.MoveTo(50, 50, 1);  // a single point outside: dropped
  LineBuffer out;
  line.ClipPolyline(BBox<2, double>(Vec2d(0, 0), Vec2d(10, 10)), &out);
  ASSERT_EQ(out.contourCount(), 2);
  const auto got = test::Points(out);
  const std::vector<Vec3d> want{{0, 5, 10}, {5, 5, 15}, {5, 10, 20}, {5 + 5.0 / 3, 10, 40.0 / 3}, {8, 2, 0}};
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < got.size(); ++i)
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(got[i][k], want[i][k], 1e-12) << i;
}

TEST(LineBuffer, FgfPolygonMatchesGoldenBytes) {
  LineBuffer b;
  b.SetGeometryType(FdoGeometryType_Polygon);
  b.MoveTo(0, 0);
  b.LineTo(1, 0);
  b.LineTo(0, 1);
  b.Close();
  const auto golden = Hex(
      "0300000000000000010000000400000000000000000000000000000000000000000000000000F03F"
      "00000000000000000000000000000000000000000000F03F00000000000000000000000000000000");
  EXPECT_EQ(Agf(b), golden);
  LineBuffer back;
  ASSERT_TRUE(back.LoadFromAgf(golden.data(), golden.size()));
  EXPECT_EQ(Agf(back), golden);
  EXPECT_EQ(back.geometryType(), FdoGeometryType_Polygon);
}

TEST(LineBuffer, FgfRoundTripsThroughWkt) {
  const wchar_t* cases[] = {
      L"POINT (1.5 -2.25)",
      L"POINT Z (1 2 3)",
      L"LINESTRING (0 0, 1 1, 2 0.1)",
      L"LINESTRING Z (0 0 1, 1 1 2)",
      L"POLYGON ((0 0, 10 0, 10 10, 0 10, 0 0), (2 2, 2 4, 4 4, 2 2))",
      L"MULTIPOINT ((1 2), (3 4))",
      L"MULTILINESTRING ((0 0, 1 1), (5 5, 6 7, 8 8))",
      L"MULTIPOLYGON (((0 0, 1 0, 1 1, 0 0)), ((5 5, 6 5, 6 6, 5 5)))",
      L"GEOMETRYCOLLECTION (POINT (1 1), LINESTRING (0 0, 2 2), POLYGON ((0 0, 1 0, 1 1, 0 0)))",
      L"LINESTRING EMPTY",
      L"POLYGON EMPTY",
      L"MULTIPOLYGON EMPTY",
  };
  for (const wchar_t* text : cases) {
    auto g = Wkt(text);
    ASSERT_TRUE(g);
    const auto bytes = Agf(*g);
    GeometryBuffer back(0, FdoDimensionality_XY, false);
    ASSERT_TRUE(back.LoadFromAgf(bytes.data(), bytes.size())) << text;
    EXPECT_EQ(back.ToWKT(), g->ToWKT()) << text;
    EXPECT_EQ(Agf(back), bytes) << text;
  }
}

TEST(LineBuffer, FgfRejectsEveryTruncatedPrefixAndTrailingBytes) {
  auto g = Wkt(L"GEOMETRYCOLLECTION (POINT Z (1 1 1), MULTILINESTRING Z ((0 0 0, 2 2 2)), "
               L"POLYGON Z ((0 0 0, 1 0 0, 1 1 0, 0 0 0)))");
  auto bytes = Agf(*g);
  LineBuffer b;
  for (std::size_t n = 0; n < bytes.size(); ++n) ASSERT_FALSE(b.LoadFromAgf(bytes.data(), n)) << n;
  EXPECT_TRUE(b.empty());
  bytes.push_back(0);
  EXPECT_FALSE(b.LoadFromAgf(bytes.data(), bytes.size()));
  EXPECT_FALSE(b.LoadFromAgf(nullptr, 0));
}

TEST(LineBuffer, FgfRejectsLyingHeaders) {
  const double nan = std::nan("");
  struct Case {
    const char* label;
    Blob blob;
  } cases[] = {
      {"count beyond the bytes", Blob().i(2).i(0).i(1000000).d(0).d(0)},
      {"negative count", Blob().i(2).i(0).i(-1)},
      {"ring count beyond the bytes", Blob().i(3).i(0).i(0x7fffffff)},
      {"unknown type", Blob().i(8).i(0).d(0).d(0)},
      {"bad dimensionality", Blob().i(1).i(4).d(0).d(0)},
      {"NaN ordinate", Blob().i(1).i(0).d(nan).d(0)},
      {"infinite ordinate", Blob().i(1).i(1).d(0).d(0).d(INFINITY)},
      {"member of the wrong type", Blob().i(4).i(1).i(2).i(0).i(0)},
      {"unknown curve segment", Blob().i(10).i(0).d(0).d(0).i(1).i(129)},
  };
  LineBuffer b;
  for (const Case& c : cases) EXPECT_FALSE(b.LoadFromAgf(c.blob.b.data(), c.blob.b.size())) << c.label;

  // Nesting deep enough to exhaust a careless reader's stack.
  Blob deep;
  for (int k = 0; k < 10000; ++k) deep.i(7).i(1);
  EXPECT_FALSE(b.LoadFromAgf(deep.b.data(), deep.b.size()));
}

TEST(LineBuffer, FgfCurvesAreFlattenedOntoTheirCircle) {
  // Half circle of radius 5 about (5, 0) from (0, 0) over (5, 5) to (10, 0),
  // then a straight piece; z from 0 to 10 along the arc.
  Blob curve;
  curve.i(FdoGeometryType_CurveString).i(FdoDimensionality_XYZM).d(0).d(0).d(0).d(7);
  curve.i(2).i(130).d(5).d(5).d(5).d(7).d(10).d(0).d(10).d(7);
  curve.i(131).i(1).d(10).d(-3).d(10).d(7);
  LineBuffer b;
  ASSERT_TRUE(b.LoadFromAgf(curve.b.data(), curve.b.size()));
  EXPECT_EQ(b.geometryType(), FdoGeometryType_LineString);
  EXPECT_EQ(b.dimensionality(), FdoDimensionality_XYZ);
  ASSERT_EQ(b.contourCount(), 1);
  ASSERT_EQ(b.pointCount(), 36 + 1 + 1);  // 180 degrees in 5 degree steps, the start, the line point
  for (int i = 0; i <= 36; ++i) {
    EXPECT_NEAR(std::hypot(b.x(i) - 5, b.y(i)), 5.0, 1e-12) << i;
    EXPECT_GE(b.y(i), -1e-12);
    EXPECT_NEAR(b.z(i), 10.0 * i / 36, 1e-9) << i;
  }
  EXPECT_EQ(b.point(36), Vec3d(10, 0, 10));
  EXPECT_EQ(b.point(37), Vec3d(10, -3, 10));

  // The same arc the other way round (clockwise) inside a curve polygon,
  // closed by a line segment; collinear "arcs" become straight lines.
  Blob poly;
  poly.i(FdoGeometryType_CurvePolygon).i(0).i(1).d(10).d(0);
  poly.i(3).i(130).d(5).d(5).d(0).d(0).i(130).d(5).d(0).d(10).d(0).i(131).i(0);
  ASSERT_TRUE(b.LoadFromAgf(poly.b.data(), poly.b.size()));
  EXPECT_EQ(b.geometryType(), FdoGeometryType_Polygon);
  EXPECT_EQ(b.pointCount(), 1 + 36 + 2);
  EXPECT_NEAR(test::AbsArea(b), 0.5 * std::acos(-1.0) * 25, 0.5);
  EXPECT_EQ(b.point(b.pointCount() - 1), Vec3d(10, 0, 0));

  // A circle too large for doubles: two straight pieces through the middle.
  Blob huge;
  huge.i(FdoGeometryType_CurveString).i(0).d(0).d(0).i(1).i(130).d(1e300).d(1e300).d(-1e300).d(1e300);
  ASSERT_TRUE(b.LoadFromAgf(huge.b.data(), huge.b.size()));
  EXPECT_EQ(test::Points(b), (std::vector<Vec3d>{Vec3d(0, 0, 0), Vec3d(1e300, 1e300, 0), Vec3d(-1e300, 1e300, 0)}));
}

}  // namespace
}  // namespace kel
