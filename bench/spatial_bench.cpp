// Picking on a city-sized tile: the exact bvh walk and the pick index
// against Embree 3 (RTC_BUILD_QUALITY_MEDIUM, one thread).
// Scene: a 1000 x 1000 quad terrain at 2 m spacing with smooth noisy heights,
// plus 20,000 box buildings (12 triangles each) on a jittered lattice, about
// 2.24 million triangles. Measured: builds, memory, vertical picks and random
// downward rays one at a time (random rays also over small sets that stay in
// cache), and batches on one and two threads.
//
// Before any timing every ray is checked: the pick index against the exact
// walk, Embree against the pick index, every kernel against the default
// one. Distances must agree unless a hit lies within rounding of a triangle
// edge; any violation ends the run with exit code 1.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <kel/sff/sff_file_stream.h>
#include <kel/sff/sff_writer.h>
#include <kel/spatial/bvh.h>
#include <kel/spatial/pick_index.h>
#include <kel/spatial/sff2bvh.h>

#include "spatial/detail/aligned_memory.h"

#if KEL_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif

namespace {

using kel::fdo::bvh;
using kel::fdo::hit;
using kel::fdo::MakeRay;
using kel::fdo::pick_index;
using kel::fdo::ray;

// Vectors on huge pages, as the tile loader keeps its soup.
template <typename T>
struct HugeAllocator {
  using value_type = T;
  HugeAllocator() = default;
  template <typename U>
  HugeAllocator(const HugeAllocator<U>&) {}
  T* allocate(std::size_t n) { return static_cast<T*>(kel::fdo::detail::AllocBlock(n * sizeof(T), 16)); }
  void deallocate(T* p, std::size_t) { std::free(p); }
  bool operator==(const HugeAllocator&) const { return true; }
};

struct Scene {
  std::vector<float, HugeAllocator<float>> xyz;
  std::vector<std::uint32_t, HugeAllocator<std::uint32_t>> tri;
  float top = 0;
  int triangles() const { return int(tri.size() / 3); }
  std::size_t vertices() const { return xyz.size() / 3; }
};

float Height(float x, float y) {
  return 20.0f * std::sin(x * 0.004f) * std::cos(y * 0.003f) + 4.0f * std::sin(x * 0.031f + 1.0f) * std::sin(y * 0.027f) +
         0.6f * std::sin(x * 0.21f) * std::cos(y * 0.17f);
}

Scene MakeScene() {
  Scene s;
  const int g = 1000;
  const float step = 2.0f;
  // One spare vertex: Embree reads 16 bytes from the last one of a shared buffer.
  s.xyz.reserve(std::size_t(g + 1) * (g + 1) * 3 + 20000 * 24 + 3);
  for (int y = 0; y <= g; ++y)
    for (int x = 0; x <= g; ++x) s.xyz.insert(s.xyz.end(), {x * step, y * step, Height(x * step, y * step)});
  s.tri.reserve(std::size_t(g) * g * 6 + 20000 * 36);
  for (int y = 0; y < g; ++y)
    for (int x = 0; x < g; ++x) {
      const std::uint32_t a = std::uint32_t(y * (g + 1) + x), b = a + 1, c = a + g + 1, d = c + 1;
      s.tri.insert(s.tri.end(), {a, b, d, a, d, c});
    }
  // 160 x 125 lattice cells of 12.5 x 16 m; a building stays inside its cell.
  std::mt19937 rng(42);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  const float cw = 2000.0f / 160, ch = 2000.0f / 125;
  for (int r = 0; r < 125; ++r)
    for (int c = 0; c < 160; ++c) {
      const float w = 3.0f + 6.0f * u(rng), d = 3.0f + 9.0f * u(rng), h = 5.0f + 35.0f * u(rng);
      const float x0 = c * cw + 0.5f + (cw - w - 1.0f) * u(rng), y0 = r * ch + 0.5f + (ch - d - 1.0f) * u(rng);
      const float z0 = Height(x0 + w / 2, y0 + d / 2) - 2.0f, z1 = z0 + 2.0f + h;
      const std::uint32_t b = std::uint32_t(s.xyz.size() / 3);
      for (int k = 0; k < 8; ++k)
        s.xyz.insert(s.xyz.end(), {k & 1 ? x0 + w : x0, k & 2 ? y0 + d : y0, k & 4 ? z1 : z0});
      static const std::uint32_t faces[12][3] = {{0, 2, 1}, {1, 2, 3}, {4, 5, 6}, {5, 7, 6}, {0, 1, 4}, {1, 5, 4},
                                                 {2, 6, 3}, {3, 6, 7}, {0, 4, 2}, {2, 4, 6}, {1, 3, 5}, {3, 7, 5}};
      for (const auto& f : faces) s.tri.insert(s.tri.end(), {b + f[0], b + f[1], b + f[2]});
    }
  for (std::size_t i = 2; i < s.xyz.size(); i += 3) s.top = std::max(s.top, s.xyz[i]);
  return s;
}

std::vector<ray> VerticalRays(const Scene& s, int n) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> p(0.0f, 2000.0f);
  std::vector<ray> rays;
  for (int i = 0; i < n; ++i) rays.push_back(MakeRay(p(rng), p(rng), s.top + 10.0f, 0.0f, 0.0f, -1.0f));
  return rays;
}

