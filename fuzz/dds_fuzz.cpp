// DDS buffers from untrusted bytes: load, decode what loaded, re-encode it,
// and check that saving and loading again gives back the same bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <kel/kel.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = [] {
    kel::Log::setSilent(true);  // the first call mutes the library's logger
    return true;
  }();
  (void)quiet;
  std::shared_ptr<kel::IImage> image;
  try {
    image = kel::DDSFileUtil::LoadTextureFromBuffer(data, size);
  } catch (const kel::wexception&) {
    return 0;
  }
  if (!image) std::abort();
  // Loaded images always fit in the input, so decoding stays small.
  std::shared_ptr<const kel::IImage> loaded = image;
  for (auto target : {kel::IImage::RGBA, kel::IImage::BGRA}) {
    auto rgba = kel::ImageUtil::DecompressImage(loaded, target);
    if (rgba) kel::ImageUtil::CompressImage(rgba, kel::IImage::DXT5);
  }
  if (image->width() != 0 && image->height() != 0) {
    std::vector<unsigned char> saved;
    kel::DDSFileUtil::SaveTextureToMemory(saved, loaded);
    auto again = kel::DDSFileUtil::LoadTextureFromBuffer(saved.data(), saved.size());
    if (again->sizeInBytes() != image->sizeInBytes() || again->format() != image->format() ||
        (image->sizeInBytes() != 0 &&
         std::memcmp(again->lineData(0, 0), image->lineData(0, 0), image->sizeInBytes()) != 0))
      std::abort();
  }
  return 0;
}
