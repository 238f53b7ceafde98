// Helpers shared by the image tests: small images from pixel lists or bytes,
// seeded random images, whole-image bytes and fixture files.
#pragma once

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kel/core/path.h"
#include "kel/core/text.h"
#include "kel/core/types.h"
#include "kel/image/image_util.h"
#include "support/error_of.h"
#include "support/log_capture.h"

namespace kel::testing {

// A 1-level RGBA (or BGRA) image of w x h from pixels in row order, given as
// red, green, blue, alpha whatever the format (BGRA stores them swapped).
inline std::shared_ptr<IImage> MakeImage(std::uint64_t w, std::uint64_t h, const std::vector<Color4B>& px,
                                         IImage::Format format = IImage::RGBA) {
  auto img = ImageUtil::CreateImage(w, h, format, 1);
  std::uint8_t* d = img->lineData(0, 0);
  for (std::size_t i = 0; i < w * h; ++i) {
    const Color4B c = px[i];
    d[4 * i + 0] = format == IImage::BGRA ? c.b : c.r;
    d[4 * i + 1] = c.g;
    d[4 * i + 2] = format == IImage::BGRA ? c.r : c.b;
    d[4 * i + 3] = c.a;
  }
  return img;
}

// An image whose storage (every level) is exactly `bytes`.
inline std::shared_ptr<IImage> FromBytes(std::uint64_t w, std::uint64_t h, IImage::Format f,
                                         const std::vector<std::uint8_t>& bytes, std::uint64_t levels = 1) {
  auto img = ImageUtil::CreateImage(w, h, f, levels);
  EXPECT_EQ(bytes.size(), img->sizeInBytes());
  std::memcpy(img->lineData(0, 0), bytes.data(), std::min<std::size_t>(bytes.size(), img->sizeInBytes()));
  return img;
}

inline std::shared_ptr<IImage> RandomImage(std::uint64_t w, std::uint64_t h, IImage::Format f, std::uint32_t seed,
                                           std::uint64_t levels = 1) {
  std::mt19937 rng(seed);
  auto img = ImageUtil::CreateImage(w, h, f, levels);
  std::uint8_t* p = img->lineData(0, 0);
  for (std::uint64_t i = 0; i < img->sizeInBytes(); ++i) p[i] = static_cast<std::uint8_t>(rng());
  return img;
}

inline Color4B PixelAt(const IImage& img, std::uint64_t x, std::uint64_t y) {
  const std::uint8_t* p = img.lineData(0, 0) + (y * img.width() + x) * 4;
  if (img.format() == IImage::BGRA) return {p[2], p[1], p[0], p[3]};
  return {p[0], p[1], p[2], p[3]};
}

inline std::vector<std::uint8_t> Bytes(const IImage& img) {
  const std::uint8_t* p = img.lineData(0, 0);
  return std::vector<std::uint8_t>(p, p + img.sizeInBytes());
}

inline std::wstring DataPath(const char* name) {
  return Utf8String2WString(std::string(KEL_TEST_DATA_DIR) + "/image/" + name);
}

inline std::vector<std::uint8_t> ReadFile(const std::wstring& path) {
  std::ifstream in(File::NativePath(path), std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}

using LogRecorder = kel::test::LogCapture;
using kel::test::ErrorOf;

}  // namespace kel::testing
