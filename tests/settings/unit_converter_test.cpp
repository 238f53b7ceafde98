#include "kel/settings/unit_converter.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <proj.h>

#include "kel/core/text.h"
#include "support/log_capture.h"

namespace kel {
namespace {

std::vector<UnitInfo> AllUnits() {
  std::vector<UnitInfo> units;
  EnumerateIntoPushBackContainer sink(units);
  UnitConverter::GetUnits(sink);
  return units;
}

// PROJ's own database is the reference: every current EPSG length and angle
// unit with a factor must be ours, under its code, name and PROJ short name.
TEST(UnitConverter, MatchesProjDatabase) {
  PJ_CONTEXT* ctx = proj_context_create();
  int checked = 0;
  for (const char* category : {"linear", "angular"}) {
    int count = 0;
    PROJ_UNIT_INFO** list = proj_get_units_from_database(ctx, "EPSG", category, 0, &count);
    ASSERT_NE(list, nullptr);
    for (int i = 0; i < count; ++i) {
      const PROJ_UNIT_INFO& p = *list[i];
      if (p.conv_factor == 0) continue;  // sexagesimal notations, no factor
      SCOPED_TRACE(p.name);
      UnitInfo ours;
      ASSERT_TRUE(UnitConverter::FindUnit(static_cast<UnitCode>(std::stoi(p.code)), ours));
      EXPECT_EQ(ours.kind, category[0] == 'l' ? UnitKind::Length : UnitKind::Angle);
      EXPECT_NEAR(ours.factor, p.conv_factor, 1e-14 * p.conv_factor);
      EXPECT_EQ(WString2Utf8String(ours.name), p.name);
      UnitInfo byName;
      ASSERT_TRUE(UnitConverter::FindUnit(Utf8String2WString(p.name), byName));
      EXPECT_EQ(byName.factor, ours.factor);
      if (p.proj_short_name) {
        UnitInfo bySymbol;
        ASSERT_TRUE(UnitConverter::FindUnit(Utf8String2WString(p.proj_short_name), bySymbol));
        EXPECT_EQ(bySymbol.code, ours.code);
      }
      ++checked;
    }
    proj_unit_list_destroy(list);
  }
  proj_context_destroy(ctx);
  // And nothing of ours that PROJ does not know, areas aside.
  int lengthsAndAngles = 0;
  for (const UnitInfo& u : AllUnits()) lengthsAndAngles += u.kind != UnitKind::Area;
  EXPECT_EQ(checked, lengthsAndAngles);
}

struct Case {
  double value;
  const wchar_t* from;
  const wchar_t* to;
  double expected;
};

TEST(UnitConverter, ConvertsKnownQuantities) {
  const double pi = std::acos(-1.0);
  const Case cases[] = {
      {1, L"ft", L"m", 0.3048},
      {3937, L"us-ft", L"m", 1200},
      {1, L"mi", L"ft", 5280},
      {1, L"us-mi", L"us-ft", 5280},
      {2.5, L"km", L"metre", 2500},
      {1852, L"m", L"nautical mile", 1},
      {180, L"degree", L"rad", pi},
      {400, L"grad", L"deg", 360},
      {1, L"deg", L"arc-second", 3600},
      {1, L"ha", L"m2", 1e4},
      {1, L"km2", L"ha", 100},
      {1, L"acre", L"ft2", 43560},
      {1, L"us-ac", L"us-ft2", 43560},
      {1, L"mi2", L"acre", 640},
      {1, L"chain", L"ft", 66},
      {7, L" Meter ", L"METRES", 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(WString2Utf8String(std::wstring(c.from) + L" -> " + c.to));
    double out = -1;
    ASSERT_TRUE(UnitConverter::Convert(c.value, c.from, c.to, out));
    EXPECT_NEAR(out, c.expected, 1e-12 * std::fabs(c.expected));
  }
}

TEST(UnitConverter, RefusesUnknownUnitsAndMixedKinds) {
  test::LogCapture capture;
  const std::pair<const wchar_t*, const wchar_t*> names[] = {
      {L"furlongs", L"m"}, {L"m", L""}, {L"m", L"deg"}, {L"ha", L"km"}, {L"rad", L"acre"}};
  double out = 42;
  for (const auto& [from, to] : names) EXPECT_FALSE(UnitConverter::Convert(1, from, to, out));
  EXPECT_FALSE(UnitConverter::Convert(1, UnitCode::Unknown, UnitCode::Metre, out));
  EXPECT_FALSE(UnitConverter::Convert(1, UnitCode::Metre, static_cast<UnitCode>(9122), out));
  EXPECT_EQ(out, 42);
  EXPECT_EQ(capture.events().size(), 7u);
  EXPECT_TRUE(capture.contains("Cannot convert from unit 'furlongs' to unit 'm'"));
  UnitInfo info;
  info.factor = 5;
  EXPECT_FALSE(UnitConverter::FindUnit(static_cast<UnitCode>(9999), info));
  EXPECT_FALSE(UnitConverter::FindUnit(L"   ", info));
  EXPECT_EQ(info.factor, 5);
}

}  // namespace
}  // namespace kel
