// Private GEOS plumbing: a per-call reentrant context, conversions between
// LineBuffer and GEOS geometries, and the last error GEOS reported on this
// thread. Only the reentrant API is visible here (GEOS_USE_ONLY_R_API), so
// the global context cannot creep in.
#pragma once

#define GEOS_USE_ONLY_R_API
#include <geos_c.h>

#include <memory>
#include <string>

#include "kel/geometry/geometry_buffer.h"

namespace kel::detail {

// The message of the last GEOS error raised on this thread ("" when none
// since the last ClearGeosError).
const std::string& LastGeosError();
void ClearGeosError();

// A context with the library's message handlers installed.
GEOSContextHandle_t NewGeosContext();

// One context for the length of a call.
class GeosScope {
public:
  GeosScope() : h_(NewGeosContext()) {}
  ~GeosScope() {
    if (h_) GEOS_finish_r(h_);
  }
  GeosScope(const GeosScope&) = delete;
  GeosScope& operator=(const GeosScope&) = delete;
  GEOSContextHandle_t get() const { return h_; }

private:
  GEOSContextHandle_t h_;
};

// A geometry owned within a context that outlives it.
struct GeomFree {
  GEOSContextHandle_t h;
  void operator()(GEOSGeometry* g) const {
    if (g) GEOSGeom_destroy_r(h, g);
  }
};
using GeomPtr = std::unique_ptr<GEOSGeometry, GeomFree>;

inline GeomPtr Own(GEOSContextHandle_t h, GEOSGeometry* g) { return GeomPtr(g, GeomFree{h}); }

// The whole buffer as one geometry; a single type stays single unless ring
// nesting finds several shells. Null with `error` set when GEOS cannot hold
// it (a line of one point, a ring of fewer than three points, non-finite
// coordinates).
GeomPtr ToGeos(GEOSContextHandle_t h, const LineBuffer& b, std::string& error);
// Geometries [first, first + count) of the buffer as one geometry (single
// when it is one part, else multi or a collection).
GeomPtr ToGeos(GEOSContextHandle_t h, const LineBuffer& b, int first, int count, std::string& error);
// Replaces out's content with g: one geometry per member, collections
// flattened. False for geometry kinds or coordinates it cannot hold.
bool FromGeos(GEOSContextHandle_t h, const GEOSGeometry* g, LineBuffer& out);
// Appends every geometry of src to out (out takes src's type and
// dimensionality when it has no geometries yet).
void AppendGeometries(LineBuffer& out, const LineBuffer& src);

}  // namespace kel::detail
