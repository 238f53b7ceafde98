// OdbcConfiguration: how tables behind an ODBC data source become feature
// classes. It writes two files and reads them back:
//  - the schema file, an OGR virtual-format (.vrt) file over "ODBC:<dsn>"
//    naming per class the table, the id column, and the X/Y(/Z) columns of a
//    point or the column holding WKT or WKB, plus the coordinate system;
//    FeatureSource::Open reads it like any other store;
//  - the data source's entry (its [dsn] section) in a unixODBC odbc.ini,
//    keeping every other section of the file as it was.
// Both are written whole or not at all (through AtomicFile). Names that
// unixODBC or GDAL would misread (a DSN with "[]{}(),;?*=!@/\", values with
// line breaks) are refused. Failures are logged errors and a false result.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kel/export.h"
#include "kel/features/feature_class.h"

namespace kel {

enum class OdbcGeometryEncoding {
  None,              // attributes only
  PointFromColumns,  // xColumn, yColumn and optionally zColumn
  Wkt,               // geometryColumn holds WKT text
  Wkb,               // geometryColumn holds WKB bytes
};

struct OdbcFeatureClass {
  std::wstring name;      // the feature class name
  std::wstring table;     // the table (or view) behind it
  std::wstring idColumn;  // integer identity; empty: GDAL numbers the rows
  OdbcGeometryEncoding geometry = OdbcGeometryEncoding::None;
  std::wstring xColumn, yColumn, zColumn;  // PointFromColumns; zColumn may be empty
  std::wstring geometryColumn;             // Wkt, Wkb
  FeatureGeometryType geometryType = FeatureGeometryType::Unknown;
  bool hasZ = false;              // for Wkt and Wkb; points have Z when zColumn is set
  std::wstring coordinateSystem;  // "EPSG:4326", WKT, or empty for none

  friend bool operator==(const OdbcFeatureClass&, const OdbcFeatureClass&) = default;
};

class KEL_API OdbcConfiguration final {
public:
  std::wstring dataSourceName;  // the DSN
  std::wstring driver;          // a driver named in odbcinst.ini, or the driver library's path
  std::wstring description;     // optional
  // Further keys of the DSN entry in order, e.g. {"Database", "/data/city.db"}.
  std::vector<std::pair<std::wstring, std::wstring>> attributes;
  std::vector<OdbcFeatureClass> classes;

  friend bool operator==(const OdbcConfiguration&, const OdbcConfiguration&) = default;

  // Writes the schema file for `classes` over this DSN.
  bool WriteSchema(const std::wstring& vrtPath) const;
  // Adds this DSN's entry to an odbc.ini (created when missing) or replaces
  // an entry of the same name (unixODBC compares names ignoring case).
  bool WriteDataSource(const std::wstring& odbcIniPath) const;
  // Both of the above.
  bool Write(const std::wstring& vrtPath, const std::wstring& odbcIniPath) const;

  // Reads a schema file written by WriteSchema (or by hand in its form):
  // fills dataSourceName and classes.
  static bool ReadSchema(const std::wstring& vrtPath, OdbcConfiguration& out);
  // Reads the entry `dataSourceName` of an odbc.ini: fills driver,
  // description and attributes.
  static bool ReadDataSource(const std::wstring& odbcIniPath, const std::wstring& dataSourceName,
                             OdbcConfiguration& out);
  // Both: the schema first, then the entry of its DSN.
  static bool Read(const std::wstring& vrtPath, const std::wstring& odbcIniPath, OdbcConfiguration& out);

  // The odbc.ini unixODBC reads for this user: $ODBCINI, else ~/.odbc.ini.
  static std::wstring UserOdbcIniPath();
};

}  // namespace kel
