// Polygons to and from GEOS, rings exactly as given (no reclassification
// of rings by nesting: a "hole" drawn outside its shell stays a hole, so
// GEOS's validity test sees the polygon as the input meant it).
#pragma once

#include <vector>

#include <geos_c.h>

#include "city/polygon.h"

namespace city {

// A new GEOS polygon (the caller destroys it), or null when GEOS refuses a
// ring (fewer than 3 points after closing).
GEOSGeometry* ToGeos(GEOSContextHandle_t ctx, const Polygon& polygon);
// Appends the polygons of g (members of collections included; lines and
// points skipped), rings without their closing point.
void FromGeos(GEOSContextHandle_t ctx, const GEOSGeometry* g, std::vector<Polygon>& out);

}  // namespace city
