// Four-lane float vectors for the spatial index, and the slab test built on
// them. The scalar lanes are the reference and are always compiled; SSE2 is
// used when available unless KEL_NO_SIMD is set. Min and Max follow the SSE
// rule (a < b ? a : b, the second operand on NaN) in both, so with
// -ffp-contract=off the two give identical bits.
#pragma once

#include <cstring>

#if defined(__SSE2__) && !defined(KEL_NO_SIMD)
#define KEL_HAS_SSE2 1
#include <emmintrin.h>
#else
#define KEL_HAS_SSE2 0
#endif

namespace kel::fdo::detail {

namespace scalar {

struct Lane4 {
  float v[4];
};

inline Lane4 Load(const float* p) { return {{p[0], p[1], p[2], p[3]}}; }
inline Lane4 LoadU(const void* p) {
  Lane4 r;
  std::memcpy(r.v, p, sizeof(r.v));
  return r;
}
inline void Store(float* p, Lane4 a) {
  for (int i = 0; i < 4; ++i) p[i] = a.v[i];
}
inline Lane4 Set1(float s) { return {{s, s, s, s}}; }
inline Lane4 Min(Lane4 a, Lane4 b) {
  Lane4 r;
  for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] < b.v[i] ? a.v[i] : b.v[i];
  return r;
}
inline Lane4 Max(Lane4 a, Lane4 b) {
  Lane4 r;
  for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] > b.v[i] ? a.v[i] : b.v[i];
  return r;
}
inline Lane4 Add(Lane4 a, Lane4 b) {
  Lane4 r;
  for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] + b.v[i];
  return r;
}
inline Lane4 Sub(Lane4 a, Lane4 b) {
  Lane4 r;
  for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] - b.v[i];
  return r;
}
inline Lane4 Mul(Lane4 a, Lane4 b) {
  Lane4 r;
  for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] * b.v[i];
  return r;
}
// Zeroes lane 3, which in a node carries an integer counter: as a float it is
// often a denormal, and denormal operands are slow on many cores.
inline Lane4 ClearW(Lane4 a) {
  a.v[3] = 0.0f;
  return a;
}
// Largest and smallest of lanes 0..2.
inline float MaxXYZ(Lane4 a) {
  const float m = a.v[1] > a.v[2] ? a.v[1] : a.v[2];
  return a.v[0] > m ? a.v[0] : m;
}
inline float MinXYZ(Lane4 a) {
  const float m = a.v[1] < a.v[2] ? a.v[1] : a.v[2];
  return a.v[0] < m ? a.v[0] : m;
}

}  // namespace scalar

#if KEL_HAS_SSE2
namespace sse {

struct Lane4 {
  __m128 v;
};

inline Lane4 Load(const float* p) { return {_mm_load_ps(p)}; }
inline Lane4 LoadU(const void* p) { return {_mm_loadu_ps(static_cast<const float*>(p))}; }
inline void Store(float* p, Lane4 a) { _mm_store_ps(p, a.v); }
inline Lane4 Set1(float s) { return {_mm_set1_ps(s)}; }
inline Lane4 Min(Lane4 a, Lane4 b) { return {_mm_min_ps(a.v, b.v)}; }
inline Lane4 Max(Lane4 a, Lane4 b) { return {_mm_max_ps(a.v, b.v)}; }
inline Lane4 Add(Lane4 a, Lane4 b) { return {_mm_add_ps(a.v, b.v)}; }
inline Lane4 Sub(Lane4 a, Lane4 b) { return {_mm_sub_ps(a.v, b.v)}; }
inline Lane4 Mul(Lane4 a, Lane4 b) { return {_mm_mul_ps(a.v, b.v)}; }
inline Lane4 ClearW(Lane4 a) {
  return {_mm_and_ps(a.v, _mm_castsi128_ps(_mm_set_epi32(0, -1, -1, -1)))};
}
inline float MaxXYZ(Lane4 a) {
  const __m128 y = _mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(1, 1, 1, 1));
  const __m128 z = _mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(2, 2, 2, 2));
  return _mm_cvtss_f32(_mm_max_ss(a.v, _mm_max_ss(y, z)));
}
inline float MinXYZ(Lane4 a) {
  const __m128 y = _mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(1, 1, 1, 1));
  const __m128 z = _mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(2, 2, 2, 2));
  return _mm_cvtss_f32(_mm_min_ss(a.v, _mm_min_ss(y, z)));
}

}  // namespace sse
namespace simd = sse;
#else
namespace simd = scalar;
#endif

// Ray/box slab test. Each near candidate is clamped by Min(t, +inf) and each
// far one by Max(t, -inf), so a NaN from 0 * inf (origin on a slab plane of a
// flat box, zero direction) drops out instead of poisoning the result.
#define KEL_SLAB_TEST_BODY                                                           \
  const Lane4 t1 = Mul(inv, Sub(lo, origin));                                        \
  const Lane4 t2 = Mul(inv, Sub(hi, origin));                                        \
  const Lane4 pinf = Set1(__builtin_huge_valf());                                    \
  const Lane4 ninf = Set1(-__builtin_huge_valf());                                   \
  const Lane4 nearT = Min(Min(t1, pinf), Min(t2, pinf));                             \
  const Lane4 farT = Max(Max(t1, ninf), Max(t2, ninf));                              \
  tNear = MaxXYZ(nearT);                                                             \
  const float tFar = MinXYZ(farT);                                                   \
  return !(tFar < tNear || tFar < 0.0f);

namespace scalar {
inline bool SlabTest(Lane4 lo, Lane4 hi, Lane4 origin, Lane4 inv, float& tNear) { KEL_SLAB_TEST_BODY }
}  // namespace scalar
#if KEL_HAS_SSE2
namespace sse {
inline bool SlabTest(Lane4 lo, Lane4 hi, Lane4 origin, Lane4 inv, float& tNear) { KEL_SLAB_TEST_BODY }
}  // namespace sse
#endif
#undef KEL_SLAB_TEST_BODY

}  // namespace kel::fdo::detail
