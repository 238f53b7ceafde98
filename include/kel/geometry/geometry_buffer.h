// The library's container for one geometry (points, polylines, polygons, each
// possibly of several contours, in 2D or 3D): a LineBuffer with convenience
// constructors, vector-typed drawing, Bezier curve flattening, dimension
// changes, winding control, bounds, conversions (WKT, FGF, GEOS) and the
// operations that derive one geometry from another.
//
// Operations that write into an output buffer append to it: `out` receives
// one new geometry per input geometry (Generalize, Tessellate,
// SmoothHeightChanges, ClipPolyline) or one per resulting part (the GEOS
// operations). An output buffer without geometries first takes the input's
// type and dimensionality. Failures are logged and reported by a false result
// (or a null pointer); they leave `out` as it was.
//
// GEOS does the WKT text, clipping, offsetting, buffering and subtraction, each
// call in its own reentrant context. Polygon rings go to GEOS classified by
// nesting (a ring inside an odd number of other rings is a hole), so rings
// drawn in any order and orientation make valid polygons.
//
// One thread at a time per buffer; different buffers on different threads are
// independent.
#pragma once

#include <memory>
#include <string>

#include "kel/core/types.h"
#include "kel/export.h"
#include "kel/geometry/geos_handle.h"
#include "kel/geometry/line_buffer.h"

namespace kel {

class KEL_API GeometryBuffer : public LineBuffer {
public:
  GeometryBuffer(int capacity, FdoDimensionality dim, bool ignoreZ);
  explicit GeometryBuffer(const LineBuffer& other);
  GeometryBuffer(const GeometryBuffer& other);
  GeometryBuffer& operator=(const GeometryBuffer& other);
  // Polygon: one counter-clockwise ring (y up) min, (max.x, min.y), max,
  // (min.x, max.y), min. Always five points, also for a degenerate box.
  explicit GeometryBuffer(const BBox<2, double>& box);
  // Polygon (XYZ): the triangle a, b, c, a.
  GeometryBuffer(const Vec3d& a, const Vec3d& b, const Vec3d& c);
  ~GeometryBuffer() override;

  // ---- Drawing
  using LineBuffer::LineTo;
  using LineBuffer::MoveTo;
  void MoveTo(const Vec2d& p) { LineBuffer::MoveTo(p.x(), p.y(), 0.0); }
  void LineTo(const Vec2d& p) { LineBuffer::LineTo(p.x(), p.y(), 0.0); }
  void MoveTo(const Vec3d& p) { LineBuffer::MoveTo(p.x(), p.y(), p.z()); }
  void LineTo(const Vec3d& p) { LineBuffer::LineTo(p.x(), p.y(), p.z()); }
  // MoveTo when startNew, else LineTo.
  void AddPoint(bool startNew, double x, double y, double z);
  void AddPoint(bool startNew, const Vec2d& p) { AddPoint(startNew, p.x(), p.y(), 0.0); }
  void AddPoint(bool startNew, const Vec3d& p) { AddPoint(startNew, p.x(), p.y(), p.z()); }

  // Bezier curves from the last point, sampled at 100 parameter steps by
  // forward differencing. `tolerance` is a chord length in the Chebyshev
  // metric of x and y between emitted points, not a deviation bound: the
  // running sum of max(|dx|, |dy|) over steps emits a point each time it
  // reaches the tolerance. 0 emits all 99 inner samples; the end point is
  // always emitted exactly. On an empty buffer the curve starts at (0, 0, 0).
  // QuadTo and CubicTo are planar (z = 0 for every emitted point); QuadTo3D
  // interpolates z as well.
  void QuadTo(double cx, double cy, double ex, double ey, double tolerance);
  void QuadTo3D(double cx, double cy, double cz, double ex, double ey, double ez, double tolerance);
  void CubicTo(double c1x, double c1y, double c2x, double c2y, double ex, double ey, double tolerance);
  // These drop z on purpose: they call the planar forms with x and y.
  void QuadTo(const Vec3d& control, const Vec3d& end, double tolerance);
  void CubicTo(const Vec3d& control1, const Vec3d& control2, const Vec3d& end, double tolerance);

  // ---- Queries and edits
  using LineBuffer::Reset;
  // Every z becomes 0 and the dimensionality XY (M dropped too).
  void To2D();
  // Every z becomes `z`; the buffer becomes XYZ with z not ignored.
  void To3D(double z);
  // Has z and z is not ignored.
  bool Is3D() const;
  // Bounds from scratch over all points (after in-place edits).
  void RecomputeBBox();
  BBox<2, double> GetBBox2d() const;
  BBox<3, double> GetBBox3d() const;
  // Caller keeps 0 <= index < pointCount(). SetPoint leaves the bounds alone.
  Vec3d GetPoint(int index) const;
  void SetPoint(int index, const Vec3d& p);
  // Moves every point and the bounds.
  void Translate(const Vec3d& offset);
  // Reverses the points of one contour in place.
  void InvertWinding(int contour);
  // For polygon geometries: rings at even nesting depth (shells) run
  // counter-clockwise (y up) when shellsCounterClockwise, holes the other
  // way; false swaps both. Rings of fewer than three points and non-polygon
  // geometries are left alone.
  void OrientPolygons(bool shellsCounterClockwise);

