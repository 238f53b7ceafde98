// FdoFilterParser: the visitor that turns a filter tree into what a feature
// store can run: an SQL WHERE text in the store's dialect (the attribute
// filter), a box on one geometry property (the store's spatial filter, an
// index pre-selection), and the rest of the filter, which the reader tests
// on every feature the store returns (the exact geometry test, and
// conditions the dialect cannot express).
//
// Names and strings are always quoted for the dialect, and names must be
// properties of the class, so no property name or value can change the
// query's structure. Pure string building: no store access, thread-safe on
// distinct instances. Failures are logged errors and a false result.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kel/core/types.h"
#include "kel/export.h"
#include "kel/features/fdo_filter.h"
#include "kel/features/feature_class.h"

namespace kel {

enum class FdoSqlDialect {
  OgrSql,      // GDAL's own SQL (Shapefile, GeoJSON and other file formats)
  Sqlite,      // GeoPackage and SQLite files
  PostgreSql,  // PostGIS
  // Stores behind ODBC or a virtual layer, where the text may reach an
  // unknown database or GDAL's SQL: only names and strings that read the
  // same in both are written, the rest is left to the per-feature test.
  Portable,
};

// What the parser needs to know about the class and the store.
struct FdoQueryTarget {
  FeatureClassDefinition definition;
  FdoSqlDialect dialect = FdoSqlDialect::OgrSql;
  // The identity as an SQL column; empty: GDAL's FID (OgrSql only).
  std::wstring identityColumn;
  // True when the store's spatial filter returns every feature whose box
  // meets the filter box (PostGIS); false when it tests the geometry itself
  // (GeoPackage, Shapefile), which would lose features for ENVELOPEINTERSECTS.
  bool spatialFilterTestsEnvelopesOnly = false;
  // The R-tree table of the default geometry (GeoPackage), "" when none.
  std::wstring spatialIndexTable;
  // PostgreSQL with standard_conforming_strings off reads '\' as an escape.
  bool backslashEscapes = false;
};

struct FdoQuery {
  std::string where;  // UTF-8; empty: no attribute filter
  bool hasSpatialFilter = false;
  std::wstring spatialFilterProperty;
  BBox<2, double> spatialFilterBox;
  // Test every returned feature against this; null when the store decides all.
  FdoFilterPtr residual;
};

class KEL_API FdoFilterParser final : public FdoFilterVisitor, public FdoExpressionVisitor {
public:
  explicit FdoFilterParser(FdoQueryTarget target);
  ~FdoFilterParser() override;

  // Splits the filter at its top-level ANDs: conditions the dialect can write
  // go to `where`; the smallest box that every match must meet becomes the
  // spatial filter; everything else (geometry tests, and conditions with
  // names or strings the dialect cannot carry) goes to `residual`, except a
  // box test the store's spatial filter answers exactly by itself (an
  // extent on points; ENVELOPEINTERSECTS a box where the store tests boxes,
  // INTERSECTS a box where it tests shapes). The spatial filter box is
  // exact: a store that rounds it must widen it (ODBC keeps its test). A null
  // filter gives an empty query. False, with a logged error, when a name is
  // not a property of the class or is used against its type.
  bool Parse(const FdoFilterPtr& filter, FdoQuery& out);

  // The whole filter as one SQL condition in the dialect. False (not logged)
  // when it holds a spatial condition or something the dialect cannot carry;
  // false with a logged error for unknown or misused properties.
  bool ToSql(const FdoFilter& filter, std::string& sql);

  // The walk behind ToSql; call through Parse or ToSql.
  void ProcessBinaryLogicalOperator(const FdoBinaryLogicalOperator& node) override;
  void ProcessUnaryLogicalOperator(const FdoUnaryLogicalOperator& node) override;
  void ProcessComparisonCondition(const FdoComparisonCondition& node) override;
  void ProcessInCondition(const FdoInCondition& node) override;
  void ProcessNullCondition(const FdoNullCondition& node) override;
  void ProcessSpatialCondition(const FdoSpatialCondition& node) override;
  void ProcessDistanceCondition(const FdoDistanceCondition& node) override;
  void ProcessIdentifier(const FdoIdentifier& node) override;
  void ProcessDataValue(const FdoDataValue& node) override;
  void ProcessGeometryValue(const FdoGeometryValue& node) override;
  void ProcessUnaryExpression(const FdoUnaryExpression& node) override;
  void ProcessBinaryExpression(const FdoBinaryExpression& node) override;

private:
  enum class Failure { None, Inexpressible, Invalid };

  void Attribute(const std::wstring& name);  // a property used as a value
  void Quote(const std::wstring& name);
  bool QuoteTo(const std::wstring& name, std::string& out) const;
  void String(const std::wstring& value);
  void Fail(Failure f);
  bool TwoValued() const;
  void Condition(const std::function<void()>& write);

  FdoQueryTarget target_;
  std::string sql_;
  Failure failure_ = Failure::None;
  bool positive_ = true;                // false under an odd number of NOTs (two-valued dialects)
  bool collect_ = false;                // gathering the columns of one condition
  std::vector<std::string> nullable_;  // their quoted names
};

}  // namespace kel
