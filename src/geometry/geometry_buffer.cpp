// GeometryBuffer: constructors, drawing, curve flattening and in-place edits.
#include "kel/geometry/geometry_buffer.h"

#include <algorithm>
#include <cassert>
#include <cfloat>
#include <cmath>

#include "geometry/detail/ring_nesting.h"

namespace kel {

GeometryBuffer::GeometryBuffer(int capacity, FdoDimensionality dim, bool ignoreZ)
    : LineBuffer(capacity, dim, ignoreZ) {}

GeometryBuffer::GeometryBuffer(const LineBuffer& other) : LineBuffer(other) {}
GeometryBuffer::GeometryBuffer(const GeometryBuffer& other) = default;
GeometryBuffer& GeometryBuffer::operator=(const GeometryBuffer& other) = default;
GeometryBuffer::~GeometryBuffer() = default;

GeometryBuffer::GeometryBuffer(const BBox<2, double>& box) : LineBuffer(5, FdoDimensionality_XY, false) {
  SetGeometryType(FdoGeometryType_Polygon);
  LineBuffer::MoveTo(box.min[0], box.min[1], 0.0);
  LineBuffer::LineTo(box.max[0], box.min[1], 0.0);
  LineBuffer::LineTo(box.max[0], box.max[1], 0.0);
  LineBuffer::LineTo(box.min[0], box.max[1], 0.0);
  // Not Close(): it would skip the closing point of a degenerate box, whose
  // corners all coincide, and the ring must have five points regardless.
  LineBuffer::LineTo(box.min[0], box.min[1], 0.0);
}

GeometryBuffer::GeometryBuffer(const Vec3d& a, const Vec3d& b, const Vec3d& c)
    : LineBuffer(4, FdoDimensionality_XYZ, false) {
  SetGeometryType(FdoGeometryType_Polygon);
  MoveTo(a);
  LineTo(b);
  LineTo(c);
  Close();
}

void GeometryBuffer::AddPoint(bool startNew, double x, double y, double z) {
  if (startNew) LineBuffer::MoveTo(x, y, z);
  else LineBuffer::LineTo(x, y, z);
}

// ---------------------------------------------------------------- curves

namespace {

constexpr double kStep = 0.01;
constexpr int kInnerSamples = 99;

}  // namespace

void GeometryBuffer::QuadTo(double cx, double cy, double ex, double ey, double tolerance) {
  const double x0 = empty() ? 0.0 : x(pointCount() - 1);
  const double y0 = empty() ? 0.0 : y(pointCount() - 1);
  const double h = kStep, h2 = kStep * kStep;
  const double ax = x0 - 2.0 * cx + ex, ay = y0 - 2.0 * cy + ey;
  double dx = 2.0 * h * (cx - x0) + h2 * ax, dy = 2.0 * h * (cy - y0) + h2 * ay;
  const double ddx = 2.0 * h2 * ax, ddy = 2.0 * h2 * ay;
  double px = x0, py = y0, acc = 0.0;
  for (int i = 0; i < kInnerSamples; ++i) {
    px += dx;
    py += dy;
    dx += ddx;
    dy += ddy;
    acc += std::max(std::abs(dx), std::abs(dy));
    if (acc >= tolerance) {
      LineBuffer::LineTo(px, py, 0.0);
      acc = 0.0;
    }
  }
  LineBuffer::LineTo(ex, ey, 0.0);
}

void GeometryBuffer::QuadTo3D(double cx, double cy, double cz, double ex, double ey, double ez,
                              double tolerance) {
  const int last = pointCount() - 1;
  const double x0 = empty() ? 0.0 : x(last), y0 = empty() ? 0.0 : y(last), z0 = empty() ? 0.0 : z(last);
  const double h = kStep, h2 = kStep * kStep;
  const double ax = x0 - 2.0 * cx + ex, ay = y0 - 2.0 * cy + ey, az = z0 - 2.0 * cz + ez;
  double dx = 2.0 * h * (cx - x0) + h2 * ax, dy = 2.0 * h * (cy - y0) + h2 * ay,
         dz = 2.0 * h * (cz - z0) + h2 * az;
  const double ddx = 2.0 * h2 * ax, ddy = 2.0 * h2 * ay, ddz = 2.0 * h2 * az;
  double px = x0, py = y0, pz = z0, acc = 0.0;
  for (int i = 0; i < kInnerSamples; ++i) {
    px += dx;
    py += dy;
    pz += dz;
    dx += ddx;
    dy += ddy;
    dz += ddz;
    acc += std::max(std::abs(dx), std::abs(dy));
    if (acc >= tolerance) {
      LineBuffer::LineTo(px, py, pz);
      acc = 0.0;
    }
  }
  LineBuffer::LineTo(ex, ey, ez);
}

void GeometryBuffer::CubicTo(double c1x, double c1y, double c2x, double c2y, double ex, double ey,
                             double tolerance) {
  const double x0 = empty() ? 0.0 : x(pointCount() - 1);
  const double y0 = empty() ? 0.0 : y(pointCount() - 1);
  // B(t) = a t^3 + b t^2 + c t + P0.
  const double ax = -x0 + 3.0 * c1x - 3.0 * c2x + ex, ay = -y0 + 3.0 * c1y - 3.0 * c2y + ey;
  const double bx = 3.0 * (x0 - 2.0 * c1x + c2x), by = 3.0 * (y0 - 2.0 * c1y + c2y);
  const double cx = 3.0 * (c1x - x0), cy = 3.0 * (c1y - y0);
  const double h = kStep, h2 = h * h, h3 = h2 * h;
  double d1x = ax * h3 + bx * h2 + cx * h, d1y = ay * h3 + by * h2 + cy * h;
  double d2x = 6.0 * ax * h3 + 2.0 * bx * h2, d2y = 6.0 * ay * h3 + 2.0 * by * h2;
  const double d3x = 6.0 * ax * h3, d3y = 6.0 * ay * h3;
  double px = x0, py = y0, acc = 0.0;
  for (int i = 0; i < kInnerSamples; ++i) {
    px += d1x;
    py += d1y;
    d1x += d2x;
    d1y += d2y;
    d2x += d3x;
    d2y += d3y;
    acc += std::max(std::abs(d1x), std::abs(d1y));
    if (acc >= tolerance) {
      LineBuffer::LineTo(px, py, 0.0);
      acc = 0.0;
    }
  }
  LineBuffer::LineTo(ex, ey, 0.0);
}

void GeometryBuffer::QuadTo(const Vec3d& control, const Vec3d& end, double tolerance) {
  QuadTo(control.x(), control.y(), end.x(), end.y(), tolerance);
}

void GeometryBuffer::CubicTo(const Vec3d& control1, const Vec3d& control2, const Vec3d& end,
                             double tolerance) {
  CubicTo(control1.x(), control1.y(), control2.x(), control2.y(), end.x(), end.y(), tolerance);
}

// ---------------------------------------------------------------- edits

void GeometryBuffer::To2D() {
  for (std::size_t i = 2; i < xyz_.size(); i += 3) xyz_[i] = 0.0;
  dim_ = FdoDimensionality_XY;
  if (!empty()) bounds_.min[2] = bounds_.max[2] = 0.0;
}

void GeometryBuffer::To3D(double zValue) {
  for (std::size_t i = 2; i < xyz_.size(); i += 3) xyz_[i] = zValue;
  dim_ = FdoDimensionality(dim_ | FdoDimensionality_XYZ);
  ignoreZ_ = false;
  if (!empty()) bounds_.min[2] = bounds_.max[2] = zValue;
}

bool GeometryBuffer::Is3D() const { return hasZ() && !ignoreZ(); }

void GeometryBuffer::RecomputeBBox() {
  ResetBounds();
  for (std::size_t i = 0; i < xyz_.size(); i += 3) {
    for (std::size_t a = 0; a < 3; ++a) {
      const double v = xyz_[i + a];
      if (v < bounds_.min[a]) bounds_.min[a] = v;
      if (v > bounds_.max[a]) bounds_.max[a] = v;
    }
  }
}

BBox<2, double> GeometryBuffer::GetBBox2d() const {
  return BBox<2, double>(Vec2d(bounds_.min[0], bounds_.min[1]), Vec2d(bounds_.max[0], bounds_.max[1]));
}

BBox<3, double> GeometryBuffer::GetBBox3d() const { return bounds_; }

Vec3d GeometryBuffer::GetPoint(int index) const { return point(index); }

void GeometryBuffer::SetPoint(int index, const Vec3d& p) {
  assert(index >= 0 && index < pointCount());
  double* d = &xyz_[3 * std::size_t(index)];
  d[0] = p.x();
  d[1] = p.y();
  d[2] = p.z();
}

void GeometryBuffer::Translate(const Vec3d& offset) {
  for (std::size_t i = 0; i < xyz_.size(); i += 3)
    for (std::size_t a = 0; a < 3; ++a) xyz_[i + a] += offset[a];
  if (!empty())
    for (std::size_t a = 0; a < 3; ++a) {
      bounds_.min[a] += offset[a];
      bounds_.max[a] += offset[a];
    }
}

void GeometryBuffer::InvertWinding(int contour) {
  assert(contour >= 0 && contour < contourCount());
  int i = contourStart(contour), j = contourEnd(contour);
  for (; i < j; ++i, --j)
    for (std::size_t a = 0; a < 3; ++a) std::swap(xyz_[3 * std::size_t(i) + a], xyz_[3 * std::size_t(j) + a]);
}

void GeometryBuffer::OrientPolygons(bool shellsCounterClockwise) {
  for (int g = 0; g < geometryCount(); ++g) {
    if (geometryElementType(g) != FdoGeometryType_Polygon) continue;
    for (const detail::RingInfo& ring : detail::ClassifyRings(*this, geometryFirstContour(g), geometryContourCount(g))) {
      const bool wantCcw = (ring.depth % 2 == 0) == shellsCounterClockwise;
      if (ring.area != 0.0 && (ring.area > 0.0) != wantCcw) InvertWinding(ring.contour);
    }
  }
}

void GeometryBuffer::CopyLineBuffer(LineBuffer* dst, LineBuffer* src) {
  assert(dst != nullptr && src != nullptr);
  if (dst != src) *dst = *src;
}

void GeometryBuffer::CopyLineBuffer(LineBuffer* dst, LineBuffer* src, int contour) {
  assert(dst != nullptr && src != nullptr && dst != src);
  assert(contour >= 0 && contour < src->contourCount());
  const int s = src->contourStart(contour), e = src->contourEnd(contour);
  dst->Reserve(dst->pointCount() + e - s + 1);
  dst->MoveTo(src->x(s), src->y(s), src->z(s));
  for (int i = s + 1; i <= e; ++i) dst->LineTo(src->x(i), src->y(i), src->z(i));
}

}  // namespace kel
