#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "image/detail/half_size_lanes.h"
#include "image/image_test_util.h"

namespace kel {
namespace {

using Size = ImageUtil::Size;
using test::LogCapture;
using testing::Bytes;
using testing::FromBytes;
using testing::RandomImage;
using Pixels = std::vector<std::uint8_t>;

const std::uint8_t* Pixel(const IImage& img, std::uint64_t x, std::uint64_t y) { return img.lineData(y, 0) + x * 4; }

std::vector<Size> Sizes(Size s, bool stop, bool block) {
  std::vector<Size> out;
  EnumerateIntoPushBackContainer<std::vector<Size>> sink(out);
  ImageUtil::CreateMipmapSizes(sink, s, stop, block);
  return out;
}

// --- CreateMipmapSizes -------------------------------------------------------

TEST(CreateMipmapSizes, FollowsTheChainTable) {
  struct Case {
    const char* label;
    Size size;
    bool stop, block;
    std::vector<Size> expected;
  } cases[] = {
      {"256x64 block", {256, 64}, false, true, {{256, 64}, {128, 32}, {64, 16}, {32, 8}, {16, 4}, {8, 4}, {4, 4}}},
      {"256x64 block stop", {256, 64}, true, true, {{256, 64}, {128, 32}, {64, 16}, {32, 8}, {16, 4}}},
      {"5x5 block", {5, 5}, false, true, {{5, 5}, {4, 4}}},
      {"8x2 pixel", {8, 2}, false, false, {{8, 2}, {4, 1}, {2, 1}, {1, 1}}},
      {"8x2 pixel stop", {8, 2}, true, false, {{8, 2}, {4, 1}}},
      {"1x1 pixel", {1, 1}, false, false, {{1, 1}}},
      {"6x3 block sets 4", {6, 3}, false, true, {{6, 3}, {4, 4}}},
      {"4x4 block", {4, 4}, false, true, {{4, 4}}},
  };
  for (const auto& c : cases) EXPECT_EQ(Sizes(c.size, c.stop, c.block), c.expected) << c.label;
}

TEST(CreateMipmapSizes, StopsWhenTheSinkSaysSoAndOnDegenerateSizes) {
  struct TakeTwo : IEnumerate<Size> {
    std::vector<Size> seen;
    bool push(const Size& s) override {
      seen.push_back(s);
      return seen.size() < 2;
    }
  } sink;
  ImageUtil::CreateMipmapSizes(sink, Size{64, 64}, false, false);
  EXPECT_EQ(sink.seen.size(), 2u);
  EXPECT_EQ(Sizes({0, 0}, false, false).back(), (Size{1, 1}));
  EXPECT_EQ(Sizes({0xFFFFFFFFFFFFull, 3}, false, true).back(), (Size{4, 4}));
}

// --- AdjustImageForCompression -----------------------------------------------

struct RecordingFilter : ImageUtil::IImageResizeFilter {
  std::vector<Size> calls;
  std::shared_ptr<IImage> resize(const std::shared_ptr<const IImage>&, const Size& target, bool) override {
    calls.push_back(target);
    return ImageUtil::CreateImage(target.width, target.height, IImage::RGBA, 1);
  }
};

TEST(AdjustImageForCompression, PadsToPowersOfTwoOfAtLeastFourThroughTheFilterOrResize) {
  struct Case {
    std::uint64_t w, h, tw, th;
  } cases[] = {{300, 2, 512, 4}, {1, 1, 4, 4}, {5, 17, 8, 32}, {64, 4, 64, 4}, {0, 9, 4, 16}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.w << "x" << c.h);
    auto filter = std::make_shared<RecordingFilter>();
    auto src = ImageUtil::CreateImage(c.w, c.h, IImage::RGBA, 1);
    auto out = ImageUtil::AdjustImageForCompression(src, false, filter);
    ASSERT_TRUE(out);
    EXPECT_EQ(out->width(), c.tw);
    EXPECT_EQ(out->height(), c.th);
    const bool fits = c.w == c.tw && c.h == c.th;
    if (fits) {
      EXPECT_EQ(out, src);
    }
    EXPECT_EQ(filter->calls.size(), fits ? 0u : 1u);
  }
  // Without a filter: the source itself when it fits, else Resize's result.
  auto fit = RandomImage(256, 256, IImage::RGBA, 1);
  EXPECT_EQ(ImageUtil::AdjustImageForCompression(fit, false, nullptr), fit);
  EXPECT_EQ(ImageUtil::AdjustImageForCompression(nullptr, false, nullptr), nullptr);
  auto src = RandomImage(6, 6, IImage::RGBA, 2);
  auto out = ImageUtil::AdjustImageForCompression(src, true, nullptr);
  ASSERT_TRUE(out);
  EXPECT_EQ(Bytes(*out), Bytes(*ImageUtil::Resize(src, Size{8, 8}, true)));
}

// --- ComputeAlphaHint --------------------------------------------------------

TEST(ComputeAlphaHint, ClassifiesAlphaTableAndOtherFormats) {
  struct Case {
    const char* label;
    std::vector<std::uint8_t> alphas;
    ImageUtil::AlphaHint expected;
  } cases[] = {
      {"all opaque", {255, 255, 255, 255}, ImageUtil::AlphaOpaque},
      {"all clear", {0, 0, 0, 0}, ImageUtil::AlphaTransparent},
      {"mask", {0, 255, 255, 0}, ImageUtil::AlphaMask},
      {"blended", {0, 255, 1, 255}, ImageUtil::AlphaBlended},
      {"blended first", {128, 128, 128, 128}, ImageUtil::AlphaBlended},
  };
  for (IImage::Format f : {IImage::RGBA, IImage::BGRA})
    for (const auto& c : cases) {
      auto img = ImageUtil::CreateImage(2, 2, f, 1);
      for (int i = 0; i < 4; ++i) {
        std::uint8_t* p = img->lineData(static_cast<std::uint64_t>(i / 2), 0) + (i % 2) * 4;
        p[0] = p[1] = p[2] = 7;
        p[3] = c.alphas[static_cast<std::size_t>(i)];
      }
      EXPECT_EQ(ImageUtil::ComputeAlphaHint(*img), c.expected) << c.label << " format " << f;
    }
  const struct {
    IImage::Format format;
    std::uint64_t h;
    ImageUtil::AlphaHint expected;
  } others[] = {{IImage::DXT1, 8, ImageUtil::AlphaOpaque},
                {IImage::DXT5, 8, ImageUtil::AlphaUnknown},
                {IImage::Float32, 8, ImageUtil::AlphaUnknown},
                {IImage::RGBA, 0, ImageUtil::AlphaTransparent}};
  for (const auto& o : others)
    EXPECT_EQ(ImageUtil::ComputeAlphaHint(*ImageUtil::CreateImage(8, o.h, o.format, 1)), o.expected) << o.format;
}

// --- PreMultiplyAlpha, AverageColor -------------------------------------------

TEST(PreMultiplyAlpha, ScalesColourBytesByAlphaOnEveryLevelAndStaysInsideTinyLevels) {
  auto img = FromBytes(2, 2, IImage::RGBA,
                       {200, 100, 50, 128, 10, 20, 30, 255, 9, 9, 9, 0, 255, 255, 255, 1,  // level 0
                        200, 100, 50, 128},                                                  // level 1
                       2);
  ImageUtil::PreMultiplyAlpha(*img);
  EXPECT_EQ(Bytes(*img), (Pixels{100, 50, 25, 128, 10, 20, 30, 255, 0, 0, 0, 0, 1, 1, 1, 1, 100, 50, 25, 128}));
  // 4x1 with 3 levels stores 16 + 4 + 1 bytes; level 2 has no whole pixel (ASan checks the overrun).
  ImageUtil::PreMultiplyAlpha(*RandomImage(4, 1, IImage::RGBA, 3, 3));
}

TEST(AverageColor, MeansTheSmallestLevelAndGivesGreyForOtherFormats) {
  const Vec<4, unsigned int> grey(180u, 180u, 180u, 255u);
  EXPECT_EQ(ImageUtil::AverageColor(ImageUtil::CreateImage(8, 8, IImage::DXT1, 1)), grey);
  EXPECT_EQ(ImageUtil::AverageColor(ImageUtil::CreateImage(8, 8, IImage::Unknown, 1)), grey);
  EXPECT_EQ(ImageUtil::AverageColor(nullptr), grey);
  EXPECT_EQ(ImageUtil::AverageColor(FromBytes(1, 1, IImage::RGBA, {1, 2, 3, 4})), (Vec<4, unsigned int>(1u, 2u, 3u, 4u)));
  Pixels bytes(4 * 4 * 4, 0);  // level 0 is ignored
  for (std::uint8_t v : {10, 20, 30, 41, 11, 21, 31, 40, 12, 22, 32, 40, 13, 23, 33, 40}) bytes.push_back(v);
  EXPECT_EQ(ImageUtil::AverageColor(FromBytes(4, 4, IImage::RGBA, bytes, 2)), (Vec<4, unsigned int>(11u, 21u, 31u, 40u)));
}

// --- Resize: fast half-size path ---------------------------------------------

TEST(ResizeFastPath, PairsColumnsZeroAndTwoAndRoundsHalvesUp) {
  auto src = RandomImage(16, 16, IImage::RGBA, 4);
  auto dst = ImageUtil::Resize(src, Size{8, 8}, false);
  ASSERT_TRUE(dst);
  ASSERT_EQ(dst->width(), 8u);
  ASSERT_EQ(dst->mipLevels(), 1u);
  static const int kFirst[4] = {0, 1, 4, 5};
  for (std::uint64_t y = 0; y < 8; ++y)
    for (std::uint64_t x = 0; x < 8; ++x) {
      const std::uint64_t sx = (x / 4) * 8 + static_cast<std::uint64_t>(kFirst[x % 4]);
      for (int c = 0; c < 4; ++c) {
        const int sum = Pixel(*src, sx, 2 * y)[c] + Pixel(*src, sx + 2, 2 * y)[c] + Pixel(*src, sx, 2 * y + 1)[c] +
                        Pixel(*src, sx + 2, 2 * y + 1)[c];
        ASSERT_EQ(Pixel(*dst, x, y)[c], (sum + 2) >> 2) << x << "," << y << " channel " << c;
      }
    }
  // Columns 0 and 2 of both rows: 1 + 2 + 0 + 0 = 3 -> (3 + 2) >> 2 = 1.
  Pixels bytes(8 * 6 * 4, 0);
  bytes[0] = 1;
  bytes[8] = 2;
  auto half = ImageUtil::Resize(FromBytes(8, 6, IImage::BGRA, bytes), Size{4, 3}, false);
  EXPECT_EQ(half->format(), IImage::BGRA);
  EXPECT_EQ(half->lineData(0, 0)[0], 1);
}

TEST(ResizeFastPath, SimdKernelMatchesScalarOnRandomRows) {
  std::mt19937 rng(5);
  for (std::size_t groups : {1u, 2u, 7u, 64u}) {
    std::vector<std::uint8_t> a(groups * 32), b(groups * 32);
    for (auto& v : a) v = static_cast<std::uint8_t>(rng());
    for (auto& v : b) v = static_cast<std::uint8_t>(rng());
    alignas(16) std::uint8_t scalar[64 * 16], vec[64 * 16], streamed[64 * 16];
    detail::HalveRowScalar(a.data(), b.data(), scalar, groups);
#if KEL_HALF_SIZE_SSE2
    detail::HalveRowSse2(a.data(), b.data(), vec, groups, false);
    detail::HalveRowSse2(a.data(), b.data(), streamed, groups, true);
    detail::HalveRowsDone();
#else
    detail::HalveRowScalar(a.data(), b.data(), vec, groups);
    std::memcpy(streamed, vec, groups * 16);
#endif
    EXPECT_EQ(std::memcmp(scalar, vec, groups * 16), 0) << groups;
    EXPECT_EQ(std::memcmp(scalar, streamed, groups * 16), 0) << groups;
  }
}

TEST(ResizeFastPath, LargeDestinationsMatchTheScalarKernel) {
  // 512 KiB of destination: the size where streaming stores take over.
  auto src = RandomImage(1024, 512, IImage::RGBA, 15);
  auto dst = ImageUtil::Resize(src, Size{512, 256}, false);
  std::vector<std::uint8_t> row(512 * 4);
  for (std::uint64_t y = 0; y < 256; ++y) {
    detail::HalveRowScalar(src->lineData(2 * y, 0), src->lineData(2 * y + 1, 0), row.data(), 128);
    ASSERT_EQ(std::memcmp(dst->lineData(y, 0), row.data(), row.size()), 0) << y;
  }
}

TEST(ResizeFastPath, NotTakenWhenExactOrIneligible) {
  // 8x8 with exact: general path blends adjacent columns 0 and 1.
  Pixels bytes;
  for (int i = 0; i < 64; ++i) bytes.insert(bytes.end(), {static_cast<std::uint8_t>(i % 8 * 10), 0, 0, 255});
  auto src = FromBytes(8, 8, IImage::RGBA, bytes);
  EXPECT_EQ(ImageUtil::Resize(src, Size{4, 4}, true)->lineData(0, 0)[0], 5);   // (0 + 10) / 2
  EXPECT_EQ(ImageUtil::Resize(src, Size{4, 4}, false)->lineData(0, 0)[0], 10);  // (0 + 20) / 2
}

// --- Resize: general path ----------------------------------------------------

TEST(ResizeGeneralPath, HandComputedBlends) {
  struct Case {
    const char* label;
    Pixels src;       // 2x1
    Pixels expected;  // 1x1
  } cases[] = {
      {"opaque mean", {100, 0, 0, 255, 0, 200, 0, 255}, {50, 100, 0, 255}},
      {"transparent neighbour ignored", {100, 0, 0, 255, 0, 200, 0, 0}, {100, 0, 0, 127}},
      {"both transparent give zero", {100, 50, 25, 0, 9, 9, 9, 0}, {0, 0, 0, 0}},
      {"alpha weighted", {0, 0, 0, 51, 255, 255, 255, 204}, {204, 204, 204, 127}},
  };
  for (const auto& c : cases) {
    auto out = ImageUtil::Resize(FromBytes(2, 1, IImage::RGBA, c.src), Size{1, 1}, false);
    ASSERT_TRUE(out) << c.label;
    EXPECT_EQ(Bytes(*out), c.expected) << c.label;
  }
  // Uniform areas keep their value whatever the scale.
  auto src = ImageUtil::CreateImage(7, 5, IImage::RGBA, 1);
  ImageUtil::Clear(src, 0xFF3264C8u);
  auto out = ImageUtil::Resize(src, Size{13, 3}, false);
  for (std::uint64_t y = 0; y < 3; ++y)
    for (std::uint64_t x = 0; x < 13; ++x)
      EXPECT_EQ(std::memcmp(Pixel(*out, x, y), src->lineData(0, 0), 4), 0) << x << "," << y;
}

TEST(ResizeGeneralPath, BlendsFloatsDirectly) {
  auto src = ImageUtil::CreateImage(2, 1, IImage::Float32, 1);
  const float in[2] = {0.0f, 8.0f};
  std::memcpy(src->lineData(0, 0), in, 8);
  auto out = ImageUtil::Resize(src, Size{4, 1}, false);  // Float32 never takes the fast path
  std::vector<float> got(4);
  std::memcpy(got.data(), out->lineData(0, 0), 16);
  EXPECT_EQ(got, (std::vector<float>{0.0f, 2.0f, 6.0f, 8.0f}));
  auto square = ImageUtil::CreateImage(16, 16, IImage::Float32, 1);
  ImageUtil::Clear(square, 2.5f);
  auto half = ImageUtil::Resize(square, Size{8, 8}, false);
  float v;
  std::memcpy(&v, half->lineData(7, 0) + 28, 4);
  EXPECT_EQ(v, 2.5f);
}

TEST(Resize, SameSizeReturnsTheSourceAndBadInputIsRefused) {
  auto src = RandomImage(4, 4, IImage::RGBA, 6);
  EXPECT_EQ(ImageUtil::Resize(src, Size{4, 4}, false), src);
  EXPECT_EQ(ImageUtil::Resize(nullptr, Size{4, 4}, false), nullptr);
  LogCapture log;
  EXPECT_EQ(ImageUtil::Resize(ImageUtil::CreateImage(8, 8, IImage::DXT1, 1), Size{4, 4}, false), nullptr);
  EXPECT_EQ(ImageUtil::Resize(src, Size{0xFFFFFFFFu, 4}, false), nullptr);  // -1 as a signed width
  EXPECT_EQ(ImageUtil::Resize(ImageUtil::CreateImage(0, 4, IImage::RGBA, 1), Size{2, 2}, false), nullptr);
  EXPECT_EQ(log.messages().size(), 3u);
  auto empty = ImageUtil::Resize(src, Size{0, 3}, false);
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->width(), 0u);
}