std::vector<ray> RandomRays(const Scene& s, int n) {
  std::mt19937 rng(8);
  std::uniform_real_distribution<float> p(0.0f, 2000.0f), off(-300.0f, 300.0f), lift(10.0f, 200.0f);
  std::vector<ray> rays;
  for (int i = 0; i < n; ++i) {
    const float ox = p(rng), oy = p(rng), oz = s.top + lift(rng);
    rays.push_back(MakeRay(ox, oy, oz, off(rng), off(rng), -30.0f - oz));
  }
  return rays;
}

constexpr int kRays = 1 << 18;

struct World {
  Scene scene = MakeScene();
  std::unique_ptr<kel::SFF2BVH> tile;  // the exact walk goes through the tile loader's tree and intersector
  std::vector<ray> vertical = VerticalRays(scene, kRays);
  std::vector<ray> random = RandomRays(scene, kRays);
#if KEL_HAVE_EMBREE
  RTCDevice device = rtcNewDevice("threads=1");
  RTCScene embree = nullptr;
#endif
};

World& TheWorld() {
  static World w;
  return w;
}

// The scene as a one-mesh tile file in memory, read back by the tile loader.
std::unique_ptr<kel::SFF2BVH> LoadTile(const Scene& s) {
  kel::sff_buff_os bytes;
  {
    kel::sff_writer writer(bytes, false);
    writer.beginC(1);
    writer.writePositions(s.xyz.data(), s.xyz.size() / 3);
    writer.writeIntegers(s.tri.data(), s.tri.size());
    writer.end();
  }
  kel::sff_buff_is source(bytes.bytes().data(), bytes.bytes().size());
  return std::make_unique<kel::SFF2BVH>(source);
}

hit PickExact(const kel::SFF2BVH& tile, const ray& r) {
  hit h{~0u, FLT_MAX};
  tile.getBVH()->intersect(h, r, *tile.getIntersector());
  return h;
}

hit PickFast(const pick_index& index, const ray& r) {
  hit h{~0u, FLT_MAX};
  index.intersect(h, r);
  return h;
}

#if KEL_HAVE_EMBREE
std::atomic<long long> embreeBytes{0};

bool CountEmbreeBytes(void*, ssize_t bytes, bool) {
  embreeBytes += bytes;
  return true;
}

// Over the soup itself (shared buffers), as fast as Embree builds.
RTCScene BuildEmbree(RTCDevice device, const Scene& s) {
  RTCScene scene = rtcNewScene(device);
  rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_MEDIUM);
  RTCGeometry geom = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
  rtcSetSharedGeometryBuffer(geom, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, s.xyz.data(), 0, 12, s.vertices());
  rtcSetSharedGeometryBuffer(geom, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, s.tri.data(), 0, 12,
                             std::size_t(s.triangles()));
  rtcCommitGeometry(geom);
  rtcAttachGeometry(scene, geom);
  rtcReleaseGeometry(geom);
  rtcCommitScene(scene);
  return scene;
}

