// Two-lane double vectors (x, y) for the transform cache, and the cache's two
// kernels written once over them: the bilinear patch and the routing step of
// the descent. ScalarLanes is the reference and is always compiled; SseLanes
// is used when SSE2 is there and KEL_NO_SIMD is not set. Both compute the
// same operations in the same order, so with -ffp-contract=off their results
// are identical bit for bit (a test checks).
//
// The point of the vector form is less the arithmetic than the routing: the
// quadrant of a random point is a coin toss per level, and as a branch it
// was mispredicted half the time (about 70 ns of the 110 ns a query took).
// Compare masks and selects make the descent branch-free.
#pragma once

#include "kel/core/types.h"

#if defined(__SSE2__) && !defined(KEL_NO_SIMD)
#define KEL_SRS_SSE2 1
#include <emmintrin.h>
#else
#define KEL_SRS_SSE2 0
#endif

namespace kel::detail {

struct ScalarLanes {
  struct V {
    double x, y;
  };
  struct M {
    bool x, y;
  };
  static V Load(const Vec<2, double>& p) { return {p[0], p[1]}; }
  static Vec<2, double> ToVec(V a) { return Vec<2, double>(a.x, a.y); }
  static V Set(double x, double y) { return {x, y}; }
  static V Add(V a, V b) { return {a.x + b.x, a.y + b.y}; }
  static V Sub(V a, V b) { return {a.x - b.x, a.y - b.y}; }
  static V Mul(V a, V b) { return {a.x * b.x, a.y * b.y}; }
  static V Div(V a, V b) { return {a.x / b.x, a.y / b.y}; }
  static V Half(V a) { return {a.x * 0.5, a.y * 0.5}; }  // exact, so equal to / 2
  static V SplatX(V a) { return {a.x, a.x}; }
  static V SplatY(V a) { return {a.y, a.y}; }
  static M Le(V a, V b) { return {a.x <= b.x, a.y <= b.y}; }
  static M Lt(V a, V b) { return {a.x < b.x, a.y < b.y}; }
  static V Select(M m, V a, V b) { return {m.x ? a.x : b.x, m.y ? a.y : b.y}; }
  static int Bits(M m) { return int(m.x) | int(m.y) << 1; }
};

#if KEL_SRS_SSE2
struct SseLanes {
  using V = __m128d;
  using M = __m128d;
  static V Load(const Vec<2, double>& p) { return _mm_loadu_pd(p.v.data()); }
  static Vec<2, double> ToVec(V a) {
    Vec<2, double> r;
    _mm_storeu_pd(r.v.data(), a);
    return r;
  }
  static V Set(double x, double y) { return _mm_set_pd(y, x); }
  static V Add(V a, V b) { return _mm_add_pd(a, b); }
  static V Sub(V a, V b) { return _mm_sub_pd(a, b); }
  static V Mul(V a, V b) { return _mm_mul_pd(a, b); }
  static V Div(V a, V b) { return _mm_div_pd(a, b); }
  static V Half(V a) { return _mm_mul_pd(a, _mm_set1_pd(0.5)); }
  static V SplatX(V a) { return _mm_unpacklo_pd(a, a); }
  static V SplatY(V a) { return _mm_unpackhi_pd(a, a); }
  static M Le(V a, V b) { return _mm_cmple_pd(a, b); }
  static M Lt(V a, V b) { return _mm_cmplt_pd(a, b); }
  static V Select(M m, V a, V b) { return _mm_or_pd(_mm_and_pd(m, a), _mm_andnot_pd(m, b)); }
  static int Bits(M m) { return _mm_movemask_pd(m); }
};
using Lanes = SseLanes;
#else
using Lanes = ScalarLanes;
#endif

// The cache's patch over the cell [lo, hi] with corner values ll, ul, lr, ur:
// t = (p - lo) / (hi - lo); bottom = ll(1 - tx) + lr tx; top = ul(1 - tx) +
// ur tx; result = bottom(1 - ty) + top ty. Outside the cell it extrapolates.
template <class L>
typename L::V Bilinear(typename L::V ll, typename L::V ul, typename L::V lr, typename L::V ur,
                       typename L::V lo, typename L::V hi, typename L::V p) {
  const typename L::V t = L::Div(L::Sub(p, lo), L::Sub(hi, lo));
  const typename L::V tx = L::SplatX(t);
  const typename L::V ty = L::SplatY(t);
  const typename L::V one = L::Set(1.0, 1.0);
  const typename L::V sx = L::Sub(one, tx);
  const typename L::V bottom = L::Add(L::Mul(ll, sx), L::Mul(lr, tx));
  const typename L::V top = L::Add(L::Mul(ul, sx), L::Mul(ur, tx));
  return L::Add(L::Mul(bottom, L::Sub(one, ty)), L::Mul(top, ty));
}

// One step of the descent: shrinks the cell [lo, hi] with centre c to the
// quadrant of p (a point on a centre line goes right or up, a NaN left or
// down), and the routing range [routeLo, routeHi) with it. Returns the
// quadrant: 0 lower-left, 1 lower-right, 2 upper-left, 3 upper-right.
// Both candidate centres are computed before the comparison is known, which
// keeps the addition off the chain from one level to the next; each equals
// (lo + hi) / 2 of its quadrant bit for bit.
template <class L, bool kTrackRoute = true>
int Route(typename L::V p, typename L::V& lo, typename L::V& hi, typename L::V& c, typename L::V& routeLo,
          typename L::V& routeHi) {
  const typename L::M upper = L::Le(c, p);
  const typename L::V cLower = L::Half(L::Add(lo, c));
  const typename L::V cUpper = L::Half(L::Add(c, hi));
  lo = L::Select(upper, c, lo);
  hi = L::Select(upper, hi, c);
  if constexpr (kTrackRoute) {
    routeLo = L::Select(upper, c, routeLo);
    routeHi = L::Select(upper, routeHi, c);
  }
  c = L::Select(upper, cUpper, cLower);
  return L::Bits(upper);
}

// True when routeLo <= p < routeHi in both axes.
template <class L>
bool InRoute(typename L::V routeLo, typename L::V routeHi, typename L::V p) {
  return (L::Bits(L::Le(routeLo, p)) & L::Bits(L::Lt(p, routeHi))) == 3;
}

}  // namespace kel::detail
