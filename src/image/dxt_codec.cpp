// The DXT1/DXT5 codec entry points of ImageUtil: image walking, edge
// clamping and the OpenMP loops over image arrays. Block kernels live in
// detail/dxt_block.h.
#include <algorithm>
#include <cstring>

#include "image/detail/dxt_block.h"
#include "kel/core/log.h"
#include "kel/image/image_util.h"

#include "image/detail/image_convert.h"

namespace kel {
namespace {

bool IsDxt(IImage::Format f) { return f == IImage::DXT1 || f == IImage::DXT5; }
bool IsRgb32(IImage::Format f) { return f == IImage::RGBA || f == IImage::BGRA; }

// Blocks are laid out row after row, ceil(width / 4) per row. For sizes that
// are multiples of 4 this is exactly the row pitch of the format; for other
// sizes it is the usual padded layout, cut at the image's own (smaller) size.
std::uint64_t BlocksAcross(std::uint64_t pixels) { return (pixels + 3) / 4; }

// One clamped copy of a block that crosses the right or bottom border.
void GatherEdge(const std::uint8_t* const rowPtr[4], std::uint64_t bx, std::uint64_t w, std::uint8_t edge[64],
                const std::uint8_t* rows[4]) {
  for (int j = 0; j < 4; ++j) {
    for (std::uint64_t i = 0; i < 4; ++i)
      std::memcpy(edge + j * 16 + i * 4, rowPtr[j] + std::min(bx * 4 + i, w - 1) * 4, 4);
    rows[j] = edge + j * 16;
  }
}

template <bool Bgra, bool Dxt5>
void EncodeRows(const IImage& src, IImage& dst) {
  const std::uint64_t w = src.width(), h = src.height();
  const std::uint8_t* base = src.lineData(0, 0);
  std::uint8_t* out = dst.lineData(0, 0);
  if (w == 0 || h == 0 || base == nullptr || out == nullptr) return;
  const std::uint64_t pitch = w * 4;
  constexpr std::uint64_t blockBytes = Dxt5 ? 16 : 8;
  const std::uint64_t across = BlocksAcross(w), down = BlocksAcross(h);
  const std::uint64_t whole = w / 4;  // blocks that need no clamping across
  const std::uint64_t capacity = IImage::SizeInBytes(w, h, dst.format(), 1);
  std::uint8_t edge[64];
  for (std::uint64_t by = 0; by < down; ++by) {
    const std::uint8_t* rowPtr[4];
    for (std::uint64_t j = 0; j < 4; ++j) rowPtr[j] = base + std::min(by * 4 + j, h - 1) * pitch;
    const std::uint64_t rowStart = by * across * blockBytes;
    // Stop before the first block the destination has no room for.
    const std::uint64_t room = capacity > rowStart ? (capacity - rowStart) / blockBytes : 0;
    const std::uint64_t count = std::min(across, room);
    std::uint8_t* rowOut = out + rowStart;
    std::uint64_t bx = 0;
    for (; bx + 2 <= std::min(whole, count); bx += 2) {
      const std::uint8_t* a[4] = {rowPtr[0] + bx * 16, rowPtr[1] + bx * 16, rowPtr[2] + bx * 16, rowPtr[3] + bx * 16};
      const std::uint8_t* b[4] = {a[0] + 16, a[1] + 16, a[2] + 16, a[3] + 16};
      detail::EncodeBlockPair<Bgra, Dxt5>(a, b, rowOut + bx * blockBytes, rowOut + (bx + 1) * blockBytes);
    }
    for (; bx < count; ++bx) {
      const std::uint8_t* rows[4];
      if (bx < whole) {
        for (int j = 0; j < 4; ++j) rows[j] = rowPtr[j] + bx * 16;
      } else {
        GatherEdge(rowPtr, bx, w, edge, rows);
      }
      if constexpr (Dxt5)
        detail::EncodeDxt5Block(rows, Bgra, rowOut + bx * blockBytes);
      else
        detail::EncodeDxt1Block(rows, Bgra, rowOut + bx * blockBytes);
    }
    if (count < across) return;
  }
}

void Encode(const IImage& src, IImage& dst, bool dxt5) {
  const bool bgra = src.format() == IImage::BGRA;
  if (bgra)
    dxt5 ? EncodeRows<true, true>(src, dst) : EncodeRows<true, false>(src, dst);
  else
    dxt5 ? EncodeRows<false, true>(src, dst) : EncodeRows<false, false>(src, dst);
}

// Whole rows of whole blocks go straight into the destination with no
// per-block checks; the edge blocks (partial, or beyond what the source
// holds) take the careful path.
template <bool Dxt5, bool Bgra>
void DecodeRows(const IImage& src, IImage& dst) {
  const std::uint64_t w = dst.width(), h = dst.height();
  constexpr std::uint64_t blockBytes = Dxt5 ? 16 : 8;
  // Sizes below 4 still walk one block; only pixels inside the image are written.
  const std::uint64_t across = BlocksAcross(w), down = BlocksAcross(h);
  const std::uint64_t available = IImage::SizeInBytes(src.width(), src.height(), src.format(), 1) / blockBytes;
  const std::uint8_t* in = src.lineData(0, 0);
  std::uint8_t* out = dst.lineData(0, 0);
  if (out == nullptr) return;  // the destination could not be allocated
  const std::uint64_t pitch = w * 4;
  const std::uint64_t wholeAcross = w / 4;
  std::uint8_t edge[64];
  for (std::uint64_t by = 0; by < down; ++by) {
    const std::uint64_t rowsHere = std::min<std::uint64_t>(4, h - by * 4);
    const std::uint64_t first = by * across;
    std::uint64_t bx = 0;
    if (rowsHere == 4 && first + wholeAcross <= available) {
      const std::uint8_t* block = in + first * blockBytes;
      std::uint8_t* target = out + by * 4 * pitch;
      for (; bx < wholeAcross; ++bx, block += blockBytes, target += 16)
        detail::DecodeBlock(block, Dxt5, Bgra, target, pitch);
    }
    for (; bx < across; ++bx) {
      std::uint8_t* target = out + by * 4 * pitch + bx * 16;
      const std::uint64_t colsHere = std::min<std::uint64_t>(4, w - bx * 4);
      if (first + bx >= available) {
        // A block the source has no room for (tiny or odd sizes) reads as transparent black.
        for (std::uint64_t j = 0; j < rowsHere; ++j) std::memset(target + j * pitch, 0, colsHere * 4);
        continue;
      }
      detail::DecodeBlock(in + (first + bx) * blockBytes, Dxt5, Bgra, edge, 16);
      for (std::uint64_t j = 0; j < rowsHere; ++j) std::memcpy(target + j * pitch, edge + j * 16, colsHere * 4);
    }
  }
}

void Decode(const IImage& src, IImage& dst, bool bgra) {
  if (dst.width() == 0 || dst.height() == 0) return;
  const bool dxt5 = src.format() == IImage::DXT5;
  if (bgra)
    dxt5 ? DecodeRows<true, true>(src, dst) : DecodeRows<false, true>(src, dst);
  else
    dxt5 ? DecodeRows<true, false>(src, dst) : DecodeRows<false, false>(src, dst);
}

}  // namespace

std::shared_ptr<IImage> ImageUtil::CompressImage(const std::shared_ptr<const IImage>& src, IImage::Format target) {
  if (!src) return nullptr;
  if (IImage::BitsPerPixel(src->format()) != 32) {
    KEL_LOG_WARN(L"Compression needs an uncompressed 32-bit source image.");
    return nullptr;
  }
  auto dst = CreateImage(src->width(), src->height(), target, 1);
  if (IsDxt(target)) Encode(*src, *dst, target == IImage::DXT5);
  return dst;
}

std::shared_ptr<IImage> ImageUtil::DecompressImage(const std::shared_ptr<const IImage>& src,
                                                   IImage::Format target) {
  if (!src) return nullptr;
  if (IImage::BitsPerPixel(target) != 32) {
    KEL_LOG_WARN(L"Decompression needs a 32-bit target format.");
    return nullptr;
  }
  auto dst = CreateImage(src->width(), src->height(), target, 1);
  Decode(*src, *dst, target != IImage::RGBA);
  return dst;
}

void ImageUtil::CompressImages(const IDataArray<std::shared_ptr<const IImage>>& images, IImage::Format target) {
  const auto n = static_cast<std::int64_t>(images.count);
#pragma omp parallel for schedule(dynamic, 1)
  for (std::int64_t i = 0; i < n; ++i) images.data[i] = CompressImage(images.data[i], target);
}

void ImageUtil::DecompressImages(const IDataArray<std::shared_ptr<const IImage>>& images, IImage::Format target) {
  const auto n = static_cast<std::int64_t>(images.count);
#pragma omp parallel for schedule(dynamic, 1)
  for (std::int64_t i = 0; i < n; ++i) images.data[i] = DecompressImage(images.data[i], target);
}

std::shared_ptr<IImage> ImageUtil::ForceFormat(const std::shared_ptr<const IImage>& src, IImage::Format target) {
  // Already there: the source itself, shared (callers treat results as read-only).
  if (!src || src->format() == target) return std::const_pointer_cast<IImage>(src);
  const IImage::Format from = src->format();
  if (IsRgb32(from)) {
    // Relabelled with the target: a BGRA result that claimed to be RGBA would
    // be saved with the wrong channel masks.
    if (IsRgb32(target)) return detail::SwizzleInto(*src, target);
    if (IsDxt(target)) return CompressImage(src, target);
  } else if (IsDxt(from)) {
    if (IsRgb32(target)) return DecompressImage(src, target);
    if (IsDxt(target)) {
      KEL_LOG_WARN(L"Performance warning: Converting between DXT1 and DXT2 is expensive and usually doesn't make sense.");
      return CompressImage(DecompressImage(src, IImage::RGBA), target);
    }
  }
  KEL_LOG_WARN(L"Conversion failed. Unknown or incompatible formats.");
  return nullptr;
}

}  // namespace kel
