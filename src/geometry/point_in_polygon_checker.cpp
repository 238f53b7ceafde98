// PointInPolygonChecker: the polygon's edges in a SpatialIndex2D, leaf n
// being the edge from point n to point n + 1 of the (closed) buffer; the
// last point of each contour starts no edge and leaves a gap in the index.
#include "kel/geometry/point_in_polygon_checker.h"

#include <algorithm>
#include <cmath>

#include "kel/core/log.h"
#include "kel/geometry/geometry_buffer.h"
#include "kel/spatial/spatial_index_2d.h"

namespace kel {

namespace {

bool EndsOnStart(const LineBuffer& b, int c) {
  const int s = b.contourStart(c), e = b.contourEnd(c);
  return b.x(s) == b.x(e) && b.y(s) == b.y(e);
}

}  // namespace

PointInPolygonChecker::PointInPolygonChecker(std::shared_ptr<GeometryBuffer> polygon, const std::wstring& indexPrefix)
    : polygon_(std::move(polygon)) {
  if (!polygon_) return;
  const GeometryBuffer& g = *polygon_;
  for (int i = 0; i < g.pointCount(); ++i) {
    if (!std::isfinite(g.x(i)) || !std::isfinite(g.y(i))) {
      KEL_LOG_ERROR(L"PointInPolygonChecker: the polygon has a coordinate that is not finite");
      return;
    }
    box_.extend(Vec2d(g.x(i), g.y(i)));
  }
  valid_ = true;

  int edges = 0;
  bool allClosed = true;
  for (int c = 0; c < g.contourCount(); ++c) {
    edges += g.contourSize(c) - 1;
    if (g.contourSize(c) > 1 && !EndsOnStart(g, c)) {
      allClosed = false;
      ++edges;
    }
  }
  if (edges < kIndexedEdges) return;

  const GeometryBuffer* source = polygon_.get();
  if (!allClosed) {
    closed_ = std::make_shared<GeometryBuffer>(g.pointCount() + g.contourCount(), FdoDimensionality_XY, false);
    for (int c = 0; c < g.contourCount(); ++c) {
      GeometryBuffer::CopyLineBuffer(closed_.get(), polygon_.get(), c);
      closed_->Close();
    }
    source = closed_.get();
  }
  index_ = std::make_unique<SpatialIndex2D>(indexPrefix.empty() ? nullptr : indexPrefix.c_str());
  index_->reserve(std::uint64_t(source->pointCount()));
  const double* p = source->pointData();
  for (int c = 0; c < source->contourCount(); ++c)
    for (int i = source->contourStart(c); i < source->contourEnd(c); ++i) {
      const double* a = p + 3 * std::size_t(i);
      index_->insert(std::uint64_t(i), std::min(a[0], a[3]), std::min(a[1], a[4]), std::max(a[0], a[3]),
                     std::max(a[1], a[4]));
    }
  // Spilled levels end with up to 20 pages past their mapping, which queries
  // would read and write back through buffers; reopened, every whole page is
  // a view of the file.
  index_->reopenFiles();
}

PointInPolygonChecker::~PointInPolygonChecker() = default;

bool PointInPolygonChecker::PointInPolygon(const Vec2d& p) const {
  if (!valid_ || !std::isfinite(p.x()) || !std::isfinite(p.y())) return false;
  if (p.x() < box_.min.x() || p.x() > box_.max.x() || p.y() < box_.min.y() || p.y() > box_.max.y()) return false;
  if (!index_) return polygon_->PointInPolygon(p.x(), p.y());
  const GeometryBuffer& source = closed_ ? *closed_ : *polygon_;
  return index_->pointInPolygon(p.x(), p.y(), source.pointData(), 3);
}

}  // namespace kel
