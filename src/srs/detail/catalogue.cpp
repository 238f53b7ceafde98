#include "srs/detail/catalogue.h"

#include <algorithm>
#include <cstdlib>
#include <set>

#include <sqlite3.h>

#include "kel/core/log.h"
#include "srs/detail/code_table.h"
#include "srs/detail/proj_support.h"

namespace kel::detail {
namespace {

using Info = SRSUtils::CoordSysInfo;

void Warn(const std::wstring& message) { KEL_LOG_WARN(L"Coordinate system error: " + message); }

// EPSG code -> regions of its areas of use. PROJ's API hands out only an
// area's long description ("Between 6°E and 12°E, northern hemisphere ...");
// the short extent names ("World - N hemisphere - 6°E to 12°E") that group
// well are in its database, which is SQLite.
std::map<std::string, std::set<std::wstring>> RegionsOfEpsgSystems(PJ_CONTEXT* ctx) {
  std::map<std::string, std::set<std::wstring>> regions;
  const char* path = proj_context_get_database_path(ctx);
  sqlite3* db = nullptr;
  if (path == nullptr || sqlite3_open_v2(path, &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    Warn(L"cannot open PROJ's database " + FromProj(path));
    sqlite3_close(db);
    return regions;
  }
  constexpr const char* kQuery =
      "SELECT u.object_code, e.name FROM usage u JOIN extent e"
      " ON e.auth_name = u.extent_auth_name AND e.code = u.extent_code"
      " WHERE u.object_auth_name = 'EPSG' AND u.object_table_name IN ('geodetic_crs', 'projected_crs')";
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, kQuery, -1, &stmt, nullptr) != SQLITE_OK) {
    Warn(L"unexpected layout of PROJ's database: " + FromProj(sqlite3_errmsg(db)));
  } else {
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      const auto* code = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
      const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1));
      if (code != nullptr) regions[code].insert(RegionOf(name));
    }
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return regions;
}

Catalogue Build() {
  Catalogue cat;
  PJ_CONTEXT* ctx = ThreadContext();
  PROJ_CRS_LIST_PARAMETERS* params = proj_get_crs_list_parameters_create();
  PJ_TYPE types[] = {PJ_TYPE_GEOGRAPHIC_2D_CRS, PJ_TYPE_PROJECTED_CRS};
  params->types = types;
  params->typesCount = 2;
  params->allow_deprecated = 0;
  int count = 0;
  PROJ_CRS_INFO** list = proj_get_crs_info_list_from_database(ctx, "EPSG", params, &count);
  proj_get_crs_list_parameters_destroy(params);
  if (list == nullptr) {
    Warn(TakeProjError(ctx));
    return cat;
  }
  const auto regionsOf = RegionsOfEpsgSystems(ctx);
  std::map<std::wstring, Info> tableEntries;
  std::map<std::wstring, std::vector<Info>> regions;  // alphabetical
  for (int i = 0; i < count; ++i) {
    const PROJ_CRS_INFO& crs = *list[i];
    Info info;
    info.Code = LibraryCodeOfEpsg(std::atoi(crs.code));
    if (info.Code.empty()) info.Code = L"EPSG:" + FromProj(crs.code);
    info.Projection = crs.projection_method_name != nullptr ? FromProj(crs.projection_method_name)
                                                            : std::wstring(L"Geographic");
    info.Description = FromProj(crs.name);
    if (EpsgOfLibraryCode(info.Code) != 0) tableEntries[info.Code] = info;
    auto found = regionsOf.find(crs.code);
    if (found == regionsOf.end()) {
      regions[L"Other"].push_back(info);
      continue;
    }
    for (const std::wstring& region : found->second) regions[region].push_back(info);
  }
  proj_crs_info_list_destroy(list);

  for (const CodeGroup& group : LibraryCodeGroups()) {
    std::vector<Info>& entries = cat.entries[group.name];
    for (const std::wstring& code : group.codes) {
      if (auto it = tableEntries.find(code); it != tableEntries.end()) entries.push_back(it->second);
      else if (const char* wkt = NonEarthWkt(code)) {
        PjPtr crs(proj_create(ctx, wkt));
        entries.push_back({code, L"Non-earth", crs ? FromProj(proj_get_name(crs.get())) : code});
      }
    }
    cat.categories.push_back(group.name);
  }
  for (auto& [region, entries] : regions) {
    cat.categories.push_back(region);
    cat.entries[region] = std::move(entries);
  }
  for (const std::wstring& category : cat.categories)
    for (const Info& info : cat.entries[category]) cat.categoriesOfCode[info.Code].push_back(category);
  return cat;
}

}  // namespace

const Catalogue& TheCatalogue() {
  // Built once and kept to the end of the process, like the registry.
  static const Catalogue* catalogue = new Catalogue(Build());
  return *catalogue;
}

std::wstring RegionOf(const char* extentName) {
  if (extentName == nullptr || *extentName == '\0') return L"Other";
  std::string name = extentName;
  const auto dash = name.find(" - ");
  if (dash != std::string::npos) name.resize(dash);
  return FromProj(name.c_str());
}

}  // namespace kel::detail
