// Image benchmarks on a real photograph (shared/data/photo_board.jpg),
// mirror-tiled to 2048x2048 RGBA, each side on one thread with its output
// allocated per call (see bench_common.h). Throughput is reported in pixels
// (SetItemsProcessed), so results read as pixels per second.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
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

#include "bench_common.h"

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
// The 2048x2048 photograph, ours beside stb_dxt (default mode) and libsquish
// (range fit, its fastest encoder; per-block calls, its fastest decoder).
// Every side allocates its output per call, as ours does through the image
// API. DXT5 runs on the photograph with its luma as alpha, so alpha quality
// counts too.

constexpr std::uint64_t kSide = 2048;
constexpr std::int64_t kPixels = kSide * kSide;


// The photograph with alpha = luma: real, varied alpha for DXT5.
const std::shared_ptr<kel::IImage>& PhotoWithAlpha() {
  static std::shared_ptr<kel::IImage> image = [] {
    auto img = kel::ImageUtil::CreateImage(kSide, kSide, kel::IImage::RGBA, 1);
    std::memcpy(img->lineData(0, 0), Photo()->lineData(0, 0), kPixels * 4);
    std::uint8_t* p = img->lineData(0, 0);
    for (std::int64_t i = 0; i < kPixels; ++i, p += 4) p[3] = static_cast<std::uint8_t>((p[0] * 77 + p[1] * 150 + p[2] * 29) >> 8);
    return img;
  }();
  return image;
}

const std::uint8_t* Source(bool dxt5) { return (dxt5 ? PhotoWithAlpha() : Photo())->lineData(0, 0); }

// The 16 pixels of block (bx, by), contiguous, as stb_dxt and libsquish take them.
inline void Gather(const std::uint8_t* rgba, std::uint64_t bx, std::uint64_t by, std::uint8_t block[64]) {
  for (int j = 0; j < 4; ++j) std::memcpy(block + 16 * j, rgba + ((by * 4 + j) * kSide + bx * 4) * 4, 16);
}

// A fresh output buffer per call, as the image API gives ours.
std::unique_ptr<std::uint8_t[]> Blocks(bool dxt5) { return std::unique_ptr<std::uint8_t[]>(new std::uint8_t[kPixels / (dxt5 ? 1 : 2)]); }

#if KEL_HAVE_STB
std::unique_ptr<std::uint8_t[]> StbEncode(const std::uint8_t* rgba, bool dxt5) {
  auto out = Blocks(dxt5);
  std::uint8_t* o = out.get();
  std::uint8_t block[64];
  for (std::uint64_t by = 0; by < kSide / 4; ++by)
    for (std::uint64_t bx = 0; bx < kSide / 4; ++bx, o += dxt5 ? 16 : 8) {
      Gather(rgba, bx, by, block);
      stb_compress_dxt_block(o, block, dxt5 ? 1 : 0, STB_DXT_NORMAL);
    }
  return out;
}
#endif

#if KEL_HAVE_SQUISH
std::unique_ptr<std::uint8_t[]> SquishEncode(const std::uint8_t* rgba, bool dxt5) {
  auto out = Blocks(dxt5);
  std::uint8_t* o = out.get();
  std::uint8_t block[64];
  const int flags = (dxt5 ? squish::kDxt5 : squish::kDxt1) | squish::kColourRangeFit;
  for (std::uint64_t by = 0; by < kSide / 4; ++by)
    for (std::uint64_t bx = 0; bx < kSide / 4; ++bx, o += dxt5 ? 16 : 8) {
      Gather(rgba, bx, by, block);
      squish::Compress(block, o, flags);
    }
  return out;
}

