// The pick kernels: box tests, the watertight packet test and both walks,
// written once over a lane type and compiled per instruction set.
//
// Every lane type runs the same float operations in the same order (no FMA:
// the library builds with -ffp-contract=off), so the scalar lanes are the
// reference and every wider kernel returns the same bits. Lanes whose 2-D
// edge function comes out exactly zero are finished by one scalar routine
// in double, as the watertight test prescribes.
//
// Everything here has internal linkage: each kernel's translation unit is
// built with its own -m flags, and an inline function shared between them
// could be merged by the linker into the copy with the widest instructions.
#pragma once

#include <cstdint>

#include "spatial/detail/pick_layout.h"

#if defined(__SSE2__) && !defined(KEL_NO_SIMD)
#include <immintrin.h>
#endif

namespace kel::fdo::detail {
namespace {

// Robust traversal (Ize, "Robust BVH Ray Traversal", JCGT 2013): widening
// the far distance by 2 gamma(3) keeps the float slab test from missing a
// box that the ray touches, so a hit on a box face is never pruned.
constexpr float kRobustFar = 1.0000004f;

struct ScalarLanes {
  using V = float;
  static constexpr int W = 1;
  static V Set1(float s) { return s; }
  static V Load(const float* p) { return *p; }
  static V LoadN(const float* p, int) { return *p; }
  static void Store(float* p, V v) { *p = v; }
  static V Add(V a, V b) { return a + b; }
  static V Sub(V a, V b) { return a - b; }
  static V Mul(V a, V b) { return a * b; }
  static V Div(V a, V b) { return a / b; }
  static V Min(V a, V b) { return a < b ? a : b; }
  static V Max(V a, V b) { return a > b ? a : b; }
  static unsigned Lt(V a, V b) { return a < b; }
  static unsigned Le(V a, V b) { return a <= b; }
  static unsigned Gt(V a, V b) { return a > b; }
  static unsigned Ge(V a, V b) { return a >= b; }
  static unsigned Eq(V a, V b) { return a == b; }
  static V Gather(const float* table, const std::uint8_t* idx) { return table[*idx & 15]; }
};

#if defined(__SSE2__) && !defined(KEL_NO_SIMD)
struct Sse2Lanes {
  using V = __m128;
  static constexpr int W = 4;
  static V Set1(float s) { return _mm_set1_ps(s); }
  static V Load(const float* p) { return _mm_loadu_ps(p); }
  static V LoadN(const float* p, int) { return _mm_loadu_ps(p); }  // vertex counts are multiples of 4
  static void Store(float* p, V v) { _mm_storeu_ps(p, v); }
  static V Add(V a, V b) { return _mm_add_ps(a, b); }
  static V Sub(V a, V b) { return _mm_sub_ps(a, b); }
  static V Mul(V a, V b) { return _mm_mul_ps(a, b); }
  static V Div(V a, V b) { return _mm_div_ps(a, b); }
  static V Min(V a, V b) { return _mm_min_ps(a, b); }
  static V Max(V a, V b) { return _mm_max_ps(a, b); }
  static unsigned Lt(V a, V b) { return unsigned(_mm_movemask_ps(_mm_cmplt_ps(a, b))); }
  static unsigned Le(V a, V b) { return unsigned(_mm_movemask_ps(_mm_cmple_ps(a, b))); }
  static unsigned Gt(V a, V b) { return unsigned(_mm_movemask_ps(_mm_cmpgt_ps(a, b))); }
  static unsigned Ge(V a, V b) { return unsigned(_mm_movemask_ps(_mm_cmpge_ps(a, b))); }
  static unsigned Eq(V a, V b) { return unsigned(_mm_movemask_ps(_mm_cmpeq_ps(a, b))); }
  static V Gather(const float* t, const std::uint8_t* i) {
    return _mm_setr_ps(t[i[0] & 15], t[i[1] & 15], t[i[2] & 15], t[i[3] & 15]);
  }
};
#endif

#if defined(__AVX2__) && !defined(KEL_NO_SIMD)
struct Avx2Lanes {
  using V = __m256;
  static constexpr int W = 8;
  static V Set1(float s) { return _mm256_set1_ps(s); }
  static V Load(const float* p) { return _mm256_loadu_ps(p); }
  static V LoadN(const float* p, int n) {
    if (n >= 8) return _mm256_loadu_ps(p);
    return _mm256_maskload_ps(p, _mm256_setr_epi32(-1, -1, -1, -1, 0, 0, 0, 0));  // n == 4
  }
  static void Store(float* p, V v) { _mm256_storeu_ps(p, v); }
  static V Add(V a, V b) { return _mm256_add_ps(a, b); }
  static V Sub(V a, V b) { return _mm256_sub_ps(a, b); }
  static V Mul(V a, V b) { return _mm256_mul_ps(a, b); }
  static V Div(V a, V b) { return _mm256_div_ps(a, b); }
  static V Min(V a, V b) { return _mm256_min_ps(a, b); }
  static V Max(V a, V b) { return _mm256_max_ps(a, b); }
  static unsigned Lt(V a, V b) { return unsigned(_mm256_movemask_ps(_mm256_cmp_ps(a, b, _CMP_LT_OQ))); }
  static unsigned Le(V a, V b) { return unsigned(_mm256_movemask_ps(_mm256_cmp_ps(a, b, _CMP_LE_OQ))); }
  static unsigned Gt(V a, V b) { return unsigned(_mm256_movemask_ps(_mm256_cmp_ps(a, b, _CMP_GT_OQ))); }
  static unsigned Ge(V a, V b) { return unsigned(_mm256_movemask_ps(_mm256_cmp_ps(a, b, _CMP_GE_OQ))); }
  static unsigned Eq(V a, V b) { return unsigned(_mm256_movemask_ps(_mm256_cmp_ps(a, b, _CMP_EQ_OQ))); }
  // Sixteen-entry table lookup: two eight-lane permutes and a blend on bit 3.
  static V Gather(const float* t, const std::uint8_t* i) {
    const __m256i idx = _mm256_and_si256(
        _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(i))), _mm256_set1_epi32(15));
    const __m256 lo = _mm256_permutevar8x32_ps(_mm256_loadu_ps(t), idx);
    const __m256 hi = _mm256_permutevar8x32_ps(_mm256_loadu_ps(t + 8), idx);
    return _mm256_blendv_ps(lo, hi, _mm256_castsi256_ps(_mm256_cmpgt_epi32(idx, _mm256_set1_epi32(7))));
  }
};
#endif

