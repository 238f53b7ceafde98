#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "image/image_test_util.h"
#include "image/detail/dxt_block.h"
#include "kel/image/image_util.h"

namespace kel {
namespace {

using testing::Bytes;
using testing::FromBytes;
using testing::MakeImage;
using testing::PixelAt;
using Block = std::vector<std::uint8_t>;

std::vector<Color4B> Fill(Color4B c) { return std::vector<Color4B>(16, c); }

Block Encode(const std::vector<Color4B>& px, IImage::Format target, IImage::Format source = IImage::RGBA) {
  auto out = ImageUtil::CompressImage(MakeImage(4, 4, px, source), target);
  return Bytes(*out);
}


// ---- Encoder: hand-checked blocks -------------------------------------------

std::vector<Color4B> PunchThroughBlock(std::uint8_t alpha0) {
  auto px = Fill({96, 96, 96, 255});
  px[0] = {255, 0, 0, alpha0};
  px[5] = {200, 200, 200, 255};
  return px;
}

TEST(DxtEncoder, HandCheckedBlocks) {
  std::vector<Color4B> transparent(16), lowering = Fill({0, 4, 0, 255}), alpha5 = Fill({0, 0, 0, 10});
  for (int i = 0; i < 16; ++i)
    transparent[i] = {static_cast<std::uint8_t>(17 * i), 200, 9, static_cast<std::uint8_t>(i * 8)};
  transparent[0] = {10, 20, 30, 0};
  lowering[0] = {0, 20, 0, 255};
  lowering[2] = {0, 12, 0, 255};
  alpha5[1].a = 240;
  alpha5[5].a = 75;
  struct Case {
    const char* label;
    std::vector<Color4B> px;
    IImage::Format target;
    Block expected;  // the first 8 bytes
  } cases[] = {
      // (200, 100, 50) masks to (200, 100, 48): 5:6:5 fields 25, 25, 6 = 0xCB26; three-colour mode.
      {"uniform block has equal endpoints", Fill({200, 100, 50, 255}), IImage::DXT1, {0x26, 0xCB, 0x26, 0xCB, 0, 0, 0, 0}},
      // Pixel 0 masked: (8, 20, 24) = fields 1, 5, 3 = 0x08A3; every index 3.
      {"fully transparent takes pixel zero", transparent, IImage::DXT1, {0xA3, 0x08, 0xA3, 0x08, 0xFF, 0xFF, 0xFF, 0xFF}},
      // Transparent pixel 0 is skipped; grey (0x630C) and light grey (0xCE59) are
      // ordered colour 0 <= colour 1; pixel 0 gets index 3, pixel 5 index 1.
      {"alpha 127 is punched through", PunchThroughBlock(127), IImage::DXT1, {0x0C, 0x63, 0x59, 0xCE, 0x03, 0x04, 0, 0}},
      // Red (0xF800) is the darkest by key and colour 0 > colour 1 (four colours):
      // palette (248,0,0), (200,200,200), (232,64,64), (216,132,128).
      {"alpha 128 is opaque", PunchThroughBlock(128), IImage::DXT1, {0x00, 0xF8, 0x59, 0xCE, 0xFC, 0xF7, 0xFF, 0xFF}},
      // Keys 20, 4, 12 at pixels 0, 1, 2 (the rest like pixel 1): pixel 0 is the
      // brightest but lowered the minimum first, so pixels 1 and 2 are the ends.
      {"pixel lowering the minimum is never the maximum", lowering, IImage::DXT1,
       {0x60, 0x00, 0x20, 0x00, 0x44, 0x55, 0x55, 0x55}},
      // Alpha 0 = 0, alpha 1 = 255, six-value mode. Each pixel takes the first exact
      // match in scan order: entry 1, not the later entry 7 that also holds 255.
      {"opaque alpha uses six-value mode", Fill({1, 2, 3, 255}), IImage::DXT5,
       {0x00, 0xFF, 0x49, 0x92, 0x24, 0x49, 0x92, 0x24}},
      // Eight-value mode between 240 and 10; pixel 5 is entry 6 (alpha 75). The usual layout
      // would end in 0x27 0x49 0x92 0x24; pixel 5's bits 1-2 land on bits 33-34.
      {"pixel five index bits one higher", alpha5, IImage::DXT5, {0xF0, 0x0A, 0x41, 0x12, 0x26, 0x49, 0x92, 0x24}},
  };
  for (const auto& c : cases) {
    const Block b = Encode(c.px, c.target);
    EXPECT_EQ(Block(b.begin(), b.begin() + 8), c.expected) << c.label;
  }
}

TEST(DxtEncoder, EndpointsAreTheDarkestAndBrightestUnderTheElseIfScan) {
  auto px = Fill({128, 128, 128, 255});
  px[3] = px[9] = {8, 8, 8, 255};
  px[4] = px[12] = {248, 248, 248, 255};
  const Block b = Encode(px, IImage::DXT1);
  // colour 0 = brightest (0xFFDF), colour 1 = darkest (0x0841).
  EXPECT_EQ(b[0] | (b[1] << 8), 0xFFDF);
  EXPECT_EQ(b[2] | (b[3] << 8), 0x0841);
  // Falling alphas only ever lower the minimum: the maximum stays 0, so the
  // endpoints stay unswapped (alpha 0 = 50 > alpha 1 = 0) in eight-value mode.
  std::vector<Color4B> falling(16);
  for (int i = 0; i < 16; ++i) falling[i] = {0, 0, 0, static_cast<std::uint8_t>(200 - 10 * i)};
  const Block a = Encode(falling, IImage::DXT5);
  EXPECT_EQ(a[0], 50);
  EXPECT_EQ(a[1], 0);
}

TEST(DxtEncoder, Dxt5ColourHalfIgnoresAlphaAndBgraSourcesGiveTheSameBlocks) {
  const Block dxt1 = Encode(PunchThroughBlock(128), IImage::DXT1);
  const Block dxt5 = Encode(PunchThroughBlock(0), IImage::DXT5);
  EXPECT_EQ(Block(dxt5.begin() + 8, dxt5.end()), dxt1);
  std::mt19937 rng(7);
  std::vector<Color4B> px(64);
  for (auto& c : px) c = {static_cast<std::uint8_t>(rng()), static_cast<std::uint8_t>(rng()),
                          static_cast<std::uint8_t>(rng()), static_cast<std::uint8_t>(rng())};
  for (auto target : {IImage::DXT1, IImage::DXT5}) {
    auto a = ImageUtil::CompressImage(MakeImage(8, 8, px, IImage::RGBA), target);
    auto b = ImageUtil::CompressImage(MakeImage(8, 8, px, IImage::BGRA), target);
    EXPECT_EQ(Bytes(*a), Bytes(*b));
  }
}

// ---- Decoder ------------------------------------------------------------------

TEST(DxtDecoder, HandCheckedBlocks) {
  struct Expect {
    int x, y;  // x < 0: every pixel
    Color4B c;
    bool alphaOnly = false;
  };
  const std::uint8_t six = 6 | (7 << 3);  // pixel 0 index 6, pixel 1 index 7, the rest 0
  struct Case {
    const char* label;
    Block block;
    IImage::Format format;
    std::vector<Expect> expect;
  } cases[] = {
      // Decodes to the masked colour with odd fields filled with ones.
      {"uniform 0xCB26", {0x26, 0xCB, 0x26, 0xCB, 0, 0, 0, 0}, IImage::DXT1, {{-1, 0, {207, 103, 48, 255}}}},
      {"three-colour index 3 is transparent black", {0xA3, 0x08, 0xA3, 0x08, 0xFF, 0xFF, 0xFF, 0xFF}, IImage::DXT1,
       {{-1, 0, {0, 0, 0, 0}}}},
      // c0 = (1,1,1) -> (15,7,15); c1 = (2,2,2) -> (16,8,16); c0 <= c1: three colours.
      {"fields expand with ones only when the low bit is set", {0x21, 0x08, 0x42, 0x10, 0xE4, 0, 0, 0}, IImage::DXT1,
       {{0, 0, {15, 7, 15, 255}}, {1, 0, {16, 8, 16, 255}}, {2, 0, {15, 7, 15, 255}}, {3, 0, {0, 0, 0, 0}},
        {0, 1, {15, 7, 15, 255}}}},
      {"four-colour palette divides by three", {0x00, 0xF8, 0x1F, 0x00, 0xE4, 0xE4, 0xE4, 0xE4}, IImage::DXT1,
       {{0, 2, {255, 0, 0, 255}}, {1, 2, {0, 0, 255, 255}}, {2, 2, {170, 0, 85, 255}}, {3, 2, {85, 0, 170, 255}}}},
      // c0 <= c1 would be three colours in DXT1; DXT5 still divides by three.
      {"DXT5 colour half always uses four colours",
       {0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0x1F, 0x00, 0x00, 0xF8, 0xFF, 0xFF, 0xFF, 0xFF}, IImage::DXT5,
       {{0, 0, {170, 0, 85, 255}}}},
      {"six-value alpha from 0 to 255", {0x00, 0xFF, 0x49, 0x92, 0x24, 0x49, 0x92, 0x24, 0, 0, 0, 0, 0, 0, 0, 0},
       IImage::DXT5, {{-1, 0, {0, 0, 0, 255}, true}}},
      // The decoder reads the usual layout: the encoder's pixel 5 comes back as entry 4 (141).
      {"pixel five in the usual layout", {0xF0, 0x0A, 0x41, 0x12, 0x26, 0x49, 0x92, 0x24, 0, 0, 0, 0, 0, 0, 0, 0},
       IImage::DXT5, {{1, 1, {0, 0, 0, 141}, true}, {2, 1, {0, 0, 0, 10}, true}, {1, 0, {0, 0, 0, 240}, true}}},
      // a0 == a1: eight-value palette, so indices 6 and 7 give 100, not 0 and 255.
      {"equal alpha endpoints", {100, 100, six, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, IImage::DXT5,
       {{0, 0, {0, 0, 0, 100}, true}, {1, 0, {0, 0, 0, 100}, true}}},
      {"a0 < a1 has 0 and 255 at the end", {10, 100, six, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, IImage::DXT5,
       {{0, 0, {0, 0, 0, 0}, true}, {1, 0, {0, 0, 0, 255}, true}, {2, 0, {0, 0, 0, 10}, true}}},
  };
  for (const auto& c : cases) {
    auto rgba = ImageUtil::DecompressImage(FromBytes(4, 4, c.format, c.block), IImage::RGBA);
    ASSERT_NE(rgba, nullptr) << c.label;
    for (const Expect& e : c.expect)
      for (int i = 0; i < 16; ++i) {
        const int x = e.x < 0 ? i & 3 : e.x, y = e.x < 0 ? i >> 2 : e.y;
        if (e.alphaOnly)
          EXPECT_EQ(PixelAt(*rgba, x, y).a, e.c.a) << c.label << " pixel " << x << "," << y;
        else
          EXPECT_EQ(PixelAt(*rgba, x, y), e.c) << c.label << " pixel " << x << "," << y;
        if (e.x >= 0) break;
      }
  }
  // Any target other than RGBA gets red in byte 2.
  const Block redBlue{0x00, 0xF8, 0x1F, 0x00, 0xE4, 0xE4, 0xE4, 0xE4};
  auto bgra = ImageUtil::DecompressImage(FromBytes(4, 4, IImage::DXT1, redBlue), IImage::BGRA);
  EXPECT_EQ(bgra->lineData(0, 0)[2], 255);
  EXPECT_EQ(bgra->lineData(0, 0)[0], 0);
  EXPECT_EQ(ImageUtil::DecompressImage(FromBytes(4, 4, IImage::DXT1, redBlue), IImage::Float32)->lineData(0, 0)[2], 255);
  // Sources that are not DXT5 decode as DXT1.
  auto src = FromBytes(2, 1, IImage::RGBA, {0x00, 0xF8, 0x1F, 0x00, 0, 0, 0, 0});
  auto out = ImageUtil::DecompressImage(src, IImage::RGBA);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->width(), 2u);
  EXPECT_EQ(PixelAt(*out, 0, 0), (Color4B{255, 0, 0, 255}));
}

// ---- Image-level behaviour -----------------------------------------------------

TEST(DxtCodec, RoundTripKeepsTwoColourBlocksExactAfterMasking) {
  std::vector<Color4B> px(16 * 16);
  for (std::size_t i = 0; i < px.size(); ++i) {
    const std::size_t x = i % 16, y = i / 16;
    // Each block starts dark, so the dark pixel is its minimum and a bright one its maximum.
    const bool dark = (x % 4 == 0 && y % 4 == 0) || ((x * 7 + y * 3) % 5) < 2;
    px[i] = dark ? Color4B{16, 32, 64, 255} : Color4B{200, 100, 40, 255};
  }
  for (auto target : {IImage::DXT1, IImage::DXT5}) {
    auto back = ImageUtil::DecompressImage(ImageUtil::CompressImage(MakeImage(16, 16, px), target), IImage::RGBA);
    for (std::size_t i = 0; i < px.size(); ++i) {
      const Color4B expect = px[i].r == 16 ? Color4B{16, 32, 64, 255} : Color4B{207, 103, 47, 255};
      EXPECT_EQ(PixelAt(*back, i % 16, i / 16), expect) << "pixel " << i;
    }
  }
}

TEST(DxtCodec, KeepsOnlyLevelZeroAndTheSourceSizeAndRefusesNullOrUnsupportedInputs) {
  auto src = ImageUtil::CreateImage(256, 256, IImage::RGBA, 9);
  std::memset(src->lineData(0, 0), 0x80, src->sizeInBytes());
  auto out = ImageUtil::CompressImage(src, IImage::DXT5);
  EXPECT_EQ(out->mipLevels(), 1u);
  EXPECT_EQ(out->width(), 256u);
  EXPECT_EQ(out->format(), IImage::DXT5);
  EXPECT_EQ(out->sizeInBytes(), 65536u);
  EXPECT_EQ(ImageUtil::CompressImage(nullptr, IImage::DXT1), nullptr);
  EXPECT_EQ(ImageUtil::DecompressImage(nullptr, IImage::RGBA), nullptr);
  auto rgba = MakeImage(4, 4, Fill({1, 2, 3, 4}));
  auto unwritten = ImageUtil::CompressImage(rgba, IImage::BGRA);  // not a DXT target: no content written
  ASSERT_NE(unwritten, nullptr);
  EXPECT_EQ(unwritten->format(), IImage::BGRA);
  testing::LogRecorder log;
  EXPECT_EQ(ImageUtil::CompressImage(FromBytes(4, 4, IImage::DXT1, Block(8)), IImage::DXT5), nullptr);
  EXPECT_EQ(ImageUtil::DecompressImage(FromBytes(4, 4, IImage::DXT1, Block(8)), IImage::DXT5), nullptr);
  EXPECT_EQ(log.messages().size(), 2u);
}

TEST(DxtCodec, OddSizesClampReadsAndStayInsideTheImage) {
  // 6x6: the right-hand block repeats column 5, exactly like a 4x4 block built by hand.
  std::vector<Color4B> px(36);
  std::mt19937 rng(3);
  for (auto& c : px) c = {static_cast<std::uint8_t>(rng()), static_cast<std::uint8_t>(rng()),
                          static_cast<std::uint8_t>(rng()), 255};
  auto out = ImageUtil::CompressImage(MakeImage(6, 6, px), IImage::DXT1);
  ASSERT_EQ(out->sizeInBytes(), 18u);  // room for two whole blocks only
  std::vector<Color4B> left(16), right(16);
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 4; ++x) {
      left[y * 4 + x] = px[y * 6 + x];
      right[y * 4 + x] = px[y * 6 + std::min(4 + x, 5)];
    }
  const Block all = Bytes(*out);
  EXPECT_EQ(Block(all.begin(), all.begin() + 8), Encode(left, IImage::DXT1));
  EXPECT_EQ(Block(all.begin() + 8, all.begin() + 16), Encode(right, IImage::DXT1));
  auto back = ImageUtil::DecompressImage(out, IImage::RGBA);
  EXPECT_EQ(back->width(), 6u);
  EXPECT_EQ(PixelAt(*back, 0, 5), (Color4B{0, 0, 0, 0}));  // no room was left for the second block row

  for (auto [w, h] : {std::pair<int, int>{1, 1}, {2, 2}, {3, 7}, {7, 3}, {5, 9}, {0, 4}}) {
    auto src = MakeImage(w, h, std::vector<Color4B>(w * h, Color4B{9, 9, 9, 255}));
    for (auto target : {IImage::DXT1, IImage::DXT5}) {
      auto c = ImageUtil::CompressImage(src, target);
      auto d = ImageUtil::DecompressImage(c, IImage::RGBA);
      EXPECT_EQ(d->width(), static_cast<std::uint64_t>(w));
    }
  }
}

TEST(DxtCodec, ArraysAreReplacedInPlace) {
  std::vector<std::shared_ptr<const IImage>> images;
  for (int i = 0; i < 5; ++i) images.push_back(MakeImage(8, 4, std::vector<Color4B>(32, Color4B{50, 60, 70, 255})));
  images.push_back(nullptr);
  const Block single = Bytes(*ImageUtil::CompressImage(images[0], IImage::DXT1));
  const IDataArray<std::shared_ptr<const IImage>> view = MakeDataArray(images);
  ImageUtil::CompressImages(view, IImage::DXT1);
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(images[i]->format(), IImage::DXT1);
    EXPECT_EQ(Bytes(*images[i]), single);
  }
  EXPECT_EQ(images[5], nullptr);
  ImageUtil::DecompressImages(view, IImage::BGRA);
  EXPECT_EQ(images[2]->format(), IImage::BGRA);
  EXPECT_EQ(PixelAt(*images[2], 7, 3), (Color4B{48, 63, 64, 255}));
  ImageUtil::CompressImages(IDataArray<std::shared_ptr<const IImage>>{}, IImage::DXT1);  // empty: nothing
}

// ---- ForceFormat ------------------------------------------------------------------

TEST(ForceFormat, ReturnsTheSourceItselfForItsFormatAndConvertsEverySupportedPair) {
  EXPECT_EQ(ImageUtil::ForceFormat(nullptr, IImage::DXT1), nullptr);
  std::shared_ptr<const IImage> src = MakeImage(4, 4, Fill({1, 2, 3, 4}));
  EXPECT_EQ(ImageUtil::ForceFormat(src, IImage::RGBA).get(), src.get());
  std::vector<Color4B> px(64);
  for (std::size_t i = 0; i < px.size(); ++i)
    px[i] = {static_cast<std::uint8_t>(i * 4), static_cast<std::uint8_t>(255 - i), 77, 255};
  std::shared_ptr<const IImage> rgba = MakeImage(8, 8, px);
  auto bgra = ImageUtil::ForceFormat(rgba, IImage::BGRA);
  ASSERT_NE(bgra, nullptr);
  // Bytes 0 and 2 exchanged, and labelled with what they now are.
  EXPECT_EQ(bgra->format(), IImage::BGRA);
  EXPECT_EQ(PixelAt(*bgra, 3, 2), px[19]);  // same colour read through the new label
  EXPECT_EQ(bgra->lineData(2, 0)[3 * 4], px[19].b);  // stored blue first
  EXPECT_EQ(Bytes(*ImageUtil::ForceFormat(bgra, IImage::RGBA)), Bytes(*rgba));
  auto dxt1 = ImageUtil::ForceFormat(rgba, IImage::DXT1);
  EXPECT_EQ(Bytes(*dxt1), Bytes(*ImageUtil::CompressImage(rgba, IImage::DXT1)));
  auto back = ImageUtil::ForceFormat(dxt1, IImage::BGRA);
  EXPECT_EQ(Bytes(*back), Bytes(*ImageUtil::DecompressImage(dxt1, IImage::BGRA)));
}

TEST(ForceFormat, DxtToDxtWarnsAndGoesThroughRgbaWhileUnsupportedPairsWarnAndGiveNull) {
  testing::LogRecorder log;
  std::shared_ptr<const IImage> dxt1 = ImageUtil::CompressImage(MakeImage(8, 8, std::vector<Color4B>(64, Color4B{9, 80, 200, 255})), IImage::DXT1);
  auto dxt5 = ImageUtil::ForceFormat(dxt1, IImage::DXT5);
  ASSERT_NE(dxt5, nullptr);
  EXPECT_EQ(dxt5->format(), IImage::DXT5);
  EXPECT_EQ(dxt5->mipLevels(), 1u);
  EXPECT_TRUE(log.contains(
      "Performance warning: Converting between DXT1 and DXT2 is expensive and usually doesn't make sense."));
  testing::LogRecorder unsupported;
  std::shared_ptr<const IImage> rgba = MakeImage(4, 4, Fill({1, 2, 3, 4}));
  EXPECT_EQ(ImageUtil::ForceFormat(rgba, IImage::Float32), nullptr);
  EXPECT_EQ(ImageUtil::ForceFormat(ImageUtil::CreateImage(4, 4, IImage::Float32, 1), IImage::RGBA), nullptr);
  EXPECT_EQ(ImageUtil::ForceFormat(rgba, IImage::Unknown), nullptr);
  EXPECT_EQ(unsupported.messages().size(), 3u);
  EXPECT_TRUE(unsupported.contains("Conversion failed. Unknown or incompatible formats."));
}

// ---- SIMD kernel equals the scalar reference -------------------------------------

#if KEL_DXT_SSE2
struct RandomBlocks {
  const char* name;
  int colours;     // distinct colours per block (0 = every pixel random)
  bool lowAlpha;   // alpha around the punch-through threshold and extremes
};

class DxtKernels : public ::testing::TestWithParam<RandomBlocks> {};

TEST_P(DxtKernels, Sse2MatchesScalarBitForBit) {
  const RandomBlocks kind = GetParam();
  std::mt19937 rng(12345);
  static constexpr std::uint8_t kAlphas[] = {0, 1, 127, 128, 254, 255};
  for (int n = 0; n < 20000; ++n) {
    std::uint8_t px[64];
    std::uint8_t pool[4][4];
    for (auto& c : pool)
      for (auto& b : c) b = static_cast<std::uint8_t>(rng());
    for (int i = 0; i < 16; ++i) {
      for (int ch = 0; ch < 4; ++ch)
        px[4 * i + ch] = kind.colours ? pool[rng() % kind.colours][ch] : static_cast<std::uint8_t>(rng());
      if (kind.lowAlpha) px[4 * i + 3] = kAlphas[rng() % 6];
    }
    const std::uint8_t* rows[4] = {px, px + 16, px + 32, px + 48};
    for (bool bgra : {false, true})
      for (bool dxt1 : {true, false}) {
        std::uint8_t a[8], b[8];
        detail::EncodeColourScalar(rows, bgra, dxt1, a);
        detail::EncodeColourSse2(rows, bgra, dxt1, b);
        ASSERT_EQ(std::memcmp(a, b, 8), 0) << kind.name << " block " << n;
      }
    std::uint8_t a[8], b[8];
    detail::EncodeAlphaScalar(rows, a);
    detail::EncodeAlphaSse2(rows, b);
    ASSERT_EQ(std::memcmp(a, b, 8), 0) << kind.name << " alpha block " << n;
    // The decoder too, on random block bytes (every mode and palette).
    std::uint8_t block[16], want[64], got[64];
    for (auto& v : block) v = static_cast<std::uint8_t>(rng());
    for (bool dxt5 : {false, true})
      for (bool bgra : {false, true}) {
        detail::DecodeBlockScalar(block, dxt5, bgra, want, 16);
        detail::DecodeBlockSse2(block, dxt5, bgra, got, 16);
        ASSERT_EQ(std::memcmp(want, got, 64), 0) << kind.name << " decoded block " << n;
      }
  }
}

TEST(DxtKernels, WholeImagesMatchTheScalarKernelBlockByBlock) {
  // 5 blocks across: pairs of blocks and a single one at the end of each row.
  std::mt19937 rng(99);
  std::vector<Color4B> px(20 * 12);
  for (auto& c : px) {
    const std::uint8_t base = static_cast<std::uint8_t>(rng() % 200);
    c = {static_cast<std::uint8_t>(base + rng() % 40), static_cast<std::uint8_t>(base + rng() % 50),
         static_cast<std::uint8_t>(base + rng() % 30), static_cast<std::uint8_t>(rng() % 3 == 0 ? rng() : 255)};
  }
  for (auto format : {IImage::RGBA, IImage::BGRA})
    for (auto target : {IImage::DXT1, IImage::DXT5}) {
      auto src = MakeImage(20, 12, px, format);
      const Block all = Bytes(*ImageUtil::CompressImage(src, target));
      const std::size_t blockBytes = target == IImage::DXT5 ? 16 : 8;
      for (int by = 0; by < 3; ++by)
        for (int bx = 0; bx < 5; ++bx) {
          const std::uint8_t* rows[4];
          for (int j = 0; j < 4; ++j) rows[j] = src->lineData(0, 0) + ((by * 4 + j) * 20 + bx * 4) * 4;
          std::uint8_t expect[16];
          if (target == IImage::DXT5) {
            detail::EncodeAlphaScalar(rows, expect);
            detail::EncodeColourScalar(rows, format == IImage::BGRA, false, expect + 8);
          } else {
            detail::EncodeColourScalar(rows, format == IImage::BGRA, true, expect);
          }
          const std::size_t at = (by * 5 + bx) * blockBytes;
          EXPECT_EQ(Block(all.begin() + at, all.begin() + at + blockBytes), Block(expect, expect + blockBytes))
              << "block " << bx << "," << by;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Blocks, DxtKernels,
                         ::testing::Values(RandomBlocks{"random", 0, false}, RandomBlocks{"two", 2, false},
                                           RandomBlocks{"three", 3, true}, RandomBlocks{"one", 1, true},
                                           RandomBlocks{"any", 0, true}),
                         [](const auto& info) { return std::string(info.param.name); });
#endif

}  // namespace
}  // namespace kel
