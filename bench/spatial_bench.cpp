// Picking on a city-sized tile: our bvh against Embree 3 on one thread.
// Scene: a 1000 x 1000 quad terrain at 2 m spacing with smooth noisy heights,
// plus 20,000 box buildings (12 triangles each) on a jittered lattice, about
// 2.24 million triangles. Measured: build, vertical picks, random downward
// rays. Before timing, both sides must find the same nearest distance.
#include <benchmark/benchmark.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <kel/sff/sff_file_stream.h>
#include <kel/sff/sff_writer.h>
#include <kel/spatial/bvh.h>
#include <kel/spatial/sff2bvh.h>

#include "spatial/detail/aligned_memory.h"

#if KEL_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif

namespace {

using kel::fdo::bvh;
using kel::fdo::hit;
using kel::fdo::ray;
using kel::fdo::MakeRay;

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
};

float Height(float x, float y) {
  return 20.0f * std::sin(x * 0.004f) * std::cos(y * 0.003f) + 4.0f * std::sin(x * 0.031f + 1.0f) * std::sin(y * 0.027f) +
         0.6f * std::sin(x * 0.21f) * std::cos(y * 0.17f);
}

Scene MakeScene() {
  Scene s;
  const int g = 1000;
  const float step = 2.0f;
  s.xyz.reserve(std::size_t(g + 1) * (g + 1) * 3 + 20000 * 24);
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
    const float tx = ox + off(rng), ty = oy + off(rng), tz = -30.0f;
    float d[3] = {tx - ox, ty - oy, tz - oz};
    const float len = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    rays.push_back(MakeRay(ox, oy, oz, d[0] / len, d[1] / len, d[2] / len));
  }
  return rays;
}

struct World {
  Scene scene = MakeScene();
  std::unique_ptr<kel::SFF2BVH> tile;  // queries go through the tile loader's tree and intersector
  std::vector<ray> vertical = VerticalRays(scene, 1 << 18);
  std::vector<ray> random = RandomRays(scene, 1 << 18);
#if KEL_HAVE_EMBREE
  RTCDevice device = rtcNewDevice("threads=1");
  RTCScene embree = nullptr;
#endif
};

World& TheWorld() {
  static World w;
  return w;
}

void BuildOurs(bvh& tree, const Scene& s) {
  kel::fdo::simple_primitive_iterator it(s.xyz.data(), 12, s.tri.data(), s.triangles());
  tree.build(it);
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

float PickOurs(const bvh& tree, kel::fdo::bvh_primitive_intersector& x, const ray& r) {
  hit h{~0u, FLT_MAX};
  tree.intersect(h, r, x);
  return h.t;
}

#if KEL_HAVE_EMBREE
RTCScene BuildEmbree(RTCDevice device, const Scene& s) {
  RTCScene scene = rtcNewScene(device);
  rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_MEDIUM);
  RTCGeometry geom = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
  // Embree reads 16 bytes per vertex, so its buffer is allocated by Embree (padded).
  auto* v = static_cast<float*>(rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                                        12, s.xyz.size() / 3));
  std::copy(s.xyz.begin(), s.xyz.end(), v);
  auto* t = static_cast<std::uint32_t*>(
      rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 12, std::size_t(s.triangles())));
  std::copy(s.tri.begin(), s.tri.end(), t);
  rtcCommitGeometry(geom);
  rtcAttachGeometry(scene, geom);
  rtcReleaseGeometry(geom);
  rtcCommitScene(scene);
  return scene;
}

float PickEmbree(RTCScene scene, const ray& r) {
  RTCIntersectContext ctx;
  rtcInitIntersectContext(&ctx);
  RTCRayHit rh{};
  rh.ray.org_x = r.origin[0], rh.ray.org_y = r.origin[1], rh.ray.org_z = r.origin[2];
  rh.ray.dir_x = r.direction[0], rh.ray.dir_y = r.direction[1], rh.ray.dir_z = r.direction[2];
  rh.ray.tnear = 0.0f;
  rh.ray.tfar = FLT_MAX;
  rh.ray.mask = ~0u;
  rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
  rtcIntersect1(scene, &ctx, &rh);
  return rh.hit.geomID == RTC_INVALID_GEOMETRY_ID ? FLT_MAX : rh.ray.tfar;
}
#endif

