// Reading feature data from the stores users keep it in: GeoPackage,
// Shapefile and GeoJSON files, OGR virtual-format files (the ODBC tables that
// OdbcConfiguration describes), PostGIS databases ("PG:..." connection
// strings) and ODBC data sources ("ODBC:..."). A FeatureSource lists the
// store's feature classes; Select streams the features of one class that
// match a filter, one at a time, so memory does not grow with the class.
//
// Failures (a store that does not open, an unknown class or property, a
// filter the store cannot run, a read error) are logged errors and a null
// or false result; nothing is thrown. A FeatureSource and each reader belong
// to one thread at a time; readers are independent of each other and of
// their source (each holds its own connection), so several may run at once.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kel/core/enumerate.h"
#include "kel/export.h"
#include "kel/features/fdo_filter.h"
#include "kel/features/feature_class.h"
#include "kel/geometry/geometry_buffer.h"
#include "kel/settings/property_bag.h"

namespace kel {

// One property value of one feature.
struct FeatureValue {
  bool isNull = true;
  std::int64_t integer = 0;         // Boolean (0 or 1), Int32, Int64
  double real = 0;                  // Double
  std::wstring text;                // String, Date, Time, DateTime (see FeaturePropertyType)
  std::vector<std::uint8_t> bytes;  // Binary
};

struct Feature {
  std::int64_t id = 0;
  // One value per property of the class, in the definition's order; the
  // identity and geometry entries stay null (see `id` and `geometry`).
  std::vector<FeatureValue> values;
  // The default geometry (FeatureClassDefinition::defaultGeometryProperty),
  // null when the feature has none. Curves arrive flattened; Z is kept, M
  // dropped. A reader draws the next feature into the same buffer unless the
  // caller still holds a copy of this pointer, so keeping a geometry costs
  // no copy and never sees it change.
  std::shared_ptr<GeometryBuffer> geometry;
};

class KEL_API FeatureReader {
public:
  virtual ~FeatureReader();
  // Moves to the next matching feature. False at the end, and on a read
  // error (logged), after which the reader stays at its end.
  virtual bool ReadNext() = 0;
  // The current feature, valid until the next ReadNext. Its buffers are
  // reused from feature to feature.
  virtual const Feature& feature() const = 0;
  virtual const FeatureClassDefinition& definition() const = 0;
  // The attributes as a bag: property name to the value as text, integers
  // in decimal, doubles in the shortest form that reads back the same (so
  // PropertyBag::GetValue returns them exactly), booleans "true"/"false",
  // binaries in hexadecimal. The identity, geometries and null values are
  // left out.
  PropertyBag attributes() const;
};

using FeatureReaderPtr = std::unique_ptr<FeatureReader>;

class KEL_API FeatureSource final {
public:
  // Opens the store read-only. `connection` is a file path, "PG:<libpq
  // connection string>" or "ODBC:<dsn>"; null when it cannot be opened.
  static std::shared_ptr<FeatureSource> Open(const std::wstring& connection);
  ~FeatureSource();
  FeatureSource(const FeatureSource&) = delete;
  FeatureSource& operator=(const FeatureSource&) = delete;

  const std::wstring& connection() const;
  // Every feature class (layer) of the store, in the store's order.
  std::vector<FeatureClassDefinition> GetClasses() const;
  // False when the store has no class of that name.
  bool DescribeClass(const std::wstring& className, FeatureClassDefinition& out) const;
  // How many features the class has, when the store knows without reading
  // them all (GeoPackage, PostGIS, Shapefile); -1 otherwise or for an
  // unknown class.
  std::int64_t GetFeatureCount(const std::wstring& className) const;
  // The features of the class that match `filter` (null: every feature), in
  // the store's order. Null for an unknown class, a filter that names
  // properties the class does not have, or a store that refuses the query.
  FeatureReaderPtr Select(const std::wstring& className, const FdoFilterPtr& filter) const;

private:
  struct Impl;
  explicit FeatureSource(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace kel
