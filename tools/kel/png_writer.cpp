#include "png_writer.h"

#include <cstdio>
#include <memory>
#include <stdexcept>

#include <png.h>

namespace cli {

void WritePng(const std::string& path, const std::uint8_t* pixels, std::uint32_t width, std::uint32_t height,
              std::size_t stride, int channels) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"), &std::fclose);
  if (!file) throw std::runtime_error("cannot create " + path);
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!info) {
    png_destroy_write_struct(&png, nullptr);
    throw std::runtime_error("libpng could not start");
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    throw std::runtime_error("failed to write " + path);
  }
  png_init_io(png, file.get());
  png_set_IHDR(png, info, width, height, 8, channels == 1 ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGBA,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (std::uint32_t y = 0; y < height; ++y)
    png_write_row(png, const_cast<png_bytep>(pixels + y * stride));
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  if (std::fflush(file.get()) != 0) throw std::runtime_error("failed to write " + path);
}

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

}  // namespace cli