void BM_Build_Ours(benchmark::State& state) {
  World& w = TheWorld();
  for (auto _ : state) {
    bvh tree;
    BuildOurs(tree, w.scene);
    benchmark::DoNotOptimize(tree.getNodeCount());
  }
  state.SetItemsProcessed(state.iterations() * w.scene.triangles());
}

template <bool Vertical>
void BM_Pick_Ours(benchmark::State& state) {
  World& w = TheWorld();
  const auto& rays = Vertical ? w.vertical : w.random;
  const bvh& tree = *w.tile->getBVH();
  auto& x = *w.tile->getIntersector();
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(PickOurs(tree, x, rays[i]));
    i = (i + 1) & (rays.size() - 1);
  }
  state.SetItemsProcessed(state.iterations());
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
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(PickEmbree(w.embree, rays[i]));
    i = (i + 1) & (rays.size() - 1);
  }
  state.SetItemsProcessed(state.iterations());
}
#endif

// Agreement on every ray of a set: same hit/miss and distances within a
// relative 1e-4 (the two sides round differently).

void CheckAgreement(const char* label, const std::vector<ray>& rays) {
  World& w = TheWorld();
  const bvh& tree = *w.tile->getBVH();
  auto& x = *w.tile->getIntersector();
  std::size_t hits = 0, agree = 0;
  for (const ray& r : rays) {
    const float ours = PickOurs(tree, x, r);
    hits += ours < FLT_MAX;
#if KEL_HAVE_EMBREE
    const float theirs = PickEmbree(w.embree, r);
    const bool same = (ours == FLT_MAX) == (theirs == FLT_MAX) &&
                      (ours == FLT_MAX || std::fabs(ours - theirs) <= 1e-4f * std::max(1.0f, theirs));
    agree += same;
#else
    ++agree;
#endif
  }
  std::printf("%-9s rays %zu, hits %zu, same nearest distance as Embree on %zu (%.4f%%)\n", label, rays.size(), hits,
              agree, 100.0 * double(agree) / double(rays.size()));
}

// Prints ours/theirs ratios from the medians once every benchmark ran.
class RatioReporter : public benchmark::ConsoleReporter {
public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs)
      if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median")
        rate_[r.run_name.function_name] = r.counters.at("items_per_second");
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    auto ratio = [&](const char* what, const std::string& ours, const std::string& theirs) {
      if (rate_.count(ours) && rate_.count(theirs))
        std::printf("ratio ours/Embree %-16s %.2f\n", what, rate_[ours] / rate_[theirs]);
    };
    ratio("build speed", "BM_Build_Ours", "BM_Build_Embree");
    ratio("vertical picks", "BM_Pick_Ours<true>", "BM_Pick_Embree<true>");
    ratio("random rays", "BM_Pick_Ours<false>", "BM_Pick_Embree<false>");
  }

private:
  std::map<std::string, double> rate_;
};

}  // namespace

BENCHMARK(BM_Build_Ours)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Pick_Ours, true)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Pick_Ours, false)->Repetitions(3)->ReportAggregatesOnly(true);
#if KEL_HAVE_EMBREE
BENCHMARK(BM_Build_Embree)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Pick_Embree, true)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_Pick_Embree, false)->Repetitions(3)->ReportAggregatesOnly(true);
#endif

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  World& w = TheWorld();
  w.tile = LoadTile(w.scene);
  if (!w.tile->valid()) {
    std::fprintf(stderr, "the scene did not load as a tile\n");
    return 1;
  }
#if KEL_HAVE_EMBREE
  w.embree = BuildEmbree(w.device, w.scene);
#endif
  std::printf("scene: %d triangles, bvh nodes %d\n", w.scene.triangles(), w.tile->getBVH()->getNodeCount());
  CheckAgreement("vertical", w.vertical);
  CheckAgreement("random", w.random);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
#if KEL_HAVE_EMBREE
  rtcReleaseScene(w.embree);
  rtcReleaseDevice(w.device);
#endif
  benchmark::Shutdown();
  return 0;
}
