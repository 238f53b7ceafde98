#include "kel/settings/pos_file.h"

#include <charconv>
#include <cstring>


#include "kel/core/atomic_file.h"
#include "kel/core/path.h"
#include "kel/core/text.h"
#include "kel/core/wexception.h"
#include "kel/settings/string_utils.h"

namespace kel {
namespace {

constexpr const wchar_t* kOffset = L"Offset";
constexpr const wchar_t* kSrs = L"SRS";

// "x y z", "x, y, z" or "x,y,z": exactly three numbers.
bool ParseOffset(const std::wstring& text, Vec<3, double>& out) {
  const std::string narrow = WString2Utf8String(text);
  const char* p = narrow.c_str();
  const char* end = p + narrow.size();
  Vec<3, double> v;
  for (int i = 0; i < 3; ++i) {
    while (p < end && (*p == ' ' || *p == '\t' || (i > 0 && *p == ','))) ++p;
    if (p < end && *p == '+') ++p;
    const auto [next, ec] = std::from_chars(p, end, v[static_cast<std::size_t>(i)]);
    if (ec != std::errc()) return false;
    p = next;
  }
  while (p < end && (*p == ' ' || *p == '\t')) ++p;
  if (p != end) return false;
  out = v;
  return true;
}

std::wstring Number(double v) {
  char text[32];
  const auto [end, ec] = std::to_chars(text, text + sizeof text, v);  // shortest text that reads back exactly
  return Utf8String2WString(std::string_view(text, static_cast<std::size_t>(end - text)));
}

// A line break and the indentation after it become one space.
std::wstring OneLine(const std::wstring& text) {
  std::wstring out;
  bool broken = false;
  for (wchar_t c : text) {
    if (c == L'\r' || c == L'\n') {
      broken = true;
    } else if (broken && (c == L' ' || c == L'\t')) {
      continue;
    } else {
      if (broken) out = StringUtils::TrimRight(out) + L' ';
      broken = false;
      out += c;
    }
  }
  return out;
}

[[noreturn]] void Fail(const std::wstring& source, const std::wstring& reason) {
  throw wexception(L"Invalid model settings file " + source + L": " + reason);
}

}  // namespace

void PosFile::setOffset(const Vec<3, double>& offset) {
  offset_ = offset;
  hasOffset_ = true;
}

void PosFile::clearOffset() {
  offset_ = Vec<3, double>(0.0, 0.0, 0.0);
  hasOffset_ = false;
}

void PosFile::set(const std::wstring& rawKey, const std::wstring& rawValue) {
  // Stored as they will be written, so two keys that would be written alike
  // are one key already.
  const std::wstring key = StringUtils::Trim(OneLine(rawKey));
  const std::wstring value = StringUtils::Trim(OneLine(rawValue));
  if (key.empty() || key.find(L'=') != std::wstring::npos)
    throw wexception(L"A model settings key must be non-empty and without '=', got '" + key + L"'");
  if (StringUtils::EqualsNoCase(key, kOffset)) {
    Vec<3, double> v;
    if (!ParseOffset(value, v)) throw wexception(L"Offset needs three numbers, got '" + value + L"'");
    setOffset(v);
    return;
  }
  if (StringUtils::EqualsNoCase(key, kSrs)) {
    srs_ = value;
    return;
  }
  for (auto& entry : extra_)
    if (entry.first == key) {
      entry.second = value;
      return;
    }
  extra_.emplace_back(key, value);
}

PosFile PosFile::Parse(std::string_view utf8, const std::wstring& source) {
  if (utf8.substr(0, 3) == "\xEF\xBB\xBF") utf8.remove_prefix(3);
  PosFile file;
  bool header = false;
  std::size_t number = 0;
  for (const std::wstring& raw : StringUtils::Split(Utf8String2WString(utf8), L'\n')) {
    ++number;
    const std::wstring line = StringUtils::Trim(raw);
    if (line.empty()) continue;
    if (!header) {
      if (line != Header) {
        if (line.rfind(L"#ORB_ModelSettings_", 0) == 0) Fail(source, L"unsupported version " + line);
        Fail(source, L"the first line is not " + std::wstring(Header));
      }
      header = true;
      continue;
    }
    const std::size_t eq = line.find(L'=');
    if (eq == std::wstring::npos) Fail(source, L"line " + std::to_wstring(number) + L" has no '='");
    const std::wstring key = StringUtils::Trim(line.substr(0, eq));
    const std::wstring value = StringUtils::Trim(line.substr(eq + 1));
    if (key.empty()) Fail(source, L"line " + std::to_wstring(number) + L" has no key");
    try {
      file.set(key, value);
    } catch (const wexception& e) {
      Fail(source, L"line " + std::to_wstring(number) + L": " + e.message());
    }
  }
  if (!header) Fail(source, L"it is empty, without the line " + std::wstring(Header));
  return file;
}

PosFile PosFile::Load(const std::wstring& path) {
  std::string bytes;
  if (const int error = File::ReadAllOrError(path, bytes))
    throw wexception(L"Cannot read model settings file " + path + L": " + Utf8String2WString(std::strerror(error)));
  return Parse(bytes, path);
}

std::string PosFile::format() const {
  std::wstring text = std::wstring(Header) + L"\n";
  if (hasOffset_)
    text += std::wstring(kOffset) + L" = " + Number(offset_[0]) + L" " + Number(offset_[1]) + L" " +
            Number(offset_[2]) + L"\n";
  if (!srs_.empty()) text += std::wstring(kSrs) + L" = " + OneLine(srs_) + L"\n";
  for (const auto& [key, value] : extra_) text += key + L" = " + value + L"\n";
  return WString2Utf8String(text);
}

void PosFile::save(const std::wstring& path) const {
  AtomicFile out(path);
  out.write(format());
  out.commit();
}

}  // namespace kel
