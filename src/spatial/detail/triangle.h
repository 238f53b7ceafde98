// Ray against one triangle: two-sided Moller-Trumbore (Moller and Trumbore,
// "Fast, Minimum Storage Ray/Triangle Intersection", JGT 1997). Shared by the
// tile intersector and the spatial benchmark so both time the same kernel.
// Plain float arithmetic in a fixed order: no SIMD twin needed, and with
// -ffp-contract=off the result does not depend on the build.
#pragma once

#include "kel/spatial/bvh.h"

namespace kel::fdo::detail {

// Writes t, u, v to out[0..2] on a hit with 0 <= t <= tMax. Back faces count;
// |det| < 1e-10 (a ray parallel to the plane) misses; t = 0 counts.
inline bool RayTriangle(const float* p0, const float* p1, const float* p2, const ray& r, float tMax, float* out) {
  const float* o = r.origin;
  const float* d = r.direction;
  const float e1x = p1[0] - p0[0], e1y = p1[1] - p0[1], e1z = p1[2] - p0[2];
  const float e2x = p2[0] - p0[0], e2y = p2[1] - p0[1], e2z = p2[2] - p0[2];
  const float px = d[1] * e2z - d[2] * e2y;
  const float py = d[2] * e2x - d[0] * e2z;
  const float pz = d[0] * e2y - d[1] * e2x;
  const float det = e1x * px + e1y * py + e1z * pz;
  if (det > -1e-10f && det < 1e-10f) return false;
  const float inv = 1.0f / det;
  const float tx = o[0] - p0[0], ty = o[1] - p0[1], tz = o[2] - p0[2];
  const float u = (tx * px + ty * py + tz * pz) * inv;
  if (!(u >= 0.0f && u <= 1.0f)) return false;
  const float qx = ty * e1z - tz * e1y;
  const float qy = tz * e1x - tx * e1z;
  const float qz = tx * e1y - ty * e1x;
  const float v = (d[0] * qx + d[1] * qy + d[2] * qz) * inv;
  if (!(v >= 0.0f && u + v <= 1.0f)) return false;
  const float t = (e2x * qx + e2y * qy + e2z * qz) * inv;
  if (!(t >= 0.0f && t <= tMax)) return false;
  out[0] = t;
  out[1] = u;
  out[2] = v;
  return true;
}

}  // namespace kel::fdo::detail
