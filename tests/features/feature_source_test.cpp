#include "kel/features/feature_source.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#define GEOS_USE_ONLY_R_API
#include <geos_c.h>

#include "features/feature_store.h"
#include "kel/core/text.h"
#include "support/log_capture.h"

namespace kel {
namespace {

using test::Building;

// One building set in every file store, written by GDAL and by ogr2ogr.
struct FileStores : ::testing::Test {
  struct Store {
    const char* label;
    std::string connection;
    std::string fid, geom;        // our property names
    std::string sqlFid, sqlGeom;  // the same in the store's SQL
  };

  static void SetUpTestSuite() {
    dir = new test::fs::path(test::TempDir("files"));
    buildings = new std::vector<Building>(test::MakeBuildings(7, 400));
    const test::fs::path& d = *dir;
    ASSERT_TRUE(test::WriteGeoPackage(d / "ours.gpkg", "buildings", *buildings));
    test::WriteGeoJson(d / "buildings.geojson", *buildings);
    ASSERT_TRUE(test::Ogr2Ogr({"-f", "GPKG", "-nln", "buildings", (d / "ogr.gpkg").string(),
                               (d / "buildings.geojson").string()}));
    test::fs::create_directories(d / "shp");
    ASSERT_TRUE(test::Ogr2Ogr({"-f", "ESRI Shapefile", "-lco", "ENCODING=UTF-8", (d / "shp/buildings.shp").string(),
                               (d / "buildings.geojson").string()}));
  }
  static void TearDownTestSuite() {
    test::fs::remove_all(*dir);
    delete dir;
    delete buildings;
  }

  static std::vector<Store> Stores() {
    const test::fs::path& d = *dir;
    return {
        {"GeoPackage by GDAL", (d / "ours.gpkg").string(), "fid", "geom", "fid", "geom"},
        {"GeoPackage by ogr2ogr", (d / "ogr.gpkg").string(), "fid", "geom", "fid", "geom"},
        {"Shapefile by ogr2ogr", (d / "shp/buildings.shp").string(), "FID", "Geometry", "rowid", "GEOMETRY"},
        {"GeoJSON", (d / "buildings.geojson").string(), "FID", "Geometry", "rowid", "GEOMETRY"},
    };
  }

