// SFF streams on one 300 MB tile of 10 million vertices (positions, normals,
// a block of 4-byte elements, a few nodes and strings), each beside its
// ceiling or the library a user would pick instead:
//   SFF0 read  vs fread of the same bytes into a buffer as large as the
//              largest array (reused), and vs streaming fread through 64 KiB;
//              with a reader reused across reads, a fresh reader per read,
//              and a cold one (no memory left by earlier readers) against
//              fread into a freshly allocated buffer;
//   SFF0 read of a tile set (50 files) with one reader against a reader per file;
//   SFF0 write vs fwrite of the same bytes, fsync included on both sides
//              (our file sink commits through AtomicFile);
//   SFZ0 read/write vs raw zlib inflate/deflate of the same record bytes with
//              64 KiB buffers at the same level (1; the default level runs at
//              15-25 MB/s on mesh data, ~6x slower for ~2 % smaller output),
//              from memory and from files on both sides.
// Every pair is checked to agree before it is timed (bench_common.h).
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
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include <benchmark/benchmark.h>
#ifdef KEL_HAVE_ZLIB
#include <zlib.h>
#endif

#include "kel/sff/sff_file_stream.h"
#include "kel/sff/sff_reader.h"
#include "kel/sff/sff_writer.h"
#include "kel/sff/sff_zlib_stream.h"

#include "bench_common.h"

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

