#include "kel/spatial/pick_index.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "spatial/detail/aligned_memory.h"
#include "spatial/detail/pick_kernel.h"
#include "spatial/soup.h"

namespace kel::fdo {
namespace {

using test::Soup;

constexpr float kInf = std::numeric_limits<float>::infinity();

struct Indexed {
  explicit Indexed(Soup s) : soup(std::move(s)) {
    simple_primitive_iterator it(soup.xyz.data(), 12, soup.tri.data(), soup.count());
    tree.build(it);
    index = pick_index(soup.xyz.data(), soup.xyz.size() / 3, soup.tri.data(), std::size_t(soup.count()));
  }
  Soup soup;
  bvh tree;
  pick_index index;
};

// The model: every triangle through the kernels' own triangle test, the
// nearest kept, ties to the lowest primitive, never the preset distance.
hit Scan(const Soup& s, const ray& r, hit io = {~0u, FLT_MAX}) {
  detail::PickRay pr;
  if (!detail::PrepareRay(r, 0.0f, pr)) return io;
  bool found = false;
  for (std::uint32_t i = 0; i < std::uint32_t(s.count()); ++i) {
    const std::uint32_t* t = &s.tri[3 * std::size_t(i)];
    float d;
    if (!detail::TestTriangle(pr, &s.xyz[3 * t[0]], &s.xyz[3 * t[1]], &s.xyz[3 * t[2]], d)) continue;
    if (d < io.t || (found && d == io.t && i < io.primitive)) io = hit{i, d}, found = true;
  }
  return io;
}

hit Pick(const pick_index& index, const ray& r, hit io = {~0u, FLT_MAX}) {
  index.intersect(io, r);
  return io;
}

hit Exact(const Indexed& x, const ray& r) {
  test::SoupIntersector in(x.soup);
  hit h{~0u, FLT_MAX};
  x.tree.intersect(h, r, in);
  return h;
}

std::vector<pick_kernel> Kernels() {
  std::vector<pick_kernel> out;
  for (auto k : {pick_kernel::scalar, pick_kernel::sse2, pick_kernel::avx2, pick_kernel::avx512})
    if (pick_index::kernelAvailable(k)) out.push_back(k);
  return out;
}

float Bumps(float x, float y) { return 3.0f * std::sin(x * 0.3f) * std::cos(y * 0.2f); }

// Random rays of every kind the index treats differently: aimed at a
// triangle, straight down (the column walk), straight up, from inside.
std::vector<ray> MixedRays(const Soup& s, std::mt19937& rng, int n) {
  float lo[3] = {kInf, kInf, kInf}, hi[3] = {-kInf, -kInf, -kInf};
  for (std::size_t i = 0; i < s.xyz.size(); ++i)
    if (std::isfinite(s.xyz[i])) lo[i % 3] = std::min(lo[i % 3], s.xyz[i]), hi[i % 3] = std::max(hi[i % 3], s.xyz[i]);
  std::uniform_real_distribution<float> u(0.0f, 1.0f), jitter(-1.0f, 1.0f);
  auto in = [&](int a) { return lo[a] + (hi[a] - lo[a]) * (1.2f * u(rng) - 0.1f); };
  std::vector<ray> rays;
  for (int q = 0; q < n; ++q) {
    const float* target = &s.xyz[3 * std::uniform_int_distribution<std::size_t>(0, s.xyz.size() / 3 - 1)(rng)];
    const float x = in(0), y = in(1), z = in(2);
    switch (q % 4) {
      case 0: rays.push_back(MakeRay(x, y, z, target[0] + jitter(rng) - x, target[1] + jitter(rng) - y,
                                     target[2] + jitter(rng) - z)); break;
      case 1: rays.push_back(MakeRay(x, y, hi[2] + 1.0f, 0, 0, -1)); break;
      case 2: rays.push_back(MakeRay(x, y, lo[2] - 1.0f, 0, 0, 1)); break;
      default: rays.push_back(MakeRay(x, y, z, jitter(rng), jitter(rng), jitter(rng))); break;
    }
  }
  return rays;
}

struct SoupCase {
  const char* label;
  Soup soup;
};

std::vector<SoupCase> Soups() {
  std::mt19937 rng(2024);
  std::vector<SoupCase> cases;
  for (int n : {1, 5, 40, 3000}) cases.push_back({"random soup", test::RandomSoup(rng, n, 100.0f, 4.0f)});
  Soup city = test::GridTerrain(40, Bumps);
  test::Append(city, test::RandomSoup(rng, 300, 40.0f, 1.5f));
  cases.push_back({"terrain with clutter", city});
  // One vertex made NaN, one infinite: those triangles can never be hit.
  Soup broken = test::RandomSoup(rng, 200, 50.0f, 3.0f);
  broken.xyz[4] = std::nanf("");
  broken.xyz[3 * 30 + 2] = kInf;
  cases.push_back({"non-finite vertices", broken});
  // Spread far apart and long thin: huge triangles, far origins.
  cases.push_back({"large coordinates", test::RandomSoup(rng, 300, 2e5f, 5e3f)});
  return cases;
}

TEST(PickIndex, EveryKernelMatchesAFlatScanAndAgreesWithTheExactWalk) {
  std::mt19937 rng(7);
  for (SoupCase& c : Soups()) {
    Indexed x(std::move(c.soup));
    int hits = 0, exactDisagreements = 0;
    for (const ray& r : MixedRays(x.soup, rng, 400)) {
      const hit want = Scan(x.soup, r);
      hits += want.primitive != ~0u;
      for (pick_kernel k : Kernels()) {
        ASSERT_TRUE(x.index.setKernel(k));
        const hit got = Pick(x.index, r);
        ASSERT_EQ(got.primitive, want.primitive) << c.label << " " << pick_index::kernelName(k);
        ASSERT_EQ(std::memcmp(&got.t, &want.t, 4), 0) << c.label << " " << pick_index::kernelName(k);
        // A preset distance hides every hit not strictly nearer.
        if (want.primitive != ~0u) {
          const hit limited = Pick(x.index, r, hit{77u, want.t});
          EXPECT_EQ(limited.primitive, 77u);
        }
      }
      exactDisagreements += !test::Agree(x.soup, r, Exact(x, r), want);
    }
    EXPECT_EQ(exactDisagreements, 0) << c.label;
    EXPECT_GT(hits, 10) << c.label;
  }
}

TEST(PickIndex, RaysThroughSharedEdgesAndVerticesOfAClosedTerrainAllHit) {
  const int n = 256;
  Indexed x(test::GridTerrain(n, [](float px, float py) { return 20.0f * std::sin(px * 0.05f) * std::cos(py * 0.04f); }));
  std::mt19937 rng(11);
  std::uniform_int_distribution<int> cell(2, n - 3), side(0, 2);
  std::uniform_real_distribution<float> along(0.0f, 1.0f), tilt(-0.6f, 0.6f);
  auto vertex = [&](int i, int j) { return &x.soup.xyz[3 * std::size_t(j * (n + 1) + i)]; };
  std::vector<ray> rays;
  for (int q = 0; q < 600; ++q) {
    const int i = cell(rng), j = cell(rng);
    // A point on the quad's bottom, left or diagonal edge, or a vertex.
    const float* a = vertex(i, j);
    const int e = side(rng);
    const float* b = e == 0 ? vertex(i + 1, j) : e == 1 ? vertex(i, j + 1) : vertex(i + 1, j + 1);
    const float s = q % 3 == 0 ? 0.0f : along(rng);
    const float p[3] = {a[0] + s * (b[0] - a[0]), a[1] + s * (b[1] - a[1]), a[2] + s * (b[2] - a[2])};
    const float d[3] = {q % 5 == 0 ? 0.0f : tilt(rng), q % 5 == 0 ? 0.0f : tilt(rng), q % 2 ? -1.0f : 1.0f};
    const ray dir = MakeRay(0, 0, 0, d[0], d[1], d[2]);
    const float back = 60.0f;
    rays.push_back(MakeRay(p[0] - back * dir.direction[0], p[1] - back * dir.direction[1],
                           p[2] - back * dir.direction[2], d[0], d[1], d[2]));
  }
  int exactMisses = 0;
  for (pick_kernel k : Kernels()) {
    ASSERT_TRUE(x.index.setKernel(k));
    int misses = 0;
    for (const ray& r : rays) misses += Pick(x.index, r).primitive == ~0u;
    EXPECT_EQ(misses, 0) << pick_index::kernelName(k);
  }
  for (const ray& r : rays) exactMisses += Exact(x, r).primitive == ~0u;
  RecordProperty("exact_walk_misses", exactMisses);  // the float test lets some slip through
}

TEST(PickIndex, EqualDistancesGoToTheLowestPrimitive) {
  // Copies of one triangle spread through a soup, so they land in
  // different packets and leaves; and two coplanar triangles overlapping.
  std::mt19937 rng(3);
  Soup s = test::RandomSoup(rng, 500, 100.0f, 2.0f);
  const std::vector<float> copy = {50, 50, 150, 54, 50, 150, 50, 54, 150};
  std::vector<std::uint32_t> copies;
  for (int k = 0; k < 7; ++k) {
    const auto at = std::uint32_t(std::uniform_int_distribution<int>(0, s.count())(rng));
    const auto base = std::uint32_t(s.xyz.size() / 3);
    s.xyz.insert(s.xyz.end(), copy.begin(), copy.end());
    s.tri.insert(s.tri.begin() + 3 * std::ptrdiff_t(at), {base, base + 1, base + 2});
    for (auto& c : copies) c += c >= at;
    copies.push_back(at);
  }
  const std::uint32_t lowest = *std::min_element(copies.begin(), copies.end());
  Indexed x(std::move(s));
  for (pick_kernel k : Kernels()) {
    ASSERT_TRUE(x.index.setKernel(k));
    for (const ray& r : {MakeRay(51, 51, 200, 0, 0, -1), MakeRay(51, 51, 100, 0, 0, 1), MakeRay(51, 51, 200, 0.01f, 0.02f, -1),
                         MakeRay(51.2f, 51.3f, 100, -0.01f, 0, 1)}) {
      const hit h = Pick(x.index, r);
      EXPECT_EQ(h.primitive, lowest) << pick_index::kernelName(k);
      EXPECT_EQ(h.t, Scan(x.soup, r).t);
    }
  }
}

TEST(PickIndex, NonFiniteOrZeroRaysHitNothing) {
  std::mt19937 rng(5);
  Indexed x(test::RandomSoup(rng, 100, 10.0f, 3.0f));
  const float nan = std::nanf("");
  struct Case {
    const char* label;
    ray r;
  };
  auto raw = [](float ox, float oy, float oz, float dx, float dy, float dz) {
    ray r{};
    r.origin[0] = ox, r.origin[1] = oy, r.origin[2] = oz;
    r.direction[0] = dx, r.direction[1] = dy, r.direction[2] = dz;
    return r;
  };
  const Case cases[] = {
      {"NaN origin", raw(nan, 5, 20, 0, 0, -1)},   {"infinite origin", raw(5, 5, kInf, 0, 0, -1)},
      {"NaN direction", raw(5, 5, 20, nan, 0, -1)}, {"infinite direction", raw(5, 5, 20, 0, -kInf, -1)},
      {"zero direction", raw(5, 5, 5, 0, 0, 0)},    {"negative zero direction", raw(5, 5, 5, -0.0f, 0, -0.0f)},
  };
  for (const Case& c : cases) {
    hit h{42u, 3.0f};
    x.index.intersect(h, c.r);
    EXPECT_EQ(h.primitive, 42u) << c.label;
    EXPECT_EQ(h.t, 3.0f) << c.label;
  }
}

TEST(PickIndex, HeightsBatchesAndWeightsFollowSingleRays) {
  Indexed x(test::GridTerrain(64, Bumps));
  std::mt19937 rng(9);
  std::uniform_real_distribution<float> p(-5.0f, 69.0f);
  std::vector<ray> rays = MixedRays(x.soup, rng, 2000);
  std::vector<hit> batch(rays.size(), hit{~0u, FLT_MAX});
  x.index.intersect(batch.data(), rays.data(), rays.size());
  for (std::size_t i = 0; i < rays.size(); ++i) {
    float uv[2];
    hit one{~0u, FLT_MAX};
    x.index.intersect(one, rays[i], uv);
    ASSERT_EQ(batch[i].primitive, one.primitive);
    ASSERT_EQ(batch[i].t, one.t);
    if (one.primitive == ~0u) continue;
    // The weights rebuild the hit point from the triangle's corners.
    const std::uint32_t* t = &x.soup.tri[3 * std::size_t(one.primitive)];
    for (int a = 0; a < 3; ++a) {
      const float c0 = x.soup.xyz[3 * t[0] + a], c1 = x.soup.xyz[3 * t[1] + a], c2 = x.soup.xyz[3 * t[2] + a];
      EXPECT_NEAR(c0 + uv[0] * (c1 - c0) + uv[1] * (c2 - c0), rays[i].origin[a] + one.t * rays[i].direction[a], 1e-3);
    }
  }
  for (int q = 0; q < 500; ++q) {
    const float px = p(rng), py = p(rng);
    float z = 0;
    std::uint32_t prim = 0;
    const bool inside = px >= 0 && px <= 64 && py >= 0 && py <= 64;
    ASSERT_EQ(x.index.heightAt(px, py, z, &prim), inside) << px << " " << py;
    if (!inside) continue;
    const hit down = Scan(x.soup, MakeRay(px, py, 3.0f, 0, 0, -1));
    EXPECT_EQ(prim, down.primitive);
    EXPECT_NEAR(z, 3.0f - down.t, 1e-5);
  }
  float z;
  EXPECT_FALSE(x.index.heightAt(std::nanf(""), 3.0f, z));
}

TEST(PickIndex, RefusesIndicesNamingNoVertexAndAnswersNothingWhenEmpty) {
  std::mt19937 rng(1);
  Soup s = test::RandomSoup(rng, 50, 10.0f, 1.0f);
  EXPECT_THROW(pick_index(s.xyz.data(), s.xyz.size() / 3 - 1, s.tri.data(), 50), std::invalid_argument);
  const pick_index idle(nullptr, 0, nullptr, 0);
  hit h{5u, 1.0f};
  idle.intersect(h, MakeRay(0, 0, 1, 0, 0, -1));
  EXPECT_EQ(h.primitive, 5u);
  float z;
  EXPECT_FALSE(idle.heightAt(0, 0, z));
  EXPECT_EQ(idle.getStats().bytes(), 0u);
}

// Large blocks are shortened where they stand, small ones may move; either
// way the kept bytes and the alignment survive.
TEST(PickIndex, ShrunkBlocksKeepTheirBytesAndAlignment) {
  for (const std::size_t from : {std::size_t{1000}, std::size_t{9} << 20}) {
    auto* p = static_cast<std::uint8_t*>(detail::AllocBlock(from, 64));
    const std::size_t to = from / 3;
    for (std::size_t i = 0; i < to; ++i) p[i] = std::uint8_t(i * 7);
    std::unique_ptr<std::uint8_t[], detail::BlockFree> q(static_cast<std::uint8_t*>(detail::ShrinkBlock(p, to, 64)));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(q.get()) % 64, 0u);
    std::size_t same = 0;
    for (std::size_t i = 0; i < to; ++i) same += q[i] == std::uint8_t(i * 7);
    EXPECT_EQ(same, to) << from;
  }
}

}  // namespace
}  // namespace kel::fdo
