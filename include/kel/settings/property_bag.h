// A bag of string properties with typed setters and getters, and the line
// encoding that turns a bag, a map or a list into one string so it can
// travel inside other strings (settings, attributes, model settings).
//
// Encoding: one "key=value" line per entry in key order, lines joined by a
// single line feed; values are escaped (line feed -> "#>", "#" -> "##",
// ">" -> ">>"), keys never are. A list is its elements joined by line
// feeds, written unescaped but read back unescaped: an element holding
// "#>", "##" or ">>" does not survive the trip, on purpose (stored lists
// depend on it).
//
// Numbers are written as a C++ stream writes them by default (six
// significant digits: 3.14159265 is stored as "3.14159") and read like
// scanf, so trailing text after the fields is ignored. Both ignore the
// process locale: the decimal point is always '.'. Decoding hostile text is
// safe: every outcome is a documented value, never undefined behaviour.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kel/core/enumerate.h"
#include "kel/core/types.h"
#include "kel/export.h"

namespace kel {

class KEL_API PropertyBag {
public:
  using Map = std::map<std::wstring, std::wstring>;

  static std::wstring Escape(const std::wstring& text);
  // Lone "#" and ">" are copied as they are.
  static std::wstring Unescape(const std::wstring& text);

  // An empty bag or map gives the empty string.
  static std::wstring Encode(const PropertyBag& bag);
  static std::wstring Encode(const Map& map);
  static std::wstring Encode(const IDataArray<const std::wstring>& list);
  // Clears the target, then reads "key=value" lines (empty lines skipped,
  // the key is the text before the first "=", a repeated key keeps its last
  // value). A non-empty line without "=" fails and leaves the target empty.
  static bool Decode(const std::wstring& text, PropertyBag& bag);
  static bool Decode(const std::wstring& text, Map& map);
  // Hands every line, empty ones included, unescaped to the sink until it
  // returns false. Always true.
  static bool Decode(const std::wstring& text, IEnumerate<const wchar_t*>& list);

  // Each replaces the key's value.
  void SetValue(const std::wstring& key, bool value);
  void SetValue(const std::wstring& key, int value);
  void SetValue(const std::wstring& key, std::int64_t value);
  void SetValue(const std::wstring& key, float value);
  void SetValue(const std::wstring& key, double value);
  void SetValue(const std::wstring& key, const std::wstring& value);
  // Without it a string literal would choose the bool overload.
  void SetValue(const std::wstring& key, const wchar_t* value);
  void SetValue(const std::wstring& key, const Vec<2, double>& value);  // "(x, y)"
  void SetValue(const std::wstring& key, const Vec<3, double>& value);  // "(x, y, z)"
  void SetValue(const std::wstring& key, const Color4B& value);  // "xRRGGBBAA"
  void SetValue(const std::wstring& key, const IDataArray<const std::wstring>& list);
  void SetValue(const std::wstring& key, const Map& map);

  // Each is false for a missing key or text that does not parse, and then
  // leaves `out` untouched. bool takes exactly "true" or "false"; numbers
  // and vectors need every field ("(1, 2" is a Vec2: the closing
  // parenthesis comes after the last field); integers out of range fail.
  // A colour is colour text or "(r, g, b, a)" with components 0..1.
  bool GetValue(const std::wstring& key, bool& out) const;
  bool GetValue(const std::wstring& key, int& out) const;
  bool GetValue(const std::wstring& key, std::int64_t& out) const;
  bool GetValue(const std::wstring& key, float& out) const;
  bool GetValue(const std::wstring& key, double& out) const;
  bool GetValue(const std::wstring& key, std::wstring& out) const;
  bool GetValue(const std::wstring& key, Vec<2, double>& out) const;
  bool GetValue(const std::wstring& key, Vec<3, double>& out) const;
  bool GetValue(const std::wstring& key, Color4B& out) const;
  // The list decoding above; false only for a missing key.
  bool GetValue(const std::wstring& key, IEnumerate<const wchar_t*>& list) const;
  bool GetValue(const std::wstring& key, std::vector<std::wstring>& list) const;
  // The map decoding above: a bad line fails with an empty map.
  bool GetValue(const std::wstring& key, Map& map) const;

  bool Contains(const std::wstring& key) const;
  // Keys in order until the sink returns false.
  void GetKeys(IEnumerate<const wchar_t*>& sink) const;
  std::size_t Size() const { return values_.size(); }
  bool IsEmpty() const { return values_.empty(); }

  bool operator==(const PropertyBag& other) const { return values_ == other.values_; }

private:
  // The value's characters, or null when the key is absent.
  const wchar_t* Find(const std::wstring& key) const;

  Map values_;
};

}  // namespace kel
