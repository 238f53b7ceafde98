#include "kel/srs/srs_coord_sys.h"

#include <algorithm>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kel/core/text.h"
#include "kel/settings/unit_converter.h"
#include "kel/srs/srs_transform.h"
#include "kel/srs/srs_utils.h"
#include "srs/detail/code_table.h"
#include "support/log_capture.h"

namespace kel {
namespace {

using Box2 = BBox<2, double>;
using Sys = std::shared_ptr<SRSCoordSys>;

std::vector<std::wstring> CategoriesOf(const SRSCoordSys& s) {
  std::vector<const wchar_t*> raw;
  EnumerateIntoPushBackContainer<std::vector<const wchar_t*>> sink(raw);
  s.GetCategories(sink);
  return {raw.begin(), raw.end()};
}

std::vector<SRSUtils::CoordSysInfo> Entries(const std::wstring& category) {
  std::vector<SRSUtils::CoordSysInfo> out;
  EnumerateIntoPushBackContainer<std::vector<SRSUtils::CoordSysInfo>> sink(out);
  SRSUtils::GetCoordinateSystems(category, sink);
  return out;
}

TEST(SRSCoordSys, EpsgCodeTestWantsFourOrFiveDigits) {
  const struct {
    const wchar_t* s;
    bool epsg;
  } cases[] = {{L"4326", true},       {L"EPSG:4326", true},   {L"EPSG:12345", true}, {L"EPSG:123456", false},
               {L"EPSG:", false},     {L"LL84", false},       {L"epsg:4326", false}, {L"432", false},
               {L"43a6", false},      {L"EPSG:EPSG:4326", false}};
  for (const auto& c : cases) EXPECT_EQ(detail::IsEpsgCode(c.s), c.epsg) << WString2Utf8String(c.s);
}

// Every code of the table must name the EPSG system it claims. The
// catalogue lists the table's groups from PROJ's database under the numbers
// the table maps to codes, so its names check that direction; the round trip
// checks the other; a sample goes all the way through PROJ.
TEST(SRSCoordSys, LibraryCodesNameTheirEpsgSystems) {
  const struct {
    const wchar_t* group;
    std::size_t count;
  } groups[] = {{L"Latitude/longitude", 3}, {L"UTM, WGS84", 120}, {L"UTM, NAD83", 23},
                {L"UTM, NAD27", 22},        {L"Web mapping", 1},  {L"Non-earth", 2}};
  int n = 0;
  for (const auto& g : groups) {
    const auto entries = Entries(g.group);
    EXPECT_EQ(entries.size(), g.count) << WString2Utf8String(g.group);
    for (const auto& e : entries) {
      SCOPED_TRACE(WString2Utf8String(e.Code));
      const int epsg = detail::EpsgOfLibraryCode(e.Code);
      EXPECT_EQ(epsg == 0, e.Code == detail::kNonEarthCodes[0] || e.Code == detail::kNonEarthCodes[1]);
      if (epsg != 0) {
        EXPECT_EQ(detail::LibraryCodeOfEpsg(epsg), e.Code);
      }
      if (e.Code.rfind(L"UTM", 0) == 0) {
        const std::wstring datum = e.Code.substr(3, 2) == L"84" ? L"WGS 84" : L"NAD" + e.Code.substr(3, 2);
        std::wstring zone = e.Code.substr(6);
        if (zone.back() != L'S' && zone.back() != L'N') zone += L'N';
        EXPECT_EQ(e.Description, datum + L" / UTM zone " + zone);
      }
      if (n++ % 7 != 0 && epsg != 0) continue;
      const Sys s = SRSCoordSys::Create(e.Code);
      ASSERT_TRUE(s);
      EXPECT_EQ(s->GetCode(), e.Code);
      EXPECT_EQ(s->GetDescription(), e.Description);
      if (epsg != 0) {
        EXPECT_EQ(SRSCoordSys::Create(L"EPSG:" + std::to_wstring(epsg)), s);
      }
    }
  }
  EXPECT_EQ(Entries(L"Latitude/longitude")[1].Description, L"NAD83");
  EXPECT_EQ(Entries(L"Latitude/longitude")[2].Description, L"NAD27");
  EXPECT_EQ(Entries(L"Web mapping")[0].Description, L"WGS 84 / Pseudo-Mercator");
  // Just outside the table: no such codes.
  for (const wchar_t* code : {L"UTM84-0N", L"UTM84-61N", L"UTM84-032N", L"UTM84-32", L"UTM83-24", L"UTM27-23",
                              L"UTM84-32n", L"LL84 "}) {
    EXPECT_EQ(detail::EpsgOfLibraryCode(code), 0) << WString2Utf8String(code);
    EXPECT_FALSE(SRSUtils::IsValid(code)) << WString2Utf8String(code);
  }
  for (int epsg : {32600, 32661, 32700, 32761, 26900, 26924, 26700, 26723, 4258})
    EXPECT_EQ(detail::LibraryCodeOfEpsg(epsg), L"") << epsg;
}

TEST(SRSCoordSys, CreateReadsEveryDefinitionForm) {
  const std::wstring nad27Wkt1 = Utf8String2WString(
      "GEOGCS[\"NAD27\",DATUM[\"North_American_Datum_1927\",SPHEROID[\"Clarke 1866\",6378206.4,294.978698213898]],"
      "PRIMEM[\"Greenwich\",0],UNIT[\"degree\",0.0174532925199433],AUTHORITY[\"EPSG\",\"4267\"]]");
  const std::wstring projjson = Utf8String2WString(
      R"({"type":"GeographicCRS","name":"WGS 84","datum":{"type":"GeodeticReferenceFrame","name":"World Geodetic System 1984","ellipsoid":{"name":"WGS 84","semi_major_axis":6378137,"inverse_flattening":298.257223563}},"coordinate_system":{"subtype":"ellipsoidal","axis":[{"name":"Geodetic latitude","abbreviation":"Lat","direction":"north","unit":"degree"},{"name":"Geodetic longitude","abbreviation":"Lon","direction":"east","unit":"degree"}]},"id":{"authority":"EPSG","code":4326}})");
  const struct {
    std::wstring input;
    const wchar_t* code;
  } cases[] = {
      {L"EPSG:25832", L"EPSG:25832"},
      {L"25832", L"EPSG:25832"},
      {L"EPSG:4326", L"LL84"},
      {L"32760", L"UTM84-60S"},
      {L"epsg:2056", L"EPSG:2056"},
      {L"ESRI:102100", L"ESRI:102100"},
      {L"IGNF:LAMB93", L"IGNF:LAMB93"},
      {L"urn:ogc:def:crs:EPSG::32632", L"UTM84-32N"},
      {nad27Wkt1, L"LL27"},
      {SRSUtils::ConvertCoordinateSystemCodeToWkt(L"EPSG:3035"), L"EPSG:3035"},
      {projjson, L"LL84"},
      // A PROJ string carries no name, so PROJ never matches it fully.
      {L"+proj=utm +zone=32 +datum=WGS84 +units=m +no_defs", L""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(WString2Utf8String(c.input.substr(0, 60)));
    const Sys s = SRSCoordSys::Create(c.input);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->GetCode(), c.code);
    EXPECT_TRUE(SRSUtils::IsValid(c.input));
    EXPECT_EQ(SRSCoordSys::Create(c.input), s);
  }
}

TEST(SRSCoordSys, FailuresAreEmptyWarnedOnceAndRemembered) {
  test::LogCapture log;
  EXPECT_FALSE(SRSCoordSys::Create(L""));
  EXPECT_TRUE(log.events().empty());
  // Object names are not definitions, even where PROJ's database knows them.
  for (const wchar_t* bad :
       {L"NO-SUCH-SYSTEM", L"WGS 84", L"EPSG:99999", L"99999", L"PROJCS[\"broken\"", L"+proj=nosuch"}) {
    SCOPED_TRACE(WString2Utf8String(bad));
    const std::string before = "Coordinate system error: Create(" + WString2Utf8String(bad) + "): ";
    EXPECT_FALSE(SRSCoordSys::Create(bad));
    EXPECT_FALSE(SRSCoordSys::Create(bad));
    EXPECT_FALSE(SRSUtils::IsValid(bad));
    int warnings = 0;
    for (const auto& e : log.events()) warnings += e.message.rfind(before, 0) == 0 && e.level == 30000;
    EXPECT_EQ(warnings, 1);
  }
  // PROJ reads an axis without a unit but cannot read the WKT it writes for it.
  const std::wstring noUnit = Utf8String2WString(
      R"({"type":"GeographicCRS","name":"WGS 84","datum":{"type":"GeodeticReferenceFrame","name":"World Geodetic System 1984","ellipsoid":{"name":"WGS 84","semi_major_axis":6378137,"inverse_flattening":298.257223563}},"coordinate_system":{"subtype":"ellipsoidal","axis":[{"name":"Geodetic latitude","abbreviation":"Lat","direction":"north","unit":"degree"},{"name":"Geodetic longitude","abbreviation":"Lon","direction":"east"}]}})");
  EXPECT_FALSE(SRSCoordSys::Create(noUnit));
  EXPECT_FALSE(SRSUtils::IsValid(noUnit));
}

// A system's WKT reads back as the same system: with the code registered
// first, as the very same object; with the definition first, its code then
// names the definition's object.
TEST(SRSCoordSys, DefinitionAndItsCodeShareOneObject) {
  for (const wchar_t* code : {L"LL84", L"UTM84-33S", L"LL27", L"WGS84.PseudoMercator", L"EPSG:2056", L"EPSG:2240",
                              L"EPSG:4807", L"EPSG:5555", L"EPSG:31467", L"NERTH", L"NERTH-SRT"}) {
    SCOPED_TRACE(WString2Utf8String(code));
    const Sys s = SRSCoordSys::Create(code);
    ASSERT_TRUE(s);
    const std::wstring wkt = s->GetWkt();
    EXPECT_EQ(SRSUtils::ConvertWktToCoordinateSystemCode(wkt), code);
    EXPECT_EQ(SRSCoordSys::Create(wkt), s);
  }
  const Sys first = SRSCoordSys::Create(SRSUtils::ConvertCoordinateSystemCodeToWkt(L"UTM84-7S"));
  ASSERT_TRUE(first);
  EXPECT_EQ(SRSCoordSys::Create(L"UTM84-7S"), first);
  EXPECT_EQ(SRSCoordSys::Create(L"32707"), first);
}

TEST(SRSCoordSys, UnitsScalesAndPrecisions) {
  using U = SRSCoordSys::UnitCode;
  const struct {
    const wchar_t* code;
    const wchar_t* units;
    U unit;
    double scale;
    int precisionMm;  // GetPrecision(-3)
    bool geographic, arbitrary;
  } cases[] = {
      {L"LL84", L"degree", U::Degree, 111325.0, 8, true, false},
      {L"EPSG:4807", L"grad", U::Grad, 111325.0, 8, true, false},  // grads, still metres per degree
      {L"UTM84-32N", L"metre", U::Metre, 1.0, 3, false, false},
      {L"EPSG:2240", L"US survey foot", U::USSurveyFoot, 1200.0 / 3937.0, 2, false, false},
      {L"EPSG:2222", L"foot", U::Foot, 0.3048, 2, false, false},
      {L"EPSG:5555", L"metre", U::Metre, 1.0, 3, false, false},  // compound: the horizontal part
      {L"NERTH", L"metre", U::Metre, 1.0, 3, false, true},
      {L"NERTH-SRT", L"metre", U::Metre, 1.0, 3, false, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(WString2Utf8String(c.code));
    const Sys s = SRSCoordSys::Create(c.code);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->GetUnits(), c.units);
    EXPECT_EQ(s->GetUnitCode(), c.unit);
    if (!c.geographic) {
      EXPECT_DOUBLE_EQ(UnitConverter::GetFactor(c.unit), c.scale);
    }
    EXPECT_DOUBLE_EQ(s->GetUnitScale(), c.scale);
    EXPECT_EQ(s->GetPrecision(-3), c.precisionMm);
    EXPECT_EQ(s->GetPrecision(20), 0);
    EXPECT_EQ(s->IsGeographic(), c.geographic);
    EXPECT_EQ(s->IsArbitrary(), c.arbitrary);
  }
}

// SetUnitCode changes the object it is called on (here private copies, so
// the registry's systems stay as they are).
TEST(SRSCoordSys, SetUnitCodeReexpressesCoordinates) {
  using U = SRSCoordSys::UnitCode;
  const Sys ll84 = SRSCoordSys::Create(L"LL84");
  const Sys utm = SRSCoordSys::Create(L"UTM84-30N");
  const auto feet = std::make_shared<SRSCoordSys>(*utm);
  feet->SetUnitCode(U::Foot);
  EXPECT_EQ(feet->GetUnitCode(), U::Foot);
  EXPECT_EQ(feet->GetUnits(), L"foot");
  EXPECT_DOUBLE_EQ(feet->GetUnitScale(), 0.3048);
  EXPECT_EQ(feet->GetCode(), L"UTM84-30N");
  EXPECT_EQ(utm->GetUnitCode(), U::Metre);
  Vec2d inMetres(-3.5, 52), inFeet = inMetres;
  ASSERT_TRUE(SRSTransform::Create(ll84, utm)->Transform(inMetres));
  ASSERT_TRUE(SRSTransform::Create(ll84, feet)->Transform(inFeet));
  EXPECT_NEAR(inFeet.x() * 0.3048, inMetres.x(), 1e-6);
  EXPECT_NEAR(inFeet.y() * 0.3048, inMetres.y(), 1e-6);

  const auto grads = std::make_shared<SRSCoordSys>(*ll84);
  grads->SetUnitCode(U::Grad);
  EXPECT_EQ(grads->GetUnitCode(), U::Grad);
  EXPECT_EQ(grads->GetUnitScale(), 111325.0);
  Vec2d g(-3.5, 52);
  ASSERT_TRUE(SRSTransform::Create(ll84, grads)->Transform(g));
  EXPECT_NEAR(g.x(), -3.5 * 400 / 360, 1e-12);
  EXPECT_NEAR(g.y(), 52.0 * 400 / 360, 1e-12);

  test::LogCapture log;
  const auto wrongKind = std::make_shared<SRSCoordSys>(*utm);
  wrongKind->SetUnitCode(U::Degree);
  wrongKind->SetUnitCode(U::Hectare);
  wrongKind->SetUnitCode(static_cast<U>(12345));
  EXPECT_EQ(wrongKind->GetUnitCode(), U::Metre);
  EXPECT_EQ(log.log().events.size(), 3u);
  EXPECT_TRUE(log.contains("Coordinate system error: SetUnitCode(UTM84-30N): "));
}

TEST(SRSCoordSys, BoundaryIsTheAreaOfUseInOwnCoordinates) {
  EXPECT_EQ(SRSCoordSys::Create(L"LL84")->GetBoundary(), Box2(Vec2d(-180, -90), Vec2d(180, 90)));
  // UTM 32N: 6E..12E, 0..84N, in metres.
  const Box2 utm = SRSCoordSys::Create(L"UTM84-32N")->GetBoundary();
  EXPECT_NEAR(utm.min.x(), 166021.44, 1);
  EXPECT_NEAR(utm.max.x(), 833978.56, 1);
  EXPECT_NEAR(utm.min.y(), 0, 1);
  EXPECT_NEAR(utm.max.y(), 9329005.18, 1);
  // Fiji's area crosses the antimeridian; the box stays proper.
  const Box2 fiji = SRSCoordSys::Create(L"EPSG:3460")->GetBoundary();
  EXPECT_FALSE(fiji.isEmpty());

  test::LogCapture log;
  constexpr double kMax = std::numeric_limits<double>::max();
  EXPECT_EQ(SRSCoordSys::Create(L"NERTH")->GetBoundary(), Box2(Vec2d(kMax, kMax), Vec2d(-kMax, -kMax)));
  EXPECT_TRUE(log.contains("Coordinate system error: GetBoundary(NERTH): "));
}

TEST(SRSCoordSys, SamenessAndCompatibility) {
  const Sys ll84 = SRSCoordSys::Create(L"LL84");
  const Sys crs84 = SRSCoordSys::Create(L"OGC:CRS84");  // WGS 84 with longitude first
  const Sys utm = SRSCoordSys::Create(L"UTM84-32N");
  const Sys nerth = SRSCoordSys::Create(L"NERTH");
  const Sys srt = SRSCoordSys::Create(L"NERTH-SRT");
  EXPECT_TRUE(ll84->IsSameAs(ll84.get()));
  EXPECT_TRUE(ll84->IsSameAs(crs84.get()));
  EXPECT_FALSE(ll84->IsSameAs(utm.get()));
  EXPECT_FALSE(ll84->IsSameAs(nullptr));
  EXPECT_FALSE(nerth->IsSameAs(srt.get()));
  EXPECT_TRUE(ll84->IsCompatibleWith(utm.get()));
  EXPECT_TRUE(nerth->IsCompatibleWith(nerth.get()));
  EXPECT_FALSE(nerth->IsCompatibleWith(srt.get()));
  EXPECT_FALSE(nerth->IsCompatibleWith(ll84.get()));
  EXPECT_FALSE(ll84->IsCompatibleWith(nullptr));
}

TEST(SRSCoordSys, BestFittingUtmZone) {
  const Sys ll84 = SRSCoordSys::Create(L"LL84");
  const Sys utm32 = SRSCoordSys::Create(L"UTM84-32N");
  Vec2d centre(9.5, 48);
  ASSERT_TRUE(SRSTransform::Create(ll84, utm32)->Transform(centre));
  const struct {
    Sys system;
    Box2 box;
    const wchar_t* expect;  // null: no system
  } cases[] = {
      {ll84, Box2(Vec2d(9, 47.5), Vec2d(10, 48.5)), L"UTM84-32N"},
      {utm32, Box2(centre - Vec2d(500, 500), centre + Vec2d(500, 500)), L"UTM84-32N"},
      {ll84, Box2(Vec2d(9, -1), Vec2d(10, 1)), L"UTM84-32S"},  // latitude 0 is south
      {ll84, Box2(Vec2d(-180, 10), Vec2d(-179, 11)), L"UTM84-1N"},
      {ll84, Box2(Vec2d(179, 10), Vec2d(179.8, 11)), L"UTM84-60N"},
      {SRSCoordSys::Create(L"NERTH"), Box2(Vec2d(5000, 5000), Vec2d(6000, 6000)), L"UTM84-31S"},
      {ll84, Box2(Vec2d(-187, 10), Vec2d(-185, 11)), nullptr},  // zone 0
      {ll84, Box2(Vec2d(180, 10), Vec2d(180, 11)), nullptr},    // zone 61
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expect ? WString2Utf8String(c.expect) : "none");
    const Sys best = c.system->GetBestFittingUTM84Projection(c.box);
    if (c.expect == nullptr) {
      EXPECT_FALSE(best);
      continue;
    }
    ASSERT_TRUE(best);
    EXPECT_EQ(best->GetCode(), c.expect);
  }
  // Zones are not clamped at either end.
  EXPECT_EQ(detail::Utm84Zone(-186), 0);
  EXPECT_EQ(detail::Utm84Zone(-180), 1);
  EXPECT_EQ(detail::Utm84Zone(-174.000001), 1);
  EXPECT_EQ(detail::Utm84Zone(-174), 2);
  EXPECT_EQ(detail::Utm84Zone(180), 61);
  EXPECT_EQ(detail::Utm84CodeAt(-186, 5), L"UTM84-0N");
  EXPECT_EQ(detail::Utm84CodeAt(std::numeric_limits<double>::quiet_NaN(), 5), L"");
}

TEST(SRSUtils, CatalogueListsTheTableAndRegionsThatCreateAgrees) {
  std::vector<const wchar_t*> raw;
  EnumerateIntoPushBackContainer<std::vector<const wchar_t*>> sink(raw);
  SRSUtils::GetCategories(sink);
  const std::vector<std::wstring> categories(raw.begin(), raw.end());
  ASSERT_GT(categories.size(), 100u);
  EXPECT_EQ(categories[1], L"UTM, WGS84");
  for (const wchar_t* region : {L"Germany", L"USA", L"World", L"Europe"})
    EXPECT_NE(std::find(categories.begin(), categories.end(), region), categories.end());

  const auto utm = Entries(L"UTM, WGS84");
  ASSERT_EQ(utm.size(), 120u);
  EXPECT_EQ(utm[31].Code, L"UTM84-32N");
  EXPECT_EQ(utm[31].Projection, L"Transverse Mercator");
  EXPECT_EQ(utm[31].Description, L"WGS 84 / UTM zone 32N");
  EXPECT_TRUE(Entries(L"No such group").empty());
  EXPECT_EQ(CategoriesOf(*SRSCoordSys::Create(L"UTM84-32N")), (std::vector<std::wstring>{L"UTM, WGS84", L"World"}));
  EXPECT_EQ(CategoriesOf(*SRSCoordSys::Create(L"EPSG:31467")), std::vector<std::wstring>{L"Germany"});

  // A fixed-seed sample of the whole catalogue: each entry creates a system
  // that reports the listed code and the listed category.
  std::mt19937 rng(42);
  for (int i = 0; i < 40; ++i) {
    const std::wstring& category = categories[rng() % categories.size()];
    const auto entries = Entries(category);
    ASSERT_FALSE(entries.empty());
    const auto& e = entries[rng() % entries.size()];
    SCOPED_TRACE(WString2Utf8String(e.Code));
    const Sys s = SRSCoordSys::Create(e.Code);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->GetCode(), e.Code);
    EXPECT_EQ(s->GetDescription(), e.Description);
    const auto own = CategoriesOf(*s);
    EXPECT_NE(std::find(own.begin(), own.end(), category), own.end());
  }
}