// --- Swizzle, Clear, ClearAlpha -----------------------------------------------

TEST(SwizzleRBChannels, ExchangesBytesZeroAndTwoOnEveryLevelAndRefusesCompressedImages) {
  auto src = RandomImage(8, 4, IImage::RGBA, 7, 3);
  auto out = ImageUtil::SwizzleRBChannels(src);
  ASSERT_TRUE(out);
  EXPECT_EQ(out->mipLevels(), 3u);
  EXPECT_EQ(out->format(), IImage::RGBA);
  Pixels expected = Bytes(*src);
  for (std::size_t i = 0; i < expected.size(); i += 4) std::swap(expected[i], expected[i + 2]);
  EXPECT_EQ(Bytes(*out), expected);
  EXPECT_EQ(Bytes(*ImageUtil::SwizzleRBChannels(out)), Bytes(*src));

  LogCapture log;
  EXPECT_EQ(ImageUtil::SwizzleRBChannels(ImageUtil::CreateImage(8, 8, IImage::DXT5, 1)), nullptr);
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"Channel swizzling is only supported for uncompressed images"}));
  EXPECT_EQ(ImageUtil::SwizzleRBChannels(nullptr), nullptr);
}

TEST(Clear, FillsEveryLevelOrWarns) {
  auto img = ImageUtil::CreateImage(4, 4, IImage::BGRA, 3);
  EXPECT_TRUE(ImageUtil::Clear(img, 0x04030201u));
  const auto bytes = Bytes(*img);
  for (std::size_t i = 0; i < bytes.size(); ++i) EXPECT_EQ(bytes[i], i % 4 + 1);
  EXPECT_TRUE(ImageUtil::ClearAlpha(img, 9));
  EXPECT_EQ(Bytes(*img)[bytes.size() - 1], 9);
  EXPECT_EQ(Bytes(*img)[bytes.size() - 2], 3);

  auto floats = ImageUtil::CreateImage(3, 3, IImage::Float32, 1);
  EXPECT_TRUE(ImageUtil::Clear(floats, -1.5f));
  float v;
  std::memcpy(&v, floats->lineData(2, 0) + 8, 4);
  EXPECT_EQ(v, -1.5f);

  LogCapture log;
  EXPECT_FALSE(ImageUtil::Clear(floats, 1u));
  EXPECT_FALSE(ImageUtil::Clear(img, 1.0f));
  EXPECT_FALSE(ImageUtil::Clear(std::shared_ptr<IImage>(), 1u));
  EXPECT_FALSE(ImageUtil::ClearAlpha(floats, 1));
  EXPECT_FALSE(ImageUtil::ClearAlpha(nullptr, 1));
  ASSERT_EQ(log.messages().size(), 5u);
  EXPECT_EQ(log.messages()[0], "Clear image failed. Image is null or has inappropriate format");
  EXPECT_EQ(log.messages()[4], "ClearAlpha failed: image is null or has inappropriate format");
}

