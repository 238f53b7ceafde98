// LineBuffer: point storage, even-odd point-in-polygon, box clipping and FGF.
//
// FGF, all little-endian:
//   geometry     = int32 type, int32 dimensionality, body
//   Point        : ordinates
//   LineString   : int32 n, n x ordinates
//   Polygon      : int32 rings, per ring int32 n, n x ordinates
//   CurveString  : ordinates (start), int32 segments, segment...
//   CurvePolygon : int32 rings, per ring: ordinates (start), int32 segments, segment...
//   segment      = int32 130 (circular arc), ordinates (mid), ordinates (end)
//                | int32 131 (line string),  int32 n, n x ordinates
//   Multi*       : int32 n, n x geometry
// Ordinates are x, y, then z when dimensionality has bit 0, then m when it has
// bit 1, all float64.
#include "kel/geometry/line_buffer.h"

#include <algorithm>
#include <cassert>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <numbers>
#include <string>

#include <sys/mman.h>

#include "geometry/detail/geometry_parts.h"
#include "kel/core/log.h"
#include "kel/geometry/byte_sink.h"

namespace kel {

byte_sink::~byte_sink() = default;

void memory_byte_sink::write(const void* data, std::size_t size) {
  const auto* p = static_cast<const std::uint8_t*>(data);
  bytes_.insert(bytes_.end(), p, p + size);
}

int LinearGeometryType(int type) {
  switch (type) {
    case FdoGeometryType_CurveString: return FdoGeometryType_LineString;
    case FdoGeometryType_CurvePolygon: return FdoGeometryType_Polygon;
    case FdoGeometryType_MultiCurveString: return FdoGeometryType_MultiLineString;
    case FdoGeometryType_MultiCurvePolygon: return FdoGeometryType_MultiPolygon;
    default: return type;
  }
}

int SingleGeometryType(int type) {
  switch (LinearGeometryType(type)) {
    case FdoGeometryType_MultiPoint: return FdoGeometryType_Point;
    case FdoGeometryType_MultiLineString: return FdoGeometryType_LineString;
    case FdoGeometryType_MultiPolygon: return FdoGeometryType_Polygon;
    default: return LinearGeometryType(type);
  }
}

int MultiGeometryType(int singleType) {
  switch (singleType) {
    case FdoGeometryType_Point: return FdoGeometryType_MultiPoint;
    case FdoGeometryType_LineString: return FdoGeometryType_MultiLineString;
    case FdoGeometryType_Polygon: return FdoGeometryType_MultiPolygon;
    default: return FdoGeometryType_MultiGeometry;
  }
}

// ---------------------------------------------------------------- storage

LineBuffer::LineBuffer(int capacity, FdoDimensionality dim, bool ignoreZ) : dim_(dim), ignoreZ_(ignoreZ) {
  ResetBounds();
  if (capacity > 0) Reserve(capacity);
}

LineBuffer::LineBuffer(const LineBuffer&) = default;
LineBuffer& LineBuffer::operator=(const LineBuffer&) = default;
LineBuffer::LineBuffer(LineBuffer&&) noexcept = default;
LineBuffer& LineBuffer::operator=(LineBuffer&&) noexcept = default;
LineBuffer::~LineBuffer() = default;

void LineBuffer::ResetBounds() {
  bounds_.min = Vec3d(DBL_MAX, DBL_MAX, DBL_MAX);
  bounds_.max = Vec3d(-DBL_MAX, -DBL_MAX, -DBL_MAX);
}

namespace {

// Large buffers are filled at once (tessellation, whole layers): on 2 MiB
// pages they fault in a few hundred times instead of hundreds of thousands.
void AdviseHugePages(void* data, std::size_t bytes) {
  constexpr std::uintptr_t kHuge = std::uintptr_t(2) << 20;
  const std::uintptr_t begin = (reinterpret_cast<std::uintptr_t>(data) + kHuge - 1) & ~(kHuge - 1);
  const std::uintptr_t end = (reinterpret_cast<std::uintptr_t>(data) + bytes) & ~(kHuge - 1);
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

}  // namespace

void LineBuffer::Reserve(int points) {
  const std::size_t n = 3 * std::size_t(std::max(points, 0));
  if (n <= xyz_.capacity()) return;
  xyz_.reserve(n);
  AdviseHugePages(xyz_.data(), xyz_.capacity() * sizeof(double));
}

void LineBuffer::Clear() {
  xyz_.clear();
  contours_.clear();
  geometries_.clear();
  ResetBounds();
}

void LineBuffer::Reset(FdoDimensionality dim, bool ignoreZ) {
  Clear();
  type_ = FdoGeometryType_None;
  dim_ = dim;
  ignoreZ_ = ignoreZ;
}

Vec3d LineBuffer::point(int i) const {
  assert(i >= 0 && i < pointCount());
  const double* p = &xyz_[3 * std::size_t(i)];
  return Vec3d(p[0], p[1], p[2]);
}

LineBuffer::Mark LineBuffer::mark() const {
  return {xyz_.size(), contours_.size(), geometries_.size(), bounds_, type_, dim_, ignoreZ_};
}

void LineBuffer::rollBack(const Mark& m) {
  assert(m.points <= xyz_.size() && m.contours <= contours_.size() && m.geometries <= geometries_.size());
  xyz_.resize(m.points);
  contours_.resize(m.contours);
  if (!contours_.empty() && m.contours > 0) {
    // The last kept contour may have grown since the mark.
    Contour& c = contours_.back();
    c.count = int(m.points / 3) - c.start;
  }
  geometries_.resize(m.geometries);
  bounds_ = m.bounds;
  type_ = m.type;
  dim_ = m.dim;
  ignoreZ_ = m.ignoreZ;
}

void LineBuffer::LineToMany(const double* xyz, int n) {
  if (n <= 0) return;
  if (contours_.empty() || geometries_.back().firstContour == contourCount()) {
    MoveTo(xyz[0], xyz[1], xyz[2]);
    xyz += 3;
    --n;
  }
  xyz_.insert(xyz_.end(), xyz, xyz + 3 * std::size_t(n));
  contours_.back().count += n;
  for (int i = 0; i < n; ++i, xyz += 3)
    for (std::size_t a = 0; a < 3; ++a) {
      bounds_.min[a] = std::min(bounds_.min[a], xyz[a]);
      bounds_.max[a] = std::max(bounds_.max[a], xyz[a]);
    }
}

void LineBuffer::Close() {
  if (contours_.empty() || geometries_.back().firstContour == contourCount()) return;
  const Contour& c = contours_.back();
  const double* first = &xyz_[3 * std::size_t(c.start)];
  const double* last = &xyz_[xyz_.size() - 3];
  if (first[0] == last[0] && first[1] == last[1] && first[2] == last[2]) return;
  LineTo(first[0], first[1], first[2]);
}

int LineBuffer::geometryContourCount(int g) const {
  const std::size_t next = std::size_t(g) + 1;
  const int end = next < geometries_.size() ? geometries_[next].firstContour : contourCount();
  return end - geometries_[std::size_t(g)].firstContour;
}

int LineBuffer::geometryElementType(int g) const {
  int t = type_;
  if (LinearGeometryType(t) == FdoGeometryType_MultiGeometry) t = geometries_[std::size_t(g)].elementType;
  t = SingleGeometryType(t);
  if (t == FdoGeometryType_Point || t == FdoGeometryType_LineString || t == FdoGeometryType_Polygon) return t;
  const int c0 = geometryFirstContour(g);
  for (int c = c0; c < c0 + geometryContourCount(g); ++c)
    if (contourSize(c) != 1) return FdoGeometryType_LineString;
  return geometryContourCount(g) > 0 ? FdoGeometryType_Point : FdoGeometryType_LineString;
}

// ---------------------------------------------------------------- point in polygon

bool LineBuffer::PointInPolygon(double px, double py) const {
  bool inside = false;
  for (const Contour& c : contours_) {
    if (c.count < 2) continue;
    const double* p = &xyz_[3 * std::size_t(c.start)];
    // Start with the closing edge (last -> first); a closed contour makes it
    // zero length, which never toggles.
    double x0 = p[3 * std::size_t(c.count - 1)], y0 = p[3 * std::size_t(c.count - 1) + 1];
    for (int i = 0; i < c.count; ++i) {
      const double x1 = p[3 * std::size_t(i)], y1 = p[3 * std::size_t(i) + 1];
      if ((y1 > py) != (y0 > py) && px < x1 + (x0 - x1) * (py - y1) / (y0 - y1)) inside = !inside;
      x0 = x1;
      y0 = y1;
    }
  }
  return inside;
}

// ---------------------------------------------------------------- clipping

namespace {

// Starts dst's output for one input geometry; an empty dst takes the type
// and labels of the source.
void BeginGeometry(const LineBuffer& src, LineBuffer* dst, int type) {
  if (dst->geometryCount() == 0) {
    dst->SetGeometryType(type);
    dst->SetDimensionality(src.dimensionality(), src.ignoreZ());
  }
  dst->NewGeometry();
}

struct P3 {
  double x, y, z;
};

P3 Lerp(const P3& a, const P3& b, double t) {
  return {a.x + (b.x - a.x) * t, a.y + (b.y - a.y) * t, a.z + (b.z - a.z) * t};
}

// One Sutherland-Hodgman pass: keeps the side where sign * (coord - limit) <= 0.
void ClipAgainst(const std::vector<P3>& in, std::vector<P3>& out, int axis, double limit, double sign) {
  out.clear();
  if (in.empty()) return;
  auto coord = [axis](const P3& p) { return axis == 0 ? p.x : p.y; };
  auto inside = [&](const P3& p) { return sign * (coord(p) - limit) <= 0; };
  P3 prev = in.back();
  bool prevIn = inside(prev);
  for (const P3& cur : in) {
    const bool curIn = inside(cur);
    if (curIn != prevIn) {
      const double t = (limit - coord(prev)) / (coord(cur) - coord(prev));
      P3 hit = Lerp(prev, cur, t);
      (axis == 0 ? hit.x : hit.y) = limit;  // exactly on the box edge
      out.push_back(hit);
    }
    if (curIn) out.push_back(cur);
    prev = cur;
    prevIn = curIn;
  }
}

bool BoxIsUsable(const BBox<2, double>& box) {
  return !(std::isnan(box.min[0]) || std::isnan(box.min[1]) || std::isnan(box.max[0]) ||
           std::isnan(box.max[1]) || box.min[0] > box.max[0] || box.min[1] > box.max[1]);
}

}  // namespace

void LineBuffer::ClipPolygon(const BBox<2, double>& box, LineBuffer* dst) const {
  assert(dst != nullptr && dst != this);
  if (!BoxIsUsable(box)) return;
  std::vector<P3> a, b;
  for (int g = 0; g < geometryCount(); ++g) {
    BeginGeometry(*this, dst, type_);
    const int c0 = geometryFirstContour(g);
    for (int c = c0; c < c0 + geometryContourCount(g); ++c) {
      a.clear();
      for (int i = contourStart(c); i <= contourEnd(c); ++i) a.push_back({x(i), y(i), z(i)});
      if (a.size() > 1 && a.front().x == a.back().x && a.front().y == a.back().y && a.front().z == a.back().z)
        a.pop_back();
      ClipAgainst(a, b, 0, box.min[0], -1.0);
      ClipAgainst(b, a, 0, box.max[0], 1.0);
      ClipAgainst(a, b, 1, box.min[1], -1.0);
      ClipAgainst(b, a, 1, box.max[1], 1.0);
      if (a.size() < 3) continue;
      dst->MoveTo(a[0].x, a[0].y, a[0].z);
      for (std::size_t i = 1; i < a.size(); ++i) dst->LineTo(a[i].x, a[i].y, a[i].z);
      dst->Close();
    }
  }
}

void LineBuffer::ClipPolyline(const BBox<2, double>& box, LineBuffer* dst) const {
  assert(dst != nullptr && dst != this);
  if (!BoxIsUsable(box)) return;
  const int lineType = LinearGeometryType(type_) == FdoGeometryType_MultiPolygon ||
                               LinearGeometryType(type_) == FdoGeometryType_MultiLineString
                           ? FdoGeometryType_MultiLineString
                           : FdoGeometryType_LineString;
  for (int g = 0; g < geometryCount(); ++g) {
    BeginGeometry(*this, dst, lineType);
    const int c0 = geometryFirstContour(g);
    for (int c = c0; c < c0 + geometryContourCount(g); ++c) {
      const int s = contourStart(c), e = contourEnd(c);
      if (s == e) {
        if (box.contains(Vec2d(x(s), y(s)))) dst->MoveTo(x(s), y(s), z(s));
        continue;
      }
      bool open = false;  // the last piece ended at the end of its segment
      for (int i = s; i < e; ++i) {
        const P3 p{x(i), y(i), z(i)}, q{x(i + 1), y(i + 1), z(i + 1)};
        // Liang-Barsky: shrink [t0, t1] against each of the four edges.
        double t0 = 0.0, t1 = 1.0;
        const double dx = q.x - p.x, dy = q.y - p.y;
        const double pk[4] = {-dx, dx, -dy, dy};
        const double qk[4] = {p.x - box.min[0], box.max[0] - p.x, p.y - box.min[1], box.max[1] - p.y};
        bool visible = true;
        for (int k = 0; k < 4 && visible; ++k) {
          if (pk[k] == 0.0) {
            visible = qk[k] >= 0.0;
          } else {
            const double r = qk[k] / pk[k];
            if (pk[k] < 0.0) t0 = std::max(t0, r);
            else t1 = std::min(t1, r);
            visible = t0 <= t1;
          }
        }
        if (!visible) {
          open = false;
          continue;
        }
        const P3 a = t0 == 0.0 ? p : Lerp(p, q, t0);
        const P3 b = t1 == 1.0 ? q : Lerp(p, q, t1);
        if (!(open && t0 == 0.0)) dst->MoveTo(a.x, a.y, a.z);
        dst->LineTo(b.x, b.y, b.z);
        open = t1 == 1.0;
      }
    }
  }
}

// ---------------------------------------------------------------- FGF

namespace {

constexpr int kArcSegment = 130;
constexpr int kLineStringSegment = 131;
constexpr int kMaxNesting = 32;

class FgfReader {
public:
  FgfReader(const std::uint8_t* p, std::size_t n) : p_(p), left_(n) {}

