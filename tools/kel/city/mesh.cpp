#include "city/mesh.h"

#include <algorithm>
#include <cmath>

namespace city {
namespace {

struct Builder {
  Mesh& m;
  const bool textured;

  std::uint32_t vertex(const Vec3d& p, const Vec3d& n, double u, double v, const AtlasRect& r) {
    m.positions.insert(m.positions.end(), {float(p.x()), float(p.y()), float(p.z())});
    m.normals.insert(m.normals.end(), {float(n.x()), float(n.y()), float(n.z())});
    if (textured) m.atlas.insert(m.atlas.end(), {float(u), float(v), r.x, r.y, r.w, r.h});
    return m.vertexCount() - 1;
  }
  void triangle(std::uint32_t a, std::uint32_t b, std::uint32_t c) { m.indices.insert(m.indices.end(), {a, b, c}); }
};

Vec3d Normalized(const Vec3d& v) {
  const double len = std::sqrt(v.x() * v.x() + v.y() * v.y() + v.z() * v.z());
  return len > 0 ? v * (1.0 / len) : Vec3d(0, 0, 1);
}

Vec3d CrossP(const Vec3d& a, const Vec3d& b) {
  return Vec3d(a.y() * b.z() - a.z() * b.y(), a.z() * b.x() - a.x() * b.z(), a.x() * b.y() - a.y() * b.x());
}

// Both ends on the same side of the box: a cut made by clipping.
bool OnCut(const Vec2d& a, const Vec2d& b, const BBox<2, double>* cut) {
  if (!cut) return false;
  constexpr double kEps = 1e-6;
  for (int axis = 0; axis < 2; ++axis)
    for (double side : {cut->min[axis], cut->max[axis]})
      if (std::fabs(a[axis] - side) <= kEps && std::fabs(b[axis] - side) <= kEps) return true;
  return false;
}

void Wall(Builder& b, const Vec2d& p, const Vec2d& q, double z0, double z1, double u0, const Extrusion& shape,
          const SurfaceStyle& style) {
  const Vec2d d = q - p;
  const double len = std::hypot(d.x(), d.y());
  if (len <= 0) return;
  // Outward: to the right of the edge for counter-clockwise outer rings,
  // and likewise into the courtyard for clockwise holes.
  const Vec3d n(d.y() / len, -d.x() / len, 0);
  const double u1 = u0 + len / style.bayWidth;
  const double v0 = (z0 - shape.base) / style.floorHeight, v1 = (z1 - shape.base) / style.floorHeight;
  const auto a = b.vertex(Vec3d(p.x(), p.y(), z0), n, u0, v0, style.facade);
  const auto c = b.vertex(Vec3d(q.x(), q.y(), z0), n, u1, v0, style.facade);
  const auto e = b.vertex(Vec3d(q.x(), q.y(), z1), n, u1, v1, style.facade);
  const auto f = b.vertex(Vec3d(p.x(), p.y(), z1), n, u0, v1, style.facade);
  b.triangle(a, c, e);
  b.triangle(a, e, f);
}

bool IsConvexQuad(const Ring& r) {
  if (r.size() != 4) return false;
  for (std::size_t i = 0; i < 4; ++i) {
    const Vec2d &a = r[i], &b = r[(i + 1) % 4], &c = r[(i + 2) % 4];
    if ((b.x() - a.x()) * (c.y() - a.y()) - (b.y() - a.y()) * (c.x() - a.x()) <= 0) return false;
  }
  return true;
}

// Ridge along the longer pair of opposite sides, at a pitch of about 35
// degrees, capped at 6 m so long halls do not grow towers.
void GabledRoof(Builder& b, const Ring& r, const Extrusion& shape, const SurfaceStyle& style) {
  const double top = shape.base + shape.height;
  const auto len = [](const Vec2d& a, const Vec2d& c) { return std::hypot(c.x() - a.x(), c.y() - a.y()); };
  // k: the first corner of a long side.
  const int k = len(r[0], r[1]) + len(r[2], r[3]) >= len(r[1], r[2]) + len(r[3], r[0]) ? 0 : 1;
  const Vec2d &p0 = r[k], &p1 = r[(k + 1) % 4], &p2 = r[(k + 2) % 4], &p3 = r[(k + 3) % 4];
  const Vec2d m0 = (p0 + p3) * 0.5, m1 = (p1 + p2) * 0.5;
  const double span = (len(p1, p2) + len(p3, p0)) / 2;
  const double rise = std::min(0.35 * span, 6.0);
  const Vec3d P0(p0.x(), p0.y(), top), P1(p1.x(), p1.y(), top), P2(p2.x(), p2.y(), top), P3(p3.x(), p3.y(), top);
  const Vec3d R0(m0.x(), m0.y(), top + rise), R1(m1.x(), m1.y(), top + rise);
  auto plane = [&](const Vec3d& a, const Vec3d& c, const Vec3d& d, const Vec3d& e) {  // a c d e counter-clockwise from above
    const Vec3d n = Normalized(CrossP(c - a, e - a));
    auto uv = [&](const Vec3d& p) {
      return std::pair(p.x() / style.roofRepeat, p.y() / style.roofRepeat);
    };
    std::uint32_t idx[4];
    const Vec3d* pts[4] = {&a, &c, &d, &e};
    for (int i = 0; i < 4; ++i) {
      const auto [u, v] = uv(*pts[i]);
      idx[i] = b.vertex(*pts[i], n, u, v, style.roof);
    }
    b.triangle(idx[0], idx[1], idx[2]);
    b.triangle(idx[0], idx[2], idx[3]);
  };
  plane(P0, P1, R1, R0);
  plane(P2, P3, R0, R1);
  // Gable ends: triangles on the short walls, textured as facade.
  auto gable = [&](const Vec3d& a, const Vec3d& c, const Vec3d& apex) {
    const Vec2d d(c.x() - a.x(), c.y() - a.y());
    const double l = std::hypot(d.x(), d.y());
    if (l <= 0) return;
    const Vec3d n(d.y() / l, -d.x() / l, 0);
    const double vTop = (top - shape.base) / style.floorHeight;
    const double vApex = (apex.z() - shape.base) / style.floorHeight;
    const auto i0 = b.vertex(a, n, 0, vTop, style.facade);
    const auto i1 = b.vertex(c, n, l / style.bayWidth, vTop, style.facade);
    const auto i2 = b.vertex(apex, n, l / 2 / style.bayWidth, vApex, style.facade);
    b.triangle(i0, i1, i2);
  };
  gable(P1, P2, R1);
  gable(P3, P0, R0);
}

}  // namespace

bool Extrude(const std::vector<Polygon>& parts, const Extrusion& shape, const SurfaceStyle& style, Mesh& out,
             std::vector<std::uint32_t>& scratch) {
  Builder b{out, true};
  const double z0 = shape.base, z1 = shape.base + shape.height;
  bool ok = true;
  for (const Polygon& part : parts) {
    for (const Ring& ring : part.rings) {
      double u = 0;
      for (std::size_t i = 0; i < ring.size(); ++i) {
        const Vec2d &p = ring[i], &q = ring[(i + 1) % ring.size()];
        if (!OnCut(p, q, shape.cut)) Wall(b, p, q, z0, z1, u, shape, style);
        u += std::hypot(q.x() - p.x(), q.y() - p.y()) / style.bayWidth;
      }
    }
    if (shape.roof == RoofShape::Gabled && part.rings.size() == 1 && IsConvexQuad(part.rings[0]) && !shape.cut) {
      GabledRoof(b, part.rings[0], shape, style);
      continue;
    }
    scratch.clear();
    if (!Triangulate(part, scratch)) {
      ok = false;
      continue;
    }
    const std::uint32_t first = out.vertexCount();
    const Vec3d up(0, 0, 1);
    for (const Ring& ring : part.rings)
      for (const Vec2d& p : ring)
        b.vertex(Vec3d(p.x(), p.y(), z1), up, p.x() / style.roofRepeat, p.y() / style.roofRepeat, style.roof);
    for (std::size_t i = 0; i + 2 < scratch.size(); i += 3)
      b.triangle(first + scratch[i], first + scratch[i + 1], first + scratch[i + 2]);
  }
  return ok;
}

void TerrainPatch(const HeightField& field, const BBox<2, double>& region, int quadsX, int quadsY, Mesh& out) {
  Builder b{out, false};
  const int n = quadsX + 1, rows = quadsY + 1;
  const double dx = (region.max.x() - region.min.x()) / quadsX, dy = (region.max.y() - region.min.y()) / quadsY;
  // Heights on the grid and one cell beyond it, each asked once: the slopes
  // come from the neighbours (5 samples per vertex otherwise).
  const int W = n + 2;
  std::vector<double> z(std::size_t(W) * std::size_t(rows + 2));
  auto at = [&](int c, int r) -> double& { return z[std::size_t(r + 1) * W + std::size_t(c + 1)]; };
  // The last row and column sit exactly on the region's edge, so
  // neighbouring patches meet without a crack.
  auto xOf = [&](int c) { return c == quadsX ? region.max.x() : region.min.x() + c * dx; };
  auto yOf = [&](int r) { return r == quadsY ? region.max.y() : region.min.y() + r * dy; };
  for (int r = -1; r <= rows; ++r)
    for (int c = -1; c <= n; ++c) at(c, r) = field.height(xOf(c), yOf(r));
  std::vector<std::uint32_t> index(std::size_t(n) * rows, UINT32_MAX);
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < n; ++c) {
      const double h = at(c, r);
      if (std::isnan(h)) continue;
      const double zx0 = at(c - 1, r), zx1 = at(c + 1, r), zy0 = at(c, r - 1), zy1 = at(c, r + 1);
      const double gx = (std::isnan(zx0) || std::isnan(zx1)) ? 0 : (zx1 - zx0) / (2 * dx);
      const double gy = (std::isnan(zy0) || std::isnan(zy1)) ? 0 : (zy1 - zy0) / (2 * dy);
      index[std::size_t(r) * n + c] = b.vertex(Vec3d(xOf(c), yOf(r), h), Normalized(Vec3d(-gx, -gy, 1)), 0, 0, AtlasRect{});
    }
  for (int r = 0; r < quadsY; ++r)
    for (int c = 0; c < quadsX; ++c) {
      const std::uint32_t a = index[std::size_t(r) * n + c], e = index[std::size_t(r) * n + c + 1];
      const std::uint32_t f = index[std::size_t(r + 1) * n + c + 1], g = index[std::size_t(r + 1) * n + c];
      if (a == UINT32_MAX || e == UINT32_MAX || f == UINT32_MAX || g == UINT32_MAX) continue;
      b.triangle(a, e, f);
      b.triangle(a, f, g);
    }
}

}  // namespace city
