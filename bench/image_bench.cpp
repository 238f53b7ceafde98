// Image benchmarks on a real photograph (shared/data/photo_board.jpg),
// mirror-tiled to 2048x2048 RGBA. Throughput is reported in pixels
// (SetItemsProcessed), so results read as pixels per second.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <jpeglib.h>
#include <omp.h>

#if KEL_HAVE_STB
#define STB_DXT_IMPLEMENTATION
#include <stb_dxt.h>
#endif
#if KEL_HAVE_SQUISH
#include <squish.h>
#endif

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
// Single-threaded throughput on the 2048x2048 photograph, ours beside
// stb_dxt (default mode) and libsquish (range fit, its fastest encoder).

constexpr std::uint64_t kSide = 2048;
constexpr std::int64_t kPixels = kSide * kSide;

std::shared_ptr<const kel::IImage> PhotoConst() { return Photo(); }

#if KEL_HAVE_STB
// stb_dxt takes one block of 16 contiguous pixels.
void StbCompress(const std::uint8_t* rgba, std::uint8_t* out, bool dxt5) {
  const std::size_t blockBytes = dxt5 ? 16 : 8;
  std::uint8_t block[64];
  for (std::uint64_t by = 0; by < kSide / 4; ++by)
    for (std::uint64_t bx = 0; bx < kSide / 4; ++bx) {
      for (int j = 0; j < 4; ++j) std::memcpy(block + 16 * j, rgba + ((by * 4 + j) * kSide + bx * 4) * 4, 16);
      stb_compress_dxt_block(out, block, dxt5 ? 1 : 0, STB_DXT_NORMAL);
      out += blockBytes;
    }
}
#endif

// Peak signal-to-noise ratio over red, green and blue.
double Psnr(const std::uint8_t* a, const std::uint8_t* b, std::uint64_t pixels) {
  double sum = 0;
  for (std::uint64_t i = 0; i < pixels; ++i)
    for (int c = 0; c < 3; ++c) {
      const double d = double(a[4 * i + c]) - double(b[4 * i + c]);
      sum += d * d;
    }
  const double mse = sum / (3.0 * double(pixels));
  return mse == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
}

// Printed once: what the fast encoder trades for its speed. Every encoder's
// blocks are decoded by the same (libsquish) decoder when it is there, so the
// numbers compare encoders; ours is also shown through our own decoder.
// Returns false when our encoder's picture is not a plausible DXT rendering
// of the photograph (the encoders cannot agree bit for bit; they must agree
// on the picture).
bool PrintQuality() {
  static bool done = false, plausible = true;
  if (done) return plausible;
  done = true;
  const std::uint8_t* src = Photo()->lineData(0, 0);
  for (bool dxt5 : {false, true}) {
    const auto format = dxt5 ? kel::IImage::DXT5 : kel::IImage::DXT1;
    auto ours = kel::ImageUtil::CompressImage(PhotoConst(), format);
    auto oursBack = kel::ImageUtil::DecompressImage(ours, kel::IImage::RGBA);
    const double oursPsnr = Psnr(src, oursBack->lineData(0, 0), kPixels);
    plausible = plausible && oursPsnr > 25.0;
    std::printf("PSNR %s (photo, RGB): kel %.2f dB (own decoder)", dxt5 ? "DXT5" : "DXT1", oursPsnr);
#if KEL_HAVE_SQUISH
    const int flags = dxt5 ? squish::kDxt5 : squish::kDxt1;
    std::vector<std::uint8_t> back(kPixels * 4);
    squish::DecompressImage(back.data(), kSide, kSide, ours->lineData(0, 0), flags);
    std::printf(", kel %.2f dB", Psnr(src, back.data(), kPixels));
    std::vector<std::uint8_t> blocks(ours->sizeInBytes());
    squish::CompressImage(src, kSide, kSide, blocks.data(), flags | squish::kColourRangeFit);
    squish::DecompressImage(back.data(), kSide, kSide, blocks.data(), flags);
    std::printf(", squish range fit %.2f dB", Psnr(src, back.data(), kPixels));
#if KEL_HAVE_STB
    StbCompress(src, blocks.data(), dxt5);
    squish::DecompressImage(back.data(), kSide, kSide, blocks.data(), flags);
    std::printf(", stb_dxt %.2f dB", Psnr(src, back.data(), kPixels));
#endif
#endif
    std::printf("\n");
  }
  std::fflush(stdout);
  return plausible;
}

