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

// A lane type offers the float operations, comparisons giving bit masks,
// and the packet-specific pieces: Shear (the packet's vertices moved into
// the ray's frame, kept as a table), Corners (the vertex numbers of corner
// k for the lanes from `base`) and Pick (table entries by vertex number).
// Sheared coordinates, one array per axis, for the lane types that keep
// their tables in memory.
struct ArrayTable {
  alignas(64) float x[20], y[20], z[20];  // room for a 4-lane store at vertex 15
};

struct ScalarLanes {
  using V = float;
  using I = int;
  using Part = const float*;
  using Table = ArrayTable;
  static constexpr int W = 1;
  static V Set1(float s) { return s; }
  static V Load(const float* p) { return *p; }
  static V LoadQ(const std::uint8_t* p) { return float(*p); }
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
  static void Shear(const float* v, int n, const PickRay& r, Table& t) {
    const float* px = v + n * r.kx;
    const float* py = v + n * r.ky;
    const float* pz = v + n * r.kz;
    for (int i = 0; i < n; ++i) {
      const float c = pz[i] - r.o[r.kz];
      t.x[i] = (px[i] - r.o[r.kx]) - r.sx * c;
      t.y[i] = (py[i] - r.o[r.ky]) - r.sy * c;
      t.z[i] = r.sz * c;
    }
  }
  static Part X(const Table& t) { return t.x; }
  static Part Y(const Table& t) { return t.y; }
  static Part Z(const Table& t) { return t.z; }
  static I Corners(const std::uint8_t* c, int k, int base) { return Corner(c, k, base); }
  static V Pick(Part p, I i) { return p[i]; }
  static void Spill(const Table& t, float*, const float*& x, const float*& y, const float*& z) {
    x = t.x, y = t.y, z = t.z;
  }
};

#if defined(__SSE2__) && !defined(KEL_NO_SIMD)
struct Sse2Lanes {
  using V = __m128;
  struct I {
    int i[4];
  };
  using Part = const float*;
  using Table = ArrayTable;
  static constexpr int W = 4;
  static V Set1(float s) { return _mm_set1_ps(s); }
  static V Load(const float* p) { return _mm_loadu_ps(p); }
  static V LoadQ(const std::uint8_t* p) {
    int bytes;
    __builtin_memcpy(&bytes, p, 4);
    const __m128i zero = _mm_setzero_si128();
    return _mm_cvtepi32_ps(_mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(bytes), zero), zero));
  }
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
  static void Shear(const float* v, int n, const PickRay& r, Table& t) {
    const float* px = v + n * r.kx;
    const float* py = v + n * r.ky;
    const float* pz = v + n * r.kz;
    const V ox = Set1(r.o[r.kx]), oy = Set1(r.o[r.ky]), oz = Set1(r.o[r.kz]);
    const V sx = Set1(r.sx), sy = Set1(r.sy), sz = Set1(r.sz);
    // Four at a time; lanes past the last vertex read the next array or the
    // corner bytes and are never picked.
    for (int i = 0; i < n; i += 4) {
      const V c = Sub(_mm_loadu_ps(pz + i), oz);
      Store(t.x + i, Sub(Sub(_mm_loadu_ps(px + i), ox), Mul(sx, c)));
      Store(t.y + i, Sub(Sub(_mm_loadu_ps(py + i), oy), Mul(sy, c)));
      Store(t.z + i, Mul(sz, c));
    }
  }
  static Part X(const Table& t) { return t.x; }
  static Part Y(const Table& t) { return t.y; }
  static Part Z(const Table& t) { return t.z; }
  static I Corners(const std::uint8_t* c, int k, int base) {
    return I{{Corner(c, k, base), Corner(c, k, base + 1), Corner(c, k, base + 2), Corner(c, k, base + 3)}};
  }
  static V Pick(Part p, const I& i) { return _mm_setr_ps(p[i.i[0]], p[i.i[1]], p[i.i[2]], p[i.i[3]]); }
  static void Spill(const Table& t, float*, const float*& x, const float*& y, const float*& z) {
    x = t.x, y = t.y, z = t.z;
  }
};
#endif

#if defined(__AVX2__) && !defined(KEL_NO_SIMD)
// Eight nibbles from four bytes, as eight lanes.
inline __m256i Nibbles8(const std::uint8_t* p) {
  int bytes;
  __builtin_memcpy(&bytes, p, 4);
  const __m128i b = _mm_cvtsi32_si128(bytes), m = _mm_set1_epi8(15);
  const __m128i n = _mm_unpacklo_epi8(_mm_and_si128(b, m), _mm_and_si128(_mm_srli_epi16(b, 4), m));
  return _mm256_cvtepu8_epi32(n);
}

