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

// The buffer as an OGR geometry (through GEOS, which sorts polygon rings into
// shells and holes); null when GEOS refuses it.
std::unique_ptr<OGRGeometry> ToOgrGeometry(const GeometryBuffer& in);

}  // namespace kel::features_detail
