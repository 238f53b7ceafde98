#include "kel/srs/tf_cache.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "kel/srs/srs_transform.h"
#include "kel/srs/transform.h"
#include "srs/detail/lane2.h"
#include "support/log_capture.h"

namespace kel {
namespace {

using Box2 = BBox<2, double>;
constexpr const char* kDepthWarning = "Search tree depth exceeded. Performing slow transform.";

// Passes every call on to `inner` and remembers where it was asked.
class Recording final : public ITransform {
public:
  explicit Recording(const ITransform& inner) : inner_(inner) {}
  using ITransform::Transform;
  bool Transform(double& x, double& y, double& z) const override {
    calls.emplace_back(x, y);
    return inner_.Transform(x, y, z);
  }
  bool Transform(double& x, double& y) const override {
    calls.emplace_back(x, y);
    return inner_.Transform(x, y);
  }
  mutable std::vector<Vec2d> calls;

private:
  const ITransform& inner_;
};

MatrixTransform Affine() {
  Mat4d m = Mat4d::Identity();
  m(0, 0) = 2.5, m(0, 1) = 0.75, m(0, 3) = 1000;
  m(1, 0) = -0.5, m(1, 1) = 3, m(1, 3) = -20;
  return MatrixTransform(m);
}

bool SameBits(const Vec2d& a, const Vec2d& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// The region of the benchmark: 20 km near 9.5E 48N, to UTM zone 32N.
const Box2 kRegion(Vec2d(9.5, 48.0), Vec2d(9.5 + 20000 / 74400.0, 48.0 + 20000 / 111200.0));

std::shared_ptr<SRSTransform> ToUtm() { return SRSTransform::Create(L"LL84", L"UTM84-32N"); }

std::vector<Vec2d> RandomIn(const Box2& box, std::size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> ux(box.min.x(), box.max.x()), uy(box.min.y(), box.max.y());
  std::vector<Vec2d> pts(n);
  for (Vec2d& p : pts) p = Vec2d(ux(rng), uy(rng));
  return pts;
}

// A random walk with short steps, as the vertices of a polyline come.
std::vector<Vec2d> PolylineIn(const Box2& box, std::size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> step(0, (box.max.x() - box.min.x()) * 2e-4);
  std::vector<Vec2d> pts(n);
  Vec2d p((box.min.x() + box.max.x()) / 2, (box.min.y() + box.max.y()) / 2);
  for (Vec2d& q : pts) {
    p = Vec2d(std::clamp(p.x() + step(rng), box.min.x(), box.max.x()),
              std::clamp(p.y() + step(rng), box.min.y(), box.max.y()));
    q = p;
  }
  return pts;
}

TEST(TfCache, AffineTransformIsALeafAfterOneTest) {
  const MatrixTransform affine = Affine();
  const Recording rec(affine);
  TfCache cache(Box2(Vec2d(0, 0), Vec2d(100, 50)), 1e-9, &rec, 0);
  EXPECT_EQ(rec.calls.size(), 4u);  // the corners
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> u(-200, 300);  // inside and far outside
  for (int i = 0; i < 500; ++i) {
    Vec2d p(u(rng), u(rng));
    Vec2d exact = p;
    affine.Transform(exact);
    cache.transform(p);
    EXPECT_NEAR(p.x(), exact.x(), 1e-9 * std::fabs(exact.x()) + 1e-9);
    EXPECT_NEAR(p.y(), exact.y(), 1e-9 * std::fabs(exact.y()) + 1e-9);
  }
  EXPECT_EQ(rec.calls.size(), 5u);  // plus the root's centre, once
  EXPECT_EQ(cache.nodeCount(), 1u);
}

TEST(TfCache, ZeroToleranceSplitsUntilTheDepthLimitThenTransformsExactly) {
  const auto utm = ToUtm();
  test::LogCapture log;
  TfCache cache(kRegion, 0.0, utm.get(), 5);
  Vec2d p(9.61, 48.07);
  Vec2d exact = p;
  utm->Transform(exact);
  cache.transform(p);
  EXPECT_TRUE(SameBits(p, exact));
  // Five nodes tested and split on the way down, the sixth visit falls back.
  EXPECT_EQ(cache.nodeCount(), 1u + 5 * 4);
  EXPECT_EQ(cache.vertexCount(), 4u + 5 * 5);
  EXPECT_EQ(log.log().countOf(kDepthWarning), 1);
}

TEST(TfCache, DepthOneFallsBackOnEveryQueryOnceTheRootFails) {
  const auto utm = ToUtm();
  test::LogCapture log;
  TfCache cache(kRegion, 1e-6, utm.get(), 1);
  const std::vector<Vec2d> pts = RandomIn(kRegion, 3, 5);
  for (Vec2d p : pts) {
    Vec2d exact = p;
    utm->Transform(exact);
    cache.transform(p);
    EXPECT_TRUE(SameBits(p, exact));
  }
  EXPECT_EQ(cache.nodeCount(), 5u);  // the root was split once, its children never tested
  EXPECT_EQ(log.log().countOf(kDepthWarning), 3);
}

TEST(TfCache, RegionCentreGoesToTheUpperRightChild) {
  // Non-linear, so the root splits; the next test is at the upper-right
  // quadrant's centre.
  const auto utm = ToUtm();
  const Recording rec(*utm);
  TfCache cache(kRegion, 1e-6, &rec, 2);
  Vec2d centre((kRegion.min.x() + kRegion.max.x()) / 2, (kRegion.min.y() + kRegion.max.y()) / 2);
  const Vec2d upperRight((centre.x() + kRegion.max.x()) / 2, (centre.y() + kRegion.max.y()) / 2);
  cache.transform(centre);
  // 4 corners, root centre, 4 midpoints, then the child's centre.
  ASSERT_GE(rec.calls.size(), 10u);
  const Vec2d tested = rec.calls[9];
  EXPECT_NEAR(tested.x(), upperRight.x(), 1e-12);
  EXPECT_NEAR(tested.y(), upperRight.y(), 1e-12);
}

TEST(TfCache, NullTransformChangesNothing) {
  TfCache cache(kRegion, 0.001, nullptr, 0);
  Vec2d p(9.6, 48.1);
  std::vector<Vec2d> pts{p, p};
  cache.transform(p);
  cache.transform(MakeDataArray(pts));
  EXPECT_EQ(p, Vec2d(9.6, 48.1));
  EXPECT_EQ(pts[1], Vec2d(9.6, 48.1));
  EXPECT_EQ(cache.nodeCount(), 0u);
}

// The batch call must be the single call, bit for bit, in every order and
// also where points fall back to the exact transform or leave the region.
TEST(TfCache, BatchCallEqualsPointByPoint) {
  const auto utm = ToUtm();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const Vec2d centre((kRegion.min.x() + kRegion.max.x()) / 2, (kRegion.min.y() + kRegion.max.y()) / 2);
  std::vector<Vec2d> awkward{centre, {centre.x(), kRegion.min.y()}, {kRegion.max.x(), centre.y()},
                             kRegion.min, kRegion.max, {9.0, 47.0}, {nan, 48.1}, {9.6, nan}};
  const struct {
    const char* name;
    std::vector<Vec2d> points;
    double tolerance;
    std::size_t maxDepth;
  } cases[] = {
      {"random", RandomIn(kRegion, 20000, 11), 0.001, 0},
      {"polyline", PolylineIn(kRegion, 20000, 12), 0.001, 0},
      {"polyline, shallow", PolylineIn(kRegion, 3000, 13), 0.0001, 4},
      {"awkward", awkward, 0.001, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TfCache single(kRegion, c.tolerance, utm.get(), c.maxDepth);
    TfCache batch(single);
    std::vector<Vec2d> one = c.points, many = c.points;
    int singleWarnings = 0;
    {
      test::LogCapture log;
      for (Vec2d& p : one) single.transform(p);
      singleWarnings = log.log().countOf(kDepthWarning);
    }
    test::LogCapture log;
    batch.transform(MakeDataArray(many));
    EXPECT_EQ(log.log().countOf(kDepthWarning), singleWarnings);
    EXPECT_EQ(batch.nodeCount(), single.nodeCount());
    for (std::size_t i = 0; i < one.size(); ++i) ASSERT_TRUE(SameBits(one[i], many[i])) << i;
  }
}

TEST(TfCache, ErrorStaysNearTheToleranceAndAGrownTreeNeedsNoMoreCalls) {
  const auto utm = ToUtm();
  const Recording rec(*utm);
  TfCache cache(kRegion, 0.001, &rec, 0);
  std::vector<Vec2d> pts = RandomIn(kRegion, 20000, 21);
  std::vector<Vec2d> exact = pts;
  ASSERT_TRUE(utm->Transform(MakeDataArray(exact)));
  cache.transform(MakeDataArray(pts));
  double worst = 0;
  for (std::size_t i = 0; i < pts.size(); ++i)
    worst = std::max(worst, std::hypot(pts[i].x() - exact[i].x(), pts[i].y() - exact[i].y()));
  EXPECT_LE(worst, 0.002);

  const std::size_t calls = rec.calls.size();
  TfCache copy(cache);
  std::vector<Vec2d> again = RandomIn(kRegion, 20000, 21);
  copy.transform(MakeDataArray(again));
  EXPECT_EQ(rec.calls.size(), calls);
  EXPECT_EQ(again, pts);
}

// The vector kernels must be the scalar ones bit for bit, NaN and centre
// lines included.
TEST(TfCache, VectorKernelsEqualScalarKernels) {
  using S = detail::ScalarLanes;
  using L = detail::Lanes;
  std::mt19937 rng(31);
  std::uniform_real_distribution<double> u(-1e3, 1e3);
  const double nan = std::numeric_limits<double>::quiet_NaN();
  auto draw = [&] {
    const unsigned pick = rng() % 16;
    return pick == 0 ? nan : pick == 1 ? 0.0 : u(rng);
  };
  for (int i = 0; i < 20000; ++i) {
    Vec2d v[7];
    for (Vec2d& e : v) e = Vec2d(draw(), draw());
    if (i % 3 == 0) v[6] = Vec2d((v[4].x() + v[5].x()) / 2, v[6].y());  // on the vertical centre line
    const Vec2d s = S::ToVec(detail::Bilinear<S>(S::Load(v[0]), S::Load(v[1]), S::Load(v[2]), S::Load(v[3]),
                                                 S::Load(v[4]), S::Load(v[5]), S::Load(v[6])));
    const Vec2d l = L::ToVec(detail::Bilinear<L>(L::Load(v[0]), L::Load(v[1]), L::Load(v[2]), L::Load(v[3]),
                                                 L::Load(v[4]), L::Load(v[5]), L::Load(v[6])));
    ASSERT_TRUE(SameBits(s, l)) << i;

    S::V slo = S::Load(v[4]), shi = S::Load(v[5]), srlo = S::Load(v[0]), srhi = S::Load(v[1]);
    L::V llo = L::Load(v[4]), lhi = L::Load(v[5]), lrlo = L::Load(v[0]), lrhi = L::Load(v[1]);
    const int sq = detail::Route<S>(S::Half(S::Add(slo, shi)), S::Load(v[6]), slo, shi, srlo, srhi);
    const int lq = detail::Route<L>(L::Half(L::Add(llo, lhi)), L::Load(v[6]), llo, lhi, lrlo, lrhi);
    ASSERT_EQ(sq, lq) << i;
    ASSERT_TRUE(SameBits(S::ToVec(slo), L::ToVec(llo)) && SameBits(S::ToVec(shi), L::ToVec(lhi)) &&
                SameBits(S::ToVec(srlo), L::ToVec(lrlo)) && SameBits(S::ToVec(srhi), L::ToVec(lrhi)))
        << i;
    ASSERT_EQ(detail::InRoute<S>(srlo, srhi, S::Load(v[2])), detail::InRoute<L>(lrlo, lrhi, L::Load(v[2])));
  }
}

}  // namespace
}  // namespace kel
