// Point storage that every geometry user reads: points grouped into contours,
// contours grouped into geometries, with 3D bounds, a geometry type, the
// dimensionality, even-odd point-in-polygon, box clipping and the binary
// geometry format (FGF).
//
// Layout. Every point is three doubles x, y, z, whatever the dimensionality
// (z is 0 for points drawn in 2D). A contour is a run of consecutive points
// (start index, point count). A geometry is a run of consecutive contours.
// MoveTo starts a contour, LineTo continues it, NewGeometry starts the next
// geometry. A buffer holds one geometry type for all its geometries, except a
// MultiGeometry, whose geometries each carry their own element type.
//
// How types read: a Polygon geometry's contours are its rings (the first is
// normally the shell; consumers that need shells and holes classify rings by
// nesting, so any ring order works). A LineString geometry with several
// contours is a multi-line; a Point geometry's every point is a point. Multi
// types keep one element per geometry. Curve types are only labels here:
// curves are flattened when drawn or loaded.
//
// Bounds grow with every point drawn; code that edits points in place calls
// RecomputeBBox (on GeometryBuffer) afterwards. An empty buffer's bounds are
// (DBL_MAX, DBL_MAX, DBL_MAX) to (-DBL_MAX, -DBL_MAX, -DBL_MAX).
//
// One thread at a time. Nothing here throws except std::bad_alloc; bad
// binary input gives false and a logged error, never a read past the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kel/core/types.h"
#include "kel/export.h"

namespace kel {

// Which ordinates a point carries. Bit 0 is Z, bit 1 is M (the values FGF uses).
enum FdoDimensionality : std::int32_t {
  FdoDimensionality_XY = 0,
  FdoDimensionality_XYZ = 1,
  FdoDimensionality_XYM = 2,
  FdoDimensionality_XYZM = 3,
};

// Feature-geometry type codes, as FGF writes them.
enum FdoGeometryType : std::int32_t {
  FdoGeometryType_None = 0,
  FdoGeometryType_Point = 1,
  FdoGeometryType_LineString = 2,
  FdoGeometryType_Polygon = 3,
  FdoGeometryType_MultiPoint = 4,
  FdoGeometryType_MultiLineString = 5,
  FdoGeometryType_MultiPolygon = 6,
  FdoGeometryType_MultiGeometry = 7,
  FdoGeometryType_CurveString = 10,
  FdoGeometryType_CurvePolygon = 11,
  FdoGeometryType_MultiCurveString = 12,
  FdoGeometryType_MultiCurvePolygon = 13,
};

class byte_sink;

class KEL_API LineBuffer {
public:
  // `capacity` is a hint (points to reserve). ignoreZ marks z as present but
  // not meaningful (Is3D() is then false); z is still stored.
  explicit LineBuffer(int capacity = 0, FdoDimensionality dim = FdoDimensionality_XY,
                      bool ignoreZ = false);
  LineBuffer(const LineBuffer&);
  LineBuffer& operator=(const LineBuffer&);
  LineBuffer(LineBuffer&&) noexcept;
  LineBuffer& operator=(LineBuffer&&) noexcept;
  virtual ~LineBuffer();

  // ---- Drawing (inline: these are the hot path of every operation)
  // Starts a contour (and the first geometry, when there is none yet).
  void MoveTo(double x, double y, double z = 0.0) {
    if (geometries_.empty()) NewGeometry();
    contours_.push_back({pointCount(), 1});
    AppendPoint(x, y, z);
  }
  // Continues the current contour; with no contour in the current geometry
  // it acts as MoveTo.
  void LineTo(double x, double y, double z = 0.0) {
    if (contours_.empty() || geometries_.back().firstContour == contourCount()) {
      MoveTo(x, y, z);
      return;
    }
    ++contours_.back().count;
    AppendPoint(x, y, z);
  }
  // LineTo for n points given as x, y, z triples, in one go.
  void LineToMany(const double* xyz, int n);
  // Appends the contour's start point unless the contour already ends on it
  // (x, y and z equal), so closing twice never doubles the closing point.
  void Close();
  // Starts the next geometry, which stays empty until the next MoveTo. Each
  // call adds one geometry, so "one geometry per input" stays countable even
  // for inputs with nothing to draw. elementType matters only for a
  // MultiGeometry buffer (0: the buffer's own element type).
  void NewGeometry(int elementType = FdoGeometryType_None) {
    geometries_.push_back({contourCount(), elementType});
  }
  void SetGeometryType(int type) { type_ = type; }
  // Changes the labels only; the stored points stay as they are.
  void SetDimensionality(FdoDimensionality dim, bool ignoreZ) {
    dim_ = dim;
    ignoreZ_ = ignoreZ;
  }
  // Empties the buffer and sets its dimensionality; the type becomes None.
  void Reset(FdoDimensionality dim, bool ignoreZ);
  // Drops every point, contour and geometry; keeps type and dimensionality.
  void Clear();
  void Reserve(int points);