#if defined(__AVX512F__) && !defined(KEL_NO_SIMD)
struct Avx512Lanes {
  using V = __m512;
  static constexpr int W = 16;
  static V Set1(float s) { return _mm512_set1_ps(s); }
  static V Load(const float* p) { return _mm512_loadu_ps(p); }
  static V LoadN(const float* p, int n) {
    return _mm512_maskz_loadu_ps(n >= 16 ? __mmask16(0xffff) : __mmask16((1u << n) - 1), p);
  }
  static void Store(float* p, V v) { _mm512_storeu_ps(p, v); }
  static V Add(V a, V b) { return _mm512_add_ps(a, b); }
  static V Sub(V a, V b) { return _mm512_sub_ps(a, b); }
  static V Mul(V a, V b) { return _mm512_mul_ps(a, b); }
  static V Div(V a, V b) { return _mm512_div_ps(a, b); }
  static V Min(V a, V b) { return _mm512_min_ps(a, b); }
  static V Max(V a, V b) { return _mm512_max_ps(a, b); }
  static unsigned Lt(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_LT_OQ); }
  static unsigned Le(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_LE_OQ); }
  static unsigned Gt(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_GT_OQ); }
  static unsigned Ge(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_GE_OQ); }
  static unsigned Eq(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_EQ_OQ); }
  static V Gather(const float* t, const std::uint8_t* i) {
    // The zero-masked forms: the plain ones start from an undefined vector,
    // which g++ 12 reports as maybe-uninitialized.
    const __m512i idx = _mm512_maskz_cvtepu8_epi32(0xffff, _mm_loadu_si128(reinterpret_cast<const __m128i*>(i)));
    return _mm512_maskz_permutexvar_ps(0xffff, idx, _mm512_loadu_ps(t));  // uses the low four bits
  }
};
#endif

