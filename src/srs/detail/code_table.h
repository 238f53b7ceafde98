// The library's own coordinate-system codes and what they stand for. The
// inline helpers are pure text and arithmetic (tests call them directly).
//
//   "LL84"                  EPSG:4326    "WGS84.PseudoMercator"  EPSG:3857
//   "UTM84-<1..60><N|S>"    EPSG:326zz (N) and EPSG:327zz (S)
//   "LL83"                  EPSG:4269    "UTM83-<1..23>"         EPSG:269zz
//   "LL27"                  EPSG:4267    "UTM27-<1..22>"         EPSG:267zz
//   "NERTH", "NERTH-SRT"    non-earth Cartesian systems in metres
//
// EPSG defines NAD83 UTM zones 1 to 23 and NAD27 zones 1 to 22 under those
// numbers; the codes just above them are state planes, not UTM zones.
// Zones are written without leading zeros, exactly as above.
#pragma once

#include <cmath>
#include <string>
#include <string_view>
#include <vector>

namespace kel::detail {

inline constexpr int kUtm83Zones = 23;
inline constexpr int kUtm27Zones = 22;

// A zone number without sign or leading zero, within [1, last]; 0 otherwise.
inline int ParseZone(std::wstring_view digits, int last) {
  if (digits.empty() || digits.size() > 2 || digits[0] == L'0') return 0;
  int zone = 0;
  for (wchar_t c : digits) {
    if (c < L'0' || c > L'9') return 0;
    zone = zone * 10 + (c - L'0');
  }
  return zone <= last ? zone : 0;
}

// The EPSG number behind a library code, 0 when `code` is not one (the
// non-earth codes have none).
inline int EpsgOfLibraryCode(std::wstring_view code) {
  if (code == L"LL84") return 4326;
  if (code == L"LL83") return 4269;
  if (code == L"LL27") return 4267;
  if (code == L"WGS84.PseudoMercator") return 3857;
  const std::wstring_view prefix = code.substr(0, 6);
  if (prefix == L"UTM84-" && code.size() > 7) {
    const wchar_t hemisphere = code.back();
    if (hemisphere != L'N' && hemisphere != L'S') return 0;
    const int zone = ParseZone(code.substr(6, code.size() - 7), 60);
    return zone == 0 ? 0 : (hemisphere == L'N' ? 32600 : 32700) + zone;
  }
  if (prefix == L"UTM83-") {
    const int zone = ParseZone(code.substr(6), kUtm83Zones);
    return zone == 0 ? 0 : 26900 + zone;
  }
  if (prefix == L"UTM27-") {
    const int zone = ParseZone(code.substr(6), kUtm27Zones);
    return zone == 0 ? 0 : 26700 + zone;
  }
  return 0;
}

// The library code of an EPSG number, "" when the table has none.
inline std::wstring LibraryCodeOfEpsg(int epsg) {
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

// WKT of the engineering system behind "NERTH" or "NERTH-SRT", else null.
// Its name is the catalogue's description.
const char* NonEarthWkt(std::wstring_view code);
inline constexpr const wchar_t* kNonEarthCodes[] = {L"NERTH", L"NERTH-SRT"};

// The table's codes in browsing groups ("UTM, WGS84", ...), in table order.
struct CodeGroup {
  std::wstring name;
  std::vector<std::wstring> codes;
};
const std::vector<CodeGroup>& LibraryCodeGroups();

// The best-fitting WGS84 UTM zone of a longitude: 1 - trunc((lon + 180) * -1/6),
// so zones start at 1 from -180 and nothing is clamped (180 gives 61, -186
// gives 0).
inline double Utm84Zone(double longitude) {
  return 1.0 - std::trunc((longitude + 180.0) * -0.16666666666666666);
}

// "UTM84-<zone><N|S>" for a centre in longitude and latitude; latitude 0
// counts as south. Empty when the zone is not a finite number.
inline std::wstring Utm84CodeAt(double longitude, double latitude) {
  const double zone = Utm84Zone(longitude);
  if (!(std::fabs(zone) < 1e15)) return {};
  return L"UTM84-" + std::to_wstring(static_cast<long long>(zone)) + (latitude > 0.0 ? L"N" : L"S");
}

// Four or five digits after an optional, case-sensitive "EPSG:".
inline bool IsEpsgCode(std::wstring_view s) {
  if (s.substr(0, 5) == L"EPSG:") s.remove_prefix(5);
  if (s.size() != 4 && s.size() != 5) return false;
  for (wchar_t c : s)
    if (c < L'0' || c > L'9') return false;
  return true;
}

}  // namespace kel::detail