void FillEmbreeRay(RTCRayHit& rh, const ray& r) {
  rh.ray.org_x = r.origin[0], rh.ray.org_y = r.origin[1], rh.ray.org_z = r.origin[2];
  rh.ray.dir_x = r.direction[0], rh.ray.dir_y = r.direction[1], rh.ray.dir_z = r.direction[2];
  rh.ray.tnear = 0.0f;
  rh.ray.tfar = FLT_MAX;
  rh.ray.time = 0.0f;
  rh.ray.mask = ~0u;
  rh.ray.id = 0;
  rh.ray.flags = 0;
  rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
  rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
}

hit PickEmbree(RTCScene scene, const ray& r) {
  RTCIntersectContext ctx;
  rtcInitIntersectContext(&ctx);
  RTCRayHit rh;
  FillEmbreeRay(rh, r);
  rtcIntersect1(scene, &ctx, &rh);
  return rh.hit.geomID == RTC_INVALID_GEOMETRY_ID ? hit{~0u, FLT_MAX} : hit{rh.hit.primID, rh.ray.tfar};
}

// Sixteen rays at a time, as a packet.
void PickEmbree16(RTCScene scene, const ray* rays, hit* out) {
  alignas(64) int valid[16];
  alignas(64) RTCRayHit16 rh;
  for (int k = 0; k < 16; ++k) {
    valid[k] = -1;
    const ray& r = rays[k];
    rh.ray.org_x[k] = r.origin[0], rh.ray.org_y[k] = r.origin[1], rh.ray.org_z[k] = r.origin[2];
    rh.ray.dir_x[k] = r.direction[0], rh.ray.dir_y[k] = r.direction[1], rh.ray.dir_z[k] = r.direction[2];
    rh.ray.tnear[k] = 0.0f;
    rh.ray.tfar[k] = FLT_MAX;
    rh.ray.time[k] = 0.0f;
    rh.ray.mask[k] = ~0u;
    rh.ray.id[k] = 0;
    rh.ray.flags[k] = 0;
    rh.hit.geomID[k] = RTC_INVALID_GEOMETRY_ID;
  }
  RTCIntersectContext ctx;
  rtcInitIntersectContext(&ctx);
  rtcIntersect16(valid, scene, &ctx, &rh);
  for (int k = 0; k < 16; ++k)
    out[k] = rh.hit.geomID[k] == RTC_INVALID_GEOMETRY_ID ? hit{~0u, FLT_MAX} : hit{rh.hit.primID[k], rh.ray.tfar[k]};
}

// A stream of incoherent rays (rtcIntersect1M).
void PickEmbreeStream(RTCScene scene, const ray* rays, hit* out, int n, RTCRayHit* scratch) {
  for (int k = 0; k < n; ++k) FillEmbreeRay(scratch[k], rays[k]);
  RTCIntersectContext ctx;
  rtcInitIntersectContext(&ctx);
  ctx.flags = RTC_INTERSECT_CONTEXT_FLAG_INCOHERENT;
  rtcIntersect1M(scene, &ctx, scratch, unsigned(n), sizeof(RTCRayHit));
  for (int k = 0; k < n; ++k)
    out[k] = scratch[k].hit.geomID == RTC_INVALID_GEOMETRY_ID ? hit{~0u, FLT_MAX}
                                                              : hit{scratch[k].hit.primID, scratch[k].ray.tfar};
}
#endif

// ---- Agreement ---------------------------------------------------------------------

