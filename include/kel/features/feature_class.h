// What a feature class looks like: its name, identity property, attribute
// and geometry properties, as FeatureSource lists them. Plain values, copied
// freely; nothing here touches a store.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kel/export.h"

namespace kel {

enum class FeaturePropertyType {
  Boolean,
  Int32,
  Int64,
  Double,
  String,
  Date,      // text "YYYY-MM-DD"
  Time,      // text "HH:MM:SS[.sss]"
  DateTime,  // ISO 8601 text, "YYYY-MM-DDTHH:MM:SS[.sss][Z|+HH:MM]"
  Binary,
  Geometry,
};

// The usual feature-geometry codes (Unknown: any kind may appear).
enum class FeatureGeometryType : int {
  Unknown = 0,
  Point = 1,
  LineString = 2,
  Polygon = 3,
  MultiPoint = 4,
  MultiLineString = 5,
  MultiPolygon = 6,
  MultiGeometry = 7,
};

struct FeaturePropertyDefinition {
  std::wstring name;
  FeaturePropertyType type = FeaturePropertyType::String;
  bool nullable = true;
  int length = 0;  // declared width of strings and binaries, 0 when unbounded or unknown
  // Geometry properties only:
  FeatureGeometryType geometryType = FeatureGeometryType::Unknown;
  bool hasZ = false;
  std::wstring coordinateSystem;  // WKT, empty when the store names none
};

struct FeatureClassDefinition {
  std::wstring name;
  // The identity property: the store's id column, or "FID" for stores whose
  // ids are record numbers (Shapefile, GeoJSON). It is also properties[0].
  std::wstring identityProperty;
  // The geometry FeatureSource reads into Feature::geometry; empty when the
  // class has no geometry.
  std::wstring defaultGeometryProperty;
  // Identity first, then attributes and geometries in store order.
  std::vector<FeaturePropertyDefinition> properties;

  // Index in `properties` of a name: the exact name first, otherwise the one
  // property whose name differs only in ASCII letter case. -1 when absent or
  // ambiguous.
  KEL_API int find(const std::wstring& name) const;
};

}  // namespace kel
