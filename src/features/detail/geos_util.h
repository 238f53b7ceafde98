// GEOS plumbing for the features area: one reentrant context per owner,
// geometries in smart pointers with their context's deleter.
#pragma once

#define GEOS_USE_ONLY_R_API
#include <geos_c.h>

#include <memory>
#include <string>

namespace kel::features_detail {

// Owns a GEOS context; GEOS messages are dropped (callers log their own).
class GeosContext {
public:
  GeosContext() : handle_(GEOS_init_r()) {}
  ~GeosContext() { GEOS_finish_r(handle_); }
  GeosContext(const GeosContext&) = delete;
  GeosContext& operator=(const GeosContext&) = delete;
  GEOSContextHandle_t get() const { return handle_; }

private:
  GEOSContextHandle_t handle_;
};

struct GeosGeometryDeleter {
  GEOSContextHandle_t ctx;
  void operator()(GEOSGeometry* g) const { GEOSGeom_destroy_r(ctx, g); }
};
using GeosGeometryPtr = std::unique_ptr<GEOSGeometry, GeosGeometryDeleter>;

struct GeosPreparedDeleter {
  GEOSContextHandle_t ctx;
  void operator()(const GEOSPreparedGeometry* g) const { GEOSPreparedGeom_destroy_r(ctx, g); }
};
using GeosPreparedPtr = std::unique_ptr<const GEOSPreparedGeometry, GeosPreparedDeleter>;

// Deepest bracket nesting a WKT may have before GEOS sees it: GEOS's reader
// recurses once per level.
constexpr int kMaxWktDepth = 32;

// Parses WKT (UTF-8). Null when it does not parse or nests too deep.
GeosGeometryPtr ReadWkt(GEOSContextHandle_t ctx, const std::string& wkt);

}  // namespace kel::features_detail
