// Coordinate-system definitions from outside (WKT, PROJJSON, PROJ strings,
// codes) as UTF-8 text: validation, conversion to a code, creation, every
// getter and a transform to and from LL84. Nothing may crash, and the
// answers must agree with each other: a code read from a definition names a
// valid system, and a definition that creates a system is valid.
// Each input that creates a system stays in the process-wide registry, so
// very long runs grow; CI runs are short.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <kel/kel.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool silenced = [] {
    kel::Log::setSilent(true);
    return true;
  }();
  (void)silenced;
  const std::wstring text =
      kel::Utf8String2WString(std::string_view(reinterpret_cast<const char*>(data), size));
  const bool valid = kel::SRSUtils::IsValid(text);
  const std::wstring code = kel::SRSUtils::ConvertWktToCoordinateSystemCode(text);
  if (!code.empty() && !kel::SRSUtils::IsValid(code)) std::abort();
  const std::wstring mentor = kel::SRSUtils::ConvertEpsgToMentorCode(text);
  if (!mentor.empty() && !kel::SRSUtils::IsValid(mentor)) std::abort();

  const auto system = kel::SRSCoordSys::Create(text);
  if (!system) return 0;
  if (!valid) std::abort();
  system->GetCode();
  system->GetDescription();
  system->GetUnits();
  system->GetUnitCode();
  system->GetPrecision(-3);
  std::vector<const wchar_t*> categories;
  kel::EnumerateIntoPushBackContainer<std::vector<const wchar_t*>> sink(categories);
  system->GetCategories(sink);
  const kel::BBox<2, double> area = system->GetBoundary();
  const std::wstring wkt = system->GetWkt();
  if (!wkt.empty() && !kel::SRSUtils::IsValid(wkt)) std::abort();
  const auto ll84 = kel::SRSCoordSys::Create(L"LL84");
  if (const auto there = kel::SRSTransform::Create(system, ll84)) {
    kel::Vec3d p(area.isEmpty() ? 0.0 : (area.min.x() + area.max.x()) / 2,
                 area.isEmpty() ? 0.0 : (area.min.y() + area.max.y()) / 2, 10.0);
    there->Transform(p);
  }
  if (const auto back = kel::SRSTransform::Create(ll84, system)) {
    kel::Vec2d p(9.5, 48);
    back->Transform(p);
  }
  system->GetBestFittingUTM84Projection(area);
  return 0;
}
