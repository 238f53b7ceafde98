#include "kel/core/text.h"

#include <random>

#include <gtest/gtest.h>

#include "kel/core/path.h"

namespace kel {
namespace {

TEST(Cp1252, EveryByteRoundTripsThroughWideText) {
  std::string all;
  for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
  const std::wstring wide = A2W_SLOW(all);
  ASSERT_EQ(wide.size(), 256u);
  EXPECT_EQ(wide[0x80], L'\u20AC');  // euro sign
  EXPECT_EQ(wide[0x9F], L'\u0178');
  EXPECT_EQ(wide[0x81], L'\u0081');  // undefined byte keeps its C1 control
  EXPECT_EQ(wide[0xE9], L'\u00E9');
  EXPECT_EQ(W2A_SLOW(wide), all);
}

TEST(Cp1252, CharactersOutsideTheCodePageBecomeQuestionMarks) {
  EXPECT_EQ(W2A_SLOW(L"a\u4E2Db\u20AC"), std::string("a?b\x80"));
}

TEST(Utf8, RoundTripsEveryPlaneOnSeededRandomText) {
  std::mt19937 rng(7);
  std::uniform_int_distribution<std::uint32_t> cp(1, 0x10FFFF);
  for (int round = 0; round < 200; ++round) {
    std::wstring text;
    for (int i = 0; i < 20; ++i) {
      std::uint32_t c = cp(rng);
      if (c >= 0xD800 && c <= 0xDFFF) c = 'x';
      text += static_cast<wchar_t>(c);
    }
    ASSERT_EQ(Utf8String2WString(WString2Utf8String(text)), text);
  }
}

TEST(Utf8, MalformedInputIsReplacedNotDropped) {
  struct Case {
    const char* label;
    std::string bytes;
    std::wstring expected;
  } cases[] = {
      {"lone continuation", "a\x80" "b", L"a\uFFFDb"},
      {"truncated sequence at end", "a\xE2\x82", L"a\uFFFD"},
      {"overlong slash", "\xC0\xAF", L"\uFFFD"},
      {"encoded surrogate", "\xED\xA0\x80", L"\uFFFD"},
      {"beyond U+10FFFF", "\xF4\x90\x80\x80", L"\uFFFD"},
      {"invalid lead byte", "\xFF" "z", L"\uFFFDz"},
      {"valid euro", "\xE2\x82\xAC", L"\u20AC"},
  };
  for (const auto& c : cases) EXPECT_EQ(Utf8String2WString(c.bytes), c.expected) << c.label;
  EXPECT_EQ(WString2Utf8String(std::wstring(1, static_cast<wchar_t>(0xD800))), "\xEF\xBF\xBD");
}

TEST(File, ConcatPathsJoinsWithOneSeparator) {
  EXPECT_EQ(File::ConcatPaths(L"a", L"b"), L"a/b");
  EXPECT_EQ(File::ConcatPaths(L"a/", L"b"), L"a/b");
  EXPECT_EQ(File::ConcatPaths(L"a", L"/b"), L"a/b");
  EXPECT_EQ(File::ConcatPaths(L"a\\", L"/b"), L"a\\b");
  EXPECT_EQ(File::ConcatPaths(L"", L"b"), L"b");
  EXPECT_EQ(File::ConcatPaths(L"a", L""), L"a");
}

}  // namespace
}  // namespace kel
