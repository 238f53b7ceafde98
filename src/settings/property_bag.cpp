#include "kel/settings/property_bag.h"

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <locale>
#include <sstream>

#include "kel/image/color.h"

namespace kel {
namespace {

// --- scanning, the way swscanf does it, but always in the "C" locale ---

locale_t CLocale() {
  static const locale_t c = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  return c;
}

// Numbers are ASCII; anything else becomes a byte no number contains, so
// the C parsers stop there.
std::string Narrow(const wchar_t* text) {
  std::string out;
  for (; *text; ++text) out.push_back(*text > 0 && *text < 0x80 ? static_cast<char>(*text) : '\x7f');
  return out;
}

bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// One field at `*pos`, skipping leading white space like %f, %lf and %d.
// On success stores the value and moves `*pos` past the field.
bool ScanField(const std::string& text, std::size_t* pos, double* out) {
  const char* start = text.c_str() + *pos;
  char* end = nullptr;
  const double v = strtod_l(start, &end, CLocale());
  if (end == start) return false;
  *out = v;
  *pos += static_cast<std::size_t>(end - start);
  return true;
}

bool ScanField(const std::string& text, std::size_t* pos, float* out) {
  const char* start = text.c_str() + *pos;
  char* end = nullptr;
  const float v = strtof_l(start, &end, CLocale());
  if (end == start) return false;
  *out = v;
  *pos += static_cast<std::size_t>(end - start);
  return true;
}

// %d and %I64d; out-of-range numbers fail rather than wrap.
template <typename Int>
bool ScanField(const std::string& text, std::size_t* pos, Int* out) {
  const char* start = text.c_str() + *pos;
  char* end = nullptr;
  errno = 0;
  const long long v = strtoll_l(start, &end, 10, CLocale());
  if (end == start || errno == ERANGE) return false;
  if (v < std::numeric_limits<Int>::min() || v > std::numeric_limits<Int>::max()) return false;
  *out = static_cast<Int>(v);
  *pos += static_cast<std::size_t>(end - start);
  return true;
}

// A scanf pattern: '%' a field, ' ' any run of white space (none too),
// anything else must match exactly. Returns how many fields were converted;
// text after the last field does not matter.
template <typename T>
int Scan(const wchar_t* value, const char* pattern, T* fields) {
  const std::string text = Narrow(value);
  std::size_t pos = 0;
  int converted = 0;
  for (const char* p = pattern; *p; ++p) {
    if (*p == '%') {
      if (!ScanField(text, &pos, &fields[converted])) break;
      ++converted;
    } else if (*p == ' ') {
      while (pos < text.size() && IsSpace(text[pos])) ++pos;
    } else if (pos < text.size() && text[pos] == *p) {
      ++pos;
    } else {
      break;
    }
  }
  return converted;
}

// --- writing, as a default-formatted wide stream writes ---

template <typename T>
std::wstring Write(const T& value) {
  std::wostringstream out;
  out.imbue(std::locale::classic());
  out << value;
  return out.str();
}

template <std::size_t N>
std::wstring WriteVec(const Vec<N, double>& v) {
  std::wostringstream out;
  out.imbue(std::locale::classic());
  out << L'(';
  for (std::size_t i = 0; i < N; ++i) out << (i ? L", " : L"") << v[i];
  out << L')';
  return out.str();
}

std::uint8_t ColourByte(float component) {
  const float scaled = component * 255.0f;
  if (!(scaled > 0.0f)) return 0;  // NaN too
  return scaled >= 255.0f ? 255 : static_cast<std::uint8_t>(scaled);
}

// Calls `line` for each piece between line feeds, the last one included.
template <typename F>
void ForEachLine(const std::wstring& text, F&& line) {
  std::size_t begin = 0;
  while (true) {
    const std::size_t end = text.find(L'\n', begin);
    if (!line(text.substr(begin, end == std::wstring::npos ? std::wstring::npos : end - begin))) return;
    if (end == std::wstring::npos) return;
    begin = end + 1;
  }
}

class PushInto final : public IEnumerate<const wchar_t*> {
public:
  explicit PushInto(std::vector<std::wstring>& out) : out_(out) {}
  bool push(const wchar_t* const& item) override {
    out_.emplace_back(item);
    return true;
  }

private:
  std::vector<std::wstring>& out_;
};

}  // namespace

std::wstring PropertyBag::Escape(const std::wstring& text) {
  std::wstring out;
  out.reserve(text.size());
  for (wchar_t c : text) {
    if (c == L'\n')
      out += L"#>";
    else if (c == L'#')
      out += L"##";
    else if (c == L'>')
      out += L">>";
    else
      out += c;
  }
  return out;
}

std::wstring PropertyBag::Unescape(const std::wstring& text) {
  std::wstring out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const wchar_t c = text[i];
    const wchar_t next = i + 1 < text.size() ? text[i + 1] : L'\0';
    if (c == L'#' && next == L'>') {
      out += L'\n';
      ++i;
    } else if ((c == L'#' || c == L'>') && next == c) {
      out += c;
      ++i;
    } else {
      out += c;
    }
  }
  return out;
}

std::wstring PropertyBag::Encode(const PropertyBag& bag) { return Encode(bag.values_); }

std::wstring PropertyBag::Encode(const Map& map) {
  std::wstring out;
  for (const auto& [key, value] : map) {
    if (!out.empty()) out += L'\n';  // every entry writes at least "="
    out += key;
    out += L'=';
    out += Escape(value);
  }
  return out;
}

std::wstring PropertyBag::Encode(const IDataArray<const std::wstring>& list) {
  std::wstring out;
  for (std::uint32_t i = 0; i < list.count; ++i) {
    if (i) out += L'\n';
    out += list[i];
  }
  return out;
}