void EncodeKel(benchmark::State& state, kel::IImage::Format format) {
  if (!PrintQuality()) {
    state.SkipWithError("encoded photograph is implausibly far from the original");
    return;
  }
  const auto src = PhotoConst();
  for (auto _ : state) benchmark::DoNotOptimize(kel::ImageUtil::CompressImage(src, format));
  state.SetItemsProcessed(state.iterations() * kPixels);
}
void BM_Dxt1Encode_Kel(benchmark::State& state) { EncodeKel(state, kel::IImage::DXT1); }
void BM_Dxt5Encode_Kel(benchmark::State& state) { EncodeKel(state, kel::IImage::DXT5); }
BENCHMARK(BM_Dxt1Encode_Kel)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dxt5Encode_Kel)->Unit(benchmark::kMillisecond);

#if KEL_HAVE_STB
void EncodeStb(benchmark::State& state, bool dxt5) {
  const std::uint8_t* src = Photo()->lineData(0, 0);
  std::vector<std::uint8_t> out(kPixels / (dxt5 ? 1 : 2));
  for (auto _ : state) {
    StbCompress(src, out.data(), dxt5);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kPixels);
}
void BM_Dxt1Encode_Stb(benchmark::State& state) { EncodeStb(state, false); }
void BM_Dxt5Encode_Stb(benchmark::State& state) { EncodeStb(state, true); }
BENCHMARK(BM_Dxt1Encode_Stb)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dxt5Encode_Stb)->Unit(benchmark::kMillisecond);
#endif

#if KEL_HAVE_SQUISH
void EncodeSquish(benchmark::State& state, bool dxt5) {
  const std::uint8_t* src = Photo()->lineData(0, 0);
  std::vector<std::uint8_t> out(kPixels / (dxt5 ? 1 : 2));
  const int flags = (dxt5 ? squish::kDxt5 : squish::kDxt1) | squish::kColourRangeFit;
  for (auto _ : state) {
    squish::CompressImage(src, kSide, kSide, out.data(), flags);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kPixels);
}
void BM_Dxt1Encode_Squish(benchmark::State& state) { EncodeSquish(state, false); }
void BM_Dxt5Encode_Squish(benchmark::State& state) { EncodeSquish(state, true); }
BENCHMARK(BM_Dxt1Encode_Squish)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dxt5Encode_Squish)->Unit(benchmark::kMillisecond);
#endif

void DecodeKel(benchmark::State& state, kel::IImage::Format format) {
  const std::shared_ptr<const kel::IImage> blocks = kel::ImageUtil::CompressImage(PhotoConst(), format);
  for (auto _ : state) benchmark::DoNotOptimize(kel::ImageUtil::DecompressImage(blocks, kel::IImage::RGBA));
  state.SetItemsProcessed(state.iterations() * kPixels);
}
void BM_Dxt1Decode_Kel(benchmark::State& state) { DecodeKel(state, kel::IImage::DXT1); }
void BM_Dxt5Decode_Kel(benchmark::State& state) { DecodeKel(state, kel::IImage::DXT5); }
BENCHMARK(BM_Dxt1Decode_Kel)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dxt5Decode_Kel)->Unit(benchmark::kMillisecond);

#if KEL_HAVE_SQUISH
void DecodeSquish(benchmark::State& state, kel::IImage::Format format) {
  const auto blocks = kel::ImageUtil::CompressImage(PhotoConst(), format);
  const int flags = format == kel::IImage::DXT5 ? squish::kDxt5 : squish::kDxt1;
  std::vector<std::uint8_t> out(kPixels * 4);
  // Same blocks, same picture: the two decoders differ only in how they
  // widen 5:6:5 (ours fills with ones, squish replicates), by at most 7 per
  // channel before interpolation.
  squish::DecompressImage(out.data(), kSide, kSide, blocks->lineData(0, 0), flags);
  const auto ours = kel::ImageUtil::DecompressImage(blocks, kel::IImage::RGBA);
  for (std::int64_t i = 0; i < kPixels * 4; ++i)
    if (std::abs(int(out[i]) - int(ours->lineData(0, 0)[i])) > 8) {
      state.SkipWithError("decoders disagree");
      return;
    }
  for (auto _ : state) {
    squish::DecompressImage(out.data(), kSide, kSide, blocks->lineData(0, 0), flags);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kPixels);
}
void BM_Dxt1Decode_Squish(benchmark::State& state) { DecodeSquish(state, kel::IImage::DXT1); }
void BM_Dxt5Decode_Squish(benchmark::State& state) { DecodeSquish(state, kel::IImage::DXT5); }
BENCHMARK(BM_Dxt1Decode_Squish)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dxt5Decode_Squish)->Unit(benchmark::kMillisecond);
#endif

