// Test stores for the features area: fixed-seed buildings written to real
// files (by GDAL and by ogr2ogr), and answers from hand-written SQL run by
// the store's own engine (SQLite with SpatiaLite through GDAL, or PostGIS),
// which the filters must match.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <random>
#include <unistd.h>

#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include "kel/core/text.h"
#include "kel/features/feature_source.h"

namespace kel::test {

namespace fs = std::filesystem;

struct Building {
  std::int64_t id = 0;
  std::optional<std::string> name;  // UTF-8; some are hostile to SQL quoting
  std::optional<double> height;
  int floors = 0;
  std::string kind;
  bool hasGeometry = true;
  double ring[5][2] = {};  // a convex quadrilateral, closed
};

// The shortest text that reads back as the same double.
inline std::string Num(double v) {
  char buf[40];
  for (int precision = 15; precision <= 17; ++precision) {
    std::snprintf(buf, sizeof buf, "%.*g", precision, v);
    if (std::strtod(buf, nullptr) == v) break;
  }
  return buf;
}

inline std::string RingWkt(const double ring[5][2]) {
  std::string s = "POLYGON ((";
  for (int i = 0; i < 5; ++i) s += (i ? ", " : "") + Num(ring[i][0]) + " " + Num(ring[i][1]);
  return s + "))";
}

// Strings that break naive quoting in one SQL dialect or another.
inline const std::vector<std::string>& HostileStrings() {
  static const std::vector<std::string> kStrings = {
      "O'Brien", "back\\slash", "trail\\", "\\'", "\"quoted\"", "x'); DROP TABLE buildings; --",
      "' OR 1=1 OR 'a'='a", "100%_sure", "Stra\xc3\x9f" "e", "--", "a\\'b", "\\\\"};
  return kStrings;
}

// `n` buildings with ids 1..n over [0, 100)^2; every 7th has no height,
// every 11th no name and every 37th no geometry.
inline std::vector<Building> MakeBuildings(unsigned seed, int n) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  static const char* const kNames[] = {"Oak", "Maple", "Main", "Market", "Elm"};
  static const char* const kKinds[] = {"house", "shed", "office"};
  std::vector<Building> out;
  for (int i = 1; i <= n; ++i) {
    Building b;
    b.id = i;
    if (i % 11 != 0) {
      const std::size_t k = rng() % (std::size(kNames) + HostileStrings().size());
      b.name = k < std::size(kNames) ? kNames[k] : HostileStrings()[k - std::size(kNames)];
    }
    if (i % 7 != 0) b.height = std::round(unit(rng) * 400.0) / 10.0;
    b.floors = static_cast<int>(rng() % 8);
    b.kind = kKinds[rng() % std::size(kKinds)];
    b.hasGeometry = i % 37 != 0;
    const double cx = unit(rng) * 100, cy = unit(rng) * 100;
    const double w = 0.5 + unit(rng) * 3.5, h = 0.5 + unit(rng) * 3.5, a = unit(rng) * 3.14159;
    const double c = std::cos(a), s = std::sin(a);
    const double corners[4][2] = {{-w, -h}, {w, -h}, {w, h}, {-w, h}};
    for (int k = 0; k < 4; ++k) {
      b.ring[k][0] = cx + c * corners[k][0] - s * corners[k][1];
      b.ring[k][1] = cy + s * corners[k][0] + c * corners[k][1];
    }
    b.ring[4][0] = b.ring[0][0];
    b.ring[4][1] = b.ring[0][1];
    out.push_back(b);
  }
  return out;
}

