// Lexical rules of the filter text shared by its writer and its reader.
#pragma once

#include <string>
#include <string_view>

namespace kel::features_detail {

// Bare identifiers: ASCII letters, digits and '_' (not first for digits), and
// every character above U+007F, so names in any script need no quotes.
inline bool IsIdentifierStart(wchar_t c) {
  return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || c == L'_' || c > 0x7F;
}
inline bool IsIdentifierPart(wchar_t c) { return IsIdentifierStart(c) || (c >= L'0' && c <= L'9'); }

// True for the words the grammar reserves (any letter case).
bool IsKeyword(std::wstring_view word);

// The name bare when it can stand bare, else in double quotes with inner
// quotes doubled.
std::wstring QuoteIdentifier(const std::wstring& name);
// In single quotes with inner quotes doubled.
std::wstring QuoteString(const std::wstring& value);
// Shortest text that reads back as the same double, always with a '.' or an
// exponent so it never reads back as an integer. The value must be finite.
std::wstring FormatDouble(double value);
std::string FormatDoubleUtf8(double value);

}  // namespace kel::features_detail
