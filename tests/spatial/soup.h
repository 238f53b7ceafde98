// Test helper: a triangle soup, its intersector, random soups and the
// nearest hit found by scanning every triangle (the model a BVH must match).
#pragma once

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "kel/spatial/bvh.h"
#include "spatial/detail/triangle.h"

namespace kel::fdo::test {

struct Soup {
  std::vector<float> xyz;
  std::vector<std::uint32_t> tri;
  int count() const { return int(tri.size() / 3); }
  // Ray against triangle i; out[0] = t on a hit.
  bool intersect(std::uint32_t i, const ray& r, float* out) const {
    const auto* t = &tri[3 * std::size_t(i)];
    return detail::RayTriangle(&xyz[3 * t[0]], &xyz[3 * t[1]], &xyz[3 * t[2]], r, FLT_MAX, out);
  }
  void add(std::initializer_list<float> p0p1p2) {
    const auto b = std::uint32_t(xyz.size() / 3);
    xyz.insert(xyz.end(), p0p1p2);
    tri.insert(tri.end(), {b, b + 1, b + 2});
  }
};

class SoupIntersector : public bvh_primitive_intersector {
public:
  explicit SoupIntersector(const Soup& s) : s_(s) {}
  bool intersect(int i, const ray& r, float* out) override {
    ++calls;
    return s_.intersect(std::uint32_t(i), r, out);
  }
  int calls = 0;

private:
  const Soup& s_;
};

// Nearest hit by scanning every triangle; ties keep the lowest index.
inline hit BruteForce(const Soup& s, const ray& r) {
  hit h{~0u, FLT_MAX};
  float out[4];
  for (int i = 0; i < s.count(); ++i)
    if (s.intersect(std::uint32_t(i), r, out) && out[0] < h.t) h = hit{std::uint32_t(i), out[0]};
  return h;
}

inline Soup RandomSoup(std::mt19937& rng, int n, float extent, float size) {
  std::uniform_real_distribution<float> pos(0.0f, extent), off(-size, size);
  Soup s;
  for (int i = 0; i < n; ++i) {
    const float c[3] = {pos(rng), pos(rng), pos(rng)};
    for (int k = 0; k < 3; ++k) {
      s.tri.push_back(std::uint32_t(s.xyz.size() / 3));
      for (int a = 0; a < 3; ++a) s.xyz.push_back(c[a] + off(rng));
    }
  }
  return s;
}

// A closed height field: (n + 1)^2 vertices at unit spacing, two triangles
// per quad sharing its diagonal.
template <class Height>
Soup GridTerrain(int n, Height height) {
  Soup s;
  for (int y = 0; y <= n; ++y)
    for (int x = 0; x <= n; ++x) s.xyz.insert(s.xyz.end(), {float(x), float(y), height(float(x), float(y))});
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      const auto a = std::uint32_t(y * (n + 1) + x), b = a + 1, c = a + std::uint32_t(n) + 1, d = c + 1;
      s.tri.insert(s.tri.end(), {a, b, d, a, d, c});
    }
  return s;
}

inline void Append(Soup& to, const Soup& from) {
  const auto base = std::uint32_t(to.xyz.size() / 3);
  to.xyz.insert(to.xyz.end(), from.xyz.begin(), from.xyz.end());
  for (auto i : from.tri) to.tri.push_back(i + base);
}

// Whether ray r, hitting triangle i at distance t, passes within float
// rounding of one of its edges (worked out in double): the two triangle
// tests round relative to the coordinates they subtract, about the distance
// plus the triangle's size.
inline bool NearEdge(const Soup& s, std::uint32_t i, const ray& r, float t) {
  struct V {
    double x, y, z;
  };
  auto sub = [](V a, V b) { return V{a.x - b.x, a.y - b.y, a.z - b.z}; };
  auto dot = [](V a, V b) { return a.x * b.x + a.y * b.y + a.z * b.z; };
  auto corner = [&](int k) {
    const float* p = &s.xyz[3 * std::size_t(s.tri[3 * std::size_t(i) + std::size_t(k)])];
    return V{p[0], p[1], p[2]};
  };
  const V o{r.origin[0], r.origin[1], r.origin[2]}, d{r.direction[0], r.direction[1], r.direction[2]};
  const V c[3] = {corner(0), corner(1), corner(2)};
  double size = 0, gap = HUGE_VAL;
  for (int k = 0; k < 3; ++k) {
    const V a = c[k], e = sub(c[(k + 1) % 3], a), w = sub(a, o);
    size = std::max(size, std::sqrt(dot(e, e)));
    // Closest approach of the ray's line and the edge segment.
    const double dd = dot(d, d), ee = dot(e, e), de = dot(d, e), den = dd * ee - de * de;
    const double u = std::clamp(den > 1e-300 ? (de * dot(d, w) - dd * dot(e, w)) / den : 0.0, 0.0, 1.0);
    const V p{a.x + u * e.x, a.y + u * e.y, a.z + u * e.z};
    const double along = dot(sub(p, o), d) / dd;
    const V q = sub(V{o.x + along * d.x, o.y + along * d.y, o.z + along * d.z}, p);
    gap = std::min(gap, std::sqrt(dot(q, q)));
  }
  return gap < 2e-6 * (double(t) * std::sqrt(dot(d, d)) + size + 1e-3);
}

// Two nearest hits agree when both miss or their distances match, unless
// either lies within rounding of an edge, where either answer may stand.
inline bool Agree(const Soup& s, const ray& r, hit a, hit b) {
  const bool ha = a.primitive != ~0u, hb = b.primitive != ~0u;
  if (!ha && !hb) return true;
  if ((ha && NearEdge(s, a.primitive, r, a.t)) || (hb && NearEdge(s, b.primitive, r, b.t))) return true;
  if (ha != hb) return false;
  const double len = std::sqrt(double(r.direction[0]) * r.direction[0] + double(r.direction[1]) * r.direction[1] +
                               double(r.direction[2]) * r.direction[2]);
  return std::fabs(double(a.t) - double(b.t)) <= 1e-5 * (std::max(a.t, b.t) * len + 1.0);
}

}  // namespace kel::fdo::test
