#include "kel/image/dds.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <fstream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "image/image_test_util.h"
#include "kel/core/path.h"
#include "kel/core/text.h"
#include "kel/core/wexception.h"
#include "kel/image/image_util.h"
#include "support/peers.h"
#include "support/scratch.h"

namespace kel {
namespace {

using Bytes = std::vector<unsigned char>;
using testing::ErrorOf;
using testing::RandomImage;
using testing::ReadFile;

std::uint32_t Word(const Bytes& b, std::size_t offset) {
  return b[offset] | (b[offset + 1] << 8) | (b[offset + 2] << 16) | (std::uint32_t{b[offset + 3]} << 24);
}
void SetWord(Bytes& b, std::size_t offset, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) b[offset + i] = static_cast<unsigned char>(v >> (8 * i));
}
// Byte offset of header word `field` in a file (after the 4-byte magic).
constexpr std::size_t At(std::size_t field) { return 4 + 4 * field; }

Bytes ToMemory(const std::shared_ptr<const IImage>& img) {
  Bytes out;
  DDSFileUtil::SaveTextureToMemory(out, img);
  return out;
}

// Unique per process: the suite may run in several build trees at once.
std::wstring TempPath(const std::string& name) {
  return Utf8String2WString(::testing::TempDir() + "kel_dds_" + std::to_string(::getpid()) + "_" + name);
}

void WriteFile(const std::wstring& path, const Bytes& bytes) {
  std::ofstream out(File::NativePath(path), std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

const std::wstring kShortBuffer = L"DDS data is shorter than its header announces: buffer";

// ---- Header bytes --------------------------------------------------------------

struct HeaderCase {
  const char* name;
  IImage::Format format;
  std::uint64_t w, h, levels;
  // flags, pitch/linear size, pf flags, fourCC, bit count, R, G, B, A masks
  std::uint32_t flags, pitch, pfFlags, fourCC, bits, r, g, b, a;
};

class DdsHeader : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(DdsHeader, MatchesTheHandWrittenWords) {
  const HeaderCase c = GetParam();
  const Bytes file = ToMemory(ImageUtil::CreateImage(c.w, c.h, c.format, c.levels));
  ASSERT_EQ(file.size(), 128 + IImage::SizeInBytes(c.w, c.h, c.format, c.levels));
  EXPECT_EQ(std::string(file.begin(), file.begin() + 4), "DDS ");
  std::vector<std::uint32_t> expected(31, 0);
  expected[0] = 124;
  expected[1] = c.flags;
  expected[2] = static_cast<std::uint32_t>(c.h);
  expected[3] = static_cast<std::uint32_t>(c.w);
  expected[4] = c.pitch;
  expected[6] = static_cast<std::uint32_t>(c.levels);
  expected[18] = 32;
  expected[19] = c.pfFlags;
  expected[20] = c.fourCC;
  expected[21] = c.bits;
  expected[22] = c.r;
  expected[23] = c.g;
  expected[24] = c.b;
  expected[25] = c.a;
  expected[26] = 0x1000;
  for (std::size_t i = 0; i < 31; ++i) EXPECT_EQ(Word(file, At(i)), expected[i]) << c.name << " word " << i;
}

constexpr std::uint32_t kDxt1 = 0x31545844, kDxt5 = 0x35545844;  // "DXT1", "DXT5"

INSTANTIATE_TEST_SUITE_P(
    Formats, DdsHeader,
    ::testing::Values(
        HeaderCase{"rgba", IImage::RGBA, 8, 4, 1, 0x100F, 32, 0x41, 0, 32, 0xFF, 0xFF00, 0xFF0000, 0xFF000000},
        HeaderCase{"bgra", IImage::BGRA, 6, 2, 2, 0x100F, 24, 0x41, 0, 32, 0xFF0000, 0xFF00, 0xFF, 0xFF000000},
        HeaderCase{"dxt1_256_9", IImage::DXT1, 256, 256, 9, 0x81007, 32768, 0x4, kDxt1, 4, 0, 0, 0, 0},
        HeaderCase{"dxt5", IImage::DXT5, 16, 8, 1, 0x81007, 128, 0x4, kDxt5, 8, 0, 0, 0, 0},
        HeaderCase{"dxt1_odd", IImage::DXT1, 10, 7, 1, 0x81007, 8 * 2 * 1, 0x4, kDxt1, 4, 0, 0, 0, 0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DdsHeader, OtherFormatsGetABareHeaderAndAWarning) {
  testing::LogRecorder log;
  const Bytes file = ToMemory(ImageUtil::CreateImage(4, 2, IImage::Float32, 3));
  EXPECT_TRUE(log.contains("Unexpected image format. Can't create surface descriptor for dds."));
  ASSERT_EQ(file.size(), 128 + IImage::SizeInBytes(4, 2, IImage::Float32, 3));
  for (std::size_t i = 0; i < 31; ++i) {
    const std::uint32_t expect = i == 0 ? 124 : i == 2 ? 2 : i == 3 ? 4 : i == 18 ? 32 : i == 26 ? 0x1000 : 0;
    EXPECT_EQ(Word(file, At(i)), expect) << "word " << i;
  }
}

// ---- Round trips ---------------------------------------------------------------

TEST(DdsFile, RoundTripsEveryFormatThroughMemoryAndAWidePath) {
  for (auto format : {IImage::RGBA, IImage::BGRA, IImage::DXT1, IImage::DXT5})
    for (std::uint64_t levels : {1, 4}) {
      auto img = RandomImage(16, 8, format, static_cast<unsigned>(format * 10 + levels), levels);
      const Bytes memory = ToMemory(img);
      const std::wstring path = TempPath("caf\u00E9_\u5730\u56FE.dds");  // opened by its native name
      DDSFileUtil::SaveTexture(img, path);
      EXPECT_EQ(ReadFile(path), memory);
      EXPECT_EQ(DDSFileUtil::GetFormat(path), format);
      EXPECT_FALSE(DDSFileUtil::IsCubeMap(path));
      for (auto loaded : {DDSFileUtil::LoadTexture(path), DDSFileUtil::LoadTextureFromBuffer(memory.data(), memory.size())}) {
        ASSERT_NE(loaded, nullptr);
        EXPECT_EQ(loaded->format(), format);
        EXPECT_EQ(loaded->width(), 16u);
        EXPECT_EQ(loaded->height(), 8u);
        EXPECT_EQ(loaded->mipLevels(), levels);
        EXPECT_EQ(testing::Bytes(*loaded), testing::Bytes(*img));
      }
      std::remove(File::NativePath(path).c_str());
    }
}

TEST(DdsFile, EmptyImagesAreNotSavedAndFailedSavesThrowWithThePath) {
  testing::LogRecorder log;
  const std::wstring path = TempPath("empty.dds");
  std::remove(File::NativePath(path).c_str());
  DDSFileUtil::SaveTexture(ImageUtil::CreateImage(0, 0, IImage::RGBA, 1), path);
  DDSFileUtil::SaveTexture(nullptr, path);
  EXPECT_FALSE(std::ifstream(File::NativePath(path)).good());
  EXPECT_EQ(log.messages().size(), 2u);
  EXPECT_TRUE(log.contains("image is null or empty. no file saved."));
  Bytes out{1, 2, 3};
  DDSFileUtil::SaveTextureToMemory(out, ImageUtil::CreateImage(4, 0, IImage::DXT1, 1));
  EXPECT_EQ(out, (Bytes{1, 2, 3}));
  EXPECT_TRUE(log.contains("image is null or empty. no buffer created."));
  const std::wstring bad = TempPath("no_such_dir/x.dds");
  EXPECT_EQ(ErrorOf([&] { DDSFileUtil::SaveTexture(RandomImage(4, 4, IImage::RGBA, 1), bad); }),
            L"Failed to save DDS file: " + bad);
  // A full disk keeps the texture that was there.
  test::ScratchDir dir;
  const std::wstring full = Utf8String2WString(dir / "full.dds");
  DDSFileUtil::SaveTexture(RandomImage(4, 4, IImage::RGBA, 1), full);
  const Bytes before = ReadFile(full);
  {
    test::FileSizeLimit limit(1000);
    EXPECT_EQ(ErrorOf([&] { DDSFileUtil::SaveTexture(RandomImage(64, 64, IImage::RGBA, 2), full); }),
              L"Failed to save DDS file: " + full);
  }
  EXPECT_EQ(ReadFile(full), before);
  EXPECT_TRUE(test::Leftovers(dir.path()).empty());
}

// ---- Reading odd headers ------------------------------------------------------------

TEST(DdsFile, MissingAndForeignFiles) {
  const std::wstring missing = TempPath("does_not_exist.dds");
  EXPECT_EQ(DDSFileUtil::LoadTexture(missing), nullptr);
  EXPECT_EQ(DDSFileUtil::GetFormat(missing), IImage::Unknown);
  EXPECT_FALSE(DDSFileUtil::IsCubeMap(missing));
  const std::wstring foreign = TempPath("foreign.dds");
  WriteFile(foreign, Bytes(200, 'x'));
  testing::LogRecorder log;
  EXPECT_EQ(DDSFileUtil::LoadTexture(foreign), nullptr);
  EXPECT_TRUE(log.contains("Not a valid dds file: " + WString2Utf8String(foreign)));
  EXPECT_EQ(DDSFileUtil::GetFormat(foreign), IImage::Unknown);
  EXPECT_FALSE(DDSFileUtil::IsCubeMap(foreign));
  std::remove(File::NativePath(foreign).c_str());
}

TEST(DdsFile, EditedHeaderFieldsDecideFormatLevelsAndCubeMap) {
  const std::wstring unsupported =
      L"DDS buffer has unsupported image format. Only DXT1, DXT5, and uncompressed RGBA/BGRA supported. Found: ";
  // 32-bit masks decide over the pixel format flags.
  Bytes rgba = ToMemory(RandomImage(4, 4, IImage::RGBA, 1));
  SetWord(rgba, At(19), 0);  // no RGB, no alpha-pixels flag
  EXPECT_EQ(DDSFileUtil::LoadTextureFromBuffer(rgba.data(), rgba.size())->format(), IImage::RGBA);
  SetWord(rgba, At(22), 0);  // no red
  EXPECT_EQ(ErrorOf([&] { DDSFileUtil::LoadTextureFromBuffer(rgba.data(), rgba.size()); }),
            unsupported + L"32-bit masks R 0x0 G 0xFF00 B 0xFF0000 A 0xFF000000.");

  Bytes dxt = ToMemory(RandomImage(4, 4, IImage::DXT5, 1));
  SetWord(dxt, At(20), 0x32545844);  // "DXT2": premultiplied, not ours to undo
  EXPECT_EQ(ErrorOf([&] { DDSFileUtil::LoadTextureFromBuffer(dxt.data(), dxt.size()); }), unsupported + L"FourCC DXT2.");
  const std::wstring path = TempPath("edited.dds");
  WriteFile(path, dxt);
  EXPECT_EQ(DDSFileUtil::GetFormat(path), IImage::Unknown);
  SetWord(dxt, At(20), 0x30315844);  // "DX10" in a file too short for its extension
  dxt.resize(140);
  EXPECT_EQ(ErrorOf([&] { DDSFileUtil::LoadTextureFromBuffer(dxt.data(), dxt.size()); }),
            unsupported + L"FourCC DX10 without its extended header.");
  SetWord(dxt, At(20), kDxt1);
  SetWord(dxt, At(19), 0);  // fourCC ignored without its flag
  EXPECT_EQ(ErrorOf([&] { DDSFileUtil::LoadTextureFromBuffer(dxt.data(), dxt.size()); }),
            unsupported + L"pixel format flags 0x0 with 8 bits.");

  // A zero mip count loads one level; the cube-map bits are reported, and
  // a cube map loads its first face with a warning.
  Bytes file = ToMemory(RandomImage(8, 8, IImage::DXT1, 1));
  SetWord(file, At(6), 0);
  EXPECT_EQ(DDSFileUtil::LoadTextureFromBuffer(file.data(), file.size())->mipLevels(), 1u);
  SetWord(file, At(27), 0x200 | 0x400);
  WriteFile(path, file);
  EXPECT_TRUE(DDSFileUtil::IsCubeMap(path));
  testing::LogRecorder log;
  EXPECT_EQ(testing::Bytes(*DDSFileUtil::LoadTexture(path)), Bytes(file.begin() + 128, file.end()));
  EXPECT_TRUE(log.contains("only the first image was loaded"));
  std::remove(File::NativePath(path).c_str());
}

TEST(DdsBuffer, RejectsEveryTruncatedPrefixAndForeignMagic) {
  const Bytes file = ToMemory(RandomImage(16, 8, IImage::DXT5, 1, 3));
  for (std::size_t n = 0; n < file.size(); ++n) {
    const std::wstring message = ErrorOf([&] { DDSFileUtil::LoadTextureFromBuffer(file.data(), n); });
    EXPECT_EQ(message, n < 128 ? L"No valid dds data in buffer" : kShortBuffer) << "prefix " << n;
  }
  EXPECT_NE(DDSFileUtil::LoadTextureFromBuffer(file.data(), file.size()), nullptr);
  Bytes noSpace = file;
  noSpace[3] = 0;
  EXPECT_EQ(ErrorOf([&] { DDSFileUtil::LoadTextureFromBuffer(noSpace.data(), noSpace.size()); }),
            L"No valid dds data in buffer");
  EXPECT_EQ(ErrorOf([&] { DDSFileUtil::LoadTextureFromBuffer(nullptr, 1000); }), L"No valid dds data in buffer");
}

TEST(DdsFile, RejectsTruncatedFiles) {
  const Bytes file = ToMemory(RandomImage(8, 8, IImage::RGBA, 1, 2));
  const std::wstring path = TempPath("truncated.dds");
  for (std::size_t n = 4; n < file.size(); n += 7) {
    WriteFile(path, Bytes(file.begin(), file.begin() + n));
    EXPECT_EQ(ErrorOf([&] { DDSFileUtil::LoadTexture(path); }),
              L"DDS data is shorter than its header announces: " + path)
        << "prefix " << n;
  }
  std::remove(File::NativePath(path).c_str());
}

TEST(DdsBuffer, HugeHeadersAreRefusedBeforeAllocating) {
  for (auto format : {IImage::RGBA, IImage::DXT1, IImage::DXT5}) {
    Bytes file = ToMemory(RandomImage(4, 4, format, 1));
    for (auto [w, h, levels] : {std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>{0xFFFFFFFF, 0xFFFFFFFF, 1},
                                {0x80000000, 3, 1}, {4, 4, 0xFFFFFFFF}, {1u << 20, 1u << 20, 12}}) {
      SetWord(file, At(3), w);
      SetWord(file, At(2), h);
      SetWord(file, At(6), levels);
      EXPECT_EQ(ErrorOf([&] { DDSFileUtil::LoadTextureFromBuffer(file.data(), file.size()); }), kShortBuffer);
    }
  }
}

// ---- Files written by other programs ----------------------------------------------
//
// Made at test time by nvcompress and ImageMagick from the 32x32 fixture
// picture, and decoded by nvdecompress and ImageMagick for reference.

Bytes Fixture(const char* name) { return ReadFile(testing::DataPath(name)); }

// Pixels of a picture another program decoded, as RGBA bytes.
Bytes DecodedBy(const std::string& command, const std::string& rgba) {
  EXPECT_EQ(test::Run(command + " >/dev/null 2>&1"), 0) << command;
  return ReadFile(Utf8String2WString(rgba));
}

// Byte offset of level n in a DDS-layout chain (the published rule).
std::uint64_t DdsOffset(std::uint64_t w, std::uint64_t h, std::uint64_t n, std::uint64_t blockBytes,
                        std::uint64_t pixelBytes) {
  std::uint64_t offset = 0;
  for (std::uint64_t k = 0; k < n; ++k) {
    const std::uint64_t lw = std::max<std::uint64_t>(1, w >> k), lh = std::max<std::uint64_t>(1, h >> k);
    offset += blockBytes ? (lw + 3) / 4 * ((lh + 3) / 4) * blockBytes : lw * lh * pixelBytes;
  }
  return offset;
}

struct MadeCase {
  const char* name;
  const char* source;   // picture: "13x7", "64x48", "32x32" or "red1x1"
  const char* command;  // makes out.dds from src.png
  IImage::Format loadsAs;
  std::uint64_t levels;  // levels the image model keeps
  std::uint32_t dxgi;    // the same data behind a DX10 header must load the same; 0: not tried
  int tolerance;         // per channel, against the reference decoders
};

class DdsMadeByOthers : public ::testing::TestWithParam<MadeCase> {
protected:
  static void SetUpTestSuite() {
    for (const char* program : {"convert", "nvcompress", "nvdecompress"})
      if (!test::HaveProgram(program)) missing_ += std::string(program) + " ";
  }
  static std::string missing_;
};
std::string DdsMadeByOthers::missing_;

TEST_P(DdsMadeByOthers, LoadLikeTheirDecodersShowThem) {
  const MadeCase c = GetParam();
  if (!missing_.empty()) GTEST_SKIP() << "not installed: " << missing_;
  test::ScratchDir dir("kel_dds_made");
  const std::string src = dir / "src.png", out = dir / "out.dds";
  const std::string fixture = "-size 32x32 -depth 8 " + test::Quote("rgba:" + WString2Utf8String(testing::DataPath("source32.rgba")));
  const std::string make = std::string(c.source) == "red1x1" ? "-size 1x1 xc:red"
                           : std::string(c.source) == "13x7"  ? fixture + " -crop 13x7+9+5 +repage"
                           : std::string(c.source) == "64x48" ? fixture + " -resize 64x48!"
                                                              : fixture;
  ASSERT_EQ(test::Run(test::Convert() + " " + make + " " + test::Quote(src)), 0);
  ASSERT_EQ(test::Run("cd " + test::Quote(dir.path().string()) + " && CONVERT=" + test::Convert() + " && " + c.command + " >/dev/null 2>&1"), 0) << c.command;
  const std::wstring path = Utf8String2WString(out);

  testing::LogRecorder log;
  auto img = DDSFileUtil::LoadTexture(path);
  ASSERT_NE(img, nullptr);
  EXPECT_EQ(img->format(), c.loadsAs);
  EXPECT_EQ(DDSFileUtil::GetFormat(path), c.loadsAs);
  EXPECT_EQ(img->mipLevels(), c.levels);
  EXPECT_TRUE(ImageUtil::Load(path, IImage::RGBA)) << "through the picture loader too";
  const Bytes file = ReadFile(path);
  const std::uint32_t announced = std::max<std::uint32_t>(1, Word(file, At(6)));
  EXPECT_EQ(log.contains("DDS mip levels the image model cannot hold were dropped"), c.levels < announced);

  // Level 0 against ImageMagick, and against nvdecompress for its own files.
  auto rgba = img->isCompressed() ? ImageUtil::DecompressImage(img, IImage::RGBA)
                                  : img->format() == IImage::BGRA ? ImageUtil::SwizzleRBChannels(img)
                                                                  : ImageUtil::CreateImage(0, 0, IImage::RGBA, 1);
  const std::uint8_t* ours = img->format() == IImage::RGBA ? img->lineData(0, 0) : rgba->lineData(0, 0);
  std::vector<Bytes> references{DecodedBy(test::Convert() + " " + test::Quote(out + "[0]") + " -depth 8 " + test::Quote("rgba:" + (dir / "im.rgba")), dir / "im.rgba")};
  if (std::string(c.command).rfind("nvcompress", 0) == 0)
    references.push_back(DecodedBy("nvdecompress " + test::Quote(out) + " && " + test::Convert() + " " + test::Quote(dir / "out.tga") +
                                       " -depth 8 " + test::Quote("rgba:" + (dir / "nv.rgba")),
                                   dir / "nv.rgba"));
  const std::size_t bytes = img->width() * img->height() * 4;
  for (const Bytes& theirs : references) {
    ASSERT_EQ(theirs.size(), bytes);
    int worst = 0;
    for (std::size_t i = 0; i < bytes; ++i) worst = std::max(worst, std::abs(int(ours[i]) - int(theirs[i])));
    EXPECT_LE(worst, c.tolerance);
  }

  // Levels kept as they are: the file's bytes at the DDS layout's offsets.
  if (img->format() == IImage::BGRA || img->isCompressed()) {
    const std::uint64_t block = img->format() == IImage::DXT1 ? 8 : img->format() == IImage::DXT5 ? 16 : 0;
    for (std::uint64_t n = 1; n < img->mipLevels(); ++n) {
      const std::uint64_t at = 128 + DdsOffset(img->width(), img->height(), n, block, 4);
      const std::uint64_t size = DdsOffset(img->width(), img->height(), n + 1, block, 4) - (at - 128);
      EXPECT_EQ(Bytes(img->lineData(0, n), img->lineData(0, n) + size), Bytes(file.begin() + at, file.begin() + at + size))
          << "level " << n;
    }
  }

  // The same pixel data behind a DX10 header.
  if (c.dxgi) {
    Bytes dx10(file.begin(), file.begin() + 128);
    for (std::size_t field = 21; field <= 25; ++field) SetWord(dx10, At(field), 0);  // no bit count, no masks
    SetWord(dx10, At(19), 4);
    SetWord(dx10, At(20), 0x30315844);  // "DX10"
    for (std::uint32_t word : {c.dxgi, 3u, 0u, 1u, 0u}) dx10.insert(dx10.end(), {std::uint8_t(word), std::uint8_t(word >> 8), 0, 0});
    dx10.insert(dx10.end(), file.begin() + 128, file.end());
    auto again = DDSFileUtil::LoadTextureFromBuffer(dx10.data(), dx10.size());
    EXPECT_EQ(again->format(), img->format());
    EXPECT_EQ(again->mipLevels(), img->mipLevels());
    EXPECT_EQ(testing::Bytes(*again), testing::Bytes(*img));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Files, DdsMadeByOthers,
    ::testing::Values(
        // Sizes that are not whole blocks decode to RGBA; their mip levels do not fit the model.
        MadeCase{"nv_bc1_13x7", "13x7", "nvcompress -bc1 src.png out.dds", IImage::RGBA, 1, 71, 8},
        MadeCase{"nv_bc2_13x7", "13x7", "nvcompress -alpha -bc2 src.png out.dds", IImage::RGBA, 1, 74, 8},
        MadeCase{"nv_bc3_13x7", "13x7", "nvcompress -alpha -bc3 src.png out.dds", IImage::RGBA, 1, 77, 8},
        MadeCase{"nv_rgb_13x7", "13x7", "nvcompress -alpha -rgb src.png out.dds", IImage::BGRA, 1, 87, 0},
        // Whole blocks stay compressed; levels down to where the model's quarters stop matching.
        MadeCase{"nv_bc1_64x48", "64x48", "nvcompress -bc1 src.png out.dds", IImage::DXT1, 3, 71, 8},
        MadeCase{"nv_bc2_64x48", "64x48", "nvcompress -alpha -bc2 src.png out.dds", IImage::RGBA, 6, 0, 8},
        MadeCase{"nv_bc3_64x48", "64x48", "nvcompress -alpha -bc3 src.png out.dds", IImage::DXT5, 3, 77, 8},
        MadeCase{"nv_rgb_64x48", "64x48", "nvcompress -alpha -rgb src.png out.dds", IImage::BGRA, 6, 87, 0},
        MadeCase{"nv_rgb_nomips", "64x48", "nvcompress -alpha -rgb -nomips src.png out.dds", IImage::BGRA, 1, 0, 0},
        MadeCase{"im_rgb24_13x7", "13x7", "$CONVERT src.png -alpha off -define dds:compression=none out.dds",
                 IImage::RGBA, 1, 0, 0},
        MadeCase{"im_dxt1_red1x1", "red1x1", "$CONVERT src.png -define dds:compression=dxt1 out.dds", IImage::RGBA, 1, 0, 8},
        MadeCase{"im_dxt1_13x7", "13x7", "$CONVERT src.png -alpha off -define dds:compression=dxt1 out.dds",
                 IImage::RGBA, 1, 0, 8},
        MadeCase{"im_dxt5_32x32", "32x32", "$CONVERT src.png -define dds:compression=dxt5 -define dds:mipmaps=0 out.dds",
                 IImage::DXT5, 1, 0, 8}),
    [](const auto& info) { return std::string(info.param.name); });

// Layouts no program here writes, built from the fixture picture: each must
// give the picture back within its channels' precision, and agree with
// ImageMagick's reader where that reader handles them.
TEST(DdsMasked, UncompressedLayoutsLoadAsRgba) {
  struct Case {
    const char* name;
    std::uint32_t flags, bits, mask[4];
    bool imagemagick;
  } cases[] = {
      {"rgb24", 0x40, 24, {0xFF0000, 0xFF00, 0xFF, 0}, true},
      {"x8r8g8b8", 0x40, 32, {0xFF0000, 0xFF00, 0xFF, 0}, true},
      {"x8b8g8r8", 0x40, 32, {0xFF, 0xFF00, 0xFF0000, 0}, false},
      {"a8b8g8r8 without flags", 0, 32, {0xFF, 0xFF00, 0xFF0000, 0xFF000000}, false},
      {"a2r10g10b10", 0x41, 32, {0x3FF00000, 0xFFC00, 0x3FF, 0xC0000000}, false},
      {"r5g6b5", 0x40, 16, {0xF800, 0x7E0, 0x1F, 0}, true},
      {"a1r5g5b5", 0x41, 16, {0x7C00, 0x3E0, 0x1F, 0x8000}, true},
      {"a4r4g4b4", 0x41, 16, {0xF00, 0xF0, 0xF, 0xF000}, true},
      {"l8", 0x20000, 8, {0xFF, 0, 0, 0}, true},
      {"a8l8", 0x20001, 16, {0xFF, 0, 0, 0xFF00}, false},
  };
  const Bytes source = Fixture("source32.rgba");
  test::ScratchDir dir("kel_dds_masked");
  for (const auto& c : cases) {
    // Each channel rounded to its mask's precision, as a writer would.
    auto channel = [](std::uint32_t mask, unsigned value) -> std::uint32_t {
      if (!mask) return 0;
      const std::uint32_t shift = static_cast<std::uint32_t>(__builtin_ctz(mask)), max = mask >> shift;
      return static_cast<std::uint32_t>((std::uint64_t{value} * max + 127) / 255) << shift;
    };
    Bytes file(128, 0);
    std::memcpy(file.data(), "DDS ", 4);
    for (auto [field, value] : std::initializer_list<std::pair<std::size_t, std::uint32_t>>{
             {0, 124}, {1, 0x100F}, {2, 32}, {3, 32}, {4, 32 * c.bits / 8}, {18, 32}, {19, c.flags}, {21, c.bits},
             {22, c.mask[0]}, {23, c.mask[1]}, {24, c.mask[2]}, {25, c.mask[3]}, {26, 0x1000}})
      SetWord(file, At(field), value);
    const bool grey = c.flags & 0x20000;
    for (std::size_t i = 0; i < 32 * 32; ++i) {
      const std::uint8_t* p = &source[4 * i];
      const unsigned luma = (p[0] * 299u + p[1] * 587u + p[2] * 114u) / 1000;
      const std::uint32_t v = channel(c.mask[0], grey ? luma : p[0]) | channel(c.mask[1], p[1]) |
                              channel(c.mask[2], p[2]) | channel(c.mask[3], p[3]);
      for (std::uint32_t k = 0; k < c.bits / 8; ++k) file.push_back(static_cast<std::uint8_t>(v >> (8 * k)));
    }
    auto img = DDSFileUtil::LoadTextureFromBuffer(file.data(), file.size());
    ASSERT_EQ(img->format(), IImage::RGBA) << c.name;
    const std::uint8_t* ours = img->lineData(0, 0);
    for (std::size_t i = 0; i < 32 * 32 * 4; ++i) {
      const int k = static_cast<int>(i % 4);
      const std::uint8_t* p = &source[i - k];
      const unsigned luma = (p[0] * 299u + p[1] * 587u + p[2] * 114u) / 1000;
      const std::uint32_t mask = grey ? (k == 3 ? c.mask[3] : c.mask[0]) : c.mask[k];
      const int want = !mask ? 255 : grey && k < 3 ? int(luma) : p[k];
      const int step = mask ? 128 / int(mask >> __builtin_ctz(mask)) + 1 : 0;
      ASSERT_LE(std::abs(int(ours[i]) - want), step) << c.name << " byte " << i;
    }
    if (c.imagemagick && test::HaveProgram("convert")) {
      const std::string path = dir / "masked.dds";
      test::WriteBytes(path, std::string(file.begin(), file.end()));
      const Bytes theirs = DecodedBy(test::Convert() + " " + test::Quote(path) + " -depth 8 " + test::Quote("rgba:" + (dir / "m.rgba")), dir / "m.rgba");
      ASSERT_EQ(theirs.size(), 32u * 32 * 4) << c.name;
      for (std::size_t i = 0; i < theirs.size(); ++i) ASSERT_LE(std::abs(int(ours[i]) - int(theirs[i])), 1) << c.name << " byte " << i;
    }
  }
}

// Formats we cannot hold are refused with the format's name.
TEST(DdsMadeByOthersRefused, NamesTheFormat) {
  if (!test::HaveProgram("nvcompress") || !test::HaveProgram("convert")) GTEST_SKIP() << "nvcompress or convert missing";
  test::ScratchDir dir("kel_dds_refused");
  const std::string src = dir / "src.png";
  ASSERT_EQ(test::Run(test::Convert() + " -size 16x16 gradient:red-blue " + test::Quote(src)), 0);
  for (auto [option, name] : {std::pair<const char*, const char*>{"-bc4", "FourCC ATI1"}, {"-bc5", "FourCC ATI2"}}) {
    const std::string out = dir / "out.dds";
    ASSERT_EQ(test::Run(std::string("nvcompress ") + option + " " + test::Quote(src) + " " + test::Quote(out) + " >/dev/null 2>&1"), 0);
    EXPECT_EQ(ErrorOf([&] { DDSFileUtil::LoadTexture(Utf8String2WString(out)); }),
              L"DDS file has unsupported image format. Only DXT1, DXT5, and uncompressed RGBA/BGRA supported. Found: " +
                  Utf8String2WString(name) + L".");
    EXPECT_EQ(DDSFileUtil::GetFormat(Utf8String2WString(out)), IImage::Unknown);
  }
}

TEST(DdsForeign, OurOwnEncodingOfThePictureSurvivesAFileRoundTrip) {
  const Bytes source = Fixture("source32.rgba");
  auto img = ImageUtil::CreateImage(32, 32, IImage::RGBA, 1);
  std::memcpy(img->lineData(0, 0), source.data(), source.size());
  auto dxt5 = ImageUtil::CompressImage(img, IImage::DXT5);
  const Bytes file = ToMemory(dxt5);
  auto back = ImageUtil::DecompressImage(DDSFileUtil::LoadTextureFromBuffer(file.data(), file.size()), IImage::RGBA);
  double error = 0;
  for (std::size_t i = 0; i < source.size(); ++i) error += std::abs(int(back->lineData(0, 0)[i]) - int(source[i]));
  EXPECT_LT(error / double(source.size()), 8.0);
}

}  // namespace
}  // namespace kel
