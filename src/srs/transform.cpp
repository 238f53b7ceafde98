#include "kel/srs/transform.h"

#include <cassert>

#include "kel/geometry/geometry_buffer.h"

namespace kel {
namespace {

// The base's element walk: stops transforming at the first failure but
// reports it only at the end.
template <typename V>
bool EachUntilFailure(const ITransform& t, const IDataArray<V>& points) {
  bool ok = true;
  for (V& p : points)
    if (ok) ok = t.Transform(p);
  return ok;
}

}  // namespace

bool ITransform::Transform(GeometryBuffer& g) const {
  double* xyz = g.pointData();
  bool ok = true;
  for (int i = 0, n = g.pointCount(); i < n && ok; ++i) ok = Transform(xyz[3 * i], xyz[3 * i + 1], xyz[3 * i + 2]);
  g.RecomputeBBox();
  return ok;
}

bool ITransform::Transform(const IDataArray<Vec<3, double>>& points) const {
  return EachUntilFailure(*this, points);
}

bool ITransform::Transform(const IDataArray<Vec<2, double>>& points) const {
  return EachUntilFailure(*this, points);
}

bool ITransform::Transform(BBox<3, double>& box) const {
  const BBox<3, double> in = box;
  box = BBox<3, double>();
  bool ok = true;
  for (int ix = 0; ix < 2; ++ix)
    for (int iy = 0; iy < 2; ++iy)
      for (int iz = 0; iz < 2; ++iz) {
        Vec<3, double> corner(ix ? in.max.x() : in.min.x(), iy ? in.max.y() : in.min.y(),
                              iz ? in.max.z() : in.min.z());
        if (ok) ok = Transform(corner);
        box.extend(corner);
      }
  return ok;
}

bool ITransform::Transform(BBox<2, double>& box) const {
  const BBox<2, double> in = box;
  box = BBox<2, double>();
  bool ok = true;
  for (int ix = 0; ix < 2; ++ix)
    for (int iy = 0; iy < 2; ++iy) {
      Vec<2, double> corner(ix ? in.max.x() : in.min.x(), iy ? in.max.y() : in.min.y());
      if (ok) ok = Transform(corner);
      box.extend(corner);
    }
  return ok;
}

bool ITransform::Transform(Vec<3, double>& p) const { return Transform(p.x(), p.y(), p.z()); }

bool ITransform::Transform(Vec<2, double>& p) const { return Transform(p.x(), p.y()); }

bool MatrixTransform::Transform(Vec<3, double>& p) const { return Transform(p.x(), p.y(), p.z()); }

bool MatrixTransform::Transform(double& x, double& y, double& z) const {
  double out[4];
  for (int r = 0; r < 4; ++r) out[r] = m_[r] * x + m_[4 + r] * y + m_[8 + r] * z + m_[12 + r];
  const double w = 1.0 / out[3];
  x = out[0] * w;
  y = out[1] * w;
  z = out[2] * w;
  return true;
}

bool MatrixTransform::Transform(double& x, double& y) const {
  double z = 0.0;
  return Transform(x, y, z);
}

void MatrixTransform::getMatrix(Mat<4, double>& out) const { out = m_; }

void CompositeTransform::add(const std::shared_ptr<const ITransform>& t) {
  assert(t && "CompositeTransform::add needs a transform");
  members_.push_back(t);
}

bool CompositeTransform::Transform(GeometryBuffer& g) const {
  double* xyz = g.pointData();
  const int n = g.pointCount();
  for (const auto& m : members_)
    for (int i = 0; i < n; ++i)
      if (!m->Transform(xyz[3 * i], xyz[3 * i + 1], xyz[3 * i + 2])) return false;
  g.RecomputeBBox();
  return true;
}

bool CompositeTransform::Transform(const IDataArray<Vec<3, double>>& points) const {
  for (const auto& m : members_)
    for (Vec<3, double>& p : points)
      if (!m->Transform(p)) return false;
  return true;
}

bool CompositeTransform::Transform(const IDataArray<Vec<2, double>>& points) const {
  for (const auto& m : members_)
    for (Vec<2, double>& p : points)
      if (!m->Transform(p)) return false;
  return true;
}

bool CompositeTransform::Transform(Vec<3, double>& p) const {
  for (const auto& m : members_)
    if (!m->Transform(p)) return false;
  return true;
}

bool CompositeTransform::Transform(double& x, double& y, double& z) const {
  for (const auto& m : members_)
    if (!m->Transform(x, y, z)) return false;
  return true;
}

bool CompositeTransform::Transform(double& x, double& y) const {
  for (const auto& m : members_)
    if (!m->Transform(x, y)) return false;
  return true;
}

}  // namespace kel
