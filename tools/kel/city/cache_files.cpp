#include "city/cache_files.h"

#include <cerrno>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace city {
namespace {

constexpr const char* kHeader = "#ORB_ModelSettings_V1.0";

// Shortest text that reads back to the same double, whatever the locale.
std::string Number(double v) {
  char buf[40];
  for (int precision = 15; precision <= 17; ++precision) {
    std::snprintf(buf, sizeof buf, "%.*g", precision, v);
    if (std::strtod(buf, nullptr) == v) break;
  }
  // A locale with a decimal comma would have written one.
  for (char* p = buf; *p; ++p)
    if (*p == ',') *p = '.';
  return buf;
}

// Whole words as finite numbers; false on anything else.
bool Numbers(const std::string& text, double* out, int n) {
  std::istringstream in(text);
  in.imbue(std::locale::classic());
  for (int i = 0; i < n; ++i) {
    std::string word;
    if (!(in >> word)) return false;
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(word.c_str(), &end);
    if (end != word.c_str() + word.size() || errno == ERANGE || !std::isfinite(v)) return false;
    out[i] = v;
  }
  std::string rest;
  return !(in >> rest);
}

std::string Trim(const std::string& s) {
  const auto a = s.find_first_not_of(" \t\r");
  if (a == std::string::npos) return "";
  const auto b = s.find_last_not_of(" \t\r");
  return s.substr(a, b - a + 1);
}

bool ReadFile(const std::string& path, std::string& out) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return false;
  out.assign(std::istreambuf_iterator<char>(f), {});
  return !f.bad();
}

void Write(const std::string& path, const std::string& text) {
  kel::AtomicFile file(path);
  file.write(text);
  file.commit();
}

std::string Join(const std::string& root, const char* name) { return root + "/" + name; }

}  // namespace

std::string ModelSettingsText(const ModelSettings& s) {
  return std::string(kHeader) + "\nOffset = " + Number(s.offset.x()) + " " + Number(s.offset.y()) + " " +
         Number(s.offset.z()) + "\nSRS = " + kel::WString2Utf8String(s.srs) + "\n";
}

bool ParseModelSettings(const std::string& text, ModelSettings& out, std::string& error) {
  std::istringstream in(text);
  std::string line;
  if (!std::getline(in, line) || Trim(line) != kHeader) {
    error = "not a model settings file: the first line is not \"" + std::string(kHeader) + "\"";
    return false;
  }
  bool offset = false, srs = false;
  ModelSettings s;
  while (std::getline(in, line)) {
    line = Trim(line);
    if (line.empty() || line[0] == '#') continue;
    const auto eq = line.find('=');
    if (eq == std::string::npos) continue;  // not ours to judge
    const std::string key = Trim(line.substr(0, eq)), value = Trim(line.substr(eq + 1));
    if (key == "Offset") {
      double v[3];
      if (!Numbers(value, v, 3)) {
        error = "Offset needs three numbers: \"" + value + "\"";
        return false;
      }
      s.offset = kel::Vec3d(v[0], v[1], v[2]);
      offset = true;
    } else if (key == "SRS") {
      s.srs = kel::Utf8String2WString(value);
      srs = true;
    }
  }
  if (!offset || !srs) {
    error = std::string("model settings without ") + (offset ? "SRS" : "Offset");
    return false;
  }
  out = s;
  return true;
}

std::string DescriptionText(const CityDescription& d) {
  // Keys in order, one "key=value" line each: the property-bag encoding.
  kel::PropertyBag::Map map;
  auto put = [&](const wchar_t* key, const std::string& value) { map[key] = kel::Utf8String2WString(value); };
  map[L"name"] = d.name;
  put(L"origin", Number(d.origin.x()) + " " + Number(d.origin.y()) + " " + Number(d.origin.z()));
  put(L"tileSize", Number(d.tileSize));
  put(L"levels", std::to_string(d.levels));
  put(L"extent", Number(d.extent.min.x()) + " " + Number(d.extent.min.y()) + " " + Number(d.extent.min.z()) + " " +
                     Number(d.extent.max.x()) + " " + Number(d.extent.max.y()) + " " + Number(d.extent.max.z()));
  put(L"buildings", std::to_string(d.buildings));
  map[L"parameters"] = d.parameters;
  return kel::WString2Utf8String(kel::PropertyBag::Encode(map)) + "\n";
}

