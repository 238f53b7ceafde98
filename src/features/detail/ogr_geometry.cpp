#include "features/detail/ogr_geometry.h"

namespace kel::features_detail {

namespace {

void Curve(const OGRSimpleCurve& c, LineBuffer& out) {
  const int n = c.getNumPoints();
  for (int i = 0; i < n; ++i) {
    if (i == 0) out.MoveTo(c.getX(i), c.getY(i), c.getZ(i));
    else out.LineTo(c.getX(i), c.getY(i), c.getZ(i));
  }
}

// Draws one part as the buffer's next geometry; collections recurse, so
// nested ones end up flat. False for kinds a buffer cannot hold.
bool Part(const OGRGeometry& g, LineBuffer& out, bool collection) {
  switch (wkbFlatten(g.getGeometryType())) {
    case wkbPoint: {
      const OGRPoint& p = *g.toPoint();
      out.NewGeometry(collection ? FdoGeometryType_Point : FdoGeometryType_None);
      if (!p.IsEmpty()) out.MoveTo(p.getX(), p.getY(), p.getZ());
      return true;
    }
    case wkbLineString:
      out.NewGeometry(collection ? FdoGeometryType_LineString : FdoGeometryType_None);
      Curve(*g.toLineString(), out);
      return true;
    case wkbPolygon:
      out.NewGeometry(collection ? FdoGeometryType_Polygon : FdoGeometryType_None);
      for (const OGRLinearRing* ring : *g.toPolygon()) Curve(*ring, out);
      return true;
    case wkbMultiPoint:
    case wkbMultiLineString:
    case wkbMultiPolygon:
    case wkbGeometryCollection:
      for (const OGRGeometry* member : *g.toGeometryCollection())
        if (!Part(*member, out, collection)) return false;
      return true;
    default: return false;
  }
}

int BufferType(OGRwkbGeometryType t) {
  switch (wkbFlatten(t)) {
    case wkbPoint: return FdoGeometryType_Point;
    case wkbLineString: return FdoGeometryType_LineString;
    case wkbPolygon: return FdoGeometryType_Polygon;
    case wkbMultiPoint: return FdoGeometryType_MultiPoint;
    case wkbMultiLineString: return FdoGeometryType_MultiLineString;
    case wkbMultiPolygon: return FdoGeometryType_MultiPolygon;
    case wkbGeometryCollection: return FdoGeometryType_MultiGeometry;
    default: return FdoGeometryType_None;
  }
}

}  // namespace

bool ToGeometryBuffer(const OGRGeometry& in, GeometryBuffer& out) {
  std::unique_ptr<OGRGeometry> linear;
  const OGRGeometry* g = &in;
  if (OGR_GT_IsNonLinear(in.getGeometryType())) {
    linear.reset(in.getLinearGeometry());
    if (!linear) {
      out.Reset(FdoDimensionality_XY, false);
      return false;
    }
    g = linear.get();
  }
  out.Reset(g->Is3D() ? FdoDimensionality_XYZ : FdoDimensionality_XY, false);
  const int type = BufferType(g->getGeometryType());
  out.SetGeometryType(type);
  if (type == FdoGeometryType_None || !Part(*g, out, type == FdoGeometryType_MultiGeometry)) {
    out.Reset(FdoDimensionality_XY, false);
    return false;
  }
  return true;
}

namespace {

template <typename Curve>
std::unique_ptr<Curve> Contour(const LineBuffer& in, int c, bool z) {
  auto curve = std::make_unique<Curve>();
  const int first = in.contourStart(c), n = in.contourSize(c);
  curve->setNumPoints(n, FALSE);
  for (int i = 0; i < n; ++i) {
    if (z) curve->setPoint(i, in.x(first + i), in.y(first + i), in.z(first + i));
    else curve->setPoint(i, in.x(first + i), in.y(first + i));
  }
  return curve;
}

// Geometry g of the buffer as one OGR geometry of its element type.
std::unique_ptr<OGRGeometry> Element(const LineBuffer& in, int g, int type, bool z) {
  const int first = in.geometryFirstContour(g), n = in.geometryContourCount(g);
  switch (type) {
    case FdoGeometryType_Point: {
      std::unique_ptr<OGRGeometryCollection> points = std::make_unique<OGRMultiPoint>();
      for (int c = first; c < first + n; ++c)
        for (int i = in.contourStart(c); i <= in.contourEnd(c); ++i)
          points->addGeometryDirectly(z ? new OGRPoint(in.x(i), in.y(i), in.z(i)) : new OGRPoint(in.x(i), in.y(i)));
      if (points->getNumGeometries() == 1) return std::unique_ptr<OGRGeometry>(points->getGeometryRef(0)->clone());
      return points;
    }
    case FdoGeometryType_LineString: {
      if (n == 1) return Contour<OGRLineString>(in, first, z);
      auto lines = std::make_unique<OGRMultiLineString>();
      for (int c = first; c < first + n; ++c) lines->addGeometryDirectly(Contour<OGRLineString>(in, c, z).release());
      return lines;
    }
    case FdoGeometryType_Polygon: {
      auto polygon = std::make_unique<OGRPolygon>();
      for (int c = first; c < first + n; ++c) polygon->addRingDirectly(Contour<OGRLinearRing>(in, c, z).release());
      polygon->closeRings();
      return polygon;
    }
    default: return nullptr;
  }
}

}  // namespace

std::unique_ptr<OGRGeometry> ToOgrGeometry(const LineBuffer& in) {
  if (in.empty() || in.geometryCount() == 0) return nullptr;
  const bool z = in.hasZ();
  const int type = in.geometryType();
  const int count = in.geometryCount();
  const bool multi = type == FdoGeometryType_MultiPoint || type == FdoGeometryType_MultiLineString ||
                     type == FdoGeometryType_MultiPolygon || type == FdoGeometryType_MultiGeometry;
  if (!multi && count == 1) return Element(in, 0, in.geometryElementType(0), z);
  std::unique_ptr<OGRGeometryCollection> out;
  switch (type == FdoGeometryType_MultiGeometry ? FdoGeometryType_MultiGeometry
                                                 : SingleGeometryType(LinearGeometryType(type))) {
    case FdoGeometryType_Point: out = std::make_unique<OGRMultiPoint>(); break;
    case FdoGeometryType_LineString: out = std::make_unique<OGRMultiLineString>(); break;
    case FdoGeometryType_Polygon: out = std::make_unique<OGRMultiPolygon>(); break;
    default: out = std::make_unique<OGRGeometryCollection>(); break;
  }
  for (int g = 0; g < count; ++g) {
    std::unique_ptr<OGRGeometry> part = Element(in, g, in.geometryElementType(g), z);
    if (!part) continue;
    // Multi-points and multi-lines of one geometry spread into the whole.
    if (auto* nested = dynamic_cast<OGRGeometryCollection*>(part.get());
        nested && wkbFlatten(out->getGeometryType()) != wkbGeometryCollection) {
      for (int i = 0; i < nested->getNumGeometries(); ++i) out->addGeometry(nested->getGeometryRef(i));
      continue;
    }
    if (out->addGeometryDirectly(part.get()) == OGRERR_NONE) part.release();
  }
  return out;
}

}  // namespace kel::features_detail
