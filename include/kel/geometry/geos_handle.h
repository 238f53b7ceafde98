// Handles for GEOS geometries that cross the library's API. GEOS itself stays
// out of this header: its two types are only declared here, so callers that
// never touch GEOS need neither its headers nor its library, and callers that
// do include <geos_c.h> themselves and use these pointers directly.
//
// Every context is reentrant (GEOS_init_r) and belongs to one thread at a
// time; the library never uses GEOS's global context. A geometry keeps the
// context it was made in alive through its deleter, so call GEOS on it with
// ptr.get_deleter().context.get().
#pragma once

#include <memory>

#include "kel/export.h"

struct GEOSContextHandle_HS;  // GEOSContextHandle_t points to this
struct GEOSGeom_t;            // GEOSGeometry

namespace kel {

using GeosContextPtr = std::shared_ptr<GEOSContextHandle_HS>;

// A fresh context. GEOS notices are dropped; its errors are kept so the
// library function that hit one can log it. Null only when GEOS cannot
// allocate a context.
KEL_API GeosContextPtr MakeGeosContext();

struct KEL_API GeosGeometryDeleter {
  GeosContextPtr context;
  void operator()(GEOSGeom_t* geometry) const noexcept;
};

// A GEOS geometry with the context that destroys it.
using GeosGeometryPtr = std::unique_ptr<GEOSGeom_t, GeosGeometryDeleter>;

}  // namespace kel
