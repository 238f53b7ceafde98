// Memory layout of the pick index, shared by its builder and every kernel.
//
// Wide nodes hold up to sixteen children with their boxes side by side per
// axis. A leaf is a run of packets; a packet is up to 16 triangles of
// consecutive tree slots that share at most 16 distinct vertices, stored once
// each (structure of arrays) with three 4-bit corner indices per triangle
// and the triangles' primitive numbers, so a hit needs no other memory. A
// terrain packet of 16 triangles over 15 vertices takes 280 bytes, 17.5 per
// triangle (three plain vertices alone take 36), and is tested in one pass
// by the 16-lane kernel.
//
// Nothing here is virtual or owning: the kernels see plain pointers.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "kel/spatial/bvh.h"

namespace kel::fdo::detail {

constexpr int kWidth = 16;        // children per wide node
constexpr int kPacketTris = 16;   // triangles per packet
constexpr int kPacketVerts = 16;  // distinct vertices per packet

// Child references: a node number, or a leaf (its first packet, in 4-byte
// units from the start of the packet block, with the count beside it).
constexpr std::uint32_t kLeafBit = 0x80000000u;
constexpr std::uint32_t kNoChild = 0xffffffffu;

// 256 bytes. A child's box is stored in 8 bits per plane, relative to the
// node: plane = q * scale + origin in float arithmetic, with scale a power of
// two; the builder rounds every plane outward and checks it with this very
// arithmetic, so a decoded box always holds the child's triangles. Only
// children in `valid` are ever visited.
struct alignas(64) WideNode {
  float origin[3];
  float scale[3];
  std::uint32_t valid;
  std::uint8_t spare[4];
  std::uint8_t q[6][kWidth];  // planes: min x, y, z, max x, y, z
  std::uint32_t child[kWidth];
  std::uint32_t packets[kWidth];  // leaf children: packets in the run
};
static_assert(sizeof(WideNode) == 256);

inline float Decode(std::uint8_t q, float scale, float origin) { return float(q) * scale + origin; }

// A packet: this header, the primitive numbers prim[triangles], the
// vertices x[vertices], y[vertices], z[vertices], then 24 bytes of corner
// indices: corner k of triangle j is the nibble j of bytes 8k .. 8k+7 (low
// nibble first), unused nibbles 0 so every lane names a real vertex.
struct PacketHeader {
  std::uint8_t triangles;  // 1 .. 16
  std::uint8_t vertices;   // 1 .. 16
  std::uint8_t spare[2];
  float minZ, maxZ;  // over the triangles with finite vertices
};
static_assert(sizeof(PacketHeader) == 12);

constexpr std::size_t PacketBytes(int triangles, int vertices) {
  return 12 + 4 * std::size_t(triangles) + 12 * std::size_t(vertices) + 24;
}
inline const PacketHeader& Header(const std::uint8_t* p) { return *reinterpret_cast<const PacketHeader*>(p); }
inline std::size_t PacketBytes(const std::uint8_t* p) { return PacketBytes(Header(p).triangles, Header(p).vertices); }
inline const std::uint32_t* PacketPrimitives(const std::uint8_t* p) {
  return reinterpret_cast<const std::uint32_t*>(p + 12);
}
inline const float* PacketVertices(const std::uint8_t* p) {
  return reinterpret_cast<const float*>(p + 12 + 4 * std::size_t(Header(p).triangles));
}
inline const std::uint8_t* PacketCorners(const std::uint8_t* p) {
  return p + 12 + 4 * std::size_t(Header(p).triangles) + 12 * std::size_t(Header(p).vertices);
}
inline int Corner(const std::uint8_t* corners, int k, int j) { return (corners[8 * k + j / 2] >> (4 * (j & 1))) & 15; }

// The x/y grid for rays straight down. Coordinates map to fine units (256
// per cell) by one monotonic float expression, for packet boxes when the
// grid is built and for ray origins when it is walked; so a point inside a
// packet's box always lands in a cell that lists the packet, inside the
// entry's fine box.
constexpr int kFine = 256;

inline int Fine(float v, float v0, float s, int cells) {
  const float f = (v - v0) * s;
  if (!(f > 0.0f)) return 0;  // also NaN
  if (!(f < float(cells * kFine))) return cells * kFine - 1;
  return int(f);
}

// One entry of a column: a packet whose x/y box meets the cell and the part
// of that box inside the cell in fine units. A column lists its packets
// highest top first, so a downward walk stops at the first packet whose
// top (in its header) lies below the best hit.
struct ColumnEntry {
  std::uint32_t packet;  // 4-byte units; kNoChild ends an overflow list
  std::uint8_t x0, x1, y0, y1;
};
static_assert(sizeof(ColumnEntry) == 8);

// A cell: one cache line holding its first entries, so a vertical ray
// needs one load to learn which packets to fetch; a longer column goes on
// in the overflow list. `more` holds the count of entries here in its low
// three bits and the overflow list's start above them (all ones: none).
constexpr int kInlineEntries = 7;
constexpr std::uint32_t kNoOverflow = 0xffffffffu >> 3;

struct alignas(64) ColumnCell {
  ColumnEntry entry[kInlineEntries];
  std::uint32_t more;
  std::uint32_t spare;
};
static_assert(sizeof(ColumnCell) == 64);

struct Columns {
  float x0 = 0, y0 = 0, x1 = -1, y1 = -1;  // every packet box lies inside
  float sx = 0, sy = 0;                    // fine units per coordinate unit
  int nx = 0, ny = 0;
  const ColumnCell* cells = nullptr;  // nx * ny
  const ColumnEntry* overflow = nullptr;
  // Per cell, the highest-topped packet whose box holds the cell's centre
  // (kNoChild: none), most often the one a vertical ray there hits. Four
  // bytes a cell stay in cache where the cells do not, so that packet is
  // asked for while the cell's own line is still on its way.
  const std::uint32_t* hint = nullptr;
};

struct PickData {
  const WideNode* nodes = nullptr;
  float top = -HUGE_VALF;  // highest finite z
  std::uint32_t root = kNoChild;  // a node, a leaf reference, or kNoChild when empty
  std::uint32_t rootPackets = 0;  // packets when the root is a leaf
  const std::uint8_t* packets = nullptr;
  float maxAbs = 0;                           // largest finite coordinate magnitude
  Columns columns;
};

// Per-ray constants. The triangle test follows Woop, Benthin and Wald,
// "Watertight Ray/Triangle Intersection", JCGT 2013: vertices are moved to
// the ray origin and sheared so the ray runs along +z; the 2-D edge
// functions of shared edges are then exact negatives of each other, so a ray
// through a shared edge or vertex cannot slip between two triangles.
struct PickRay {
  float o[3];
  float dir[3];
  int kx, ky, kz;
  float sx, sy, sz;
  float inv[3];     // 1 / dir, kept finite (see PrepareRay)
  float invFar[3];  // inv widened for exit distances (see PrepareRay)
  int near[3];     // each axis's near plane (0-5, as WideNode::q)
  int far[3];
  float slack;     // absolute part of the pruning margin
  bool down;       // exactly vertical, downward: the column walk applies
};

// Robust traversal (Ize, "Robust BVH Ray Traversal", JCGT 2013): exit
// distances computed with the reciprocal widened by a few units of rounding
// (2 gamma(3) in the paper, which widens the distance itself; one rounding
// more here) keep the float slab test from missing a box the ray touches,
// so a hit on a box face is never pruned.
constexpr float kRobustFar = 1.000001f;

// Fills the per-ray constants; false for a ray that can hit nothing.
// maxAbs is the largest coordinate magnitude of the soup (for the margin).
inline bool PrepareRay(const ray& in, float maxAbs, PickRay& r) {
  for (int a = 0; a < 3; ++a) {
    r.o[a] = in.origin[a];
    r.dir[a] = in.direction[a];
    if (!std::isfinite(r.o[a]) || !std::isfinite(r.dir[a])) return false;
  }
  int kz = 0;
  if (std::fabs(r.dir[1]) > std::fabs(r.dir[kz])) kz = 1;
  if (std::fabs(r.dir[2]) > std::fabs(r.dir[kz])) kz = 2;
  if (r.dir[kz] == 0.0f) return false;
  int kx = (kz + 1) % 3, ky = (kx + 1) % 3;
  if (r.dir[kz] < 0.0f) std::swap(kx, ky);  // keeps the winding; the test is two-sided anyway
  r.kx = kx, r.ky = ky, r.kz = kz;
  r.sx = r.dir[kx] / r.dir[kz];
  r.sy = r.dir[ky] / r.dir[kz];
  r.sz = 1.0f / r.dir[kz];
  float m = maxAbs;
  for (int a = 0; a < 3; ++a) {
    // A zero or tiny direction gets a large finite inverse, so the slab
    // test never meets 0 x inf (Embree does the same below 1e-18).
    r.inv[a] = std::fabs(r.dir[a]) >= 1e-18f ? 1.0f / r.dir[a] : std::copysign(1e18f, r.dir[a]);
    r.invFar[a] = r.inv[a] * kRobustFar;
    const bool back = r.inv[a] < 0.0f;
    r.near[a] = (back ? 3 : 0) + a;
    r.far[a] = (back ? 0 : 3) + a;
    m = std::max(m, std::fabs(r.o[a]));
  }
  r.slack = m * 0x1p-18f;
  r.down = r.dir[0] == 0.0f && r.dir[1] == 0.0f && r.dir[2] < 0.0f;
  return true;
}

// Best hit so far. Ties go to the lowest primitive number; a hit must be
// nearer than the distance the caller preset.
struct PickBest {
  float t;
  bool found;
  const std::uint8_t* packet;
  int lane;
};

// Pruning margin: a box or column entry is skipped only when it starts
// beyond the best hit by more than the triangle test's rounding can move a
// distance, so pruning never decides between equal or nearly equal hits.
inline float Cutoff(const PickBest& b, const PickRay& r) { return b.t + (b.t * 0x1p-18f + r.slack); }

#ifdef KEL_PICK_STATS
struct PickCounters {
  unsigned long long rays, nodes, leaves, packets, entries;
};
extern PickCounters g_pickCounters;
#define KEL_PICK_COUNT(field) (++::kel::fdo::detail::g_pickCounters.field)
#else
#define KEL_PICK_COUNT(field) ((void)0)
#endif

// The kernels: nearest hit of one prepared ray, updating `best`.
using PickFn = void (*)(const PickData&, const PickRay&, PickBest&);

void PickScalar(const PickData&, const PickRay&, PickBest&);
void PickSse2(const PickData&, const PickRay&, PickBest&);
void PickAvx2(const PickData&, const PickRay&, PickBest&);
void PickAvx512(const PickData&, const PickRay&, PickBest&);

// Barycentric weights of the best hit's second and third vertices.
void PickWeights(const PickRay& r, const PickBest& b, float* uv);

}  // namespace kel::fdo::detail
