#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <jpeglib.h>

#include "kel/core/text.h"
#include "kel/core/wexception.h"
#include "image/image_test_util.h"
#include "kel/image/image_util.h"
#include "support/peers.h"
#include "support/scratch.h"

namespace kel {
namespace {

using testing::DataPath;
using testing::ErrorOf;
using testing::ReadFile;
using Pixels = std::vector<std::uint8_t>;

TEST(Load, DecodesPngExactlyAndExpandsGreyToOpaqueRgba) {
  auto img = ImageUtil::Load(DataPath("tiny_rgba.png"), IImage::RGBA);
  ASSERT_TRUE(img);
  EXPECT_EQ(img->width(), 3u);
  EXPECT_EQ(img->height(), 2u);
  EXPECT_EQ(img->mipLevels(), 1u);
  EXPECT_EQ(testing::Bytes(*img), (Pixels{255, 0, 0, 255, 0, 255, 0, 128, 0, 0, 255, 0,
                                      10, 20, 30, 40, 200, 100, 50, 255, 255, 255, 255, 255}));
  auto bgra = ImageUtil::Load(DataPath("tiny_rgba.png"), IImage::BGRA);
  EXPECT_EQ(bgra->format(), IImage::BGRA);
  EXPECT_EQ(bgra->lineData(0, 0)[2], 255);
  EXPECT_EQ(bgra->lineData(0, 0)[0], 0);
  // Grey expands to opaque RGBA.
  EXPECT_EQ(testing::Bytes(*ImageUtil::Load(DataPath("tiny_grey.png"), IImage::RGBA)),
            (Pixels{0, 0, 0, 255, 85, 85, 85, 255, 170, 170, 170, 255, 255, 255, 255, 255}));
}

TEST(Load, DecodesJpegFilesWithUpperCaseExtensionsToo) {
  auto img = ImageUtil::Load(DataPath("tiny_rgb.jpg"), IImage::RGBA);
  ASSERT_TRUE(img);
  EXPECT_EQ(img->width(), 16u);
  EXPECT_EQ(img->height(), 8u);
  const std::uint8_t* p = img->lineData(7, 0) + 15 * 4;
  EXPECT_NEAR(p[0], 200, 3);
  EXPECT_NEAR(p[1], 100, 3);
  EXPECT_NEAR(p[2], 50, 3);
  EXPECT_EQ(p[3], 255);
  const auto bytes = ReadFile(DataPath("tiny_grey.jpg"));
  auto grey = ImageUtil::LoadFromMemory(bytes.data(), bytes.size(), L"dir.v2/GREY.JPEG", IImage::RGBA);
  EXPECT_NEAR(grey->lineData(3, 0)[4], 77, 2);
  EXPECT_EQ(grey->lineData(3, 0)[4], grey->lineData(3, 0)[6]);
}

TEST(Load, ConvertsToTheRequestedFormat) {
  auto dxt = ImageUtil::Load(DataPath("tiny_rgb.jpg"), IImage::DXT1);
  ASSERT_TRUE(dxt);
  EXPECT_EQ(dxt->format(), IImage::DXT1);
  EXPECT_EQ(dxt->width(), 16u);
  EXPECT_EQ(dxt->mipLevels(), 1u);
}

TEST(Load, ReadsDdsThroughTheTextureReader) {
  auto img = ImageUtil::Load(DataPath("tiny_rgba.dds"), IImage::RGBA);
  ASSERT_TRUE(img);
  EXPECT_EQ(img->width(), 4u);
  EXPECT_EQ(img->format(), IImage::RGBA);
  std::vector<std::uint8_t> expected(64);
  for (std::size_t i = 0; i < 64; ++i) expected[i] = static_cast<std::uint8_t>(i * 16);
  EXPECT_EQ(testing::Bytes(*img), expected);
  auto dxt = ImageUtil::Load(DataPath("im_dxt1.dds"), IImage::BGRA);
  ASSERT_TRUE(dxt);
  EXPECT_EQ(dxt->format(), IImage::BGRA);

  // Pixel bytes cut short: refused, never read past the buffer.
  const auto bytes = ReadFile(DataPath("tiny_rgba.dds"));
  for (std::size_t n : {std::size_t{4}, std::size_t{127}, std::size_t{128}, bytes.size() - 1})
    EXPECT_FALSE(ErrorOf([&] { ImageUtil::LoadFromMemory(bytes.data(), n, L"cut.dds", IImage::RGBA); }).empty()) << n;
  EXPECT_TRUE(ErrorOf([&] { ImageUtil::LoadFromMemory(bytes.data(), bytes.size(), L"UP.DDS", IImage::RGBA); }).empty());
}

TEST(Load, SharedPhotographHasItsSize) {
  auto img = ImageUtil::Load(Utf8String2WString(KEL_SHARED_DATA_DIR "/photo_board.jpg"), IImage::RGBA);
  ASSERT_TRUE(img);
  EXPECT_EQ(img->width(), 720u);
  EXPECT_EQ(img->height(), 477u);
}

TEST(Load, MemoryAndFileAgree) {
  for (const char* name : {"tiny_rgba.png", "tiny_rgb.jpg"}) {
    const auto bytes = ReadFile(DataPath(name));
    auto a = ImageUtil::Load(DataPath(name), IImage::RGBA);
    auto b = ImageUtil::LoadFromMemory(bytes.data(), bytes.size(), DataPath(name), IImage::RGBA);
    EXPECT_EQ(testing::Bytes(*a), testing::Bytes(*b)) << name;
  }
}

TEST(Load, EveryErrorNamesThePathDirectoriesIncluded) {
  const std::string dir = ::testing::TempDir() + "kel_dir.png";
  std::filesystem::create_directories(dir);
  const struct {
    std::wstring path, error;
  } loads[] = {
      {DataPath("no_such_file.png"), L"Failed to open file: "},
      {L"/tmp/.", L"Unsupported file extension: "},
      {L"picture.gif", L"Unsupported file extension: "},
      {L"folder.png/picture", L"Unsupported file extension: "},
      {L"/dev/null.png", L"Failed to open file: "},
      {Utf8String2WString(dir), L"Failed to open file: "},  // a directory
  };
  for (const auto& c : loads)
    EXPECT_EQ(ErrorOf([&] { ImageUtil::Load(c.path, IImage::RGBA); }), c.error + c.path) << WString2Utf8String(c.path);

  const std::wstring empty = Utf8String2WString(::testing::TempDir() + "kel_empty.jpg");
  std::ofstream(WString2Utf8String(empty)).close();
  EXPECT_EQ(ErrorOf([&] { ImageUtil::Load(empty, IImage::RGBA); }), L"File is empty: " + empty);

  // PNG bytes under a JPEG name and the other way round.
  const auto png = ReadFile(DataPath("tiny_rgba.png"));
  EXPECT_EQ(ErrorOf([&] { ImageUtil::LoadFromMemory(png.data(), png.size(), L"a.jpg", IImage::RGBA); }),
            L"Image decompression failed: a.jpg");
  const auto jpg = ReadFile(DataPath("tiny_rgb.jpg"));
  EXPECT_EQ(ErrorOf([&] { ImageUtil::LoadFromMemory(jpg.data(), jpg.size(), L"b.png", IImage::RGBA); }),
            L"Image decompression failed: b.png");
  EXPECT_EQ(ErrorOf([&] { ImageUtil::LoadFromMemory(jpg.data(), 0, L"c.png", IImage::RGBA); }),
            L"File is empty: c.png");
  EXPECT_EQ(ErrorOf([&] { ImageUtil::LoadFromMemory(jpg.data(), jpg.size(), L"c.tif", IImage::RGBA); }),
            L"Unsupported file extension: c.tif");
}

TEST(Load, EveryTruncatedPrefixFailsCleanly) {
  // Trailing bytes a decoder may do without once the pixels are complete:
  // PNG's IEND chunk (12 bytes) and JPEG's EOI marker (2 bytes).
  const struct {
    const char* name;
    std::size_t optionalTail;
  } files[] = {{"tiny_rgba.png", 12}, {"tiny_rgb.jpg", 2}, {"tiny_grey.jpg", 2}};
  for (const auto& [name, optionalTail] : files) {
    const auto bytes = ReadFile(DataPath(name));
    const std::wstring wname = Utf8String2WString(name);
    const auto full = testing::Bytes(*ImageUtil::LoadFromMemory(bytes.data(), bytes.size(), wname, IImage::RGBA));
    for (std::size_t n = 1; n < bytes.size(); ++n) {
      const std::vector<std::uint8_t> prefix(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n));
      const std::wstring err =
          ErrorOf([&] { ImageUtil::LoadFromMemory(prefix.data(), prefix.size(), wname, IImage::RGBA); });
      if (err.empty()) {
        EXPECT_GE(n + optionalTail, bytes.size()) << name << " prefix " << n;
        EXPECT_EQ(testing::Bytes(*ImageUtil::LoadFromMemory(prefix.data(), prefix.size(), wname, IImage::RGBA)), full);
        continue;
      }
      EXPECT_EQ(err, L"Image decompression failed: " + wname) << n;
    }
  }
}

// Headers claiming more pixels than their bytes can carry are refused before
// the decoder allocates; files as dense as real encoders make still load.
TEST(Load, DecodersAreBoundedByTheirInput) {
  auto big = [](std::vector<std::uint8_t> bytes, bool png, std::uint32_t w, std::uint32_t h) {
    if (png) {
      auto put32 = [&](std::size_t at, std::uint32_t v) {
        for (int i = 0; i < 4; ++i) bytes[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(v >> (24 - 8 * i));
      };
      put32(16, w);
      put32(20, h);
      // Keep the header chunk's CRC valid so the size, not the checksum, is refused.
      std::uint32_t crc = 0xFFFFFFFFu;
      for (std::size_t i = 12; i < 29; ++i) {
        crc ^= bytes[i];
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
      }
      put32(29, ~crc);
      return bytes;
    }
    for (std::size_t i = 0; i + 8 < bytes.size(); ++i)
      if (bytes[i] == 0xFF && (bytes[i + 1] == 0xC0 || bytes[i + 1] == 0xC2)) {  // start of frame
        bytes[i + 5] = static_cast<std::uint8_t>(h >> 8);
        bytes[i + 6] = static_cast<std::uint8_t>(h);
        bytes[i + 7] = static_cast<std::uint8_t>(w >> 8);
        bytes[i + 8] = static_cast<std::uint8_t>(w);
        break;
      }
    return bytes;
  };
  const auto png = ReadFile(DataPath("tiny_rgba.png")), jpg = ReadFile(DataPath("tiny_rgb.jpg"));
  ASSERT_LT(jpg.size(), 1000u);
  for (const auto& [bytes, name] : {std::pair{big(png, true, 40000, 40000), L"big.png"},
                                    std::pair{big(png, true, 3000, 3000), L"dense.png"},
                                    std::pair{big(jpg, false, 4112, 63751), L"bomb.jpg"},
                                    std::pair{big(jpg, false, 400, 400), L"dense.jpg"}})
    EXPECT_EQ(ErrorOf([&] { ImageUtil::LoadFromMemory(bytes.data(), bytes.size(), name, IImage::RGBA); }),
              std::wstring(L"Image decompression failed: ") + name);

  if (!test::HaveProgram(test::Convert())) GTEST_SKIP() << "ImageMagick missing";
  test::ScratchDir dir("kel_load_dense");
  for (const char* file : {"uniform.jpg", "uniform.png"}) {
    const std::string path = dir / file;
    ASSERT_EQ(test::Run(test::Convert() + " -size 3000x2000 xc:gray40 -depth 8 " + test::Quote(path)), 0);
    auto img = ImageUtil::Load(Utf8String2WString(path), IImage::RGBA);
    ASSERT_TRUE(img) << file;
    EXPECT_EQ(img->width() * img->height(), 6000000u);
    EXPECT_NEAR(img->lineData(1999, 0)[4 * 2999], 102, 1) << file;
  }
}

// CMYK JPEGs as ImageMagick writes them, and YCCK ones as libjpeg writes them
// for Adobe's inverted inks, load as the RGB that ImageMagick shows.
TEST(Load, CmykAndYcckJpegsLoadAsImageMagickShowsThem) {
  if (!test::HaveProgram(test::Convert())) GTEST_SKIP() << "ImageMagick missing";
  test::ScratchDir dir("kel_load_cmyk");
  const std::string source = "-size 32x32 -depth 8 " + test::Quote("rgba:" + WString2Utf8String(DataPath("source32.rgba")));
  const std::string cmyk = dir / "cmyk.jpg", ycck = dir / "ycck.jpg", raw = dir / "cmyk.raw";
  ASSERT_EQ(test::Run(test::Convert() + " " + source + " -alpha off -colorspace CMYK -quality 95 " + test::Quote(cmyk)), 0);
  ASSERT_EQ(test::Run(test::Convert() + " " + source + " -alpha off -colorspace CMYK -depth 8 " + test::Quote("cmyk:" + raw)), 0);
  {
    std::vector<std::uint8_t> inks = ReadFile(Utf8String2WString(raw));
    ASSERT_EQ(inks.size(), 32u * 32 * 4);
    for (auto& v : inks) v = static_cast<std::uint8_t>(255 - v);  // Adobe's inverted convention
    jpeg_compress_struct info;
    jpeg_error_mgr err;
    info.err = jpeg_std_error(&err);
    jpeg_create_compress(&info);
    unsigned char* out = nullptr;
    unsigned long outSize = 0;
    jpeg_mem_dest(&info, &out, &outSize);
    info.image_width = info.image_height = 32;
    info.input_components = 4;
    info.in_color_space = JCS_CMYK;
    jpeg_set_defaults(&info);
    jpeg_set_colorspace(&info, JCS_YCCK);
    jpeg_set_quality(&info, 95, TRUE);
    jpeg_start_compress(&info, TRUE);
    for (JSAMPROW row = inks.data(); info.next_scanline < 32; row += 32 * 4) jpeg_write_scanlines(&info, &row, 1);
    jpeg_finish_compress(&info);
    test::WriteBytes(ycck, std::string(reinterpret_cast<char*>(out), outSize));
    jpeg_destroy_compress(&info);
    std::free(out);
  }
  for (const std::string& path : {cmyk, ycck}) {
    auto ours = ImageUtil::Load(Utf8String2WString(path), IImage::RGBA);
    ASSERT_TRUE(ours) << path;
    const std::string rgba = dir / "theirs.rgba";
    ASSERT_EQ(test::Run(test::Convert() + " " + test::Quote(path) + " -colorspace sRGB -alpha off -depth 8 " +
                        test::Quote("rgb:" + rgba)),
              0);
    const auto theirs = ReadFile(Utf8String2WString(rgba));
    ASSERT_EQ(theirs.size(), 32u * 32 * 3);
    const std::uint8_t* p = ours->lineData(0, 0);
    for (std::size_t i = 0; i < 32 * 32; ++i) {
      for (int k = 0; k < 3; ++k) ASSERT_NEAR(p[4 * i + k], theirs[3 * i + k], 2) << path << " pixel " << i;
      ASSERT_EQ(p[4 * i + 3], 255);
    }
  }
}

}  // namespace
}  // namespace kel