// One triangle of a packet, from the sheared vertices, in the order every
// lane type uses. When an edge function is exactly zero the three are
// recomputed in double: a product of two floats is exact there, so the sign
// is the true one and two triangles sharing the edge cannot both refuse.
// out receives U, V, W, det and t.
inline bool TestLane(const float* tx, const float* ty, const float* tz, int a, int b, int c, float* out) {
  const float ax = tx[a], ay = ty[a], bx = tx[b], by = ty[b], cx = tx[c], cy = ty[c];
  float u = cx * by - cy * bx;
  float v = ax * cy - ay * cx;
  float w = bx * ay - by * ax;
  if (u == 0.0f || v == 0.0f || w == 0.0f) {
    u = float(double(cx) * double(by) - double(cy) * double(bx));
    v = float(double(ax) * double(cy) - double(ay) * double(cx));
    w = float(double(bx) * double(ay) - double(by) * double(ax));
  }
  if ((u < 0.0f || v < 0.0f || w < 0.0f) && (u > 0.0f || v > 0.0f || w > 0.0f)) return false;
  const float det = (u + v) + w;
  if (det == 0.0f) return false;
  const float t = ((u * tz[a] + v * tz[b]) + w * tz[c]) / det;
  out[0] = u, out[1] = v, out[2] = w, out[3] = det, out[4] = t;
  return t >= 0.0f;
}

// One triangle against a prepared ray, in scalar code with the kernels'
// arithmetic: the model a whole index must match triangle for triangle.
inline bool TestTriangle(const PickRay& r, const float* p0, const float* p1, const float* p2, float& t) {
  float tx[3], ty[3], tz[3];
  const float* p[3] = {p0, p1, p2};
  for (int k = 0; k < 3; ++k) {
    const float c = p[k][r.kz] - r.o[r.kz];
    tx[k] = (p[k][r.kx] - r.o[r.kx]) - r.sx * c;
    ty[k] = (p[k][r.ky] - r.o[r.ky]) - r.sy * c;
    tz[k] = r.sz * c;
  }
  float out[5];
  if (!TestLane(tx, ty, tz, 0, 1, 2, out)) return false;
  t = out[4];
  return true;
}

// A candidate replaces the best when it is nearer, or equally near with a
// lower primitive number; it never ties with the distance the caller preset.
inline void Consider(const PickData& d, PickBest& b, const std::uint8_t* packet, int lane, float t) {
  if (!(t <= b.t)) return;
  const auto& h = *reinterpret_cast<const PacketHeader*>(packet);
  const std::uint32_t p = d.primitives[h.firstSlot + std::uint32_t(lane)];
  if (t < b.t || (b.found && p < b.primitive)) {
    b.t = t;
    b.primitive = p;
    b.found = true;
    b.packet = packet;
    b.lane = lane;
  }
}

// Shears a packet's vertices into the ray's frame (per vertex, so a vertex
// shared by two triangles gets the same coordinates in both).
template <class L>
[[gnu::always_inline]] inline void Shear(const std::uint8_t* packet, const PickRay& r, float* tx, float* ty,
                                         float* tz) {
  using V = typename L::V;
  const int n4 = 4 * reinterpret_cast<const PacketHeader*>(packet)->vertexQuads;
  const float* v = PacketVertices(packet);
  const float* px = v + n4 * r.kx;
  const float* py = v + n4 * r.ky;
  const float* pz = v + n4 * r.kz;
  const V ox = L::Set1(r.o[r.kx]), oy = L::Set1(r.o[r.ky]), oz = L::Set1(r.o[r.kz]);
  const V sx = L::Set1(r.sx), sy = L::Set1(r.sy), sz = L::Set1(r.sz);
  for (int i = 0; i < n4; i += L::W) {
    const V c = L::Sub(L::LoadN(pz + i, n4 - i), oz);
    L::Store(tx + i, L::Sub(L::Sub(L::LoadN(px + i, n4 - i), ox), L::Mul(sx, c)));
    L::Store(ty + i, L::Sub(L::Sub(L::LoadN(py + i, n4 - i), oy), L::Mul(sy, c)));
    L::Store(tz + i, L::Mul(sz, c));
  }
}

