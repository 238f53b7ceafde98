// Filters against a real PostGIS server (started by the ctest fixture in
// tests/features/tests.cmake): every filter kind must select what PostGIS
// itself selects for the same question in SQL.
#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "features/feature_store.h"
#include "kel/core/text.h"
#include "kel/features/feature_source.h"
#include "support/log_capture.h"

namespace kel {
namespace {

using test::Building;

class PostGis : public ::testing::Test {
protected:
  void SetUp() override {
    const char* state = std::getenv("KEL_TEST_POSTGIS_STATE");
    ASSERT_NE(state, nullptr) << "no PostGIS test server: run these tests through ctest, whose fixture starts one, "
                                 "or start one with scripts/postgis_test_server.sh start FILE and set "
                                 "KEL_TEST_POSTGIS_STATE=FILE";
    std::ifstream in(state);
    for (std::string line; std::getline(in, line);)
      if (line.rfind("connection=", 0) == 0) connection_ = line.substr(11);
    ASSERT_FALSE(connection_.empty()) << "the PostGIS test server did not start (see the postgis_server_start test)";
    table_ = "t" + std::to_string(::getpid());
  }
  void TearDown() override {
    if (!connection_.empty()) test::SqlIds(connection_, "DROP TABLE IF EXISTS " + table_, nullptr);
  }

  std::string connection_;
  std::string table_;
};

TEST_F(PostGis, FiltersSelectWhatPostGisSelects) {
  const auto buildings = test::MakeBuildings(11, 300);
  const test::fs::path dir = test::TempDir("postgis");
  ASSERT_TRUE(test::WriteGeoPackage(dir / "b.gpkg", "buildings", buildings));
  // ogr2ogr loads it, so the table is as a user's import would make it.
  ASSERT_TRUE(test::Ogr2Ogr({"-f", "PostgreSQL", connection_, (dir / "b.gpkg").string(), "buildings", "-nln", table_,
                             "-lco", "GEOMETRY_NAME=geom", "-lco", "FID=fid", "-preserve_fid", "-overwrite"}));
  test::fs::remove_all(dir);
  // The GeoPackage has no coordinate system; give the column PostGIS's
  // "none" (0), the SRID of the plain ST_GeomFromText in the expected SQL.
  test::SqlIds(connection_,
               "ALTER TABLE " + table_ + " ALTER COLUMN geom TYPE geometry(Polygon, 0) USING ST_SetSRID(geom, 0)",
               nullptr);

  auto source = FeatureSource::Open(Utf8String2WString(connection_));
  ASSERT_NE(source, nullptr);
  FeatureClassDefinition def;
  ASSERT_TRUE(source->DescribeClass(Utf8String2WString(table_), def));
  EXPECT_EQ(def.identityProperty, L"fid");
  EXPECT_EQ(def.defaultGeometryProperty, L"geom");
  EXPECT_EQ(def.properties.back().geometryType, FeatureGeometryType::Polygon);

  auto cases = test::FilterCases(buildings);
  for (const std::string& value : test::HostileStrings()) {
    std::string quoted;
    for (char c : value) quoted += c == '\'' ? std::string("''") : std::string(1, c);
    cases.push_back({"hostile " + value, "name = '" + quoted + "'", "name = '" + quoted + "'"});
  }
  for (const test::FilterCase& c : cases) {
    SCOPED_TRACE(c.label);
    const std::string text = test::Substitute(c.filter, "fid", "geom");
    auto reader = source->Select(Utf8String2WString(table_), FdoFilterUtil::Parse(Utf8String2WString(text)));
    ASSERT_NE(reader, nullptr) << text;
    const auto expected = test::SqlIds(
        connection_, "SELECT fid FROM " + table_ + " WHERE " + test::Substitute(c.sql, "fid", "geom"), nullptr);
    EXPECT_EQ(test::ReadIds(*reader), expected) << text;
  }
}

TEST_F(PostGis, HostileColumnNamesCannotChangeTheQuery) {
  {
    GDALAllRegister();
    GDALDataset* ds = GDALDataset::FromHandle(GDALOpenEx(connection_.c_str(), GDAL_OF_VECTOR | GDAL_OF_UPDATE,
                                                         nullptr, nullptr, nullptr));
    ASSERT_NE(ds, nullptr);
    const bool written = test::WriteHostileLayer(*ds, table_, 24);
    GDALClose(ds);
    ASSERT_TRUE(written);
  }
  auto source = FeatureSource::Open(Utf8String2WString(connection_));
  ASSERT_NE(source, nullptr);
  const auto& names = test::HostileNames();
  const auto& values = test::HostileStrings();
  for (std::size_t c = 0; c < names.size(); ++c) {
    for (std::size_t v = 0; v < values.size(); ++v) {
      SCOPED_TRACE(names[c] + " = " + values[v]);
      auto filter = FdoComparisonCondition::Create(FdoIdentifier::Create(Utf8String2WString(names[c])),
                                                   FdoComparisonOperation::EqualTo,
                                                   FdoDataValue::Create(Utf8String2WString(values[v])));
      auto reader = source->Select(Utf8String2WString(table_), filter);
      ASSERT_NE(reader, nullptr);
      std::size_t got = 0;
      while (reader->ReadNext()) {
        EXPECT_EQ(test::Attribute(*reader, names[c]), values[v]);
        ++got;
      }
      std::size_t expected = 0;
      for (int r = 0; r < 24; ++r) expected += (static_cast<std::size_t>(r) + c) % values.size() == v;
      EXPECT_EQ(got, expected);
    }
  }
}

}  // namespace
}  // namespace kel
