// Units of length, angle and area: lookup by name or code and conversion.
// Length and angle units carry their EPSG unit-of-measure codes and the
// factors PROJ's database gives them, so a coordinate system's unit code
// (SRSCoordSys::UnitCode is this enumeration) converts here unchanged.
// Pure table lookups: no I/O, safe from any thread.
#pragma once

#include <string>

#include "kel/core/enumerate.h"
#include "kel/export.h"

namespace kel {

// EPSG unit-of-measure codes. Only common units are named; every other
// length or angle code of the EPSG table (Clarke's foot 9005, Indian yard
// 9084, ...) works as static_cast<UnitCode>(code). EPSG has no area units:
// ours sit in a range of their own above 100000, each the square of a length
// unit or a named area (hectare, acre).
enum class UnitCode : int {
  Unknown = 0,
  // length, base unit the metre
  Millimetre = 1025,
  Centimetre = 1033,
  Metre = 9001,
  Foot = 9002,  // international foot, 0.3048 m
  USSurveyFoot = 9003,  // 1200/3937 m
  Fathom = 9014,
  NauticalMile = 9030,
  USSurveyChain = 9033,
  USSurveyMile = 9035,
  Kilometre = 9036,
  Mile = 9093,  // statute mile, 1609.344 m
  Yard = 9096,
  Chain = 9097,
  Link = 9098,
  // angle, base unit the radian
  Radian = 9101,
  Degree = 9102,
  ArcMinute = 9103,
  ArcSecond = 9104,
  Grad = 9105,
  Microradian = 9109,
  // area, base unit the square metre
  SquareMetre = 100001,
  SquareKilometre = 100002,
  Hectare = 100003,
  SquareFoot = 100004,
  SquareUSSurveyFoot = 100005,
  SquareYard = 100006,
  SquareMile = 100007,
  Acre = 100008,  // international acre, 4046.8564224 m2
  USSurveyAcre = 100009,
  SquareCentimetre = 100010,
  SquareMillimetre = 100011,
};

enum class UnitKind { Length, Angle, Area };

struct UnitInfo {
  UnitCode code = UnitCode::Unknown;
  UnitKind kind = UnitKind::Length;
  const wchar_t* name = L"";  // EPSG's name ("metre", "US survey foot") or ours for areas
  const wchar_t* symbol = L"";  // PROJ's short name ("m", "us-ft", "deg"); may be empty
  double factor = 0;  // metres, radians or square metres per unit
};

class KEL_API UnitConverter final {
public:
  UnitConverter() = delete;

  // By code: false (out untouched) for codes outside the table.
  static bool FindUnit(UnitCode code, UnitInfo& out);
  // By name, case-insensitive: EPSG names, PROJ's short names and common
  // spellings ("meter", "feet", "degrees", "m2", "sq ft", "ha"). Surrounding
  // spaces are ignored. False (out untouched) when nothing matches.
  static bool FindUnit(const std::wstring& name, UnitInfo& out);

  // Base units per unit (see UnitInfo::factor); 0.0 for an unknown code.
  static double GetFactor(UnitCode code);
  // EPSG's name of the unit, or empty for an unknown code.
  static std::wstring GetName(UnitCode code);

  // `value` in `from` expressed in `to`. Fails with a warning, leaving `out`
  // untouched, when a unit is unknown or the two measure different things.
  static bool Convert(double value, UnitCode from, UnitCode to, double& out);
  static bool Convert(double value, const std::wstring& from, const std::wstring& to, double& out);

  // Every unit of the table, lengths first, then angles, then areas.
  static void GetUnits(IEnumerate<UnitInfo>& sink);
};

}  // namespace kel