template <class L>
[[gnu::always_inline]] inline void TestPacket(const PickData& d, const std::uint8_t* packet, const PickRay& r,
                                              PickBest& b) {
  using V = typename L::V;
  // 32 entries: a 16-lane store may start at vertex 12.
  alignas(64) float tx[32], ty[32], tz[32];
  KEL_PICK_COUNT(packets);
  Shear<L>(packet, r, tx, ty, tz);
  const std::uint8_t* i0 = PacketIndices(packet);
  const std::uint8_t* i1 = i0 + 16;
  const std::uint8_t* i2 = i0 + 32;
  const int tris = reinterpret_cast<const PacketHeader*>(packet)->triangles;
  const V zero = L::Set1(0.0f);
  for (int base = 0; base < tris; base += L::W) {
    const V ax = L::Gather(tx, i0 + base), ay = L::Gather(ty, i0 + base), az = L::Gather(tz, i0 + base);
    const V bx = L::Gather(tx, i1 + base), by = L::Gather(ty, i1 + base), bz = L::Gather(tz, i1 + base);
    const V cx = L::Gather(tx, i2 + base), cy = L::Gather(ty, i2 + base), cz = L::Gather(tz, i2 + base);
    const V u = L::Sub(L::Mul(cx, by), L::Mul(cy, bx));
    const V v = L::Sub(L::Mul(ax, cy), L::Mul(ay, cx));
    const V w = L::Sub(L::Mul(bx, ay), L::Mul(by, ax));
    const unsigned active = (1u << (tris - base < L::W ? tris - base : L::W)) - 1;
    const unsigned onEdge = (L::Eq(u, zero) | L::Eq(v, zero) | L::Eq(w, zero)) & active;
    const unsigned neg = L::Lt(u, zero) | L::Lt(v, zero) | L::Lt(w, zero);
    const unsigned pos = L::Gt(u, zero) | L::Gt(v, zero) | L::Gt(w, zero);
    const V det = L::Add(L::Add(u, v), w);
    const V t = L::Div(L::Add(L::Add(L::Mul(u, az), L::Mul(v, bz)), L::Mul(w, cz)), det);
    unsigned hits = active & ~onEdge & ~(neg & pos) & ~L::Eq(det, zero) & L::Ge(t, zero) & L::Le(t, L::Set1(b.t));
    if (!(hits | onEdge)) continue;
    alignas(64) float ts[16];
    L::Store(ts, t);
    for (; hits; hits &= hits - 1) {
      const int k = __builtin_ctz(hits);
      Consider(d, b, packet, base + k, ts[k]);
    }
    for (unsigned e = onEdge; e; e &= e - 1) {
      const int k = base + __builtin_ctz(e);
      float out[5];
      if (TestLane(tx, ty, tz, i0[k], i1[k], i2[k], out)) Consider(d, b, packet, k, out[4]);
    }
  }
}

// Box test of a node's eight children. Returns the mask of children the ray
// enters before the cutoff, with their entry distances in tn.
template <class N>
[[gnu::always_inline]] inline unsigned TestNode(const WideNode& n, const PickRay& r, float cut, float* tn) {
  using V = typename N::V;
  const float* f = &n.lo[0][0];
  const V ox = N::Set1(r.o[0]), oy = N::Set1(r.o[1]), oz = N::Set1(r.o[2]);
  const V ix = N::Set1(r.inv[0]), iy = N::Set1(r.inv[1]), iz = N::Set1(r.inv[2]);
  const V limit = N::Set1(cut), robust = N::Set1(kRobustFar), zero = N::Set1(0.0f);
  unsigned mask = 0;
  for (int c = 0; c < kWidth; c += N::W) {
    const V nx = N::Mul(N::Sub(N::Load(f + r.near[0] + c), ox), ix);
    const V ny = N::Mul(N::Sub(N::Load(f + r.near[1] + c), oy), iy);
    const V nz = N::Mul(N::Sub(N::Load(f + r.near[2] + c), oz), iz);
    const V fx = N::Mul(N::Sub(N::Load(f + r.far[0] + c), ox), ix);
    const V fy = N::Mul(N::Sub(N::Load(f + r.far[1] + c), oy), iy);
    const V fz = N::Mul(N::Sub(N::Load(f + r.far[2] + c), oz), iz);
    const V tnear = N::Max(N::Max(nx, ny), N::Max(nz, zero));
    const V tfar = N::Min(N::Min(fx, fy), fz);
    mask |= N::Le(tnear, N::Min(N::Mul(tfar, robust), limit)) << c;
    N::Store(tn + c, tnear);
  }
  return mask;
}

