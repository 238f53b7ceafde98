#include "srs/detail/code_table.h"


namespace kel::detail {
namespace {

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
