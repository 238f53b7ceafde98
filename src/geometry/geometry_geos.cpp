// GeometryBuffer on GEOS: WKT, conversions, clipping, offsets, buffers and
// subtraction. Every call makes its own reentrant context.
#include <algorithm>
#include <cassert>
#include <cmath>
#include <string>
#include <vector>

#include "geometry/detail/geometry_parts.h"
#include "geometry/detail/geos_util.h"
#include "geometry/detail/ring_nesting.h"
#include "kel/core/log.h"
#include "kel/core/text.h"

namespace kel {

namespace detail {

namespace {

thread_local std::string tlsGeosError;

void OnGeosError(const char* message, void*) { tlsGeosError = message ? message : "GEOS error"; }
void OnGeosNotice(const char*, void*) {}

std::wstring Wide(const std::string& s) { return Utf8String2WString(s); }

// Sequences built through one scratch array: x, y (, z) per point.
class SeqBuilder {
public:
  SeqBuilder(GEOSContextHandle_t h, bool z) : h_(h), z_(z) {}

  // Points [start, start + n) of b, with the first repeated at the end when
  // close is set. Null (error set) on non-finite coordinates.
  GEOSCoordSequence* Make(const LineBuffer& b, int start, int n, bool close, std::string& error) {
    scratch_.clear();
    for (int k = 0; k < n + (close ? 1 : 0); ++k) {
      const int i = start + (k < n ? k : 0);
      const double x = b.x(i), y = b.y(i), z = b.z(i);
      if (!std::isfinite(x) || !std::isfinite(y) || (z_ && !std::isfinite(z))) {
        error = "non-finite coordinate";
        return nullptr;
      }
      scratch_.push_back(x);
      scratch_.push_back(y);
      if (z_) scratch_.push_back(z);
    }
    const unsigned size = unsigned(scratch_.size() / (z_ ? 3 : 2));
    return GEOSCoordSeq_copyFromBuffer_r(h_, scratch_.data(), size, z_ ? 1 : 0, 0);
  }

private:
  GEOSContextHandle_t h_;
  bool z_;
  std::vector<double> scratch_;
};

// Pieces of one polygon geometry: one GEOS polygon per shell.
bool PolygonPieces(GEOSContextHandle_t h, const LineBuffer& b, int g, SeqBuilder& seqs,
                   std::vector<GEOSGeometry*>& out, std::string& error) {
  const std::vector<RingInfo> rings = ClassifyRings(b, b.geometryFirstContour(g), b.geometryContourCount(g));
  auto ring = [&](const RingInfo& r) -> GEOSGeometry* {
    const int c = r.contour;
    const int n = OpenSize(b, c);
    GEOSCoordSequence* seq = seqs.Make(b, b.contourStart(c), n, true, error);
    return seq ? GEOSGeom_createLinearRing_r(h, seq) : nullptr;
  };
  for (std::size_t s = 0; s < rings.size(); ++s) {
    if (rings[s].depth % 2 == 1 && rings[s].parent >= 0) continue;  // a hole
    GEOSGeometry* shell = ring(rings[s]);
    if (!shell) return false;
    std::vector<GEOSGeometry*> holes;
    for (const RingInfo& r : rings)
      if (r.depth % 2 == 1 && r.parent == int(s)) {
        GEOSGeometry* hole = ring(r);
        if (!hole) {
          GEOSGeom_destroy_r(h, shell);
          for (GEOSGeometry* x : holes) GEOSGeom_destroy_r(h, x);
          return false;
        }
        holes.push_back(hole);
      }
    GEOSGeometry* poly = GEOSGeom_createPolygon_r(h, shell, holes.data(), unsigned(holes.size()));
    if (!poly) {
      error = "GEOS rejected a polygon";
      return false;
    }
    out.push_back(poly);
  }
  return true;
}

int GeosCollectionOf(int fdoType) {
  switch (fdoType) {
    case FdoGeometryType_MultiPoint: return GEOS_MULTIPOINT;
    case FdoGeometryType_MultiLineString: return GEOS_MULTILINESTRING;
    case FdoGeometryType_MultiPolygon: return GEOS_MULTIPOLYGON;
    default: return GEOS_GEOMETRYCOLLECTION;
  }
}

GEOSGeometry* EmptyOf(GEOSContextHandle_t h, int fdoType) {
  switch (fdoType) {
    case FdoGeometryType_Point: return GEOSGeom_createEmptyPoint_r(h);
    case FdoGeometryType_LineString: return GEOSGeom_createEmptyLineString_r(h);
    case FdoGeometryType_Polygon: return GEOSGeom_createEmptyPolygon_r(h);
    default: return GEOSGeom_createEmptyCollection_r(h, GeosCollectionOf(fdoType));
  }
}

// `layoutType` 0 picks single, multi or collection from the pieces.
GeomPtr Build(GEOSContextHandle_t h, const LineBuffer& b, int first, int count, int layoutType,
              std::string& error) {
  const bool z = b.hasZ() && !b.ignoreZ();
  SeqBuilder seqs(h, z);
  std::vector<GEOSGeometry*> pieces;
  auto fail = [&]() {
    for (GEOSGeometry* p : pieces) GEOSGeom_destroy_r(h, p);
    if (error.empty()) error = LastGeosError().empty() ? "GEOS rejected the geometry" : LastGeosError();
    return GeomPtr(nullptr, GeomFree{h});
  };
  int kind = FdoGeometryType_None;
  bool mixed = false;
  for (int g = first; g < first + count; ++g) {
    const int t = b.geometryElementType(g);
    if (kind != FdoGeometryType_None && kind != t) mixed = true;
    kind = t;
    const int c0 = b.geometryFirstContour(g), nc = b.geometryContourCount(g);
    if (t == FdoGeometryType_Polygon) {
      if (!PolygonPieces(h, b, g, seqs, pieces, error)) return fail();
      continue;
    }
    for (int c = c0; c < c0 + nc; ++c) {
      if (t == FdoGeometryType_Point) {
        for (int i = b.contourStart(c); i <= b.contourEnd(c); ++i) {
          GEOSCoordSequence* seq = seqs.Make(b, i, 1, false, error);
          GEOSGeometry* p = seq ? GEOSGeom_createPoint_r(h, seq) : nullptr;
          if (!p) return fail();
          pieces.push_back(p);
        }
      } else {
        if (b.contourSize(c) < 2) {
          error = "a line needs at least two points";
          return fail();
        }
        GEOSCoordSequence* seq = seqs.Make(b, b.contourStart(c), b.contourSize(c), false, error);
        GEOSGeometry* line = seq ? GEOSGeom_createLineString_r(h, seq) : nullptr;
        if (!line) return fail();
        pieces.push_back(line);
      }
    }
  }
  int type = layoutType;
  if (type == FdoGeometryType_None) {
    if (mixed) type = FdoGeometryType_MultiGeometry;
    else if (pieces.size() == 1) type = kind;
    else type = MultiGeometryType(kind == FdoGeometryType_None ? FdoGeometryType_LineString : kind);
  }
  // A single polygon that nesting split into several shells.
  if (type == FdoGeometryType_Polygon && pieces.size() > 1) type = FdoGeometryType_MultiPolygon;
  const bool single = type == FdoGeometryType_Point || type == FdoGeometryType_LineString ||
                      type == FdoGeometryType_Polygon;
  if (single && pieces.size() == 1) return Own(h, pieces[0]);
  if (pieces.empty()) {
    GEOSGeometry* e = EmptyOf(h, type);
    return e ? Own(h, e) : fail();
  }
  GEOSGeometry* c = GEOSGeom_createCollection_r(h, GeosCollectionOf(type), pieces.data(), unsigned(pieces.size()));
  if (!c) return fail();
  return Own(h, c);
}

int FdoTypeOf(int geosType) {
  switch (geosType) {
    case GEOS_POINT: return FdoGeometryType_Point;
    case GEOS_LINESTRING:
    case GEOS_LINEARRING: return FdoGeometryType_LineString;
    case GEOS_POLYGON: return FdoGeometryType_Polygon;
    case GEOS_MULTIPOINT: return FdoGeometryType_MultiPoint;
    case GEOS_MULTILINESTRING: return FdoGeometryType_MultiLineString;
    case GEOS_MULTIPOLYGON: return FdoGeometryType_MultiPolygon;
    default: return FdoGeometryType_MultiGeometry;
  }
}

bool AddSeq(GEOSContextHandle_t h, const GEOSGeometry* g, LineBuffer& out) {
  const GEOSCoordSequence* seq = GEOSGeom_getCoordSeq_r(h, g);
  unsigned n = 0;
  if (!seq || !GEOSCoordSeq_getSize_r(h, seq, &n)) return false;
  out.Reserve(out.pointCount() + int(n));
  for (unsigned i = 0; i < n; ++i) {
    double x = 0, y = 0, z = 0;
    if (!GEOSCoordSeq_getXYZ_r(h, seq, i, &x, &y, &z)) return false;
    if (!std::isfinite(x) || !std::isfinite(y)) return false;
    if (!std::isfinite(z)) z = 0.0;  // GEOS reports a missing z as NaN
    if (i == 0) out.MoveTo(x, y, z);
    else out.LineTo(x, y, z);
  }
  return true;
}

// Adds the geometry's members; with onlyPolygons, points and lines are skipped.
bool Walk(GEOSContextHandle_t h, const GEOSGeometry* g, LineBuffer& out, bool newGeometry, bool onlyPolygons,
          int depth) {
  if (depth > 64) return false;
  const int t = GEOSGeomTypeId_r(h, g);
  switch (t) {
    case GEOS_POINT:
    case GEOS_LINESTRING:
    case GEOS_LINEARRING:
      if (onlyPolygons) return true;
      if (newGeometry) out.NewGeometry(FdoTypeOf(t));
      return GEOSisEmpty_r(h, g) == 1 || AddSeq(h, g, out);
    case GEOS_POLYGON: {
      if (newGeometry) out.NewGeometry(FdoGeometryType_Polygon);
      if (GEOSisEmpty_r(h, g) == 1) return true;
      const GEOSGeometry* shell = GEOSGetExteriorRing_r(h, g);
      if (!shell || !AddSeq(h, shell, out)) return false;
      const int holes = GEOSGetNumInteriorRings_r(h, g);
      for (int i = 0; i < holes; ++i) {
        const GEOSGeometry* hole = GEOSGetInteriorRingN_r(h, g, i);
        if (!hole || !AddSeq(h, hole, out)) return false;
      }
      return true;
    }
    case GEOS_MULTIPOINT:
    case GEOS_MULTILINESTRING:
    case GEOS_MULTIPOLYGON:
    case GEOS_GEOMETRYCOLLECTION: {
      const int n = GEOSGetNumGeometries_r(h, g);
      for (int i = 0; i < n; ++i) {
        const GEOSGeometry* m = GEOSGetGeometryN_r(h, g, i);
        if (!m || !Walk(h, m, out, newGeometry, onlyPolygons, depth + 1)) return false;
      }
      return true;
    }
    default:
      return false;
  }
}

bool FromGeosImpl(GEOSContextHandle_t h, const GEOSGeometry* g, LineBuffer& out, bool onlyPolygons) {
  out.Reset(GEOSHasZ_r(h, g) == 1 ? FdoDimensionality_XYZ : FdoDimensionality_XY, false);
  if (!Walk(h, g, out, true, onlyPolygons, 0)) {
    out.Reset(FdoDimensionality_XY, false);
    return false;
  }
  int type = FdoTypeOf(GEOSGeomTypeId_r(h, g));
  if (onlyPolygons) type = out.geometryCount() == 1 ? FdoGeometryType_Polygon : FdoGeometryType_MultiPolygon;
  out.SetGeometryType(type);
  return true;
}

}  // namespace

const std::string& LastGeosError() { return tlsGeosError; }
void ClearGeosError() { tlsGeosError.clear(); }

GEOSContextHandle_t NewGeosContext() {
  GEOSContextHandle_t h = GEOS_init_r();
  if (h) {
    GEOSContext_setErrorMessageHandler_r(h, OnGeosError, nullptr);
    GEOSContext_setNoticeMessageHandler_r(h, OnGeosNotice, nullptr);
  }
  return h;
}

GeomPtr ToGeos(GEOSContextHandle_t h, const LineBuffer& b, std::string& error) {
  return Build(h, b, 0, b.geometryCount(), LayoutOf(b).type, error);
}

GeomPtr ToGeos(GEOSContextHandle_t h, const LineBuffer& b, int first, int count, std::string& error) {
  return Build(h, b, first, count, FdoGeometryType_None, error);
}

bool FromGeos(GEOSContextHandle_t h, const GEOSGeometry* g, LineBuffer& out) {
  return g != nullptr && FromGeosImpl(h, g, out, false);
}

void AppendGeometries(LineBuffer& out, const LineBuffer& src) {
  if (out.geometryCount() == 0) {
    out.SetGeometryType(src.geometryType());
    out.SetDimensionality(src.dimensionality(), src.ignoreZ());
  }
  out.Reserve(out.pointCount() + src.pointCount());
  for (int g = 0; g < src.geometryCount(); ++g) {
    out.NewGeometry(src.geometryElementType(g));
    const int c0 = src.geometryFirstContour(g);
    for (int c = c0; c < c0 + src.geometryContourCount(g); ++c) {
      const int s = src.contourStart(c);
      out.MoveTo(src.x(s), src.y(s), src.z(s));
      for (int i = s + 1; i <= src.contourEnd(c); ++i) out.LineTo(src.x(i), src.y(i), src.z(i));
    }
  }
}

}  // namespace detail

using detail::GeomPtr;
using detail::GeosScope;

GeosContextPtr MakeGeosContext() {
  GEOSContextHandle_t h = detail::NewGeosContext();
  if (!h) return nullptr;
  return GeosContextPtr(h, [](GEOSContextHandle_t c) { GEOS_finish_r(c); });
}

void GeosGeometryDeleter::operator()(GEOSGeom_t* geometry) const noexcept {
  if (geometry && context) GEOSGeom_destroy_r(context.get(), geometry);
}

namespace {

void LogGeos(const wchar_t* what, const std::string& error) {
  KEL_LOG_ERROR(std::wstring(what) + L": " + detail::Wide(error.empty() ? "GEOS failed" : error));
}

bool BoxIsUsable(const BBox<2, double>& box) {
  for (int a = 0; a < 2; ++a)
    if (!std::isfinite(box.min[a]) || !std::isfinite(box.max[a]) || box.min[a] > box.max[a]) return false;
  return true;
}

// Runs op(h, a) -> new geometry on the buffer and appends the result to out.
template <typename Op>
bool UnaryOp(const wchar_t* what, LineBuffer* out, const LineBuffer* in, Op op) {
  assert(out != nullptr && in != nullptr);
  detail::ClearGeosError();
  GeosScope scope;
  GEOSContextHandle_t h = scope.get();
  std::string error;
  GeomPtr a = detail::ToGeos(h, *in, error);
  if (!a) {
    LogGeos(what, error);
    return false;
  }
  GeomPtr r = detail::Own(h, op(h, a.get()));
  GeometryBuffer result(0, FdoDimensionality_XY, false);
  if (!r || !detail::FromGeos(h, r.get(), result)) {
    LogGeos(what, detail::LastGeosError());
    return false;
  }
  detail::AppendGeometries(*out, result);
  return true;
}

}  // namespace

namespace {

// Decimals for GEOS's WKT writer. It prints the shortest text that reads
// back, cut at this many decimals, into a fixed buffer of about 128
// characters (integer digits, point and decimals; GEOS 3.11 overruns it for
// numbers near 1e110). So: enough decimals for the smallest magnitude,
// never more than the buffer takes beside the largest; -1 when the largest
// is too large to print safely.
int WktDecimals(const LineBuffer& b, bool withZ) {
  double lo = HUGE_VAL, hi = 0.0;
  for (int i = 0; i < b.pointCount(); ++i)
    for (int a = 0; a < (withZ ? 3 : 2); ++a) {
      const double v = std::abs(b.pointData()[3 * std::size_t(i) + std::size_t(a)]);
      if (v > hi) hi = v;
      if (v != 0.0 && v < lo) lo = v;
    }
  if (!(hi < 1e40)) return hi == 0.0 ? 16 : -1;
  const int intDigits = hi < 1.0 ? 1 : int(std::floor(std::log10(hi))) + 1;
  const int wanted = lo == HUGE_VAL ? 16 : 16 - int(std::floor(std::log10(lo)));
  return std::clamp(wanted, 16, 100 - intDigits);
}

}  // namespace

std::wstring GeometryBuffer::ToWKT() const {
  const int decimals = WktDecimals(*this, Is3D());
  if (decimals < 0) {
    KEL_LOG_ERROR(L"ToWKT: coordinates beyond 1e40 cannot be written as text");
    return L"";
  }
  detail::ClearGeosError();
  GeosScope scope;
  GEOSContextHandle_t h = scope.get();
  std::string error;
  GeomPtr g = detail::ToGeos(h, *this, error);
  if (!g) {
    LogGeos(L"ToWKT", error);
    return L"";
  }
  GEOSWKTWriter* writer = GEOSWKTWriter_create_r(h);
  if (!writer) return L"";
  GEOSWKTWriter_setTrim_r(h, writer, 1);
  GEOSWKTWriter_setRoundingPrecision_r(h, writer, decimals);
  GEOSWKTWriter_setOutputDimension_r(h, writer, Is3D() ? 3 : 2);
  char* text = GEOSWKTWriter_write_r(h, writer, g.get());
  GEOSWKTWriter_destroy_r(h, writer);
  if (!text) {
    LogGeos(L"ToWKT", detail::LastGeosError());
    return L"";
  }
  std::wstring out = detail::Wide(text);
  GEOSFree_r(h, text);
  return out;
}

std::shared_ptr<GeometryBuffer> GeometryBuffer::FromWKT(const std::wstring& wkt) {
  detail::ClearGeosError();
  GeosScope scope;
  GEOSContextHandle_t h = scope.get();
  GEOSWKTReader* reader = GEOSWKTReader_create_r(h);
  if (!reader) return nullptr;
  const std::string text = WString2Utf8String(wkt);
  GeomPtr g = detail::Own(h, text.find('\0') == std::string::npos ? GEOSWKTReader_read_r(h, reader, text.c_str())
                                                                   : nullptr);
  GEOSWKTReader_destroy_r(h, reader);
  auto out = std::make_shared<GeometryBuffer>(0, FdoDimensionality_XY, false);
  if (!g || !detail::FromGeos(h, g.get(), *out)) {
    LogGeos(L"FromWKT", detail::LastGeosError().empty() ? "unreadable text" : detail::LastGeosError());
    return nullptr;
  }
  return out;
}

GeosGeometryPtr GeometryBuffer::toGeosGeometry(GeosContextPtr context) const {
  if (!context) context = MakeGeosContext();
  if (!context) return GeosGeometryPtr(nullptr, GeosGeometryDeleter{});
  detail::ClearGeosError();
  std::string error;
  GeomPtr g = detail::ToGeos(context.get(), *this, error);
  if (!g) {
    LogGeos(L"toGeosGeometry", error);
    return GeosGeometryPtr(nullptr, GeosGeometryDeleter{context});
  }
  return GeosGeometryPtr(g.release(), GeosGeometryDeleter{context});
}

std::shared_ptr<GeometryBuffer> GeometryBuffer::FromGeosGeometry(const GeosGeometryPtr& geometry) {
  if (!geometry || !geometry.get_deleter().context) return nullptr;
  auto out = std::make_shared<GeometryBuffer>(0, FdoDimensionality_XY, false);
  if (!detail::FromGeos(geometry.get_deleter().context.get(), geometry.get(), *out)) {
    LogGeos(L"FromGeosGeometry", "unsupported geometry");
    return nullptr;
  }
  return out;
}

bool GeometryBuffer::ClipPolyline(LineBuffer* out, const BBox<2, double>& box) const {
  assert(out != nullptr && out != this);
  if (!BoxIsUsable(box)) {
    KEL_LOG_ERROR(L"ClipPolyline: the box is empty or not finite");
    return false;
  }
  detail::ClearGeosError();
  GeosScope scope;
  GEOSContextHandle_t h = scope.get();
  const int single = SingleGeometryType(geometryType());
  GeometryBuffer result(0, dimensionality(), ignoreZ());
  result.SetGeometryType(single == LinearGeometryType(geometryType()) ? FdoGeometryType_LineString
                                                                     : FdoGeometryType_MultiLineString);
  // Every contour of two or more points as a line, whatever the element type.
  GeometryBuffer lines(0, dimensionality(), ignoreZ());
  lines.SetGeometryType(FdoGeometryType_MultiLineString);
  GeometryBuffer piece(0, FdoDimensionality_XY, false);
  for (int g = 0; g < geometryCount(); ++g) {
    result.NewGeometry();
    lines.Clear();
    const int c0 = geometryFirstContour(g);
    for (int c = c0; c < c0 + geometryContourCount(g); ++c)
      if (contourSize(c) >= 2) CopyLineBuffer(&lines, const_cast<GeometryBuffer*>(this), c);
    if (lines.contourCount() == 0) continue;
    std::string error;
    GeomPtr in = detail::ToGeos(h, lines, error);
    if (!in) {
      LogGeos(L"ClipPolyline", error);
      return false;
    }
    GeomPtr clipped = detail::Own(h, GEOSClipByRect_r(h, in.get(), box.min[0], box.min[1], box.max[0], box.max[1]));
    if (!clipped || !detail::FromGeos(h, clipped.get(), piece)) {
      LogGeos(L"ClipPolyline", detail::LastGeosError());
      return false;
    }
    for (int c = 0; c < piece.contourCount(); ++c)
      if (piece.contourSize(c) >= 2) CopyLineBuffer(&result, &piece, c);
  }
  detail::AppendGeometries(*out, result);
  return true;
}

std::shared_ptr<GeometryBuffer> GeometryBuffer::ClipPoly(const std::shared_ptr<GeometryBuffer>& polygon,
                                                         const BBox<2, double>& box) {
  if (!polygon) return nullptr;
  if (!BoxIsUsable(box)) {
    KEL_LOG_ERROR(L"ClipPoly: the box is empty or not finite");
    return nullptr;
  }
  for (int g = 0; g < polygon->geometryCount(); ++g)
    if (polygon->geometryElementType(g) != FdoGeometryType_Polygon) {
      KEL_LOG_ERROR(L"ClipPoly: the geometry is not a polygon");
      return nullptr;
    }
  detail::ClearGeosError();
  GeosScope scope;
  GEOSContextHandle_t h = scope.get();
  std::string error;
  GeomPtr in = detail::ToGeos(h, *polygon, error);
  if (!in) {
    LogGeos(L"ClipPoly", error);
    return nullptr;
  }
  GeomPtr clipped = detail::Own(h, GEOSClipByRect_r(h, in.get(), box.min[0], box.min[1], box.max[0], box.max[1]));
  auto out = std::make_shared<GeometryBuffer>(0, polygon->dimensionality(), polygon->ignoreZ());
  if (!clipped || !detail::FromGeosImpl(h, clipped.get(), *out, true)) {
    LogGeos(L"ClipPoly", detail::LastGeosError());
    return nullptr;
  }
  return out;
}

void GeometryBuffer::OffsetPolygon(LineBuffer* out, const LineBuffer* in, double distance) {
  if (!std::isfinite(distance)) {
    KEL_LOG_ERROR(L"OffsetPolygon: the distance is not finite");
    return;
  }
  UnaryOp(L"OffsetPolygon", out, in, [distance](GEOSContextHandle_t h, const GEOSGeometry* a) {
    return GEOSBufferWithStyle_r(h, a, distance, 8, GEOSBUF_CAP_FLAT, GEOSBUF_JOIN_MITRE, 5.0);
  });
}

bool GeometryBuffer::BufferGeometry(LineBuffer* out, const LineBuffer* in, double distance) {
  if (!std::isfinite(distance)) {
    KEL_LOG_ERROR(L"BufferGeometry: the distance is not finite");
    return false;
  }
  return UnaryOp(L"BufferGeometry", out, in, [distance](GEOSContextHandle_t h, const GEOSGeometry* a) {
    return GEOSBuffer_r(h, a, distance, 8);
  });
}

namespace {

// a - b in h; on a GEOS failure both inputs are made valid and it tries once more.
GeomPtr Difference(GEOSContextHandle_t h, const GEOSGeometry* a, const GEOSGeometry* b) {
  GeomPtr r = detail::Own(h, GEOSDifference_r(h, a, b));
  if (r) return r;
  GeomPtr va = detail::Own(h, GEOSMakeValid_r(h, a));
  GeomPtr vb = detail::Own(h, GEOSMakeValid_r(h, b));
  if (!va || !vb) return detail::Own(h, nullptr);
  return detail::Own(h, GEOSDifference_r(h, va.get(), vb.get()));
}

bool SubtractIn(GEOSContextHandle_t h, LineBuffer* out, const LineBuffer* a, const GEOSGeometry* b) {
  std::string error;
  GeomPtr ga = detail::ToGeos(h, *a, error);
  if (!ga) {
    LogGeos(L"SubtractGeometry", error);
    return false;
  }
  GeomPtr r = Difference(h, ga.get(), b);
  GeometryBuffer result(0, FdoDimensionality_XY, false);
  if (!r || !detail::FromGeos(h, r.get(), result)) {
    LogGeos(L"SubtractGeometry", detail::LastGeosError());
    return false;
  }
  detail::AppendGeometries(*out, result);
  return true;
}

}  // namespace

bool GeometryBuffer::SubtractGeometry(LineBuffer* out, const LineBuffer* a, const LineBuffer* b) {
  assert(out != nullptr && a != nullptr && b != nullptr);
  detail::ClearGeosError();
  GeosScope scope;
  std::string error;
  GeomPtr gb = detail::ToGeos(scope.get(), *b, error);
  if (!gb) {
    LogGeos(L"SubtractGeometry", error);
    return false;
  }
  return SubtractIn(scope.get(), out, a, gb.get());
}

bool GeometryBuffer::SubtractGeometry(LineBuffer* out, const LineBuffer* a, const GeosGeometryPtr& b) {
  assert(out != nullptr && a != nullptr);
  if (!b || !b.get_deleter().context) {
    KEL_LOG_ERROR(L"SubtractGeometry: no geometry to subtract");
    return false;
  }
  detail::ClearGeosError();
  return SubtractIn(b.get_deleter().context.get(), out, a, b.get());
}

}  // namespace kel