struct StackItem {
  std::uint32_t ref;
  std::uint32_t packets;
  float t;
};

// Deep enough for any tree the builder makes: it never nests wide nodes
// deeper than the binary tree (below 64), and a level pushes at most 7.
constexpr int kPickStack = 64 * (kWidth - 1) + kWidth;

template <class T>
[[gnu::always_inline]] inline void TestRun(const PickData& d, std::uint32_t first, std::uint32_t count,
                                           const PickRay& r, PickBest& b) {
  const std::uint8_t* p = d.packets + 16 * std::size_t(first);
  for (std::uint32_t k = 0; k < count; ++k) {
    TestPacket<T>(d, p, r, b);
    p += PacketBytes(reinterpret_cast<const PacketHeader*>(p)->vertexQuads);
  }
}

// Nearest-first walk of the wide tree; of several entered children the
// nearest goes on and the others wait, farthest deepest.
template <class T, class N>
void TreeWalk(const PickData& d, const PickRay& r, PickBest& b) {
  if (d.root == kNoChild) return;
  if (d.root & kLeafBit) {
    TestRun<T>(d, d.root & ~kLeafBit, d.rootPackets, r, b);
    return;
  }
  StackItem stack[kPickStack];
  int sp = 0;
  stack[sp++] = StackItem{d.root, 0, 0.0f};
  while (sp > 0) {
    StackItem it = stack[--sp];
    if (it.t > Cutoff(b, r)) continue;
    for (;;) {
      if (it.ref & kLeafBit) {
        KEL_PICK_COUNT(leaves);
        TestRun<T>(d, it.ref & ~kLeafBit, it.packets, r, b);
        break;
      }
      KEL_PICK_COUNT(nodes);
      const WideNode& n = d.nodes[it.ref];
      alignas(32) float tn[kWidth];
      unsigned m = TestNode<N>(n, r, Cutoff(b, r), tn);
      if (!m) break;
      int k = __builtin_ctz(m);
      m &= m - 1;
      if (!m) {
        it = StackItem{n.child[k], n.packets[k], tn[k]};
        continue;
      }
      const int base = sp;
      for (;;) {
        // Insertion keeps the waiting children sorted, nearest on top.
        const StackItem item{n.child[k], n.packets[k], tn[k]};
        int j = sp++;
        while (j > base && stack[j - 1].t < item.t) {
          stack[j] = stack[j - 1];
          --j;
        }
        stack[j] = item;
        if (!m) break;
        k = __builtin_ctz(m);
        m &= m - 1;
      }
      it = stack[--sp];
    }
  }
}

// Rays straight down: the packets whose x/y box holds the origin, highest
// top first, until the rest lie below the best hit.
template <class T>
void ColumnWalk(const PickData& d, const PickRay& r, PickBest& b) {
  const Columns& c = d.columns;
  const float x = r.o[0], y = r.o[1], z = r.o[2];
  if (!(x >= c.x0 && x <= c.x1 && y >= c.y0 && y <= c.y1)) return;
  const std::size_t cell = std::size_t(CellOf(y, c.y0, c.sy, c.ny)) * std::size_t(c.nx) + CellOf(x, c.x0, c.sx, c.nx);
  const float perUnit = -1.0f / r.dir[2];
  for (std::uint32_t e = c.start[cell], end = c.start[cell + 1]; e < end; ++e) {
    const ColumnEntry& ce = c.entries[e];
    KEL_PICK_COUNT(entries);
    if ((z - ce.maxZ) * perUnit > Cutoff(b, r)) break;
    const std::uint8_t* p = d.packets + 16 * std::size_t(ce.packet);
    if (reinterpret_cast<const PacketHeader*>(p)->minZ > z) continue;  // wholly above the origin
    TestPacket<T>(d, p, r, b);
  }
}

template <class T, class N>
void Pick(const PickData& d, const PickRay& r, PickBest& b) {
  KEL_PICK_COUNT(rays);
  if (r.down && d.columns.start)
    ColumnWalk<T>(d, r, b);
  else
    TreeWalk<T, N>(d, r, b);
}

}  // namespace
}  // namespace kel::fdo::detail