bool ParseDescription(const std::string& text, CityDescription& out, std::string& error) {
  kel::PropertyBag::Map map;
  if (!kel::PropertyBag::Decode(kel::Utf8String2WString(text), map)) {
    error = "not a city description: a line without '='";
    return false;
  }
  auto get = [&](const wchar_t* key, std::string& value) {
    const auto it = map.find(key);
    if (it == map.end()) {
      error = "city description without " + kel::WString2Utf8String(key);
      return false;
    }
    value = kel::WString2Utf8String(it->second);
    return true;
  };
  auto bad = [&](const char* what) {
    if (error.empty()) error = std::string("city description with a bad ") + what;
    return false;
  };
  CityDescription d;
  std::string v;
  double n[6];
  if (!get(L"origin", v) || !Numbers(v, n, 3)) return bad("origin");
  d.origin = kel::Vec3d(n[0], n[1], n[2]);
  if (!get(L"tileSize", v) || !Numbers(v, n, 1) || !(n[0] > 0)) return bad("tileSize");
  d.tileSize = n[0];
  if (!get(L"levels", v) || !Numbers(v, n, 1) || n[0] < 1 || n[0] > 30 || n[0] != std::floor(n[0]))
    return bad("levels");
  d.levels = int(n[0]);
  if (!get(L"extent", v) || !Numbers(v, n, 6)) return bad("extent");
  d.extent = kel::BBox<3, double>(kel::Vec3d(n[0], n[1], n[2]), kel::Vec3d(n[3], n[4], n[5]));
  if (get(L"buildings", v) && Numbers(v, n, 1) && n[0] >= 0 && n[0] < 9e15) d.buildings = std::int64_t(n[0]);
  error.clear();
  if (const auto it = map.find(L"name"); it != map.end() && !it->second.empty()) d.name = it->second;
  if (const auto it = map.find(L"parameters"); it != map.end()) d.parameters = it->second;
  out = d;
  return true;
}

bool ReadModelSettings(const std::string& root, ModelSettings& out, std::string& error) {
  std::string text;
  if (!ReadFile(Join(root, kModelSettingsFile), text)) {
    error = "cannot read " + Join(root, kModelSettingsFile);
    return false;
  }
  return ParseModelSettings(text, out, error);
}

bool ReadDescription(const std::string& root, CityDescription& out, std::string& error) {
  std::string text;
  if (!ReadFile(Join(root, kDescriptionFile), text)) {
    error = "cannot read " + Join(root, kDescriptionFile) + " (not a city cache?)";
    return false;
  }
  return ParseDescription(text, out, error);
}

void WriteModelSettings(const std::string& root, const ModelSettings& settings) {
  const std::string path = Join(root, kModelSettingsFile), text = ModelSettingsText(settings);
  std::string old;
  if (ReadFile(path, old) && old == text) return;
  Write(path, text);
}

bool WriteDescriptionIfChanged(const std::string& root, const CityDescription& d) {
  const std::string path = Join(root, kDescriptionFile), text = DescriptionText(d);
  std::string old;
  if (ReadFile(path, old) && old == text) return false;
  Write(path, text);
  return true;
}

kel::TileSetInfo TileSetOf(const CityDescription& d) {
  kel::TileSetInfo set;
  set.name = d.name;
  set.origin = d.origin;
  set.tileSize = d.tileSize;
  set.extent = d.extent;
  return set;
}

}  // namespace city
