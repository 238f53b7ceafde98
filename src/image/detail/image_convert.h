// Format conversion shared by the image operations and the codec.
#pragma once

#include <memory>

#include "kel/image/image.h"

namespace kel::detail {

// Bytes 0 and 2 exchanged on every level of a 32-bit image, into a new image
// labelled `format`. SwizzleRBChannels keeps the source's label; ForceFormat
// relabels, so the result's byte order matches what it claims to be.
std::shared_ptr<IImage> SwizzleInto(const IImage& src, IImage::Format format);

}  // namespace kel::detail
