#include "kel/core/path.h"

#include "kel/core/text.h"

namespace kel {
namespace {
bool IsSeparator(wchar_t c) { return c == L'/' || c == L'\\'; }
}  // namespace

std::wstring File::ConcatPaths(const std::wstring& first, const std::wstring& second) {
  if (first.empty()) return second;
  if (second.empty()) return first;
  const bool tail = IsSeparator(first.back());
  const bool head = IsSeparator(second.front());
  if (tail && head) return first + second.substr(1);
  if (tail || head) return first + second;
  return first + L'/' + second;
}

std::string File::NativePath(const std::wstring& path) { return WString2Utf8String(path); }

}  // namespace kel
