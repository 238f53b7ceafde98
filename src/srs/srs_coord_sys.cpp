#include "kel/srs/srs_coord_sys.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>

#include "kel/core/log.h"
#include "kel/core/text.h"
#include "kel/srs/srs_transform.h"
#include "kel/srs/srs_utils.h"
#include "srs/detail/catalogue.h"
#include "srs/detail/code_table.h"
#include "srs/detail/proj_crs.h"

namespace kel {
namespace {

using detail::PjPtr;

// Every system ever made and every text that failed (empty pointer), for
// the life of the process. Deliberately never destroyed: systems hold PROJ
// objects that must not outlive PROJ's own teardown at exit.
std::map<std::wstring, std::shared_ptr<SRSCoordSys>>& Registry() {
  static auto* registry = new std::map<std::wstring, std::shared_ptr<SRSCoordSys>>;
  return *registry;
}

// Long definitions would drown a log line; their start identifies them.
std::wstring Abbreviated(const std::wstring& s) {
  constexpr std::size_t kMax = 80;
  return s.size() <= kMax ? s : s.substr(0, kMax) + L"...";
}

void WarnGetter(const wchar_t* getter, const std::wstring& code, const std::wstring& message) {
  KEL_LOG_WARN(std::wstring(L"Coordinate system error: ") + getter + L"(" + code + L"): " + message);
}

}  // namespace

SRSCoordSys::SRSCoordSys(std::shared_ptr<detail::ProjSystem> system, const std::wstring& wkt)
    : system_(std::move(system)), wkt_(wkt) {}

SRSCoordSys::SRSCoordSys(const SRSCoordSys& other) = default;
SRSCoordSys& SRSCoordSys::operator=(const SRSCoordSys& other) = default;
SRSCoordSys::~SRSCoordSys() = default;

std::shared_ptr<SRSCoordSys> SRSCoordSys::Create(const std::wstring& codeOrWkt) {
  if (detail::IsEpsgCode(codeOrWkt)) {
    const std::wstring code = SRSUtils::ConvertEpsgToMentorCode(codeOrWkt);
    if (!code.empty()) return CreateCS(code);
  }
  return CreateCS(codeOrWkt);
}

std::shared_ptr<SRSCoordSys> SRSCoordSys::CreateCS(const std::wstring& s) {
  if (s.empty()) return nullptr;
  std::lock_guard<std::recursive_mutex> lock(detail::CoordSysLock());
  auto& registry = Registry();
  if (auto it = registry.find(s); it != registry.end()) return it->second;

  PJ_CONTEXT* ctx = detail::MasterContext();
  bool fromDefinition = false;
  std::wstring error;
  PjPtr crs = detail::MakeCrs(ctx, s, fromDefinition, error);
  std::shared_ptr<SRSCoordSys> made;
  std::wstring ownCode;
  if (crs) {
    ownCode = fromDefinition ? detail::OwnCode(ctx, crs.get()) : detail::OwnCodeOfStored(ctx, crs.get(), s);
    const bool geographic = detail::IsGeographicCrs(ctx, crs.get());
    const bool arbitrary = detail::IsEngineeringCrs(ctx, crs.get());
    auto system = std::make_shared<detail::ProjSystem>(std::move(crs), ownCode, geographic, arbitrary);
    made.reset(new SRSCoordSys(std::move(system), fromDefinition ? s : std::wstring()));
  } else {
    KEL_LOG_WARN(L"Coordinate system error: Create(" + Abbreviated(s) + L"): " + error);
  }
  // A definition and its code share one object. When the code is already
  // registered, its object stays: Create(code) keeps returning the same
  // object for the life of the process.
  if (made && !ownCode.empty()) {
    auto [at, inserted] = registry.emplace(ownCode, made);
    if (!inserted && at->second) made = at->second;
    else at->second = made;
  }
  registry[s] = made;
  return made;
}

std::wstring SRSCoordSys::GetCode() const { return system_->code; }

std::wstring SRSCoordSys::GetDescription() const {
  PJ* crs = system_->crs.local();
  if (crs == nullptr) {
    WarnGetter(L"GetDescription", system_->code, detail::TakeProjError(detail::ThreadContext()));
    return {};
  }
  return detail::FromProj(proj_get_name(crs));
}

void SRSCoordSys::GetCategories(IEnumerate<const wchar_t*>& sink) const {
  const auto& byCode = detail::TheCatalogue().categoriesOfCode;
  auto it = byCode.find(system_->code);
  if (it == byCode.end()) return;
  for (const std::wstring& category : it->second)
    if (!sink.push(category.c_str())) return;
}

std::wstring SRSCoordSys::GetUnits() const {
  PJ_CONTEXT* ctx = detail::ThreadContext();
  PJ* crs = system_->crs.local();
  std::wstring name;
  double toBase = 0.0;
  if (crs == nullptr || !detail::HorizontalUnit(ctx, crs, name, toBase)) {
    WarnGetter(L"GetUnits", system_->code, detail::TakeProjError(ctx));
    return {};
  }
  return name;
}

double SRSCoordSys::GetUnitScale() const {
  if (system_->isGeographic) return 111325.0;
  PJ_CONTEXT* ctx = detail::ThreadContext();
  PJ* crs = system_->crs.local();
  std::wstring name;
  double toBase = 0.0;
  if (crs == nullptr || !detail::HorizontalUnit(ctx, crs, name, toBase)) {
    WarnGetter(L"GetUnitScale", system_->code, detail::TakeProjError(ctx));
    return 0.0;
  }
  return toBase;
}

SRSCoordSys::UnitCode SRSCoordSys::GetUnitCode() const {
  PJ_CONTEXT* ctx = detail::ThreadContext();
  PJ* crs = system_->crs.local();
  detail::PjPtr horizontal = crs ? detail::HorizontalCrs(ctx, crs) : nullptr;
  detail::PjPtr cs(horizontal ? proj_crs_get_coordinate_system(ctx, horizontal.get()) : nullptr);
  const char *name = nullptr, *auth = nullptr, *code = nullptr;
  if (!cs || !proj_cs_get_axis_info(ctx, cs.get(), 0, nullptr, nullptr, nullptr, nullptr, &name, &auth, &code)) {
    WarnGetter(L"GetUnitCode", system_->code, detail::TakeProjError(ctx));
    return UnitCode::Unknown;
  }
  // By name first: EPSG gives most geographic systems the variant "degree
  // (supplier to define representation)", 9122, which callers know as
  // degree, 9102. Else EPSG's code as it is.
  UnitInfo info;
  if (UnitConverter::FindUnit(detail::FromProj(name), info)) return info.code;
  const bool epsg = auth != nullptr && code != nullptr && std::strcmp(auth, "EPSG") == 0;
  return epsg ? static_cast<UnitCode>(std::atoi(code)) : UnitCode::Unknown;
}

void SRSCoordSys::SetUnitCode(UnitCode code) {
  UnitInfo unit;
  const bool known = UnitConverter::FindUnit(code, unit);
  const UnitKind wanted = system_->isGeographic ? UnitKind::Angle : UnitKind::Length;
  if (!known || unit.kind != wanted) {
    WarnGetter(L"SetUnitCode", system_->code,
               L"unit " + std::to_wstring(static_cast<int>(code)) +
                   (system_->isGeographic ? L" is not an angle unit" : L" is not a length unit"));
    return;
  }
  std::lock_guard<std::recursive_mutex> lock(detail::CoordSysLock());
  PJ_CONTEXT* ctx = detail::MasterContext();
  detail::ClearProjError(ctx);
  const std::string name = WString2Utf8String(unit.name);
  const std::string epsg = std::to_string(static_cast<int>(code));
  PJ* master = system_->crs.master();
  detail::PjPtr altered(system_->isGeographic
                            ? proj_crs_alter_cs_angular_unit(ctx, master, name.c_str(), unit.factor, "EPSG", epsg.c_str())
                            : proj_crs_alter_cs_linear_unit(ctx, master, name.c_str(), unit.factor, "EPSG", epsg.c_str()));
  if (!altered) {
    WarnGetter(L"SetUnitCode", system_->code, detail::TakeProjError(ctx));
    return;
  }
  system_ = std::make_shared<detail::ProjSystem>(std::move(altered), system_->code, system_->isGeographic,
                                                 system_->isArbitrary);
}

BBox<2, double> SRSCoordSys::GetBoundary() const {
  constexpr double kMax = std::numeric_limits<double>::max();
  BBox<2, double> box(Vec<2, double>(kMax, kMax), Vec<2, double>(-kMax, -kMax));
  PJ_CONTEXT* ctx = detail::ThreadContext();
  detail::ClearProjError(ctx);
  PJ* crs = system_->crs.local();
  double west, south, east, north;
  if (crs == nullptr || !proj_get_area_of_use(ctx, crs, &west, &south, &east, &north, nullptr)) {
    WarnGetter(L"GetBoundary", system_->code,
               crs == nullptr ? detail::TakeProjError(ctx) : L"the system has no area of use");
    return box;
  }
  // The area of use is in degrees: take it into the system's own axes from
  // the system's own geographic base. Going from WGS 84 instead would cost a
  // datum-shift search (200 ms for NAD83) for a difference of metres.
  PjPtr horizontal = detail::HorizontalCrs(ctx, crs);
  PjPtr base(horizontal ? proj_crs_get_geodetic_crs(ctx, horizontal.get()) : nullptr);
  PjPtr ll(base ? proj_normalize_for_visualization(ctx, base.get()) : nullptr);
  PjPtr raw(ll ? proj_create_crs_to_crs_from_pj(ctx, ll.get(), crs, nullptr, nullptr) : nullptr);
  PjPtr op(raw ? proj_normalize_for_visualization(ctx, raw.get()) : nullptr);
  double x0, y0, x1, y1;
  if (!op || !proj_trans_bounds(ctx, op.get(), PJ_FWD, west, south, east, north, &x0, &y0, &x1, &y1, 21)) {
    WarnGetter(L"GetBoundary", system_->code, detail::TakeProjError(ctx));
    return box;
  }
  // Across the antimeridian PROJ gives west > east; keep the box proper.
  if (x1 < x0 && system_->isGeographic) x1 += 360.0;
  box.min = Vec<2, double>(x0, y0);
  box.max = Vec<2, double>(x1, y1);
  return box;
}

std::wstring SRSCoordSys::GetWkt() const {
  PJ_CONTEXT* ctx = detail::ThreadContext();
  PJ* crs = system_->crs.local();
  const char* wkt = crs == nullptr ? nullptr : detail::WriteWkt(ctx, crs);
  if (wkt == nullptr) {
    WarnGetter(L"GetWkt", system_->code, detail::TakeProjError(ctx));
    return {};
  }
  return detail::FromProj(wkt);
}

int SRSCoordSys::GetPrecision(int exponent) const {
  const double scale = GetUnitScale();
  if (!(scale > 0.0) || !std::isfinite(scale)) return 0;
  const int digits = static_cast<int>(std::floor(std::log(scale) / std::log(10.0))) - exponent;
  return digits < 0 ? 0 : digits;
}

bool SRSCoordSys::IsGeographic() const { return system_->isGeographic; }

bool SRSCoordSys::IsArbitrary() const { return system_->isArbitrary; }

bool SRSCoordSys::IsSameAs(const SRSCoordSys* other) const {
  if (other == nullptr) return false;
  if (other->system_ == system_) return true;
  PJ* a = system_->crs.local();
  PJ* b = other->system_->crs.local();
  if (a == nullptr || b == nullptr) return false;
  return proj_is_equivalent_to_with_ctx(detail::ThreadContext(), a, b,
                                        PJ_COMP_EQUIVALENT_EXCEPT_AXIS_ORDER_GEOGCRS) != 0;
}

bool SRSCoordSys::IsCompatibleWith(const SRSCoordSys* other) const {
  if (other == nullptr) return false;
  if (IsSameAs(other)) return true;
  std::lock_guard<std::recursive_mutex> lock(detail::CoordSysLock());
  PJ_CONTEXT* ctx = detail::MasterContext();
  PjPtr op(proj_create_crs_to_crs_from_pj(ctx, system_->crs.master(), other->system_->crs.master(),
                                          nullptr, nullptr));
  detail::ClearProjError(ctx);
  return op != nullptr;
}

std::shared_ptr<SRSCoordSys> SRSCoordSys::GetBestFittingUTM84Projection(const BBox<2, double>& box) const {
  const std::wstring code = GetCode();
  const auto ll84 = Create(L"LL84");
  const auto self = Create(code);
  const auto toLL = SRSTransform::Create(self, ll84);
  Vec<2, double> centre((box.min.x() + box.max.x()) / 2, (box.min.y() + box.max.y()) / 2);
  if (toLL) toLL->Transform(centre);
  else if (code != L"LL84") centre = Vec<2, double>(0.0, 0.0);
  const std::wstring utm = detail::Utm84CodeAt(centre.x(), centre.y());
  return utm.empty() ? nullptr : Create(utm);
}

}  // namespace kel
