#include "kel/srs/srs_utils.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <vector>

#include "kel/core/log.h"
#include "kel/core/text.h"
#include "kel/srs/srs_coord_sys.h"
#include "kel/srs/srs_transform.h"
#include "srs/detail/catalogue.h"
#include "srs/detail/code_table.h"
#include "srs/detail/proj_crs.h"

namespace kel {
namespace {

using detail::PjPtr;
using Info = SRSUtils::CoordSysInfo;

void Warn(const std::wstring& message) { KEL_LOG_WARN(L"Coordinate system error: " + message); }

}  // namespace

void SRSUtils::LoadCoordinateSystems() { detail::TheCatalogue(); }

void SRSUtils::GetCategories(IEnumerate<const wchar_t*>& sink) {
  for (const std::wstring& name : detail::TheCatalogue().categories)
    if (!sink.push(name.c_str())) return;
}

void SRSUtils::GetCoordinateSystems(const std::wstring& category, IEnumerate<CoordSysInfo>& sink) {
  const detail::Catalogue& cat = detail::TheCatalogue();
  auto it = cat.entries.find(category);
  if (it == cat.entries.end()) return;
  for (const Info& info : it->second)
    if (!sink.push(info)) return;
}

bool SRSUtils::IsValid(const std::wstring& codeOrWkt) {
  if (codeOrWkt.empty()) return false;
  if (detail::IsEpsgCode(codeOrWkt) && !ConvertEpsgToMentorCode(codeOrWkt).empty()) return true;
  PJ_CONTEXT* ctx = detail::ThreadContext();
  bool fromDefinition = false;
  std::wstring error;
  const bool valid = detail::MakeCrs(ctx, codeOrWkt, fromDefinition, error) != nullptr;
  detail::ClearProjError(ctx);
  return valid;
}

bool SRSUtils::CanTransform(const std::shared_ptr<SRSCoordSys>& a, const std::shared_ptr<SRSCoordSys>& b) {
  if (!a || !b) return false;
  if (a->GetCode() == b->GetCode()) return true;
  return SRSTransform::Create(a, b) != nullptr;
}

std::wstring SRSUtils::ConvertWktToCoordinateSystemCode(const std::wstring& wkt) {
  PJ_CONTEXT* ctx = detail::ThreadContext();
  bool fromDefinition = false;
  std::wstring error;
  PjPtr crs = detail::MakeCrs(ctx, wkt, fromDefinition, error);
  if (!crs) {
    Warn(error.empty() ? detail::TakeProjError(ctx) : error);
    return {};
  }
  return detail::OwnCode(ctx, crs.get());
}

std::wstring SRSUtils::ConvertCoordinateSystemCodeToWkt(const std::wstring& code) {
  PJ_CONTEXT* ctx = detail::ThreadContext();
  bool fromDefinition = false;
  std::wstring error;
  std::wstring resolved = code;
  if (detail::IsEpsgCode(code)) {
    resolved = ConvertEpsgToMentorCode(code);
    if (resolved.empty()) resolved = code;
  }
  PjPtr crs = detail::MakeCrs(ctx, resolved, fromDefinition, error);
  const char* wkt = crs ? detail::WriteWkt(ctx, crs.get()) : nullptr;
  if (wkt == nullptr) {
    Warn(error.empty() ? detail::TakeProjError(ctx) : error);
    return {};
  }
  return detail::FromProj(wkt);
}

std::wstring SRSUtils::ConvertEpsgToMentorCode(const std::wstring& epsg) {
  std::wstring_view digits = epsg;
  if (digits.substr(0, 5) == L"EPSG:") digits.remove_prefix(5);
  if (digits.empty() || digits.size() > 9) return {};
  int number = 0;
  for (wchar_t c : digits) {
    if (c < L'0' || c > L'9') return {};
    number = number * 10 + (c - L'0');
  }
  std::wstring code = detail::LibraryCodeOfEpsg(number);
  if (!code.empty()) return code;
  PJ_CONTEXT* ctx = detail::ThreadContext();
  const std::string n = std::to_string(number);
  PjPtr crs(proj_create_from_database(ctx, "EPSG", n.c_str(), PJ_CATEGORY_CRS, 0, nullptr));
  detail::ClearProjError(ctx);  // an unknown number is an answer, not an error
  return crs ? L"EPSG:" + Utf8String2WString(n) : std::wstring();
}

}  // namespace kel
