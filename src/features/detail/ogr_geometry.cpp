#include "features/detail/ogr_geometry.h"

#define GEOS_USE_ONLY_R_API
#include <geos_c.h>

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

std::unique_ptr<OGRGeometry> ToOgrGeometry(const GeometryBuffer& in) {
  GeosContextPtr context = MakeGeosContext();
  if (!context) return nullptr;
  GeosGeometryPtr geos = in.toGeosGeometry(context);
  if (!geos) return nullptr;
  return std::unique_ptr<OGRGeometry>(OGRGeometryFactory::createFromGEOS(context.get(), geos.get()));
}

}  // namespace kel::features_detail
