#include "kel/spatial/sff2bvh.h"

#include <cfloat>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kel/core/text.h"
#include "kel/sff/sff_file_stream.h"
#include "kel/sff/sff_writer.h"
#include "kel/spatial/bvh.h"
#include "spatial/soup.h"
#include "support/log_capture.h"

namespace kel {
namespace {

using fdo::hit;
using fdo::ray;
using fdo::MakeRay;

const char* const kIndexWarning = "Invalid SFF file: Index out of range. Ignoring triangle";
const char* const kVertexWarning =
    "Invalid SFF file: Only one vertex-array per mesh expected. Ignoring further vertex-arrays";
const char* const kArrayWarning = "Invalid SFF file: Only one index-array per mesh expected. Ignoring further arrays";

struct Mesh {
  std::vector<float> xyz = {};
  std::optional<std::vector<std::uint64_t>> indices = std::nullopt;
  std::optional<std::vector<float>> secondVertices = std::nullopt;
  std::optional<std::vector<std::uint64_t>> secondIndices = std::nullopt;
};

std::vector<unsigned char> WriteTile(const std::vector<Mesh>& meshes, bool compress = false) {
  sff_buff_os out;
  {
    sff_writer w(out, compress);
    std::uint64_t id = 1;
    for (const Mesh& m : meshes) {
      w.beginC(id++);
      w.writePositions(m.xyz.data(), m.xyz.size() / 3);
      if (m.secondVertices) w.writePositions(m.secondVertices->data(), m.secondVertices->size() / 3);
      if (m.indices) w.writeIntegers(m.indices->data(), m.indices->size());
      if (m.secondIndices) w.writeIntegers(m.secondIndices->data(), m.secondIndices->size());
      w.end();
    }
  }
  return out.bytes();
}

SFF2BVH Load(const std::vector<unsigned char>& bytes) {
  sff_buff_is in(bytes.data(), bytes.size());
  return SFF2BVH(in);
}

hit Pick(const SFF2BVH& tile, const ray& r) {
  hit h{~0u, FLT_MAX};
  tile.getBVH()->intersect(h, r, *tile.getIntersector());
  return h;
}

hit Down(const SFF2BVH& tile, float x, float y) { return Pick(tile, MakeRay(x, y, 100.0f, 0, 0, -1)); }

// A right triangle in the plane z, legs of length 2 from (x, y).
std::vector<float> Tri(float x, float y, float z) { return {x, y, z, x + 2, y, z, x, y + 2, z}; }

TEST(Sff2Bvh, OneMeshWithoutIndicesIsOneTwoSidedTriangle) {
  const SFF2BVH tile = Load(WriteTile({Mesh{Tri(0, 0, 5), {}}}));
  ASSERT_TRUE(tile.valid());
  EXPECT_EQ(tile.getBVH()->getPrimitiveCount(), 1);
  const ray r = MakeRay(0.5f, 0.25f, 10.0f, 0, 0, -1);
  float out[4] = {};
  ASSERT_TRUE(tile.getIntersector()->intersect(0, r, out));
  EXPECT_FLOAT_EQ(out[0], 5.0f);
  EXPECT_FLOAT_EQ(out[1], 0.25f);   // weight of vertex 1 (x + 2)
  EXPECT_FLOAT_EQ(out[2], 0.125f);  // weight of vertex 2 (y + 2)
  const hit h = Pick(tile, r);
  EXPECT_EQ(h.primitive, 0u);
  EXPECT_FLOAT_EQ(h.t, 5.0f);
  // Parallel rays miss; rays starting on the triangle hit at zero; back faces count.
  EXPECT_FALSE(tile.getIntersector()->intersect(0, MakeRay(-1, 0.5f, 5, 1, 0, 0), out));
  EXPECT_FALSE(tile.getIntersector()->intersect(0, MakeRay(-1, 0.5f, 5, 1, 1e-12f, 0), out));
  ASSERT_TRUE(tile.getIntersector()->intersect(0, MakeRay(0.5f, 0.5f, 5, 0.3f, 0.1f, -1), out));
  EXPECT_EQ(out[0], 0.0f);
  const hit on = Pick(tile, MakeRay(0.5f, 0.5f, 5, 0, 0, -1));
  EXPECT_EQ(on.primitive, 0u);
  EXPECT_EQ(on.t, 0.0f);
  EXPECT_FLOAT_EQ(Pick(tile, MakeRay(0.5f, 0.5f, 1, 0, 0, 1)).t, 4.0f);
}

TEST(Sff2Bvh, IndexArraysFollowTheMeshRules) {
  using Idx = std::vector<std::uint64_t>;
  constexpr int kMiss = -2, kAny = -1;
  struct Probe {
    float x;
    int primitive;  // kMiss, kAny or the index
    float t;        // < 0: any
  };
  struct Case {
    const char* label;
    std::vector<Mesh> meshes;
    int count;
    std::vector<Probe> probes;
  } cases[] = {
      {"explicit indices of later meshes are offset",
       {Mesh{Tri(0, 0, 1), Idx{0, 1, 2}}, Mesh{Tri(10, 0, 2), Idx{0, 1, 2}}, Mesh{Tri(20, 0, 3), Idx{2, 1, 0}}},
       3,
       {{0.5f, 0, 99}, {10.5f, 1, 98}, {20.5f, 2, 97}}},
      // Mesh 2 has its own vertices at x = 10 but no index array: its triangle
      // is (0, 1, 2) of the whole soup, i.e. mesh 1's triangle once more; two
      // equal triangles in one leaf: the first wins.
      {"implicit indices of later meshes reuse the first vertices",
       {Mesh{Tri(0, 0, 1), Idx{0, 1, 2}}, Mesh{Tri(10, 0, 4), {}}},
       2,
       {{10.5f, kMiss, -1}, {0.5f, 0, 99}}},
      {"first mesh without indices and a later one with both pick",
       {Mesh{Tri(0, 0, 1), {}}, Mesh{Tri(10, 0, 2), Idx{0, 1, 2}}, Mesh{Tri(20, 0, 3), {}}},
       3,
       {{0.5f, kAny, 99}, {10.5f, kAny, 98}, {20.5f, kMiss, -1}}},
      // Explicit indices are checked against the whole soup once it is read.
      {"indices may name vertices of later meshes",
       {Mesh{Tri(0, 0, 1), Idx{3, 4, 5}}, Mesh{Tri(10, 0, 2), Idx{0, 1, 2}}},
       2,
       {{10.5f, 0, -1}}},
  };
  for (const Case& c : cases) {
    const SFF2BVH tile = Load(WriteTile(c.meshes));
    ASSERT_TRUE(tile.valid()) << c.label;
    EXPECT_EQ(tile.getBVH()->getPrimitiveCount(), c.count) << c.label;
    for (const Probe& p : c.probes) {
      const hit h = Down(tile, p.x, 0.5f);
      SCOPED_TRACE(::testing::Message() << c.label << " x " << p.x);
      if (p.primitive != kAny) {
        EXPECT_EQ(h.primitive, p.primitive == kMiss ? ~0u : std::uint32_t(p.primitive));
      }
      if (p.t >= 0) {
        EXPECT_FLOAT_EQ(h.t, p.t);
      }
    }
  }
  // The second copy of the implicit case is a triangle of its own.
  const SFF2BVH twice = Load(WriteTile(cases[1].meshes));
  float out[4];
  EXPECT_TRUE(twice.getIntersector()->intersect(1, MakeRay(0.5f, 0.5f, 100, 0, 0, -1), out));
}

TEST(Sff2Bvh, SecondArraysInOneMeshWarnAndAreIgnored) {
  test::LogCapture capture;
  Mesh m{Tri(0, 0, 1), std::vector<std::uint64_t>{0, 1, 2}, Tri(50, 50, 50), std::vector<std::uint64_t>{2, 1, 0}};
  const SFF2BVH tile = Load(WriteTile({m}));
  ASSERT_TRUE(tile.valid());
  EXPECT_EQ(tile.getBVH()->getPrimitiveCount(), 1);
  EXPECT_EQ(capture.log().countOf(kVertexWarning), 1);
  EXPECT_EQ(capture.log().countOf(kArrayWarning), 1);
  EXPECT_EQ(Down(tile, 50.5f, 50.5f).primitive, ~0u);
}

TEST(Sff2Bvh, OutOfRangeIndicesDropTheirTrianglesWithOneWarning) {
  test::LogCapture capture;
  const std::uint64_t huge = std::uint64_t{1} << 32;
  Mesh m{};
  for (float x : {0.0f, 10.0f, 20.0f, 30.0f}) {
    const auto t = Tri(x, 0, 1);
    m.xyz.insert(m.xyz.end(), t.begin(), t.end());
  }
  m.indices = std::vector<std::uint64_t>{0, 1, 2, 3, 4, 12, 6, 7, 8, huge, 10, 11, 9, 10, huge + 11};
  const SFF2BVH tile = Load(WriteTile({m}));
  ASSERT_TRUE(tile.valid());
  EXPECT_EQ(tile.getBVH()->getPrimitiveCount(), 2);
  EXPECT_EQ(capture.log().countOf(kIndexWarning), 1);
  EXPECT_EQ(Down(tile, 0.5f, 0.5f).primitive, 0u);
  EXPECT_EQ(Down(tile, 20.5f, 0.5f).primitive, 1u);  // renumbered after the dropped one
  EXPECT_EQ(Down(tile, 10.5f, 0.5f).primitive, ~0u);
  EXPECT_EQ(Down(tile, 30.5f, 0.5f).primitive, ~0u);
}

TEST(Sff2Bvh, NestedMeshNodesAppendTheImplicitListOnce) {
  sff_buff_os out;
  {
    sff_writer w(out, false);
    for (int i = 0; i < 50; ++i) w.beginC(std::uint64_t(i));
    const auto t = Tri(0, 0, 1);
    w.writePositions(t.data(), 3);
    for (int i = 0; i < 50; ++i) w.end();
  }
  const SFF2BVH tile = Load(out.bytes());
  ASSERT_TRUE(tile.valid());
  EXPECT_EQ(tile.getBVH()->getPrimitiveCount(), 1);
}

TEST(Sff2Bvh, FilesWithoutTrianglesAreInvalidAndUnreadableOnesLogAnError) {
  struct Case {
    const char* label;
    std::vector<unsigned char> bytes;
  };
  const Case cases[] = {
      {"magic only", WriteTile({})},
      {"indices without vertices", WriteTile({Mesh{{}, std::vector<std::uint64_t>{0, 1, 2}}})},
      {"every index out of range", WriteTile({Mesh{Tri(0, 0, 0), std::vector<std::uint64_t>{0, 1, 3}}})},
      {"bad magic", {'S', 'F', 'F', '9', 0, 0}},
      {"empty", {}},
  };
  test::LogCapture capture;
  for (const Case& c : cases) {
    const SFF2BVH tile = Load(c.bytes);
    EXPECT_FALSE(tile.valid()) << c.label;
    EXPECT_EQ(tile.getBVH(), nullptr) << c.label;
    EXPECT_EQ(tile.getIntersector(), nullptr) << c.label;
  }
  // Unreadable bytes log one error.
  test::LogCapture unreadable;
  const SFF2BVH tile = Load({'n', 'o', 'p', 'e'});
  EXPECT_FALSE(tile.valid());
  ASSERT_EQ(unreadable.log().events.size(), 1u);
  EXPECT_EQ(unreadable.log().events[0].level, log4cplus::ERROR_LOG_LEVEL);
  EXPECT_NE(unreadable.log().events[0].message.find("Invalid SFF file"), std::string::npos);
}

TEST(Sff2Bvh, EveryTruncatedPrefixLoadsWithoutThrowing) {
  test::LogCapture capture;
  Mesh a{Tri(0, 0, 1), std::vector<std::uint64_t>{0, 1, 2}}, b{Tri(5, 5, 2), {}};
  for (bool compress : {false, true}) {
    const auto bytes = WriteTile({a, b}, compress);
    for (std::size_t n = 0; n <= bytes.size(); ++n) {
      const std::vector<unsigned char> prefix(bytes.begin(), bytes.begin() + std::ptrdiff_t(n));
      const SFF2BVH tile = Load(prefix);
      if (tile.valid()) Down(tile, 0.5f, 0.5f);
    }
    EXPECT_TRUE(Load(bytes).valid());
  }
}

TEST(Sff2Bvh, MultiMeshTilesPlainOrCompressedMatchABruteForceModel) {
  // Random meshes, some with index arrays and some without; the model soup
  // applies the same rules and is scanned triangle by triangle.
  std::mt19937 rng(8);
  std::uniform_real_distribution<float> p(0.0f, 30.0f), d(-2.0f, 2.0f);
  std::vector<Mesh> meshes;
  fdo::test::Soup soup;
  for (int m = 0; m < 12; ++m) {
    Mesh mesh;
    const int nv = 3 * (1 + int(rng() % 8));
    for (int i = 0; i < nv; ++i) mesh.xyz.insert(mesh.xyz.end(), {p(rng), p(rng), p(rng) * 0.3f});
    const std::uint32_t base = std::uint32_t(soup.xyz.size() / 3);
    if (rng() % 2) {
      std::vector<std::uint64_t> idx;
      for (int i = 0; i < nv; ++i) idx.push_back(rng() % std::uint32_t(nv));
      for (auto i : idx) soup.tri.push_back(std::uint32_t(i) + base);
      mesh.indices = idx;
    } else {
      for (int i = 0; i < nv; ++i) soup.tri.push_back(std::uint32_t(i));
    }
    soup.xyz.insert(soup.xyz.end(), mesh.xyz.begin(), mesh.xyz.end());
    meshes.push_back(mesh);
  }
  const SFF2BVH tile = Load(WriteTile(meshes)), packed = Load(WriteTile(meshes, true));
  ASSERT_TRUE(tile.valid() && packed.valid());
  ASSERT_EQ(tile.getBVH()->getPrimitiveCount(), soup.count());
  int hits = 0;
  for (int q = 0; q < 400; ++q) {
    const ray r = q % 2 ? MakeRay(p(rng), p(rng), 50, 0, 0, -1) : MakeRay(p(rng), p(rng), 50, d(rng), d(rng), -10);
    const hit got = Pick(tile, r), want = fdo::test::BruteForce(soup, r);
    EXPECT_EQ(got.t, want.t);
    const hit unpacked = Pick(packed, r);  // a compressed tile picks like a plain one
    EXPECT_EQ(unpacked.primitive, got.primitive);
    EXPECT_EQ(unpacked.t, got.t);
    // The tile's fast path answers for the same triangles (soup numbering).
    hit fast{~0u, FLT_MAX};
    tile.pick(fast, r);
    EXPECT_TRUE(fdo::test::Agree(soup, r, want, fast)) << q;
    float z;
    if (q % 2) {
      EXPECT_EQ(tile.heightAt(r.origin[0], r.origin[1], z), fast.primitive != ~0u);
    }
    if (want.primitive == ~0u) continue;
    ++hits;
    // The reported triangle is one the model hits at that distance.
    float out[4];
    ASSERT_TRUE(soup.intersect(got.primitive, r, out));
    EXPECT_EQ(out[0], want.t);
  }
  EXPECT_GT(hits, 100);
}

TEST(Sff2Bvh, CopiesShareTheTree) {
  const SFF2BVH a = Load(WriteTile({Mesh{Tri(0, 0, 1), {}}}));
  const SFF2BVH b = a;
  SFF2BVH c = Load(WriteTile({}));
  c = a;
  EXPECT_EQ(a.getBVH(), b.getBVH());
  EXPECT_EQ(a.getIntersector(), c.getIntersector());
  EXPECT_TRUE(c.valid());
}

TEST(Sff2Bvh, ReadsTileFilesByPath) {
  const char* tmp = std::getenv("TMPDIR");
  const std::string dir = tmp && *tmp ? tmp : "/tmp";
  const std::string path = dir + "/kel_sff2bvh_test_\xC3\xA9.sff";
  {
    const auto bytes = WriteTile({Mesh{Tri(0, 0, 1), {}}}, true);
    std::FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
  }
  const SFF2BVH tile(Utf8String2WString(path));
  std::remove(path.c_str());
  ASSERT_TRUE(tile.valid());
  EXPECT_FLOAT_EQ(Down(tile, 0.5f, 0.5f).t, 99.0f);

  test::LogCapture capture;
  const SFF2BVH missing(Utf8String2WString(dir + "/kel_no_such_tile.sff"));
  EXPECT_FALSE(missing.valid());
  EXPECT_EQ(capture.log().events.size(), 1u);
}

}  // namespace
}  // namespace kel