template <class F>
void Timed(benchmark::State& state, std::size_t bytes, F&& body) {
  for (auto _ : state) body();
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

// Checks the arrays a reader delivers against the tile.
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

bool Verify(benchmark::State& state, kel::sff_input_stream& in, kel::sff_reader& reader) {
  Verifier v;
  reader.read(in, v);
  return kel::bench::Agree(state, v.ok && v.arrays == 3, "the reader delivered other arrays than the tile's");
}

bool Verify(benchmark::State& state, kel::sff_input_stream& in) {
  kel::sff_reader reader;
  return Verify(state, in, reader);
}

bool SameBytes(benchmark::State& state, const std::string& path, const std::vector<unsigned char>& expect) {
  std::vector<unsigned char> all(expect.size() + 1);
  std::FILE* f = std::fopen(path.c_str(), "rb");
  const std::size_t got = f ? std::fread(all.data(), 1, all.size(), f) : 0;
  if (f) std::fclose(f);
  return kel::bench::Agree(state, got == expect.size() && std::memcmp(all.data(), expect.data(), got) == 0,
                           path + " does not hold the expected bytes");
}

// === SFF0 read ==================================================================

// Reused across reads, as a tool or SFF2BVH reuses its reader across tiles.
void BM_Sff0ReadFile_Kel(benchmark::State& state) {
  kel::sff_file_is in(PlainFile().c_str());
  kel::sff_reader reader;
  if (!Verify(state, in, reader)) return;
  ArraySink sink;
  Timed(state, PlainImage().size(), [&] { reader.read(in, sink); });
  benchmark::DoNotOptimize(sink.last);
}

// A reader made for each read. Its scratch is what the previous reader of
// the process left behind (see sff_reader); the cold case below has none.
void BM_Sff0ReadFileFreshReader_Kel(benchmark::State& state) {
  kel::sff_file_is in(PlainFile().c_str());
  if (!Verify(state, in)) return;
  ArraySink sink;
  Timed(state, PlainImage().size(), [&] { kel::sff_reader().read(in, sink); });
  benchmark::DoNotOptimize(sink.last);
}

// The first reader of a process: every scratch byte is fresh memory.
void BM_Sff0ReadFileCold_Kel(benchmark::State& state) {
  kel::sff_file_is in(PlainFile().c_str());
  if (!Verify(state, in)) return;
  ArraySink sink;
  Timed(state, PlainImage().size(), [&] {
    kel::sff_reader::ReleaseKeptMemory();
    kel::sff_reader().read(in, sink);
  });
  benchmark::DoNotOptimize(sink.last);
}

// The same bytes through fread in 64 KiB pieces into a buffer as large as the
// largest array: allocated once (like a reused reader's scratch), or per read.
void FreadIntoArray(benchmark::State& state, bool freshBuffer) {
  if (!SameBytes(state, PlainFile(), PlainImage())) return;
  std::vector<unsigned char> kept(freshBuffer ? 0 : kLargestArray, 1);
  std::FILE* f = std::fopen(PlainFile().c_str(), "rb");
  Timed(state, PlainImage().size(), [&] {
    std::unique_ptr<unsigned char[]> fresh(freshBuffer ? new unsigned char[kLargestArray] : nullptr);
    unsigned char* buf = freshBuffer ? fresh.get() : kept.data();
    std::rewind(f);
    std::size_t pos = 0, n;
    while ((n = std::fread(buf + pos, 1, std::min(kChunk, kLargestArray - pos), f)) > 0)
      pos = pos + n == kLargestArray ? 0 : pos + n;
    benchmark::DoNotOptimize(buf);
  });
  std::fclose(f);
}
void BM_Sff0ReadFile_Fread(benchmark::State& state) { FreadIntoArray(state, false); }
void BM_Sff0ReadFileFreshReader_Fread(benchmark::State& state) { FreadIntoArray(state, false); }
void BM_Sff0ReadFileCold_FreadFreshBuffer(benchmark::State& state) { FreadIntoArray(state, true); }

// Streaming: every piece into the same 64 KiB buffer.
void BM_Sff0ReadFile_FreadStream(benchmark::State& state) {
  std::vector<unsigned char> buf(kChunk, 1);
  if (!SameBytes(state, PlainFile(), PlainImage())) return;
  std::FILE* f = std::fopen(PlainFile().c_str(), "rb");
  Timed(state, PlainImage().size(), [&] {
    std::rewind(f);
    while (std::fread(buf.data(), 1, kChunk, f) > 0) benchmark::DoNotOptimize(buf.data());
  });
  std::fclose(f);
}

void BM_Sff0ReadMemory_Kel(benchmark::State& state) {
  kel::sff_buff_is in(PlainImage().data(), PlainImage().size());
  kel::sff_reader reader;
  if (!Verify(state, in, reader)) return;
  ArraySink sink;
  Timed(state, PlainImage().size(), [&] { reader.read(in, sink); });
  benchmark::DoNotOptimize(sink.last);
}

void BM_Sff0ReadMemory_Memcpy(benchmark::State& state) {
  std::vector<unsigned char> buf(kLargestArray, 1);
  const auto& image = PlainImage();
  Timed(state, image.size(), [&] {
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

// A tile set: 50 files of ~2 MB, read one after the other.
constexpr int kSetFiles = 50;
constexpr std::size_t kSetVertices = 120'000;

bool tileSetMade = false, compressedFileMade = false;

const std::vector<std::string>& TileSet() {
  static const std::vector<std::string> files = [] {
    tileSetMade = true;
    std::vector<std::string> out;
    const Tile& t = TheTile();
    for (int i = 0; i < kSetFiles; ++i) {
      out.push_back(TempFile(("_set" + std::to_string(i) + ".sff").c_str()));
      kel::sff_file_os file(out.back().c_str());
      {
        kel::sff_writer w(file, false);
        w.beginAt();
        w.beginC(static_cast<std::uint64_t>(i));
        w.writePositions(t.positions.data() + 3 * kSetVertices * i, kSetVertices);
        w.writeNormals(t.normals.data() + 3 * kSetVertices * i, kSetVertices);
        w.writeIntegers(t.indices.data(), kSetVertices);
        w.end();
        w.end();
      }
      file.commit();
    }
    return out;
  }();
  return files;
}

std::uint64_t TileSetBytes() {
  std::uint64_t n = 0;
  for (const auto& f : TileSet()) n += fs::file_size(f);
  return n;
}

// Counts what a tile set delivers, for agreement.
class SetCounter : public kel::sff_read_callback {
public:
  std::uint64_t vertices = 0, values = 0;
  void positions(const void*, std::size_t n) override { vertices += n; }
  void integers(const std::uint64_t* v, std::size_t n) override {
    values += n;
    benchmark::DoNotOptimize(v);
  }
};

void ReadTileSet(benchmark::State& state, bool reuse) {
  {
    SetCounter c;
    kel::sff_reader reader;
    for (const auto& f : TileSet()) {
      kel::sff_file_is in(f.c_str());
      reader.read(in, c);
    }
    if (!kel::bench::Agree(state, c.vertices == kSetFiles * kSetVertices && c.values == kSetFiles * kSetVertices,
                           "the tile set read back short"))
      return;
  }
  kel::sff_reader shared;
  SetCounter sink;
  Timed(state, TileSetBytes(), [&] {
    for (const auto& f : TileSet()) {
      kel::sff_file_is in(f.c_str());
      if (reuse) {
        shared.read(in, sink);
      } else {
        kel::sff_reader fresh;
        fresh.read(in, sink);
      }
    }
  });
}
void BM_Sff0ReadTileSet_Kel(benchmark::State& state) { ReadTileSet(state, true); }
void BM_Sff0ReadTileSet_ReaderPerFile(benchmark::State& state) { ReadTileSet(state, false); }

// === SFF0 write =================================================================

// The anchor writes as durably as our sink commits: flush and fsync.
void FwriteSynced(const std::string& path, const void* data, std::size_t size) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  std::fwrite(data, 1, size, f);
  std::fflush(f);
  ::fsync(::fileno(f));
  std::fclose(f);
}

void BM_Sff0WriteFile_Kel(benchmark::State& state) {
  const std::string path = TempFile("_out.sff");
  auto write = [&] {
    kel::sff_file_os out(path.c_str());
    {
      kel::sff_writer w(out, false);
      WriteTile(w);
    }
    out.commit();
  };
  write();
  if (!SameBytes(state, path, PlainImage())) return;
  Timed(state, PlainImage().size(), write);
  fs::remove(path);
}

void BM_Sff0WriteFile_Fwrite(benchmark::State& state) {
  const std::string path = TempFile("_fwrite.sff");
  const auto& image = PlainImage();
  FwriteSynced(path, image.data(), image.size());
  if (!SameBytes(state, path, image)) return;
  Timed(state, image.size(), [&] { FwriteSynced(path, image.data(), image.size()); });
  fs::remove(path);
}

void BM_Sff0WriteMemory_Kel(benchmark::State& state) {
  FixedSink sink(PlainImage().size());
  {
    kel::sff_writer w(sink, false);
    WriteTile(w);
  }
  if (!kel::bench::Agree(state, sink.size() == PlainImage().size() && std::memcmp(sink.data(), PlainImage().data(), sink.size()) == 0,
                         "writer output differs"))
    return;
  Timed(state, PlainImage().size(), [&] {
    sink.clear();
    kel::sff_writer w(sink, false);
    WriteTile(w);
  });
}

void BM_Sff0WriteMemory_Memcpy(benchmark::State& state) {
  FixedSink sink(PlainImage().size());
  const auto& image = PlainImage();
  Timed(state, image.size(), [&] {
    sink.clear();
    sink.write(image.data(), image.size());
  });
}

// === SFZ0 =======================================================================

void BM_Sfz0WriteMemory_Kel(benchmark::State& state) {
  FixedSink sink(PlainImage().size() + (1 << 20));
  {
    kel::sff_writer w(sink, true, kLevel);
    WriteTile(w);
  }
  kel::sff_buff_is in(sink.data(), sink.size());
  if (!Verify(state, in)) return;
  // The compression ratio goes in the label: the CSV output wants the same
  // counters in every row.
  state.SetLabel("compressed to " + std::to_string(100 * sink.size() / PlainImage().size()) + " %");
  Timed(state, PlainImage().size(), [&] {
    sink.clear();
    kel::sff_writer w(sink, true, kLevel);
    WriteTile(w);
  });
}

void BM_Sfz0WriteFile_Kel(benchmark::State& state) {
  const std::string path = TempFile("_out.sfz");
  auto write = [&] {
    kel::sff_file_os out(path.c_str());
    {
      kel::sff_writer w(out, true, kLevel);
      WriteTile(w);
    }
    out.commit();
  };
  write();
  {
    kel::sff_file_is in(path.c_str());
    if (!Verify(state, in)) return;
  }
  Timed(state, PlainImage().size(), write);
  fs::remove(path);
}

void BM_Sfz0ReadMemory_Kel(benchmark::State& state) {
  kel::sff_buff_is in(CompressedImage().data(), CompressedImage().size());
  kel::sff_reader reader;
  if (!Verify(state, in, reader)) return;
  ArraySink sink;
  Timed(state, PlainImage().size(), [&] { reader.read(in, sink); });
  benchmark::DoNotOptimize(sink.last);
}

const std::string& CompressedFile() {
  static const std::string path = [] {
    compressedFileMade = true;
    const std::string p = TempFile("_in.sfz");
    FwriteSynced(p, CompressedImage().data(), CompressedImage().size());
    return p;
  }();
  return path;
}

void BM_Sfz0ReadFile_Kel(benchmark::State& state) {
  kel::sff_file_is in(CompressedFile().c_str());
  kel::sff_reader reader;
  if (!Verify(state, in, reader)) return;
  ArraySink sink;
  Timed(state, PlainImage().size(), [&] { reader.read(in, sink); });
  benchmark::DoNotOptimize(sink.last);
}

#ifdef KEL_HAVE_ZLIB
// The record bytes behind the magic: what raw zlib compresses.
const unsigned char* Records() { return PlainImage().data() + 4; }
std::size_t RecordsSize() { return PlainImage().size() - 4; }

// Raw deflate of the record bytes into `sink` through a 64 KiB buffer.
template <class Sink>
void Deflate(Sink&& sink) {
  std::vector<unsigned char> out(kChunk);
  z_stream z{};
  deflateInit(&z, kLevel);
  z.next_in = const_cast<unsigned char*>(Records());
  z.avail_in = static_cast<uInt>(RecordsSize());
  int r;
  do {
    z.next_out = out.data();
    z.avail_out = kChunk;
    r = deflate(&z, Z_FINISH);
    sink(out.data(), kChunk - z.avail_out);
  } while (r != Z_STREAM_END);
  deflateEnd(&z);
}

bool InflatesToRecords(benchmark::State& state, const unsigned char* data, std::size_t size) {
  std::vector<unsigned char> back(RecordsSize());
  uLongf n = back.size();
  return kel::bench::Agree(state, uncompress(back.data(), &n, data, size) == Z_OK && n == back.size() &&
                                      std::memcmp(back.data(), Records(), n) == 0,
                           "deflate round trip differs");
}

void BM_Sfz0WriteMemory_Zlib(benchmark::State& state) {
  FixedSink sink(PlainImage().size() + (1 << 20));
  auto run = [&] {
    sink.clear();
    Deflate([&](const unsigned char* p, std::size_t n) { sink.write(p, n); });
  };
  run();
  if (!InflatesToRecords(state, sink.data(), sink.size())) return;
  Timed(state, PlainImage().size(), run);
}

void BM_Sfz0WriteFile_Zlib(benchmark::State& state) {
  const std::string path = TempFile("_zlib.z");
  auto run = [&] {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    Deflate([&](const unsigned char* p, std::size_t n) { std::fwrite(p, 1, n, f); });
    std::fflush(f);
    ::fsync(::fileno(f));
    std::fclose(f);
  };
  run();
  {
    std::vector<unsigned char> all(fs::file_size(path));
    std::FILE* f = std::fopen(path.c_str(), "rb");
    const std::size_t got = std::fread(all.data(), 1, all.size(), f);
    std::fclose(f);
    if (!InflatesToRecords(state, all.data(), got)) return;
  }
  Timed(state, PlainImage().size(), run);
  fs::remove(path);
}

// Raw inflate of the compressed tile's zlib stream, pulled through a 64 KiB
// input buffer by `fill`, into a 64 KiB output buffer. Returns the bytes made.
template <class Fill>
std::size_t Inflate(Fill&& fill) {
  std::vector<unsigned char> in(kChunk), out(kChunk);
  z_stream z{};
  inflateInit(&z);
  std::size_t total = 0;
  int r = Z_OK;
  while (r != Z_STREAM_END) {
    if (z.avail_in == 0) {
      const std::size_t n = fill(in.data(), kChunk);
      if (!n) break;
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
  return total;
}

void BM_Sfz0ReadMemory_Zlib(benchmark::State& state) {
  const auto& z0 = CompressedImage();  // same level, same records
  std::size_t off = 0;
  auto fill = [&](unsigned char* p, std::size_t n) {
    n = std::min(n, z0.size() - off);
    std::memcpy(p, z0.data() + off, n);
    off += n;
    return n;
  };
  off = 4;
  if (!kel::bench::Agree(state, Inflate(fill) == RecordsSize(), "inflate size differs")) return;
  Timed(state, PlainImage().size(), [&] {
    off = 4;
    Inflate(fill);
  });
}

void BM_Sfz0ReadFile_Zlib(benchmark::State& state) {
  std::FILE* f = std::fopen(CompressedFile().c_str(), "rb");
  auto fill = [&](unsigned char* p, std::size_t n) { return std::fread(p, 1, n, f); };
  auto run = [&] {
    std::fseek(f, 4, SEEK_SET);
    return Inflate(fill);
  };
  if (kel::bench::Agree(state, run() == RecordsSize(), "inflate size differs"))
    Timed(state, PlainImage().size(), run);
  std::fclose(f);
}
#endif

// Seconds-long cases run a few iterations per repetition.
#define SFF_BENCH(fn, iters) KEL_BENCHMARK(fn)->Iterations(iters)
SFF_BENCH(BM_Sff0ReadFile_Kel, 5);
SFF_BENCH(BM_Sff0ReadFile_Fread, 5);
SFF_BENCH(BM_Sff0ReadFile_FreadStream, 5);
SFF_BENCH(BM_Sff0ReadFileFreshReader_Kel, 5);
SFF_BENCH(BM_Sff0ReadFileFreshReader_Fread, 5);
SFF_BENCH(BM_Sff0ReadFileCold_Kel, 3);
SFF_BENCH(BM_Sff0ReadFileCold_FreadFreshBuffer, 3);
SFF_BENCH(BM_Sff0ReadMemory_Kel, 5);
SFF_BENCH(BM_Sff0ReadMemory_Memcpy, 5);
SFF_BENCH(BM_Sff0ReadTileSet_Kel, 5);
SFF_BENCH(BM_Sff0ReadTileSet_ReaderPerFile, 5);
SFF_BENCH(BM_Sff0WriteFile_Kel, 3);
SFF_BENCH(BM_Sff0WriteFile_Fwrite, 3);
SFF_BENCH(BM_Sff0WriteMemory_Kel, 5);
SFF_BENCH(BM_Sff0WriteMemory_Memcpy, 5);
SFF_BENCH(BM_Sfz0ReadMemory_Kel, 2);
SFF_BENCH(BM_Sfz0ReadFile_Kel, 2);
SFF_BENCH(BM_Sfz0WriteMemory_Kel, 1);
SFF_BENCH(BM_Sfz0WriteFile_Kel, 1);
#ifdef KEL_HAVE_ZLIB
SFF_BENCH(BM_Sfz0ReadMemory_Zlib, 2);
SFF_BENCH(BM_Sfz0ReadFile_Zlib, 2);
SFF_BENCH(BM_Sfz0WriteMemory_Zlib, 1);
SFF_BENCH(BM_Sfz0WriteFile_Zlib, 1);
#endif

}  // namespace

int main(int argc, char** argv) {
  const int rc = kel::bench::Main(argc, argv);
  std::error_code ec;
  if (plainFileMade) fs::remove(PlainFile(), ec);
  if (compressedFileMade) fs::remove(CompressedFile(), ec);
  if (tileSetMade)
    for (const auto& f : TileSet()) fs::remove(f, ec);
  return rc;
}