struct Avx2Lanes {
  using V = __m256;
  using I = __m256i;
  struct Part {
    __m256 lo, hi;  // vertices 0-7 and 8-15
  };
  struct Table {
    Part x, y, z;
  };
  static constexpr int W = 8;
  static V Set1(float s) { return _mm256_set1_ps(s); }
  static V Load(const float* p) { return _mm256_loadu_ps(p); }
  static V LoadQ(const std::uint8_t* p) {
    return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))));
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
  // Vertices from `at`: lanes past the last one load as 0.
  static void ShearHalf(const float* v, int n, int at, const PickRay& r, V& x, V& y, V& z) {
    const __m256i m = _mm256_cmpgt_epi32(_mm256_set1_epi32(n - at), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    const V c = Sub(_mm256_maskload_ps(v + n * r.kz + at, m), Set1(r.o[r.kz]));
    x = Sub(Sub(_mm256_maskload_ps(v + n * r.kx + at, m), Set1(r.o[r.kx])), Mul(Set1(r.sx), c));
    y = Sub(Sub(_mm256_maskload_ps(v + n * r.ky + at, m), Set1(r.o[r.ky])), Mul(Set1(r.sy), c));
    z = Mul(Set1(r.sz), c);
  }
  static void Shear(const float* v, int n, const PickRay& r, Table& t) {
    ShearHalf(v, n, 0, r, t.x.lo, t.y.lo, t.z.lo);
    if (n > 8)
      ShearHalf(v, n, 8, r, t.x.hi, t.y.hi, t.z.hi);
    else
      t.x.hi = t.y.hi = t.z.hi = _mm256_setzero_ps();
  }
  static const Part& X(const Table& t) { return t.x; }
  static const Part& Y(const Table& t) { return t.y; }
  static const Part& Z(const Table& t) { return t.z; }
  static I Corners(const std::uint8_t* c, int k, int base) { return Nibbles8(c + 8 * k + base / 2); }
  // Sixteen-entry lookup: two eight-lane permutes and a blend on bit 3.
  static V Pick(const Part& p, I i) {
    const V lo = _mm256_permutevar8x32_ps(p.lo, i), hi = _mm256_permutevar8x32_ps(p.hi, i);
    return _mm256_blendv_ps(lo, hi, _mm256_castsi256_ps(_mm256_cmpgt_epi32(i, _mm256_set1_epi32(7))));
  }
  static void Spill(const Table& t, float* buf, const float*& x, const float*& y, const float*& z) {
    _mm256_storeu_ps(buf, t.x.lo), _mm256_storeu_ps(buf + 8, t.x.hi);
    _mm256_storeu_ps(buf + 16, t.y.lo), _mm256_storeu_ps(buf + 24, t.y.hi);
    _mm256_storeu_ps(buf + 32, t.z.lo), _mm256_storeu_ps(buf + 40, t.z.hi);
    x = buf, y = buf + 16, z = buf + 32;
  }
};
#endif

