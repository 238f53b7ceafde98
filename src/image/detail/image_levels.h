// Where each stored level of an image lives, bounded by the bytes the
// quarter-per-level sizing actually reserves for it. Levels of odd or tiny
// dimensions can claim more pixels than their storage holds; every loop over
// levels goes through this so it never leaves the pixel block.
#pragma once

#include <cstdint>

#include "kel/image/image.h"

namespace kel::detail {

struct LevelSpan {
  std::uint64_t rows = 0;   // rows that fit entirely inside the level's storage
  std::uint64_t cols = 0;   // pixels per row (width >> level)
  std::uint64_t pitch = 0;  // bytes between rows, as lineData steps them
  std::uint64_t bytes = 0;  // storage reserved for the level
};

inline LevelSpan LevelOf(const IImage& image, std::uint64_t level) {
  LevelSpan s;
  const auto w = image.width(), h = image.height();
  const auto f = image.format();
  s.bytes = IImage::SizeInBytes(w, h, f, level + 1) - IImage::SizeInBytes(w, h, f, level);
  if (level >= 64) return s;
  s.pitch = static_cast<std::uint32_t>(IImage::RowPitch(w, h, f) >> level);
  s.cols = w >> level;
  const std::uint64_t rowBytes = (s.cols * IImage::BitsPerPixel(f)) >> 3;
  std::uint64_t rows = h >> level;
  if (rowBytes == 0 || s.pitch == 0) return s;
  // Row r spans [r * pitch, r * pitch + rowBytes).
  if (s.bytes < rowBytes) rows = 0;
  else if (rows > 0 && (rows - 1) * s.pitch + rowBytes > s.bytes) rows = (s.bytes - rowBytes) / s.pitch + 1;
  s.rows = rows;
  return s;
}

// Levels past 64 hold no bytes whatever mipLevels() claims; loops stop here.
inline std::uint64_t StoredLevels(const IImage& image) { return image.mipLevels() < 64 ? image.mipLevels() : 64; }

}  // namespace kel::detail
