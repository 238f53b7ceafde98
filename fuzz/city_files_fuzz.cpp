// The text files at a city cache's root from untrusted bytes: the model
// settings file and the tile set description. Whatever parses must write
// back to text that parses to the same values.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "city/cache_files.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string error;
  city::ModelSettings settings;
  if (city::ParseModelSettings(text, settings, error)) {
    city::ModelSettings again;
    if (!city::ParseModelSettings(city::ModelSettingsText(settings), again, error) || !(again.offset == settings.offset))
      std::abort();
  }
  city::CityDescription d;
  if (city::ParseDescription(text, d, error)) {
    city::CityDescription again;
    const std::string written = city::DescriptionText(d);
    if (!city::ParseDescription(written, again, error) || city::DescriptionText(again) != written) std::abort();
  }
  return 0;
}
