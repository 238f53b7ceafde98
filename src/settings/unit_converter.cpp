#include "kel/settings/unit_converter.h"

#include <cmath>
#include <cwctype>
#include <iterator>

#include "kel/core/log.h"

namespace kel {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kUSFoot = 1200.0 / 3937;

struct Row {
  int code;
  UnitKind kind;
  const wchar_t* name;
  const wchar_t* symbol;
  double factor;
};

// EPSG's length and angle units as PROJ's database lists them (deprecated
// codes and rates left out). Where EPSG defines a factor as a ratio (pi/180,
// 1200/3937) we compute the ratio; PROJ's stored decimals, taken with pi to
// 15 digits, agree to 1e-14.
const Row kUnits[] = {
    {1025, UnitKind::Length, L"millimetre", L"mm", 0.001},
    {1033, UnitKind::Length, L"centimetre", L"cm", 0.01},
    {9001, UnitKind::Length, L"metre", L"m", 1.0},
    {9002, UnitKind::Length, L"foot", L"ft", 0.3048},
    {9003, UnitKind::Length, L"US survey foot", L"us-ft", kUSFoot},
    {9005, UnitKind::Length, L"Clarke's foot", L"", 0.3047972654},
    {9014, UnitKind::Length, L"fathom", L"fath", 1.8288},
    {9030, UnitKind::Length, L"nautical mile", L"kmi", 1852.0},
    {9031, UnitKind::Length, L"German legal metre", L"", 1.0000135965},
    {9033, UnitKind::Length, L"US survey chain", L"us-ch", 66 * kUSFoot},
    {9034, UnitKind::Length, L"US survey link", L"", 0.66 * kUSFoot},
    {9035, UnitKind::Length, L"US survey mile", L"us-mi", 5280 * kUSFoot},
    {9036, UnitKind::Length, L"kilometre", L"km", 1000.0},
    {9037, UnitKind::Length, L"Clarke's yard", L"", 0.9143917962},
    {9038, UnitKind::Length, L"Clarke's chain", L"", 20.1166195164},
    {9039, UnitKind::Length, L"Clarke's link", L"", 0.201166195164},
    {9040, UnitKind::Length, L"British yard (Sears 1922)", L"", 0.9143984146160287},
    {9041, UnitKind::Length, L"British foot (Sears 1922)", L"", 0.3047994715386762},
    {9042, UnitKind::Length, L"British chain (Sears 1922)", L"", 20.116765121552632},
    {9043, UnitKind::Length, L"British link (Sears 1922)", L"", 0.2011676512155263},
    {9050, UnitKind::Length, L"British yard (Benoit 1895 A)", L"", 0.9143992},
    {9051, UnitKind::Length, L"British foot (Benoit 1895 A)", L"", 0.3047997333333333},
    {9052, UnitKind::Length, L"British chain (Benoit 1895 A)", L"", 20.1167824},
    {9053, UnitKind::Length, L"British link (Benoit 1895 A)", L"", 0.201167824},
    {9060, UnitKind::Length, L"British yard (Benoit 1895 B)", L"", 0.9143992042898124},
    {9061, UnitKind::Length, L"British foot (Benoit 1895 B)", L"", 0.30479973476327077},
    {9062, UnitKind::Length, L"British chain (Benoit 1895 B)", L"", 20.116782494375872},
    {9063, UnitKind::Length, L"British link (Benoit 1895 B)", L"", 0.2011678249437587},
    {9070, UnitKind::Length, L"British foot (1865)", L"", 0.30480083333333335},
    {9080, UnitKind::Length, L"Indian foot", L"", 0.30479951024814694},
    {9081, UnitKind::Length, L"Indian foot (1937)", L"ind-ft", 0.30479841},
    {9082, UnitKind::Length, L"Indian foot (1962)", L"", 0.3047996},
    {9083, UnitKind::Length, L"Indian foot (1975)", L"", 0.3047995},
    {9084, UnitKind::Length, L"Indian yard", L"", 0.9143985307444408},
    {9085, UnitKind::Length, L"Indian yard (1937)", L"ind-yd", 0.91439523},
    {9086, UnitKind::Length, L"Indian yard (1962)", L"", 0.9143988},
    {9087, UnitKind::Length, L"Indian yard (1975)", L"", 0.9143985},
    {9093, UnitKind::Length, L"Statute mile", L"mi", 1609.344},
    {9094, UnitKind::Length, L"Gold Coast foot", L"", 0.3047997101815088},
    {9095, UnitKind::Length, L"British foot (1936)", L"", 0.3048007491},
    {9096, UnitKind::Length, L"yard", L"yd", 0.9144},
    {9097, UnitKind::Length, L"chain", L"ch", 20.1168},
    {9098, UnitKind::Length, L"link", L"link", 0.201168},
    {9099, UnitKind::Length, L"British yard (Sears 1922 truncated)", L"", 0.914398},
    {9300, UnitKind::Length, L"British foot (Sears 1922 truncated)", L"", 0.30479933333333337},
    {9301, UnitKind::Length, L"British chain (Sears 1922 truncated)", L"", 20.116756},
    {9302, UnitKind::Length, L"British link (Sears 1922 truncated)", L"", 0.20116756},
    {1031, UnitKind::Angle, L"milliarc-second", L"", kPi / 648000000},
    {9101, UnitKind::Angle, L"radian", L"rad", 1.0},
    {9102, UnitKind::Angle, L"degree", L"deg", kPi / 180},
    {9103, UnitKind::Angle, L"arc-minute", L"", kPi / 10800},
    {9104, UnitKind::Angle, L"arc-second", L"", kPi / 648000},
    {9105, UnitKind::Angle, L"grad", L"grad", kPi / 200},
    {9109, UnitKind::Angle, L"microradian", L"", 1e-06},
    {9112, UnitKind::Angle, L"centesimal minute", L"", kPi / 20000},
    {9113, UnitKind::Angle, L"centesimal second", L"", kPi / 2000000},
    {9114, UnitKind::Angle, L"mil_6400", L"", 2 * kPi / 6400},
    {9122, UnitKind::Angle, L"degree (supplier to define representation)", L"", kPi / 180},
    // Areas: squares of the lengths above, and the named ones.
    {100001, UnitKind::Area, L"square metre", L"m2", 1.0},
    {100002, UnitKind::Area, L"square kilometre", L"km2", 1e6},
    {100003, UnitKind::Area, L"hectare", L"ha", 1e4},
    {100004, UnitKind::Area, L"square foot", L"ft2", 0.3048 * 0.3048},
    {100005, UnitKind::Area, L"square US survey foot", L"us-ft2", kUSFoot * kUSFoot},
    {100006, UnitKind::Area, L"square yard", L"yd2", 0.9144 * 0.9144},
    {100007, UnitKind::Area, L"square mile", L"mi2", 1609.344 * 1609.344},
    {100008, UnitKind::Area, L"acre", L"ac", 4046.8564224},
    {100009, UnitKind::Area, L"US survey acre", L"us-ac", 43560 * kUSFoot * kUSFoot},
    {100010, UnitKind::Area, L"square centimetre", L"cm2", 1e-4},
    {100011, UnitKind::Area, L"square millimetre", L"mm2", 1e-6},
};

// Spellings people type that are neither EPSG's name nor PROJ's symbol.
struct Alias {
  const wchar_t* name;
  int code;
};
const Alias kAliases[] = {
    {L"meter", 9001}, {L"meters", 9001}, {L"metres", 9001},
    {L"kilometer", 9036}, {L"kilometers", 9036}, {L"kilometres", 9036},
    {L"centimeter", 1033}, {L"centimeters", 1033}, {L"centimetres", 1033},
    {L"millimeter", 1025}, {L"millimeters", 1025}, {L"millimetres", 1025},
    {L"feet", 9002}, {L"international foot", 9002}, {L"us-foot", 9003}, {L"usft", 9003},
    {L"survey foot", 9003}, {L"us survey feet", 9003},
    {L"yards", 9096}, {L"miles", 9093}, {L"mile", 9093}, {L"nmi", 9030},
    {L"degrees", 9102}, {L"radians", 9101}, {L"grads", 9105}, {L"gon", 9105}, {L"gradian", 9105},
    {L"arc-minutes", 9103}, {L"arc-seconds", 9104},
    {L"square meter", 100001}, {L"square meters", 100001}, {L"square metres", 100001}, {L"sq m", 100001},
    {L"square kilometer", 100002}, {L"sq km", 100002}, {L"hectares", 100003},
    {L"square feet", 100004}, {L"sq ft", 100004}, {L"square yards", 100006},
    {L"square miles", 100007}, {L"sq mi", 100007}, {L"acres", 100008},
};

const Row* ByCode(UnitCode code) {
  for (const Row& r : kUnits)
    if (r.code == static_cast<int>(code)) return &r;
  return nullptr;
}

// ASCII case folding is enough: every name in the tables is ASCII.
bool SameName(const std::wstring& a, const wchar_t* b) {
  std::size_t i = 0;
  for (; i < a.size() && b[i] != L'\0'; ++i)
    if (std::towlower(a[i]) != std::towlower(b[i])) return false;
  return i == a.size() && b[i] == L'\0';
}

std::wstring Trimmed(const std::wstring& s) {
  const auto first = s.find_first_not_of(L" \t");
  if (first == std::wstring::npos) return {};
  return s.substr(first, s.find_last_not_of(L" \t") - first + 1);
}

UnitInfo Info(const Row& r) {
  return UnitInfo{static_cast<UnitCode>(r.code), r.kind, r.name, r.symbol, r.factor};
}

}  // namespace

