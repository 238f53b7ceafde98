// Shapes and measures shared by the geometry tests: seeded star polygons and
// random walks, ring areas and line lengths.
#pragma once

#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "kel/geometry/geometry_buffer.h"

namespace kel::test {

// A star-shaped ring around (cx, cy): radius r * (1 + amp * sin(arms * a)) plus
// uniform noise of +-noise, one vertex per angle step, closed. Radii stay
// positive, so the ring never crosses itself.
inline void AddStarRing(LineBuffer& b, std::mt19937& rng, int vertices, double cx, double cy, double r,
                        int arms = 5, double amp = 0.3, double noise = 0.05) {
  std::uniform_real_distribution<double> jitter(-noise, noise);
  for (int i = 0; i < vertices; ++i) {
    const double a = 2.0 * std::numbers::pi * i / vertices;
    const double rad = r * (1.0 + amp * std::sin(arms * a) + jitter(rng));
    const double x = cx + rad * std::cos(a), y = cy + rad * std::sin(a);
    if (i == 0) b.MoveTo(x, y);
    else b.LineTo(x, y);
  }
  b.Close();
}

inline GeometryBuffer StarPolygon(std::mt19937& rng, int vertices, double r = 100.0) {
  GeometryBuffer b(vertices + 1, FdoDimensionality_XY, false);
  b.SetGeometryType(FdoGeometryType_Polygon);
  AddStarRing(b, rng, vertices, 0.0, 0.0, r);
  return b;
}

// A walk of unit-ish steps; z moves too when withZ.
inline GeometryBuffer RandomWalk(std::mt19937& rng, int points, bool withZ) {
  GeometryBuffer b(points, withZ ? FdoDimensionality_XYZ : FdoDimensionality_XY, false);
  b.SetGeometryType(FdoGeometryType_LineString);
  std::normal_distribution<double> step(0.0, 1.0);
  double x = 0, y = 0, z = 0;
  for (int i = 0; i < points; ++i) {
    if (i == 0) b.MoveTo(x, y, z);
    else b.LineTo(x, y, z);
    x += step(rng);
    y += step(rng);
    if (withZ) z += step(rng);
  }
  return b;
}

inline double RingArea(const LineBuffer& b, int c) {
  double twice = 0.0;
  const int s = b.contourStart(c), e = b.contourEnd(c);
  for (int i = s; i <= e; ++i) {
    const int j = i == e ? s : i + 1;
    twice += b.x(i) * b.y(j) - b.x(j) * b.y(i);
  }
  return 0.5 * twice;
}

// Sum of |ring area| over all contours: the area of polygons without holes.
inline double AbsArea(const LineBuffer& b) {
  double a = 0.0;
  for (int c = 0; c < b.contourCount(); ++c) a += std::abs(RingArea(b, c));
  return a;
}

inline double Length2D(const LineBuffer& b) {
  double len = 0.0;
  for (int c = 0; c < b.contourCount(); ++c)
    for (int i = b.contourStart(c); i < b.contourEnd(c); ++i) len += std::hypot(b.x(i + 1) - b.x(i), b.y(i + 1) - b.y(i));
  return len;
}

inline std::vector<Vec3d> Points(const LineBuffer& b) {
  std::vector<Vec3d> out;
  for (int i = 0; i < b.pointCount(); ++i) out.push_back(b.point(i));
  return out;
}

}  // namespace kel::test