#if defined(__AVX512F__) && !defined(KEL_NO_SIMD)
struct Avx512Lanes {
  using V = __m512;
  using I = __m512i;
  using Part = __m512;
  struct Table {
    __m512 x, y, z;
  };
  static constexpr int W = 16;
  static V Set1(float s) { return _mm512_set1_ps(s); }
  static V Load(const float* p) { return _mm512_loadu_ps(p); }
  static V LoadQ(const std::uint8_t* p) {  // zero-masked forms: see Corners
    return _mm512_maskz_cvtepi32_ps(
        0xffff, _mm512_maskz_cvtepu8_epi32(0xffff, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p))));
  }
  static void Store(float* p, V v) { _mm512_storeu_ps(p, v); }
  static V Add(V a, V b) { return _mm512_add_ps(a, b); }
  static V Sub(V a, V b) { return _mm512_sub_ps(a, b); }
  static V Mul(V a, V b) { return _mm512_mul_ps(a, b); }
  static V Div(V a, V b) { return _mm512_div_ps(a, b); }
  static V Min(V a, V b) { return _mm512_maskz_min_ps(0xffff, a, b); }  // zero-masked: see Corners
  static V Max(V a, V b) { return _mm512_maskz_max_ps(0xffff, a, b); }
  static unsigned Lt(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_LT_OQ); }
  static unsigned Le(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_LE_OQ); }
  static unsigned Gt(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_GT_OQ); }
  static unsigned Ge(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_GE_OQ); }
  static unsigned Eq(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_EQ_OQ); }
  static void Shear(const float* v, int n, const PickRay& r, Table& t) {
    const __mmask16 m = __mmask16((1u << n) - 1);
    const V c = Sub(_mm512_maskz_loadu_ps(m, v + n * r.kz), Set1(r.o[r.kz]));
    t.x = Sub(Sub(_mm512_maskz_loadu_ps(m, v + n * r.kx), Set1(r.o[r.kx])), Mul(Set1(r.sx), c));
    t.y = Sub(Sub(_mm512_maskz_loadu_ps(m, v + n * r.ky), Set1(r.o[r.ky])), Mul(Set1(r.sy), c));
    t.z = Mul(Set1(r.sz), c);
  }
  static Part X(const Table& t) { return t.x; }
  static Part Y(const Table& t) { return t.y; }
  static Part Z(const Table& t) { return t.z; }
  // Sixteen nibbles from eight bytes, as sixteen lanes. The zero-masked
  // forms: the plain ones start from an undefined vector, which g++ 12
  // reports as maybe-uninitialized.
  static I Corners(const std::uint8_t* c, int k, int) {
    const __m128i b = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(c + 8 * k)), m = _mm_set1_epi8(15);
    const __m128i n = _mm_unpacklo_epi8(_mm_and_si128(b, m), _mm_and_si128(_mm_srli_epi16(b, 4), m));
    return _mm512_maskz_cvtepu8_epi32(0xffff, n);
  }
  static V Pick(Part p, I i) { return _mm512_maskz_permutexvar_ps(0xffff, i, p); }
  static void Spill(const Table& t, float* buf, const float*& x, const float*& y, const float*& z) {
    _mm512_storeu_ps(buf, t.x), _mm512_storeu_ps(buf + 16, t.y), _mm512_storeu_ps(buf + 32, t.z);
    x = buf, y = buf + 16, z = buf + 32;
  }
};
#endif

