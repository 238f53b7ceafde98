#define GEOS_USE_ONLY_R_API
#include <geos_c.h>

#include "kel/geometry/point_in_polygon_checker.h"

#include <cmath>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "geometry/geometry_test_util.h"
#include "kel/geometry/geometry_buffer.h"
#include "kel/spatial/spatial_index_2d.h"
#include "support/log_capture.h"

namespace kel {
namespace {

TEST(PointInPolygonChecker, AgreesWithGeosPreparedContainsOffTheEdges) {
  std::mt19937 rng(31);
  struct Case {
    const char* label;
    int vertices;
    bool closed;
    int islands;  // more geometries beside the first, each a small star
  } cases[] = {
      {"small: edge by edge, rings drawn open", 12, false, 0},
      {"indexed", 4000, true, 0},
      {"indexed, rings drawn open", 4000, false, 0},
      {"many parts found through their boxes", 4000, true, 11},
  };
  GEOSContextHandle_t h = GEOS_init_r();
  for (const Case& c : cases) {
    auto poly = std::make_shared<GeometryBuffer>(0, FdoDimensionality_XY, false);
    poly->SetGeometryType(FdoGeometryType_Polygon);
    test::AddStarRing(*poly, rng, c.vertices, 1000, 2000, 100);
    test::AddStarRing(*poly, rng, c.vertices / 4, 1030, 2000, 20);
    for (int k = 0; k < c.islands; ++k) {
      poly->SetGeometryType(FdoGeometryType_MultiPolygon);
      poly->NewGeometry();
      test::AddStarRing(*poly, rng, 40 + 10 * k, 870 + 25 * (k % 4), 1875 + 20 * (k / 4), 9);
    }
    if (!c.closed) {
      // Drop each closing point.
      auto open = std::make_shared<GeometryBuffer>(0, FdoDimensionality_XY, false);
      open->SetGeometryType(FdoGeometryType_Polygon);
      for (int k = 0; k < poly->contourCount(); ++k) {
        open->MoveTo(poly->GetPoint(poly->contourStart(k)));
        for (int i = poly->contourStart(k) + 1; i < poly->contourEnd(k); ++i) open->LineTo(poly->GetPoint(i));
      }
      poly = open;
    }
    PointInPolygonChecker checker(poly);
    EXPECT_EQ(checker.hasIndex(), c.vertices >= 100) << c.label;

    GeosGeometryPtr geos = poly->toGeosGeometry(GeosContextPtr(h, [](GEOSContextHandle_t) {}));
    ASSERT_TRUE(geos);
    const GEOSPreparedGeometry* prepared = GEOSPrepare_r(h, geos.get());
    const GEOSGeometry* boundary = GEOSBoundary_r(h, geos.get());
    std::uniform_real_distribution<double> ux(850, 1150), uy(1850, 2150);
    int inside = 0, checked = 0;
    for (int k = 0; k < 4000; ++k) {
      const double x = ux(rng), y = uy(rng);
      GEOSGeometry* pt = GEOSGeom_createPointFromXY_r(h, x, y);
      double d = 0;
      GEOSDistance_r(h, pt, boundary, &d);
      if (d > 1e-9) {
        const bool theirs = GEOSPreparedContains_r(h, prepared, pt) == 1;
        ASSERT_EQ(checker.PointInPolygon(Vec2d(x, y)), theirs) << c.label << " at " << x << " " << y;
        inside += theirs;
        ++checked;
      }
      GEOSGeom_destroy_r(h, pt);
    }
    EXPECT_GT(inside, checked / 10) << c.label;
    GEOSPreparedGeom_destroy_r(h, prepared);
    GEOSGeom_destroy_r(h, const_cast<GEOSGeometry*>(boundary));
  }
  GEOS_finish_r(h);
}

TEST(PointInPolygonChecker, BoundingBoxEdgesPassTheFirstTest) {
  // An L shape: its box's right edge at x = 10 touches the polygon only
  // along the lower arm.
  auto l = GeometryBuffer::FromWKT(L"POLYGON ((0 0, 10 0, 10 2, 2 2, 2 10, 0 10, 0 0))");
  ASSERT_TRUE(l);
  PointInPolygonChecker checker(l);
  for (const auto& [p, inside] : {std::pair{Vec2d(1, 5), true}, std::pair{Vec2d(5, 5), false},
                                  std::pair{Vec2d(10.000001, 1), false}, std::pair{Vec2d(5, 1), true},
                                  std::pair{Vec2d(-1e-9, 5), false}})
    EXPECT_EQ(checker.PointInPolygon(p), inside) << p.x() << " " << p.y();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_FALSE(checker.PointInPolygon(Vec2d(nan, 1)));
  EXPECT_FALSE(PointInPolygonChecker(nullptr).PointInPolygon(Vec2d(1, 1)));
  test::LogCapture log;
  auto bad = std::make_shared<GeometryBuffer>(*l);
  bad->SetPoint(2, Vec3d(nan, 2, 0));
  EXPECT_FALSE(PointInPolygonChecker(bad).PointInPolygon(Vec2d(1, 5)));
  EXPECT_TRUE(log.contains("not finite"));
}

TEST(PointInPolygonChecker, AnswersFromSpilledIndexLevels) {
  std::mt19937 rng(32);
  auto star = std::make_shared<GeometryBuffer>(test::StarPolygon(rng, 1100000, 1e5));
  PointInPolygonChecker checker(star);
  ASSERT_TRUE(checker.hasIndex());
  ASSERT_TRUE(checker.index()->onFile(0));
  std::uniform_real_distribution<double> u(-1.3e5, 1.3e5);
  for (int k = 0; k < 40; ++k) {
    const double x = u(rng), y = u(rng);
    ASSERT_EQ(checker.PointInPolygon(Vec2d(x, y)), star->PointInPolygon(x, y)) << x << " " << y;
  }
}

}  // namespace
}  // namespace kel
