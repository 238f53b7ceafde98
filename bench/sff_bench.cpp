// SFF streams on one tile of 10 million vertices (positions, normals, 32-bit
// indices, a few nodes and strings), each next to its ceiling:
//   SFF0 read  vs fread/memcpy of the same bytes in 64 KiB chunks into a
//              buffer as large as the largest array,
//   SFF0 write vs fwrite/memcpy of the same bytes,
//   SFZ0 read/write vs raw zlib inflate/deflate of the same record bytes with
//              64 KiB buffers at the same level (1; the default level runs at
//              15-25 MB/s on mesh data, ~6x slower for ~2 % smaller output).
// Every pair is checked to agree before it is timed. After the run a summary
// prints ours/theirs throughput ratios from the median iteration of each.
// Files go to /dev/shm when it exists, so disk writeback does not blur them.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#ifdef KEL_HAVE_ZLIB
#include <zlib.h>
#endif

#include "kel/sff/sff_file_stream.h"
#include "kel/sff/sff_reader.h"
#include "kel/sff/sff_writer.h"
#include "kel/sff/sff_zlib_stream.h"

namespace {

namespace fs = std::filesystem;
constexpr std::size_t kVertices = 10'000'000;
constexpr std::size_t kIndices = 15'000'000;  // 5 million triangles
constexpr std::size_t kChunk = 65536;
constexpr int kLevel = 1;

struct Tile {
  std::vector<float> positions, normals;
  std::vector<std::uint32_t> indices;
};

// A gently rolling terrain grid: realistic float noise for the compressor.
const Tile& TheTile() {
  static const Tile tile = [] {
    Tile t;
    t.positions.resize(3 * kVertices);
    t.normals.resize(3 * kVertices);
    t.indices.resize(kIndices);
    const std::size_t side = 3163;
    for (std::size_t v = 0; v < kVertices; ++v) {
      const float x = static_cast<float>(v % side) * 0.5f, y = static_cast<float>(v / side) * 0.5f;
      const float z = 40.0f * std::sin(x * 0.01f) * std::cos(y * 0.013f) + 0.37f * std::sin(x * 0.9f + y);
      t.positions[3 * v] = 512000.25f + x, t.positions[3 * v + 1] = 5400000.5f + y, t.positions[3 * v + 2] = z;
      const float nx = -0.4f * std::cos(x * 0.01f), ny = 0.52f * std::sin(y * 0.013f);
      const float inv = 1.0f / std::sqrt(nx * nx + ny * ny + 1.0f);
      t.normals[3 * v] = nx * inv, t.normals[3 * v + 1] = ny * inv, t.normals[3 * v + 2] = inv;
    }
    for (std::size_t i = 0; i < kIndices / 6; ++i) {
      const std::uint32_t a = static_cast<std::uint32_t>(i + i / (side - 1)), b = a + 1;
      const std::uint32_t c = static_cast<std::uint32_t>(a + side), d = c + 1;
      const std::uint32_t q[6] = {a, b, c, b, d, c};
      std::memcpy(&t.indices[6 * i], q, sizeof q);
    }
    return t;
  }();
  return tile;
}

void WriteTile(kel::sff_writer& w) {
  const Tile& t = TheTile();
  w.beginAt();
  w.beginB(1);
  w.writeString(32, "terrain_12_2048_1024");
  w.beginC(7);
  w.writePositions(t.positions.data(), kVertices);
  w.writeNormals(t.normals.data(), kVertices);
  w.writeArray4(t.indices.data(), kIndices);
  w.writeString(33, "ground");
  w.end();
  w.writeElement(9, nullptr, "facade", true);
  w.end();
  w.end();
}

// A sink over a fixed buffer reused across iterations (no page faults timed).
class FixedSink : public kel::sff_output_stream {
public:
  explicit FixedSink(std::size_t capacity) : buf_(static_cast<unsigned char*>(std::malloc(capacity))), cap_(capacity) {
    std::memset(buf_, 0, cap_);
  }
  ~FixedSink() override { std::free(buf_); }
  void write(const void* data, std::size_t size) override {
    if (size > cap_ - pos_) std::abort();
    std::memcpy(buf_ + pos_, data, size);
    pos_ += size;
  }
  void clear() { pos_ = 0; }
  const unsigned char* data() const { return buf_; }
  std::size_t size() const { return pos_; }

private:
  unsigned char* buf_;
  std::size_t cap_;
  std::size_t pos_ = 0;
};

const std::vector<unsigned char>& PlainImage() {
  static const std::vector<unsigned char> image = [] {
    kel::sff_buff_os sink;
    sink.bytes().reserve(4 * 1024 * 1024 + 3 * 12 * kVertices);
    { kel::sff_writer w(sink, false); WriteTile(w); }
    return sink.bytes();
  }();
  return image;
}

const std::vector<unsigned char>& CompressedImage() {
  static const std::vector<unsigned char> image = [] {
    kel::sff_buff_os sink;
    { kel::sff_writer w(sink, true, kLevel); WriteTile(w); }
    return sink.bytes();
  }();
  return image;
}

std::string TempFile(const char* name) {
  std::error_code ec;
  const fs::path dir = fs::is_directory("/dev/shm", ec) ? fs::path("/dev/shm") : fs::temp_directory_path();
  return (dir / (std::string("kel_sff_bench_") + std::to_string(::getpid()) + name)).string();
}

bool plainFileMade = false;

const std::string& PlainFile() {
  static const std::string path = [] {
    plainFileMade = true;
    const std::string p = TempFile("_plain.sff");
    std::FILE* f = std::fopen(p.c_str(), "wb");
    std::fwrite(PlainImage().data(), 1, PlainImage().size(), f);
    std::fclose(f);
    return p;
  }();
  return path;
}

constexpr std::size_t kLargestArray = 12 * kVertices;

// Every iteration's time per benchmark, for the ratio summary (medians).
std::map<std::string, std::vector<double>>& Times() {
  static std::map<std::string, std::vector<double>> times;
  return times;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : 0.5 * (v[v.size() / 2 - 1] + v[v.size() / 2]);
}

template <class F>
void Timed(benchmark::State& state, const char* name, std::size_t bytes, F&& body) {
  std::vector<double>& times = Times()[name];
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    body();
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    times.push_back(s);
    state.SetIterationTime(s);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

// Hands whole arrays to the caller as a consumer would, touching nothing.
class ArraySink : public kel::sff_read_callback {
public:
  std::size_t bytes = 0;
  const void* last = nullptr;
  void positions(const void* d, std::size_t n) override { last = d, bytes += n * 12; }
  void normals(const void* d, std::size_t n) override { last = d, bytes += n * 12; }
  void array4(const void* d, std::size_t n) override { last = d, bytes += n * 4; }
};

// Checks the arrays a reader delivers against the tile, once.
class Verifier : public kel::sff_read_callback {
public:
  bool ok = true;
  int arrays = 0;
  void positions(const void* d, std::size_t n) override { check(d, n * 12, TheTile().positions.data()); }
  void normals(const void* d, std::size_t n) override { check(d, n * 12, TheTile().normals.data()); }
  void array4(const void* d, std::size_t n) override { check(d, n * 4, TheTile().indices.data()); }

private:
  void check(const void* d, std::size_t size, const void* expect) {
    ++arrays;
    ok = ok && std::memcmp(d, expect, size) == 0;
  }
};

// Also warms the reader up: its scratch then has its steady-state size, as
// the ceiling's buffer has before timing.
void Verify(benchmark::State& state, kel::sff_input_stream& in, kel::sff_reader& reader) {
  Verifier v;
  reader.read(in, v);
  if (!v.ok || v.arrays != 3) state.SkipWithError("reader delivered wrong arrays");
}

void Verify(benchmark::State& state, kel::sff_input_stream& in) {
  kel::sff_reader reader;
  Verify(state, in, reader);
}

// === SFF0 read ==================================================================

void BM_Sff0ReadFile(benchmark::State& state) {
  kel::sff_file_is in(PlainFile().c_str());
  kel::sff_reader reader;  // kept: its scratch is reused like the ceiling's buffer
  Verify(state, in, reader);
  ArraySink sink;
  Timed(state, "sff0 read file", PlainImage().size(), [&] { reader.read(in, sink); });
  benchmark::DoNotOptimize(sink.last);
}

void BM_FreadFile(benchmark::State& state) {
  std::vector<unsigned char> buf(kLargestArray, 1);
  std::FILE* f = std::fopen(PlainFile().c_str(), "rb");
  {  // agree: the same bytes come back
    std::vector<unsigned char> all(PlainImage().size());
    if (std::fread(all.data(), 1, all.size(), f) != all.size() || all != PlainImage())
      state.SkipWithError("fread differs");
  }
  Timed(state, "fread file", PlainImage().size(), [&] {
    std::rewind(f);
    std::size_t pos = 0, n;
    while ((n = std::fread(buf.data() + pos, 1, std::min(kChunk, buf.size() - pos), f)) > 0)
      pos = pos + n == buf.size() ? 0 : pos + n;
    benchmark::DoNotOptimize(buf.data());
  });
  std::fclose(f);
}

void BM_Sff0ReadMemory(benchmark::State& state) {
  kel::sff_buff_is in(PlainImage().data(), PlainImage().size());
  kel::sff_reader reader;
  Verify(state, in, reader);
  ArraySink sink;
  Timed(state, "sff0 read memory", PlainImage().size(), [&] { reader.read(in, sink); });
  benchmark::DoNotOptimize(sink.last);
}

void BM_MemcpyRead(benchmark::State& state) {
  std::vector<unsigned char> buf(kLargestArray, 1);
  const auto& image = PlainImage();
  Timed(state, "memcpy read", image.size(), [&] {
    std::size_t pos = 0;
    for (std::size_t off = 0; off < image.size();) {
      const std::size_t n = std::min({kChunk, buf.size() - pos, image.size() - off});
      std::memcpy(buf.data() + pos, image.data() + off, n);
      off += n;
      pos = pos + n == buf.size() ? 0 : pos + n;
    }
    benchmark::DoNotOptimize(buf.data());
  });
}

// === SFF0 write =================================================================

void BM_Sff0WriteFile(benchmark::State& state) {
  const std::string path = TempFile("_out.sff");
  {
    kel::sff_file_os out(path.c_str());
    kel::sff_writer w(out, false);
    WriteTile(w);
  }
  {
    kel::sff_file_is in(path.c_str());
    Verify(state, in);
  }
  Timed(state, "sff0 write file", PlainImage().size(), [&] {
    kel::sff_file_os out(path.c_str());
    kel::sff_writer w(out, false);
    WriteTile(w);
  });
  fs::remove(path);
}

void BM_FwriteFile(benchmark::State& state) {
  const std::string path = TempFile("_fwrite.sff");
  const auto& image = PlainImage();
  Timed(state, "fwrite file", image.size(), [&] {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    std::fwrite(image.data(), 1, image.size(), f);
    std::fclose(f);
  });
  if (fs::file_size(path) != image.size()) state.SkipWithError("fwrite short");
  fs::remove(path);
}

void BM_Sff0WriteMemory(benchmark::State& state) {
  FixedSink sink(PlainImage().size());
  {
    kel::sff_writer w(sink, false);
    WriteTile(w);
  }
  if (sink.size() != PlainImage().size() || std::memcmp(sink.data(), PlainImage().data(), sink.size()) != 0)
    state.SkipWithError("writer output differs");
  Timed(state, "sff0 write memory", PlainImage().size(), [&] {
    sink.clear();
    kel::sff_writer w(sink, false);
    WriteTile(w);
  });
}

void BM_MemcpyWrite(benchmark::State& state) {
  FixedSink sink(PlainImage().size());
  const auto& image = PlainImage();
  Timed(state, "memcpy write", image.size(), [&] {
    sink.clear();
    sink.write(image.data(), image.size());
  });
}

// === SFZ0 =======================================================================

void BM_Sfz0WriteMemory(benchmark::State& state) {
  FixedSink sink(PlainImage().size() + (1 << 20));
  {
    kel::sff_writer w(sink, true, kLevel);
    WriteTile(w);
  }
  kel::sff_buff_is in(sink.data(), sink.size());
  Verify(state, in);
  Timed(state, "sfz0 write memory", PlainImage().size(), [&] {
    sink.clear();
    kel::sff_writer w(sink, true, kLevel);
    WriteTile(w);
  });
  state.counters["ratio"] = static_cast<double>(sink.size()) / static_cast<double>(PlainImage().size());
}

void BM_Sfz0WriteFile(benchmark::State& state) {
  const std::string path = TempFile("_out.sfz");
  Timed(state, "sfz0 write file", PlainImage().size(), [&] {
    kel::sff_file_os out(path.c_str());
    kel::sff_writer w(out, true, kLevel);
    WriteTile(w);
  });
  kel::sff_file_is in(path.c_str());
  Verify(state, in);
  fs::remove(path);
}

void BM_Sfz0ReadMemory(benchmark::State& state) {
  kel::sff_buff_is in(CompressedImage().data(), CompressedImage().size());
  kel::sff_reader reader;
  Verify(state, in, reader);
  ArraySink sink;
  Timed(state, "sfz0 read memory", PlainImage().size(), [&] { reader.read(in, sink); });
  benchmark::DoNotOptimize(sink.last);
}

void BM_Sfz0ReadFile(benchmark::State& state) {
  const std::string path = TempFile("_in.sfz");
  {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    std::fwrite(CompressedImage().data(), 1, CompressedImage().size(), f);
    std::fclose(f);
  }
  {
    kel::sff_file_is in(path.c_str());
    kel::sff_reader reader;
    Verify(state, in, reader);
    ArraySink sink;
    Timed(state, "sfz0 read file", PlainImage().size(), [&] { reader.read(in, sink); });
    benchmark::DoNotOptimize(sink.last);
  }
  fs::remove(path);
}

#ifdef KEL_HAVE_ZLIB
// The record bytes behind the magic: what raw zlib compresses.
const unsigned char* Records() { return PlainImage().data() + 4; }
std::size_t RecordsSize() { return PlainImage().size() - 4; }

void BM_ZlibDeflate(benchmark::State& state) {
  FixedSink sink(PlainImage().size() + (1 << 20));
  std::vector<unsigned char> out(kChunk);
  auto run = [&] {
    sink.clear();
    z_stream z{};
    deflateInit(&z, kLevel);
    z.next_in = const_cast<unsigned char*>(Records());
    z.avail_in = static_cast<uInt>(RecordsSize());
    int r;
    do {
      z.next_out = out.data();
      z.avail_out = kChunk;
      r = deflate(&z, Z_FINISH);
      sink.write(out.data(), kChunk - z.avail_out);
    } while (r != Z_STREAM_END);
    deflateEnd(&z);
  };
  run();
  // agree: inflating the raw stream gives the record bytes
  std::vector<unsigned char> back(RecordsSize());
  uLongf size = back.size();
  if (uncompress(back.data(), &size, sink.data(), sink.size()) != Z_OK || size != back.size() ||
      std::memcmp(back.data(), Records(), size) != 0)
    state.SkipWithError("deflate round trip differs");
  Timed(state, "zlib deflate", PlainImage().size(), run);
}

void BM_ZlibInflate(benchmark::State& state) {
  const auto& z0 = CompressedImage();  // same level, same records
  std::vector<unsigned char> in(kChunk), out(kChunk);
  std::size_t total = 0;
  auto run = [&] {
    z_stream z{};
    inflateInit(&z);
    std::size_t off = 4;
    total = 0;
    int r = Z_OK;
    while (r != Z_STREAM_END) {
      if (z.avail_in == 0) {
        const std::size_t n = std::min(kChunk, z0.size() - off);
        if (!n) break;
        std::memcpy(in.data(), z0.data() + off, n);
        off += n;
        z.next_in = in.data();
        z.avail_in = static_cast<uInt>(n);
      }
      z.next_out = out.data();
      z.avail_out = kChunk;
      r = inflate(&z, Z_NO_FLUSH);
      if (r < 0 && r != Z_BUF_ERROR) break;
      total += kChunk - z.avail_out;
    }
    inflateEnd(&z);
    benchmark::DoNotOptimize(out.data());
  };
  run();
  if (total != RecordsSize()) state.SkipWithError("inflate size differs");
  Timed(state, "zlib inflate", PlainImage().size(), run);
}
#endif

#define SFF_BENCH(fn, iters) BENCHMARK(fn)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(iters)
SFF_BENCH(BM_Sff0ReadFile, 5);
SFF_BENCH(BM_FreadFile, 5);
SFF_BENCH(BM_Sff0ReadMemory, 5);
SFF_BENCH(BM_MemcpyRead, 5);
SFF_BENCH(BM_Sff0WriteFile, 4);
SFF_BENCH(BM_FwriteFile, 4);
SFF_BENCH(BM_Sff0WriteMemory, 5);
SFF_BENCH(BM_MemcpyWrite, 5);
SFF_BENCH(BM_Sfz0ReadMemory, 2);
SFF_BENCH(BM_Sfz0ReadFile, 1);
SFF_BENCH(BM_Sfz0WriteMemory, 1);
SFF_BENCH(BM_Sfz0WriteFile, 1);
#ifdef KEL_HAVE_ZLIB
SFF_BENCH(BM_ZlibInflate, 2);
SFF_BENCH(BM_ZlibDeflate, 1);
#endif

void Ratio(const char* label, const char* ours, const char* theirs) {
  const auto& t = Times();
  if (!t.count(ours) || !t.count(theirs) || t.at(ours).empty() || t.at(theirs).empty()) return;
  std::printf("  %-34s %5.1f %%\n", label, 100.0 * Median(t.at(theirs)) / Median(t.at(ours)));
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::printf("\nthroughput ours / ceiling (median iterations):\n");
  Ratio("SFF0 read file / fread", "sff0 read file", "fread file");
  Ratio("SFF0 read memory / memcpy", "sff0 read memory", "memcpy read");
  Ratio("SFF0 write file / fwrite", "sff0 write file", "fwrite file");
  Ratio("SFF0 write memory / memcpy", "sff0 write memory", "memcpy write");
  Ratio("SFZ0 read memory / zlib inflate", "sfz0 read memory", "zlib inflate");
  Ratio("SFZ0 read file / zlib inflate", "sfz0 read file", "zlib inflate");
  Ratio("SFZ0 write memory / zlib deflate", "sfz0 write memory", "zlib deflate");
  Ratio("SFZ0 write file / zlib deflate", "sfz0 write file", "zlib deflate");
  std::error_code ec;
  if (plainFileMade) fs::remove(PlainFile(), ec);
  return 0;
}