  // ---- Conversions
  // WKT through GEOS ("POINT (1 2)", "POLYGON Z (...)"); z only when Is3D().
  // Numbers are the shortest text that reads back to the same doubles (down
  // to magnitudes about 1e-60 below the largest). Empty, with a logged
  // error, when GEOS cannot take the geometry or a coordinate reaches 1e40
  // (GEOS's writer cannot print those safely).
  std::wstring ToWKT() const;
  // Null (and a logged error) when the text does not parse. Collections keep
  // one geometry per member (nested collections are flattened).
  static std::shared_ptr<GeometryBuffer> FromWKT(const std::wstring& wkt);
  // The buffer as one GEOS geometry, made in `context` (a fresh one when
  // null). Null (and a logged error) when GEOS rejects it, e.g. a ring of
  // fewer than three distinct points, or non-finite coordinates.
  GeosGeometryPtr toGeosGeometry(GeosContextPtr context = nullptr) const;
  // Null for a null geometry or one GEOS cannot read back.
  static std::shared_ptr<GeometryBuffer> FromGeosGeometry(const GeosGeometryPtr& geometry);

  // Replaces dst's content with src's (points, structure, type, dimensionality).
  static void CopyLineBuffer(LineBuffer* dst, LineBuffer* src);
  // Appends contour `contour` of src to dst as a new contour of dst's current
  // geometry. Caller keeps 0 <= contour < src->contourCount().
  static void CopyLineBuffer(LineBuffer* dst, LineBuffer* src, int contour);

  // ---- Operations
  using LineBuffer::ClipPolyline;  // the box-first form is LineBuffer's own clipper
  // Douglas-Peucker per contour in 3D: the first and last points are kept,
  // and a point between two kept ones is kept when its squared distance to
  // their segment (not line) exceeds tolerance squared (first of equals
  // wins). Closed rings stay closed (their ends are kept). A negative or NaN
  // tolerance writes nothing and returns false.
  bool Generalize(LineBuffer* out, double tolerance) const;
  // Splits every segment of 3D length d into ceil(d / maxSegmentLength)
  // equal parts, keeping every input vertex; a contour whose last point
  // repeats its first (x and y, plus z when the input has z) is closed in
  // out. A length not greater than 0 (or NaN) returns false.
  bool Tessellate(LineBuffer* out, double maxSegmentLength) const;
  // Windowed height filter: x and y stay, each z becomes the mean z of the
  // contour's points whose distance along the contour (in x and y) from it
  // is at most window / 2. Closed contours wrap around (the window is capped
  // at the ring's length), so they stay closed; open ones are cut at their
  // ends. A window not greater than 0 (or NaN) returns false.
  bool SmoothHeightChanges(LineBuffer* out, double window) const;
  // The parts of every geometry inside the box (GEOS rectangle clip), lines
  // only: polygons are clipped as their boundary lines. One geometry per
  // input geometry, with one contour per piece.
  bool ClipPolyline(LineBuffer* out, const BBox<2, double>& box) const;

  // The polygons' parts inside the box (GEOS rectangle clip): a new buffer
  // with one geometry per resulting polygon, empty (not null) when nothing
  // is inside. Null for a null or non-polygon input, a NaN box or a GEOS
  // failure.
  static std::shared_ptr<GeometryBuffer> ClipPoly(const std::shared_ptr<GeometryBuffer>& polygon,
                                                  const BBox<2, double>& box);
  // Grows (distance > 0) or shrinks (< 0) polygons with mitred corners (mitre
  // limit 5), so right-angled footprints stay right-angled. Errors are
  // logged and leave out as it was.
  static void OffsetPolygon(LineBuffer* out, const LineBuffer* in, double distance);
  // Round buffer of any geometry (8 segments per quarter circle); lines and
  // points give their area of width 2 * distance, a negative distance
  // shrinks polygons.
  static bool BufferGeometry(LineBuffer* out, const LineBuffer* in, double distance);
  // a minus b (GEOS difference). Overlapping or self-touching inputs are
  // repaired (GEOS make-valid) and retried once before giving up.
  static bool SubtractGeometry(LineBuffer* out, const LineBuffer* a, const LineBuffer* b);
  // The same with b already in GEOS; the work happens in b's context.
  static bool SubtractGeometry(LineBuffer* out, const LineBuffer* a, const GeosGeometryPtr& b);
  // Chaikin corner cutting (Chaikin 1974): each pass replaces every edge
  // (p, q) by the points p + cut (q - p) and p + (1 - cut)(q - p). Closed
  // contours stay closed and lose their corners; open contours keep their
  // end points. cut is clamped to [0.01, 0.5] (0.25 is the classic scheme);
  // passes is rounded and clamped to [0, 8] (each pass doubles the points).
  // Writes one geometry per input geometry; a NaN argument writes nothing
  // and logs an error.
  static void SmoothPolygon(GeometryBuffer* out, const LineBuffer* in, double cut, double passes);
};

}  // namespace kel
