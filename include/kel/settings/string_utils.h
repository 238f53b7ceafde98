// String helpers on the library's wide strings: the colour text form of
// settings ("xRRGGBBAA" / "#RRGGBB[AA]"), trimming, splitting, joining,
// case-insensitive comparison and UTF-8 conversion. Pure functions: no
// logging, no throw beyond allocation; safe from any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kel/core/types.h"
#include "kel/export.h"

namespace kel {

class KEL_API StringUtils final {
public:
  StringUtils() = delete;

  // "x" and eight upper-case hex digits: R, G, B, A.
  static std::wstring Color2String(const Color4B& colour);
  // Accepts "x" or "#" then RRGGBB (alpha 255) or RRGGBBAA, either case.
  // On false `out` is untouched.
  static bool String2Color(Color4B& out, const std::wstring& text);
  static bool IsColor(const std::wstring& text);

  // White space here is ASCII's: space, \t, \n, \v, \f, \r.
  static std::wstring Trim(const std::wstring& text);
  static std::wstring TrimLeft(const std::wstring& text);
  static std::wstring TrimRight(const std::wstring& text);
  // The pieces between separators, in order: "a,,b" gives "a", "", "b" and
  // "" gives one empty piece; with skipEmpty the empty pieces are left out.
  static std::vector<std::wstring> Split(const std::wstring& text, wchar_t separator, bool skipEmpty = false);
  static std::wstring Join(const std::vector<std::wstring>& pieces, const std::wstring& separator);
  static bool StartsWith(const std::wstring& text, const std::wstring& prefix);
  static bool EndsWith(const std::wstring& text, const std::wstring& suffix);

  // Character by character through Unicode's simple case mappings (so "ß"
  // stays one character); the same in every process locale.
  static std::wstring ToLower(const std::wstring& text);
  static std::wstring ToUpper(const std::wstring& text);
  // Compares case-folded forms ("σ", "ς" and "Σ" are one letter): negative,
  // 0 or positive.
  static int CompareNoCase(const std::wstring& a, const std::wstring& b);
  static bool EqualsNoCase(const std::wstring& a, const std::wstring& b);

  // UTF-8 at file and library boundaries; malformed input becomes U+FFFD.
  static std::wstring FromUtf8(std::string_view utf8);
  static std::string ToUtf8(std::wstring_view wide);
};

}  // namespace kel