// --- CreateHalo ----------------------------------------------------------------

TEST(CreateHalo, GlowFadesWithDistanceUnderTheOriginalAndNeedsOpaquePixels) {
  auto src = ImageUtil::CreateImage(9, 9, IImage::RGBA, 1);
  ImageUtil::Clear(src, 0u);
  std::uint8_t* centre = src->lineData(4, 0) + 16;
  centre[0] = 10, centre[1] = 20, centre[2] = 30, centre[3] = 255;
  auto halo = ImageUtil::CreateHalo(src, 2, Color4B{255, 255, 0, 255}, IImage::RGBA);
  ASSERT_TRUE(halo);
  EXPECT_EQ(std::memcmp(Pixel(*halo, 4, 4), centre, 4), 0);  // original on top
  const std::uint8_t* near = Pixel(*halo, 5, 4);               // distance 1 of reach 3
  EXPECT_EQ(Pixels(near, near + 4), (Pixels{255, 255, 0, 170}));
  EXPECT_LT(Pixel(*halo, 6, 5)[3], near[3]);  // sqrt(5) away: fainter
  EXPECT_EQ(Pixel(*halo, 7, 4)[3], 0);        // beyond the radius
  EXPECT_EQ(Pixel(*halo, 0, 0)[3], 0);

  auto bgra = ImageUtil::CreateHalo(src, 2, Color4B{255, 255, 0, 255}, IImage::BGRA);
  EXPECT_EQ(bgra->format(), IImage::BGRA);
  EXPECT_EQ(Pixel(*bgra, 5, 4)[2], 255);
  EXPECT_EQ(Pixel(*bgra, 5, 4)[0], 0);
  EXPECT_EQ(ImageUtil::CreateHalo(nullptr, 2, Color4B{}, IImage::RGBA), nullptr);
  // Radius 0 copies; without opaque pixels there is nothing to glow.
  auto noise = RandomImage(5, 3, IImage::RGBA, 8);
  ImageUtil::ClearAlpha(noise, 255);
  EXPECT_EQ(Bytes(*ImageUtil::CreateHalo(noise, 0, Color4B{1, 2, 3, 255}, IImage::RGBA)), Bytes(*noise));
  ImageUtil::ClearAlpha(noise, 0);
  const auto out = Bytes(*ImageUtil::CreateHalo(noise, 3, Color4B{1, 2, 3, 255}, IImage::RGBA));
  EXPECT_EQ(out, Pixels(out.size(), 0));
}