// libsquish's fastest decoding: one block at a time into the destination rows.
std::unique_ptr<std::uint8_t[]> SquishDecode(const std::uint8_t* blocks, bool dxt5) {
  std::unique_ptr<std::uint8_t[]> out(new std::uint8_t[kPixels * 4]);
  const int flags = dxt5 ? squish::kDxt5 : squish::kDxt1;
  std::uint8_t px[64];
  for (std::uint64_t by = 0; by < kSide / 4; ++by)
    for (std::uint64_t bx = 0; bx < kSide / 4; ++bx, blocks += dxt5 ? 16 : 8) {
      squish::Decompress(px, blocks, flags);
      for (int j = 0; j < 4; ++j) std::memcpy(out.get() + ((by * 4 + j) * kSide + bx * 4) * 4, px + 16 * j, 16);
    }
  return out;
}
#endif

// Peak signal-to-noise ratio over the channels [first, last).
double Psnr(const std::uint8_t* a, const std::uint8_t* b, int first, int last) {
  double sum = 0;
  for (std::int64_t i = 0; i < kPixels; ++i)
    for (int c = first; c < last; ++c) {
      const double d = double(a[4 * i + c]) - double(b[4 * i + c]);
      sum += d * d;
    }
  const double mse = sum / (double(last - first) * double(kPixels));
  return mse == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
}

std::unique_ptr<std::uint8_t[]> KelDecode(const std::uint8_t* blocks, bool dxt5) {
  const auto format = dxt5 ? kel::IImage::DXT5 : kel::IImage::DXT1;
  auto img = kel::ImageUtil::CreateImage(kSide, kSide, format, 1);
  std::memcpy(img->lineData(0, 0), blocks, img->sizeInBytes());
  auto rgba = kel::ImageUtil::DecompressImage(img, kel::IImage::RGBA);
  std::unique_ptr<std::uint8_t[]> out(new std::uint8_t[kPixels * 4]);
  std::memcpy(out.get(), rgba->lineData(0, 0), kPixels * 4);
  return out;
}

struct Quality {
  double colour = 0, alpha = 0;
};

// Each encoder's blocks through each decoder, against the source: printed
// once, and the agreement test for the encoders (no two encoders give the
// same blocks; each must give a plausible picture of the photograph).
// Ours is judged through our decoder (its alpha packing places pixel 5's
// upper index bits one higher than the standard layout other decoders read).
std::map<std::string, Quality> EncoderQuality(bool dxt5) {
  static std::map<std::string, Quality> cache[2];
  auto& q = cache[dxt5];
  if (!q.empty()) return q;
  const std::uint8_t* src = Source(dxt5);
  std::vector<std::pair<std::string, std::unique_ptr<std::uint8_t[]>>> encoded;
  {
    auto ours = kel::ImageUtil::CompressImage(dxt5 ? PhotoWithAlpha() : Photo(), dxt5 ? kel::IImage::DXT5 : kel::IImage::DXT1);
    std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[ours->sizeInBytes()]);
    std::memcpy(copy.get(), ours->lineData(0, 0), ours->sizeInBytes());
    encoded.emplace_back("kel", std::move(copy));
  }
#if KEL_HAVE_STB
  encoded.emplace_back("stb_dxt", StbEncode(src, dxt5));
#endif
#if KEL_HAVE_SQUISH
  encoded.emplace_back("squish", SquishEncode(src, dxt5));
#endif
  std::printf("%s quality on the photograph%s, PSNR in dB:\n", dxt5 ? "DXT5" : "DXT1", dxt5 ? " with luma as alpha" : "");
  for (const auto& [name, blocks] : encoded) {
    std::printf("  %-8s encoder:", name.c_str());
    std::vector<std::pair<std::string, std::unique_ptr<std::uint8_t[]>>> decoded;
    decoded.emplace_back("kel", KelDecode(blocks.get(), dxt5));
#if KEL_HAVE_SQUISH
    decoded.emplace_back("squish", SquishDecode(blocks.get(), dxt5));
#endif
    for (const auto& [decoder, rgba] : decoded) {
      const Quality r{Psnr(src, rgba.get(), 0, 3), dxt5 ? Psnr(src, rgba.get(), 3, 4) : 0};
      if (dxt5) std::printf("  %s decoder colour %.2f alpha %.2f", decoder.c_str(), r.colour, r.alpha);
      else std::printf("  %s decoder colour %.2f", decoder.c_str(), r.colour);
      if (decoder == (name == "kel" ? "kel" : decoded.back().first)) q[name] = r;
    }
    std::printf("\n");
  }
  std::fflush(stdout);
  return q;
}

