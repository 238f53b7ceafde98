#include "kel/features/odbc_configuration.h"

#include <cpl_conv.h>
#include <cpl_minixml.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

#include "kel/core/log.h"
#include "kel/core/path.h"
#include "kel/core/text.h"
#include "kel/core/wexception.h"

namespace kel {

namespace {

struct XmlDeleter {
  void operator()(CPLXMLNode* n) const { CPLDestroyXMLNode(n); }
};
using XmlPtr = std::unique_ptr<CPLXMLNode, XmlDeleter>;

constexpr std::size_t kMaxFileBytes = 16u << 20;  // configuration files are small; refuse anything huge

// Reads a whole file. A missing file is empty unless `mustExist`; one that
// exists but cannot be read is always an error (writing over it would lose
// what it holds).
bool ReadFile(const std::wstring& path, std::string& out, bool mustExist) {
  out.clear();
  const std::string native = File::NativePath(path);
  std::error_code ec;
  if (!mustExist && !std::filesystem::exists(native, ec) && !ec) return true;
  std::ifstream in(native, std::ios::binary);
  if (!in || !std::filesystem::is_regular_file(native, ec)) {
    KEL_LOG_ERROR(L"Cannot read " + path);
    return false;
  }
  try {
    out.assign(std::istreambuf_iterator<char>(in), {});
  } catch (const std::exception&) {
    KEL_LOG_ERROR(L"Cannot read " + path);
    return false;
  }
  if (out.size() > kMaxFileBytes) {
    KEL_LOG_ERROR(L"Refusing to read " + path + L": larger than a configuration file can be");
    return false;
  }
  return true;
}

bool HasControl(const std::wstring& s) {
  for (wchar_t c : s)
    if (c < 0x20 || c == 0x7F) return true;
  return false;
}

bool Trimmed(const std::wstring& s) { return s.empty() || (s.front() != L' ' && s.back() != L' '); }

bool Refuse(const std::wstring& what, const std::wstring& value) {
  KEL_LOG_ERROR(L"ODBC configuration: " + what + L": '" + value + L"'");
  return false;
}

std::wstring Lower(std::wstring s) {
  for (wchar_t& c : s)
    if (c >= L'A' && c <= L'Z') c = static_cast<wchar_t>(c + 32);
  return s;
}

// ---- the schema file ----

const struct {
  FeatureGeometryType type;
  const char* name;
} kGeometryNames[] = {
    {FeatureGeometryType::Unknown, "wkbUnknown"},
    {FeatureGeometryType::Point, "wkbPoint"},
    {FeatureGeometryType::LineString, "wkbLineString"},
    {FeatureGeometryType::Polygon, "wkbPolygon"},
    {FeatureGeometryType::MultiPoint, "wkbMultiPoint"},
    {FeatureGeometryType::MultiLineString, "wkbMultiLineString"},
    {FeatureGeometryType::MultiPolygon, "wkbMultiPolygon"},
    {FeatureGeometryType::MultiGeometry, "wkbGeometryCollection"},
};

std::string GeometryTypeName(FeatureGeometryType type, bool hasZ) {
  for (const auto& g : kGeometryNames)
    if (g.type == type) return std::string(g.name) + (hasZ && type != FeatureGeometryType::Unknown ? "25D" : "");
  return "wkbUnknown";
}

bool ParseGeometryTypeName(std::string name, FeatureGeometryType& type, bool& hasZ) {
  hasZ = name.size() > 3 && name.compare(name.size() - 3, 3, "25D") == 0;
  if (hasZ) name.resize(name.size() - 3);
  for (const auto& g : kGeometryNames)
    if (EQUAL(name.c_str(), g.name)) {
      type = g.type;
      return true;
    }
  return false;
}

std::string U(const std::wstring& s) { return WString2Utf8String(s); }
std::wstring W(const char* s) { return s ? Utf8String2WString(s) : std::wstring(); }

bool CheckDataSourceName(const std::wstring& dsn) {
  // The characters ODBC reserves in names, and '/' which GDAL's "ODBC:"
  // syntax reads as the user/password separator.
  if (dsn.empty() || dsn.size() > 32 || HasControl(dsn) || !Trimmed(dsn) ||
      dsn.find_first_of(L"[]{}(),;?*=!@/\\") != std::wstring::npos)
    return Refuse(L"not a usable data source name (1 to 32 characters, none of []{}(),;?*=!@/\\)", dsn);
  return true;
}

bool CheckClasses(const std::vector<OdbcFeatureClass>& classes) {
  for (std::size_t i = 0; i < classes.size(); ++i) {
    const OdbcFeatureClass& c = classes[i];
    for (const std::wstring* s : {&c.name, &c.table, &c.idColumn, &c.xColumn, &c.yColumn, &c.zColumn,
                                  &c.geometryColumn, &c.coordinateSystem})
      if (HasControl(*s)) return Refuse(L"control character in class '" + c.name + L"'", *s);
    if (c.name.empty() || c.table.empty()) return Refuse(L"a class needs a name and a table", c.name);
    for (std::size_t j = 0; j < i; ++j)
      if (classes[j].name == c.name) return Refuse(L"two classes with one name", c.name);
    if (c.geometry == OdbcGeometryEncoding::PointFromColumns && (c.xColumn.empty() || c.yColumn.empty()))
      return Refuse(L"a point class needs its X and Y columns", c.name);
    if ((c.geometry == OdbcGeometryEncoding::Wkt || c.geometry == OdbcGeometryEncoding::Wkb) &&
        c.geometryColumn.empty())
      return Refuse(L"a WKT or WKB class needs its geometry column", c.name);
  }
  return true;
}

// ---- odbc.ini ----

bool CheckDataSource(const OdbcConfiguration& c) {
  if (!CheckDataSourceName(c.dataSourceName)) return false;
  if (c.driver.empty() || HasControl(c.driver) || !Trimmed(c.driver)) return Refuse(L"not a usable driver", c.driver);
  if (HasControl(c.description) || !Trimmed(c.description))
    return Refuse(L"not a usable description", c.description);
  for (const auto& [key, value] : c.attributes) {
    const std::wstring lower = Lower(key);
    if (key.empty() || HasControl(key) || !Trimmed(key) || key.find_first_of(L"=[]") != std::wstring::npos ||
        key[0] == L'#' || key[0] == L';' || lower == L"driver" || lower == L"description")
      return Refuse(L"not a usable key", key);
    if (HasControl(value) || !Trimmed(value)) return Refuse(L"not a usable value for " + key, value);
  }
  return true;
}


std::wstring Trim(const std::wstring& s) {
  const std::size_t a = s.find_first_not_of(L" \t\r");
  if (a == std::wstring::npos) return L"";
  const std::size_t b = s.find_last_not_of(L" \t\r");
  return s.substr(a, b - a + 1);
}

// The section name of a "[name]" line, or false.
bool SectionName(const std::wstring& line, std::wstring& name) {
  const std::wstring t = Trim(line);
  if (t.size() < 2 || t.front() != L'[' || t.back() != L']') return false;
  name = Trim(t.substr(1, t.size() - 2));
  return true;
}

std::vector<std::wstring> Lines(const std::string& text) {
  std::vector<std::wstring> lines;
  std::wstring all = Utf8String2WString(text);
  std::size_t from = 0;
  while (from < all.size()) {
    const std::size_t nl = all.find(L'\n', from);
    const std::size_t to = nl == std::wstring::npos ? all.size() : nl;
    lines.push_back(all.substr(from, to - from));
    from = to + 1;
  }
  return lines;
}

}  // namespace

bool OdbcConfiguration::WriteSchema(const std::wstring& vrtPath) const {
  if (!CheckDataSourceName(dataSourceName) || !CheckClasses(classes)) return false;
  XmlPtr root(CPLCreateXMLNode(nullptr, CXT_Element, "OGRVRTDataSource"));
  for (const OdbcFeatureClass& c : classes) {
    CPLXMLNode* layer = CPLCreateXMLNode(root.get(), CXT_Element, "OGRVRTLayer");
    CPLAddXMLAttributeAndValue(layer, "name", U(c.name).c_str());
    CPLCreateXMLElementAndValue(layer, "SrcDataSource", ("ODBC:" + U(dataSourceName)).c_str());
    CPLCreateXMLElementAndValue(layer, "SrcLayer", U(c.table).c_str());
    if (!c.idColumn.empty()) CPLCreateXMLElementAndValue(layer, "FID", U(c.idColumn).c_str());
    if (c.geometry == OdbcGeometryEncoding::None) {
      CPLCreateXMLElementAndValue(layer, "GeometryType", "wkbNone");
      continue;
    }
    const bool point = c.geometry == OdbcGeometryEncoding::PointFromColumns;
    CPLCreateXMLElementAndValue(
        layer, "GeometryType",
        GeometryTypeName(point ? FeatureGeometryType::Point : c.geometryType, point ? !c.zColumn.empty() : c.hasZ)
            .c_str());
    if (!c.coordinateSystem.empty()) CPLCreateXMLElementAndValue(layer, "LayerSRS", U(c.coordinateSystem).c_str());
    CPLXMLNode* field = CPLCreateXMLNode(layer, CXT_Element, "GeometryField");
    if (point) {
      CPLAddXMLAttributeAndValue(field, "encoding", "PointFromColumns");
      CPLAddXMLAttributeAndValue(field, "x", U(c.xColumn).c_str());
      CPLAddXMLAttributeAndValue(field, "y", U(c.yColumn).c_str());
      if (!c.zColumn.empty()) CPLAddXMLAttributeAndValue(field, "z", U(c.zColumn).c_str());
    } else {
      CPLAddXMLAttributeAndValue(field, "encoding", c.geometry == OdbcGeometryEncoding::Wkt ? "WKT" : "WKB");
      CPLAddXMLAttributeAndValue(field, "field", U(c.geometryColumn).c_str());
    }
    // The columns that make the geometry are not attributes of the class.
    CPLAddXMLAttributeAndValue(field, "reportSrcColumn", "false");
  }
  char* text = CPLSerializeXMLTree(root.get());
  const std::string xml = text ? text : "";
  CPLFree(text);
  return File::WriteAll(vrtPath, xml);
}

bool OdbcConfiguration::WriteDataSource(const std::wstring& odbcIniPath) const {
  if (!CheckDataSource(*this)) return false;
  std::string existing;
  if (!ReadFile(odbcIniPath, existing, false)) return false;
  std::wstring section = L"[" + dataSourceName + L"]\nDriver = " + driver + L"\n";
  if (!description.empty()) section += L"Description = " + description + L"\n";
  for (const auto& [key, value] : attributes) section += key + L" = " + value + L"\n";

  // Every other section stays as it was; ours replaces the first one of the
  // same name, later duplicates go.
  std::wstring out;
  bool inOurs = false, written = false;
  for (const std::wstring& line : Lines(existing)) {
    std::wstring name;
    if (SectionName(line, name)) {
      inOurs = Lower(name) == Lower(dataSourceName);
      if (inOurs && !written) {
        out += section;
        written = true;
      }
    }
    if (!inOurs) out += line + L"\n";
  }
  if (!written) {
    if (!out.empty() && out.size() >= 2 && out.substr(out.size() - 2) != L"\n\n") out += L"\n";
    out += section;
  }
  return File::WriteAll(odbcIniPath, WString2Utf8String(out));
}

bool OdbcConfiguration::Write(const std::wstring& vrtPath, const std::wstring& odbcIniPath) const {
  // Check everything first, so a refusal leaves both files untouched.
  if (!CheckDataSource(*this) || !CheckClasses(classes)) return false;
  return WriteDataSource(odbcIniPath) && WriteSchema(vrtPath);
}

bool OdbcConfiguration::ReadSchema(const std::wstring& vrtPath, OdbcConfiguration& out) {
  std::string text;
  if (!ReadFile(vrtPath, text, true)) return false;
  XmlPtr root(CPLParseXMLString(text.c_str()));
  const CPLXMLNode* ds = root ? CPLGetXMLNode(root.get(), "=OGRVRTDataSource") : nullptr;
  if (!ds) {
    KEL_LOG_ERROR(L"Not an ODBC schema file: " + vrtPath);
    return false;
  }
  OdbcConfiguration read;
  for (const CPLXMLNode* n = ds->psChild; n; n = n->psNext) {
    if (n->eType != CXT_Element || !EQUAL(n->pszValue, "OGRVRTLayer")) continue;
    OdbcFeatureClass c;
    c.name = W(CPLGetXMLValue(n, "name", ""));
    const std::string source = CPLGetXMLValue(n, "SrcDataSource", "");
    if (source.compare(0, 5, "ODBC:") != 0) {
      KEL_LOG_ERROR(L"Class '" + c.name + L"' in " + vrtPath + L" is not over an ODBC data source");
      return false;
    }
    std::wstring dsn = W(source.c_str() + 5);
    if (const std::size_t at = dsn.rfind(L'@'); at != std::wstring::npos) dsn = dsn.substr(at + 1);
    if (const std::size_t comma = dsn.find(L','); comma != std::wstring::npos) dsn.resize(comma);
    if (read.dataSourceName.empty()) read.dataSourceName = dsn;
    if (dsn != read.dataSourceName) {
      KEL_LOG_ERROR(L"The classes of " + vrtPath + L" are over different data sources");
      return false;
    }
    c.table = W(CPLGetXMLValue(n, "SrcLayer", ""));
    c.idColumn = W(CPLGetXMLValue(n, "FID", ""));
    c.coordinateSystem = W(CPLGetXMLValue(n, "LayerSRS", ""));
    const std::string type = CPLGetXMLValue(n, "GeometryType", "wkbUnknown");
    const CPLXMLNode* field = CPLGetXMLNode(n, "GeometryField");
    if (!field || EQUAL(type.c_str(), "wkbNone")) {
      c.geometry = OdbcGeometryEncoding::None;
    } else {
      const std::string encoding = CPLGetXMLValue(field, "encoding", "");
      if (EQUAL(encoding.c_str(), "PointFromColumns")) {
        c.geometry = OdbcGeometryEncoding::PointFromColumns;
        c.xColumn = W(CPLGetXMLValue(field, "x", ""));
        c.yColumn = W(CPLGetXMLValue(field, "y", ""));
        c.zColumn = W(CPLGetXMLValue(field, "z", ""));
      } else if (EQUAL(encoding.c_str(), "WKT") || EQUAL(encoding.c_str(), "WKB")) {
        c.geometry = EQUAL(encoding.c_str(), "WKT") ? OdbcGeometryEncoding::Wkt : OdbcGeometryEncoding::Wkb;
        c.geometryColumn = W(CPLGetXMLValue(field, "field", ""));
        if (!ParseGeometryTypeName(type, c.geometryType, c.hasZ)) {
          KEL_LOG_ERROR(L"Class '" + c.name + L"' in " + vrtPath + L" has an unknown geometry type");
          return false;
        }
      } else {
        KEL_LOG_ERROR(L"Class '" + c.name + L"' in " + vrtPath + L" has an unknown geometry encoding");
        return false;
      }
    }
    read.classes.push_back(std::move(c));
  }
  if (!CheckClasses(read.classes)) return false;
  out.dataSourceName = read.dataSourceName;
  out.classes = std::move(read.classes);
  return true;
}

bool OdbcConfiguration::ReadDataSource(const std::wstring& odbcIniPath, const std::wstring& dataSourceName,
                                       OdbcConfiguration& out) {
  std::string text;
  if (!ReadFile(odbcIniPath, text, true)) return false;
  OdbcConfiguration read;
  bool inOurs = false, found = false;
  for (const std::wstring& raw : Lines(text)) {
    std::wstring name;
    if (SectionName(raw, name)) {
      inOurs = !found && Lower(name) == Lower(dataSourceName);
      found |= inOurs;
      continue;
    }
    const std::wstring line = Trim(raw);
    if (!inOurs || line.empty() || line[0] == L'#' || line[0] == L';') continue;
    const std::size_t eq = line.find(L'=');
    if (eq == std::wstring::npos) continue;
    const std::wstring key = Trim(line.substr(0, eq)), value = Trim(line.substr(eq + 1));
    if (Lower(key) == L"driver") read.driver = value;
    else if (Lower(key) == L"description") read.description = value;
    else read.attributes.emplace_back(key, value);
  }
  if (!found) {
    KEL_LOG_ERROR(L"No data source '" + dataSourceName + L"' in " + odbcIniPath);
    return false;
  }
  out.dataSourceName = dataSourceName;
  out.driver = read.driver;
  out.description = read.description;
  out.attributes = std::move(read.attributes);
  return true;
}

bool OdbcConfiguration::Read(const std::wstring& vrtPath, const std::wstring& odbcIniPath, OdbcConfiguration& out) {
  OdbcConfiguration read;
  if (!ReadSchema(vrtPath, read) || !ReadDataSource(odbcIniPath, read.dataSourceName, read)) return false;
  out = std::move(read);
  return true;
}

std::wstring OdbcConfiguration::UserOdbcIniPath() {
  if (const char* ini = std::getenv("ODBCINI"); ini && *ini) return Utf8String2WString(ini);
  const char* home = std::getenv("HOME");
  return Utf8String2WString(std::string(home ? home : "") + "/.odbc.ini");
}

}  // namespace kel
