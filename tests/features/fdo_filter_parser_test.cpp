#include "kel/features/fdo_filter_parser.h"

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "kel/core/text.h"
#include "support/log_capture.h"

namespace kel {
namespace {

std::string Num(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  return buf;
}

FeaturePropertyDefinition Prop(const wchar_t* name, FeaturePropertyType type,
                               FeatureGeometryType geometry = FeatureGeometryType::Unknown) {
  FeaturePropertyDefinition p;
  p.name = name;
  p.type = type;
  p.geometryType = geometry;
  return p;
}

FeatureClassDefinition Buildings(const wchar_t* fid, const wchar_t* geom, FeatureGeometryType type) {
  FeatureClassDefinition d;
  d.name = L"b";
  d.identityProperty = fid;
  d.defaultGeometryProperty = geom;
  d.properties = {Prop(fid, FeaturePropertyType::Int64), Prop(L"name", FeaturePropertyType::String),
                  Prop(L"height", FeaturePropertyType::Double), Prop(L"flag", FeaturePropertyType::Boolean),
                  Prop(geom, FeaturePropertyType::Geometry, type)};
  return d;
}

enum class Store { GpkgPolygons, GpkgPoints, PostGis, PostGisOldStrings, Shapefile, Odbc };

FdoQueryTarget Target(Store store) {
  FdoQueryTarget t;
  switch (store) {
    case Store::GpkgPolygons:
    case Store::GpkgPoints:
      t.definition = Buildings(L"fid", L"geom",
                               store == Store::GpkgPoints ? FeatureGeometryType::Point : FeatureGeometryType::Polygon);
      t.dialect = FdoSqlDialect::Sqlite;
      t.identityColumn = L"fid";
      t.spatialIndexTable = L"rtree_b_geom";
      break;
    case Store::PostGis:
    case Store::PostGisOldStrings:
      t.definition = Buildings(L"fid", L"geom", FeatureGeometryType::Polygon);
      t.dialect = FdoSqlDialect::PostgreSql;
      t.identityColumn = L"fid";
      t.spatialFilterTestsEnvelopesOnly = true;
      t.backslashEscapes = store == Store::PostGisOldStrings;
      break;
    case Store::Shapefile:
      t.definition = Buildings(L"FID", L"Geometry", FeatureGeometryType::Polygon);
      t.dialect = FdoSqlDialect::OgrSql;
      break;
    case Store::Odbc:
      t.definition = Buildings(L"id", L"Geometry", FeatureGeometryType::Polygon);
      t.dialect = FdoSqlDialect::Portable;
      t.identityColumn = L"id";
      break;
  }
  return t;
}

const wchar_t* const kBox = L"GeomFromText('POLYGON ((0 -1.5, 2 -1.5, 2 3, 0 3, 0 -1.5))')";

// What each store is asked: the WHERE text, the box of the spatial filter
// ("" for none), and what is left for the per-feature test.
TEST(FdoFilterParser, SplitsFiltersBetweenStoreAndPerFeatureTest) {
  const std::wstring box = kBox;
  const struct {
    Store store;
    std::wstring filter;
    const char* where;
    const char* spatialBox;
    std::wstring residual;
  } cases[] = {
      {Store::GpkgPolygons, L"(fid >= 5) AND (fid <= 10)", "(\"fid\" >= 5) AND (\"fid\" <= 10)", "", L""},
      {Store::GpkgPolygons, L"fid IN ()", "0 = 1", "", L""},
      {Store::GpkgPolygons, L"height > -5 AND flag = TRUE", "(\"height\" > (-5)) AND (\"flag\" = 1)", "", L""},
      {Store::PostGis, L"flag = TRUE", "\"flag\" = TRUE", "", L""},
      // Box of the feature vs the box: GDAL's spatial filter tests shapes on
      // a GeoPackage, so its R-tree is asked; points and PostGIS are boxes.
      {Store::GpkgPolygons, L"geom ENVELOPEINTERSECTS " + box,
       "\"fid\" IN (SELECT id FROM \"rtree_b_geom\" WHERE minx <= 2.0 AND maxx >= 0.0 AND miny <= 3.0 AND "
       "maxy >= -1.5)",
       "", L"geom ENVELOPEINTERSECTS " + box},
      // ...and where that box test is the whole question, the store answers it.
      {Store::GpkgPoints, L"geom ENVELOPEINTERSECTS " + box, "", "0 -1.5 2 3", L""},
      {Store::PostGis, L"geom ENVELOPEINTERSECTS " + box, "", "0 -1.5 2 3", L""},
      {Store::GpkgPolygons, L"geom INTERSECTS " + box, "", "0 -1.5 2 3", L""},
      {Store::PostGis, L"geom INTERSECTS " + box, "", "0 -1.5 2 3", L"geom INTERSECTS " + box},
      {Store::Odbc, L"Geometry INTERSECTS " + box, "", "0 -1.5 2 3", L"Geometry INTERSECTS " + box},
      {Store::Shapefile, L"Geometry ENVELOPEINTERSECTS " + box, "", "", L"Geometry ENVELOPEINTERSECTS " + box},
      // Shape tests: every match meets the geometry's box.
      {Store::Shapefile, L"Geometry WITHIN GeomFromText('POLYGON ((0 0, 4 0, 0 3, 0 0))')", "", "0 0 4 3",
       L"Geometry WITHIN GeomFromText('POLYGON ((0 0, 4 0, 0 3, 0 0))')"},
      {Store::GpkgPolygons, L"geom WITHINDISTANCE GeomFromText('POINT (1 2)') 1.5", "", "-0.5 0.5 2.5 3.5",
       L"geom WITHINDISTANCE GeomFromText('POINT (1 2)') 1.5"},
      {Store::GpkgPolygons, L"geom BEYOND GeomFromText('POINT (1 2)') 1.5", "", "",
       L"geom BEYOND GeomFromText('POINT (1 2)') 1.5"},
      {Store::GpkgPolygons, L"geom DISJOINT GeomFromText('POINT (1 2)')", "", "",
       L"geom DISJOINT GeomFromText('POINT (1 2)')"},
      // Two shape tests: the smaller box is the spatial filter, both are tested.
      {Store::PostGis,
       L"geom INTERSECTS GeomFromText('POINT (1 2)') AND geom INTERSECTS GeomFromText('LINESTRING (0 0, 9 9)') AND "
       L"name = 'x'",
       "\"name\" = 'x'", "1 2 1 2",
       L"(geom INTERSECTS GeomFromText('POINT (1 2)')) AND (geom INTERSECTS GeomFromText('LINESTRING (0 0, 9 9)'))"},
      // Inside OR and NOT nothing bounds the matches.
      {Store::PostGis, L"geom INTERSECTS GeomFromText('POINT (1 2)') OR name = 'x'", "", "",
       L"(geom INTERSECTS GeomFromText('POINT (1 2)')) OR (name = 'x')"},
      {Store::PostGis, L"NOT geom INTERSECTS GeomFromText('POINT (1 2)')", "", "",
       L"NOT (geom INTERSECTS GeomFromText('POINT (1 2)'))"},
      // GDAL's SQL: FID by its own name, nulls checked, NOT as "definitely false".
      {Store::Shapefile, L"FID IN (1, 2) AND NOT height > 20",
       "((FID IN (1, 2))) AND (NOT (\"height\" > 20) AND \"height\" IS NOT NULL)", "", L""},
      {Store::Shapefile, L"NOT (height > 1 OR name NULL)",
       "(NOT (\"height\" > 1) AND \"height\" IS NOT NULL) AND (\"name\" IS NOT NULL)", "", L""},
      // Its reader takes \' for a quote, and cannot end a literal in a backslash.
      {Store::Shapefile, L"name = 'it''s'", "(\"name\" = 'it\\'s') AND \"name\" IS NOT NULL", "", L""},
      {Store::Shapefile, L"name = 'a\\\\'",
       "(\"name\" = CONCAT('a', SUBSTR('\\\\x', 1, 2))) AND \"name\" IS NOT NULL", "", L""},
      {Store::Shapefile, L"name = '\\'", "(\"name\" = SUBSTR('\\x', 1, 1)) AND \"name\" IS NOT NULL", "", L""},
      // Behind ODBC: backslashes and LIKE are left to GDAL, which reads them
      // one way whatever the database.
      {Store::Odbc, L"id < 3 AND name = 'a\\b' AND name LIKE 'M%'", "(\"id\" < 3)", "",
       L"(name = 'a\\b') AND (name LIKE 'M%')"},
      {Store::PostGisOldStrings, L"name = 'a\\b'", "\"name\" = 'a\\\\b'", "", L""},
      {Store::PostGis, L"name = 'a\\b'", "\"name\" = 'a\\b'", "", L""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(WString2Utf8String(c.filter));
    FdoFilterParser parser(Target(c.store));
    FdoQuery q;
    ASSERT_TRUE(parser.Parse(FdoFilterUtil::Parse(c.filter), q));
    EXPECT_EQ(q.where, c.where);
    std::string spatialBox;
    if (q.hasSpatialFilter) {
      const auto& b = q.spatialFilterBox;
      spatialBox = Num(b.min.x()) + " " + Num(b.min.y()) + " " + Num(b.max.x()) + " " +
                   Num(b.max.y());
      EXPECT_EQ(q.spatialFilterProperty, Target(c.store).definition.defaultGeometryProperty);
    }
    EXPECT_EQ(spatialBox, c.spatialBox);
    EXPECT_EQ(q.residual ? q.residual->ToText() : L"", c.residual);
  }
}

TEST(FdoFilterParser, RefusesUnknownAndMisusedProperties) {
  test::LogCapture log;
  const struct {
    Store store;
    const wchar_t* filter;
    const char* message;
  } cases[] = {
      {Store::GpkgPolygons, L"nope = 1", "Property 'nope' does not exist in class 'b'"},
      {Store::GpkgPolygons, L"nope IN ()", "Property 'nope' does not exist in class 'b'"},
      {Store::GpkgPolygons, L"geom NULL", "Property 'geom' is a geometry; test it with a spatial condition"},
      {Store::GpkgPolygons, L"height INTERSECTS GeomFromText('POINT (1 2)')",
       "Property 'height' is not a geometry of class 'b'"},
      {Store::PostGis, L"(nope = 1) OR (geom INTERSECTS GeomFromText('POINT (1 2)'))",
       "Property 'nope' does not exist in class 'b'"},
  };
  for (const auto& c : cases) {
    FdoFilterParser parser(Target(c.store));
    FdoQuery q;
    EXPECT_FALSE(parser.Parse(FdoFilterUtil::Parse(c.filter), q)) << c.message;
    EXPECT_TRUE(log.contains(c.message)) << c.message;
  }
  // Names match exactly, else in any letter case when that is unambiguous.
  FeatureClassDefinition d = Buildings(L"fid", L"geom", FeatureGeometryType::Polygon);
  EXPECT_EQ(d.find(L"HEIGHT"), 2);
  d.properties.push_back(Prop(L"Height", FeaturePropertyType::Double));
  EXPECT_EQ(d.find(L"HEIGHT"), -1);
  EXPECT_EQ(d.find(L"Height"), 5);
}

}  // namespace
}  // namespace kel