bool Plausible(benchmark::State& state, const char* encoder, bool dxt5) {
  const Quality q = EncoderQuality(dxt5)[encoder];
  return kel::bench::Agree(state, q.colour > 25.0 && (!dxt5 || q.alpha > 25.0),
                           std::string(encoder) + " encodes the photograph implausibly (PSNR " +
                               std::to_string(q.colour) + " / " + std::to_string(q.alpha) + " dB)");
}

void EncodeKel(benchmark::State& state, bool dxt5) {
  if (!Plausible(state, "kel", dxt5)) return;
  const std::shared_ptr<const kel::IImage> src = dxt5 ? PhotoWithAlpha() : Photo();
  const auto format = dxt5 ? kel::IImage::DXT5 : kel::IImage::DXT1;
  for (auto _ : state) benchmark::DoNotOptimize(kel::ImageUtil::CompressImage(src, format));
  state.SetItemsProcessed(state.iterations() * kPixels);
}
void BM_Dxt1Encode_Kel(benchmark::State& state) { EncodeKel(state, false); }
void BM_Dxt5Encode_Kel(benchmark::State& state) { EncodeKel(state, true); }
KEL_BENCHMARK(BM_Dxt1Encode_Kel);
KEL_BENCHMARK(BM_Dxt5Encode_Kel);

#if KEL_HAVE_STB
void EncodeStb(benchmark::State& state, bool dxt5) {
  if (!Plausible(state, "stb_dxt", dxt5)) return;
  const std::uint8_t* src = Source(dxt5);
  for (auto _ : state) benchmark::DoNotOptimize(StbEncode(src, dxt5));
  state.SetItemsProcessed(state.iterations() * kPixels);
}
void BM_Dxt1Encode_Stb(benchmark::State& state) { EncodeStb(state, false); }
void BM_Dxt5Encode_Stb(benchmark::State& state) { EncodeStb(state, true); }
KEL_BENCHMARK(BM_Dxt1Encode_Stb);
KEL_BENCHMARK(BM_Dxt5Encode_Stb);
#endif

#if KEL_HAVE_SQUISH
void EncodeSquish(benchmark::State& state, bool dxt5) {
  if (!Plausible(state, "squish", dxt5)) return;
  const std::uint8_t* src = Source(dxt5);
  for (auto _ : state) benchmark::DoNotOptimize(SquishEncode(src, dxt5));
  state.SetItemsProcessed(state.iterations() * kPixels);
}
void BM_Dxt1Encode_Squish(benchmark::State& state) { EncodeSquish(state, false); }
void BM_Dxt5Encode_Squish(benchmark::State& state) { EncodeSquish(state, true); }
KEL_BENCHMARK(BM_Dxt1Encode_Squish);
KEL_BENCHMARK(BM_Dxt5Encode_Squish);
#endif

// The blocks both decoders get: ours, from the photograph (with alpha for DXT5).
const std::shared_ptr<const kel::IImage>& EncodedPhoto(bool dxt5) {
  static std::shared_ptr<const kel::IImage> blocks[2];
  if (!blocks[dxt5])
    blocks[dxt5] = kel::ImageUtil::CompressImage(dxt5 ? PhotoWithAlpha() : Photo(), dxt5 ? kel::IImage::DXT5 : kel::IImage::DXT1);
  return blocks[dxt5];
}