// CompressImages over 16 tiles of 512x512 with 1 and 2 OpenMP threads.
void BM_CompressImages(benchmark::State& state) {
  const int threads = static_cast<int>(state.range(0));
  std::vector<std::shared_ptr<const kel::IImage>> tiles;
  for (int t = 0; t < 16; ++t) {
    auto tile = kel::ImageUtil::CreateImage(512, 512, kel::IImage::RGBA, 1);
    const std::uint64_t ox = (t % 4) * 512, oy = (t / 4) * 512;
    for (std::uint64_t y = 0; y < 512; ++y)
      std::memcpy(tile->lineData(0, 0) + y * 512 * 4, Photo()->lineData(0, 0) + ((oy + y) * kSide + ox) * 4, 512 * 4);
    tiles.push_back(tile);
  }
  const int saved = omp_get_max_threads();
  omp_set_num_threads(threads);
  for (auto _ : state) {
    auto work = tiles;
    kel::ImageUtil::CompressImages(kel::MakeDataArray(work), kel::IImage::DXT1);
    benchmark::DoNotOptimize(work.data());
  }
  omp_set_num_threads(saved);
  state.SetItemsProcessed(state.iterations() * 16 * 512 * 512);
}
BENCHMARK(BM_CompressImages)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// --- Resize -----------------------------------------------------------------------

// === Half-size resize (image operations) ===========================================
// The fast half-size path against stb_image_resize's 2:1 box filter and against
// memcpy of the same bytes (the ceiling). Single-threaded; items are source pixels.

}  // namespace

#include "image/detail/half_size_lanes.h"
#if KEL_HAVE_STB_RESIZE
#define STB_IMAGE_RESIZE_IMPLEMENTATION
#include <stb_image_resize.h>
#endif

namespace {

// The photograph decoded with ImageUtil::Load and mirror-tiled to size x size.
std::shared_ptr<kel::IImage> LoadedPhoto(std::uint64_t size) {
  auto src = kel::ImageUtil::Load(kel::Utf8String2WString(std::string(KEL_SHARED_DATA_DIR) + "/photo_board.jpg"),
                                  kel::IImage::RGBA);
  auto img = kel::ImageUtil::CreateImage(size, size, kel::IImage::RGBA, 1);
  for (std::uint64_t y = 0; y < size; ++y)
    for (std::uint64_t x = 0; x < size; ++x)
      std::memcpy(img->lineData(y, 0) + x * 4, src->lineData(Mirror(y, src->height()), 0) + Mirror(x, src->width()) * 4,
                  4);
  return img;
}

const std::shared_ptr<kel::IImage>& PhotoOfSize(std::int64_t size) {
  static std::map<std::int64_t, std::shared_ptr<kel::IImage>> cache;
  auto& slot = cache[size];
  if (!slot) slot = LoadedPhoto(static_cast<std::uint64_t>(size));
  return slot;
}

void BM_HalfSizeResize(benchmark::State& state) {
  const auto& src = PhotoOfSize(state.range(0));
  const kel::ImageUtil::Size half{src->width() / 2, src->height() / 2};
  for (auto _ : state) benchmark::DoNotOptimize(kel::ImageUtil::Resize(src, half, false));
  state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(0));
}
BENCHMARK(BM_HalfSizeResize)->Arg(256)->Arg(2048);

