#include "srs/detail/code_table.h"

#include <cstdlib>

namespace kel::detail {
namespace {

constexpr int kUtm83Zones = 23;
constexpr int kUtm27Zones = 22;

// A zone number without sign or leading zero, within [1, last]; 0 otherwise.
int ParseZone(std::wstring_view digits, int last) {
  if (digits.empty() || digits.size() > 2 || digits[0] == L'0') return 0;
  int zone = 0;
  for (wchar_t c : digits) {
    if (c < L'0' || c > L'9') return 0;
    zone = zone * 10 + (c - L'0');
  }
  return zone <= last ? zone : 0;
}

bool StartsWith(std::wstring_view s, std::wstring_view prefix) { return s.substr(0, prefix.size()) == prefix; }

// Engineering systems: PROJ finds no operation between two of them, not even
// between a system and itself, which is what "non-earth" should mean.
constexpr const char* kNerthWkt =
    "ENGCRS[\"Non-earth Cartesian system in metres\",EDATUM[\"NERTH\"],CS[Cartesian,2],"
    "AXIS[\"easting (X)\",east,ORDER[1],LENGTHUNIT[\"metre\",1]],"
    "AXIS[\"northing (Y)\",north,ORDER[2],LENGTHUNIT[\"metre\",1]]]";
constexpr const char* kNerthSrtWkt =
    "ENGCRS[\"Non-earth Cartesian system in metres (SRT)\",EDATUM[\"NERTH-SRT\"],CS[Cartesian,2],"
    "AXIS[\"easting (X)\",east,ORDER[1],LENGTHUNIT[\"metre\",1]],"
    "AXIS[\"northing (Y)\",north,ORDER[2],LENGTHUNIT[\"metre\",1]]]";

}  // namespace

int EpsgOfLibraryCode(std::wstring_view code) {
  if (code == L"LL84") return 4326;
  if (code == L"LL83") return 4269;
  if (code == L"LL27") return 4267;
  if (code == L"WGS84.PseudoMercator") return 3857;
  if (StartsWith(code, L"UTM84-") && code.size() > 7) {
    const wchar_t hemisphere = code.back();
    if (hemisphere != L'N' && hemisphere != L'S') return 0;
    const int zone = ParseZone(code.substr(6, code.size() - 7), 60);
    if (zone == 0) return 0;
    return (hemisphere == L'N' ? 32600 : 32700) + zone;
  }
  if (StartsWith(code, L"UTM83-")) {
    const int zone = ParseZone(code.substr(6), kUtm83Zones);
    return zone == 0 ? 0 : 26900 + zone;
  }
  if (StartsWith(code, L"UTM27-")) {
    const int zone = ParseZone(code.substr(6), kUtm27Zones);
    return zone == 0 ? 0 : 26700 + zone;
  }
  return 0;
}

std::wstring LibraryCodeOfEpsg(int epsg) {
  switch (epsg) {
    case 4326: return L"LL84";
    case 4269: return L"LL83";
    case 4267: return L"LL27";
    case 3857: return L"WGS84.PseudoMercator";
    default: break;
  }
  if (epsg > 32600 && epsg <= 32660) return L"UTM84-" + std::to_wstring(epsg - 32600) + L"N";
  if (epsg > 32700 && epsg <= 32760) return L"UTM84-" + std::to_wstring(epsg - 32700) + L"S";
  if (epsg > 26900 && epsg <= 26900 + kUtm83Zones) return L"UTM83-" + std::to_wstring(epsg - 26900);
  if (epsg > 26700 && epsg <= 26700 + kUtm27Zones) return L"UTM27-" + std::to_wstring(epsg - 26700);
  return {};
}

const char* NonEarthWkt(std::wstring_view code) {
  if (code == kNonEarthCodes[0]) return kNerthWkt;
  if (code == kNonEarthCodes[1]) return kNerthSrtWkt;
  return nullptr;
}

const std::vector<CodeGroup>& LibraryCodeGroups() {
  static const std::vector<CodeGroup> groups = [] {
    std::vector<CodeGroup> g;
    g.push_back({L"Latitude/longitude", {L"LL84", L"LL83", L"LL27"}});
    CodeGroup utm84{L"UTM, WGS84", {}};
    for (const wchar_t* h : {L"N", L"S"})
      for (int z = 1; z <= 60; ++z) utm84.codes.push_back(L"UTM84-" + std::to_wstring(z) + h);
    g.push_back(std::move(utm84));
    CodeGroup utm83{L"UTM, NAD83", {}};
    for (int z = 1; z <= kUtm83Zones; ++z) utm83.codes.push_back(L"UTM83-" + std::to_wstring(z));
    g.push_back(std::move(utm83));
    CodeGroup utm27{L"UTM, NAD27", {}};
    for (int z = 1; z <= kUtm27Zones; ++z) utm27.codes.push_back(L"UTM27-" + std::to_wstring(z));
    g.push_back(std::move(utm27));
    g.push_back({L"Web mapping", {L"WGS84.PseudoMercator"}});
    g.push_back({L"Non-earth", {kNonEarthCodes[0], kNonEarthCodes[1]}});
    return g;
  }();
  return groups;
}

}  // namespace kel::detail