TEST(SRSUtils, EpsgNumbersBecomeTableCodesWhereTheTableHasThem) {
  const struct {
    const wchar_t* in;
    const wchar_t* out;
  } cases[] = {
      {L"4326", L"LL84"},           {L"EPSG:32632", L"UTM84-32N"}, {L"EPSG:32760", L"UTM84-60S"},
      {L"26923", L"UTM83-23"},      {L"26722", L"UTM27-22"},       {L"3857", L"WGS84.PseudoMercator"},
      {L"26929", L"EPSG:26929"},    {L"2056", L"EPSG:2056"},       {L"EPSG:25832", L"EPSG:25832"},
      {L"99999", L""},              {L"EPSG:abc", L""},            {L"", L""},
      {L"LL84", L""},
  };
  for (const auto& c : cases) EXPECT_EQ(SRSUtils::ConvertEpsgToMentorCode(c.in), c.out) << WString2Utf8String(c.in);
}

TEST(SRSUtils, ConversionsFailQuietlyWithAWarning) {
  test::LogCapture log;
  EXPECT_EQ(SRSUtils::ConvertWktToCoordinateSystemCode(L"GEOGCS[broken"), L"");
  EXPECT_EQ(SRSUtils::ConvertCoordinateSystemCodeToWkt(L"NO-SUCH-CODE"), L"");
  EXPECT_EQ(log.events().size(), 2u);
  for (const auto& e : log.events()) EXPECT_EQ(e.message.rfind("Coordinate system error: ", 0), 0u);
  EXPECT_FALSE(SRSUtils::IsValid(L""));
  EXPECT_TRUE(SRSUtils::IsValid(L"UTM84-1S"));
  EXPECT_TRUE(SRSUtils::IsValid(L"4326"));
}

}  // namespace
}  // namespace kel
