#include "kel/image/image.h"

#include <cstdint>

#include <gtest/gtest.h>

#include "kel/image/image_util.h"

namespace kel {
namespace {

TEST(ImageSize, FollowsTheQuarterPerLevelRuleAndUnknownFormatsHaveNoBits) {
  EXPECT_EQ(IImage::SizeInBytes(256, 256, IImage::RGBA, 1), 262144u);
  EXPECT_EQ(IImage::SizeInBytes(256, 256, IImage::RGBA, 9),
            262144u + 65536 + 16384 + 4096 + 1024 + 256 + 64 + 16 + 4);
  EXPECT_EQ(IImage::SizeInBytes(256, 256, IImage::DXT1, 1), 32768u);
  EXPECT_EQ(IImage::SizeInBytes(256, 256, IImage::DXT5, 1), 65536u);
  EXPECT_EQ(IImage::SizeInBytes(256, 256, IImage::DXT5, 0), 0u);
  EXPECT_EQ(IImage::RowPitch(256, 7, IImage::DXT1), 512u);
  EXPECT_EQ(IImage::RowPitch(256, 7, IImage::DXT5), 1024u);
  EXPECT_EQ(IImage::RowPitch(2, 2, IImage::DXT5), 0u);
  EXPECT_EQ(IImage::RowPitch(3, 1, IImage::Float32), 12u);
  EXPECT_EQ(IImage::BitsPerPixel(IImage::Unknown), 0u);
  EXPECT_EQ(IImage::BitsPerPixel(static_cast<IImage::Format>(17)), 0u);
  EXPECT_FALSE(IImage::IsCompressed(IImage::Float32));
  EXPECT_TRUE(IImage::IsCompressed(IImage::DXT1));
}

TEST(Image, LevelsFollowEachOtherWithHalvedPitchDownToEmptyImages) {
  auto img = ImageUtil::CreateImage(4, 4, IImage::RGBA, 3);
  EXPECT_EQ(img->lineData(0, 1) - img->lineData(0, 0), 64);
  EXPECT_EQ(img->lineData(1, 1) - img->lineData(0, 1), 8);
  EXPECT_EQ(img->lineData(0, 2) - img->lineData(0, 0), 80);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(img->lineData(0, 0)) % 16, 0u);
  EXPECT_EQ(img->sizeInBytes(), 84u);
  const IImage& constImg = *img;
  EXPECT_EQ(constImg.lineData(1, 0), img->lineData(1, 0));
  auto narrow = ImageUtil::CreateImage(2, 2, IImage::DXT5, 1);
  EXPECT_EQ(narrow->lineData(3, 0), narrow->lineData(0, 0));
  EXPECT_EQ(narrow->rowPitch(), 0u);
  auto empty = ImageUtil::CreateImage(0, 0, IImage::Unknown, 0);
  EXPECT_EQ(empty->sizeInBytes(), 0u);
  EXPECT_EQ(empty->width(), 0u);
}

}  // namespace
}  // namespace kel
