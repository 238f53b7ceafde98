// A reusable point-in-polygon tester over one polygon geometry, for the many
// queries against borders of up to millions of vertices. Each geometry of
// the buffer is a part with its own box; a part of at least kIndexedEdges
// edges gets a paged edge index (SpatialIndex2D, one leaf per edge in ring
// order) so a query touches only the edges near its y, smaller parts are
// tested edge by edge. A query consults only the parts whose box holds the
// point (through a second SpatialIndex2D over the part boxes when there are
// many), so a map of countries never pages one country's edges out for
// another's.
//
// The rule is even-odd over every contour of the buffer (open contours are
// closed implicitly); points exactly on an edge may fall either way. The
// checker keeps the polygon and reads its points: edit neither while the
// checker lives. One thread at a time (queries go through the index's page
// caches).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kel/core/types.h"
#include "kel/export.h"

namespace kel {

class GeometryBuffer;
class SpatialIndex2D;

class KEL_API PointInPolygonChecker {
public:
  static constexpr int kIndexedEdges = 32;

  // A null polygon, or one with a non-finite coordinate, makes a checker
  // that answers false (the latter with a logged error). indexPrefix names
  // the index's level files if it ever spills (see SpatialIndex2D).
  explicit PointInPolygonChecker(std::shared_ptr<GeometryBuffer> polygon, const std::wstring& indexPrefix = L"");
  ~PointInPolygonChecker();
  PointInPolygonChecker(const PointInPolygonChecker&) = delete;
  PointInPolygonChecker& operator=(const PointInPolygonChecker&) = delete;

  // False outside the polygon's 2D box (its edges count as inside) and for
  // non-finite points.
  bool PointInPolygon(const Vec2d& p) const;

  bool hasIndex() const { return largest_ != nullptr; }
  // The edge index of the largest indexed part (null without one).
  const SpatialIndex2D* index() const { return largest_; }
  // Bytes of edge index records in memory and in temporary files, all parts.
  std::uint64_t indexMemoryBytes() const;
  std::uint64_t indexFileBytes() const;

private:
  struct Part;
  bool PartContains(const Part& part, double x, double y) const;

  std::shared_ptr<GeometryBuffer> polygon_;
  // The polygon with every contour closed, when some contour is open (the
  // index reads edge n as points n and n + 1).
  std::shared_ptr<GeometryBuffer> closed_;
  std::vector<Part> parts_;
  // Part boxes, widened a little, when there are many parts.
  std::unique_ptr<SpatialIndex2D> partIndex_;
  const SpatialIndex2D* largest_ = nullptr;
  BBox<2, double> box_;
  bool valid_ = false;
};

}  // namespace kel
