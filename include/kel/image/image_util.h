// ImageUtil: the factory and the static operations on images (DXT codec,
// resizing, mip chains, alpha analysis, loading). Image operations are added
// here by area topic; see the function comments for bad-input behaviour.
#pragma once

#include <cstdint>
#include <memory>

#include "kel/export.h"
#include "kel/image/image.h"

namespace kel {

class KEL_API ImageUtil final {
public:
  ImageUtil() = delete;

  // A new Image with exactly these arguments; no validation (zero sizes,
  // Unknown formats and zero levels give an empty pixel block).
  static std::shared_ptr<IImage> CreateImage(std::uint64_t width, std::uint64_t height, IImage::Format format,
                                             std::uint64_t mipLevels);
};

}  // namespace kel
