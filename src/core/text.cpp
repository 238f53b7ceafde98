#include "kel/core/text.h"

#include <array>
#include <cstdint>

namespace kel {
namespace {

// CP1252 bytes 0x80..0x9F. The five holes (0x81, 0x8D, 0x8F, 0x90, 0x9D) map
// to the C1 control of the same value, as MultiByteToWideChar does.
constexpr std::array<char32_t, 32> kHigh = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
    0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

constexpr char32_t kReplacement = 0xFFFD;

char ToCp1252(char32_t c) {
  if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) return static_cast<char>(c);
  for (std::size_t i = 0; i < kHigh.size(); ++i)
    if (kHigh[i] == c) return static_cast<char>(0x80 + i);
  return '?';
}

void AppendUtf8(std::string& out, char32_t c) {
  if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = kReplacement;
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

}  // namespace

std::wstring A2W_SLOW(std::string_view ansi) {
  std::wstring out;
  out.reserve(ansi.size());
  for (unsigned char b : ansi)
    out += static_cast<wchar_t>(b >= 0x80 && b < 0xA0 ? kHigh[b - 0x80] : b);
  return out;
}

std::string W2A_SLOW(std::wstring_view wide) {
  std::string out;
  out.reserve(wide.size());
  for (wchar_t c : wide) out += ToCp1252(static_cast<char32_t>(c));
  return out;
}

std::wstring Utf8String2WString(std::string_view utf8) {
  std::wstring out;
  out.reserve(utf8.size());
  std::size_t i = 0;
  const std::size_t n = utf8.size();
  while (i < n) {
    const unsigned char b = static_cast<unsigned char>(utf8[i]);
    int extra;
    char32_t c;
    char32_t least;
    if (b < 0x80) { out += static_cast<wchar_t>(b); ++i; continue; }
    else if ((b & 0xE0) == 0xC0) { extra = 1; c = b & 0x1F; least = 0x80; }
    else if ((b & 0xF0) == 0xE0) { extra = 2; c = b & 0x0F; least = 0x800; }
    else if ((b & 0xF8) == 0xF0) { extra = 3; c = b & 0x07; least = 0x10000; }
    else { out += static_cast<wchar_t>(kReplacement); ++i; continue; }
    std::size_t j = i + 1;
    for (; j < n && j <= i + extra; ++j) {
      const unsigned char cont = static_cast<unsigned char>(utf8[j]);
      if ((cont & 0xC0) != 0x80) break;
      c = (c << 6) | (cont & 0x3F);
    }
    if (j != i + 1 + extra || c < least || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
      // Skip the lead byte and whatever continuation bytes followed it.
      out += static_cast<wchar_t>(kReplacement);
      i = j;
      continue;
    }
    out += static_cast<wchar_t>(c);
    i = j;
  }
  return out;
}

std::string WString2Utf8String(std::wstring_view wide) {
  std::string out;
  out.reserve(wide.size());
  for (wchar_t c : wide) AppendUtf8(out, static_cast<char32_t>(c));
  return out;
}

}  // namespace kel
