// Property-bag text from untrusted bytes (read as UTF-8): decode it as a
// bag, a map and a list, read every value with every typed getter, and
// check the round trips the encoding promises.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <kel/kel.h>

namespace {

struct Count final : kel::IEnumerate<const wchar_t*> {
  std::size_t n = 0;
  bool push(const wchar_t* const&) override {
    ++n;
    return true;
  }
};

void ReadEveryWay(const kel::PropertyBag& bag, const std::wstring& key) {
  bool b;
  int i;
  std::int64_t l;
  float f;
  double d;
  std::wstring s;
  kel::Vec<2, double> v2;
  kel::Vec<3, double> v3;
  kel::Color4B c;
  kel::PropertyBag::Map m;
  Count list;
  bag.GetValue(key, b);
  bag.GetValue(key, i);
  bag.GetValue(key, l);
  bag.GetValue(key, f);
  bag.GetValue(key, d);
  bag.GetValue(key, v2);
  bag.GetValue(key, v3);
  bag.GetValue(key, c);
  bag.GetValue(key, m);
  if (!bag.GetValue(key, s) || !bag.GetValue(key, list)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::wstring text =
      kel::Utf8String2WString(std::string_view(reinterpret_cast<const char*>(data), size));

  if (kel::PropertyBag::Unescape(kel::PropertyBag::Escape(text)) != text) std::abort();

  kel::PropertyBag bag;
  kel::PropertyBag::Map map;
  const bool bagOk = kel::PropertyBag::Decode(text, bag);
  if (kel::PropertyBag::Decode(text, map) != bagOk) std::abort();
  if (!bagOk && (!bag.IsEmpty() || !map.empty())) std::abort();  // a failed decode leaves nothing
  if (bag.Size() != map.size()) std::abort();
  if (bagOk) {
    kel::PropertyBag again;
    if (!kel::PropertyBag::Decode(kel::PropertyBag::Encode(bag), again) || !(again == bag)) std::abort();
    for (const auto& [key, value] : map) ReadEveryWay(bag, key);
  }

  Count lines;
  kel::PropertyBag::Decode(text, lines);
  std::size_t feeds = 0;
  for (wchar_t ch : text) feeds += ch == L'\n';
  if (lines.n != feeds + 1) std::abort();

  // The whole text as one value, read every typed way.
  kel::PropertyBag one;
  one.SetValue(L"v", text);
  ReadEveryWay(one, L"v");
  return 0;
}
