// The filter text reader on arbitrary UTF-8: it must refuse or accept
// without crashing, and whatever it accepts must print to a text that reads
// back into an equal tree and prints the same again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <kel/kel.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool silenced = [] {
    kel::Log::getKELLogger().setLogLevel(log4cplus::OFF_LOG_LEVEL);
    return true;
  }();
  (void)silenced;
  const std::wstring text =
      kel::Utf8String2WString(std::string_view(reinterpret_cast<const char*>(data), size));
  kel::FdoFilterPtr filter = kel::FdoFilterUtil::Parse(text);
  if (!filter) return 0;
  const std::wstring canonical = filter->ToText();
  kel::FdoFilterPtr again = kel::FdoFilterUtil::Parse(canonical);
  if (!again || !again->equals(*filter) || again->ToText() != canonical) std::abort();
  return 0;
}
