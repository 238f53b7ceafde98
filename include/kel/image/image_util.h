// ImageUtil: the image factory and every static operation on images: the DXT
// codec, format forcing, resizing, mip chains, alpha analysis, pixel
// utilities and loading from PNG, JPEG and DDS. Operations on image arrays run
// OpenMP loops; everything else is single-threaded and reentrant. Warnings go
// to the KEL logger; only Load's file errors throw (wexception).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kel/core/enumerate.h"
#include "kel/core/types.h"
#include "kel/export.h"
#include "kel/image/image.h"

namespace kel {

class KEL_API ImageUtil final {
public:
  ImageUtil() = delete;

  struct Size {
    std::uint64_t width = 0;
    std::uint64_t height = 0;
    friend bool operator==(const Size&, const Size&) = default;
  };

  enum AlphaHint : std::uint32_t {
    AlphaBlended = 0,      // some alpha strictly between 0 and 255
    AlphaOpaque = 1,       // all 255; also every DXT1 image
    AlphaTransparent = 2,  // all 0, or no rows
    AlphaMask = 3,         // only 0 and 255, both present
    AlphaUnknown = 4,      // not RGBA, BGRA or DXT1
  };

  // Callers plug their own resampling in here; null selects Resize.
  class KEL_API IImageResizeFilter {
  public:
    virtual ~IImageResizeFilter();
    virtual std::shared_ptr<IImage> resize(const std::shared_ptr<const IImage>& src, const Size& target,
                                           bool exact) = 0;
  };

  // A new Image with exactly these arguments; no validation (zero sizes,
  // Unknown formats and zero levels give an empty pixel block).
  static std::shared_ptr<IImage> CreateImage(std::uint64_t width, std::uint64_t height, IImage::Format format,
                                             std::uint64_t mipLevels);

  // --- DXT codec -----------------------------------------------------------
  // Level 0 of an RGBA/BGRA `src` encoded into a new 1-level DXT1/DXT5
  // image; null for null. Other targets give an unwritten image.
  static std::shared_ptr<IImage> CompressImage(const std::shared_ptr<const IImage>& src, IImage::Format target);
  // Level 0 decoded (as DXT5 when src is DXT5, else DXT1) into a new 1-level
  // image; RGBA byte order for target 0, BGRA for any other value.
  static std::shared_ptr<IImage> DecompressImage(const std::shared_ptr<const IImage>& src, IImage::Format target);
  // Replace every element in place (the view is const, the elements are not).
  static void CompressImages(const IDataArray<std::shared_ptr<const IImage>>& images, IImage::Format target);
  static void DecompressImages(const IDataArray<std::shared_ptr<const IImage>>& images, IImage::Format target);
  // src itself when already in `target`; otherwise swizzle, compress or
  // decompress; null (with a warning) for unsupported pairs.
  static std::shared_ptr<IImage> ForceFormat(const std::shared_ptr<const IImage>& src, IImage::Format target);

  // --- Sizes, resizing, mip chains -------------------------------------------
  static void CreateMipmapSizes(IEnumerate<Size>& sink, const Size& size, bool stopAtFirstMinimum,
                                bool blockMinimum);
  // src itself for its own size; the fast half-size path for width % 8 == 0
  // and an exact half (unless `exact`); otherwise alpha-weighted bilinear
  // (alpha itself blended plainly). Null with a warning for compressed or
  // unknown formats and negative sizes.
  static std::shared_ptr<IImage> Resize(const std::shared_ptr<const IImage>& src, const Size& size, bool exact);
  static std::shared_ptr<IImage> AdjustImageForCompression(const std::shared_ptr<const IImage>& src, bool exact,
                                                           const std::shared_ptr<IImageResizeFilter>& filter);
  // One image holding the whole level chain, converted to `format`.
  static std::shared_ptr<IImage> CreateMipmaps(const std::shared_ptr<const IImage>& src, IImage::Format format,
                                               bool exact, const std::shared_ptr<IImageResizeFilter>& filter);
  // The level chain as separate 1-level images, converted to `format`.
  static void CreateMipmapSequence(std::vector<std::shared_ptr<IImage>>& out,
                                   const std::shared_ptr<const IImage>& src, IImage::Format format, bool exact,
                                   const std::shared_ptr<IImageResizeFilter>& filter);

  // --- Pixels ----------------------------------------------------------------
  static AlphaHint ComputeAlphaHint(const IImage& image);
  static void PreMultiplyAlpha(IImage& image);
  static Vec<4, unsigned int> AverageColor(const std::shared_ptr<IImage>& image);
  static std::shared_ptr<IImage> SwizzleRBChannels(const std::shared_ptr<const IImage>& src);
  // Fill every level; false (with a warning) for null or unfitting formats.
  static bool Clear(const std::shared_ptr<IImage>& image, float value);
  static bool Clear(const std::shared_ptr<IImage>& image, unsigned int value);
  static bool ClearAlpha(const std::shared_ptr<IImage>& image, unsigned char alpha);
  // A glow of `colour` around the opaque pixels (alpha >= 128) of `image`,
  // `radius` pixels wide: halo alpha is colour.a * (1 - d / (radius + 1)) at
  // Euclidean distance d, the original composited over it. Same size, 1
  // level, converted to `format`; null for null or unconvertible images.
  static std::shared_ptr<IImage> CreateHalo(const std::shared_ptr<const IImage>& image, int radius,
                                            const Color4B& colour, IImage::Format format);

  // --- Loading -----------------------------------------------------------------
  // Decoder chosen by extension (.dds, .jpg/.jpeg, .png), result converted to
  // `format`. Missing, empty or undecodable files throw wexception, as do
  // pictures over 1 GiB decoded; hostile bytes are safe. Null when the
  // conversion to `format` is impossible (Float32, Unknown).
  static std::shared_ptr<IImage> Load(const std::wstring& path, IImage::Format format);
  // The same from bytes in memory; `name` supplies the extension and the
  // text of error messages.
  static std::shared_ptr<IImage> LoadFromMemory(const std::uint8_t* data, std::size_t size,
                                                const std::wstring& name, IImage::Format format);
};

}  // namespace kel