// A fresh empty folder under the system temp folder.
inline fs::path TempDir(const std::string& tag) {
  const fs::path dir = fs::temp_directory_path() / ("kel_features_" + tag + "_" + std::to_string(::getpid()));
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

// Writes the buildings as a GeoPackage layer with GDAL (ids kept as fids).
inline bool WriteGeoPackage(const fs::path& path, const std::string& layerName,
                            const std::vector<Building>& buildings) {
  GDALAllRegister();
  GDALDriver* driver = GetGDALDriverManager()->GetDriverByName("GPKG");
  GDALDataset* ds = driver->Create(path.c_str(), 0, 0, 0, GDT_Unknown, nullptr);
  if (!ds) return false;
  OGRLayer* layer = ds->CreateLayer(layerName.c_str(), nullptr, wkbPolygon, nullptr);
  bool ok = layer != nullptr;
  if (!ok) {
    GDALClose(ds);
    return false;
  }
  OGRFieldDefn name("name", OFTString), height("height", OFTReal), floors("floors", OFTInteger),
      kind("kind", OFTString);
  for (OGRFieldDefn* field : {&name, &height, &floors, &kind}) ok &= layer->CreateField(field) == OGRERR_NONE;
  ok &= layer->StartTransaction() == OGRERR_NONE;
  for (const Building& b : buildings) {
    OGRFeature* f = OGRFeature::CreateFeature(layer->GetLayerDefn());
    f->SetFID(b.id);
    if (b.name) f->SetField("name", b.name->c_str());
    if (b.height) f->SetField("height", *b.height);
    f->SetField("floors", b.floors);
    f->SetField("kind", b.kind.c_str());
    if (b.hasGeometry) {
      OGRGeometry* g = nullptr;
      OGRGeometryFactory::createFromWkt(RingWkt(b.ring).c_str(), nullptr, &g);
      f->SetGeometryDirectly(g);
    }
    ok &= layer->CreateFeature(f) == OGRERR_NONE;
    OGRFeature::DestroyFeature(f);
  }
  ok &= layer->CommitTransaction() == OGRERR_NONE;
  GDALClose(ds);
  return ok;
}

inline std::string JsonString(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

// Writes them as GeoJSON text by hand (ids as feature ids).
inline void WriteGeoJson(const fs::path& path, const std::vector<Building>& buildings) {
  std::ofstream out(path);
  out << "{\"type\": \"FeatureCollection\", \"features\": [\n";
  for (std::size_t i = 0; i < buildings.size(); ++i) {
    const Building& b = buildings[i];
    out << (i ? ",\n" : "") << "{\"type\": \"Feature\", \"id\": " << b.id << ", \"properties\": {\"name\": "
        << (b.name ? JsonString(*b.name) : "null") << ", \"height\": " << (b.height ? Num(*b.height) : "null")
        << ", \"floors\": " << b.floors << ", \"kind\": " << JsonString(b.kind) << "}, \"geometry\": ";
    if (!b.hasGeometry) {
      out << "null}";
      continue;
    }
    out << "{\"type\": \"Polygon\", \"coordinates\": [[";
    for (int k = 0; k < 5; ++k) out << (k ? ", " : "") << "[" << Num(b.ring[k][0]) << ", " << Num(b.ring[k][1]) << "]";
    out << "]]}}";
  }
  out << "\n]}\n";
}

// Runs ogr2ogr with the arguments; false on failure.
inline bool Ogr2Ogr(const std::vector<std::string>& args) {
  std::string cmd = "ogr2ogr";
  for (const auto& a : args) {
    cmd += " '";
    for (char c : a) cmd += c == '\'' ? std::string("'\\''") : std::string(1, c);
    cmd += "'";
  }
  return std::system(cmd.c_str()) == 0;
}

// Ids the store's SQL engine returns for `sql` (first column), with GDAL's
// SQLite dialect ("SQLITE") or the store's own (null dialect).
inline std::set<std::int64_t> SqlIds(const std::string& connection, const std::string& sql, const char* dialect) {
  GDALAllRegister();
  std::set<std::int64_t> ids;
  GDALDataset* ds = GDALDataset::FromHandle(GDALOpenEx(connection.c_str(), GDAL_OF_VECTOR, nullptr, nullptr, nullptr));
  if (!ds) return {-1};
  OGRLayer* result = ds->ExecuteSQL(sql.c_str(), nullptr, dialect);
  if (!result) {
    GDALClose(ds);
    return {-2};
  }
  while (OGRFeature* f = result->GetNextFeature()) {
    ids.insert(f->GetFieldAsInteger64(0));
    OGRFeature::DestroyFeature(f);
  }
  ds->ReleaseResultSet(result);
  GDALClose(ds);
  return ids;
}

// An attribute of the reader's current feature as UTF-8, "<null>" when absent.
inline std::string Attribute(const FeatureReader& reader, const std::string& name) {
  std::wstring value;
  if (!reader.attributes().GetValue(kel::Utf8String2WString(name), value)) return "<null>";
  return kel::WString2Utf8String(value);
}

// Every id a reader yields.
inline std::set<std::int64_t> ReadIds(FeatureReader& reader) {
  std::set<std::int64_t> ids;
  while (reader.ReadNext()) ids.insert(reader.feature().id);
  return ids;
}

// Column names that break naive quoting, one for each way.
inline const std::vector<std::string>& HostileNames() {
  static const std::vector<std::string> kNames = {"x\") OR 1=1 --", "quo\"te", "it's", "semi;colon", "back\\"};
  return kNames;
}

// A layer whose text columns have the hostile names, with `rows` rows:
// row r, column c holds HostileStrings()[(r + c) % n]. Written through GDAL
// into an open (or created) dataset; false on failure.
inline bool WriteHostileLayer(GDALDataset& ds, const std::string& layerName, int rows) {
  const char* options[] = {"LAUNDER=NO", nullptr};
  OGRLayer* layer = ds.CreateLayer(layerName.c_str(), nullptr, wkbPoint, const_cast<char**>(options));
  if (!layer) return false;
  bool ok = true;
  for (const std::string& name : HostileNames()) {
    OGRFieldDefn field(name.c_str(), OFTString);
    ok &= layer->CreateField(&field) == OGRERR_NONE;
  }
  const auto& values = HostileStrings();
  for (int r = 0; r < rows; ++r) {
    OGRFeature* f = OGRFeature::CreateFeature(layer->GetLayerDefn());
    for (std::size_t c = 0; c < HostileNames().size(); ++c)
      f->SetField(static_cast<int>(c), values[(static_cast<std::size_t>(r) + c) % values.size()].c_str());
    f->SetGeometryDirectly(new OGRPoint(r, r));
    ok &= layer->CreateFeature(f) == OGRERR_NONE;
    OGRFeature::DestroyFeature(f);
  }
  return ok;
}

inline std::string Substitute(std::string text, const std::string& fid, const std::string& geom) {
  for (const auto& [key, value] : {std::pair<std::string, std::string>{"{fid}", fid}, {"{geom}", geom}})
    for (std::size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + value.size()))
      text.replace(at, key.size(), value);
  return text;
}

// A filter case: text for our parser and the same question in SQL, with
// {fid} and {geom} standing for the store's id and geometry names. The SQL
// reads the same in SQLite with SpatiaLite and in PostGIS.
struct FilterCase {
  std::string label;
  std::string filter;
  std::string sql;
};

inline std::vector<FilterCase> FilterCases(const std::vector<Building>& buildings) {
  // Geometries built from the data, so boundary cases really occur.
  const Building& b = buildings[4];
  const double(*r)[2] = b.ring;
  double touching[5][2];  // shares the edge r0-r1 of building 5 from outside
  const double dx = r[0][0] - r[3][0], dy = r[0][1] - r[3][1];
  const double t[5][2] = {{r[0][0], r[0][1]}, {r[1][0], r[1][1]}, {r[1][0] + dx, r[1][1] + dy},
                          {r[0][0] + dx, r[0][1] + dy}, {r[0][0], r[0][1]}};
  std::copy(&t[0][0], &t[0][0] + 10, &touching[0][0]);
  const std::string own = RingWkt(r);
  double grown[5][2];  // building 5 scaled by 1.5 about its centre
  const double mx = (r[0][0] + r[2][0]) / 2, my = (r[0][1] + r[2][1]) / 2;
  for (int k = 0; k < 5; ++k) {
    grown[k][0] = mx + (r[k][0] - mx) * 1.5;
    grown[k][1] = my + (r[k][1] - my) * 1.5;
  }
  const std::string centre = "POINT (" + Num((r[0][0] + r[2][0]) / 2) + " " + Num((r[0][1] + r[2][1]) / 2) + ")";
  const std::string triangle = "POLYGON ((10 10, 70 15, 30 60, 10 10))";
  const std::string box = "POLYGON ((20 20, 60 20, 60 50, 20 50, 20 20))";
  const std::string line = "LINESTRING (0 0, 100 100)";
  auto geom = [](const std::string& wkt) { return "GeomFromText('" + wkt + "')"; };
  auto st = [](const std::string& wkt) { return "ST_GeomFromText('" + wkt + "')"; };
  // SpatiaLite answers -1 (true to SQLite) where PostGIS answers null, for a
  // missing geometry; spell out the null so both engines agree with SQL.
  auto test = [](const std::string& expr) { return "(CASE WHEN {geom} IS NULL THEN NULL ELSE " + expr + " END)"; };
  return {
      {"id list", "{fid} IN (3, 5, 8, 13, 400)", "{fid} IN (3, 5, 8, 13, 400)"},
      {"id range", "({fid} >= 20) AND ({fid} <= 60)", "{fid} BETWEEN 20 AND 60"},
      {"extent", "{geom} ENVELOPEINTERSECTS " + geom(box), test("ST_Intersects(ST_Envelope({geom}), " + st(box) + ")")},
      {"envelope of triangle", "{geom} ENVELOPEINTERSECTS " + geom(triangle),
       test("ST_Intersects(ST_Envelope({geom}), " + st(triangle) + ")")},
      {"intersects", "{geom} INTERSECTS " + geom(triangle), test("ST_Intersects({geom}, " + st(triangle) + ")")},
      {"within", "{geom} WITHIN " + geom(triangle), test("ST_Within({geom}, " + st(triangle) + ")")},
      {"inside", "{geom} INSIDE " + geom(RingWkt(grown)),
       test("ST_Relate({geom}, " + st(RingWkt(grown)) + ", 'TFF*FF***')")},
      {"covered by", "{geom} COVEREDBY " + geom(own), test("ST_CoveredBy({geom}, " + st(own) + ")")},
      {"contains", "{geom} CONTAINS " + geom(centre), test("ST_Contains({geom}, " + st(centre) + ")")},
      {"equals", "{geom} EQUALS " + geom(own), test("ST_Equals({geom}, " + st(own) + ")")},
      {"touches", "{geom} TOUCHES " + geom(RingWkt(touching)), test("ST_Touches({geom}, " + st(RingWkt(touching)) + ")")},
      {"crosses", "{geom} CROSSES " + geom(line), test("ST_Crosses({geom}, " + st(line) + ")")},
      {"overlaps", "{geom} OVERLAPS " + geom(triangle), test("ST_Overlaps({geom}, " + st(triangle) + ")")},
      {"disjoint", "{geom} DISJOINT " + geom(triangle), test("ST_Disjoint({geom}, " + st(triangle) + ")")},
      {"within distance", "{geom} WITHINDISTANCE " + geom(centre) + " 12.5",
       test("ST_Distance({geom}, " + st(centre) + ") <= 12.5")},
      {"beyond", "{geom} BEYOND " + geom(centre) + " 12.5", test("ST_Distance({geom}, " + st(centre) + ") > 12.5")},
      {"attributes", "(floors >= 3) AND (kind = 'shed')", "floors >= 3 AND kind = 'shed'"},
      {"null", "name NULL", "name IS NULL"},
      {"not over nulls", "NOT (height > 20)", "NOT (height > 20)"},
      {"like", "name LIKE 'Ma%'", "name LIKE 'Ma%'"},
      {"arithmetic", "height * 2 > floors + 30", "height * 2 > floors + 30"},
      {"hostile value", "name = 'x''); DROP TABLE buildings; --'", "name = 'x''); DROP TABLE buildings; --'"},
      {"spatial or attribute", "({geom} INTERSECTS " + geom(triangle) + ") OR (height > 25)",
       test("ST_Intersects({geom}, " + st(triangle) + ")") + " OR height > 25"},
      {"not of mixed", "NOT (({geom} INTERSECTS " + geom(box) + ") OR (name = 'Oak'))",
       "NOT (" + test("ST_Intersects({geom}, " + st(box) + ")") + " OR name = 'Oak')"},
      {"extent and ids", "({geom} ENVELOPEINTERSECTS " + geom(box) + ") AND ({fid} < 200)",
       test("ST_Intersects(ST_Envelope({geom}), " + st(box) + ")") + " AND {fid} < 200"},
  };
}

}  // namespace kel::test