  std::size_t left() const { return left_; }
  bool fail(const char* what) {
    if (error_.empty()) error_ = what;
    return false;
  }
  const std::string& error() const { return error_; }

  bool Int(std::int32_t& v) {
    if (left_ < 4) return fail("truncated");
    v = std::int32_t(std::uint32_t(p_[0]) | std::uint32_t(p_[1]) << 8 | std::uint32_t(p_[2]) << 16 |
                     std::uint32_t(p_[3]) << 24);
    p_ += 4;
    left_ -= 4;
    return true;
  }
  bool Double(double& v) {
    if (left_ < 8) return fail("truncated");
    std::uint64_t u = 0;
    for (int i = 7; i >= 0; --i) u = u << 8 | p_[i];
    std::memcpy(&v, &u, 8);
    p_ += 8;
    left_ -= 8;
    return true;
  }
  // A count of items of at least `minBytes` each that the rest can hold.
  bool Count(std::int32_t& n, std::size_t minBytes) {
    if (!Int(n)) return false;
    if (n < 0) return fail("negative count");
    if (std::size_t(n) > left_ / minBytes) return fail("count exceeds the data");
    return true;
  }
  // Reads one position of `dim` into x, y, z (z = 0 without Z, m dropped).
  bool Position(int dim, P3& out) {
    double m = 0;
    out.z = 0;
    if (!Double(out.x) || !Double(out.y)) return false;
    if ((dim & 1) && !Double(out.z)) return false;
    if ((dim & 2) && !Double(m)) return false;
    if (!std::isfinite(out.x) || !std::isfinite(out.y) || !std::isfinite(out.z))
      return fail("non-finite coordinate");
    return true;
  }

private:
  const std::uint8_t* p_;
  std::size_t left_;
  std::string error_;
};

std::size_t PositionBytes(int dim) { return 8 * std::size_t(2 + (dim & 1) + ((dim >> 1) & 1)); }

// Circle through a, m, b from a to b via m, as line segments of at most 5
// degrees. Nearly straight arcs, and arcs whose circle does not fit in
// doubles, become two segments through m.
void FlattenArc(LineBuffer& out, const P3& a, const P3& m, const P3& b) {
  auto straight = [&] {
    out.LineTo(m.x, m.y, m.z);
    out.LineTo(b.x, b.y, b.z);
  };
  const double ax = a.x - m.x, ay = a.y - m.y, bx = b.x - m.x, by = b.y - m.y;
  const double d = 2.0 * (ax * by - ay * bx);
  const double scale = std::max({std::abs(ax), std::abs(ay), std::abs(bx), std::abs(by)});
  if (!(std::abs(d) > 1e-12 * scale * scale)) return straight();
  // Centre relative to m.
  const double a2 = ax * ax + ay * ay, b2 = bx * bx + by * by;
  const double cx = (by * a2 - ay * b2) / d, cy = (ax * b2 - bx * a2) / d;
  const double r = std::hypot(ax - cx, ay - cy);
  const double cxAbs = m.x + cx, cyAbs = m.y + cy;
  if (!std::isfinite(r) || !std::isfinite(cxAbs + r) || !std::isfinite(cyAbs + r) ||
      !std::isfinite(std::abs(cxAbs) + r) || !std::isfinite(std::abs(cyAbs) + r))
    return straight();
  const double angA = std::atan2(ay - cy, ax - cx);
  const double angM = std::atan2(-cy, -cx);
  const double angB = std::atan2(by - cy, bx - cx);
  // Counter-clockwise when a, m, b turn left.
  const bool ccw = ((m.x - a.x) * (b.y - a.y) - (m.y - a.y) * (b.x - a.x)) > 0;
  constexpr double kTwoPi = 2.0 * std::numbers::pi;
  auto sweepTo = [&](double to) {
    double s = to - angA;  // within (-2 pi, 2 pi)
    if (ccw && s < 0) s += kTwoPi;
    if (!ccw && s > 0) s -= kTwoPi;
    return s;
  };
  const double sweep = sweepTo(angB);
  const double sweepM = sweepTo(angM);
  const int steps = std::max(2, int(std::ceil(std::abs(sweep) / (std::numbers::pi / 36.0))));
  const double tm = sweep != 0 ? sweepM / sweep : 0.5;
  for (int k = 1; k < steps; ++k) {
    const double t = double(k) / steps;
    const double ang = angA + sweep * t;
    const double z = t <= tm ? a.z + (m.z - a.z) * (tm > 0 ? t / tm : 1.0)
                             : m.z + (b.z - m.z) * ((t - tm) / (1.0 - tm));
    out.LineTo(cxAbs + r * std::cos(ang), cyAbs + r * std::sin(ang), std::isfinite(z) ? z : m.z);
  }
  out.LineTo(b.x, b.y, b.z);
}

// Reads a run of points with an int32 count in front.
bool ReadPointRun(FgfReader& r, int dim, LineBuffer& out, bool startContour) {
  std::int32_t n = 0;
  if (!r.Count(n, PositionBytes(dim))) return false;
  out.Reserve(out.pointCount() + n);
  for (std::int32_t i = 0; i < n; ++i) {
    P3 p;
    if (!r.Position(dim, p)) return false;
    if (i == 0 && startContour) out.MoveTo(p.x, p.y, p.z);
    else out.LineTo(p.x, p.y, p.z);
  }
  return true;
}

// Start point, segment count, segments.
bool ReadCurveBody(FgfReader& r, int dim, LineBuffer& out) {
  P3 cur;
  if (!r.Position(dim, cur)) return false;
  out.MoveTo(cur.x, cur.y, cur.z);
  std::int32_t segments = 0;
  if (!r.Count(segments, 4)) return false;
  for (std::int32_t s = 0; s < segments; ++s) {
    std::int32_t kind = 0;
    if (!r.Int(kind)) return false;
    if (kind == kArcSegment) {
      P3 mid, end;
      if (!r.Position(dim, mid) || !r.Position(dim, end)) return false;
      FlattenArc(out, cur, mid, end);
      cur = end;
    } else if (kind == kLineStringSegment) {
      if (!ReadPointRun(r, dim, out, false)) return false;
      const int last = out.pointCount() - 1;
      cur = {out.x(last), out.y(last), out.z(last)};
    } else {
      return r.fail("unknown curve segment");
    }
  }
  return true;
}

bool IsMulti(int type) {
  return type == FdoGeometryType_MultiPoint || type == FdoGeometryType_MultiLineString ||
         type == FdoGeometryType_MultiPolygon || type == FdoGeometryType_MultiGeometry ||
         type == FdoGeometryType_MultiCurveString || type == FdoGeometryType_MultiCurvePolygon;
}

// The element a typed multi may hold; 0 for MultiGeometry (anything).
int MemberType(int multi) {
  switch (multi) {
    case FdoGeometryType_MultiPoint: return FdoGeometryType_Point;
    case FdoGeometryType_MultiLineString: return FdoGeometryType_LineString;
    case FdoGeometryType_MultiPolygon: return FdoGeometryType_Polygon;
    case FdoGeometryType_MultiCurveString: return FdoGeometryType_CurveString;
    case FdoGeometryType_MultiCurvePolygon: return FdoGeometryType_CurvePolygon;
    default: return 0;
  }
}

bool ReadGeometry(FgfReader& r, LineBuffer& out, int depth, int requiredType, int* topDim) {
  if (depth > kMaxNesting) return r.fail("nested too deeply");
  std::int32_t type = 0;
  if (!r.Int(type)) return false;
  if (requiredType != 0 && type != requiredType) return r.fail("member type does not match its collection");
  if (IsMulti(type)) {
    std::int32_t n = 0;
    if (!r.Count(n, 8)) return false;
    for (std::int32_t i = 0; i < n; ++i)
      if (!ReadGeometry(r, out, depth + 1, MemberType(type), nullptr)) return false;
    return true;
  }
  std::int32_t dim = 0;
  if (!r.Int(dim)) return false;
  if (dim < 0 || dim > 3) return r.fail("bad dimensionality");
  if (topDim) *topDim = dim;
  switch (type) {
    case FdoGeometryType_Point: {
      P3 p;
      if (!r.Position(dim, p)) return false;
      out.NewGeometry(FdoGeometryType_Point);
      out.MoveTo(p.x, p.y, p.z);
      return true;
    }
    case FdoGeometryType_LineString:
      out.NewGeometry(FdoGeometryType_LineString);
      return ReadPointRun(r, dim, out, true);
    case FdoGeometryType_Polygon: {
      std::int32_t rings = 0;
      if (!r.Count(rings, 4)) return false;
      out.NewGeometry(FdoGeometryType_Polygon);
      for (std::int32_t i = 0; i < rings; ++i)
        if (!ReadPointRun(r, dim, out, true)) return false;
      return true;
    }
    case FdoGeometryType_CurveString:
      out.NewGeometry(FdoGeometryType_LineString);
      return ReadCurveBody(r, dim, out);
    case FdoGeometryType_CurvePolygon: {
      std::int32_t rings = 0;
      if (!r.Count(rings, PositionBytes(dim) + 4)) return false;
      out.NewGeometry(FdoGeometryType_Polygon);
      for (std::int32_t i = 0; i < rings; ++i)
        if (!ReadCurveBody(r, dim, out)) return false;
      return true;
    }
    default:
      return r.fail("unknown geometry type");
  }
}

// Buffers little-endian output and hands it to the sink in blocks.
class FgfWriter {
public:
  explicit FgfWriter(byte_sink& sink) : sink_(sink) {}
  ~FgfWriter() { Flush(); }
  void Int(std::int32_t v) {
    Room(4);
    const auto u = std::uint32_t(v);
    for (int i = 0; i < 4; ++i) buf_[used_++] = std::uint8_t(u >> (8 * i));
  }
  void Double(double v) {
    Room(8);
    std::uint64_t u;
    std::memcpy(&u, &v, 8);
    for (int i = 0; i < 8; ++i) buf_[used_++] = std::uint8_t(u >> (8 * i));
  }
  void Flush() {
    if (used_) sink_.write(buf_, used_);
    used_ = 0;
  }

private:
  void Room(std::size_t n) {
    if (used_ + n > sizeof(buf_)) Flush();
  }
  byte_sink& sink_;
  std::uint8_t buf_[4096];
  std::size_t used_ = 0;
};

void WritePosition(FgfWriter& w, const LineBuffer& b, int i, bool z) {
  w.Double(b.x(i));
  w.Double(b.y(i));
  if (z) w.Double(b.z(i));
}

void WriteRun(FgfWriter& w, const LineBuffer& b, int contour, bool z) {
  w.Int(b.contourSize(contour));
  for (int i = b.contourStart(contour); i <= b.contourEnd(contour); ++i) WritePosition(w, b, i, z);
}

void WritePart(FgfWriter& w, const LineBuffer& b, const detail::GeometryPart& part, int dim) {
  const bool z = dim & 1;
  w.Int(part.type);
  w.Int(dim);
  if (part.type == FdoGeometryType_Point) {
    WritePosition(w, b, part.first, z);
  } else if (part.type == FdoGeometryType_LineString) {
    WriteRun(w, b, part.first, z);
  } else {
    w.Int(part.count);
    for (int c = part.first; c < part.first + part.count; ++c) WriteRun(w, b, c, z);
  }
}

}  // namespace

bool LineBuffer::LoadFromAgf(const void* data, std::size_t size) {
  Clear();
  type_ = FdoGeometryType_None;
  if (data == nullptr && size != 0) size = 0;
  FgfReader r(static_cast<const std::uint8_t*>(data), size);
  std::int32_t top = 0;
  {
    FgfReader peek = r;
    if (!peek.Int(top)) top = 0;
  }
  int topDim = -1;
  bool ok = ReadGeometry(r, *this, 0, 0, &topDim);
  if (ok && r.left() != 0) ok = r.fail("trailing bytes");
  if (!ok) {
    KEL_LOG_ERROR(L"LoadFromAgf: " + std::wstring(r.error().begin(), r.error().end()) + L" (" +
                  std::to_wstring(size) + L" bytes)");
    Clear();
    return false;
  }
  // A multi type without members has no member to take the dimensionality from.
  dim_ = topDim >= 0 ? FdoDimensionality(topDim & FdoDimensionality_XYZ) : FdoDimensionality_XY;
  ignoreZ_ = false;
  type_ = LinearGeometryType(top);
  return true;
}

void LineBuffer::ToAgf(byte_sink& out) const {
  const detail::GeometryLayout layout = detail::LayoutOf(*this);
  const int dim = hasZ() ? FdoDimensionality_XYZ : FdoDimensionality_XY;
  FgfWriter w(out);
  if (!IsMulti(layout.type)) {
    if (layout.parts.empty()) {
      w.Int(layout.type);
      w.Int(dim);
      w.Int(0);  // an empty line string or polygon
    } else {
      WritePart(w, *this, layout.parts[0], dim);
    }
    return;
  }
  w.Int(layout.type);
  w.Int(std::int32_t(layout.parts.size()));
  for (const detail::GeometryPart& part : layout.parts) WritePart(w, *this, part, dim);
}

}  // namespace kel
