#include "kel/settings/property_bag.h"

#include <cstdint>
#include <limits>
#include <locale>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kel/core/text.h"

namespace kel {
namespace {

std::string U8(const std::wstring& s) { return WString2Utf8String(s); }

std::vector<std::wstring> DecodeList(const std::wstring& text) {
  std::vector<std::wstring> items;
  PropertyBag bag;
  bag.SetValue(L"list", text);
  EXPECT_TRUE(bag.GetValue(L"list", items));
  return items;
}

// Random text over the characters the encoding cares about.
std::wstring RandomText(std::mt19937& rng, const std::wstring& alphabet, std::size_t maxLength) {
  std::wstring s(rng() % (maxLength + 1), L' ');
  for (auto& c : s) c = alphabet[rng() % alphabet.size()];
  return s;
}

TEST(PropertyBag, EscapesTheThreeMarkers) {
  const std::pair<const wchar_t*, const wchar_t*> cases[] = {
      {L"a\nb#c>d", L"a#>b##c>>d"}, {L"", L""}, {L"\n\n", L"#>#>"}, {L"#>", L"##>>"}, {L"=", L"="}};
  for (const auto& [plain, escaped] : cases) {
    EXPECT_EQ(PropertyBag::Escape(plain), escaped);
    EXPECT_EQ(PropertyBag::Unescape(escaped), plain);
  }
  const std::pair<const wchar_t*, const wchar_t*> lone[] = {
      {L"#x>", L"#x>"}, {L"#", L"#"}, {L">", L">"}, {L">>>", L">>"}, {L"###>", L"#\n"}, {L"#>>", L"\n>"}};
  for (const auto& [escaped, plain] : lone) EXPECT_EQ(PropertyBag::Unescape(escaped), plain) << U8(escaped);

  std::mt19937 rng(7);
  for (int i = 0; i < 2000; ++i) {
    const std::wstring s = RandomText(rng, L"a#>\n=", 12);
    ASSERT_EQ(PropertyBag::Unescape(PropertyBag::Escape(s)), s) << U8(s);
  }
}

TEST(PropertyBag, EncodesInKeyOrderAndDecodesLines) {
  PropertyBag bag;
  bag.SetValue(L"b", L"2");
  bag.SetValue(L"a", L"x\ny");
  EXPECT_EQ(PropertyBag::Encode(bag), L"a=x#>y\nb=2");
  EXPECT_EQ(PropertyBag::Encode(PropertyBag()), L"");

  struct Case {
    const wchar_t* text;
    bool ok;
    PropertyBag::Map entries;
  };
  const Case cases[] = {
      {L"a=1\n\nb=2", true, {{L"a", L"1"}, {L"b", L"2"}}},
      {L"a=1\nbroken", false, {}},
      {L"broken\na=1", false, {}},
      {L"", true, {}},
      {L"\n\n", true, {}},
      {L"a=1\na=2", true, {{L"a", L"2"}}},
      {L"a=b=c", true, {{L"a", L"b=c"}}},
      {L"=x", true, {{L"", L"x"}}},
      {L"k=##>>#x", true, {{L"k", L"#>#x"}}},
      {L" k = v \r", true, {{L" k ", L" v \r"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(U8(c.text));
    PropertyBag::Map map{{L"stale", L"1"}};
    EXPECT_EQ(PropertyBag::Decode(c.text, map), c.ok);
    EXPECT_EQ(map, c.entries);
    PropertyBag decoded;
    decoded.SetValue(L"stale", 1);
    EXPECT_EQ(PropertyBag::Decode(c.text, decoded), c.ok);
    EXPECT_EQ(decoded.Size(), c.entries.size());
  }
}

// Any bag whose keys hold no "=" or line feed comes back as it was.
TEST(PropertyBag, RandomBagsSurviveEncoding) {
  std::mt19937 rng(3);
  for (int i = 0; i < 500; ++i) {
    PropertyBag bag;
    const int n = static_cast<int>(rng() % 6);
    for (int k = 0; k < n; ++k) bag.SetValue(RandomText(rng, L"ab#> ", 4), RandomText(rng, L"a#>\n= ", 10));
    PropertyBag back;
    ASSERT_TRUE(PropertyBag::Decode(PropertyBag::Encode(bag), back));
    ASSERT_TRUE(back == bag) << U8(PropertyBag::Encode(bag));
  }
}

TEST(PropertyBag, ListsAreWrittenRawAndReadUnescaped) {
  const std::vector<std::wstring> items{L"plain", L"", L"x#>y", L"a##b>>c"};
  const IDataArray<const std::wstring> view{items.data(), static_cast<std::uint32_t>(items.size())};
  EXPECT_EQ(PropertyBag::Encode(view), L"plain\n\nx#>y\na##b>>c");
  // The asymmetry is kept: escapes written by nobody are still undone.
  EXPECT_EQ(DecodeList(PropertyBag::Encode(view)),
            (std::vector<std::wstring>{L"plain", L"", L"x\ny", L"a#b>c"}));
  EXPECT_EQ(DecodeList(L""), std::vector<std::wstring>{L""});
  EXPECT_EQ(DecodeList(L"a\n"), (std::vector<std::wstring>{L"a", L""}));

  struct FirstOnly : IEnumerate<const wchar_t*> {
    std::vector<std::wstring> seen;
    bool push(const wchar_t* const& item) override {
      seen.emplace_back(item);
      return false;
    }
  } first;
  EXPECT_TRUE(PropertyBag::Decode(L"one\ntwo", first));
  EXPECT_EQ(first.seen, std::vector<std::wstring>{L"one"});
}

TEST(PropertyBag, WritesTypedValuesWithSixDigits) {
  PropertyBag bag;
  PropertyBag::Map inner{{L"x", L"a\nb"}};
  const std::vector<std::wstring> list{L"p", L"q"};
  bag.SetValue(L"double", 3.14159265);
  bag.SetValue(L"big", 1e20);
  bag.SetValue(L"float", 0.1f);
  bag.SetValue(L"int", -42);
  bag.SetValue(L"int64", std::numeric_limits<std::int64_t>::max());
  bag.SetValue(L"bool", false);
  bag.SetValue(L"text", L"literal");
  bag.SetValue(L"vec2", Vec<2, double>(1.5, -2.0));
  bag.SetValue(L"vec3", Vec<3, double>(0.1, 1234567.0, 0));
  bag.SetValue(L"colour", Color4B{255, 0, 0, 128});
  bag.SetValue(L"list", IDataArray<const std::wstring>{list.data(), 2});
  bag.SetValue(L"map", inner);
  const std::pair<const wchar_t*, const wchar_t*> stored[] = {
      {L"double", L"3.14159"},  {L"big", L"1e+20"},       {L"float", L"0.1"},
      {L"int", L"-42"},         {L"int64", L"9223372036854775807"},
      {L"bool", L"false"},      {L"text", L"literal"},    {L"vec2", L"(1.5, -2)"},
      {L"vec3", L"(0.1, 1.23457e+06, 0)"},                {L"colour", L"xFF000080"},
      {L"list", L"p\nq"},       {L"map", L"x=a#>b"},
  };
  for (const auto& [key, text] : stored) {
    std::wstring value;
    ASSERT_TRUE(bag.GetValue(key, value)) << U8(key);
    EXPECT_EQ(value, text) << U8(key);
  }
  // The nested map is escaped a second time inside the bag's own encoding.
  EXPECT_NE(PropertyBag::Encode(bag).find(L"map=x=a##>>b"), std::wstring::npos);
}

template <typename T>
void ExpectRead(const wchar_t* text, bool ok, T expected, T untouched) {
  PropertyBag bag;
  bag.SetValue(L"k", std::wstring(text));
  T out = untouched;
  EXPECT_EQ(bag.GetValue(L"k", out), ok) << U8(text);
  EXPECT_EQ(out, ok ? expected : untouched) << U8(text);
  EXPECT_FALSE(bag.GetValue(L"missing", out));
}

TEST(PropertyBag, ReadsTypedValuesLikeScanf) {
  ExpectRead(L"true", true, true, false);
  ExpectRead(L"false", true, false, true);
  ExpectRead(L"TRUE", false, false, false);
  ExpectRead(L"true ", false, false, false);
  ExpectRead(L"12abc", true, 12, 0);
  ExpectRead(L" \t-7", true, -7, 0);
  ExpectRead(L"+5", true, 5, 0);
  ExpectRead(L"x1", false, 0, 0);
  ExpectRead(L"", false, 0, 0);
  ExpectRead(L"2147483648", false, 0, 0);  // past int: refused, not wrapped
  ExpectRead<std::int64_t>(L"-9223372036854775808", true, std::numeric_limits<std::int64_t>::min(), 0);
  ExpectRead<std::int64_t>(L"9223372036854775808", false, 0, 0);
  ExpectRead(L"2.5e3m", true, 2500.0, 0.0);
  ExpectRead(L".5", true, 0.5, 0.0);
  ExpectRead(L"0x10", true, 16.0, 0.0);
  ExpectRead(L"-", false, 0.0, 0.0);
  ExpectRead(L"1,5", true, 1.0, 0.0);  // a decimal comma ends the number
  ExpectRead(L"0.1", true, 0.1f, 0.0f);
  ExpectRead(L"\u0661", false, 0.0, 0.0);  // Arabic-Indic one is no digit to scanf
  using V2 = Vec<2, double>;
  using V3 = Vec<3, double>;
  ExpectRead(L"(1.5, -2)", true, V2(1.5, -2.0), V2(9.0, 9.0));
  ExpectRead(L"(1,2)", true, V2(1.0, 2.0), V2());
  ExpectRead(L"(1,   \n2", true, V2(1.0, 2.0), V2());  // nothing checked after the last field
  ExpectRead(L"(1 , 2)", false, V2(), V2(9.0, 9.0));
  ExpectRead(L" (1, 2)", false, V2(), V2(9.0, 9.0));
  ExpectRead(L"1, 2", false, V2(), V2(9.0, 9.0));
  ExpectRead(L"(1, 2, 3)", true, V3(1.0, 2.0, 3.0), V3());
  ExpectRead(L"(1, 2)", false, V3(), V3(9.0, 9.0, 9.0));
}

TEST(PropertyBag, ReadsColoursAsTextOrFractions) {
  ExpectRead(L"xFF000080", true, Color4B{255, 0, 0, 128}, Color4B{});
  ExpectRead(L"#00ff00", true, Color4B{0, 255, 0, 255}, Color4B{});
  ExpectRead(L"(1, 0, 0.5, 1)", true, Color4B{255, 0, 127, 255}, Color4B{});
  ExpectRead(L"(2, -1, nan, 0.999)", true, Color4B{255, 0, 0, 254}, Color4B{});
  ExpectRead(L"(1, 0, 0)", false, Color4B{}, Color4B{1, 2, 3, 4});
  ExpectRead(L"#ff00", false, Color4B{}, Color4B{1, 2, 3, 4});
}

// A decimal-comma global locale changes neither what is written nor what is read.
TEST(PropertyBag, IgnoresTheGlobalLocale) {
  struct Comma : std::numpunct<wchar_t> {
    wchar_t do_decimal_point() const override { return L','; }
    std::string do_grouping() const override { return "\3"; }
    wchar_t do_thousands_sep() const override { return L'.'; }
  };
  const std::locale saved = std::locale::global(std::locale(std::locale::classic(), new Comma));
  PropertyBag bag;
  bag.SetValue(L"d", 12345.5);
  bag.SetValue(L"i", 1234567);
  std::locale::global(saved);
  std::wstring d, i;
  bag.GetValue(L"d", d);
  bag.GetValue(L"i", i);
  EXPECT_EQ(d, L"12345.5");
  EXPECT_EQ(i, L"1234567");
}

TEST(PropertyBag, ListsKeysUntilTheSinkStops) {
  PropertyBag bag;
  EXPECT_TRUE(bag.IsEmpty());
  for (const wchar_t* k : {L"c", L"a", L"b"}) bag.SetValue(k, 1);
  EXPECT_EQ(bag.Size(), 3u);
  EXPECT_TRUE(bag.Contains(L"a"));
  EXPECT_FALSE(bag.Contains(L"A"));
  struct Two : IEnumerate<const wchar_t*> {
    std::vector<std::wstring> keys;
    bool push(const wchar_t* const& k) override {
      keys.emplace_back(k);
      return keys.size() < 2;
    }
  } two;
  bag.GetKeys(two);
  EXPECT_EQ(two.keys, (std::vector<std::wstring>{L"a", L"b"}));
  PropertyBag::Map map{{L"keep", L"me"}};
  bag.SetValue(L"bad", L"no equals sign");
  EXPECT_FALSE(bag.GetValue(L"bad", map));
  EXPECT_TRUE(map.empty());
}

}  // namespace
}  // namespace kel
