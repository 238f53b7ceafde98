// The image model: a rectangle of pixels in one of a few fixed formats, with
// an optional chain of mip levels stored back to back in one 16-byte aligned
// block. IImage carries the size arithmetic for every format; Image is the
// in-memory implementation; ImageUtil::CreateImage (image_util.h) makes them.
// Nothing here logs or throws (a failed allocation leaves a null block).
#pragma once

#include <cstdint>
#include <memory>

#include "kel/export.h"

namespace kel {

class KEL_API IImage {
public:
  // Values are fixed: they are stored in files and passed between modules.
  enum Format : std::uint32_t {
    RGBA = 0,     // bytes R, G, B, A
    BGRA = 1,     // bytes B, G, R, A
    DXT1 = 2,     // 4x4 blocks of 8 bytes (BC1)
    DXT5 = 3,     // 4x4 blocks of 16 bytes (BC3)
    Float32 = 4,  // one float per pixel; resized only, never converted or saved
    Unknown = 5,  // what format probes return for unrecognised files
  };

  IImage() = default;
  IImage(const IImage&) = default;
  IImage& operator=(const IImage&) = default;
  virtual ~IImage();

  virtual std::uint64_t width() const = 0;
  virtual std::uint64_t height() const = 0;
  virtual Format format() const = 0;
  virtual std::uint64_t mipLevels() const = 0;
  // Start of `row` of `level`; for compressed formats a row is a row of 4x4 blocks.
  virtual std::uint8_t* lineData(std::uint64_t row, std::uint64_t level) = 0;
  virtual const std::uint8_t* lineData(std::uint64_t row, std::uint64_t level) const;

  virtual std::uint64_t sizeInBytes() const;
  virtual std::uint64_t bitsPerPixel() const;
  virtual std::uint64_t rowPitch() const;
  virtual bool isCompressed() const;

  // 32 for RGBA, BGRA and Float32; 4 for DXT1; 8 for DXT5; 0 otherwise.
  static std::uint64_t BitsPerPixel(Format format);
  static bool IsCompressed(Format format);
  // Bytes of one row (one row of blocks when compressed). Block counts are
  // truncated, so a compressed image narrower than 4 pixels has pitch 0.
  static std::uint64_t RowPitch(std::uint64_t width, std::uint64_t height, Format format);
  // Level 0 plus each further level as an exact quarter of the one before
  // (truncating), `mipLevels` terms. Every reader and writer assumes this.
  static std::uint64_t SizeInBytes(std::uint64_t width, std::uint64_t height, Format format,
                                   std::uint64_t mipLevels);
};

using ImagePtr = std::shared_ptr<IImage>;
using ConstImagePtr = std::shared_ptr<const IImage>;

// Owns its pixel block (uninitialised on construction). Offsets and pitches
// are truncated to 32 bits: blocks over 4 GiB are not supported.
class KEL_API Image final : public IImage {
public:
  Image(std::uint64_t width, std::uint64_t height, Format format, std::uint64_t mipLevels);
  ~Image() override;
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  std::uint64_t width() const override { return width_; }
  std::uint64_t height() const override { return height_; }
  Format format() const override { return format_; }
  std::uint64_t mipLevels() const override { return mipLevels_; }
  std::uint8_t* lineData(std::uint64_t row, std::uint64_t level) override;
  using IImage::lineData;

private:
  std::uint64_t width_;
  std::uint64_t height_;
  std::uint64_t mipLevels_;
  Format format_;
  std::uint8_t* data_;
};

}  // namespace kel
