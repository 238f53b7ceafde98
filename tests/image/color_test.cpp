#include "kel/image/color.h"

#include <vector>

#include <gtest/gtest.h>

namespace kel {
namespace {

std::vector<Color4B> Palette(Color4B from, Color4B to, unsigned count, ColorUtil::EColorPaletteType type) {
  std::vector<Color4B> out;
  EnumerateIntoPushBackContainer<std::vector<Color4B>> sink(out);
  ColorUtil::CreateProgressionPalette(sink, from, to, count, type);
  return out;
}

// Hue of an 8-bit colour in degrees, as the blender computes it.
double Hue(Color4B c) {
  const int mx = std::max({c.r, c.g, c.b}), mn = std::min({c.r, c.g, c.b});
  if (mx == mn) return 0.0;
  double h;
  const double d = mx - mn;
  if (c.r == mx) h = (c.g - c.b) / d;
  else if (c.g == mx) h = (c.b - c.r) / d + 2.0;
  else h = (c.r - c.g) / d + 4.0;
  h *= 60.0;
  return h < 0.0 ? h + 360.0 : h;
}

TEST(Color2String, WritesUpperCaseXPrefixedRGBA) {
  EXPECT_EQ(StringUtils::Color2String(Color4B{255, 0, 0, 128}), L"xFF000080");
  EXPECT_EQ(StringUtils::Color2String(Color4B{0x0a, 0xbc, 0xde, 0xf1}), L"x0ABCDEF1");
}

TEST(String2Color, AcceptsAndRejectsTable) {
  struct Case {
    const wchar_t* text;
    bool ok;
    Color4B expected;
  } cases[] = {
      {L"#ff0000", true, {255, 0, 0, 255}},
      {L"xFF000080", true, {255, 0, 0, 128}},
      {L"x0aBcDe", true, {10, 188, 222, 255}},
      {L"#01020304", true, {1, 2, 3, 4}},
      {L"ff0000", false, {}},
      {L"#ff000", false, {}},
      {L"#ff00000", false, {}},
      {L"#gg0000", false, {}},
      {L"#ff0000g0", false, {}},
      {L"Xff0000", false, {}},
      {L"", false, {}},
      {L"#ff 000", false, {}},
      {L"#ff0000\u0661\u0662", false, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    Color4B out{9, 9, 9, 9};
    EXPECT_EQ(StringUtils::String2Color(out, c.text), c.ok);
    EXPECT_EQ(StringUtils::IsColor(c.text), c.ok);
    EXPECT_EQ(out, c.ok ? c.expected : (Color4B{9, 9, 9, 9}));  // untouched on failure
  }
}

TEST(String2Color, RoundTripsEveryByteValue) {
  for (int v = 0; v < 256; ++v) {
    const Color4B c{static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(255 - v), static_cast<std::uint8_t>(v / 2),
                    static_cast<std::uint8_t>(v ^ 0x5A)};
    Color4B back;
    ASSERT_TRUE(StringUtils::String2Color(back, StringUtils::Color2String(c)));
    EXPECT_EQ(back, c);
  }
}

TEST(HSVBlending, HueExamples) {
  // Hue 350 (255, 0, 42.5) and hue 30 (255, 127.5, 0): mean 190 > 180 -> 20.
  const Color4B h350{255, 0, 43, 255}, h30{255, 128, 0, 255};
  const Color4B mixed = ColorUtil::HSVBlending(h350, h30);
  EXPECT_NEAR(Hue(mixed), 20.0, 1.0);
  EXPECT_EQ(mixed.r, 255);
  EXPECT_EQ(mixed.a, 255);
  // Hues 0 and 270: mean 135.
  const Color4B red{255, 0, 0, 255}, violet{128, 0, 255, 255};
  const Color4B m2 = ColorUtil::HSVBlending(red, violet);
  EXPECT_NEAR(Hue(m2), 135.0, 1.0);
}

TEST(HSVBlending, HandComputedBytes) {
  const Color4B c{12, 34, 56, 78};
  struct Case {
    const char* label;
    Color4B a, b, expected;
  } cases[] = {
      {"all zero means no colour", {}, c, c},
      {"no colour on either side", c, {}, c},
      // Hues 0 and 240 -> mean 120 (not > 180), S 1, V 1 -> green; alpha 1-(1-0.5)(1-0.5).
      {"red and blue", {255, 0, 0, 128}, {0, 0, 255, 128}, {0, 255, 0, 191}},
      // S 0 -> R = G = B = V, truncated.
      {"two greys", {100, 100, 100, 255}, {51, 51, 51, 0}, {75, 75, 75, 255}},
  };
  for (const auto& t : cases) EXPECT_EQ(ColorUtil::HSVBlending(t.a, t.b), t.expected) << t.label;
}

TEST(CreateProgressionPalette, CountsZeroAndOneAndStopsWhenTheSinkSaysSo) {
  EXPECT_TRUE(Palette({1, 2, 3, 4}, {5, 6, 7, 8}, 0, ColorUtil::PaletteRGBA).empty());
  const auto one = Palette({1, 2, 3, 4}, {5, 6, 7, 8}, 1, ColorUtil::PaletteHSVIncreasing);
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0], (Color4B{1, 2, 3, 4}));
  struct TakeOne : IEnumerate<Color4B> {
    int calls = 0;
    bool push(const Color4B&) override { return ++calls < 1; }
  } sink;
  ColorUtil::CreateProgressionPalette(sink, {}, {255, 255, 255, 255}, 10, ColorUtil::PaletteRGBA);
  EXPECT_EQ(sink.calls, 1);
}

TEST(CreateProgressionPalette, RgbaStepsRoundToNearest) {
  const auto p = Palette({0, 0, 0, 0}, {255, 10, 1, 255}, 4, ColorUtil::PaletteRGBA);
  EXPECT_EQ(p, (std::vector<Color4B>{{0, 0, 0, 0}, {85, 3, 0, 85}, {170, 7, 1, 170}, {255, 10, 1, 255}}));
}

TEST(CreateProgressionPalette, HsvDirectionsFollowTheType) {
  const Color4B from{0, 0, 255, 255}, to{0, 255, 0, 255};  // hue 240 -> 120
  // Type 1 must increase: 240 -> 300 -> 360/0 -> 60 -> 120.
  const auto up = Palette(from, to, 5, ColorUtil::PaletteHSVIncreasing);
  ASSERT_EQ(up.size(), 5u);
  EXPECT_NEAR(Hue(up[1]), 300.0, 1.0);
  EXPECT_NEAR(Hue(up[2]), 0.0, 1.0);
  EXPECT_NEAR(Hue(up[3]), 60.0, 1.0);
  EXPECT_EQ(up[4], to);
  // Type 2 from 240 down to 120 is direct; from 120 to 240 it wraps through 0.
  const auto down = Palette(from, to, 3, ColorUtil::PaletteHSVDecreasing);
  EXPECT_NEAR(Hue(down[1]), 180.0, 1.0);
  const auto wrap = Palette(to, from, 5, ColorUtil::PaletteHSVDecreasing);
  EXPECT_NEAR(Hue(wrap[1]), 60.0, 1.0);
  EXPECT_NEAR(Hue(wrap[2]), 0.0, 1.0);
  EXPECT_NEAR(Hue(wrap[3]), 300.0, 1.0);
  EXPECT_EQ(wrap[4], from);
  // Other types interpolate directly: 120 -> 240 through 180.
  const auto direct = Palette(to, from, 3, static_cast<ColorUtil::EColorPaletteType>(7));
  EXPECT_NEAR(Hue(direct[1]), 180.0, 1.0);
}

}  // namespace
}  // namespace kel
