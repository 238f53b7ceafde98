// The filter text reader on arbitrary UTF-8: it must refuse or accept
// without crashing, and whatever it accepts must print to a text that reads
// back into an equal tree and prints the same again. Accepted filters are
// then translated for every SQL dialect, and the WHERE text must be SQL its
// engine accepts: SQLite for the SQLite and portable dialects, GDAL's own
// SQL reader for GDAL's and portable dialects. Broken quoting shows up as
// text that no longer parses.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <cpl_error.h>
#include <ogr_feature.h>
#include <sqlite3.h>

#include <kel/kel.h>

namespace {

kel::FeaturePropertyDefinition Prop(const wchar_t* name, kel::FeaturePropertyType type) {
  kel::FeaturePropertyDefinition p;
  p.name = name;
  p.type = type;
  p.geometryType = kel::FeatureGeometryType::Polygon;
  return p;
}

kel::FdoQueryTarget Target(kel::FdoSqlDialect dialect) {
  kel::FdoQueryTarget t;
  t.definition.name = L"t";
  t.definition.identityProperty = L"id";
  t.definition.defaultGeometryProperty = L"g";
  t.definition.properties = {Prop(L"id", kel::FeaturePropertyType::Int64), Prop(L"a", kel::FeaturePropertyType::String),
                             Prop(L"b", kel::FeaturePropertyType::Double), Prop(L"c", kel::FeaturePropertyType::Int32),
                             Prop(L"\"x'\\", kel::FeaturePropertyType::String),
                             Prop(L"g", kel::FeaturePropertyType::Geometry)};
  t.dialect = dialect;
  if (dialect != kel::FdoSqlDialect::OgrSql) t.identityColumn = L"id";
  if (dialect == kel::FdoSqlDialect::Sqlite) t.spatialIndexTable = L"rtree_t_g";
  return t;
}

sqlite3* Database() {
  static sqlite3* db = [] {
    sqlite3* d = nullptr;
    sqlite3_open(":memory:", &d);
    sqlite3_exec(d, "CREATE TABLE t (id INTEGER PRIMARY KEY, a TEXT, b REAL, c INTEGER, \"\"\"x'\\\" TEXT, g BLOB);"
                    "CREATE VIRTUAL TABLE rtree_t_g USING rtree(id, minx, maxx, miny, maxy);",
                 nullptr, nullptr, nullptr);
    return d;
  }();
  return db;
}

bool SqliteAccepts(const std::string& where) {
  sqlite3_stmt* st = nullptr;
  const std::string sql = "SELECT id FROM t WHERE " + where;
  const int rc = sqlite3_prepare_v2(Database(), sql.c_str(), static_cast<int>(sql.size()), &st, nullptr);
  sqlite3_finalize(st);
  // Deep but valid nesting may exhaust SQLite's parser; that is a refusal
  // the store reports, not broken text.
  return rc == SQLITE_OK || std::strstr(sqlite3_errmsg(Database()), "parser stack overflow") != nullptr;
}

bool GdalAccepts(const std::string& where, bool withIdField) {
  OGRFeatureDefn* defn = new OGRFeatureDefn("t");
  defn->Reference();
  for (const char* name : {"a", "b", "c", "\"x'\\"}) {
    OGRFieldDefn f(name, name[0] == 'b' ? OFTReal : name[0] == 'c' ? OFTInteger : OFTString);
    defn->AddFieldDefn(&f);
  }
  if (withIdField) {
    OGRFieldDefn f("id", OFTInteger64);
    defn->AddFieldDefn(&f);
  }
  OGRFeatureQuery query;
  CPLPushErrorHandler(CPLQuietErrorHandler);
  CPLErrorReset();
  const bool ok = query.Compile(defn, where.c_str()) == OGRERR_NONE;
  // Type mismatches ("c" < 'text') are the filter's fault and refused at run
  // time; only text GDAL cannot even read is broken quoting.
  const std::string message = CPLGetLastErrorMsg();
  CPLPopErrorHandler();
  defn->Release();
  return ok || (message.find("Parsing Error") == std::string::npos &&
                message.find("end-of-string") == std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool silenced = [] {
    kel::Log::getKELLogger().setLogLevel(log4cplus::OFF_LOG_LEVEL);
    return true;
  }();
  (void)silenced;
  const std::wstring text = kel::Utf8String2WString(std::string_view(reinterpret_cast<const char*>(data), size));
  kel::FdoFilterPtr filter = kel::FdoFilterUtil::Parse(text);
  if (!filter) return 0;
  const std::wstring canonical = filter->ToText();
  kel::FdoFilterPtr again = kel::FdoFilterUtil::Parse(canonical);
  if (!again || !again->equals(*filter) || again->ToText() != canonical) std::abort();

  for (auto dialect : {kel::FdoSqlDialect::Sqlite, kel::FdoSqlDialect::PostgreSql, kel::FdoSqlDialect::OgrSql,
                       kel::FdoSqlDialect::Portable}) {
    kel::FdoFilterParser parser(Target(dialect));
    kel::FdoQuery query;
    if (!parser.Parse(filter, query) || query.where.empty()) continue;
    if ((dialect == kel::FdoSqlDialect::Sqlite || dialect == kel::FdoSqlDialect::Portable) &&
        !SqliteAccepts(query.where))
      std::abort();
    if ((dialect == kel::FdoSqlDialect::OgrSql || dialect == kel::FdoSqlDialect::Portable) &&
        !GdalAccepts(query.where, dialect == kel::FdoSqlDialect::Portable))
      std::abort();
  }
  return 0;
}
