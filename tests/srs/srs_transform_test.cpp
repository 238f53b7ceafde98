#include "kel/srs/srs_transform.h"

#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "kel/core/text.h"
#include "kel/geometry/geometry_buffer.h"
#include "kel/srs/srs_coord_sys.h"
#include "kel/srs/srs_utils.h"
#include "support/log_capture.h"

namespace kel {
namespace {

namespace fs = std::filesystem;
using Sys = std::shared_ptr<SRSCoordSys>;

std::vector<Vec2d> RandomPoints(std::size_t n, Vec2d lo, Vec2d hi, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> ux(lo.x(), hi.x()), uy(lo.y(), hi.y());
  std::vector<Vec2d> pts(n);
  for (Vec2d& p : pts) p = Vec2d(ux(rng), uy(rng));
  return pts;
}

// Runs proj-bin's cs2cs over the points ("x y" lines in, "x y z" lines out).
std::vector<Vec2d> Cs2cs(const std::string& args, const std::vector<Vec2d>& in) {
  const fs::path file = fs::temp_directory_path() / ("kel_cs2cs_" + std::to_string(::getpid()) + ".txt");
  {
    std::ofstream out(file);
    out.precision(17);
    for (const Vec2d& p : in) out << p.x() << ' ' << p.y() << '\n';
  }
  const std::string command = "cs2cs -f %.9f " + args + " < " + file.string();
  std::vector<Vec2d> result;
  if (FILE* pipe = ::popen(command.c_str(), "r")) {
    char line[256];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
      std::istringstream fields(line);
      Vec2d p;
      fields >> p.x() >> p.y();
      result.push_back(p);
    }
    ::pclose(pipe);
  }
  fs::remove(file);
  return result;
}

// Our transform against cs2cs, the command-line face of the same library,
// given each system by its EPSG code in the axis order it defines (-r and -s
// swap to easting/longitude first where that order is northing first).
TEST(SRSTransform, AgreesWithCs2csWithinATenthOfAMillimetre) {
  const struct {
    const wchar_t* from;
    const wchar_t* to;
    const char* cs2csArgs;
    Vec2d lo, hi;
    double tolerance;  // target units: 0.1 mm, or its angle at the earth's surface
  } cases[] = {
      {L"LL84", L"UTM84-32N", "-r EPSG:4326 EPSG:32632", {6, 0}, {12, 84}, 1e-4},
      {L"LL84", L"UTM84-33S", "-r EPSG:4326 EPSG:32733", {12, -80}, {18, 0}, 1e-4},
      {L"LL84", L"WGS84.PseudoMercator", "-r EPSG:4326 EPSG:3857", {-180, -85}, {180, 85}, 1e-4},
      {L"UTM84-32N", L"LL84", "-s EPSG:32632 EPSG:4326", {300000, 1000}, {700000, 9000000}, 1e-9},
      // A datum shift through a grid (DHDN to ETRS89 in Germany).
      {L"EPSG:31467", L"UTM84-32N", "-r EPSG:31467 EPSG:32632", {3400000, 5300000}, {3600000, 5900000}, 1e-4},
  };
  unsigned seed = 1;
  for (const auto& c : cases) {
    SCOPED_TRACE(WString2Utf8String(c.from) + " -> " + WString2Utf8String(c.to));
    const auto t = SRSTransform::Create(c.from, c.to);
    ASSERT_TRUE(t);
    std::vector<Vec2d> ours = RandomPoints(300, c.lo, c.hi, seed++);
    const std::vector<Vec2d> theirs = Cs2cs(c.cs2csArgs, ours);
    ASSERT_EQ(theirs.size(), ours.size()) << "is proj-bin (cs2cs) installed?";
    ASSERT_TRUE(t->Transform(MakeDataArray(ours)));
    double worst = 0;
    for (std::size_t i = 0; i < ours.size(); ++i)
      worst = std::max({worst, std::fabs(ours[i].x() - theirs[i].x()), std::fabs(ours[i].y() - theirs[i].y())});
    EXPECT_LE(worst, c.tolerance);
  }
}

TEST(SRSTransform, AxesAreEastingOrLongitudeFirstWhateverTheDefinitionSays) {
  // EPSG:4326 is latitude first and EPSG:31467 northing first by definition.
  const auto t = SRSTransform::Create(L"4326", L"EPSG:31467");
  ASSERT_TRUE(t);
  Vec2d p(9.5, 48);
  ASSERT_TRUE(t->Transform(p));
  EXPECT_NEAR(p.x(), 3537388.0, 1.0);
  EXPECT_NEAR(p.y(), 5318109.0, 1.0);
}

TEST(SRSTransform, HeightsAreOnlyScaledBetweenUnits) {
  constexpr double kFtUs = 1200.0 / 3937.0;
  const struct {
    const wchar_t* from;
    const wchar_t* to;
    double scale;
  } cases[] = {
      {L"LL84", L"UTM84-32N", 1.0},
      {L"UTM84-32N", L"LL84", 1.0},
      {L"EPSG:2240", L"UTM83-17", kFtUs},  // US survey feet to metres
      {L"UTM83-17", L"EPSG:2240", 1 / kFtUs},
      {L"LL83", L"EPSG:2240", 1 / kFtUs},  // geographic counts as 1
      {L"EPSG:5555", L"LL84", 1.0},        // a compound source: no vertical datum shift either
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(WString2Utf8String(c.from) + " -> " + WString2Utf8String(c.to));
    const Sys from = SRSCoordSys::Create(c.from);
    const auto t = SRSTransform::Create(c.from, c.to);
    ASSERT_TRUE(t);
    EXPECT_DOUBLE_EQ(t->heightScale(), c.scale);
    // A point inside the source's area of use.
    const BBox<2, double> area = from->GetBoundary();
    Vec2d flat((area.min.x() + area.max.x()) / 2, (area.min.y() + area.max.y()) / 2);
    Vec3d p(flat.x(), flat.y(), 100.0);
    std::vector<Vec3d> many{p, p};
    ASSERT_TRUE(t->Transform(flat));
    ASSERT_TRUE(t->Transform(p));
    ASSERT_TRUE(t->Transform(MakeDataArray(many)));
    EXPECT_EQ(Vec2d(p.x(), p.y()), flat);
    EXPECT_DOUBLE_EQ(p.z(), 100.0 * c.scale);
    EXPECT_EQ(many[1], p);
    double z = 3;
    t->scaleZ(z);
    EXPECT_DOUBLE_EQ(z, 3 * c.scale);
  }
}

TEST(SRSTransform, GeometriesGoPointByPointAndGetNewBounds) {
  const auto t = SRSTransform::Create(L"EPSG:2240", L"UTM83-17");  // feet to metres
  ASSERT_TRUE(t);
  GeometryBuffer g(4, FdoDimensionality_XYZ, false);
  const std::vector<Vec3d> pts{{2200000, 1200000, 10}, {2210000, 1200000, 20}, {2210000, 1210000, 30}};
  for (const Vec3d& p : pts) g.LineTo(p);
  g.RecomputeBBox();
  ASSERT_TRUE(t->Transform(g));
  BBox<3, double> expect;
  for (int i = 0; i < 3; ++i) {
    Vec3d p = pts[i];
    ASSERT_TRUE(t->Transform(p));
    EXPECT_EQ(g.GetPoint(i), p);
    expect.extend(p);
  }
  EXPECT_EQ(g.GetBBox3d(), expect);

  // A failing point stops the walk; the bounds stay as they were.
  test::LogCapture log;
  const auto toUtm = SRSTransform::Create(L"LL84", L"UTM84-32N");
  GeometryBuffer bad(2, FdoDimensionality_XY, false);
  bad.MoveTo(9.5, 48);
  bad.LineTo(9.5, 95);
  bad.RecomputeBBox();
  const BBox<3, double> before = bad.GetBBox3d();
  EXPECT_FALSE(toUtm->Transform(bad));
  EXPECT_GT(bad.GetPoint(0).x(), 1000);
  EXPECT_EQ(bad.GetPoint(1), Vec3d(9.5, 95, 0));
  EXPECT_EQ(bad.GetBBox3d(), before);
  EXPECT_EQ(log.events().size(), 1u);
}

TEST(SRSTransform, CreateGivesNothingWhereNothingIsToDo) {
  test::LogCapture log;
  const Sys ll84 = SRSCoordSys::Create(L"LL84");
  EXPECT_FALSE(SRSTransform::Create(ll84, ll84));
  EXPECT_FALSE(SRSTransform::Create(ll84, nullptr));
  EXPECT_FALSE(SRSTransform::Create(nullptr, ll84));
  EXPECT_FALSE(SRSTransform::Create(L"LL84", L"LL84"));
  EXPECT_FALSE(SRSTransform::Create(L"", L"LL84"));
  EXPECT_FALSE(SRSTransform::Create(L"LL84", L""));
  EXPECT_TRUE(log.events().empty());
  EXPECT_FALSE(SRSUtils::CanTransform(ll84, nullptr));
  EXPECT_TRUE(SRSUtils::CanTransform(ll84, SRSCoordSys::Create(L"UTM84-32N")));
  EXPECT_TRUE(SRSUtils::CanTransform(ll84, std::make_shared<SRSCoordSys>(*ll84)));  // equal codes
}

TEST(SRSTransform, NonEarthSystemsReachOnlyThemselves) {
  test::LogCapture log;
  const Sys nerth = SRSCoordSys::Create(L"NERTH");
  EXPECT_FALSE(SRSTransform::Create(L"NERTH", L"LL84"));
  EXPECT_FALSE(SRSTransform::Create(L"NERTH", L"NERTH-SRT"));
  EXPECT_FALSE(SRSUtils::CanTransform(nerth, SRSCoordSys::Create(L"UTM84-32N")));
  ASSERT_EQ(log.events().size(), 3u);
  EXPECT_EQ(log.events()[0].message.rfind("Failed to create transformation from NERTH to LL84. Message: ", 0), 0u);
  EXPECT_EQ(log.events()[0].level, 40000);
  // A copy is another object of the same system: an identity.
  const auto same = SRSTransform::Create(nerth, std::make_shared<SRSCoordSys>(*nerth));
  ASSERT_TRUE(same);
  Vec3d p(123.5, -7.25, 9);
  ASSERT_TRUE(same->Transform(p));
  EXPECT_EQ(p, Vec3d(123.5, -7.25, 9));
}

TEST(SRSTransform, FailedPointsStayAsTheyWereAndAreLogged) {
  test::LogCapture log;
  const auto t = SRSTransform::Create(L"LL84", L"UTM84-32N");
  ASSERT_TRUE(t);
  Vec3d bad(9.5, 95, 10);  // beyond the pole
  EXPECT_FALSE(t->Transform(bad));
  EXPECT_EQ(bad, Vec3d(9.5, 95, 10));
  std::vector<Vec2d> pts{{9.5, 48}, {9.5, 95}, {9.6, 48}};
  EXPECT_FALSE(t->Transform(MakeDataArray(pts)));
  EXPECT_GT(pts[0].x(), 1000);
  EXPECT_EQ(pts[1], Vec2d(9.5, 95));
  EXPECT_EQ(pts[2], Vec2d(9.6, 48));
  double nan = std::nan(""), y = 48;
  EXPECT_FALSE(t->Transform(nan, y));
  ASSERT_EQ(log.events().size(), 3u);
  for (const auto& e : log.events()) {
    EXPECT_EQ(e.message.rfind("Coordinate system transform error. ", 0), 0u);
    EXPECT_GT(e.message.size(), 35u);  // PROJ's reason follows
  }
}

// One transform, the registry and the getters from eight threads at once;
// every thread must see exactly what one thread alone computes. CI runs this
// under ThreadSanitizer.
TEST(SRSTransform, EightThreadsShareTransformsAndTheRegistry) {
  const auto shared = SRSTransform::Create(L"LL84", L"UTM84-32N");
  ASSERT_TRUE(shared);
  const std::vector<Vec2d> input = RandomPoints(1000, {9, 47.5}, {10, 48.5}, 99);
  std::vector<Vec2d> expect = input;
  ASSERT_TRUE(shared->Transform(MakeDataArray(expect)));
  const wchar_t* codes[] = {L"UTM84-31N", L"EPSG:25832", L"EPSG:2056", L"LL83", L"EPSG:31467", L"UTM84-33N"};

  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int k = 0; k < 8; ++k) {
    threads.emplace_back([&, k] {
      for (int round = 0; round < 2; ++round) {
        std::vector<Vec2d> pts = input;
        if (!shared->Transform(MakeDataArray(pts)) || pts != expect) ++mismatches;
        const Sys s = SRSCoordSys::Create(codes[(k + round) % 6]);
        if (!s || s != SRSCoordSys::Create(codes[(k + round) % 6])) ++mismatches;
        if (s->GetDescription().empty() || s->GetUnits().empty() || s->GetBoundary().isEmpty()) ++mismatches;
        const auto own = SRSTransform::Create(s, SRSCoordSys::Create(L"LL84"));
        Vec2d p((s->GetBoundary().min.x() + s->GetBoundary().max.x()) / 2, s->GetBoundary().max.y());
        if (!own || !own->Transform(p) || !s->IsSameAs(SRSCoordSys::Create(codes[(k + round) % 6]).get()))
          ++mismatches;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
}  // namespace kel
