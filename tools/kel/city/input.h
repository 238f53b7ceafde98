// Building footprints from any store kel::FeatureSource opens (GeoPackage,
// Shapefile, GeoJSON, PostGIS, ODBC), with their heights: a height
// attribute in metres, else a floor count. Problems with single features
// (no geometry, not a polygon, no height) are counted, never fatal; a store
// that cannot be read, an unknown class, a bad filter or a coordinate
// system nobody can name stop the read with InputError.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "city/model.h"

namespace city {

struct InputError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct InputOptions {
  std::string source;     // FeatureSource connection (file, "PG:...", "ODBC:...")
  std::string className;  // empty: the store's first polygon class
  std::string filter;     // filter text; empty: every feature
  std::string srs;        // overrides the store's coordinate system
  // Attribute names; empty: the first present of the usual names
  // ("height", "building:height", ...; "floors", "building:levels", ...).
  std::string heightAttribute, floorsAttribute;
};

struct InputReport {
  std::int64_t features = 0;    // read from the store
  std::int64_t noGeometry = 0;  // null or empty geometry
  std::int64_t notPolygon = 0;  // points or lines: skipped
  std::wstring className, heightAttribute, floorsAttribute;  // what was used; empty: none
};

struct LoadedInput {
  std::vector<SourceBuilding> buildings;
  std::shared_ptr<kel::SRSCoordSys> srs;
  InputReport report;
};

// `progress` counts features read (its total is unknown: 0).
LoadedInput ReadFootprints(const InputOptions& options, kel::Progress& progress);

// A number at the start of an attribute text ("12.5", "12.5 m"); NaN when
// there is none.
double LeadingNumber(const std::wstring& text);

}  // namespace city