  // What an operation appended can be taken back: mark before, roll back on
  // failure, and the buffer is as it was (labels and bounds included).
  struct Mark {
    std::size_t points, contours, geometries;
    BBox<3, double> bounds;
    int type;
    FdoDimensionality dim;
    bool ignoreZ;
  };
  Mark mark() const;
  // Caller passes a mark of this buffer taken since its last shrink.
  void rollBack(const Mark& m);

  // ---- Reading
  int geometryType() const { return type_; }
  FdoDimensionality dimensionality() const { return dim_; }
  bool hasZ() const { return (dim_ & FdoDimensionality_XYZ) != 0; }
  bool ignoreZ() const { return ignoreZ_; }
  bool empty() const { return xyz_.empty(); }

  int pointCount() const { return static_cast<int>(xyz_.size() / 3); }
  // Point i as x, y, z. Caller keeps 0 <= i < pointCount().
  Vec3d point(int i) const;
  double x(int i) const { return xyz_[3 * std::size_t(i)]; }
  double y(int i) const { return xyz_[3 * std::size_t(i) + 1]; }
  double z(int i) const { return xyz_[3 * std::size_t(i) + 2]; }
  // Three doubles per point, for code that walks or edits them in bulk.
  double* pointData() { return xyz_.data(); }
  const double* pointData() const { return xyz_.data(); }

  int contourCount() const { return static_cast<int>(contours_.size()); }
  int contourStart(int c) const { return contours_[std::size_t(c)].start; }
  int contourSize(int c) const { return contours_[std::size_t(c)].count; }
  // Index of the contour's last point.
  int contourEnd(int c) const { return contourStart(c) + contourSize(c) - 1; }

  int geometryCount() const { return static_cast<int>(geometries_.size()); }
  int geometryFirstContour(int g) const { return geometries_[std::size_t(g)].firstContour; }
  int geometryContourCount(int g) const;
  // The single (non-multi) type of geometry g: Point, LineString or Polygon
  // for linear buffers; curve labels map to their linear counterparts. A
  // buffer of type None infers it: Point when every contour has one point,
  // else LineString.
  int geometryElementType(int g) const;

  // Min x, y, z then max x, y, z.
  const BBox<3, double>& bounds() const { return bounds_; }

  // ---- Operations
  // Even-odd rule over every contour of the buffer; contours that do not end
  // on their start are closed implicitly. Points exactly on an edge may fall
  // either way.
  bool PointInPolygon(double x, double y) const;
  // Sutherland-Hodgman against the box, each ring on its own (a ring that
  // leaves and re-enters the box may yield degenerate edges along the box
  // boundary; its area is still exact). Appends one geometry per geometry
  // of this buffer to dst; rings that vanish are dropped. A dst with no
  // geometries takes this buffer's type and dimensionality.
  void ClipPolygon(const BBox<2, double>& box, LineBuffer* dst) const;
  // Liang-Barsky per segment; pieces inside the box become contours (z is
  // interpolated). One geometry per geometry of this buffer, as above.
  void ClipPolyline(const BBox<2, double>& box, LineBuffer* dst) const;

  // Replaces the content with the FGF bytes (little-endian int32 type, int32
  // dimensionality, then the coordinates; see line_buffer.cpp for the full
  // layout). M ordinates are read and dropped; circular arcs of curve types
  // are flattened in steps of at most 5 degrees and the buffer gets the
  // linear type. The whole block must be one geometry: short or trailing
  // bytes, unknown types, negative counts and non-finite ordinates give
  // false, a logged error and an empty buffer. Safe on hostile input.
  bool LoadFromAgf(const void* data, std::size_t size);
  // Writes the buffer as FGF. Several geometries of a single type are
  // written as the matching multi type; contours are written as they are
  // (rings are not closed for you). Ordinates: x, y and z when hasZ().
  void ToAgf(byte_sink& out) const;

protected:
  struct Contour {
    int start;
    int count;
  };
  struct Geometry {
    int firstContour;
    int elementType;  // only meaningful for MultiGeometry buffers
  };

  void AppendPoint(double x, double y, double z) {
    xyz_.push_back(x);
    xyz_.push_back(y);
    xyz_.push_back(z);
    if (x < bounds_.min[0]) bounds_.min[0] = x;
    if (x > bounds_.max[0]) bounds_.max[0] = x;
    if (y < bounds_.min[1]) bounds_.min[1] = y;
    if (y > bounds_.max[1]) bounds_.max[1] = y;
    if (z < bounds_.min[2]) bounds_.min[2] = z;
    if (z > bounds_.max[2]) bounds_.max[2] = z;
  }
  // Bounds back to the empty box.
  void ResetBounds();

  std::vector<double> xyz_;
  std::vector<Contour> contours_;
  std::vector<Geometry> geometries_;
  BBox<3, double> bounds_;
  int type_ = FdoGeometryType_None;
  FdoDimensionality dim_ = FdoDimensionality_XY;
  bool ignoreZ_ = false;
};

// The linear counterpart of a type (CurveString -> LineString, ...), the
// single type of a multi type, and back.
KEL_API int LinearGeometryType(int type);
KEL_API int SingleGeometryType(int type);
KEL_API int MultiGeometryType(int singleType);

}  // namespace kel
