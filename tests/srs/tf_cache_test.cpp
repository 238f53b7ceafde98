#include "kel/srs/tf_cache.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "kel/srs/srs_transform.h"
#include "kel/core/log.h"
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
bool SameBitsOrNan(double a, double b) {
  return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0;
}

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

// The cache's algorithm transcribed step by step, scalar and unoptimised: the
// reference our cache must match bit for bit.
class ModelCache {
public:
  ModelCache(const Box2& region, double tolerance, const ITransform* t, std::size_t maxDepth)
      : t_(t), region_(region), tol2_(tolerance * tolerance), maxDepth_(maxDepth) {
    for (Vec2d c : {region.min, Vec2d(region.max.x(), region.min.y()), Vec2d(region.min.x(), region.max.y()),
                    region.max}) {
      t_->Transform(c);
      vertices_.push_back(c);
    }
    nodes_.push_back({0, 2, 1, 3, 0});
  }
  std::size_t nodeCount() const { return nodes_.size(); }
  void transform(Vec2d& p) {
    Vec2d lo = region_.min, hi = region_.max;
    std::size_t node = 0, depth = 0;
    for (;;) {
      if (maxDepth_ != 0 && ++depth > maxDepth_) {
        KEL_LOG_WARN(L"Search tree depth exceeded. Performing slow transform.");
        t_->Transform(p);
        return;
      }
      if (nodes_[node].state == -1) return interpolate(node, lo, hi, p);
      const Vec2d c((lo.x() + hi.x()) / 2, (lo.y() + hi.y()) / 2);
      if (nodes_[node].state == 0) {
        Vec2d exact = c, approx = c;
        t_->Transform(exact);
        interpolate(node, lo, hi, approx);
        const double dx = exact.x() - approx.x(), dy = exact.y() - approx.y();
        if (dx * dx + dy * dy <= tol2_) {
          nodes_[node].state = -1;
          return interpolate(node, lo, hi, p);
        }
        const std::uint64_t n = vertices_.size();
        vertices_.push_back(exact);
        for (Vec2d m : {Vec2d(c.x(), lo.y()), Vec2d(lo.x(), c.y()), Vec2d(hi.x(), c.y()), Vec2d(c.x(), hi.y())}) {
          t_->Transform(m);
          vertices_.push_back(m);
        }
        const Node parent = nodes_[node];
        const auto m = static_cast<std::int32_t>(nodes_.size());
        nodes_.push_back({parent.ll, n + 2, n + 1, n, 0});
        nodes_.push_back({n + 1, n, parent.lr, n + 3, 0});
        nodes_.push_back({n + 2, parent.ul, n, n + 4, 0});
        nodes_.push_back({n, n + 4, n + 3, parent.ur, 0});
        nodes_[node].state = m;
      }
      std::size_t q = 0;
      if (c.x() <= p.x()) lo.x() = c.x(), q += 1;
      else hi.x() = c.x();
      if (c.y() <= p.y()) lo.y() = c.y(), q += 2;
      else hi.y() = c.y();
      node = static_cast<std::size_t>(nodes_[node].state) + q;
    }
  }

private:
  struct Node {
    std::uint64_t ll, ul, lr, ur;
    std::int32_t state;
  };
  void interpolate(std::size_t node, const Vec2d& lo, const Vec2d& hi, Vec2d& p) const {
    const Node& n = nodes_[node];
    const double tx = (p.x() - lo.x()) / (hi.x() - lo.x()), ty = (p.y() - lo.y()) / (hi.y() - lo.y());
    const Vec2d &ll = vertices_[n.ll], &ul = vertices_[n.ul], &lr = vertices_[n.lr], &ur = vertices_[n.ur];
    const Vec2d bottom(ll.x() * (1 - tx) + lr.x() * tx, ll.y() * (1 - tx) + lr.y() * tx);
    const Vec2d top(ul.x() * (1 - tx) + ur.x() * tx, ul.y() * (1 - tx) + ur.y() * tx);
    p = Vec2d(bottom.x() * (1 - ty) + top.x() * ty, bottom.y() * (1 - ty) + top.y() * ty);
  }
  const ITransform* t_;
  Box2 region_;
  double tol2_;
  std::size_t maxDepth_;
  std::vector<Vec2d> vertices_;
  std::vector<Node> nodes_;
};

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