// --- Mip chains ------------------------------------------------------------------

bool LevelIs(const IImage& mips, std::uint64_t level, const IImage& expected) {
  return std::memcmp(mips.lineData(0, level), expected.lineData(0, 0), expected.sizeInBytes()) == 0;
}

TEST(CreateMipmaps, StacksHalvedLevelsStoppingAtTheFirstMinimumAndConverts) {
  auto src = RandomImage(16, 16, IImage::RGBA, 9);
  auto mips = ImageUtil::CreateMipmaps(src, IImage::RGBA, false, nullptr);
  ASSERT_TRUE(mips);
  EXPECT_EQ(mips->mipLevels(), 5u);  // 16, 8, 4, 2, 1
  auto level1 = ImageUtil::Resize(src, Size{8, 8}, false);
  EXPECT_TRUE(LevelIs(*mips, 0, *src));
  EXPECT_TRUE(LevelIs(*mips, 1, *level1));
  EXPECT_TRUE(LevelIs(*mips, 2, *ImageUtil::Resize(level1, Size{4, 4}, false)));

  auto wide = RandomImage(8, 2, IImage::RGBA, 10);
  auto bgra = ImageUtil::CreateMipmaps(wide, IImage::BGRA, false, nullptr);
  ASSERT_TRUE(bgra);
  EXPECT_EQ(bgra->format(), IImage::BGRA);
  EXPECT_EQ(bgra->mipLevels(), 2u);  // 8x2, 4x1
  EXPECT_EQ(bgra->lineData(0, 0)[0], wide->lineData(0, 0)[2]);
  // Odd sizes do not halve exactly: only level 0 fits the quarter layout.
  EXPECT_EQ(ImageUtil::CreateMipmaps(RandomImage(6, 3, IImage::RGBA, 11), IImage::RGBA, false, nullptr)->mipLevels(),
            1u);
}

