// PointInPolygonChecker: one part per geometry. An indexed part's edges are
// leaves of its own SpatialIndex2D, leaf n being the edge from the part's
// point n to point n + 1 of the (closed) buffer; the last point of each
// contour starts no edge and leaves a gap in the index.
#include "kel/geometry/point_in_polygon_checker.h"

#include <algorithm>
#include <cmath>

#include "kel/core/log.h"
#include "kel/geometry/geometry_buffer.h"
#include "kel/spatial/spatial_index_2d.h"

namespace kel {

struct PointInPolygonChecker::Part {
  int firstContour = 0, contourCount = 0;
  int firstPoint = 0, pointCount = 0;
  BBox<2, double> box;
  std::unique_ptr<SpatialIndex2D> index;
  std::vector<std::uint32_t> gaps;  // leaves that are no edge: each contour's last point
};

namespace {

// Parts up to this many are looked up by scanning their boxes.
constexpr std::size_t kScannedParts = 8;

bool EndsOnStart(const LineBuffer& b, int c) {
  const int s = b.contourStart(c), e = b.contourEnd(c);
  return b.x(s) == b.x(e) && b.y(s) == b.y(e);
}

bool InBox(const BBox<2, double>& b, double x, double y) {
  return !(x < b.min.x() || x > b.max.x() || y < b.min.y() || y > b.max.y());
}

}  // namespace

PointInPolygonChecker::PointInPolygonChecker(std::shared_ptr<GeometryBuffer> polygon, const std::wstring& indexPrefix)
    : polygon_(std::move(polygon)) {
  if (!polygon_) return;
  const GeometryBuffer& g = *polygon_;
  bool allClosed = true;
  for (int i = 0; i < g.pointCount(); ++i) {
    if (!std::isfinite(g.x(i)) || !std::isfinite(g.y(i))) {
      KEL_LOG_ERROR(L"PointInPolygonChecker: the polygon has a coordinate that is not finite");
      return;
    }
    box_.extend(Vec2d(g.x(i), g.y(i)));
  }
  for (int c = 0; c < g.contourCount(); ++c) allClosed = allClosed && (g.contourSize(c) < 2 || EndsOnStart(g, c));
  valid_ = true;

  if (!allClosed) {
    closed_ = std::make_shared<GeometryBuffer>(g.pointCount() + g.contourCount(), FdoDimensionality_XY, false);
    for (int k = 0; k < g.geometryCount(); ++k) {
      closed_->NewGeometry();
      for (int c = g.geometryFirstContour(k); c < g.geometryFirstContour(k) + g.geometryContourCount(k); ++c) {
        GeometryBuffer::CopyLineBuffer(closed_.get(), polygon_.get(), c);
        closed_->Close();
      }
    }
  }
  const GeometryBuffer& source = closed_ ? *closed_ : g;

  // One part per geometry; a buffer without geometry runs is one part.
  const int geometries = std::max(source.geometryCount(), 1);
  parts_.resize(std::size_t(geometries));
  for (int k = 0; k < geometries; ++k) {
    Part& part = parts_[std::size_t(k)];
    part.firstContour = source.geometryCount() ? source.geometryFirstContour(k) : 0;
    part.contourCount = source.geometryCount() ? source.geometryContourCount(k) : 0;
    if (part.contourCount == 0) continue;
    part.firstPoint = source.contourStart(part.firstContour);
    part.pointCount = source.contourEnd(part.firstContour + part.contourCount - 1) - part.firstPoint + 1;
    for (int i = part.firstPoint; i < part.firstPoint + part.pointCount; ++i)
      part.box.extend(Vec2d(source.x(i), source.y(i)));
    if (part.pointCount - part.contourCount < kIndexedEdges) continue;
    part.index = std::make_unique<SpatialIndex2D>(indexPrefix.empty() ? nullptr : indexPrefix.c_str());
    part.index->reserve(std::uint64_t(part.pointCount));
    const double* p = source.pointData();
    for (int c = part.firstContour; c < part.firstContour + part.contourCount; ++c) {
      part.gaps.push_back(std::uint32_t(source.contourEnd(c) - part.firstPoint));
      for (int i = source.contourStart(c); i < source.contourEnd(c); ++i) {
        const double* a = p + 3 * std::size_t(i);
        part.index->insert(std::uint64_t(i - part.firstPoint), std::min(a[0], a[3]), std::min(a[1], a[4]),
                           std::max(a[0], a[3]), std::max(a[1], a[4]));
      }
    }
    // Spilled levels end with up to 20 pages past their mapping, which
    // queries would read through buffers; reopened, every whole page is a
    // view of the file.
    part.index->reopenFiles();
    if (!largest_ || part.index->count(0) > largest_->count(0)) largest_ = part.index.get();
  }

  if (parts_.size() > kScannedParts) {
    // The index keeps floats: widen each box by a millionth of the whole so
    // rounding can never leave out a part that holds the point (a part too
    // many only costs its test).
    const double pad = 1e-6 * std::max(box_.max.x() - box_.min.x(), box_.max.y() - box_.min.y());
    partIndex_ = std::make_unique<SpatialIndex2D>();
    for (std::size_t k = 0; k < parts_.size(); ++k) {
      const BBox<2, double>& b = parts_[k].box;
      if (!b.isEmpty()) partIndex_->insert(k, b.min.x() - pad, b.min.y() - pad, b.max.x() + pad, b.max.y() + pad);
    }
  }
}

PointInPolygonChecker::~PointInPolygonChecker() = default;

bool PointInPolygonChecker::PartContains(const Part& part, double x, double y) const {
  if (!InBox(part.box, x, y)) return false;
  const GeometryBuffer& source = closed_ ? *closed_ : *polygon_;
  if (part.index)
    return part.index->pointInPolygon(x, y, source.pointData() + 3 * std::size_t(part.firstPoint), 3,
                                       part.gaps.data(), part.gaps.size());
  bool inside = false;
  for (int c = part.firstContour; c < part.firstContour + part.contourCount; ++c) {
    const int s = source.contourStart(c), e = source.contourEnd(c);
    for (int i = s, j = e; i <= e; j = i++) {  // j before i; the closing edge first
      const double xi = source.x(i), yi = source.y(i), xj = source.x(j), yj = source.y(j);
      if ((yi > y) != (yj > y) && x < xi + (xj - xi) * (y - yi) / (yj - yi)) inside = !inside;
    }
  }
  return inside;
}

bool PointInPolygonChecker::PointInPolygon(const Vec2d& p) const {
  if (!valid_ || !std::isfinite(p.x()) || !std::isfinite(p.y())) return false;
  if (!InBox(box_, p.x(), p.y())) return false;
  bool inside = false;
  if (!partIndex_) {
    for (const Part& part : parts_) inside ^= PartContains(part, p.x(), p.y());
    return inside;
  }
  struct Visit {
    const PointInPolygonChecker* self;
    double x, y;
    bool inside;
  } visit{this, p.x(), p.y(), false};
  SpatialIndex2D::PointQuery(p.x(), p.y(), *partIndex_)
      .forEachAtPoint(
          [](std::uint32_t k, void* context) {
            auto* v = static_cast<Visit*>(context);
            v->inside ^= v->self->PartContains(v->self->parts_[k], v->x, v->y);
            return true;
          },
          &visit);
  return visit.inside;
}

std::uint64_t PointInPolygonChecker::indexMemoryBytes() const {
  std::uint64_t n = partIndex_ ? partIndex_->memoryBytes() : 0;
  for (const Part& part : parts_) n += part.index ? part.index->memoryBytes() : 0;
  return n;
}

std::uint64_t PointInPolygonChecker::indexFileBytes() const {
  std::uint64_t n = 0;
  for (const Part& part : parts_) n += part.index ? part.index->fileBytes() : 0;
  return n;
}

}  // namespace kel
