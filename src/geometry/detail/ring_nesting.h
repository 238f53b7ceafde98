// Which rings of a polygon geometry are shells and which are holes, by
// nesting: a ring inside an odd number of the geometry's other rings is a
// hole, and its parent is the innermost shell around it. Works for rings
// drawn in any order and orientation.
#pragma once

#include <vector>

#include "kel/geometry/line_buffer.h"

namespace kel::detail {

struct RingInfo {
  int contour;   // contour index in the buffer
  int depth;     // number of other rings around it
  int parent;    // index into the returned vector of the ring around a hole, -1 for shells
  double area;   // signed shoelace area, positive counter-clockwise (y up)
};

// Points of contour c without a repeated closing point.
inline int OpenSize(const LineBuffer& b, int c) {
  const int s = b.contourStart(c), e = b.contourEnd(c);
  if (e > s && b.x(s) == b.x(e) && b.y(s) == b.y(e)) return e - s;
  return e - s + 1;
}

inline double SignedArea(const LineBuffer& b, int c) {
  const int s = b.contourStart(c), n = OpenSize(b, c);
  double twice = 0.0;
  for (int k = 0; k < n; ++k) {
    const int i = s + k, j = s + (k + 1) % n;
    twice += (b.x(i) - b.x(j)) * (b.y(i) + b.y(j));
  }
  return 0.5 * twice;
}

// Even-odd test of (px, py) against one contour, closed implicitly.
inline bool InsideRing(const LineBuffer& b, int c, double px, double py) {
  const int s = b.contourStart(c), n = OpenSize(b, c);
  bool inside = false;
  for (int k = 0, prev = n - 1; k < n; prev = k++) {
    const double x1 = b.x(s + k), y1 = b.y(s + k), x0 = b.x(s + prev), y0 = b.y(s + prev);
    if ((y1 > py) != (y0 > py) && px < x1 + (x0 - x1) * (py - y1) / (y0 - y1)) inside = !inside;
  }
  return inside;
}

// Rings of at least three points among contours [first, first + count).
inline std::vector<RingInfo> ClassifyRings(const LineBuffer& b, int first, int count) {
  std::vector<RingInfo> rings;
  std::vector<BBox<2, double>> boxes;
  for (int c = first; c < first + count; ++c) {
    if (OpenSize(b, c) < 3) continue;
    rings.push_back({c, 0, -1, SignedArea(b, c)});
    BBox<2, double> box;
    for (int i = b.contourStart(c); i <= b.contourEnd(c); ++i) box.extend(Vec2d(b.x(i), b.y(i)));
    boxes.push_back(box);
  }
  const std::size_t n = rings.size();
  std::vector<std::vector<int>> around(n);
  for (std::size_t i = 0; i < n; ++i) {
    // The midpoint of the first edge is less likely than a vertex to lie on
    // a touching neighbour.
    const int s = b.contourStart(rings[i].contour);
    const double px = 0.5 * (b.x(s) + b.x(s + 1)), py = 0.5 * (b.y(s) + b.y(s + 1));
    for (std::size_t j = 0; j < n; ++j) {
      if (j == i || !boxes[j].contains(Vec2d(px, py))) continue;
      if (InsideRing(b, rings[j].contour, px, py)) around[i].push_back(int(j));
    }
    rings[i].depth = int(around[i].size());
  }
  for (std::size_t i = 0; i < n; ++i) {
    if (rings[i].depth % 2 == 0) continue;
    for (int j : around[i])
      if (rings[std::size_t(j)].depth == rings[i].depth - 1) rings[i].parent = j;
  }
  return rings;
}

}  // namespace kel::detail