// One triangle of a packet, from the sheared vertices, in the order every
// lane type uses. When an edge function is exactly zero the three are
// recomputed in double: a product of two floats is exact there, so the sign
// is the true one and two triangles sharing the edge cannot both refuse.
// A float edge function that is not zero already has the true sign
// (rounding is monotonic, so a difference of two rounded products is never
// of the wrong sign), so one of each sign rules the triangle out before
// that: a vertical ray meets every upright edge of a wall with an edge
// function of exactly zero. out receives U, V, W, det and t.
inline bool TestLane(const float* tx, const float* ty, const float* tz, int a, int b, int c, float* out) {
  const float ax = tx[a], ay = ty[a], bx = tx[b], by = ty[b], cx = tx[c], cy = ty[c];
  float u = cx * by - cy * bx;
  float v = ax * cy - ay * cx;
  float w = bx * ay - by * ax;
  if ((u < 0.0f || v < 0.0f || w < 0.0f) && (u > 0.0f || v > 0.0f || w > 0.0f)) return false;
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
inline void Consider(PickBest& b, const std::uint8_t* packet, int lane, float t) {
  if (!(t <= b.t)) return;
  if (t == b.t && !(b.found && PacketPrimitives(packet)[lane] < PacketPrimitives(b.packet)[b.lane])) return;
  b.t = t;
  b.found = true;
  b.packet = packet;
  b.lane = lane;
}

// All triangles of a packet, L::W lanes at a time. The division waits until
// some lane has its three edge functions of one sign: most packets a ray
// reaches have none.
template <class L>
[[gnu::always_inline]] inline void TestPacket(const std::uint8_t* packet, const PickRay& r, PickBest& b) {
  using V = typename L::V;
  KEL_PICK_COUNT(packets);
  const PacketHeader& h = Header(packet);
  const int tris = h.triangles;
  typename L::Table tab;
  L::Shear(PacketVertices(packet), h.vertices, r, tab);
  const std::uint8_t* corners = PacketCorners(packet);
  const V zero = L::Set1(0.0f);
  for (int base = 0; base < tris; base += L::W) {
    const auto ia = L::Corners(corners, 0, base), ib = L::Corners(corners, 1, base), ic = L::Corners(corners, 2, base);
    const V ax = L::Pick(L::X(tab), ia), ay = L::Pick(L::Y(tab), ia);
    const V bx = L::Pick(L::X(tab), ib), by = L::Pick(L::Y(tab), ib);
    const V cx = L::Pick(L::X(tab), ic), cy = L::Pick(L::Y(tab), ic);
    const V u = L::Sub(L::Mul(cx, by), L::Mul(cy, bx));
    const V v = L::Sub(L::Mul(ax, cy), L::Mul(ay, cx));
    const V w = L::Sub(L::Mul(bx, ay), L::Mul(by, ax));
    const unsigned active = (1u << (tris - base < L::W ? tris - base : L::W)) - 1;
    const unsigned neg = L::Lt(u, zero) | L::Lt(v, zero) | L::Lt(w, zero);
    const unsigned pos = L::Gt(u, zero) | L::Gt(v, zero) | L::Gt(w, zero);
    const unsigned open = active & ~(neg & pos);  // not ruled out (see TestLane)
    const unsigned onEdge = (L::Eq(u, zero) | L::Eq(v, zero) | L::Eq(w, zero)) & open;
    const unsigned inside = open & ~onEdge;
    if (inside) {
      const V az = L::Pick(L::Z(tab), ia), bz = L::Pick(L::Z(tab), ib), cz = L::Pick(L::Z(tab), ic);
      const V det = L::Add(L::Add(u, v), w);
      const V t = L::Div(L::Add(L::Add(L::Mul(u, az), L::Mul(v, bz)), L::Mul(w, cz)), det);
      unsigned hits = inside & ~L::Eq(det, zero) & L::Ge(t, zero) & L::Le(t, L::Set1(b.t));
      if (hits) {
        alignas(64) float ts[16];
        L::Store(ts, t);
        for (; hits; hits &= hits - 1) {
          const int k = __builtin_ctz(hits);
          Consider(b, packet, base + k, ts[k]);
        }
      }
    }
    if (onEdge) {
      alignas(64) float buf[48];
      const float *tx, *ty, *tz;
      L::Spill(tab, buf, tx, ty, tz);
      for (unsigned e = onEdge; e; e &= e - 1) {
        const int k = base + __builtin_ctz(e);
        float out[5];
        if (TestLane(tx, ty, tz, Corner(corners, 0, k), Corner(corners, 1, k), Corner(corners, 2, k), out))
          Consider(b, packet, k, out[4]);
      }
    }
  }
}

// Box test of a node's sixteen children. Returns the mask of children the ray
// enters before the cutoff, with their entry distances in tn.
template <class N>
[[gnu::always_inline]] inline unsigned TestNode(const WideNode& n, const PickRay& r, float cut, float* tn) {
  using V = typename N::V;
  V o[3], inv[3], invFar[3], scale[3], origin[3];
  for (int a = 0; a < 3; ++a) {
    o[a] = N::Set1(r.o[a]), inv[a] = N::Set1(r.inv[a]), invFar[a] = N::Set1(r.invFar[a]);
    scale[a] = N::Set1(n.scale[a]), origin[a] = N::Set1(n.origin[a]);
  }
  const V limit = N::Set1(cut), zero = N::Set1(0.0f);
  // A plane's entry or exit distance: decode, then the slab test's (p - o) / d.
  // The axis is known here; only which row is near depends on the ray.
  const auto at = [&](int a, int row, int c, const V* by) {
    return N::Mul(N::Sub(N::Add(N::Mul(N::LoadQ(n.q[row] + c), scale[a]), origin[a]), o[a]), by[a]);
  };
  const int n0 = r.near[0], n1 = r.near[1], n2 = r.near[2], f0 = r.far[0], f1 = r.far[1], f2 = r.far[2];
  unsigned mask = 0;
  for (int c = 0; c < kWidth; c += N::W) {
    const V tnear = N::Max(N::Max(at(0, n0, c, inv), at(1, n1, c, inv)), N::Max(at(2, n2, c, inv), zero));
    const V tfar = N::Min(N::Min(at(0, f0, c, invFar), at(1, f1, c, invFar)), at(2, f2, c, invFar));
    mask |= (N::Le(tnear, tfar) & N::Le(tnear, limit)) << c;
    N::Store(tn + c, tnear);
  }
  return mask & n.valid;
}

// Asks for the cache lines of a node or of a leaf's packets, so children
// waiting on the stack load while the nearest one is walked.
constexpr int kPacketLines = 5;  // a packet is at most 292 bytes

inline void PrefetchLines(const void* at, int lines) {
  const char* p = static_cast<const char*>(at);
  for (int i = 0; i < lines; ++i) __builtin_prefetch(p + 64 * i);
}

// The same five lines for a node or a leaf's first packet, the address
// chosen without a branch: the child's reference often sits in a line
// still on its way, and a mispredicted branch on it throws away all the
// work done while waiting (random rays ran 20% faster without it).
inline void PrefetchChild(const PickData& d, std::uint32_t ref) {
  // Both addresses as integers: the one not taken may lie far outside.
  const std::uintptr_t node = reinterpret_cast<std::uintptr_t>(d.nodes) + sizeof(WideNode) * std::uintptr_t(ref);
  const std::uintptr_t leaf = reinterpret_cast<std::uintptr_t>(d.packets) + 4 * std::uintptr_t(ref & ~kLeafBit);
  PrefetchLines(reinterpret_cast<const void*>(ref & kLeafBit ? leaf : node), kPacketLines);
}

struct StackItem {
  std::uint32_t ref;
  std::uint32_t packets;
  float t;
};

// Deep enough for any tree the builder makes: it never nests wide nodes
// deeper than the binary tree (below 64), and a level pushes at most 15.
constexpr int kPickStack = 64 * (kWidth - 1) + kWidth;

template <class T>
[[gnu::always_inline]] inline void TestRun(const PickData& d, std::uint32_t first, std::uint32_t count,
                                           const PickRay& r, PickBest& b) {
  const std::uint8_t* p = d.packets + 4 * std::size_t(first);
  for (std::uint32_t k = 0; k < count; ++k) {
    TestPacket<T>(p, r, b);
    p += PacketBytes(p);
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
      alignas(64) float tn[kWidth];
      unsigned m = TestNode<N>(n, r, Cutoff(b, r), tn);
      if (!m) break;
      int k = __builtin_ctz(m);
      m &= m - 1;
      if (!m) {
        it = StackItem{n.child[k], n.packets[k], tn[k]};
        PrefetchChild(d, it.ref);  // all its lines at once, not the first pair and then the rest
        continue;
      }
      const int base = sp;
      for (;;) {
        // Insertion keeps the waiting children sorted, nearest on top.
        const StackItem item{n.child[k], n.packets[k], tn[k]};
        PrefetchChild(d, item.ref);
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

// Rays straight down: of the packets listed in the origin's cell, those
// whose x/y box holds the origin, loaded together and tested highest top
// first, until the rest lie below the best hit.
template <class T>
void ColumnWalk(const PickData& d, const PickRay& r, PickBest& b) {
  const Columns& c = d.columns;
  const float x = r.o[0], y = r.o[1], z = r.o[2];
  if (!(x >= c.x0 && x <= c.x1 && y >= c.y0 && y <= c.y1)) return;
  const int fx = Fine(x, c.x0, c.sx, c.nx), fy = Fine(y, c.y0, c.sy, c.ny);
  const std::size_t at = std::size_t(fy / kFine) * std::size_t(c.nx) + std::size_t(fx / kFine);
  if (c.hint[at] != kNoChild) PrefetchLines(d.packets + 4 * std::size_t(c.hint[at]), kPacketLines);
  const ColumnCell& cell = c.cells[at];
  const int qx = fx % kFine, qy = fy % kFine;
  const float perUnit = -1.0f / r.dir[2];
  const ColumnEntry* e = cell.entry;
  const ColumnEntry* stop = e + (cell.more & 7);
  const std::uint32_t more = cell.more >> 3;
  bool inCell = true;
  for (bool done = false; !done;) {
    const ColumnEntry* picked[16];
    int n = 0;
    while (n < 16) {
      if (inCell && e == stop) {
        if (more == kNoOverflow) {
          done = true;
          break;
        }
        e = c.overflow + more;
        inCell = false;
      }
      if (!inCell && e->packet == kNoChild) {
        done = true;
        break;
      }
      KEL_PICK_COUNT(entries);
      if (!(qx < e->x0 || qx > e->x1 || qy < e->y0 || qy > e->y1)) {
        picked[n++] = e;
        PrefetchLines(d.packets + 4 * std::size_t(e->packet), kPacketLines);
      }
      ++e;
    }
    for (int i = 0; i < n; ++i) {
      const std::uint8_t* p = d.packets + 4 * std::size_t(picked[i]->packet);
      if ((z - Header(p).maxZ) * perUnit > Cutoff(b, r)) return;
      if (Header(p).minZ > z) continue;  // wholly above the origin
      TestPacket<T>(p, r, b);
    }
  }
}

template <class T, class N>
void Pick(const PickData& d, const PickRay& r, PickBest& b) {
  KEL_PICK_COUNT(rays);
  if (r.down && d.columns.cells)
    ColumnWalk<T>(d, r, b);
  else
    TreeWalk<T, N>(d, r, b);
}

}  // namespace
}  // namespace kel::fdo::detail
