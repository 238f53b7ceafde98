// The built-in city, the cache's text files and the texture atlas.
#include <cmath>
#include <set>

#include <gtest/gtest.h>

#include "city/cache_files.h"
#include "city/procedural.h"
#include "city/textures.h"

namespace city {
namespace {

TEST(GenerateCity, IsTheSameEveryTimeAndAboutAsLargeAsAsked) {
  ProceduralOptions o;
  o.buildings = 3000;
  const auto a = GenerateCity(o), b = GenerateCity(o);
  ASSERT_EQ(a.size(), b.size());
  for (std::size_t i = 0; i < a.size(); ++i) {
    ASSERT_EQ(a[i].id, b[i].id);
    ASSERT_EQ(a[i].parts[0].rings, b[i].parts[0].rings) << i;
  }
  EXPECT_GT(a.size(), 2000u);
  EXPECT_LT(a.size(), 4000u);
  o.seed = 2;
  EXPECT_NE(GenerateCity(o)[0].parts[0].rings, a[0].parts[0].rings);
}

TEST(GenerateCity, GivesSimpleFootprintsWithHeightOrFloorsNearTheCentre) {
  ProceduralOptions o;
  o.buildings = 2000;
  const auto city = GenerateCity(o);
  std::set<std::int64_t> ids;
  int floorsOnly = 0, holes = 0, gabled = 0;
  for (const SourceBuilding& b : city) {
    ids.insert(b.id);
    for (const Polygon& p : b.parts) {
      holes += int(p.rings.size()) - 1;
      for (const Ring& r : p.rings) {
        Ring local;
        for (const Vec2d& q : r) {
          local.push_back(LonLatToLocal(o, q));
          EXPECT_LT(std::hypot(local.back().x(), local.back().y()), 2 * CityRadius(o.buildings));
        }
        EXPECT_TRUE(IsSimple(local)) << b.id;
      }
    }
    floorsOnly += std::isnan(b.height);
    gabled += b.roof == RoofShape::Gabled;
    EXPECT_GE(b.floors, 1);
    EXPECT_TRUE(std::isnan(b.height) || (b.height > 2 && b.height < 200)) << b.height;
  }
  EXPECT_EQ(ids.size(), city.size());
  EXPECT_NEAR(floorsOnly, double(city.size()) / 7, 2);  // every seventh
  EXPECT_GT(holes, 0);
  EXPECT_GT(gabled, 0);
}

TEST(GenerateCity, LocalMetresRoundTripThroughDegrees) {
  ProceduralOptions o;
  for (const Vec2d& p : {Vec2d(0, 0), Vec2d(1234.5, -3210.25), Vec2d(-4000, 4000)}) {
    const Vec2d back = LonLatToLocal(o, LocalToLonLat(o, p));
    EXPECT_NEAR(back.x(), p.x(), 1e-6);
    EXPECT_NEAR(back.y(), p.y(), 1e-6);
  }
}

TEST(CacheFiles, ModelSettingsRoundTripAndStrangersAreRefused) {
  ModelSettings s{kel::Vec3d(513000, 5403000.25, -0.1), L"UTM84-32N"};
  const std::string text = ModelSettingsText(s);
  EXPECT_EQ(text.substr(0, 24), "#ORB_ModelSettings_V1.0\n");
  EXPECT_NE(text.find("\nOffset = 513000 5403000.25 -0.1\n"), std::string::npos);
  EXPECT_NE(text.find("\nSRS = UTM84-32N\n"), std::string::npos);
  ModelSettings back;
  std::string error;
  ASSERT_TRUE(ParseModelSettings(text, back, error)) << error;
  EXPECT_EQ(back.offset, s.offset);
  EXPECT_EQ(back.srs, s.srs);
  // Spaces, blank lines and keys of others are fine.
  ASSERT_TRUE(ParseModelSettings("#ORB_ModelSettings_V1.0\r\n\n  SRS=LL84 \nUnits = m\nOffset =1 2 3\n", back, error));
  EXPECT_EQ(back.offset, kel::Vec3d(1, 2, 3));
  EXPECT_EQ(back.srs, L"LL84");
  for (const char* bad : {"", "#ORB_ModelSettings_V2.0\nOffset = 1 2 3\nSRS = x\n", "Offset = 1 2 3\nSRS = x\n",
                          "#ORB_ModelSettings_V1.0\nOffset = 1 2\nSRS = x\n", "#ORB_ModelSettings_V1.0\nSRS = x\n",
                          "#ORB_ModelSettings_V1.0\nOffset = 1 2 nan\nSRS = x\n",
                          "#ORB_ModelSettings_V1.0\nOffset = 1 2 3 4\nSRS = x\n"}) {
    error.clear();
    EXPECT_FALSE(ParseModelSettings(bad, back, error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
}

TEST(CacheFiles, DescriptionRoundTripsAndStrangersAreRefused) {
  CityDescription d;
  d.origin = kel::Vec3d(-3477, -3671, 0);
  d.tileSize = 8192;
  d.levels = 6;
  d.extent = kel::BBox<3, double>(kel::Vec3d(-3477.4, -3670.5, 204.9), kel::Vec3d(3903.3, 3701.4, 376.25));
  d.buildings = 49786;
  d.parameters = L"input=x.gpkg filter=a = 'b#>c'";
  CityDescription back;
  std::string error;
  const std::string text = DescriptionText(d);
  ASSERT_TRUE(ParseDescription(text, back, error)) << error;
  EXPECT_EQ(DescriptionText(back), text);
  EXPECT_EQ(back.parameters, d.parameters);
  EXPECT_EQ(back.extent, d.extent);
  for (const std::string& bad : {std::string("no equals sign"), std::string("levels=3"),
                                 text.substr(0, text.find("levels")) + "levels=0\n",
                                 text.substr(0, text.find("tileSize")) + "tileSize=-5\n"}) {
    EXPECT_FALSE(ParseDescription(bad, back, error)) << bad;
  }
}

TEST(AtlasLayout, CellsFitAPowerOfTwoAtlasWithoutOverlapping) {
  for (int styles = 1; styles <= int(Styles().size()); ++styles) {
    std::vector<int> used;
    for (int s = 0; s < styles; ++s) used.push_back(styles - 1 - s);  // unsorted, on purpose
    const AtlasLayout layout(used, 64);
    const int w = layout.width(), h = layout.height();
    EXPECT_EQ(w & (w - 1), 0);
    EXPECT_EQ(h & (h - 1), 0);
    EXPECT_GE(w * h, 2 * styles * 64 * 64);
    EXPECT_LE(w * h, 4 * 2 * styles * 64 * 64);
    std::vector<AtlasRect> rects;
    for (int s = 0; s < styles; ++s) rects.push_back(layout.facade(s)), rects.push_back(layout.roof(s));
    for (std::size_t i = 0; i < rects.size(); ++i) {
      EXPECT_GE(rects[i].x, 0);
      EXPECT_LE(rects[i].x + rects[i].w, 1);
      for (std::size_t j = 0; j < i; ++j) {
        const bool apart = rects[i].x + rects[i].w <= rects[j].x || rects[j].x + rects[j].w <= rects[i].x ||
                           rects[i].y + rects[i].h <= rects[j].y || rects[j].y + rects[j].h <= rects[i].y;
        EXPECT_TRUE(apart) << i << " " << j;
      }
    }
  }
}

// The encoded atlas decodes to the composed textures (DXT's error aside),
// and its gutters repeat the opposite edges; glazing makes it DXT5.
TEST(EncodeAtlas, DecodesToTheStylesTexturesWithWrappedGutters) {
  const TextureLibrary library(32, 64);
  for (const std::vector<int>& styles : {std::vector<int>{0, 1}, std::vector<int>{4, 7}}) {
    const AtlasLayout layout(styles, 64);
    const EncodedAtlas atlas = EncodeAtlas(layout, library);
    ASSERT_TRUE(atlas.image);
    const bool glass = styles[0] == 4;
    EXPECT_EQ(atlas.image->format(), glass ? kel::IImage::DXT5 : kel::IImage::DXT1);
    EXPECT_EQ(atlas.image->mipLevels(), 6u);  // four cells: 128 x 128 down to 4 x 4
    const auto rgba = kel::ImageUtil::DecompressImage(atlas.image, kel::IImage::RGBA);
    const int g = TextureLibrary::Gutter(64), t = 64 - 2 * g;
    const kel::IImage& tex = library.facade(styles[1], 64);
    double error = 0;
    int n = 0;
    for (int y = 0; y < 64; ++y)
      for (int x = 0; x < 64; ++x) {
        const std::uint8_t* got = rgba->lineData(std::uint64_t(layout.cellY(2) + y), 0) + 4 * (layout.cellX(2) + x);
        const std::uint8_t* want = tex.lineData(std::uint64_t(((y - g) % t + t) % t), 0) + 4 * (((x - g) % t + t) % t);
        for (int c = 0; c < 3; ++c) error += std::abs(int(got[c]) - int(want[c])), ++n;
      }
    EXPECT_LT(error / n, 12) << "mean error per channel";
  }
}

}  // namespace
}  // namespace city
