#include "kel/sff/sff_reader.h"

#include <cstdint>
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kel/core/wexception.h"
#include "kel/sff/sff_copy.h"
#include "kel/sff/sff_file_stream.h"
#include "kel/sff/sff_writer.h"
#include "sff/recording_callback.h"
#include "support/error_of.h"

namespace kel {
namespace {

using Bytes = std::vector<unsigned char>;
using Events = std::vector<std::string>;
using test::Hex;
using test::RecordingCallback;

Events Read(const Bytes& bytes) { return test::ReadEvents(bytes); }

// The message of the wexception `bytes` make the reader throw, "" if none.
std::wstring ReadError(const Bytes& bytes) {
  return test::ErrorOf([&] { Read(bytes); });
}

Bytes Plain(std::initializer_list<unsigned char> body) {
  Bytes b(4 + body.size());
  std::memcpy(b.data(), "SFF0", 4);
  std::copy(body.begin(), body.end(), b.begin() + 4);
  return b;
}

// Writes one record of every kind the writer has and returns what a
// recording reader must see.
Events WriteEveryKind(sff_writer& w) {
  Events e;
  unsigned char b128[128];
  for (int i = 0; i < 128; ++i) b128[i] = static_cast<unsigned char>(i * 7);
  const float xyz[6] = {1, 2, 3, -4, 5.5f, 6};
  const std::uint32_t idx[3] = {0, 1, 0xFFFFFFFF};
  const std::uint32_t small[4] = {0, 127, 128, 70000};
  const std::uint64_t wide[3] = {1, std::uint64_t{1} << 40, (std::uint64_t{1} << 56) - 1};

  w.beginAt(), e.push_back("begin @ 0");
  w.beginA(), e.push_back("begin A 0");
  w.beginB(5), e.push_back("begin B 5");
  w.beginC(0xFFFFFFFFFFFFFFFFull), e.push_back("begin C 18446744073709551615");
  w.beginD(16384), e.push_back("begin D 16384");
  w.beginE(6), e.push_back("begin E 6");
  w.beginF(7), e.push_back("begin F 7");
  w.beginG(), e.push_back("begin G 0");
  w.begin(99, 42), e.push_back("begin 99 42");
  for (std::uint32_t t = 1; t <= 4; ++t) {
    w.writeValue16(t, b128 + t);
    e.push_back("value16/" + std::to_string(t) + " " + Hex(b128 + t, 16));
  }
  w.writeBlock64(b128), e.push_back("block64 " + Hex(b128, 64));
  w.writeRecord(6, 3, 128, b128), e.push_back("block128 3 " + Hex(b128, 128));
  w.writeReference(1ull << 60), e.push_back("reference 1152921504606846976");
  w.writeByte(8, 1), e.push_back("byte8 1");
  w.writeByte(26, 127), e.push_back("byte26 127");
  w.writeByte(27, 0), e.push_back("byte27 0");
  w.writeScalar(300), e.push_back("scalar 300");
  w.writeArray8(b128, 3, 77), e.push_back("array8 3 77 " + Hex(b128, 24));
  w.writePositions(xyz, 2), e.push_back("positions 2 " + Hex(xyz, 24));
  w.writeNormals(xyz, 1), e.push_back("normals 1 " + Hex(xyz, 12));
  w.writeArray24(b128, 2), e.push_back("array24 2 " + Hex(b128, 48));
  w.writeArray4(idx, 3), e.push_back("array4 3 " + Hex(idx, 12));
  w.writeArray4(nullptr, 0), e.push_back("array4 0 ");
  w.writeBlock(21, b128, 5), e.push_back("block21 " + Hex(b128, 5));
  w.writeBlock(22, b128, 0), e.push_back("block22 ");
  w.writeBlock(100, b128, 9), e.push_back("block100 " + Hex(b128, 9));
  w.writeIntegers(small, 4), e.push_back("integers 0 127 128 70000");
  w.writeIntegers(wide, 3, 101), e.push_back("integers101 1 1099511627776 72057594037927935");
  w.writeIntegers(small, 0), e.push_back("integers");
  w.writeString(32, "thirty-two"), e.push_back("string32 thirty-two");
  w.writeString(33, "name"), e.push_back("string33 name");
  w.writeString(34, ""), e.push_back("string34 ");
  w.writeElement(11, b128, "el", true);
  e.insert(e.end(), {"begin E 11", "block64 " + Hex(b128, 64), "string33 el", "reference 11", "end 69 11"});
  w.writeRecord(50, 2, 3, "abc"), e.push_back("unknown 50 2 616263");
  w.writeRecord(42, 7, 1, "z"), e.push_back("unknown 42 7 7a");
  w.writeRecord(4, 0, 0, nullptr), e.push_back("unknown 4 0 ");
  w.writeRecord(1, 9, 1, "\x05"), e.push_back("unknown 1 9 05");
  w.writeRecord(2, 9, 16, b128), e.push_back("unknown 2 9 " + Hex(b128, 16));
  w.end(), e.push_back("end 99 42");
  w.end(), e.push_back("end 71 0");
  w.end(), e.push_back("end 70 7");
  w.end(), e.push_back("end 69 6");
  w.end(), e.push_back("end 68 16384");
  w.end(), e.push_back("end 67 18446744073709551615");
  w.end(), e.push_back("end 66 5");
  w.end(), e.push_back("end 65 0");
  w.end(), e.push_back("end 64 0");
  return e;
}

Bytes WriteAll(bool compress, Events* expected, int level = -1) {
  sff_buff_os sink;
  {
    sff_writer w(sink, compress, level);
    *expected = WriteEveryKind(w);
    EXPECT_EQ(w.depth(), 0);
  }
  return sink.bytes();
}

TEST(SffReader, RoundTripsEveryRecordKindAndTheCopyCallbackReproducesTheFile) {
  Events expected;
  const Bytes plain = WriteAll(false, &expected);
  for (const bool compress : {false, true}) {
    Events again;
    EXPECT_EQ(Read(WriteAll(compress, &again)), expected) << compress;
    sff_buff_os copy;
    {
      sff_writer w(copy, compress, 1);
      sff_copy_callback cb(w);
      sff_buff_is in(plain.data(), plain.size());
      sff_reader().read(in, cb);
    }
    EXPECT_EQ(Read(copy.bytes()), expected);
    if (!compress) {
      EXPECT_EQ(copy.bytes(), plain);
    }
  }
}

TEST(SffReader, HandWrittenStreamsDecodeOrFailAsExpected) {
  struct Case {
    const char* name;
    Bytes bytes;
    Events events;
    const wchar_t* error;  // "" when the stream reads cleanly
  };
  // Integer runs (tag 0x29, type 0x13) decode safely whatever the payload bytes.
  auto ints = [](Bytes payload) {
    Bytes b = Plain({0x29, 0x13, static_cast<unsigned char>(payload.size())});
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
  };
  const Case cases[] = {
      {"magic alone is an empty file", Plain({}), {}, L""},
      {"no bytes", {}, {}, L"Invalid SFF file"},
      {"short magic", {'S', 'F', 'F'}, {}, L"Invalid SFF file"},
      {"unknown version", {'S', 'F', 'F', '1'}, {}, L"Invalid SFF file"},
      {"lower-case magic", {'s', 'f', 'f', '0', 0, 0x50}, {}, L"Invalid SFF file"},
      {"short compressed magic", {'S', 'F', 'Z'}, {}, L"Invalid SFF file"},
      {"nodes nest and close with their own type and id",
       Plain({0x00, 0x42, 0x05, 0x00, 0x43, 0x09, 0x00, 0x50, 0x00, 0x50}),
       {"begin B 5", "begin C 9", "end 67 9", "end 66 5"},
       L""},
      {"close without an open node", Plain({0x00, 0x50}), {}, L"Invalid SFF stream!"},
      // A raw byte 200 reads as a varint and takes the next byte with it.
      {"tag 7 value swallows the next byte", Plain({0x07, 0x08, 0xC8, 0x01}), {"byte8 9217"}, L""},
      {"tag 7 value runs off the end", Plain({0x07, 0x08, 0xC8}), {}, L"Invalid SFF stream!"},
      // Tag read from five bytes all flagged: 0, then type 0x40 and id 3.
      {"32-bit varint of five continuation bytes is zero", Plain({0x80, 0x80, 0x80, 0x80, 0x80, 0x40, 0x03}),
       {"begin @ 3"}, L""},
      {"unknown tag above the vocabulary", Plain({0x81, 0x00, 0x02, 0x02, 0xAA, 0xBB}), {"unknown 128 2 aabb"}, L""},
      {"unknown short tag", Plain({0x05, 0x01}), {"unknown 5 1 "}, L""},
      {"integers plain", ints({0x01, 0x81, 0x00}), {"integers 1 128"}, L""},
      {"integers trailing varint without end", ints({0x05, 0x81}), {"integers 5"}, L""},
      {"integers only continuation bytes", ints({0x80, 0x80, 0x80}), {"integers"}, L""},
      {"integers nine-byte form ending low", ints({0x81, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00}),
       {"integers 144115188075855872"}, L""},
      // The ninth byte is high, so it is not counted: the value is dropped.
      {"integers nine-byte form ending high", ints({0x81, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0xFF}),
       {"integers"}, L""},
      {"integers nine-byte form before a value", ints({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02}),
       {"integers 18446744073709551615"}, L""},
      {"integers empty", ints({}), {"integers"}, L""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ReadError(c.bytes), c.error) << c.name;
    if (!*c.error) {
      EXPECT_EQ(Read(c.bytes), c.events) << c.name;
    }
  }
  // A compressed file holding nothing is empty too.
  sff_buff_os sink;
  { sff_writer w(sink, true); }
  EXPECT_TRUE(Read(sink.bytes()).empty());
}

TEST(SffReader, HugeClaimedLengthThrowsWithoutAllocatingIt) {
  // 0x8F 0xFF 0xFF 0xFF 0x7F claims 4 GiB - 1 of positions in a tiny file.
  Bytes b = Plain({0x22, 0x10, 0x8F, 0xFF, 0xFF, 0xFF, 0x7F});
  b.resize(b.size() + 100, 0xAB);
  EXPECT_EQ(ReadError(b), L"Invalid SFF stream!");
  // The same through the inflating source.
  sff_buff_os sink;
  {
    sff_writer w(sink, true);
    std::vector<unsigned char> fill(200000, 1);
    w.writeRecord(34, 16, 0xFFFFFFFFu, nullptr);
    w.writeVarint32(0);  // a few payload bytes only
    w.writeBlock(21, fill.data(), fill.size());
  }
  EXPECT_EQ(ReadError(sink.bytes()), L"Invalid SFF stream!");
}

TEST(SffReader, EveryPrefixReadsCleanlyOrThrowsTheStreamError) {
  for (const bool compress : {false, true}) {
    Events expected;
    const Bytes full = WriteAll(compress, &expected);
    for (std::size_t n = 0; n < full.size(); ++n) {
      const Bytes prefix(full.begin(), full.begin() + n);
      sff_buff_is in(prefix.data(), prefix.size());
      RecordingCallback cb;
      bool threw = false;
      try {
        sff_reader().read(in, cb);
      } catch (const wexception& e) {
        threw = true;
        const std::wstring m = e.message();
        if (n < 4) {
          EXPECT_EQ(m, L"Invalid SFF file") << n;
        } else {
          EXPECT_TRUE(m == L"Invalid SFF stream!" || (compress && m == L"Inflate error.")) << n;
        }
      }
      // A cut compressed stream is always noticed, also at a record boundary.
      if (compress) {
        EXPECT_TRUE(threw) << n;
      }
      // Whatever was delivered is a prefix of the full record list.
      ASSERT_LE(cb.events.size(), expected.size()) << n;
      for (std::size_t i = 0; i < cb.events.size(); ++i) EXPECT_EQ(cb.events[i], expected[i]) << n;
    }
  }
}

// A source that hands out at most `step` bytes per read.
class TrickleSource : public sff_input_stream {
public:
  TrickleSource(const Bytes& bytes, std::size_t step) : bytes_(bytes), step_(step) {}
  void reset() override { pos_ = 0; }
  std::size_t read(void* buffer, std::size_t size) override {
    const std::size_t n = std::min({size, step_, bytes_.size() - pos_});
    std::memcpy(buffer, bytes_.data() + pos_, n);
    pos_ += n;
    return n;
  }

private:
  const Bytes& bytes_;
  std::size_t step_;
  std::size_t pos_ = 0;
};

class ArrayCollector : public sff_read_callback {
public:
  std::vector<Bytes> arrays;
  std::vector<const void*> pointers;
  void positions(const void* d, std::size_t n) override {
    pointers.push_back(d);
    arrays.emplace_back(static_cast<const unsigned char*>(d), static_cast<const unsigned char*>(d) + n * 12);
  }
  void array4(const void* d, std::size_t n) override {
    arrays.emplace_back(static_cast<const unsigned char*>(d), static_cast<const unsigned char*>(d) + n * 4);
  }
};

TEST(SffReader, ArraysStraddlingRefillsArriveWholeFromAnySource) {
  std::mt19937 rng(7);
  std::vector<float> xyz(3 * 50000);
  for (auto& f : xyz) f = static_cast<float>(rng()) / 1000.0f;
  std::vector<std::uint32_t> idx(70000);
  for (auto& i : idx) i = rng();
  for (const bool compress : {false, true}) {
    sff_buff_os sink;
    {
      sff_writer w(sink, compress, 1);
      for (std::size_t n : {std::size_t{1}, std::size_t{5000}, std::size_t{50000}, std::size_t{5461}}) {
        w.writeString(32, "pad");
        w.writePositions(xyz.data(), n);
      }
      w.writeArray4(idx.data(), idx.size());
    }
    for (const std::size_t step : {std::size_t{1} << 30, std::size_t{65535}, std::size_t{4097}, std::size_t{3}}) {
      SCOPED_TRACE(std::to_string(compress) + " step " + std::to_string(step));
      TrickleSource in(sink.bytes(), step);
      ArrayCollector cb;
      sff_reader reader;
      reader.read(in, cb);
      ASSERT_EQ(cb.arrays.size(), 5u);
      std::size_t k = 0;
      for (std::size_t n : {std::size_t{1}, std::size_t{5000}, std::size_t{50000}, std::size_t{5461}}) {
        const auto* p = reinterpret_cast<const unsigned char*>(xyz.data());
        EXPECT_EQ(cb.arrays[k++], Bytes(p, p + n * 12)) << step;
      }
      const auto* p = reinterpret_cast<const unsigned char*>(idx.data());
      EXPECT_EQ(cb.arrays[4], Bytes(p, p + idx.size() * 4));
      // The reader can be used again and yields the same.
      ArrayCollector again;
      reader.read(in, again);
      EXPECT_EQ(again.arrays, cb.arrays);
    }
  }
}

TEST(SffReader, SmallArraysInsideTheBufferAreDeliveredInPlace) {
  const float xyz[3] = {1, 2, 3};
  sff_buff_os sink;
  {
    sff_writer w(sink, false);
    w.writePositions(xyz, 1);
    w.writePositions(xyz, 1);
  }
  sff_buff_is in(sink.bytes().data(), sink.bytes().size());
  ArrayCollector cb;
  sff_reader().read(in, cb);
  ASSERT_EQ(cb.pointers.size(), 2u);
  // Both point into one buffer, 15 bytes apart (header 3 + payload 12).
  EXPECT_EQ(static_cast<const unsigned char*>(cb.pointers[1]) - static_cast<const unsigned char*>(cb.pointers[0]), 15);
}

TEST(SffReader, RandomRecordSequencesRoundTrip) {
  std::mt19937 rng(12345);
  for (int round = 0; round < 20; ++round) {
    sff_buff_os sink;
    Events expected;
    const bool compress = round % 2;
    {
      sff_writer w(sink, compress, 1);
      std::vector<std::pair<std::uint32_t, std::uint64_t>> open;
      for (int i = 0; i < 200; ++i) {
        switch (rng() % 5) {
          case 0: {
            const std::uint64_t id = rng() % 1000;
            w.beginB(id), open.emplace_back(66, id), expected.push_back("begin B " + std::to_string(id));
            break;
          }
          case 1:
            if (!open.empty()) {
              w.end();
              expected.push_back("end " + std::to_string(open.back().first) + " " + std::to_string(open.back().second));
              open.pop_back();
            }
            break;
          case 2: {
            std::vector<float> v(3 * (rng() % 300));
            for (auto& f : v) f = static_cast<float>(rng() % 1000);
            w.writePositions(v.data(), v.size() / 3);
            expected.push_back("positions " + std::to_string(v.size() / 3) + " " + Hex(v.data(), v.size() * 4));
            break;
          }
          case 3: {
            std::vector<std::uint32_t> v(rng() % 50);
            std::string s = "integers";
            for (auto& x : v) x = rng() >> (rng() % 32), s.append(" ").append(std::to_string(x));
            w.writeIntegers(v.data(), v.size());
            expected.push_back(s);
            break;
          }
          default: {
            const std::string s(rng() % 100, 'q');
            w.writeString(34, s.c_str());
            expected.push_back(std::string("string34 ").append(s));
          }
        }
      }
    }
    EXPECT_EQ(Read(sink.bytes()), expected) << round;
  }
}

}  // namespace
}  // namespace kel
