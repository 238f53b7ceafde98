#include "kel/settings/string_utils.h"

#include <clocale>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kel/core/locale.h"

namespace kel {
namespace {

using Pieces = std::vector<std::wstring>;

TEST(StringUtils, TrimsAsciiWhiteSpaceOnly) {
  EXPECT_EQ(StringUtils::Trim(L" \t\r\n a b \v\f"), L"a b");
  EXPECT_EQ(StringUtils::TrimLeft(L"  a "), L"a ");
  EXPECT_EQ(StringUtils::TrimRight(L"  a "), L"  a");
  EXPECT_EQ(StringUtils::Trim(L"   "), L"");
  EXPECT_EQ(StringUtils::Trim(L"\u00a0x\u00a0"), L"\u00a0x\u00a0");  // no-break space is content
}

TEST(StringUtils, SplitsAndJoinsBack) {
  EXPECT_EQ(StringUtils::Split(L"a,,b", L','), (Pieces{L"a", L"", L"b"}));
  EXPECT_EQ(StringUtils::Split(L"a,,b,", L',', true), (Pieces{L"a", L"b"}));
  EXPECT_EQ(StringUtils::Split(L"", L','), (Pieces{L""}));
  EXPECT_EQ(StringUtils::Split(L"", L',', true), Pieces{});
  std::mt19937 rng(5);
  for (int i = 0; i < 1000; ++i) {
    std::wstring s(rng() % 12, L'a');
    for (auto& c : s) c = L"a,b;"[rng() % 4];
    ASSERT_EQ(StringUtils::Join(StringUtils::Split(s, L','), L","), s);
  }
  EXPECT_TRUE(StringUtils::StartsWith(L"model.sff", L"model"));
  EXPECT_FALSE(StringUtils::StartsWith(L"mod", L"model"));
  EXPECT_TRUE(StringUtils::EndsWith(L"model.sff", L".sff"));
  EXPECT_FALSE(StringUtils::EndsWith(L"sff", L".sff"));
}

TEST(StringUtils, FoldsCaseBeyondAsciiWhateverTheLocale) {
  struct Case {
    const wchar_t* mixed;
    const wchar_t* lower;
    const wchar_t* upper;
  };
  const Case cases[] = {
      {L"Straße", L"straße", L"STRAßE"},  // simple mappings: one character each
      {L"ÄÖÜ äöü", L"äöü äöü", L"ÄÖÜ ÄÖÜ"},
      {L"Σίσυφος", L"σίσυφος", L"ΣΊΣΥΦΟΣ"},
      {L"Москва", L"москва", L"МОСКВА"},
      {L"EPSG:25832", L"epsg:25832", L"EPSG:25832"},
  };
  LocaleGuard guard;
  std::setlocale(LC_ALL, "C");  // ASCII-only tables: ours must not depend on them
  for (const Case& c : cases) {
    EXPECT_EQ(StringUtils::ToLower(c.mixed), c.lower);
    EXPECT_EQ(StringUtils::ToUpper(c.mixed), c.upper);
    EXPECT_TRUE(StringUtils::EqualsNoCase(c.lower, c.upper));
    EXPECT_EQ(StringUtils::CompareNoCase(c.mixed, c.upper), 0);
  }
  EXPECT_LT(StringUtils::CompareNoCase(L"apple", L"BANANA"), 0);
  EXPECT_GT(StringUtils::CompareNoCase(L"b", L"A"), 0);
  EXPECT_LT(StringUtils::CompareNoCase(L"ab", L"ABC"), 0);
  EXPECT_FALSE(StringUtils::EqualsNoCase(L"ab", L"abc"));
}

}  // namespace
}  // namespace kel
