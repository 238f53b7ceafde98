// The colour text functions of StringUtils live beside the other colour
// code in src/image/color.cpp.
#include "kel/settings/string_utils.h"

#include <clocale>
#include <cwctype>
#include <locale.h>

#include "kel/core/text.h"

namespace kel {
namespace {

bool IsSpace(wchar_t c) { return c == L' ' || (c >= L'\t' && c <= L'\r'); }

// Unicode case tables independent of the process locale. Debian's C.UTF-8
// carries them; without it only ASCII letters change case.
locale_t UnicodeCtype() {
  static const locale_t ctype = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
  return ctype;
}

wchar_t Lower(wchar_t c) {
  if (locale_t l = UnicodeCtype()) return static_cast<wchar_t>(towlower_l(static_cast<wint_t>(c), l));
  return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c + 32) : c;
}

wchar_t Upper(wchar_t c) {
  if (locale_t l = UnicodeCtype()) return static_cast<wchar_t>(towupper_l(static_cast<wint_t>(c), l));
  return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - 32) : c;
}

// Close to Unicode's simple case folding: through upper case first, so the
// final sigma "ς" meets "σ" and "Σ".
wchar_t Fold(wchar_t c) { return Lower(Upper(c)); }

}  // namespace

std::wstring StringUtils::TrimLeft(const std::wstring& text) {
  std::size_t i = 0;
  while (i < text.size() && IsSpace(text[i])) ++i;
  return text.substr(i);
}

std::wstring StringUtils::TrimRight(const std::wstring& text) {
  std::size_t n = text.size();
  while (n > 0 && IsSpace(text[n - 1])) --n;
  return text.substr(0, n);
}

std::wstring StringUtils::Trim(const std::wstring& text) { return TrimLeft(TrimRight(text)); }

std::vector<std::wstring> StringUtils::Split(const std::wstring& text, wchar_t separator, bool skipEmpty) {
  std::vector<std::wstring> pieces;
  std::size_t begin = 0;
  while (true) {
    const std::size_t end = text.find(separator, begin);
    std::wstring piece = text.substr(begin, end == std::wstring::npos ? std::wstring::npos : end - begin);
    if (!skipEmpty || !piece.empty()) pieces.push_back(std::move(piece));
    if (end == std::wstring::npos) return pieces;
    begin = end + 1;
  }
}

std::wstring StringUtils::Join(const std::vector<std::wstring>& pieces, const std::wstring& separator) {
  std::wstring out;
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    if (i) out += separator;
    out += pieces[i];
  }
  return out;
}

bool StringUtils::StartsWith(const std::wstring& text, const std::wstring& prefix) {
  return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

bool StringUtils::EndsWith(const std::wstring& text, const std::wstring& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::wstring StringUtils::ToLower(const std::wstring& text) {
  std::wstring out(text);
  for (wchar_t& c : out) c = Lower(c);
  return out;
}

std::wstring StringUtils::ToUpper(const std::wstring& text) {
  std::wstring out(text);
  for (wchar_t& c : out) c = Upper(c);
  return out;
}

int StringUtils::CompareNoCase(const std::wstring& a, const std::wstring& b) {
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    const wchar_t x = Fold(a[i]), y = Fold(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

bool StringUtils::EqualsNoCase(const std::wstring& a, const std::wstring& b) {
  return a.size() == b.size() && CompareNoCase(a, b) == 0;
}

std::wstring StringUtils::FromUtf8(std::string_view utf8) { return Utf8String2WString(utf8); }

std::string StringUtils::ToUtf8(std::wstring_view wide) { return WString2Utf8String(wide); }

}  // namespace kel