TEST(CreateMipmaps, CompressesEveryLevelDownToTheFirstBlockMinimum) {
  auto src = RandomImage(32, 8, IImage::RGBA, 13);
  auto mips = ImageUtil::CreateMipmaps(src, IImage::DXT1, false, nullptr);
  ASSERT_TRUE(mips);
  EXPECT_EQ(mips->format(), IImage::DXT1);
  EXPECT_EQ(mips->mipLevels(), 2u);  // 32x8, 16x4
  EXPECT_TRUE(LevelIs(*mips, 1, *ImageUtil::CompressImage(ImageUtil::Resize(src, Size{16, 4}, false), IImage::DXT1)));
  // A DXT source is decoded first; Float32 cannot become DXT.
  EXPECT_EQ(ImageUtil::CreateMipmaps(mips, IImage::RGBA, false, nullptr)->mipLevels(), 4u);  // down to 4x1
  LogCapture log;
  EXPECT_EQ(ImageUtil::CreateMipmaps(ImageUtil::CreateImage(8, 8, IImage::Float32, 1), IImage::DXT1, false, nullptr),
            nullptr);
}

TEST(CreateMipmapSequence, EmitsEveryLevelAsItsOwnImage) {
  std::vector<std::shared_ptr<IImage>> out{ImageUtil::CreateImage(1, 1, IImage::RGBA, 1)};
  auto filter = std::make_shared<RecordingFilter>();
  ImageUtil::CreateMipmapSequence(out, RandomImage(8, 2, IImage::RGBA, 12), IImage::RGBA, false, filter);
  ASSERT_EQ(out.size(), 4u);
  EXPECT_EQ(out[3]->width(), 1u);
  EXPECT_EQ(out[3]->height(), 1u);
  EXPECT_EQ(filter->calls.size(), 3u);
  ImageUtil::CreateMipmapSequence(out, nullptr, IImage::RGBA, false, nullptr);
  EXPECT_TRUE(out.empty());
  ImageUtil::CreateMipmapSequence(out, RandomImage(16, 4, IImage::RGBA, 14), IImage::DXT5, false, nullptr);
  ASSERT_EQ(out.size(), 3u);  // 16x4, 8x4, 4x4: block sizes never drop below 4
  EXPECT_EQ(out[1]->width(), 8u);
  EXPECT_EQ(out[1]->height(), 4u);
  EXPECT_EQ(out[2]->format(), IImage::DXT5);
}

}  // namespace
}  // namespace kel
