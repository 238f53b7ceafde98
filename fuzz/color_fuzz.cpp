// String2Color on arbitrary text (bytes widened one by one, so every wchar
// value below 256 appears); a success must survive Color2String and back.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <kel/kel.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::wstring text;
  for (std::size_t i = 0; i < size; ++i) text.push_back(static_cast<wchar_t>(data[i]));
  kel::Color4B colour{1, 2, 3, 4};
  const bool ok = kel::StringUtils::String2Color(colour, text);
  if (ok != kel::StringUtils::IsColor(text)) std::abort();
  if (!ok) {
    if (!(colour == kel::Color4B{1, 2, 3, 4})) std::abort();  // untouched on failure
    return 0;
  }
  const std::wstring back = kel::StringUtils::Color2String(colour);
  kel::Color4B again;
  if (back.size() != 9 || !kel::StringUtils::String2Color(again, back) || !(again == colour)) std::abort();
  return 0;
}
