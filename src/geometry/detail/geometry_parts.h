// How a LineBuffer reads as simple features: the list of its Point, LineString
// and Polygon parts and the type that holds them. Shared by the FGF writer and
// the GEOS conversion so both see the same structure.
#pragma once

#include <vector>

#include "kel/geometry/line_buffer.h"

namespace kel::detail {

struct GeometryPart {
  int type;          // FdoGeometryType_Point, _LineString or _Polygon
  int geometry;      // geometry of the buffer it comes from
  int first;         // Point: the point index; otherwise the first contour
  int count;         // Point: 1; otherwise the number of contours
};

struct GeometryLayout {
  std::vector<GeometryPart> parts;
  // The type to write: a single type when there is exactly one part and the
  // buffer is not labelled multi, else the multi type of the parts, or
  // MultiGeometry when they are mixed or the buffer says so.
  int type = FdoGeometryType_None;
};

inline GeometryLayout LayoutOf(const LineBuffer& b) {
  GeometryLayout out;
  bool mixed = false;
  int partType = FdoGeometryType_None;
  for (int g = 0; g < b.geometryCount(); ++g) {
    const int t = b.geometryElementType(g);
    const int c0 = b.geometryFirstContour(g);
    const int nc = b.geometryContourCount(g);
    if (t == FdoGeometryType_Point) {
      for (int c = c0; c < c0 + nc; ++c)
        for (int i = b.contourStart(c); i <= b.contourEnd(c); ++i)
          out.parts.push_back({t, g, i, 1});
    } else if (t == FdoGeometryType_LineString) {
      for (int c = c0; c < c0 + nc; ++c) out.parts.push_back({t, g, c, 1});
    } else {
      out.parts.push_back({t, g, c0, nc});
    }
    if (partType != FdoGeometryType_None && partType != t) mixed = true;
    partType = t;
  }
  const int label = LinearGeometryType(b.geometryType());
  if (mixed || label == FdoGeometryType_MultiGeometry) {
    out.type = FdoGeometryType_MultiGeometry;
    return out;
  }
  if (partType == FdoGeometryType_None)  // no geometries at all
    partType = label == FdoGeometryType_None ? FdoGeometryType_LineString : SingleGeometryType(label);
  const bool labelledMulti = label == MultiGeometryType(SingleGeometryType(label)) &&
                             label != FdoGeometryType_None;
  if (out.parts.size() == 1 && !labelledMulti)
    out.type = partType;
  else if (out.parts.empty() && !labelledMulti && partType != FdoGeometryType_Point)
    out.type = partType;  // an empty line string or polygon
  else
    out.type = MultiGeometryType(partType);
  return out;
}

}  // namespace kel::detail
