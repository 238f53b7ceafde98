#include "png_writer.h"

#include <csetjmp>
#include <stdexcept>
#include <string>

#include <png.h>

#include <kel/kel.h>

namespace cli {

std::vector<std::uint8_t> EncodePng(const std::uint8_t* pixels, std::uint32_t width, std::uint32_t height,
                                    std::size_t stride, int channels) {
  std::vector<std::uint8_t> out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!info) {
    png_destroy_write_struct(&png, nullptr);
    throw std::runtime_error("libpng could not start");
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    throw std::runtime_error("libpng failed to encode the picture");
  }
  png_set_write_fn(
      png, &out,
      [](png_structp p, png_bytep data, png_size_t n) {
        auto* bytes = static_cast<std::vector<std::uint8_t>*>(png_get_io_ptr(p));
        bytes->insert(bytes->end(), data, data + n);
      },
      [](png_structp) {});
  png_set_IHDR(png, info, width, height, 8, channels == 1 ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGBA,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (std::uint32_t y = 0; y < height; ++y) png_write_row(png, const_cast<png_bytep>(pixels + y * stride));
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return out;
}

void WritePng(const std::string& path, const std::uint8_t* pixels, std::uint32_t width, std::uint32_t height,
              std::size_t stride, int channels) {
  const std::vector<std::uint8_t> png = EncodePng(pixels, width, height, stride, channels);
  // Through a temporary: a failed or killed write keeps the picture that was there.
  kel::AtomicFile file(path);
  file.write(png.data(), png.size());
  file.commit();
}

}  // namespace cli
