// Test helper: a triangle soup, its intersector, random soups and the
// nearest hit found by scanning every triangle (the model a BVH must match).
#pragma once

#include <cfloat>
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

}  // namespace kel::fdo::test
