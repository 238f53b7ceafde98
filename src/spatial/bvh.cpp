// Bounding volume hierarchy: spatial-middle build and nearest-hit walks.
#include "kel/spatial/bvh.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "spatial/detail/aligned_memory.h"
#include "spatial/detail/lane4.h"

namespace kel::fdo {

using namespace detail::simd;

bvh_primitive_iterator::~bvh_primitive_iterator() = default;
bvh_primitive_intersector::~bvh_primitive_intersector() = default;

simple_primitive_iterator::simple_primitive_iterator(const void* vertices, std::size_t strideBytes,
                                                     const std::uint32_t* indices, int triangleCount)
    : vertices_(static_cast<const unsigned char*>(vertices)),
      stride_(strideBytes),
      indices_(indices),
      triangleCount_(triangleCount) {}

void simple_primitive_iterator::getBox(int index, box& out) {
  assert(index >= 0 && index < triangleCount_);
  float p[3][3];
  for (int k = 0; k < 3; ++k)
    std::memcpy(p[k], vertices_ + std::size_t{indices_[3 * std::size_t(index) + k]} * stride_, sizeof(p[k]));
  for (int a = 0; a < 3; ++a) {
    out.min[a] = std::min(std::min(p[0][a], p[1][a]), p[2][a]);
    out.max[a] = std::max(std::max(p[0][a], p[1][a]), p[2][a]);
  }
  out.min[3] = out.max[3] = 0.0f;
}

int simple_primitive_iterator::count() { return triangleCount_; }

void bvh::AlignedFree::operator()(void* p) const noexcept { std::free(p); }
void bvh::NodeFree::operator()(node* p) const noexcept { std::free(reinterpret_cast<unsigned char*>(p) - 32); }

namespace {

template <typename T>
T* AllocAligned(std::size_t n) {
  return static_cast<T*>(detail::AllocBlock(n * sizeof(T), 16));
}

node* AllocNodes(std::size_t n) {
  return reinterpret_cast<node*>(static_cast<unsigned char*>(detail::AllocBlock(n * sizeof(node) + 32, 64)) + 32);
}

using FreeDeleter = detail::BlockFree;

// Build scratch for one primitive, kept in slot order and swapped along with
// the index array, so every pass over a node's slice reads memory in sequence.
// The centroid is worked out where it is needed rather than stored: a third
// less memory to fill and to sweep at every level.
struct alignas(16) Prim {
  float lo[4];
  float hi[4];
  float centre(int a) const { return (lo[a] + hi[a]) * 0.5f; }
};

struct Bounds {
  Lane4 lo, hi;    // box
  Lane4 clo, chi;  // centroid box
};

inline void ResetBounds(Bounds& b) {
  b.lo = b.clo = Set1(__builtin_huge_valf());
  b.hi = b.chi = Set1(-__builtin_huge_valf());
}

inline void Grow(Bounds& b, const Prim& p) {
  const Lane4 lo = Load(p.lo), hi = Load(p.hi);
  const Lane4 c = Mul(Add(lo, hi), Set1(0.5f));
  b.lo = Min(b.lo, lo);
  b.hi = Max(b.hi, hi);
  b.clo = Min(b.clo, c);
  b.chi = Max(b.chi, c);
}

inline void WriteBox(node& n, const Bounds& b) {
  alignas(16) float lo[4], hi[4];
  Store(lo, b.lo);
  Store(hi, b.hi);
  n.minX = lo[0];
  n.minY = lo[1];
  n.minZ = lo[2];
  n.maxX = hi[0];
  n.maxY = hi[1];
  n.maxZ = hi[2];
}

// Two-ended partition of [begin, end) on axis `a`: centroids below the split
// go left. The bounds of both sides are gathered on the way, so the children
// never need a pass of their own.
int Partition(Prim* prims, std::uint32_t* idx, int begin, int end, int a, float split, Bounds& leftOut,
              Bounds& rightOut) {
  // Local accumulators: the swaps below could alias the callers' bounds,
  // which would keep them in memory for the whole loop.
  Bounds left, right;
  ResetBounds(left);
  ResetBounds(right);
  int i = begin, j = end - 1;
  for (;;) {
    while (i <= j && prims[i].centre(a) < split) Grow(left, prims[i++]);
    while (i <= j && !(prims[j].centre(a) < split)) Grow(right, prims[j--]);
    if (i > j) break;
    std::swap(prims[i], prims[j]);
    std::swap(idx[i], idx[j]);
    Grow(left, prims[i++]);
    Grow(right, prims[j--]);
  }
  leftOut = left;
  rightOut = right;
  return i - begin;
}

struct Pending {
  int node;
  int depth;
  Lane4 clo, chi;
};

constexpr int kMaxPending = 32;

}  // namespace

bvh::~bvh() = default;

void bvh::build(bvh_primitive_iterator& primitives) {
  nodes.reset();
  primitiveIndices.reset();
  nodeCount = nodeCapacity = primitiveCount = 0;

  const int n = std::max(0, primitives.count());
  std::unique_ptr<Prim[], FreeDeleter> prims(AllocAligned<Prim>(std::size_t(n)));
  primitiveIndices.reset(AllocAligned<std::uint32_t>(std::size_t(n)));
  primitiveCount = n;
  std::uint32_t* idx = primitiveIndices.get();
  for (int i = 0; i < n; ++i) {
    alignas(16) box b;
    primitives.getBox(i, b);
    Prim& p = prims[i];
    std::memcpy(p.lo, b.min, sizeof(p.lo));
    std::memcpy(p.hi, b.max, sizeof(p.hi));
    idx[i] = std::uint32_t(i);
  }

  const std::int64_t m = (2 * std::int64_t{n}) / 4;
  nodeCapacity = int(m / 2 + m + 1);
  nodes.reset(AllocNodes(std::size_t(nodeCapacity)));
  nodeCount = 1;
  nodes[0] = node{0, 0, 0, 0, 0, 0, 0, n};
  if (n == 0) return;

  Bounds cur;
  ResetBounds(cur);
  for (int i = 0; i < n; ++i) Grow(cur, prims[i]);

  Pending stack[kMaxPending];
  int sp = 0;
  int ni = 0, depth = 0;
  for (;;) {
    node& nd = nodes[ni];
    WriteBox(nd, cur);
    const int first = nd.first, count = nd.count;

    alignas(16) float ext[4];
    Store(ext, Sub(cur.chi, cur.clo));
    if (epsilon == 0.0f) epsilon = std::sqrt(ext[0] * ext[0] + ext[1] * ext[1] + ext[2] * ext[2]) * 1e-5f;

    int left = 0;
    Bounds lb, rb;
    // Depth is capped too so the query's fixed stack can never overflow;
    // only pathological inputs (exponentially spaced centroids) get there.
    if (count > 4 && sp < kMaxPending && depth < kStackSize - 1) {
      int axis = 0;
      if (ext[1] > ext[0]) axis = 1;
      if (ext[2] > ext[axis]) axis = 2;
      if (!(ext[axis] < epsilon)) {
        alignas(16) float clo[4];
        Store(clo, cur.clo);
        for (int attempt = 0; attempt < 3; ++attempt) {
          const int a = (axis + attempt) % 3;
          const float split = clo[a] + ext[a] * 0.5f;
          left = Partition(prims.get(), idx, first, first + count, a, split, lb, rb);
          if (left > 0 && left < count) break;
          left = 0;
        }
      }
    }

    if (left == 0) {
      if (sp == 0) break;
      const Pending& p = stack[--sp];
      ni = p.node;
      depth = p.depth;
      cur.clo = p.clo;
      cur.chi = p.chi;
      // The box itself was written when the child was created.
      alignas(16) float lo[4] = {nodes[ni].minX, nodes[ni].minY, nodes[ni].minZ, 0};
      alignas(16) float hi[4] = {nodes[ni].maxX, nodes[ni].maxY, nodes[ni].maxZ, 0};
      cur.lo = Load(lo);
      cur.hi = Load(hi);
      continue;
    }

    if (nodeCount + 2 > nodeCapacity) {
      const std::int64_t grown = std::max<std::int64_t>(std::int64_t{nodeCapacity} + nodeCapacity / 2,
                                                        std::int64_t{nodeCapacity} + 2);
      node_array bigger(AllocNodes(std::size_t(grown)));
      std::memcpy(bigger.get(), nodes.get(), sizeof(node) * std::size_t(nodeCount));
      nodes = std::move(bigger);
      nodeCapacity = int(grown);
    }
    const int c = nodeCount;
    nodeCount += 2;
    nodes[c] = node{0, 0, 0, first, 0, 0, 0, left};
    nodes[c + 1] = node{0, 0, 0, first + left, 0, 0, 0, count - left};
    WriteBox(nodes[c], lb);
    WriteBox(nodes[c + 1], rb);
    nodes[ni].first = c;
    nodes[ni].count = 0;

    // The larger child waits (the left one on a tie); the smaller goes on.
    const bool pushLeft = left >= count - left;
    const Bounds& waiting = pushLeft ? lb : rb;
    stack[sp++] = Pending{pushLeft ? c : c + 1, depth + 1, waiting.clo, waiting.chi};
    ni = pushLeft ? c + 1 : c;
    cur = pushLeft ? rb : lb;
    ++depth;
  }
}

namespace {

struct Entry {
  int node;
  float dist;
};

// Slab test against the ray's box; the distance is where the ray enters.
struct GeneralEntry {
  Lane4 origin, inv;
  [[gnu::always_inline]] bool operator()(const node& n, float& dist) const {
    return SlabTest(ClearW(Load(&n.minX)), ClearW(Load(&n.maxX)), origin, inv, dist);
  }
};

// A ray along z enters a box whose x/y footprint holds its origin, inclusive
// at both ends and written so that a NaN coordinate never enters; the
// distance is to the nearer z face, worked out before the test (branch-free,
// measured no slower) and read only after an entry.
struct ColumnEntry {
  float ox, oy, oz;
  [[gnu::always_inline]] bool operator()(const node& n, float& dist) const {
    dist = std::min(n.minZ - oz, n.maxZ - oz);
    return ox >= n.minX && !(ox > n.maxX) && oy >= n.minY && !(oy > n.maxY);
  }
};

// Nearest-first walk shared by both ray kinds: of two entered children the
// nearer goes on (the left one on equal distance) and the other waits; a node
// whose distance is not below the current hit is skipped.
template <typename Enter>
[[gnu::always_inline]] inline void Walk(const node* nd, const std::uint32_t* idx, hit& io, const ray& r,
                                        bvh_primitive_intersector& x, const Enter& enter) {
  float dist;
  if (!enter(nd[0], dist) || dist > io.t) return;

  alignas(16) float out[16];
  Entry stack[bvh::kStackSize];
  int sp = 0;
  int ni = 0;
  for (;;) {
    if (dist < io.t) {
      const node& n = nd[ni];
      if (n.count > 0) {
        for (int k = n.first, e = n.first + n.count; k < e; ++k) {
          const std::uint32_t p = idx[k];
          if (x.intersect(int(p), r, out) && out[0] < io.t) {
            io.t = out[0];
            io.primitive = p;
          }
        }
      } else {
        float tl, tr;
        const bool hl = enter(nd[n.first], tl);
        const bool hr = enter(nd[n.first + 1], tr);
        if (hl && hr) {
          assert(sp < bvh::kStackSize);
          if (sp == bvh::kStackSize) return;  // only a hand-made tree gets here
          if (tl > tr) {
            stack[sp++] = Entry{n.first, tl};
            ni = n.first + 1;
            dist = tr;
          } else {
            stack[sp++] = Entry{n.first + 1, tr};
            ni = n.first;
            dist = tl;
          }
          continue;
        }
        if (hl || hr) {
          ni = hl ? n.first : n.first + 1;
          dist = hl ? tl : tr;
          continue;
        }
      }
    }
    if (sp == 0) return;
    --sp;
    ni = stack[sp].node;
    dist = stack[sp].dist;
  }
}

}  // namespace

void bvh::intersect(hit& io, const ray& r, bvh_primitive_intersector& x) const {
  if (primitiveCount == 0 || nodeCount == 0) return;
  if (std::fabs(r.direction[2]) == 1.0f)
    intersectVertical(io, r, x);
  else
    intersectGeneral(io, r, x);
}

void bvh::intersectGeneral(hit& io, const ray& r, bvh_primitive_intersector& x) const {
  Walk(nodes.get(), primitiveIndices.get(), io, r, x, GeneralEntry{Load(r.origin), Load(r.invDirection)});
}

void bvh::intersectVertical(hit& io, const ray& r, bvh_primitive_intersector& x) const {
  Walk(nodes.get(), primitiveIndices.get(), io, r, x, ColumnEntry{r.origin[0], r.origin[1], r.origin[2]});
}

void bvh::setNodes(const node* data, int n) {
  nodes.reset();
  nodeCount = nodeCapacity = 0;
  if (n <= 0) return;
  nodes.reset(AllocNodes(std::size_t(n)));
  std::memcpy(nodes.get(), data, sizeof(node) * std::size_t(n));
  nodeCount = nodeCapacity = n;
}

void bvh::setPrimitiveIndices(const std::uint32_t* data, int n) {
  primitiveIndices.reset();
  primitiveCount = 0;
  if (n <= 0) return;
  primitiveIndices.reset(AllocAligned<std::uint32_t>(std::size_t(n)));
  std::memcpy(primitiveIndices.get(), data, sizeof(std::uint32_t) * std::size_t(n));
  primitiveCount = n;
}

void bvh::printRoot() const {
  if (nodeCount == 0) return;
  const node& n = nodes[0];
  std::fprintf(stderr, "BVH box: %f   %f   %f : %f   %f   %f\n\n", double(n.minX), double(n.minY), double(n.minZ),
               double(n.maxX), double(n.maxY), double(n.maxZ));
}

}  // namespace kel::fdo