bool PropertyBag::Decode(const std::wstring& text, PropertyBag& bag) { return Decode(text, bag.values_); }

bool PropertyBag::Decode(const std::wstring& text, Map& map) {
  map.clear();
  bool ok = true;
  ForEachLine(text, [&](const std::wstring& line) {
    if (line.empty()) return true;
    const std::size_t eq = line.find(L'=');
    if (eq == std::wstring::npos) return ok = false;
    map[line.substr(0, eq)] = Unescape(line.substr(eq + 1));
    return true;
  });
  if (!ok) map.clear();
  return ok;
}

bool PropertyBag::Decode(const std::wstring& text, IEnumerate<const wchar_t*>& list) {
  ForEachLine(text, [&](const std::wstring& line) {
    const std::wstring element = Unescape(line);
    return list.push(element.c_str());
  });
  return true;
}

void PropertyBag::SetValue(const std::wstring& key, bool value) { values_[key] = value ? L"true" : L"false"; }
void PropertyBag::SetValue(const std::wstring& key, int value) { values_[key] = Write(value); }
void PropertyBag::SetValue(const std::wstring& key, std::int64_t value) { values_[key] = Write(value); }
void PropertyBag::SetValue(const std::wstring& key, float value) { values_[key] = Write(value); }
void PropertyBag::SetValue(const std::wstring& key, double value) { values_[key] = Write(value); }
void PropertyBag::SetValue(const std::wstring& key, const std::wstring& value) { values_[key] = value; }
void PropertyBag::SetValue(const std::wstring& key, const wchar_t* value) { values_[key] = value ? value : L""; }
void PropertyBag::SetValue(const std::wstring& key, const Vec<2, double>& value) { values_[key] = WriteVec(value); }
void PropertyBag::SetValue(const std::wstring& key, const Vec<3, double>& value) { values_[key] = WriteVec(value); }
void PropertyBag::SetValue(const std::wstring& key, const Color4B& value) {
  values_[key] = StringUtils::Color2String(value);
}
void PropertyBag::SetValue(const std::wstring& key, const IDataArray<const std::wstring>& list) {
  values_[key] = Encode(list);
}
void PropertyBag::SetValue(const std::wstring& key, const Map& map) { values_[key] = Encode(map); }

const wchar_t* PropertyBag::Find(const std::wstring& key) const {
  const auto it = values_.find(key);
  return it == values_.end() ? nullptr : it->second.c_str();
}

bool PropertyBag::GetValue(const std::wstring& key, bool& out) const {
  const wchar_t* v = Find(key);
  if (!v) return false;
  const std::wstring_view text(v);
  if (text != L"true" && text != L"false") return false;
  out = text == L"true";
  return true;
}

namespace {
template <typename T>
bool GetScalar(const wchar_t* v, T& out) {
  T field{};
  if (!v || Scan(v, "%", &field) != 1) return false;
  out = field;
  return true;
}
}  // namespace

bool PropertyBag::GetValue(const std::wstring& key, int& out) const { return GetScalar(Find(key), out); }
bool PropertyBag::GetValue(const std::wstring& key, std::int64_t& out) const { return GetScalar(Find(key), out); }
bool PropertyBag::GetValue(const std::wstring& key, float& out) const { return GetScalar(Find(key), out); }
bool PropertyBag::GetValue(const std::wstring& key, double& out) const { return GetScalar(Find(key), out); }

bool PropertyBag::GetValue(const std::wstring& key, std::wstring& out) const {
  const auto it = values_.find(key);
  if (it == values_.end()) return false;
  out = it->second;
  return true;
}

bool PropertyBag::GetValue(const std::wstring& key, Vec<2, double>& out) const {
  const wchar_t* v = Find(key);
  double f[2];
  if (!v || Scan(v, "(%, %)", f) != 2) return false;
  out = Vec<2, double>(f[0], f[1]);
  return true;
}

bool PropertyBag::GetValue(const std::wstring& key, Vec<3, double>& out) const {
  const wchar_t* v = Find(key);
  double f[3];
  if (!v || Scan(v, "(%, %, %)", f) != 3) return false;
  out = Vec<3, double>(f[0], f[1], f[2]);
  return true;
}

bool PropertyBag::GetValue(const std::wstring& key, Color4B& out) const {
  const auto it = values_.find(key);
  if (it == values_.end()) return false;
  if (StringUtils::String2Color(out, it->second)) return true;
  float f[4];
  if (Scan(it->second.c_str(), "(%, %, %, %)", f) != 4) return false;
  out = Color4B{ColourByte(f[0]), ColourByte(f[1]), ColourByte(f[2]), ColourByte(f[3])};
  return true;
}

bool PropertyBag::GetValue(const std::wstring& key, IEnumerate<const wchar_t*>& list) const {
  const auto it = values_.find(key);
  if (it == values_.end()) return false;
  return Decode(it->second, list);
}

bool PropertyBag::GetValue(const std::wstring& key, std::vector<std::wstring>& list) const {
  const auto it = values_.find(key);
  if (it == values_.end()) return false;
  std::vector<std::wstring> items;
  PushInto sink(items);
  Decode(it->second, sink);
  list = std::move(items);
  return true;
}

bool PropertyBag::GetValue(const std::wstring& key, Map& map) const {
  const auto it = values_.find(key);
  if (it == values_.end()) return false;
  return Decode(it->second, map);
}

bool PropertyBag::Contains(const std::wstring& key) const { return values_.count(key) != 0; }

void PropertyBag::GetKeys(IEnumerate<const wchar_t*>& sink) const {
  for (const auto& entry : values_)
    if (!sink.push(entry.first.c_str())) return;
}

}  // namespace kel