// Past the depth limit every query is the exact transform, with a warning.
TEST(TfCache, DepthLimitFallsBackToTheExactTransform) {
  const auto utm = ToUtm();
  const struct {
    double tolerance;
    std::size_t maxDepth, queries, nodes, vertices;
  } cases[] = {
      {0.0, 5, 1, 1 + 5 * 4, 4 + 5 * 5},  // five nodes split on the way down, the sixth visit falls back
      {1e-6, 1, 3, 5, 9},                 // the root split once, its children never tested
  };
  for (const auto& c : cases) {
    test::LogCapture log;
    TfCache cache(kRegion, c.tolerance, utm.get(), c.maxDepth);
    for (Vec2d p : RandomIn(kRegion, c.queries, 5)) {
      Vec2d exact = p;
      utm->Transform(exact);
      cache.transform(p);
      EXPECT_TRUE(SameBits(p, exact));
    }
    EXPECT_EQ(cache.nodeCount(), c.nodes);
    EXPECT_EQ(cache.vertexCount(), c.vertices);
    EXPECT_EQ(log.log().countOf(kDepthWarning), static_cast<int>(c.queries));
  }
  TfCache none(kRegion, 0.001, nullptr, 0);  // no transform: nothing changes
  Vec2d p(9.6, 48.1);
  none.transform(p);
  EXPECT_EQ(p, Vec2d(9.6, 48.1));
  EXPECT_EQ(none.nodeCount(), 0u);
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

// Single and batch calls must be the literal algorithm bit for bit, in every
// order and also where points fall back to the exact transform, leave the
// region, sit on centre lines or are NaN; the tree must grow to the same size.
TEST(TfCache, MatchesTheLiteralAlgorithmBitForBit) {
  const auto utm = ToUtm();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const Vec2d centre((kRegion.min.x() + kRegion.max.x()) / 2, (kRegion.min.y() + kRegion.max.y()) / 2);
  std::vector<Vec2d> awkward{centre, {centre.x(), kRegion.min.y()}, {kRegion.max.x(), centre.y()},
                             kRegion.min, kRegion.max, {9.0, 47.0}, {nan, 48.1}, {9.6, nan}};
  std::vector<Vec2d> mixed = RandomIn(Box2(kRegion.min - Vec2d(0.1, 0.1), kRegion.max + Vec2d(0.1, 0.1)), 5000, 14);
  mixed.insert(mixed.end(), awkward.begin(), awkward.end());
  const auto walk = PolylineIn(kRegion, 5000, 15);
  mixed.insert(mixed.end(), walk.begin(), walk.end());
  const struct {
    const char* name;
    std::vector<Vec2d> points;
    double tolerance;
    std::size_t maxDepth;
  } cases[] = {
      {"random", RandomIn(kRegion, 20000, 11), 0.001, 0},
      {"polyline", PolylineIn(kRegion, 20000, 12), 0.001, 0},
      {"polyline, shallow", PolylineIn(kRegion, 3000, 13), 0.0001, 4},
      {"mixed, deep", mixed, 0.0002, 0},
      {"mixed, depth 7", mixed, 0.0002, 7},
      {"mixed, coarse", mixed, 0.05, 0},
      {"awkward", awkward, 0.001, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ModelCache model(kRegion, c.tolerance, utm.get(), c.maxDepth);
    TfCache single(kRegion, c.tolerance, utm.get(), c.maxDepth);
    TfCache batch(single);
    std::vector<Vec2d> expect = c.points, one = c.points, many = c.points;
    int warnings[3];
    {
      test::LogCapture log;
      for (Vec2d& p : expect) model.transform(p);
      warnings[0] = log.log().countOf(kDepthWarning);
    }
    {
      test::LogCapture log;
      for (Vec2d& p : one) single.transform(p);
      warnings[1] = log.log().countOf(kDepthWarning);
    }
    test::LogCapture log;
    batch.transform(MakeDataArray(many));
    warnings[2] = log.log().countOf(kDepthWarning);
    EXPECT_EQ(warnings[1], warnings[0]);
    EXPECT_EQ(warnings[2], warnings[0]);
    EXPECT_EQ(single.nodeCount(), model.nodeCount());
    EXPECT_EQ(batch.nodeCount(), model.nodeCount());
    for (std::size_t i = 0; i < expect.size(); ++i) {
      ASSERT_TRUE(SameBits(one[i], expect[i])) << i;
      ASSERT_TRUE(SameBits(many[i], expect[i])) << i;
    }
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
// lines included (a NaN's sign and payload depend on operand order, which the
// compiler may swap, so any NaN equals any NaN).
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
    for (int k = 0; k < 2; ++k) ASSERT_TRUE(SameBitsOrNan(s[k], l[k])) << i;

    S::V slo = S::Load(v[4]), shi = S::Load(v[5]), srlo = S::Load(v[0]), srhi = S::Load(v[1]);
    L::V llo = L::Load(v[4]), lhi = L::Load(v[5]), lrlo = L::Load(v[0]), lrhi = L::Load(v[1]);
    S::V sc = S::Half(S::Add(slo, shi));
    L::V lc = L::Half(L::Add(llo, lhi));
    const int sq = detail::Route<S>(S::Load(v[6]), slo, shi, sc, srlo, srhi);
    const int lq = detail::Route<L>(L::Load(v[6]), llo, lhi, lc, lrlo, lrhi);
    ASSERT_EQ(sq, lq) << i;
    ASSERT_TRUE(SameBits(S::ToVec(slo), L::ToVec(llo)) && SameBits(S::ToVec(shi), L::ToVec(lhi)) &&
                SameBits(S::ToVec(srlo), L::ToVec(lrlo)) && SameBits(S::ToVec(srhi), L::ToVec(lrhi)))
        << i;
    // The carried centre is the child's (lo + hi) / 2, bit for bit.
    ASSERT_TRUE(SameBits(S::ToVec(sc), S::ToVec(S::Half(S::Add(slo, shi)))));
    ASSERT_TRUE(SameBits(L::ToVec(lc), S::ToVec(sc)));
    ASSERT_EQ(detail::InRoute<S>(srlo, srhi, S::Load(v[2])), detail::InRoute<L>(lrlo, lrhi, L::Load(v[2])));
  }
}

}  // namespace
}  // namespace kel
