// The browsing catalogue behind SRSUtils::GetCategories and
// GetCoordinateSystems: the code table's groups, then PROJ's non-deprecated
// EPSG geographic 2D and projected systems grouped by region. Built once per
// process, read-only afterwards, so any thread may read it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "kel/srs/srs_utils.h"

namespace kel::detail {

struct Catalogue {
  std::vector<std::wstring> categories;  // browsing order
  std::map<std::wstring, std::vector<SRSUtils::CoordSysInfo>> entries;
  std::map<std::wstring, std::vector<std::wstring>> categoriesOfCode;
};

const Catalogue& TheCatalogue();

// The region an extent's name starts with ("Germany - onshore" gives
// "Germany"); "Other" when there is no name.
std::wstring RegionOf(const char* extentName);

}  // namespace kel::detail
