#include "kel/image/image.h"

#include <cstdlib>

namespace kel {

IImage::~IImage() = default;

const std::uint8_t* IImage::lineData(std::uint64_t row, std::uint64_t level) const {
  return const_cast<IImage*>(this)->lineData(row, level);
}

std::uint64_t IImage::sizeInBytes() const { return SizeInBytes(width(), height(), format(), mipLevels()); }
std::uint64_t IImage::bitsPerPixel() const { return BitsPerPixel(format()); }
std::uint64_t IImage::rowPitch() const { return RowPitch(width(), height(), format()); }
bool IImage::isCompressed() const { return IsCompressed(format()); }

std::uint64_t IImage::BitsPerPixel(Format format) {
  switch (format) {
    case RGBA:
    case BGRA:
    case Float32: return 32;
    case DXT1: return 4;
    case DXT5: return 8;
    default: return 0;
  }
}

bool IImage::IsCompressed(Format format) { return format == DXT1 || format == DXT5; }

std::uint64_t IImage::RowPitch(std::uint64_t width, std::uint64_t, Format format) {
  if (format == DXT1) return (width >> 2) * 8;
  if (format == DXT5) return (width >> 2) * 16;
  return (BitsPerPixel(format) * width) >> 3;
}

std::uint64_t IImage::SizeInBytes(std::uint64_t width, std::uint64_t height, Format format,
                                  std::uint64_t mipLevels) {
  std::uint64_t level = (BitsPerPixel(format) * width * height) >> 3;
  std::uint64_t total = 0;
  for (std::uint64_t i = 0; i < mipLevels && level != 0; ++i, level >>= 2) total += level;
  return total;
}

Image::Image(std::uint64_t width, std::uint64_t height, Format format, std::uint64_t mipLevels)
    : width_(width), height_(height), mipLevels_(mipLevels), format_(format), data_(nullptr) {
  const std::uint64_t size = SizeInBytes(width, height, format, mipLevels);
  // aligned_alloc wants a multiple of the alignment; round up, never down.
  if (size != 0) data_ = static_cast<std::uint8_t*>(std::aligned_alloc(16, (size + 15) & ~std::uint64_t{15}));
}

Image::~Image() { std::free(data_); }

std::uint8_t* Image::lineData(std::uint64_t row, std::uint64_t level) {
  const std::uint32_t offset =
      level == 0 ? 0 : static_cast<std::uint32_t>(SizeInBytes(width_, height_, format_, level));
  const std::uint32_t pitch = static_cast<std::uint32_t>(rowPitch() >> level);
  return data_ + offset + row * pitch;
}

}  // namespace kel
