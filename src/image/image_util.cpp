#include "kel/image/image_util.h"

namespace kel {

ImageUtil::IImageResizeFilter::~IImageResizeFilter() = default;

std::shared_ptr<IImage> ImageUtil::CreateImage(std::uint64_t width, std::uint64_t height, IImage::Format format,
                                               std::uint64_t mipLevels) {
  return std::make_shared<Image>(width, height, format, mipLevels);
}

}  // namespace kel