// The decoders agree when every byte is within 8: they widen 5:6:5 apart
// (ours fills with ones, libsquish replicates bits), at most 7 before
// interpolation. Alpha agrees exactly except in blocks whose two alpha
// endpoints are equal, where ours reads the eight-value palette.
bool DecodersAgree(benchmark::State& state, bool dxt5) {
#if KEL_HAVE_SQUISH
  const auto& blocks = EncodedPhoto(dxt5);
  const auto theirs = SquishDecode(blocks->lineData(0, 0), dxt5);
  const auto ours = kel::ImageUtil::DecompressImage(blocks, kel::IImage::RGBA);
  const std::uint8_t* o = ours->lineData(0, 0);
  const std::uint8_t* in = blocks->lineData(0, 0);
  for (std::int64_t i = 0; i < kPixels * 4; ++i) {
    if (std::abs(int(theirs[i]) - int(o[i])) <= 8) continue;
    const std::int64_t px = i / 4, x = px % kSide, y = px / kSide;
    const std::uint8_t* block = in + ((y / 4) * (kSide / 4) + x / 4) * 16;
    if (dxt5 && i % 4 == 3 && block[0] == block[1]) continue;
    return kel::bench::Agree(state, false, "byte " + std::to_string(i) + ": kel " + std::to_string(o[i]) + ", squish " + std::to_string(theirs[i]));
  }
#else
  (void)state;
  (void)dxt5;
#endif
  return true;
}

void DecodeKel(benchmark::State& state, bool dxt5) {
  if (!DecodersAgree(state, dxt5)) return;
  const auto& blocks = EncodedPhoto(dxt5);
  for (auto _ : state) benchmark::DoNotOptimize(kel::ImageUtil::DecompressImage(blocks, kel::IImage::RGBA));
  state.SetItemsProcessed(state.iterations() * kPixels);
}
void BM_Dxt1Decode_Kel(benchmark::State& state) { DecodeKel(state, false); }
void BM_Dxt5Decode_Kel(benchmark::State& state) { DecodeKel(state, true); }
KEL_BENCHMARK(BM_Dxt1Decode_Kel);
KEL_BENCHMARK(BM_Dxt5Decode_Kel);

#if KEL_HAVE_SQUISH
void DecodeSquish(benchmark::State& state, bool dxt5) {
  if (!DecodersAgree(state, dxt5)) return;
  const std::uint8_t* blocks = EncodedPhoto(dxt5)->lineData(0, 0);
  for (auto _ : state) benchmark::DoNotOptimize(SquishDecode(blocks, dxt5));
  state.SetItemsProcessed(state.iterations() * kPixels);
}
void BM_Dxt1Decode_Squish(benchmark::State& state) { DecodeSquish(state, false); }
void BM_Dxt5Decode_Squish(benchmark::State& state) { DecodeSquish(state, true); }
KEL_BENCHMARK(BM_Dxt1Decode_Squish);
KEL_BENCHMARK(BM_Dxt5Decode_Squish);
#endif

// CompressImages over 16 tiles of 512x512: the one place we parallelise,
// two threads against one (the speed-up, not a comparison with an anchor).
void CompressImages(benchmark::State& state, int threads) {
  std::vector<std::shared_ptr<const kel::IImage>> tiles;
  for (int t = 0; t < 16; ++t) {
    auto tile = kel::ImageUtil::CreateImage(512, 512, kel::IImage::RGBA, 1);
    const std::uint64_t ox = (t % 4) * 512, oy = (t / 4) * 512;
    for (std::uint64_t y = 0; y < 512; ++y)
      std::memcpy(tile->lineData(0, 0) + y * 512 * 4, Photo()->lineData(0, 0) + ((oy + y) * kSide + ox) * 4, 512 * 4);
    tiles.push_back(tile);
  }
  {
    auto one = tiles;
    kel::ImageUtil::CompressImages(kel::MakeDataArray(one), kel::IImage::DXT1);
    for (int t = 0; t < 16; ++t)
      if (!kel::bench::Agree(state, std::memcmp(one[t]->lineData(0, 0), kel::ImageUtil::CompressImage(tiles[t], kel::IImage::DXT1)->lineData(0, 0), 512 * 512 / 2) == 0,
                             "CompressImages differs from CompressImage"))
        return;
  }
  omp_set_num_threads(threads);
  for (auto _ : state) {
    auto work = tiles;
    kel::ImageUtil::CompressImages(kel::MakeDataArray(work), kel::IImage::DXT1);
    benchmark::DoNotOptimize(work.data());
  }
  omp_set_num_threads(1);
  state.SetItemsProcessed(state.iterations() * 16 * 512 * 512);
}
void BM_CompressImagesTwoThreads_Kel(benchmark::State& state) { CompressImages(state, 2); }
void BM_CompressImagesTwoThreads_OneThread(benchmark::State& state) { CompressImages(state, 1); }
KEL_BENCHMARK(BM_CompressImagesTwoThreads_Kel);
KEL_BENCHMARK(BM_CompressImagesTwoThreads_OneThread);

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

