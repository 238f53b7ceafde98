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
  // 32-bit masks decide over the pixel format flags.
  Bytes rgba = ToMemory(RandomImage(4, 4, IImage::RGBA, 1));
  SetWord(rgba, At(19), 0);  // no RGB, no alpha-pixels flag
  EXPECT_EQ(DDSFileUtil::LoadTextureFromBuffer(rgba.data(), rgba.size())->format(), IImage::RGBA);
  SetWord(rgba, At(22), 0xFF00);  // masks of neither order
  EXPECT_EQ(ErrorOf([&] { DDSFileUtil::LoadTextureFromBuffer(rgba.data(), rgba.size()); }),
            L"DDS buffer has unsupported image format. Only DXT1, DXT5, and uncompressed RGBA/BGRA supported.");

  Bytes dxt = ToMemory(RandomImage(4, 4, IImage::DXT5, 1));
  SetWord(dxt, At(20), 0x33545844);  // "DXT3"
  const std::wstring path = TempPath("edited.dds");
  WriteFile(path, dxt);
  EXPECT_EQ(ErrorOf([&] { DDSFileUtil::LoadTexture(path); }),
            L"DDS file has unsupported image format. Only DXT1, DXT5, and uncompressed RGBA/BGRA supported.");
  EXPECT_EQ(DDSFileUtil::GetFormat(path), IImage::Unknown);
  SetWord(dxt, At(20), kDxt1);
  SetWord(dxt, At(19), 0);  // fourCC ignored without its flag
  EXPECT_THROW(DDSFileUtil::LoadTextureFromBuffer(dxt.data(), dxt.size()), wexception);

  // A zero mip count loads one level; the cube-map bits are reported.
  Bytes file = ToMemory(RandomImage(8, 8, IImage::DXT1, 1));
  SetWord(file, At(6), 0);
  EXPECT_EQ(DDSFileUtil::LoadTextureFromBuffer(file.data(), file.size())->mipLevels(), 1u);
  SetWord(file, At(27), 0x200 | 0x400);
  WriteFile(path, file);
  EXPECT_TRUE(DDSFileUtil::IsCubeMap(path));
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

// ---- Files written by another tool ----------------------------------------------------

Bytes Fixture(const char* name) { return ReadFile(testing::DataPath(name)); }

struct ForeignCase {
  const char* file;
  const char* decoded;
  IImage::Format format;
  bool alpha;
};

class DdsForeign : public ::testing::TestWithParam<ForeignCase> {};

TEST_P(DdsForeign, LoadsAndDecodesToThePicture) {
  const ForeignCase c = GetParam();
  const Bytes source = Fixture("source32.rgba"), theirs = Fixture(c.decoded);
  ASSERT_EQ(source.size(), 32u * 32 * 4);
  ASSERT_EQ(theirs.size(), 32u * 32 * 4);
  const std::wstring path = testing::DataPath(c.file);
  EXPECT_EQ(DDSFileUtil::GetFormat(path), c.format);
  auto img = DDSFileUtil::LoadTexture(path);
  ASSERT_NE(img, nullptr);
  EXPECT_EQ(img->width(), 32u);
  EXPECT_EQ(img->height(), 32u);
  EXPECT_EQ(img->format(), c.format);
  auto rgba = ImageUtil::DecompressImage(img, IImage::RGBA);
  const std::uint8_t* ours = rgba->lineData(0, 0);
  double error = 0;
  for (std::size_t i = 0; i < source.size(); ++i) {
    // Their decoder replicates bits where ours fills with ones: at most 7 apart.
    EXPECT_LE(std::abs(int(ours[i]) - int(theirs[i])), 7) << "byte " << i;
    const int want = (i % 4 == 3 && !c.alpha) ? 255 : source[i];
    error += std::abs(int(ours[i]) - want);
  }
  EXPECT_LT(error / double(source.size()), 6.0);  // mean absolute error per channel
}

INSTANTIATE_TEST_SUITE_P(ImageMagick, DdsForeign,
                         ::testing::Values(ForeignCase{"im_dxt1.dds", "im_dxt1_decoded.rgba", IImage::DXT1, false},
                                           ForeignCase{"im_dxt5.dds", "im_dxt5_decoded.rgba", IImage::DXT5, true}),
                         [](const auto& info) { return std::string(info.param.format == IImage::DXT1 ? "Dxt1" : "Dxt5"); });

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