bool UnitConverter::FindUnit(UnitCode code, UnitInfo& out) {
  const Row* r = ByCode(code);
  if (!r) return false;
  out = Info(*r);
  return true;
}

bool UnitConverter::FindUnit(const std::wstring& name, UnitInfo& out) {
  const std::wstring key = Trimmed(name);
  if (key.empty()) return false;
  for (const Row& r : kUnits)
    if (SameName(key, r.name) || (*r.symbol && SameName(key, r.symbol))) {
      out = Info(r);
      return true;
    }
  for (const Alias& a : kAliases)
    if (SameName(key, a.name)) return FindUnit(static_cast<UnitCode>(a.code), out);
  return false;
}

double UnitConverter::GetFactor(UnitCode code) {
  const Row* r = ByCode(code);
  return r ? r->factor : 0.0;
}

std::wstring UnitConverter::GetName(UnitCode code) {
  const Row* r = ByCode(code);
  return r ? r->name : L"";
}

bool UnitConverter::Convert(double value, UnitCode from, UnitCode to, double& out) {
  const Row* a = ByCode(from);
  const Row* b = ByCode(to);
  if (!a || !b || a->kind != b->kind) {
    KEL_LOG_WARN(L"Cannot convert from unit " + std::to_wstring(static_cast<int>(from)) + L" to unit " +
                 std::to_wstring(static_cast<int>(to)));
    return false;
  }
  // Same unit: no rounding through the base unit.
  out = a == b ? value : value * a->factor / b->factor;
  return true;
}

bool UnitConverter::Convert(double value, const std::wstring& from, const std::wstring& to, double& out) {
  UnitInfo a, b;
  if (!FindUnit(from, a) || !FindUnit(to, b) || a.kind != b.kind) {
    KEL_LOG_WARN(L"Cannot convert from unit '" + from + L"' to unit '" + to + L"'");
    return false;
  }
  out = a.code == b.code ? value : value * a.factor / b.factor;
  return true;
}

void UnitConverter::GetUnits(IEnumerate<UnitInfo>& sink) {
  for (const Row& r : kUnits)
    if (!sink.push(Info(r))) return;
}

}  // namespace kel
