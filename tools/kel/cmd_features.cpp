// kel features: list and read feature data (GeoPackage, Shapefile, GeoJSON,
// PostGIS, ODBC through a schema file) and write ODBC store configurations.
#include <cctype>
#include <cstdint>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "commands.h"
#include "options.h"
#include "progress_view.h"

namespace {

using kel::Utf8String2WString;
using kel::WString2Utf8String;

const char* TypeName(kel::FeaturePropertyType t) {
  switch (t) {
    case kel::FeaturePropertyType::Boolean: return "boolean";
    case kel::FeaturePropertyType::Int32: return "int32";
    case kel::FeaturePropertyType::Int64: return "int64";
    case kel::FeaturePropertyType::Double: return "double";
    case kel::FeaturePropertyType::String: return "string";
    case kel::FeaturePropertyType::Date: return "date";
    case kel::FeaturePropertyType::Time: return "time";
    case kel::FeaturePropertyType::DateTime: return "datetime";
    case kel::FeaturePropertyType::Binary: return "binary";
    case kel::FeaturePropertyType::Geometry: return "geometry";
  }
  return "?";
}

const char* GeometryName(kel::FeatureGeometryType t) {
  switch (t) {
    case kel::FeatureGeometryType::Point: return "point";
    case kel::FeatureGeometryType::LineString: return "linestring";
    case kel::FeatureGeometryType::Polygon: return "polygon";
    case kel::FeatureGeometryType::MultiPoint: return "multipoint";
    case kel::FeatureGeometryType::MultiLineString: return "multilinestring";
    case kel::FeatureGeometryType::MultiPolygon: return "multipolygon";
    case kel::FeatureGeometryType::MultiGeometry: return "geometrycollection";
    case kel::FeatureGeometryType::Unknown: return "any";
  }
  return "?";
}

std::shared_ptr<kel::FeatureSource> OpenSource(const std::string& source) {
  auto s = kel::FeatureSource::Open(Utf8String2WString(source));
  if (!s) throw kel::wexception(L"cannot open " + Utf8String2WString(source));
  return s;
}

// The coordinate system's own authority code (its WKT's last AUTHORITY or
// ID), or "custom" for WKT without one.
std::string CoordinateSystemLabel(const std::wstring& wkt) {
  if (wkt.empty()) return "none";
  const std::string s = WString2Utf8String(wkt);
  std::size_t best = std::string::npos, nameAt = 0;
  for (const std::string key : {"AUTHORITY[\"", "ID[\""}) {
    for (std::size_t at = s.find(key); at != std::string::npos; at = s.find(key, at + 1)) {
      const bool word = at == 0 || !std::isalpha(static_cast<unsigned char>(s[at - 1]));  // not SPHEROID["
      if (word && (best == std::string::npos || at > best)) {
        best = at;
        nameAt = at + key.size();
      }
    }
  }
  if (best == std::string::npos) return "custom";
  const std::size_t nameEnd = s.find('"', nameAt);
  const std::size_t close = s.find(']', nameEnd);
  if (nameEnd == std::string::npos || close == std::string::npos) return "custom";
  std::string code = s.substr(nameEnd + 1, close - nameEnd - 1);  // ,"4326" or ,4326
  code.erase(0, code.find_first_not_of(", \""));
  code.erase(code.find_last_not_of(" \"") + 1);
  return s.substr(nameAt, nameEnd - nameAt) + ":" + code;
}

int RunList(const std::string& source) {
  auto s = OpenSource(source);
  const auto classes = s->GetClasses();
  for (const kel::FeatureClassDefinition& c : classes) {
    std::printf("%s\n", WString2Utf8String(c.name).c_str());
    std::printf("  %-10s %s\n", "identity", WString2Utf8String(c.identityProperty).c_str());
    for (const auto& p : c.properties) {
      if (p.name == c.identityProperty) continue;
      if (p.type == kel::FeaturePropertyType::Geometry) {
        std::printf("  %-10s %s: %s%s, %s%s\n", "geometry", WString2Utf8String(p.name).c_str(),
                    GeometryName(p.geometryType), p.hasZ ? " z" : "", CoordinateSystemLabel(p.coordinateSystem).c_str(),
                    p.name == c.defaultGeometryProperty ? "" : " (not read)");
      } else {
        std::printf("  %-10s %s: %s%s\n", "property", WString2Utf8String(p.name).c_str(), TypeName(p.type),
                    p.nullable ? "" : ", not null");
      }
    }
  }
  std::printf("%zu feature class%s\n", classes.size(), classes.size() == 1 ? "" : "es");
  return 0;
}

struct ReadArgs {
  std::string source, className, filter, ids, to;
  std::vector<double> box;
  std::int64_t limit = -1;
};

kel::FdoFilterPtr And(kel::FdoFilterPtr a, kel::FdoFilterPtr b) {
  if (!a) return b;
  return kel::FdoBinaryLogicalOperator::Create(a, kel::FdoBinaryLogicalOperation::And, b);
}

class IdList final : public kel::IEnumeration<std::int64_t> {
public:
  explicit IdList(std::vector<std::int64_t> ids) : ids_(std::move(ids)) {}
  bool next(std::int64_t& v) override {
    if (at_ >= ids_.size()) return false;
    v = ids_[at_++];
    return true;
  }
  void reset() override { at_ = 0; }

private:
  std::vector<std::int64_t> ids_;
  std::size_t at_ = 0;
};

// Writes the matching features to a new GeoPackage, with a progress bar
// over the class's size (an upper bound when a filter drops some).
int Export(const kel::FeatureSource& source, kel::FeatureReader& reader, const ReadArgs& a) {
  const kel::FeatureClassDefinition& def = reader.definition();
  auto writer = kel::GeoPackageWriter::Create(Utf8String2WString(a.to));
  if (!writer || !writer->AddClass(def)) throw kel::wexception(L"cannot write " + Utf8String2WString(a.to));
  std::int64_t n = 0;
  {
    tool::Task task(L"export " + def.name, std::max<std::int64_t>(source.GetFeatureCount(def.name), 0));
    while ((a.limit < 0 || n < a.limit) && reader.ReadNext()) {
      if (!writer->Write(def.name, reader.feature())) throw kel::wexception(L"export stopped; nothing was written");
      if (++n % 1024 == 0) task.step(n);
    }
    task.step(n);
  }
  if (!writer->Commit()) throw kel::wexception(L"cannot write " + Utf8String2WString(a.to));
  std::printf("%lld feature%s written to %s\n", static_cast<long long>(n), n == 1 ? "" : "s", a.to.c_str());
  return 0;
}

int RunRead(const ReadArgs& a) {
  kel::FdoFilterPtr filter;
  if (!a.filter.empty()) {
    kel::FdoParseError error;
    filter = kel::FdoFilterUtil::Parse(Utf8String2WString(a.filter), &error);
    if (!filter)
      throw tool::UsageError("--filter does not parse at offset " + std::to_string(error.offset) + ": " +
                             WString2Utf8String(error.message));
  }
  auto s = OpenSource(a.source);
  kel::FeatureClassDefinition def;
  if (!s->DescribeClass(Utf8String2WString(a.className), def))
    throw kel::wexception(L"no feature class '" + Utf8String2WString(a.className) + L"' in " +
                          Utf8String2WString(a.source));
  if (!a.box.empty()) {
    if (def.defaultGeometryProperty.empty()) throw tool::UsageError("--box needs a class with a geometry");
    if (!(a.box[0] <= a.box[2] && a.box[1] <= a.box[3]))
      throw tool::UsageError("--box must be X0,Y0,X1,Y1 with X0 <= X1 and Y0 <= Y1");
    auto extent = kel::FdoFilterUtil::CreateFdoSpatialExtentFilter(
        def.defaultGeometryProperty, kel::BBox<2, double>({a.box[0], a.box[1]}, {a.box[2], a.box[3]}));
    if (!extent) throw tool::UsageError("--box must be four finite numbers");
    filter = And(filter, extent);
  }
  if (!a.ids.empty()) {
    std::vector<std::int64_t> ids;
    std::size_t from = 0;
    while (from <= a.ids.size()) {
      const std::size_t comma = std::min(a.ids.find(',', from), a.ids.size());
      ids.push_back(tool::ParseInt(a.ids.substr(from, comma - from), "--ids"));
      from = comma + 1;
    }
    IdList list(std::move(ids));
    filter = And(filter, kel::FdoFilterUtil::CreateFdoIdInFilter(def.identityProperty, list));
  }
  auto reader = s->Select(def.name, filter);
  if (!reader) throw kel::wexception(L"cannot read class '" + def.name + L"'");
  if (!a.to.empty()) return Export(*s, *reader, a);
  std::int64_t n = 0;
  while ((a.limit < 0 || n < a.limit) && reader->ReadNext()) {
    std::printf("%lld", static_cast<long long>(reader->feature().id));
    const kel::PropertyBag attributes = reader->attributes();
    std::vector<const wchar_t*> keys;
    kel::EnumerateIntoPushBackContainer<std::vector<const wchar_t*>> sink(keys);
    attributes.GetKeys(sink);
    for (const wchar_t* key : keys) {
      std::wstring value;
      attributes.GetValue(key, value);
      std::printf("\t%s=%s", WString2Utf8String(key).c_str(), WString2Utf8String(value).c_str());
    }
    if (const auto& g = reader->feature().geometry) std::printf("\t%s", WString2Utf8String(g->ToWKT()).c_str());
    std::printf("\n");
    ++n;
  }
  std::fprintf(stderr, "%lld feature%s\n", static_cast<long long>(n), n == 1 ? "" : "s");
  return 0;
}

struct OdbcArgs {
  std::string vrt, dsn, driver, database, odbcIni, className, table, id, wkt, wkb, geometryType = "any", srs;
  std::vector<std::string> xyz, attributes;
  bool append = false;
};

kel::FeatureGeometryType ParseGeometryType(const std::string& name) {
  for (auto t : {kel::FeatureGeometryType::Unknown, kel::FeatureGeometryType::Point,
                 kel::FeatureGeometryType::LineString, kel::FeatureGeometryType::Polygon,
                 kel::FeatureGeometryType::MultiPoint, kel::FeatureGeometryType::MultiLineString,
                 kel::FeatureGeometryType::MultiPolygon, kel::FeatureGeometryType::MultiGeometry})
    if (name == GeometryName(t)) return t;
  throw tool::UsageError("--geometry-type must be one of any, point, linestring, polygon, multipoint, "
                         "multilinestring, multipolygon, geometrycollection");
}

int RunOdbcConfig(const OdbcArgs& a) {
  const int encodings = !a.xyz.empty() + !a.wkt.empty() + !a.wkb.empty();
  if (encodings > 1) throw tool::UsageError("give at most one of --xy, --wkt and --wkb");
  if (!a.xyz.empty() && a.xyz.size() != 2 && a.xyz.size() != 3)
    throw tool::UsageError("--xy needs X,Y or X,Y,Z column names");
  kel::OdbcConfiguration config;
  const std::wstring vrt = Utf8String2WString(a.vrt);
  const std::wstring ini =
      a.odbcIni.empty() ? kel::OdbcConfiguration::UserOdbcIniPath() : Utf8String2WString(a.odbcIni);
  config.dataSourceName = Utf8String2WString(a.dsn);
  if (a.append) {
    // Keep the classes and the entry's keys; new keys replace old ones.
    if (!kel::OdbcConfiguration::ReadSchema(vrt, config))
      throw kel::wexception(L"cannot read " + vrt + L" to append to it");
    config.dataSourceName = Utf8String2WString(a.dsn);
    kel::OdbcConfiguration::ReadDataSource(ini, config.dataSourceName, config);
  }
  config.driver = Utf8String2WString(a.driver);
  auto set = [&](const std::wstring& key, const std::wstring& value) {
    for (auto& kv : config.attributes)
      if (kv.first == key) {
        kv.second = value;
        return;
      }
    config.attributes.emplace_back(key, value);
  };
  if (!a.database.empty()) set(L"Database", Utf8String2WString(a.database));
  for (const std::string& kv : a.attributes) {
    const std::size_t eq = kv.find('=');
    if (eq == std::string::npos || eq == 0) throw tool::UsageError("--attribute needs KEY=VALUE, got '" + kv + "'");
    set(Utf8String2WString(kv.substr(0, eq)), Utf8String2WString(kv.substr(eq + 1)));
  }
  kel::OdbcFeatureClass c;
  c.name = Utf8String2WString(a.className.empty() ? a.table : a.className);
  c.table = Utf8String2WString(a.table);
  c.idColumn = Utf8String2WString(a.id);
  c.coordinateSystem = Utf8String2WString(a.srs);
  c.geometryType = ParseGeometryType(a.geometryType);
  if (!a.xyz.empty()) {
    c.geometry = kel::OdbcGeometryEncoding::PointFromColumns;
    c.xColumn = Utf8String2WString(a.xyz[0]);
    c.yColumn = Utf8String2WString(a.xyz[1]);
    if (a.xyz.size() == 3) c.zColumn = Utf8String2WString(a.xyz[2]);
  } else if (!a.wkt.empty() || !a.wkb.empty()) {
    c.geometry = a.wkt.empty() ? kel::OdbcGeometryEncoding::Wkb : kel::OdbcGeometryEncoding::Wkt;
    c.geometryColumn = Utf8String2WString(a.wkt.empty() ? a.wkb : a.wkt);
  }
  std::erase_if(config.classes, [&](const kel::OdbcFeatureClass& old) { return old.name == c.name; });
  config.classes.push_back(c);
  if (!config.Write(vrt, ini)) throw kel::wexception(L"the ODBC configuration was not written");
  std::printf("schema   %s (%zu class%s)\n", a.vrt.c_str(), config.classes.size(),
              config.classes.size() == 1 ? "" : "es");
  std::printf("dsn      [%s] in %s\n", a.dsn.c_str(), WString2Utf8String(ini).c_str());
  return 0;
}

}  // namespace