// The row kernel alone into a reused destination: streaming against regular stores.
void HalfSizeKernel(benchmark::State& state, bool streaming) {
  const auto& src = PhotoOfSize(state.range(0));
  auto dst = kel::ImageUtil::CreateImage(src->width() / 2, src->height() / 2, kel::IImage::RGBA, 1);
  const std::size_t groups = static_cast<std::size_t>(src->width() / 8);
  for (auto _ : state) {
    for (std::uint64_t y = 0; y < dst->height(); ++y)
      kel::detail::HalveRow(src->lineData(2 * y, 0), src->lineData(2 * y + 1, 0), dst->lineData(y, 0), groups,
                            streaming);
    kel::detail::HalveRowsDone();
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(0));
}
void BM_HalfSizeKernelStreaming(benchmark::State& state) { HalfSizeKernel(state, true); }
void BM_HalfSizeKernelRegular(benchmark::State& state) { HalfSizeKernel(state, false); }
BENCHMARK(BM_HalfSizeKernelStreaming)->Arg(256)->Arg(2048);
BENCHMARK(BM_HalfSizeKernelRegular)->Arg(256)->Arg(2048);

void BM_HalfSizeMemcpy(benchmark::State& state) {
  const auto& src = PhotoOfSize(state.range(0));
  std::vector<std::uint8_t> dst(src->sizeInBytes());
  for (auto _ : state) {
    std::memcpy(dst.data(), src->lineData(0, 0), dst.size());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(0));
}
BENCHMARK(BM_HalfSizeMemcpy)->Arg(256)->Arg(2048);

#if KEL_HAVE_STB_RESIZE
bool StbAgreesWithHalfSize(const kel::IImage& src) {
  // stb's box pairs adjacent columns; ours pairs (0,2),(1,3) within groups of
  // 8. Swapping columns 1<->2 and 5<->6 of each group makes the two the same
  // filter; stb rounds through floats, so allow 1.
  const int w = static_cast<int>(src.width()), h = static_cast<int>(src.height());
  std::vector<std::uint8_t> swapped(static_cast<std::size_t>(w) * h * 4), theirs(static_cast<std::size_t>(w) * h);
  static const int kSwap[8] = {0, 2, 1, 3, 4, 6, 5, 7};
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      std::memcpy(&swapped[(static_cast<std::size_t>(y) * w + x) * 4],
                  src.lineData(static_cast<std::uint64_t>(y), 0) + ((x & ~7) + kSwap[x & 7]) * 4, 4);
  stbir_resize_uint8_generic(swapped.data(), w, h, w * 4, theirs.data(), w / 2, h / 2, w * 2, 4,
                             STBIR_ALPHA_CHANNEL_NONE, 0, STBIR_EDGE_CLAMP, STBIR_FILTER_BOX, STBIR_COLORSPACE_LINEAR,
                             nullptr);
  std::shared_ptr<const kel::IImage> shared(&src, [](const kel::IImage*) {});
  const auto ours = kel::ImageUtil::Resize(shared, kel::ImageUtil::Size{src.width() / 2, src.height() / 2}, false);
  const std::uint8_t* o = ours->lineData(0, 0);
  for (std::size_t i = 0; i < static_cast<std::size_t>(w / 2) * (h / 2) * 4; ++i)
    if (std::abs(int(o[i]) - int(theirs[i])) > 1) return false;
  return true;
}

void BM_HalfSizeStbBox(benchmark::State& state) {
  const auto& src = PhotoOfSize(state.range(0));
  if (!StbAgreesWithHalfSize(*src)) {
    state.SkipWithError("stb_image_resize and the half-size path disagree");
    return;
  }
  const int w = static_cast<int>(src->width()), h = static_cast<int>(src->height());
  std::vector<std::uint8_t> dst(static_cast<std::size_t>(w) * h);
  for (auto _ : state) {
    stbir_resize_uint8_generic(src->lineData(0, 0), w, h, w * 4, dst.data(), w / 2, h / 2, w * 2, 4,
                               STBIR_ALPHA_CHANNEL_NONE, 0, STBIR_EDGE_CLAMP, STBIR_FILTER_BOX,
                               STBIR_COLORSPACE_LINEAR, nullptr);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(0));
}
BENCHMARK(BM_HalfSizeStbBox)->Arg(256)->Arg(2048);
#endif

}  // namespace

BENCHMARK_MAIN();
