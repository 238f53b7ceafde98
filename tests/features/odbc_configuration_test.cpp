#include "kel/features/odbc_configuration.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "features/feature_store.h"
#include "kel/core/text.h"
#include "kel/features/feature_source.h"
#include "support/log_capture.h"

namespace kel {
namespace {

using test::Building;

std::string Quote(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("''") : std::string(1, c);
  return out + "'";
}

std::string Contents(const test::fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::wstring W(const test::fs::path& p) { return Utf8String2WString(p.string()); }

// Plain tables in a SQLite database reached through unixODBC and the SQLite
// ODBC driver, registered in private odbcinst.ini / odbc.ini files (never
// /etc): building centres as X/Y/Z columns, outlines as WKT and as WKB.
struct Odbc : ::testing::Test {
  static void SetUpTestSuite() {
    dir = new test::fs::path(test::TempDir("odbc"));
    buildings = new std::vector<Building>(test::MakeBuildings(23, 300));
    const test::fs::path& d = *dir;
    std::string driverLibrary;
    for (const char* candidate : {"/usr/lib/x86_64-linux-gnu/odbc/libsqlite3odbc.so",
                                  "/usr/lib/aarch64-linux-gnu/odbc/libsqlite3odbc.so", "/usr/lib/odbc/libsqlite3odbc.so"})
      if (test::fs::exists(candidate)) driverLibrary = candidate;
    ASSERT_FALSE(driverLibrary.empty()) << "the SQLite ODBC driver is missing (scripts/setup.sh --test)";
    std::ofstream(d / "odbcinst.ini") << "[KelSQLite3]\nDescription = SQLite 3 for the kel tests\nDriver = "
                                      << driverLibrary << "\n";
    ::setenv("ODBCSYSINI", d.c_str(), 1);
    ::setenv("ODBCINI", (d / "odbc.ini").c_str(), 1);

    GDALAllRegister();
    GDALDataset* db = GetGDALDriverManager()->GetDriverByName("SQLite")->Create((d / "city.db").c_str(), 0, 0, 0,
                                                                                GDT_Unknown, nullptr);
    ASSERT_NE(db, nullptr);
    auto exec = [&](const std::string& sql) {
      OGRLayer* r = db->ExecuteSQL(sql.c_str(), nullptr, nullptr);
      if (r) db->ReleaseResultSet(r);
    };
    const std::string attributes = "id INTEGER PRIMARY KEY, name TEXT, height REAL, floors INTEGER, kind TEXT";
    exec("CREATE TABLE points (" + attributes + ", x REAL, y REAL, z REAL)");
    exec("CREATE TABLE shapes (" + attributes + ", wkt TEXT)");
    exec("CREATE TABLE blobs (" + attributes + ", wkb BLOB)");
    exec("BEGIN");
    for (const Building& b : *buildings) {
      const std::string values = std::to_string(b.id) + ", " + (b.name ? Quote(*b.name) : "NULL") + ", " +
                                 (b.height ? test::Num(*b.height) : "NULL") + ", " + std::to_string(b.floors) + ", " +
                                 Quote(b.kind);
      const double cx = (b.ring[0][0] + b.ring[2][0]) / 2, cy = (b.ring[0][1] + b.ring[2][1]) / 2;
      exec("INSERT INTO points VALUES (" + values + ", " +
           (b.hasGeometry ? test::Num(cx) + ", " + test::Num(cy) + ", " + std::to_string(b.floors * 3) : "NULL, NULL, NULL") +
           ")");
      const std::string wkt = test::RingWkt(b.ring);
      exec("INSERT INTO shapes VALUES (" + values + ", " + (b.hasGeometry ? Quote(wkt) : "NULL") + ")");
      std::string hex = "NULL";
      if (b.hasGeometry) {
        OGRGeometry* g = nullptr;
        OGRGeometryFactory::createFromWkt(wkt.c_str(), nullptr, &g);
        std::vector<unsigned char> wkb(static_cast<std::size_t>(g->WkbSize()));
        ASSERT_EQ(g->exportToWkb(wkbNDR, wkb.data()), OGRERR_NONE);
        OGRGeometryFactory::destroyGeometry(g);
        hex = "X'";
        for (unsigned char c : wkb) {
          static const char kHex[] = "0123456789ABCDEF";
          hex += kHex[c >> 4];
          hex += kHex[c & 15];
        }
        hex += "'";
      }
      exec("INSERT INTO blobs VALUES (" + values + ", " + hex + ")");
    }
    exec("COMMIT");
    GDALClose(db);
  }
  static void TearDownTestSuite() {
    test::fs::remove_all(*dir);
    delete dir;
    delete buildings;
  }

  static OdbcConfiguration Configuration() {
    OdbcConfiguration c;
    c.dataSourceName = L"kel_city";
    c.driver = L"KelSQLite3";
    c.description = L"buildings for the kel tests";
    c.attributes = {{L"Database", W(*dir / "city.db")}, {L"Timeout", L"2000"}};
    OdbcFeatureClass points;
    points.name = L"centres";
    points.table = L"points";
    points.idColumn = L"id";
    points.geometry = OdbcGeometryEncoding::PointFromColumns;
    points.xColumn = L"x";
    points.yColumn = L"y";
    points.zColumn = L"z";
    points.coordinateSystem = L"EPSG:32632";
    OdbcFeatureClass shapes;
    shapes.name = L"outlines";
    shapes.table = L"shapes";
    shapes.idColumn = L"id";
    shapes.geometry = OdbcGeometryEncoding::Wkt;
    shapes.geometryColumn = L"wkt";
    shapes.geometryType = FeatureGeometryType::Polygon;
    OdbcFeatureClass blobs = shapes;
    blobs.name = L"outlines_wkb";
    blobs.table = L"blobs";
    blobs.geometry = OdbcGeometryEncoding::Wkb;
    blobs.geometryColumn = L"wkb";
    c.classes = {points, shapes, blobs};
    return c;
  }

  static test::fs::path* dir;
  static std::vector<Building>* buildings;
};
test::fs::path* Odbc::dir = nullptr;
std::vector<Building>* Odbc::buildings = nullptr;

TEST_F(Odbc, ConfigurationComesBackFromItsFiles) {
  const OdbcConfiguration written = Configuration();
  ASSERT_TRUE(written.Write(W(*dir / "city.vrt"), W(*dir / "odbc.ini")));
  OdbcConfiguration read;
  ASSERT_TRUE(OdbcConfiguration::Read(W(*dir / "city.vrt"), W(*dir / "odbc.ini"), read));
  EXPECT_EQ(read, written);
}

TEST_F(Odbc, DataSourceEntryKeepsTheRestOfTheFile) {
  const test::fs::path ini = *dir / "shared.ini";
  const std::string before = "# the user's own notes\n[other]\nDriver = PostgreSQL\nServername = db\n\n"
                             "[KEL_CITY]\nDriver = old\nDatabase = /old.db\n\n[last]\nDriver = x\n";
  std::ofstream(ini) << before;
  OdbcConfiguration c = Configuration();
  ASSERT_TRUE(c.WriteDataSource(W(ini)));
  ASSERT_TRUE(c.WriteDataSource(W(ini)));  // again: still one entry
  const std::string after = Contents(ini);
  EXPECT_EQ(after, "# the user's own notes\n[other]\nDriver = PostgreSQL\nServername = db\n\n"
                   "[kel_city]\nDriver = KelSQLite3\nDescription = buildings for the kel tests\nDatabase = " +
                       (*dir / "city.db").string() + "\nTimeout = 2000\n[last]\nDriver = x\n");
  OdbcConfiguration other;
  ASSERT_TRUE(OdbcConfiguration::ReadDataSource(W(ini), L"other", other));
  // An odbc.ini that exists but cannot be read is never written over.
  if (::geteuid() != 0) {
    test::fs::permissions(ini, test::fs::perms::none);
    EXPECT_FALSE(c.WriteDataSource(W(ini)));
    test::fs::permissions(ini, test::fs::perms::owner_read | test::fs::perms::owner_write);
  }
  const test::fs::path folder = *dir / "ini_is_a_folder";
  test::fs::create_directories(folder);
  EXPECT_FALSE(c.WriteDataSource(W(folder)));
  EXPECT_TRUE(test::fs::is_directory(folder));
  EXPECT_EQ(other.driver, L"PostgreSQL");
  EXPECT_EQ(other.attributes, (std::vector<std::pair<std::wstring, std::wstring>>{{L"Servername", L"db"}}));
}

TEST_F(Odbc, RefusesWhatUnixOdbcOrGdalWouldMisread) {
  test::LogCapture log;
  const std::wstring vrt = W(*dir / "refused.vrt"), ini = W(*dir / "refused.ini");
  const struct {
    const char* label;
    void (*spoil)(OdbcConfiguration&);
  } cases[] = {
      {"empty DSN", [](OdbcConfiguration& c) { c.dataSourceName.clear(); }},
      {"DSN with a bracket", [](OdbcConfiguration& c) { c.dataSourceName = L"a]b"; }},
      {"DSN with a slash", [](OdbcConfiguration& c) { c.dataSourceName = L"user/x"; }},
      {"DSN longer than 32", [](OdbcConfiguration& c) { c.dataSourceName = std::wstring(33, L'd'); }},
      {"value with a line break", [](OdbcConfiguration& c) { c.attributes[0].second = L"/a\n[evil]"; }},
      {"key with '='", [](OdbcConfiguration& c) { c.attributes[0].first = L"Data=base"; }},
      {"second Driver key", [](OdbcConfiguration& c) { c.attributes[0].first = L"driver"; }},
      {"point class without Y", [](OdbcConfiguration& c) { c.classes[0].yColumn.clear(); }},
      {"WKT class without column", [](OdbcConfiguration& c) { c.classes[1].geometryColumn.clear(); }},
      {"two classes, one name", [](OdbcConfiguration& c) { c.classes[1].name = c.classes[0].name; }},
  };
  for (const auto& c : cases) {
    OdbcConfiguration config = Configuration();
    c.spoil(config);
    EXPECT_FALSE(config.Write(vrt, ini)) << c.label;
  }
  EXPECT_FALSE(test::fs::exists(*dir / "refused.vrt"));
  EXPECT_FALSE(test::fs::exists(*dir / "refused.ini"));
  EXPECT_TRUE(log.contains("ODBC configuration: not a usable data source name"));
  OdbcConfiguration read;
  EXPECT_FALSE(OdbcConfiguration::ReadSchema(W(*dir / "city.db"), read));
  EXPECT_FALSE(OdbcConfiguration::ReadDataSource(W(*dir / "odbcinst.ini"), L"kel_city", read));
  EXPECT_TRUE(log.contains("No data source 'kel_city' in"));
}

TEST_F(Odbc, ClassesReadThroughGdalSelectWhatSqlSelects) {
  const OdbcConfiguration config = Configuration();
  const std::wstring vrt = W(*dir / "read.vrt");
  ASSERT_TRUE(config.Write(vrt, W(*dir / "odbc.ini")));
  auto source = FeatureSource::Open(vrt);
  ASSERT_NE(source, nullptr);
  const auto classes = source->GetClasses();
  ASSERT_EQ(classes.size(), 3u);
  EXPECT_EQ(classes[0].name, L"centres");
  EXPECT_EQ(classes[0].identityProperty, L"id");
  EXPECT_EQ(classes[0].properties.back().geometryType, FeatureGeometryType::Point);
  EXPECT_TRUE(classes[0].properties.back().hasZ);
  EXPECT_NE(classes[0].properties.back().coordinateSystem.find(L"32632"), std::wstring::npos);
  std::vector<std::wstring> names;
  for (const auto& p : classes[1].properties) names.push_back(p.name);
  // The WKT column makes the geometry; it is not listed as an attribute.
  EXPECT_EQ(names, (std::vector<std::wstring>{L"id", L"name", L"height", L"floors", L"kind", L"Geometry"}));

  const std::string connection = WString2Utf8String(vrt);
  for (const wchar_t* cls : {L"outlines", L"outlines_wkb", L"centres"}) {
    for (const test::FilterCase& c : test::FilterCases(*buildings)) {
      SCOPED_TRACE(WString2Utf8String(cls) + ": " + c.label);
      const std::string text = test::Substitute(c.filter, "id", "Geometry");
      auto reader = source->Select(cls, FdoFilterUtil::Parse(Utf8String2WString(text)));
      ASSERT_NE(reader, nullptr) << text;
      std::string sql = test::Substitute(c.sql, "id", "GEOMETRY");
      // SpatiaLite makes a point's envelope a degenerate polygon that its own
      // tests then misjudge; a point is its own envelope.
      for (std::size_t at; std::wstring(cls) == L"centres" && (at = sql.find("ST_Envelope(GEOMETRY)")) != sql.npos;)
        sql.replace(at, 21, "GEOMETRY");
      const auto expected =
          test::SqlIds(connection, "SELECT id FROM " + WString2Utf8String(cls) + " WHERE " + sql, "SQLITE");
      EXPECT_EQ(test::ReadIds(*reader), expected) << text;
    }
  }
}

TEST_F(Odbc, DataSourceOpensDirectlyWithoutSchemaFile) {
  ASSERT_TRUE(Configuration().WriteDataSource(W(*dir / "odbc.ini")));
  auto source = FeatureSource::Open(L"ODBC:kel_city");
  ASSERT_NE(source, nullptr);
  FeatureClassDefinition points;
  ASSERT_TRUE(source->DescribeClass(L"points", points));
  EXPECT_EQ(points.identityProperty, L"FID");  // GDAL numbers by the primary key but names no column
  auto reader = source->Select(L"points", FdoFilterUtil::Parse(L"(FID < 150) AND (floors >= 3) AND (name LIKE 'Ma%')"));
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(test::ReadIds(*reader),
            test::SqlIds((*dir / "city.db").string(),
                         "SELECT id FROM points WHERE id < 150 AND floors >= 3 AND name GLOB 'Ma*'", nullptr));
}

TEST_F(Odbc, TableWithoutTheConfiguredColumnsGivesNothing) {
  test::LogCapture log;
  OdbcConfiguration config = Configuration();
  config.classes[0].xColumn = L"easting";
  const std::wstring vrt = W(*dir / "broken.vrt");
  ASSERT_TRUE(config.Write(vrt, W(*dir / "odbc.ini")));
  auto source = FeatureSource::Open(vrt);
  ASSERT_NE(source, nullptr);
  EXPECT_EQ(source->Select(L"centres", nullptr), nullptr);
  EXPECT_TRUE(log.contains("Class 'centres' cannot be read"));
  EXPECT_NE(source->Select(L"outlines", nullptr), nullptr);
}

}  // namespace
}  // namespace kel
