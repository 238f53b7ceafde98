// One spatial reference system, created from a code or a definition and
// shared for the life of the process. Thin over PROJ, which does the
// geodesy: this class owns the caching, the library's code table, the
// derived quantities and the error policy. Nothing here throws: creation
// failures give an empty pointer, getters an empty result plus the warning
// "Coordinate system error: <Getter>(<code>): <PROJ's error>".
//
// Accepted by Create: the library's own codes ("LL84", "UTM84-32N", "LL83",
// "UTM83-17", "LL27", "UTM27-10", "WGS84.PseudoMercator", "NERTH",
// "NERTH-SRT"), "AUTH:CODE" of PROJ's database (EPSG, ESRI, IGNF, ...), bare
// EPSG numbers of four or five digits, WKT1, WKT2, PROJJSON and PROJ strings
// (a PROJ string needs no "+type=crs"). Axes are always taken easting or
// longitude first, whatever order the definition gives them.
//
// Thread safety: Create and the getters may be called from any thread at
// once (each thread queries its own PROJ copy of the system). SetUnitCode
// changes a system that the registry shares: call it before other threads
// see the system.
#pragma once

#include <memory>
#include <string>

#include "kel/core/enumerate.h"
#include "kel/core/types.h"
#include "kel/export.h"
#include "kel/settings/unit_converter.h"

namespace kel {

namespace detail {
struct ProjSystem;
}

class KEL_API SRSCoordSys {
public:
  // EPSG unit-of-measure codes, shared with UnitConverter.
  using UnitCode = kel::UnitCode;

  // The same object for the same text, character for character, for the
  // life of the process; a text that failed once stays failed (and empty).
  // A four- or five-digit EPSG number, bare or after "EPSG:", goes through
  // SRSUtils::ConvertEpsgToMentorCode first, so "4326" gives "LL84"'s
  // object. A system made from a definition whose own code is known is also
  // registered under that code: Create(its code) returns the same object.
  static std::shared_ptr<SRSCoordSys> Create(const std::wstring& codeOrWkt);

  SRSCoordSys(const SRSCoordSys& other);
  SRSCoordSys& operator=(const SRSCoordSys& other);
  ~SRSCoordSys();

  // The library code when the system is in the table, else "AUTH:CODE" as
  // PROJ identifies it with full confidence, else "".
  std::wstring GetCode() const;
  std::wstring GetDescription() const;
  // The browsing groups of SRSUtils::GetCategories that hold this system:
  // its table group first (if any), then the region of its area of use.
  void GetCategories(IEnumerate<const wchar_t*>& sink) const;
  // The horizontal unit as PROJ names it ("metre", "degree", "US survey foot").
  std::wstring GetUnits() const;
  // Metres per unit; for every geographic system the fixed 111325.0 (metres
  // per degree at the equator), whatever its angular unit. 0 on failure.
  double GetUnitScale() const;
  // The horizontal unit's EPSG code; Unknown when PROJ gives none.
  UnitCode GetUnitCode() const;
  // Gives the system (the object every holder shares) the unit `code` for
  // its horizontal axes: a length for projected and engineering systems, an
  // angle for geographic ones. Coordinates are then read in that unit; the
  // code and description stay. A unit of the wrong kind or one UnitConverter
  // does not know leaves the system as it was, with the getter warning.
  void SetUnitCode(UnitCode code);
  // The area of use in the system's own coordinates (easting/longitude
  // first); the empty box (+max/-max) when PROJ knows none, as for the
  // non-earth systems.
  BBox<2, double> GetBoundary() const;
  // WKT2 (2019), one line.
  std::wstring GetWkt() const;
  // Decimal places that express 10^exponent metres in the system's units:
  // floor(log10(unit scale)) - exponent, at least 0. Metres with -3 give 3,
  // geographic systems with -3 give 8.
  int GetPrecision(int exponent) const;

  bool IsGeographic() const;
  // True for the engineering (non-earth) systems such as "NERTH".
  bool IsArbitrary() const;
  // PROJ's equivalence test (axis order of geographic systems ignored);
  // false for null.
  bool IsSameAs(const SRSCoordSys* other) const;
  // Same, or PROJ finds a transform from this system to `other`.
  bool IsCompatibleWith(const SRSCoordSys* other) const;

  // "UTM84-<zone><N|S>" for the centre of `box` (given in this system's
  // coordinates) taken to longitude/latitude. A system that cannot reach
  // "LL84" is taken at (0, 0), which gives "UTM84-31S". Zones are not
  // clamped, so a centre outside -180..180 gives an empty pointer.
  std::shared_ptr<SRSCoordSys> GetBestFittingUTM84Projection(const BBox<2, double>& box) const;

private:
  friend class SRSTransform;
  SRSCoordSys(std::shared_ptr<detail::ProjSystem> system, const std::wstring& wkt);
  static std::shared_ptr<SRSCoordSys> CreateCS(const std::wstring& codeOrWkt);

  std::shared_ptr<detail::ProjSystem> system_;
  std::wstring wkt_;  // the text it was made from; empty when made from a code
};

}  // namespace kel
