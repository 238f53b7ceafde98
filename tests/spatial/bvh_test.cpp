#include "kel/spatial/bvh.h"

#include <cfloat>
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "spatial/detail/lane4.h"
#include "spatial/soup.h"

namespace kel::fdo {
namespace {

using test::BruteForce;
using test::RandomSoup;
using test::Soup;
using test::SoupIntersector;

void Build(bvh& tree, const Soup& s) {
  simple_primitive_iterator it(s.xyz.data(), 12, s.tri.data(), s.count());
  tree.build(it);
}

// Every primitive appears once, leaves partition the index array, and each
// node's box holds its children's boxes.
void CheckStructure(const bvh& tree, int n) {
  ASSERT_EQ(tree.getPrimitiveCount(), n);
  std::vector<int> seen(std::size_t(n), 0);
  for (int i = 0; i < n; ++i) ++seen.at(tree.getPrimitiveIndices()[i]);
  for (int v : seen) ASSERT_EQ(v, 1);
  const node* nd = tree.getNodes();
  int leafSlots = 0;
  for (int i = 0; i < tree.getNodeCount(); ++i) {
    if (nd[i].count > 0) {
      leafSlots += nd[i].count;
      continue;
    }
    for (int c = nd[i].first; c <= nd[i].first + 1; ++c) {
      ASSERT_LT(c, tree.getNodeCount());
      EXPECT_LE(nd[i].minX, nd[c].minX);
      EXPECT_LE(nd[i].minY, nd[c].minY);
      EXPECT_LE(nd[i].minZ, nd[c].minZ);
      EXPECT_GE(nd[i].maxX, nd[c].maxX);
      EXPECT_GE(nd[i].maxY, nd[c].maxY);
      EXPECT_GE(nd[i].maxZ, nd[c].maxZ);
    }
  }
  EXPECT_EQ(leafSlots, n);
}

TEST(Bvh, NearestHitMatchesBruteForceAfterReloadAndUnderAPresetDistance) {
  std::mt19937 rng(1234);
  std::uniform_real_distribution<float> u(-10.0f, 110.0f), dir(-1.0f, 1.0f);
  for (int n : {1, 3, 4, 5, 17, 200, 3000}) {
    const Soup s = RandomSoup(rng, n, 100.0f, 4.0f);
    bvh tree;
    Build(tree, s);
    CheckStructure(tree, n);
    // A tree reloaded from the built one's nodes and indices answers alike.
    bvh loaded;
    loaded.setNodes(tree.getNodes(), tree.getNodeCount());
    loaded.setPrimitiveIndices(tree.getPrimitiveIndices(), tree.getPrimitiveCount());
    EXPECT_EQ(loaded.getNodeCapacity(), tree.getNodeCount());
    SoupIntersector x(s);
    int hits = 0;
    for (int q = 0; q < 600; ++q) {
      // Aim at a random triangle's neighbourhood so that most rays hit something.
      const float* target = &s.xyz[3 * std::uniform_int_distribution<std::size_t>(0, s.xyz.size() / 3 - 1)(rng)];
      const ray r0 = MakeRay(u(rng), u(rng), u(rng), 0, 0, 0);
      float d[3] = {target[0] + dir(rng) - r0.origin[0], target[1] + dir(rng) - r0.origin[1],
                    target[2] + dir(rng) - r0.origin[2]};
      const ray r = MakeRay(r0.origin[0], r0.origin[1], r0.origin[2], d[0], d[1], d[2]);
      const hit expect = BruteForce(s, r);
      hit got{~0u, FLT_MAX};
      tree.intersect(got, r, x);
      ASSERT_EQ(got.t, expect.t) << "n=" << n << " query " << q;
      hit again{~0u, FLT_MAX};
      loaded.intersect(again, r, x);
      EXPECT_EQ(again.t, got.t);
      EXPECT_EQ(again.primitive, got.primitive);
      if (expect.primitive == ~0u) continue;
      ++hits;
      float t[4];
      ASSERT_TRUE(x.intersect(int(got.primitive), r, t));
      EXPECT_EQ(t[0], got.t);
      // A preset distance hides every hit not strictly nearer.
      hit limited{12345u, expect.t}, half{777u, expect.t * 0.5f};
      tree.intersect(limited, r, x);
      tree.intersect(half, r, x);
      EXPECT_EQ(limited.primitive, 12345u);
      EXPECT_EQ(limited.t, expect.t);
      EXPECT_EQ(half.primitive, 777u);
    }
    EXPECT_GT(hits, 50) << n;
  }
}

TEST(Bvh, VerticalRaysAgreeWithSlightlyTiltedRays) {
  std::mt19937 rng(99);
  // A bumpy height field plus scattered triangles.
  Soup s;
  const int g = 40;
  for (int y = 0; y <= g; ++y)
    for (int x = 0; x <= g; ++x) {
      s.xyz.insert(s.xyz.end(), {float(x), float(y), std::sin(x * 0.3f) * std::cos(y * 0.2f) * 3.0f});
    }
  for (int y = 0; y < g; ++y)
    for (int x = 0; x < g; ++x) {
      const std::uint32_t a = std::uint32_t(y * (g + 1) + x), b = a + 1, c = a + g + 1, d = c + 1;
      s.tri.insert(s.tri.end(), {a, b, d, a, d, c});
    }
  const Soup extra = RandomSoup(rng, 300, float(g), 1.5f);
  const std::uint32_t base = std::uint32_t(s.xyz.size() / 3);
  s.xyz.insert(s.xyz.end(), extra.xyz.begin(), extra.xyz.end());
  for (auto i : extra.tri) s.tri.push_back(i + base);
  bvh tree;
  Build(tree, s);
  SoupIntersector x(s);
  std::uniform_real_distribution<float> p(0.3f, g - 0.3f);
  for (int q = 0; q < 500; ++q) {
    const float px = p(rng), py = p(rng);
    for (float dz : {-1.0f, 1.0f}) {
      const float oz = dz < 0 ? 100.0f : -100.0f;
      const ray vertical = MakeRay(px, py, oz, 0.0f, 0.0f, dz);
      const ray tilted = MakeRay(px, py, oz, 1e-7f, -1e-7f, dz);
      hit a{~0u, FLT_MAX}, b{~0u, FLT_MAX};
      tree.intersect(a, vertical, x);
      tree.intersect(b, tilted, x);
      ASSERT_NE(a.primitive, ~0u);
      EXPECT_NEAR(a.t, b.t, 1e-3f);
      const hit brute = BruteForce(s, vertical);
      EXPECT_EQ(a.t, brute.t);
    }
  }
}

TEST(Bvh, OnlyExactlyVerticalRaysTakeTheColumnWalk) {
  // A ray along the box's x = 0 face: the slab test meets 0 * inf there and
  // misses, the column walk takes the face as inside and finds the edge.
  Soup s;
  s.add({0, 0, 0, 2, 0, 0, 0, 2, 0});
  bvh tree;
  Build(tree, s);
  SoupIntersector x(s);
  struct Case {
    float dz;
    bool hits;
  };
  for (const Case c : {Case{-1.0f, true}, Case{1.0f, true}, Case{-0.5f, false}, Case{0.5f, false}}) {
    hit h{~0u, FLT_MAX};
    // Filled by hand: MakeRay would scale (0, 0, 0.5) to unit length.
    ray r = MakeRay(0, 0.5f, c.dz < 0 ? 5.0f : -5.0f, 0, 0, 1);
    r.direction[2] = c.dz;
    r.invDirection[2] = 1.0f / c.dz;
    tree.intersect(h, r, x);
    EXPECT_EQ(h.primitive != ~0u, c.hits) << c.dz;
  }
}

TEST(Bvh, FourOrFewerPrimitivesOrCoincidentCentroidsMakeOneLeaf) {
  std::mt19937 rng(5);
  for (int n = 1; n <= 4; ++n) {
    bvh tree;
    Build(tree, RandomSoup(rng, n, 50.0f, 2.0f));
    EXPECT_EQ(tree.getNodeCount(), 1) << n;
    EXPECT_EQ(tree.getNodes()[0].count, n);
    EXPECT_EQ(tree.getNodes()[0].first, 0);
  }
  Soup s;
  for (int i = 0; i < 50; ++i) {
    const float r = 1.0f + i;
    s.add({-r, -r, -r, r, r, r, 0, 0, 0});
  }
  bvh tree;
  Build(tree, s);
  EXPECT_EQ(tree.getNodeCount(), 1);
  EXPECT_EQ(tree.getNodes()[0].count, 50);
}

TEST(Bvh, NodeCapacityFollowsTheTriangleCountAndTheFirstBuildFixesEpsilon) {
  std::mt19937 rng(8);
  struct Case {
    int n, capacityAtLeast;
  };
  for (const Case c : {Case{0, 1}, Case{1, 1}, Case{5, 4}, Case{100, 76}}) {
    bvh tree;
    Build(tree, RandomSoup(rng, c.n, 10.0f, 1.0f));
    EXPECT_GE(tree.getNodeCapacity(), c.capacityAtLeast);
    EXPECT_LE(tree.getNodeCount(), tree.getNodeCapacity());
    EXPECT_EQ(tree.getNodeCount() % 2, 1);
  }
  // The epsilon is fixed by the first build.
  std::mt19937 seeded(3);
  bvh tree;
  Build(tree, RandomSoup(seeded, 20, 1000.0f, 1.0f));
  const float eps = tree.getEpsilon();
  EXPECT_GT(eps, 0.0f);
  EXPECT_LT(eps, 1000.0f * 2e-5f);
  Build(tree, RandomSoup(seeded, 20, 1.0f, 0.1f));
  EXPECT_EQ(tree.getEpsilon(), eps);
}

TEST(Bvh, EqualDistancesKeepTheFirstInTraversalOrder) {
  // Three copies of one triangle in a single leaf: slot order decides.
  Soup s;
  for (int k = 0; k < 3; ++k) s.add({0, 0, 0, 4, 0, 0, 0, 4, 0});
  bvh tree;
  Build(tree, s);
  SoupIntersector x(s);
  for (const ray& r : {MakeRay(1, 1, 5, 0, 0, -1), MakeRay(1, 1, 5, 0.01f, 0, -1)}) {
    hit h{~0u, FLT_MAX};
    tree.intersect(h, r, x);
    EXPECT_EQ(h.primitive, 0u);
    EXPECT_NEAR(h.t, 5.0f, 1e-3f);
  }
  // Across leaves: random triangles plus six copies of the target; the winner
  // is the first of the copies in the tree's slot order.
  std::mt19937 rng(21);
  Soup many = RandomSoup(rng, 64, 100.0f, 1.0f);
  for (int k = 0; k < 6; ++k) many.add({50, 50, 150, 52, 50, 150, 50, 52, 150});
  bvh big;
  Build(big, many);
  SoupIntersector y(many);
  hit h{~0u, FLT_MAX};
  big.intersect(h, MakeRay(50.5f, 50.5f, 200.0f, 0, 0, -1), y);
  EXPECT_FLOAT_EQ(h.t, 50.0f);
  int firstSlot = 0;
  while (big.getPrimitiveIndices()[firstSlot] < 64u) ++firstSlot;
  EXPECT_EQ(h.primitive, big.getPrimitiveIndices()[firstSlot]);
}

TEST(Bvh, EmptyTreeReportsNothing) {
  bvh tree;
  Soup s;
  SoupIntersector x(s);
  hit h{42u, 7.0f};
  tree.intersect(h, MakeRay(0, 0, 0, 0, 0, -1), x);  // never built
  Build(tree, s);
  EXPECT_EQ(tree.getNodeCount(), 1);
  tree.intersect(h, MakeRay(0, 0, 0, 0.3f, 0, -1), x);
  tree.intersect(h, MakeRay(0, 0, 0, 0, 0, -1), x);
  EXPECT_EQ(h.primitive, 42u);
  EXPECT_EQ(h.t, 7.0f);
  EXPECT_EQ(x.calls, 0);
}

TEST(Bvh, PrintRootWritesTheRootBox) {
  Soup s;
  s.add({1, 2, 3, 4, 5, 6, 1, 5, 3});
  bvh tree;
  Build(tree, s);
  testing::internal::CaptureStderr();
  tree.printRoot();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "BVH box: 1.000000   2.000000   3.000000 : 4.000000   5.000000   6.000000\n\n");
}

TEST(Bvh, NonFiniteAndExponentiallySpacedInputStillBuildsAValidTree) {
  std::mt19937 rng(4);
  Soup s = RandomSoup(rng, 100, 10.0f, 1.0f);
  s.xyz[0] = std::nanf("");
  s.xyz[10] = std::numeric_limits<float>::infinity();
  s.xyz[20] = -std::numeric_limits<float>::infinity();
  bvh tree;
  Build(tree, s);
  CheckStructure(tree, 100);
  SoupIntersector x(s);
  hit h{~0u, FLT_MAX};
  tree.intersect(h, MakeRay(5, 5, 20, 0, 0, -1), x);
  tree.intersect(h, MakeRay(5, 5, 20, 0.1f, 0, -1), x);

  // Each split peels off one primitive; the depth cap keeps queries in bounds.
  Soup chain;
  for (int i = 0; i < 400; ++i) {
    const float at = std::ldexp(1.0f, i / 4 - 40);
    chain.add({at, 0, 0, at, 1, 0, at, 0, 1});
  }
  bvh deep;
  Build(deep, chain);
  CheckStructure(deep, 400);
  SoupIntersector y(chain);
  const ray r = MakeRay(std::ldexp(1.0f, 60), 0.1f, 0.1f, -1, 0, 0);
  hit g{~0u, FLT_MAX};
  deep.intersect(g, r, y);
  EXPECT_EQ(g.t, BruteForce(chain, r).t);
}

TEST(Lane4, SimdAndScalarSlabTestsAgreeBitForBit) {
#if KEL_HAS_SSE2
  namespace sc = detail::scalar;
  namespace ss = detail::sse;
  std::mt19937 rng(77);
  std::uniform_real_distribution<float> v(-100.0f, 100.0f);
  std::uniform_int_distribution<int> special(0, 9);
  auto pick = [&]() -> float {
    switch (special(rng)) {
      case 0: return 0.0f;
      case 1: return std::numeric_limits<float>::infinity();
      case 2: return -std::numeric_limits<float>::infinity();
      case 3: return std::nanf("");
      default: return v(rng);
    }
  };
  for (int i = 0; i < 20000; ++i) {
    alignas(16) float lo[4], hi[4], o[4], inv[4];
    for (int a = 0; a < 4; ++a) {
      lo[a] = pick();
      hi[a] = pick();
      o[a] = pick();
      inv[a] = pick();
    }
    float tn1 = 0, tn2 = 0;
    const bool h1 = sc::SlabTest(sc::Load(lo), sc::Load(hi), sc::Load(o), sc::Load(inv), tn1);
    const bool h2 = ss::SlabTest(ss::Load(lo), ss::Load(hi), ss::Load(o), ss::Load(inv), tn2);
    ASSERT_EQ(h1, h2) << i;
    ASSERT_EQ(std::memcmp(&tn1, &tn2, 4), 0) << i;
    alignas(16) float m1[4], m2[4];
    sc::Store(m1, sc::ClearW(sc::Min(sc::Load(lo), sc::Load(hi))));
    ss::Store(m2, ss::ClearW(ss::Min(ss::Load(lo), ss::Load(hi))));
    ASSERT_EQ(std::memcmp(m1, m2, 16), 0);
    sc::Store(m1, sc::Max(sc::Mul(sc::Add(sc::Load(lo), sc::Load(hi)), sc::Set1(0.5f)), sc::Load(o)));
    ss::Store(m2, ss::Max(ss::Mul(ss::Add(ss::Load(lo), ss::Load(hi)), ss::Set1(0.5f)), ss::Load(o)));
    ASSERT_EQ(std::memcmp(m1, m2, 16), 0);
  }
#else
  GTEST_SKIP() << "scalar-only build";
#endif
}

TEST(Lane4, SlabTestTurnsNanFromZeroTimesInfinityIntoAMiss) {
  namespace sc = detail::scalar;
  const float inf = __builtin_huge_valf();
  alignas(16) float lo[4] = {0, 0, 0, 0}, hi[4] = {1, 1, 1, 0};
  alignas(16) float o[4] = {0.5f, 0.5f, 2, 0}, inv[4] = {inf, inf, -1, 0};
  float tn;
  // Direction (0, 0, -1) from above the box's middle: a plain hit.
  EXPECT_TRUE(sc::SlabTest(sc::Load(lo), sc::Load(hi), sc::Load(o), sc::Load(inv), tn));
  EXPECT_EQ(tn, 1.0f);
  o[2] = -2;  // behind the ray
  EXPECT_FALSE(sc::SlabTest(sc::Load(lo), sc::Load(hi), sc::Load(o), sc::Load(inv), tn));
  // Origin on the x = 0 face: 0 * inf is NaN, which the clamps turn into an
  // empty interval rather than a NaN distance.
  o[0] = 0;
  o[2] = 2;
  EXPECT_FALSE(sc::SlabTest(sc::Load(lo), sc::Load(hi), sc::Load(o), sc::Load(inv), tn));
}

}  // namespace
}  // namespace kel::fdo
