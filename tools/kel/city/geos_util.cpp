#include "city/geos_util.h"

namespace city {
namespace {

GEOSGeometry* RingToGeos(GEOSContextHandle_t ctx, const Ring& ring) {
  if (ring.size() < 3) return nullptr;
  GEOSCoordSequence* seq = GEOSCoordSeq_create_r(ctx, static_cast<unsigned>(ring.size() + 1), 2);
  if (!seq) return nullptr;
  for (std::size_t i = 0; i <= ring.size(); ++i) {
    const Vec2d& p = ring[i % ring.size()];
    GEOSCoordSeq_setXY_r(ctx, seq, static_cast<unsigned>(i), p.x(), p.y());
  }
  return GEOSGeom_createLinearRing_r(ctx, seq);  // takes the sequence, also on failure
}

Ring RingFromGeos(GEOSContextHandle_t ctx, const GEOSGeometry* ring) {
  Ring out;
  const GEOSCoordSequence* seq = GEOSGeom_getCoordSeq_r(ctx, ring);
  unsigned n = 0;
  if (!seq || !GEOSCoordSeq_getSize_r(ctx, seq, &n)) return out;
  for (unsigned i = 0; i < n; ++i) {
    double x = 0, y = 0;
    GEOSCoordSeq_getXY_r(ctx, seq, i, &x, &y);
    out.emplace_back(x, y);
  }
  DropRepeats(out);
  return out;
}

}  // namespace

GEOSGeometry* ToGeos(GEOSContextHandle_t ctx, const Polygon& polygon) {
  if (polygon.rings.empty()) return nullptr;
  std::vector<GEOSGeometry*> rings;
  for (const Ring& r : polygon.rings) {
    GEOSGeometry* g = RingToGeos(ctx, r);
    if (!g) {
      for (GEOSGeometry* done : rings) GEOSGeom_destroy_r(ctx, done);
      return nullptr;
    }
    rings.push_back(g);
  }
  // Takes the rings, also on failure.
  return GEOSGeom_createPolygon_r(ctx, rings[0], rings.data() + 1, static_cast<unsigned>(rings.size() - 1));
}

void FromGeos(GEOSContextHandle_t ctx, const GEOSGeometry* g, std::vector<Polygon>& out) {
  if (!g) return;
  switch (GEOSGeomTypeId_r(ctx, g)) {
    case GEOS_POLYGON: {
      if (GEOSisEmpty_r(ctx, g)) return;
      Polygon p;
      p.rings.push_back(RingFromGeos(ctx, GEOSGetExteriorRing_r(ctx, g)));
      if (p.rings[0].size() < 3) return;
      const int holes = GEOSGetNumInteriorRings_r(ctx, g);
      for (int i = 0; i < holes; ++i) {
        Ring r = RingFromGeos(ctx, GEOSGetInteriorRingN_r(ctx, g, i));
        if (r.size() >= 3) p.rings.push_back(std::move(r));
      }
      out.push_back(std::move(p));
      return;
    }
    case GEOS_MULTIPOLYGON:
    case GEOS_GEOMETRYCOLLECTION: {
      const int n = GEOSGetNumGeometries_r(ctx, g);
      for (int i = 0; i < n; ++i) FromGeos(ctx, GEOSGetGeometryN_r(ctx, g, i), out);
      return;
    }
    default: return;
  }
}

}  // namespace city
