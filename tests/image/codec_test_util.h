// Helpers shared by the codec and DDS tests: small images from pixel lists,
// block bytes, and a recorder for the KEL logger's events.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kel/core/log.h"
#include "support/log_capture.h"
#include "kel/core/types.h"
#include "kel/image/image_util.h"

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

inline Color4B PixelAt(const IImage& img, std::uint64_t x, std::uint64_t y) {
  const std::uint8_t* p = img.lineData(0, 0) + (y * img.width() + x) * 4;
  if (img.format() == IImage::BGRA) return {p[2], p[1], p[0], p[3]};
  return {p[0], p[1], p[2], p[3]};
}

inline std::vector<std::uint8_t> Bytes(const IImage& img) {
  const std::uint8_t* p = img.lineData(0, 0);
  return std::vector<std::uint8_t>(p, p + img.sizeInBytes());
}

using LogRecorder = kel::test::LogCapture;

}  // namespace kel::testing
