// ISO 8601 text from untrusted bytes (read as UTF-8): what parses must
// write back to text that parses to the same instant and offset.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include <kel/kel.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::wstring text = kel::Utf8String2WString(std::string_view(reinterpret_cast<const char*>(data), size));
  kel::DateTime t = kel::DateTime::FromUnixMicroseconds(7, 5);
  if (!kel::DateTime::Parse(text, t)) {
    if (t.unixMicroseconds() != 7 || t.offsetMinutes() != 5) std::abort();  // untouched on failure
    return 0;
  }
  kel::DateTime back;
  if (!kel::DateTime::Parse(t.toString(), back)) std::abort();
  if (back.unixMicroseconds() != t.unixMicroseconds() || back.offsetMinutes() != t.offsetMinutes()) std::abort();
  if (t.month() < 1 || t.month() > 12 || t.day() < 1 || t.day() > 31 || t.hour() > 23) std::abort();
  return 0;
}