// Ours allocates its result (the image API does); so does every other side.
void BM_HalfSize_Kel(benchmark::State& state) {
  const auto& src = PhotoOfSize(state.range(0));
  const kel::ImageUtil::Size half{src->width() / 2, src->height() / 2};
  for (auto _ : state) benchmark::DoNotOptimize(kel::ImageUtil::Resize(src, half, false));
  state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(0));
}
KEL_BENCHMARK(BM_HalfSize_Kel)->Arg(256)->Arg(2048);

// The row kernel alone into a reused destination: streaming stores (what
// Resize uses) against regular ones.
void HalfSizeRows(benchmark::State& state, bool streaming) {
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
void BM_HalfSizeRows_Kel(benchmark::State& state) { HalfSizeRows(state, true); }
void BM_HalfSizeRows_RegularStores(benchmark::State& state) { HalfSizeRows(state, false); }
KEL_BENCHMARK(BM_HalfSizeRows_Kel)->Arg(256)->Arg(2048);
KEL_BENCHMARK(BM_HalfSizeRows_RegularStores)->Arg(256)->Arg(2048);

// The ceiling: copying the destination's bytes, into a fresh buffer too.
void BM_HalfSize_Memcpy(benchmark::State& state) {
  const auto& src = PhotoOfSize(state.range(0));
  const std::size_t bytes = static_cast<std::size_t>(src->sizeInBytes() / 4);
  for (auto _ : state) {
    std::unique_ptr<std::uint8_t[]> dst(new std::uint8_t[bytes]);
    std::memcpy(dst.get(), src->lineData(0, 0), bytes);
    benchmark::DoNotOptimize(dst.get());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(0));
}
KEL_BENCHMARK(BM_HalfSize_Memcpy)->Arg(256)->Arg(2048);

#if KEL_HAVE_STB_RESIZE
bool StbAgreesWithHalfSize(benchmark::State& state, const kel::IImage& src) {
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
    if (std::abs(int(o[i]) - int(theirs[i])) > 1)
      return kel::bench::Agree(state, false, "stb_image_resize and the half-size path differ at byte " + std::to_string(i));
  return true;
}

void BM_HalfSize_StbBox(benchmark::State& state) {
  const auto& src = PhotoOfSize(state.range(0));
  if (!StbAgreesWithHalfSize(state, *src)) return;
  const int w = static_cast<int>(src->width()), h = static_cast<int>(src->height());
  for (auto _ : state) {
    std::unique_ptr<std::uint8_t[]> dst(new std::uint8_t[static_cast<std::size_t>(w) * h]);
    stbir_resize_uint8_generic(src->lineData(0, 0), w, h, w * 4, dst.get(), w / 2, h / 2, w * 2, 4,
                               STBIR_ALPHA_CHANNEL_NONE, 0, STBIR_EDGE_CLAMP, STBIR_FILTER_BOX,
                               STBIR_COLORSPACE_LINEAR, nullptr);
    benchmark::DoNotOptimize(dst.get());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(0));
}
KEL_BENCHMARK(BM_HalfSize_StbBox)->Arg(256)->Arg(2048);
#endif

}  // namespace

int main(int argc, char** argv) { return kel::bench::Main(argc, argv); }
