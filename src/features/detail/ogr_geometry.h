// Geometries between GDAL and the library: OGR geometries drawn into a
// GeometryBuffer (one buffer geometry per part, rings as contours) and
// buffers turned back into OGR geometries for writing.
#pragma once

#include <memory>

#include <ogr_geometry.h>

#include "kel/geometry/geometry_buffer.h"

namespace kel::features_detail {

// Replaces `out`'s content. Curves are flattened by GDAL first, M is
// dropped; the buffer is XYZ when the geometry has Z. False (and an empty
// buffer) for a geometry kind with no buffer form.
bool ToGeometryBuffer(const OGRGeometry& in, GeometryBuffer& out);

// The buffer as an OGR geometry, contour for contour (a polygon's first
// contour is its exterior ring, as readers draw them; open rings are
// closed). One geometry of a single type stays single, several become the
// multi type. Null for an empty buffer.
std::unique_ptr<OGRGeometry> ToOgrGeometry(const LineBuffer& in);

}  // namespace kel::features_detail
