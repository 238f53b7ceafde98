#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "kel/core/wexception.h"
#include "kel/sff/sff_file_stream.h"
#include "kel/sff/sff_reader.h"
#include "kel/sff/sff_writer.h"
#include "kel/sff/sff_zlib_stream.h"
#include "sff/recording_callback.h"
#include "support/error_of.h"
#include "support/log_capture.h"
#include "support/scratch.h"

namespace kel {
namespace {

using Bytes = std::vector<unsigned char>;
namespace fs = std::filesystem;

using test::ErrorOf;


Bytes Noise(std::size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  Bytes b(n);
  // Half random, half runs: compresses, but not to nothing.
  for (std::size_t i = 0; i < n; ++i) b[i] = (i / 1000) % 2 ? static_cast<unsigned char>(rng()) : static_cast<unsigned char>(i / 7);
  return b;
}

// `data` through a deflating stream, written as two pieces split at `split`.
Bytes Deflate(const Bytes& data, int level = -1, std::size_t split = 0) {
  sff_buff_os sink;
  {
    deflating_output_stream z(sink, level);
    if (split) z.write(data.data(), split);
    z.write(data.data() + split, data.size() - split);
  }
  return sink.bytes();
}

// Inflates `packed` in reads of `step` bytes; every read but the last is full
// and a read after the end gives nothing.
Bytes Inflate(const Bytes& packed, std::size_t step) {
  sff_buff_is src(packed.data(), packed.size());
  inflating_input_stream in(src);
  Bytes got, chunk(step);
  for (std::size_t n = step; n == step;) {
    n = in.read(chunk.data(), step);
    got.insert(got.end(), chunk.begin(), chunk.begin() + n);
  }
  EXPECT_EQ(in.read(chunk.data(), step), 0u) << step;
  return got;
}

TEST(SffBuffIs, ReadsPastTheEndReturnZeroAndKeepThePosition) {
  const unsigned char data[5] = {1, 2, 3, 4, 5};
  sff_buff_is in(data, 5);
  unsigned char out[8] = {};
  EXPECT_EQ(in.read(out, 3), 3u);
  EXPECT_EQ(in.read(out, 8), 2u);
  EXPECT_EQ(out[0], 4);
  EXPECT_EQ(in.read(out, 8), 0u);
  EXPECT_EQ(in.read(out, 0), 0u);
  in.reset();
  EXPECT_EQ(in.read(out, 8), 5u);
  EXPECT_EQ(out[4], 5);
}

TEST(SffFileStreams, WriteAndReadBackThroughANonAsciiUtf8Path) {
  test::ScratchDir dir;
  const fs::path path = dir.path() / fs::path("t\xC3\xA8st_\xE6\x97\xA5\xE6\x9C\xAC.sff");
  const std::string utf8 = path.string();
  const float xyz[3] = {1, 2, 3};
  {
    sff_file_os out(utf8.c_str());
    sff_writer w(out, true);
    w.beginC(3);
    w.writePositions(xyz, 1);
    w.end();
  }
  EXPECT_TRUE(fs::exists(path));
  sff_file_is in(utf8.c_str());
  EXPECT_EQ(test::ReadEvents(in), (std::vector<std::string>{"begin C 3", "positions 1 0000803f0000004000004040", "end 67 3"}));
}

TEST(SffFileStreams, OpenFailuresThrowTheirMessagesAndResetRewindsToTheFirstByte) {
  test::ScratchDir dir;
  const std::string missing = dir / "no_such_dir/x.sff";
  EXPECT_EQ(ErrorOf([&] { sff_file_os out(missing.c_str()); }), L"Failed to create SFF file.");
  EXPECT_EQ(ErrorOf([&] { sff_file_is in(missing.c_str()); }), L"Failed to open SFF file.");
  EXPECT_EQ(ErrorOf([&] { sff_file_is in(nullptr); }), L"Failed to open SFF file.");
  const std::string path = dir / "reset.bin";
  {
    sff_file_os out(path.c_str());
    out.write("abcdef", 6);
  }
  sff_file_is in(path.c_str());
  char b[6];
  EXPECT_EQ(in.read(b, 4), 4u);
  in.reset();
  EXPECT_EQ(in.read(b, 6), 6u);
  EXPECT_EQ(std::string(b, 6), "abcdef");
  EXPECT_EQ(in.read(b, 6), 0u);
}

// A write that fails (here a file size limit, as a full disk) throws the
// sink's message, and the file under the real name stays what it was.
TEST(SffFileStreams, FailedOrAbandonedWritesLeaveTheOldFile) {
  const Bytes big = Noise(1 << 20, 5);
  auto writeTile = [&](const std::string& path, bool compress, std::size_t bytes) {
    sff_file_os out(path.c_str());
    {
      sff_writer w(out, compress);
      w.writeBlock(21, big.data(), bytes);
    }
    out.commit();
  };
  struct Case {
    const char* label;
    std::function<void(const std::string&)> write;
    std::wstring error;
  } cases[] = {
      {"plain, fails in write", [&](const std::string& p) { writeTile(p, false, big.size()); },
       L"Failed to write SFF file."},
      {"compressed, fails in write", [&](const std::string& p) { writeTile(p, true, big.size()); },
       L"Failed to write SFF file."},
      {"small, fails at commit", [&](const std::string& p) { writeTile(p, false, 5000); },
       L"Failed to write SFF file."},
      {"small, fails in the destructor",
       [&](const std::string& p) {
         test::LogCapture log;
         {
           sff_file_os out(p.c_str());
           sff_writer w(out, false);
           w.writeBlock(21, big.data(), 5000);
         }
         EXPECT_TRUE(log.contains("Failed to write SFF file.")) << "logged, as it cannot throw";
       },
       L""},
      {"exception unwinding",
       [&](const std::string& p) {
         sff_file_os out(p.c_str());
         sff_writer w(out, true);
         w.writeBlock(21, big.data(), 5000);
         throw wexception(L"reader failed");
       },
       L"reader failed"},
      {"discarded",
       [&](const std::string& p) {
         sff_file_os out(p.c_str());
         out.write("SFF0", 4);
         out.discard();
       },
       L""},
  };
  for (const auto& c : cases) {
    test::ScratchDir dir;
    const std::string path = dir / "tile.sff";
    test::WriteBytes(path, "old tile");
    {
      test::FileSizeLimit limit(4096);
      EXPECT_EQ(ErrorOf([&] { c.write(path); }), c.error) << c.label;
    }
    EXPECT_EQ(test::ReadBytes(path), "old tile") << c.label;
    EXPECT_TRUE(test::Leftovers(dir.path()).empty()) << c.label;
  }
}

TEST(ZlibStreams, CompressedBytesAreAPlainZlibStream) {
  const Bytes data = Noise(300000, 1), packed = Deflate(data, 1, 100);
  Bytes back(data.size());
  uLongf size = back.size();
  ASSERT_EQ(uncompress(back.data(), &size, packed.data(), packed.size()), Z_OK);
  EXPECT_EQ(size, data.size());
  EXPECT_EQ(back, data);
}

TEST(ZlibStreams, ReadsStraddlingTheBufferMatchOneShotReads) {
  const Bytes data = Noise(400000, 2), packed = Deflate(data);
  for (const std::size_t step : {std::size_t{1}, std::size_t{1000}, std::size_t{65535}, std::size_t{65536},
                                 std::size_t{65537}, std::size_t{131073}, std::size_t{1} << 20})
    EXPECT_EQ(Inflate(packed, step), data) << step;
}

TEST(ZlibStreams, ResetRestartsAfterTheCallerRewindsTheSource) {
  const Bytes data = Noise(100000, 3), packed = Deflate(data);
  sff_buff_is src(packed.data(), packed.size());
  inflating_input_stream in(src);
  Bytes first(5000);
  ASSERT_EQ(in.read(first.data(), first.size()), first.size());
  src.reset();
  in.reset();
  Bytes all(data.size());
  EXPECT_EQ(in.read(all.data(), all.size()), all.size());
  EXPECT_EQ(all, data);
}

TEST(ZlibStreams, CorruptDataAndBadLevelsThrowTheirMessages) {
  Bytes bad = Deflate(Noise(100000, 4));
  bad[0] ^= 0xFF;  // broken zlib header
  sff_buff_is src(bad.data(), bad.size());
  inflating_input_stream in(src);
  Bytes out(1000);
  EXPECT_EQ(ErrorOf([&] { in.read(out.data(), out.size()); }), L"Inflate error.");
  EXPECT_EQ(ErrorOf([&] { in.read(out.data(), out.size()); }), L"Inflate error.");
  // A level zlib does not know.
  sff_buff_os sink;
  EXPECT_EQ(ErrorOf([&] { deflating_output_stream z(sink, 42); }), L"Failed to init ZIP stream");
  EXPECT_EQ(ErrorOf([&] { sff_writer w(sink, true, 42); }), L"Failed to init ZIP stream");
}

TEST(ZlibStreams, FinishCompletesTheStreamOnceAndLaterWritesOrBytesAreIgnored) {
  sff_buff_os sink;
  sff_writer w(sink, true);
  w.writeScalar(1);
  w.finish();
  const std::size_t size = sink.bytes().size();
  w.writeScalar(2);
  w.finish();
  EXPECT_EQ(sink.bytes().size(), size);
  Bytes b = sink.bytes();
  EXPECT_EQ(test::ReadEvents(b), (std::vector<std::string>{"scalar 1"}));
  b.insert(b.end(), {0x01, 0x05, 0x07});  // bytes after the stream's end
  EXPECT_EQ(test::ReadEvents(b), (std::vector<std::string>{"scalar 1"}));
}

// Long runs compress to a few bytes that zlib may take in before the output
// they expand to has been written; the tail must still come out after the
// source is dry.
TEST(ZlibStreams, PendingOutputAfterTheLastInputIsNotLost) {
  for (const std::size_t size : {std::size_t{1} << 16, std::size_t{3} << 20}) {
    const Bytes zeros(size, 0), packed = Deflate(zeros, 9);
    for (const std::size_t step : {std::size_t{1000}, std::size_t{65536}, size})
      EXPECT_EQ(Inflate(packed, step), zeros) << size << " " << step;
  }
}

}  // namespace
}  // namespace kel
