// Coordinate-system definitions from outside (WKT, PROJJSON, PROJ strings,
// codes) as UTF-8 text: validation, creation, every getter and the way to
// LL84 (through the best-fitting UTM zone). Nothing may crash, and the
// answers must agree: a text that creates a system is valid, and the code
// and WKT a system reports name valid systems.
// Each input that creates a system stays in the process-wide registry, so
// very long runs grow; CI runs are short. PROJ's database searches make a
// run slow (tens of milliseconds per definition that parses).
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
  const std::wstring text = kel::Utf8String2WString(std::string_view(reinterpret_cast<const char*>(data), size));
  const bool valid = kel::SRSUtils::IsValid(text);
  const std::wstring mentor = kel::SRSUtils::ConvertEpsgToMentorCode(text);
  if (!mentor.empty() && !kel::SRSUtils::IsValid(mentor)) std::abort();

  const auto system = kel::SRSCoordSys::Create(text);
  if (!system) return 0;
  if (!valid) std::abort();
  const std::wstring code = system->GetCode();
  if (!code.empty() && !kel::SRSUtils::IsValid(code)) std::abort();
  system->GetDescription();
  system->GetUnits();
  system->GetUnitCode();
  system->GetPrecision(-3);
  std::vector<const wchar_t*> categories;
  kel::EnumerateIntoPushBackContainer<std::vector<const wchar_t*>> sink(categories);
  system->GetCategories(sink);
  const std::wstring wkt = system->GetWkt();
  if (!wkt.empty() && !kel::SRSUtils::IsValid(wkt)) std::abort();
  system->GetBestFittingUTM84Projection(system->GetBoundary());
  return 0;
}