void AddFeatureCommands(CLI::App& app) {
  CLI::App* group =
      tool::AddGroup(app, "features", "feature data: list classes, read features, configure ODBC stores");

  auto listSource = std::make_shared<std::string>();
  CLI::App* list = tool::AddCommand(
      *group, "list", "the feature classes of a store with their properties",
      "SOURCE is a GeoPackage, Shapefile, GeoJSON or ODBC schema (.vrt) file, a\n"
      "PostGIS connection \"PG:host=... dbname=...\" or \"ODBC:<dsn>\".",
      [listSource] { return RunList(*listSource); });
  list->add_option("SOURCE", *listSource, "the store")->required();

  auto read = std::make_shared<ReadArgs>();
  CLI::App* readCmd = tool::AddCommand(
      *group, "read", "print the features of a class that match a filter",
      "Prints one line per feature: its id, name=value for each attribute that is\n"
      "not null, then the geometry as WKT, separated by tabs; the count goes to stderr. --filter takes the\n"
      "filter text, e.g. \"(height > 10) AND (Geometry INTERSECTS GeomFromText('...'))\";\n"
      "--box and --ids are joined to it with AND. With --to the features go to a new\n"
      "GeoPackage instead (the file appears only once complete).",
      [read] { return RunRead(*read); });
  readCmd->add_option("SOURCE", read->source, "the store")->required();
  readCmd->add_option("CLASS", read->className, "the feature class")->required();
  readCmd->add_option("--filter", read->filter, "filter text");
  tool::AddNumbers(*readCmd, "--box", read->box, 4, "X0,Y0,X1,Y1: features whose box meets this box");
  readCmd->add_option("--ids", read->ids, "1,2,3: features with these ids");
  tool::AddInt(*readCmd, "--limit", read->limit, 0, INT64_MAX, "print (or write) at most this many");
  readCmd->add_option("--to", read->to, "OUT.gpkg: write the features to a new GeoPackage instead of printing them");

  auto odbc = std::make_shared<OdbcArgs>();
  CLI::App* odbcCmd = tool::AddCommand(
      *group, "odbc-config", "write an ODBC store configuration: schema file and DSN entry",
      "Writes OUT.vrt, which maps TABLE behind the data source to a feature class,\n"
      "and the data source's entry in odbc.ini ($ODBCINI or ~/.odbc.ini unless\n"
      "--odbc-ini is given; other entries are kept). 'kel features list OUT.vrt'\n"
      "then reads it. Example:\n"
      "  kel features odbc-config city.vrt --dsn city --driver SQLite3 \\\n"
      "      --database /data/city.db --table trees --id id --xy x,y --srs EPSG:25832",
      [odbc] { return RunOdbcConfig(*odbc); });
  odbcCmd->add_option("OUT", odbc->vrt, "the schema file to write (.vrt)")->required();
  odbcCmd->add_option("--dsn", odbc->dsn, "data source name")->required();
  odbcCmd->add_option("--driver", odbc->driver, "driver name from odbcinst.ini, or its library path")->required();
  odbcCmd->add_option("--database", odbc->database, "the entry's Database key");
  odbcCmd->add_option("--attribute", odbc->attributes, "KEY=VALUE: a further key of the entry (repeatable)");
  odbcCmd->add_option("--odbc-ini", odbc->odbcIni, "the odbc.ini to update");
  odbcCmd->add_option("--table", odbc->table, "the table")->required();
  odbcCmd->add_option("--class", odbc->className, "the feature class name (default: the table)");
  odbcCmd->add_option("--id", odbc->id, "the integer id column");
  odbcCmd->add_option("--xy", odbc->xyz, "X,Y[,Z]: point columns")->delimiter(',');
  odbcCmd->add_option("--wkt", odbc->wkt, "the column holding WKT");
  odbcCmd->add_option("--wkb", odbc->wkb, "the column holding WKB");
  odbcCmd->add_option("--geometry-type", odbc->geometryType, "for --wkt/--wkb: point, polygon, ... (default any)");
  odbcCmd->add_option("--srs", odbc->srs, "coordinate system, e.g. EPSG:4326");
  odbcCmd->add_flag("--append", odbc->append, "add the class to the classes OUT already has");
}