struct Vec3 {
  double x, y, z;
};
Vec3 operator-(Vec3 a, Vec3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
Vec3 Cross(Vec3 a, Vec3 b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
double Dot(Vec3 a, Vec3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
double Norm(Vec3 a) { return std::sqrt(Dot(a, a)); }

Vec3 Corner(const Scene& s, std::uint32_t prim, int k) {
  const float* v = &s.xyz[3 * std::size_t(s.tri[3 * std::size_t(prim) + k])];
  return {v[0], v[1], v[2]};
}

// Distance between the ray's line and the segment ab.
double LineToSegment(Vec3 o, Vec3 d, Vec3 a, Vec3 b) {
  const Vec3 e = b - a, w = a - o;
  const double dd = Dot(d, d), ee = Dot(e, e), de = Dot(d, e), dw = Dot(d, w), ew = Dot(e, w);
  const double den = dd * ee - de * de;
  double s = den > 1e-300 ? (de * dw - dd * ew) / den : 0.0;  // along the segment
  s = std::clamp(s, 0.0, 1.0);
  const Vec3 p{a.x + s * e.x, a.y + s * e.y, a.z + s * e.z};
  const double t = Dot(p - o, d) / dd;
  const Vec3 q{o.x + t * d.x - p.x, o.y + t * d.y - p.y, o.z + t * d.z - p.z};
  return Norm(q);
}

// Whether ray r passes within float rounding of an edge of triangle prim,
// hitting it at distance t: the tests round relative to the size of the
// coordinates they subtract, the distance plus the triangle's size.
bool NearEdge(const Scene& s, std::uint32_t prim, const ray& r, float t) {
  const Vec3 o{r.origin[0], r.origin[1], r.origin[2]}, d{r.direction[0], r.direction[1], r.direction[2]};
  const Vec3 a = Corner(s, prim, 0), b = Corner(s, prim, 1), c = Corner(s, prim, 2);
  const double size = std::max({Norm(b - a), Norm(c - b), Norm(a - c)});
  const double tol = 2e-6 * (double(t) * Norm(d) + size + 1e-3);
  return std::min({LineToSegment(o, d, a, b), LineToSegment(o, d, b, c), LineToSegment(o, d, c, a)}) < tol;
}

// The rule: both miss, or the nearest distances match (looser for rays
// grazing the hit triangle), unless either hit lies within rounding of an
// edge, where either answer may stand.
enum class Verdict { same, edge, violation };

Verdict Judge(const Scene& s, const ray& r, hit a, hit b) {
  const bool ha = a.primitive != ~0u, hb = b.primitive != ~0u;
  if (!ha && !hb) return Verdict::same;
  if ((ha && NearEdge(s, a.primitive, r, a.t)) || (hb && NearEdge(s, b.primitive, r, b.t))) return Verdict::edge;
  if (ha != hb) return Verdict::violation;
  const Vec3 d{r.direction[0], r.direction[1], r.direction[2]};
  const Vec3 n = Cross(Corner(s, a.primitive, 1) - Corner(s, a.primitive, 0),
                       Corner(s, a.primitive, 2) - Corner(s, a.primitive, 0));
  const double cosine = std::fabs(Dot(n, d)) / std::max(1e-300, Norm(n) * Norm(d));
  const double tol = 2e-6 * (std::max(a.t, b.t) * Norm(d) + 1.0) / std::max(cosine, 1e-3);
  return std::fabs(double(a.t) - double(b.t)) <= tol ? Verdict::same : Verdict::violation;
}

struct Tally {
  std::size_t rays = 0, hits = 0, same = 0, edge = 0, violations = 0;
  void add(Verdict v) {
    ++rays;
    same += v == Verdict::same;
    edge += v == Verdict::edge;
    violations += v == Verdict::violation;
  }
  void print(const char* what) const {
    std::printf("  %-28s %zu rays: %zu agree, %zu at an edge, %zu violations\n", what, rays, same, edge, violations);
  }
};

// Checks one ray set; returns the number of violations.
std::size_t CheckAgreement(const char* label, const std::vector<ray>& rays) {
  World& w = TheWorld();
  const pick_index& index = *w.tile->getPickIndex();
  Tally exact, embree, kernels;
  std::size_t hits = 0;
  for (std::size_t i = 0; i < rays.size(); ++i) {
    const ray& r = rays[i];
    const hit fast = PickFast(index, r);
    hits += fast.primitive != ~0u;
    exact.add(Judge(w.scene, r, PickExact(*w.tile, r), fast));
#if KEL_HAVE_EMBREE
    embree.add(Judge(w.scene, r, PickEmbree(w.embree, r), fast));
#endif
  }
  // Every kernel returns the default kernel's bits.
  auto& mutableIndex = const_cast<pick_index&>(index);
  const auto best = index.kernel();
  for (auto k : {kel::fdo::pick_kernel::scalar, kel::fdo::pick_kernel::sse2, kel::fdo::pick_kernel::avx2,
                 kel::fdo::pick_kernel::avx512}) {
    if (k == best || !mutableIndex.setKernel(k)) continue;
    for (std::size_t i = 0; i < rays.size(); i += 16) {
      const hit other = PickFast(index, rays[i]);
      mutableIndex.setKernel(best);
      const hit ref = PickFast(index, rays[i]);
      mutableIndex.setKernel(k);
      kernels.add(other.primitive == ref.primitive && std::memcmp(&other.t, &ref.t, 4) == 0 ? Verdict::same
                                                                                             : Verdict::violation);
    }
    mutableIndex.setKernel(best);
  }
  std::printf("%s rays: %zu, %zu hit\n", label, rays.size(), hits);
  exact.print("pick index vs exact walk");
#if KEL_HAVE_EMBREE
  embree.print("Embree vs pick index");
#endif
  kernels.print("other kernels vs default");
  return exact.violations + embree.violations + kernels.violations;
}

// ---- Benchmarks --------------------------------------------------------------------

void BuildExact(bvh& tree, const Scene& s) {
  kel::fdo::simple_primitive_iterator it(s.xyz.data(), 12, s.tri.data(), s.triangles());
  tree.build(it);
}

void BM_Build_Exact(benchmark::State& state) {
  World& w = TheWorld();
  for (auto _ : state) {
    bvh tree;
    BuildExact(tree, w.scene);
    benchmark::DoNotOptimize(tree.getNodeCount());
  }
  state.SetItemsProcessed(state.iterations() * w.scene.triangles());
}

// The exact tree and the pick index together, as the tile loader builds them.
void BM_Build_Ours(benchmark::State& state) {
  World& w = TheWorld();
  for (auto _ : state) {
    bvh tree;
    BuildExact(tree, w.scene);
    pick_index index(w.scene.xyz.data(), w.scene.vertices(), w.scene.tri.data(), w.scene.tri.size() / 3);
    benchmark::DoNotOptimize(index.getStats().packets);
  }
  state.SetItemsProcessed(state.iterations() * w.scene.triangles());
}

// One pick per iteration, cycling through the first n rays (a power of two).
template <class PickOne>
void PickEach(benchmark::State& state, const std::vector<ray>& rays, std::size_t n, PickOne pick) {
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(pick(rays[i]));
    i = (i + 1) & (n - 1);
  }
  state.SetItemsProcessed(state.iterations());
}

template <bool Vertical>
void BM_Pick_Exact(benchmark::State& state) {
  World& w = TheWorld();
  const auto& rays = Vertical ? w.vertical : w.random;
  PickEach(state, rays, rays.size(), [&](const ray& r) { return PickExact(*w.tile, r); });
}

template <bool Vertical>
void BM_Pick_Fast(benchmark::State& state) {
  World& w = TheWorld();
  const auto& rays = Vertical ? w.vertical : w.random;
  const pick_index& index = *w.tile->getPickIndex();
  PickEach(state, rays, rays.size(), [&](const ray& r) { return PickFast(index, r); });
}

// Random rays over only the first range(0) of the set, so the memory they
// touch stays in cache: what picks near the cursor look like.
void BM_Pick_FastWarm(benchmark::State& state) {
  World& w = TheWorld();
  const pick_index& index = *w.tile->getPickIndex();
  PickEach(state, w.random, std::size_t(state.range(0)), [&](const ray& r) { return PickFast(index, r); });
}

// All rays of a set per iteration through the batch call, on 1 or 2 threads.
template <bool Vertical>
void BM_Batch_Fast(benchmark::State& state) {
  World& w = TheWorld();
  const auto& rays = Vertical ? w.vertical : w.random;
  std::vector<hit> out(rays.size());
  const int saved = omp_get_max_threads();
  omp_set_num_threads(int(state.range(0)));
  for (auto _ : state) {
    std::fill(out.begin(), out.end(), hit{~0u, FLT_MAX});
    w.tile->pick(out.data(), rays.data(), rays.size());
    benchmark::DoNotOptimize(out.data());
  }
  omp_set_num_threads(saved);
  state.SetItemsProcessed(state.iterations() * std::int64_t(rays.size()));
}

#if KEL_HAVE_EMBREE
void BM_Build_Embree(benchmark::State& state) {
  World& w = TheWorld();
  for (auto _ : state) {
    RTCScene s = BuildEmbree(w.device, w.scene);
    rtcReleaseScene(s);
  }
  state.SetItemsProcessed(state.iterations() * w.scene.triangles());
}

template <bool Vertical>
void BM_Pick_Embree(benchmark::State& state) {
  World& w = TheWorld();
  const auto& rays = Vertical ? w.vertical : w.random;
  PickEach(state, rays, rays.size(), [&](const ray& r) { return PickEmbree(w.embree, r); });
}

void BM_Pick_EmbreeWarm(benchmark::State& state) {
  World& w = TheWorld();
  PickEach(state, w.random, std::size_t(state.range(0)), [&](const ray& r) { return PickEmbree(w.embree, r); });
}

// Embree's batch calls on the same rays: packets of 16 (Arg 0) or streams of
// 256 (Arg 1); with two threads each takes half the batches.
template <bool Vertical>
void BM_Batch_Embree(benchmark::State& state) {
  World& w = TheWorld();
  const auto& rays = Vertical ? w.vertical : w.random;
  const bool stream = state.range(0) == 1;
  const int threads = int(state.range(1));
  std::vector<hit> out(rays.size());
  const int chunk = stream ? 256 : 16;
  const auto chunks = std::int64_t(rays.size() / std::size_t(chunk));
  for (auto _ : state) {
#pragma omp parallel num_threads(threads)
    {
      std::vector<RTCRayHit> scratch(stream ? 256 : 0);
#pragma omp for schedule(dynamic, 4)
      for (std::int64_t c = 0; c < chunks; ++c) {
        const std::size_t at = std::size_t(c) * std::size_t(chunk);
        if (stream)
          PickEmbreeStream(w.embree, &rays[at], &out[at], chunk, scratch.data());
        else
          PickEmbree16(w.embree, &rays[at], &out[at]);
      }
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * std::int64_t(rays.size()));
}
#endif

// Prints ratios from the medians once every benchmark ran.
class RatioReporter : public benchmark::ConsoleReporter {
public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs)
      if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median")
        rate_[r.run_name.function_name + (r.run_name.args.empty() ? "" : "/" + r.run_name.args)] =
            r.counters.at("items_per_second");
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    auto ratio = [&](const char* what, const std::string& ours, const std::string& theirs) {
      if (rate_.count(ours) && rate_.count(theirs))
        std::printf("ratio %-44s %.2f\n", what, rate_[ours] / rate_[theirs]);
    };
    std::printf("pick kernel: %s\n", pick_index::kernelName(pick_index::bestKernel()));
    ratio("build exact+index / Embree (speed)", "BM_Build_Ours", "BM_Build_Embree");
    ratio("build exact / Embree (speed)", "BM_Build_Exact", "BM_Build_Embree");
    ratio("vertical picks, index / Embree", "BM_Pick_Fast<true>", "BM_Pick_Embree<true>");
    ratio("random rays, index / Embree", "BM_Pick_Fast<false>", "BM_Pick_Embree<false>");
    for (const char* n : {"256", "4096", "65536"})
      ratio((std::string("random rays, first ") + n + " only, index / Embree").c_str(),
            std::string("BM_Pick_FastWarm/rays:") + n, std::string("BM_Pick_EmbreeWarm/rays:") + n);
    ratio("vertical picks, exact / Embree", "BM_Pick_Exact<true>", "BM_Pick_Embree<true>");
    ratio("random rays, exact / Embree", "BM_Pick_Exact<false>", "BM_Pick_Embree<false>");
    ratio("vertical batch, index 2 threads / 1 thread", "BM_Batch_Fast<true>/threads:2", "BM_Batch_Fast<true>/threads:1");
    ratio("random batch, index 2 threads / 1 thread", "BM_Batch_Fast<false>/threads:2",
          "BM_Batch_Fast<false>/threads:1");
    for (const char* kind : {"true", "false"}) {
      const std::string ours1 = std::string("BM_Batch_Fast<") + kind + ">/threads:1";
      const std::string ours2 = std::string("BM_Batch_Fast<") + kind + ">/threads:2";
      const std::string e16 = std::string("BM_Batch_Embree<") + kind + ">/stream:0/threads:";
      const std::string eM = std::string("BM_Batch_Embree<") + kind + ">/stream:1/threads:";
      for (const char* t : {"1", "2"}) {
        const std::string theirs = rate_[e16 + t] > rate_[eM + t] ? e16 + t : eM + t;
        const std::string what = std::string(kind[0] == 't' ? "vertical" : "random") + " batch, index / Embree " +
                                 (theirs == e16 + t ? "16" : "1M") + ", " + t + " thread(s)";
        ratio(what.c_str(), t[0] == '1' ? ours1 : ours2, theirs);
      }
    }
  }

private:
  std::map<std::string, double> rate_;
};

}  // namespace

