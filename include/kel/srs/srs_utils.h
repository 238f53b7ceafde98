// The coordinate-system catalogue: browsing groups, validation and
// conversions between codes, definitions and EPSG numbers, over PROJ's
// database. All static, callable from any thread; failures give the empty
// result ("", false, nothing enumerated) and, where PROJ reported a failure,
// the warning "Coordinate system error: <PROJ's error>".
//
// The groups: the library's own codes ("Latitude/longitude", "UTM, WGS84",
// "UTM, NAD83", "UTM, NAD27", "Web mapping", "Non-earth") first, then PROJ's
// non-deprecated EPSG geographic 2D and projected systems grouped by the
// region their area of use starts with ("Germany", "USA", "World", ...),
// alphabetically. Systems the table knows are listed under its code.
#pragma once

#include <memory>
#include <string>

#include "kel/core/enumerate.h"
#include "kel/export.h"

namespace kel {

class SRSCoordSys;

class KEL_API SRSUtils final {
public:
  SRSUtils() = delete;

  // One catalogue entry.
  struct CoordSysInfo {
    std::wstring Code;         // "UTM84-32N", "EPSG:25832"
    std::wstring Projection;   // PROJ's method name, "Geographic" or "Non-earth"
    std::wstring Description;  // the system's name
  };

  // Reads the catalogue from PROJ's database once per process (a fraction of
  // a second); the enumerations below call it themselves.
  static void LoadCoordinateSystems();
  static void GetCategories(IEnumerate<const wchar_t*>& sink);
  // Entries of one group in catalogue order; nothing for an unknown group.
  static void GetCoordinateSystems(const std::wstring& category, IEnumerate<CoordSysInfo>& sink);
  // True when SRSCoordSys::Create would make a system of `codeOrWkt` (the
  // registry is neither read nor filled).
  static bool IsValid(const std::wstring& codeOrWkt);
  // False if either is empty; true for equal codes; else whether
  // SRSTransform::Create(a, b) gives a transform.
  static bool CanTransform(const std::shared_ptr<SRSCoordSys>& a, const std::shared_ptr<SRSCoordSys>& b);
  // The definition's code as SRSCoordSys::GetCode would give it.
  static std::wstring ConvertWktToCoordinateSystemCode(const std::wstring& wkt);
  // WKT2 (2019), one line, of a code.
  static std::wstring ConvertCoordinateSystemCodeToWkt(const std::wstring& code);
  // An EPSG number, bare or after "EPSG:", to the table's code ("4326" gives
  // "LL84"); "EPSG:<n>" when PROJ's database knows the number and the table
  // does not; "" when neither does.
  static std::wstring ConvertEpsgToMentorCode(const std::wstring& epsg);
};

}  // namespace kel
