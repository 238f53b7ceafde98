// Format conversion shared by the image operations and the loaders.
#pragma once

#include <memory>

#include "kel/image/image.h"

namespace kel::detail {

// `src` in `format`: itself when it already is, a swizzle between RGBA and
// BGRA, ImageUtil::ForceFormat otherwise (null for impossible pairs).
std::shared_ptr<IImage> ConvertImage(const std::shared_ptr<const IImage>& src, IImage::Format format);

}  // namespace kel::detail