  static test::fs::path* dir;
  static std::vector<Building>* buildings;
};
test::fs::path* FileStores::dir = nullptr;
std::vector<Building>* FileStores::buildings = nullptr;

TEST_F(FileStores, ListClassesWithPropertiesAndGeometryType) {
  for (const Store& store : Stores()) {
    SCOPED_TRACE(store.label);
    auto source = FeatureSource::Open(Utf8String2WString(store.connection));
    ASSERT_NE(source, nullptr);
    const auto classes = source->GetClasses();
    ASSERT_EQ(classes.size(), 1u);
    const FeatureClassDefinition& c = classes[0];
    EXPECT_EQ(c.name, L"buildings");
    EXPECT_EQ(c.identityProperty, Utf8String2WString(store.fid));
    EXPECT_EQ(c.defaultGeometryProperty, Utf8String2WString(store.geom));
    std::vector<std::wstring> names;
    for (const auto& p : c.properties) names.push_back(p.name);
    EXPECT_EQ(names, (std::vector<std::wstring>{Utf8String2WString(store.fid), L"name", L"height", L"floors", L"kind",
                                                Utf8String2WString(store.geom)}));
    EXPECT_EQ(c.properties[0].type, FeaturePropertyType::Int64);
    EXPECT_EQ(c.properties[1].type, FeaturePropertyType::String);
    EXPECT_EQ(c.properties[2].type, FeaturePropertyType::Double);
    EXPECT_TRUE(c.properties[3].type == FeaturePropertyType::Int32 ||
                c.properties[3].type == FeaturePropertyType::Int64);
    EXPECT_EQ(c.properties[5].type, FeaturePropertyType::Geometry);
    EXPECT_EQ(c.properties[5].geometryType, FeatureGeometryType::Polygon);
    FeatureClassDefinition described;
    EXPECT_TRUE(source->DescribeClass(L"buildings", described));
    EXPECT_FALSE(source->DescribeClass(L"nope", described));
  }
}

TEST_F(FileStores, ReadEveryFeatureWithItsAttributes) {
  for (const Store& store : Stores()) {
    SCOPED_TRACE(store.label);
    auto source = FeatureSource::Open(Utf8String2WString(store.connection));
    ASSERT_NE(source, nullptr);
    auto reader = source->Select(L"buildings", nullptr);
    ASSERT_NE(reader, nullptr);
    // Shapefiles number records from 0; the others keep the ids.
    const std::int64_t shift = store.fid == "FID" && store.connection.find(".shp") != std::string::npos ? 1 : 0;
    std::size_t n = 0;
    while (reader->ReadNext()) {
      const Building& b = (*buildings)[static_cast<std::size_t>(reader->feature().id + shift - 1)];
      EXPECT_EQ(test::Attribute(*reader, "name"), b.name.value_or("<null>")) << b.id;
      // Doubles come back exactly: the bag holds their shortest exact text.
      double height = -1;
      EXPECT_EQ(reader->attributes().GetValue(L"height", height), b.height.has_value()) << b.id;
      if (b.height) {
        EXPECT_EQ(height, *b.height) << b.id;
      }
      EXPECT_EQ(reader->feature().values[3].integer, b.floors);
      ++n;
    }
    EXPECT_EQ(n, buildings->size());
  }
}

// Every kind of geometry, read by us and by GDAL from the same file, must be
// the same shape (GEOS's exact equality after normalising both).
TEST_F(FileStores, GeometriesOfEveryKindMatchGdalsOwnReading) {
  const char* const wkts[] = {
      "POINT (1 2)",
      "POINT Z (1 2 3)",
      "MULTIPOINT ((0 0), (5 5))",
      "LINESTRING Z (0 0 1, 10 0 2, 10 10 3)",
      "MULTILINESTRING ((0 0, 1 1), (2 2, 3 3, 4 2))",
      "POLYGON ((0 0, 10 0, 10 10, 0 10, 0 0), (2 2, 2 4, 4 4, 4 2, 2 2))",
      "MULTIPOLYGON (((0 0, 1 0, 1 1, 0 0)), ((5 5, 6 5, 6 6, 5 5)))",
      "GEOMETRYCOLLECTION (POINT (1 1), LINESTRING (0 0, 2 2), POLYGON ((3 3, 4 3, 4 4, 3 3)))",
      "CURVEPOLYGON (CIRCULARSTRING (0 0, 4 4, 8 0, 4 -4, 0 0))",
      "COMPOUNDCURVE ((0 0, 1 1), CIRCULARSTRING (1 1, 2 2, 3 1))",
  };
  const std::string path = (*dir / "shapes.gpkg").string();
  {
    GDALDataset* ds = GetGDALDriverManager()->GetDriverByName("GPKG")->Create(path.c_str(), 0, 0, 0, GDT_Unknown,
                                                                              nullptr);
    ASSERT_NE(ds, nullptr);
    OGRLayer* layer = ds->CreateLayer("shapes", nullptr, wkbUnknown, nullptr);
    ASSERT_NE(layer, nullptr);
    for (const char* wkt : wkts) {
      OGRFeature* f = OGRFeature::CreateFeature(layer->GetLayerDefn());
      OGRGeometry* g = nullptr;
      ASSERT_EQ(OGRGeometryFactory::createFromWkt(wkt, nullptr, &g), OGRERR_NONE) << wkt;
      f->SetGeometryDirectly(g);
      ASSERT_EQ(layer->CreateFeature(f), OGRERR_NONE);
      OGRFeature::DestroyFeature(f);
    }
    GDALClose(ds);
  }
  auto source = FeatureSource::Open(Utf8String2WString(path));
  ASSERT_NE(source, nullptr);
  auto reader = source->Select(L"shapes", nullptr);
  ASSERT_NE(reader, nullptr);
  GeosContextPtr ctx = MakeGeosContext();
  for (const char* wkt : wkts) {
    SCOPED_TRACE(wkt);
    ASSERT_TRUE(reader->ReadNext());
    ASSERT_NE(reader->feature().geometry, nullptr);
    OGRGeometry* expected = nullptr;
    OGRGeometryFactory::createFromWkt(wkt, nullptr, &expected);
    std::unique_ptr<OGRGeometry> linear(expected->getLinearGeometry());
    OGRGeometryFactory::destroyGeometry(expected);
    GeosGeometryPtr ours = reader->feature().geometry->toGeosGeometry(ctx);
    GeosGeometryPtr theirs(linear->exportToGEOS(ctx.get()), GeosGeometryDeleter{ctx});
    ASSERT_TRUE(ours && theirs);
    GEOSNormalize_r(ctx.get(), ours.get());
    GEOSNormalize_r(ctx.get(), theirs.get());
    EXPECT_EQ(GEOSEqualsExact_r(ctx.get(), ours.get(), theirs.get(), 0.0), 1)
        << WString2Utf8String(reader->feature().geometry->ToWKT());
    EXPECT_EQ(reader->feature().geometry->Is3D(), linear->Is3D());
  }
  EXPECT_FALSE(reader->ReadNext());
}

TEST_F(FileStores, FiltersSelectWhatTheStoresOwnSqlSelects) {
  for (const Store& store : Stores()) {
    auto source = FeatureSource::Open(Utf8String2WString(store.connection));
    ASSERT_NE(source, nullptr);
    for (const test::FilterCase& c : test::FilterCases(*buildings)) {
      SCOPED_TRACE(std::string(store.label) + ": " + c.label);
      const std::string text = test::Substitute(c.filter, store.fid, store.geom);
      auto filter = FdoFilterUtil::Parse(Utf8String2WString(text));
      ASSERT_NE(filter, nullptr) << text;
      auto reader = source->Select(L"buildings", filter);
      ASSERT_NE(reader, nullptr) << text;
      const auto expected = test::SqlIds(
          store.connection,
          "SELECT " + store.sqlFid + " FROM buildings WHERE " + test::Substitute(c.sql, store.sqlFid, store.sqlGeom),
          "SQLITE");
      EXPECT_FALSE(expected.empty() && std::string(c.label) != "hostile value") << "the case selects nothing";
      EXPECT_EQ(test::ReadIds(*reader), expected) << text;
    }
  }
}

TEST_F(FileStores, HostileValuesMatchOnlyThemselves) {
  for (const Store& store : Stores()) {
    auto source = FeatureSource::Open(Utf8String2WString(store.connection));
    ASSERT_NE(source, nullptr);
    for (const std::string& value : test::HostileStrings()) {
      SCOPED_TRACE(std::string(store.label) + ": " + value);
      auto reader = source->Select(L"buildings", FdoComparisonCondition::Create(
                                                     FdoIdentifier::Create(L"name"), FdoComparisonOperation::EqualTo,
                                                     FdoDataValue::Create(Utf8String2WString(value))));
      ASSERT_NE(reader, nullptr);
      std::size_t expected = 0, got = 0;
      for (const Building& b : *buildings) expected += b.name == value;
      while (reader->ReadNext()) {
        EXPECT_EQ(test::Attribute(*reader, "name"), value);
        ++got;
      }
      EXPECT_EQ(got, expected);
    }
  }
}

TEST_F(FileStores, HostileColumnNamesCannotChangeTheQuery) {
  GDALAllRegister();
  for (const char* driver : {"GPKG", "GeoJSON"}) {
    SCOPED_TRACE(driver);
    const test::fs::path path = *dir / (std::string("hostile.") + (driver[1] == 'P' ? "gpkg" : "geojson"));
    GDALDataset* ds = GetGDALDriverManager()->GetDriverByName(driver)->Create(path.c_str(), 0, 0, 0, GDT_Unknown,
                                                                              nullptr);
    ASSERT_NE(ds, nullptr);
    const bool written = test::WriteHostileLayer(*ds, "hostile", 24);
    GDALClose(ds);
    ASSERT_TRUE(written);
    auto source = FeatureSource::Open(Utf8String2WString(path.string()));
    ASSERT_NE(source, nullptr);
    const auto& names = test::HostileNames();
    const auto& values = test::HostileStrings();
    for (std::size_t c = 0; c < names.size(); ++c) {
      for (std::size_t v = 0; v < values.size(); ++v) {
        SCOPED_TRACE(names[c] + " = " + values[v]);
        test::LogCapture log;
        auto reader = source->Select(
            L"hostile", FdoComparisonCondition::Create(FdoIdentifier::Create(Utf8String2WString(names[c])),
                                                       FdoComparisonOperation::EqualTo,
                                                       FdoDataValue::Create(Utf8String2WString(values[v]))));
        if (names[c].back() == '\\' && std::string(driver) == "GeoJSON") {
          // GDAL's SQL has no spelling for a name ending in a backslash.
          EXPECT_EQ(reader, nullptr);
          EXPECT_TRUE(log.contains("cannot be written safely for this store"));
          continue;
        }
        ASSERT_NE(reader, nullptr);
        std::size_t got = 0, expected = 0;
        while (reader->ReadNext()) {
          EXPECT_EQ(test::Attribute(*reader, names[c]), values[v]);
          ++got;
        }
        for (int r = 0; r < 24; ++r) expected += (static_cast<std::size_t>(r) + c) % values.size() == v;
        EXPECT_EQ(got, expected);
      }
    }
  }
}

TEST_F(FileStores, LongChainsOfOneOperatorReachTheStore) {
  // As tall a tree as the reader takes; SQLite would refuse it as nested SQL.
  for (const Store& store : Stores()) {
    SCOPED_TRACE(store.label);
    std::string text = store.fid + " = 1";
    for (int k = 2; k <= FdoFilterUtil::MaxDepth; ++k) text += " OR " + store.fid + " = " + std::to_string(k);
    auto source = FeatureSource::Open(Utf8String2WString(store.connection));
    ASSERT_NE(source, nullptr);
    auto reader = source->Select(L"buildings", FdoFilterUtil::Parse(Utf8String2WString(text)));
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(test::ReadIds(*reader),
              test::SqlIds(store.connection,
                           "SELECT " + store.sqlFid + " FROM buildings WHERE " + store.sqlFid + " BETWEEN 1 AND " +
                               std::to_string(FdoFilterUtil::MaxDepth),
                           "SQLITE"));
  }
}

TEST_F(FileStores, LikeTellsLetterCaseApart) {
  for (const Store& store : Stores()) {
    SCOPED_TRACE(store.label);
    auto source = FeatureSource::Open(Utf8String2WString(store.connection));
    ASSERT_NE(source, nullptr);
    auto lower = source->Select(L"buildings", FdoFilterUtil::Parse(L"name LIKE 'ma%'"));
    auto upper = source->Select(L"buildings", FdoFilterUtil::Parse(L"name LIKE 'Ma%'"));
    ASSERT_TRUE(lower && upper);
    EXPECT_TRUE(test::ReadIds(*lower).empty());
    EXPECT_FALSE(test::ReadIds(*upper).empty());
  }
}

TEST_F(FileStores, BadRequestsLogAndReturnNothing) {
  test::LogCapture log;
  const Store store = Stores()[0];
  auto source = FeatureSource::Open(Utf8String2WString(store.connection));
  ASSERT_NE(source, nullptr);
  EXPECT_EQ(source->Select(L"nope", nullptr), nullptr);
  EXPECT_TRUE(log.contains("Feature class 'nope' does not exist in"));
  const struct {
    const wchar_t* filter;
    const char* message;
  } cases[] = {
      {L"missing = 1", "Property 'missing' does not exist in class 'buildings'"},
      {L"geom = 1", "Property 'geom' is a geometry; test it with a spatial condition"},
      {L"name INTERSECTS GeomFromText('POINT (1 1)')", "Property 'name' is not a geometry of class 'buildings'"},
      {L"(missing = 1) OR (geom INTERSECTS GeomFromText('POINT (1 1)'))",
       "Property 'missing' does not exist in class 'buildings'"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(source->Select(L"buildings", FdoFilterUtil::Parse(c.filter)), nullptr) << c.filter;
    EXPECT_TRUE(log.contains(c.message)) << c.message;
  }
  EXPECT_EQ(FeatureSource::Open(L"/no/such/store.gpkg"), nullptr);
  EXPECT_TRUE(log.contains("Cannot open feature source /no/such/store.gpkg"));
}

}  // namespace
}  // namespace kel
