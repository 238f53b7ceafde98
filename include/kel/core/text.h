// Text conversions at file and library boundaries. The library's strings are
// wide (UTF-32 on this platform); narrow text is either code page 1252
// ("ANSI") or UTF-8. Conversions never throw: bad input is replaced, not lost
// silently (U+FFFD for broken UTF-8, '?' for characters CP1252 cannot hold).
#pragma once

#include <string>
#include <string_view>

#include "kel/export.h"

namespace kel {

// CP1252 bytes to wide text. The five bytes CP1252 leaves undefined map to
// the C1 control with the same value, as Windows does.
KEL_API std::wstring A2W_SLOW(std::string_view ansi);
// Wide text to CP1252; characters without a CP1252 byte become '?'.
KEL_API std::string W2A_SLOW(std::wstring_view wide);

// UTF-8 to wide text; malformed sequences become U+FFFD.
KEL_API std::wstring Utf8String2WString(std::string_view utf8);
// Wide text to UTF-8; surrogates and values above U+10FFFF become U+FFFD.
KEL_API std::string WString2Utf8String(std::wstring_view wide);

}  // namespace kel
