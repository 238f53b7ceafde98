// Making and reading PROJ coordinate reference systems: the factory steps
// that SRSCoordSys and SRSUtils share. Every function works in the context
// it is given and leaves PROJ's error on it when it fails.
#pragma once

#include <string>
#include <string_view>

#include "srs/detail/proj_support.h"

namespace kel::detail {

// What an SRSCoordSys holds: the shared PROJ system and what it is, read once
// when it was made.
struct ProjSystem {
  ProjSystem(PjPtr master, std::wstring ownCode, bool geographic, bool arbitrary)
      : crs(std::move(master)), code(std::move(ownCode)), isGeographic(geographic),
        isArbitrary(arbitrary) {}
  SharedPj crs;
  std::wstring code;
  bool isGeographic;
  bool isArbitrary;
};

// From a library code or "AUTH:CODE"; null (with PROJ's error on ctx, or none
// when `s` has neither shape) otherwise.
PjPtr CrsFromCode(PJ_CONTEXT* ctx, const std::wstring& s);
// From WKT, PROJJSON or a PROJ string (which gets "+type=crs" when it lacks
// it). Null when PROJ cannot read it or it is not a CRS; `error` says why.
PjPtr CrsFromDefinition(PJ_CONTEXT* ctx, const std::wstring& s, std::wstring& error);
// CrsFromCode, then CrsFromDefinition. `fromDefinition` says which made it.
PjPtr MakeCrs(PJ_CONTEXT* ctx, const std::wstring& s, bool& fromDefinition, std::wstring& error);
// The WKT the library reports for `crs` (WKT2 2019, one line), owned by
// `crs`; null with PROJ's error on ctx when PROJ cannot write it.
const char* WriteWkt(PJ_CONTEXT* ctx, PJ* crs);

// The library code of `crs`, else "AUTH:CODE" of a full-confidence match in
// PROJ's database (EPSG preferred), else "".
std::wstring OwnCode(PJ_CONTEXT* ctx, PJ* crs);
// The same for a system read from PROJ's database by `code`: its identifier
// is taken as it is, which spares the (slow) identification.
std::wstring OwnCodeOfStored(PJ_CONTEXT* ctx, PJ* crs, const std::wstring& code);

// The horizontal part: the first member of a compound system, the base of a
// bound one, else the system itself (as a new reference).
PjPtr HorizontalCrs(PJ_CONTEXT* ctx, PJ* crs);
bool IsGeographicType(PJ_TYPE t);
bool IsGeographicCrs(PJ_CONTEXT* ctx, PJ* crs);
bool IsEngineeringCrs(PJ_CONTEXT* ctx, PJ* crs);

// The first axis' unit of the horizontal part; false when PROJ has none.
bool HorizontalUnit(PJ_CONTEXT* ctx, PJ* crs, std::wstring& name, double& toBase);

}  // namespace kel::detail