// Builds: warm-up, several iterations per repetition, median of five.
BENCHMARK(BM_Build_Exact)->Unit(benchmark::kMillisecond)->UseRealTime()->MinWarmUpTime(1)->MinTime(2)
    ->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_Build_Ours)->Unit(benchmark::kMillisecond)->UseRealTime()->MinWarmUpTime(1)->MinTime(2)
    ->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Pick_Exact, true)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Pick_Exact, false)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Pick_Fast, true)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Pick_Fast, false)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_Pick_FastWarm)->ArgName("rays")->Arg(256)->Arg(4096)->Arg(65536)->UseRealTime()->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Batch_Fast, true)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)
    ->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Batch_Fast, false)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)
    ->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
#if KEL_HAVE_EMBREE
BENCHMARK(BM_Build_Embree)->Unit(benchmark::kMillisecond)->UseRealTime()->MinWarmUpTime(1)->MinTime(2)
    ->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Pick_Embree, true)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Pick_Embree, false)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_Pick_EmbreeWarm)->ArgName("rays")->Arg(256)->Arg(4096)->Arg(65536)->UseRealTime()->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Batch_Embree, true)->ArgNames({"stream", "threads"})->ArgsProduct({{0, 1}, {1, 2}})
    ->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Batch_Embree, false)->ArgNames({"stream", "threads"})->ArgsProduct({{0, 1}, {1, 2}})
    ->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
#endif

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  World& w = TheWorld();
  w.tile = LoadTile(w.scene);
  if (!w.tile->valid()) {
    std::fprintf(stderr, "the scene did not load as a tile\n");
    return 1;
  }
  const bvh& tree = *w.tile->getBVH();
  const pick_index::stats& st = w.tile->getPickIndex()->getStats();
  std::printf("scene: %d triangles; bvh %d nodes; pick index %d nodes, %d leaves, %d packets, %d columns (%zu entries)\n",
              w.scene.triangles(), tree.getNodeCount(), st.nodes, st.leaves, st.packets, st.columns,
              st.columnEntries);
  // Memory as allocated: the exact tree's node array at its capacity.
  const double mb = 1e-6;
  const double exactBytes = 32.0 * tree.getNodeCapacity() + 4.0 * tree.getPrimitiveCount();
  std::printf("memory: exact tree %.1f MB (%.1f MB of nodes in use), pick index %.1f MB (nodes %.1f, packets %.1f, "
              "columns %.1f), both %.1f MB\n",
              exactBytes * mb, 32.0 * tree.getNodeCount() * mb, double(st.bytes()) * mb, double(st.nodeBytes) * mb,
              double(st.packetBytes) * mb, double(st.columnBytes) * mb,
              (exactBytes + double(st.bytes())) * mb);
#if KEL_HAVE_EMBREE
  rtcSetDeviceMemoryMonitorFunction(w.device, CountEmbreeBytes, nullptr);
  const long long before = embreeBytes;
  w.embree = BuildEmbree(w.device, w.scene);
  const double theirs = double(embreeBytes - before);
  std::printf("memory: Embree %.1f MB (shared soup not counted); ours / Embree %.2f\n", theirs * mb,
              (exactBytes + double(st.bytes())) / theirs);
#endif
  std::size_t violations = 0;
  violations += CheckAgreement("vertical", w.vertical);
  violations += CheckAgreement("random", w.random);
  if (violations) {
    std::fprintf(stderr, "%zu rays break the agreement rule; no timings\n", violations);
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
#if KEL_HAVE_EMBREE
  rtcReleaseScene(w.embree);
  rtcReleaseDevice(w.device);
#endif
  benchmark::Shutdown();
  return 0;
}
