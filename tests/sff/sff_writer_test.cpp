#include "kel/sff/sff_writer.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kel/sff/sff_file_stream.h"

namespace kel {
namespace {

using Bytes = std::vector<unsigned char>;

// The bytes a plain writer emits after the magic for `body`.
Bytes Written(const std::function<void(sff_writer&)>& body) {
  sff_buff_os sink;
  {
    sff_writer w(sink, false);
    body(w);
  }
  const Bytes& all = sink.bytes();
  EXPECT_GE(all.size(), 4u);
  EXPECT_EQ(std::string(all.begin(), all.begin() + 4), "SFF0");
  return Bytes(all.begin() + 4, all.end());
}

TEST(SffWriter, VarintsUseBigEndianSevenBitGroups) {
  struct Case {
    std::uint64_t value;
    Bytes bytes;
  };
  const Case cases[] = {
      {0, {0x00}},
      {127, {0x7F}},
      {128, {0x81, 0x00}},
      {16383, {0xFF, 0x7F}},
      {16384, {0x81, 0x80, 0x00}},
      {0xFFFFFFFFu, {0x8F, 0xFF, 0xFF, 0xFF, 0x7F}},
      {(std::uint64_t{1} << 56) - 1, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}},
      // Top 8 bits in use: eight 7-bit groups, then the low byte whole.
      {std::uint64_t{1} << 56, {0x80, 0xC0, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00}},
      {0xFFFFFFFFFFFFFFFFull, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
      {0x0102030405060708ull, {0x80, 0xC0, 0xC0, 0xB0, 0xA0, 0x94, 0x8C, 0x87, 0x08}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Written([&](sff_writer& w) { w.writeVarint64(c.value); }), c.bytes) << c.value;
    if (c.value <= 0xFFFFFFFFu) {
      EXPECT_EQ(Written([&](sff_writer& w) { w.writeVarint32(static_cast<std::uint32_t>(c.value)); }), c.bytes);
    }
  }
}

TEST(SffWriter, RecordsHaveTheirExactBytes) {
  const float xyz[3] = {1.0f, 2.0f, -0.5f};
  const std::uint32_t idx[2] = {1, 0x01020304};
  const unsigned char block16[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  Bytes block64(64), record64{0x03, 0x00};
  for (int i = 0; i < 64; ++i) block64[i] = static_cast<unsigned char>(i);
  record64.insert(record64.end(), block64.begin(), block64.end());
  struct Case {
    const char* name;
    std::function<void(sff_writer&)> write;
    Bytes bytes;
  };
  const Case cases[] = {
      {"open @", [](sff_writer& w) { w.beginAt(); }, {0x00, 0x40, 0x00}},
      {"open A", [](sff_writer& w) { w.beginA(); }, {0x00, 0x41, 0x00}},
      {"open B", [](sff_writer& w) { w.beginB(300); }, {0x00, 0x42, 0x82, 0x2C}},
      {"open C", [](sff_writer& w) { w.beginC(5); }, {0x00, 0x43, 0x05}},
      {"open D", [](sff_writer& w) { w.beginD(1); }, {0x00, 0x44, 0x01}},
      {"open E", [](sff_writer& w) { w.beginE(2); }, {0x00, 0x45, 0x02}},
      {"open F", [](sff_writer& w) { w.beginF(3); }, {0x00, 0x46, 0x03}},
      {"open G", [](sff_writer& w) { w.beginG(); }, {0x00, 0x47, 0x00}},
      {"open generic", [](sff_writer& w) { w.begin(200, 1); }, {0x00, 0x81, 0x48, 0x01}},
      {"close", [](sff_writer& w) { w.end(); }, {0x00, 0x50}},
      {"block64 carries its fixed payload", [&](sff_writer& w) { w.writeBlock64(block64.data()); }, record64},
      {"value16", [&](sff_writer& w) { w.writeValue16(3, block16); },
       {0x02, 0x03, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}},
      {"reference", [](sff_writer& w) { w.writeReference(128); }, {0x07, 0x07, 0x81, 0x00}},
      {"byte 26", [](sff_writer& w) { w.writeByte(26, 5); }, {0x07, 0x1A, 0x05}},
      // The byte goes out raw, whatever its value.
      {"byte 8 high", [](sff_writer& w) { w.writeByte(8, 200); }, {0x07, 0x08, 0xC8}},
      {"scalar", [](sff_writer& w) { w.writeScalar(7); }, {0x01, 0x05, 0x07}},
      {"positions", [&](sff_writer& w) { w.writePositions(xyz, 1); },
       {0x22, 0x10, 0x0C, 0x00, 0x00, 0x80, 0x3F, 0x00, 0x00, 0x00, 0x40, 0x00, 0x00, 0x00, 0xBF}},
      {"normals empty", [](sff_writer& w) { w.writeNormals(nullptr, 0); }, {0x22, 0x11, 0x00}},
      {"array24 empty", [](sff_writer& w) { w.writeArray24(nullptr, 0); }, {0x26, 0x10, 0x00}},
      {"array4", [&](sff_writer& w) { w.writeArray4(idx, 2); },
       {0x2B, 0x17, 0x08, 0x01, 0x00, 0x00, 0x00, 0x04, 0x03, 0x02, 0x01}},
      // The length covers the elements only; the extra count sits between.
      {"array8", [&](sff_writer& w) { w.writeArray8(block16, 2, 129); },
       {0x21, 0x12, 0x10, 0x81, 0x01, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}},
      {"string", [](sff_writer& w) { w.writeString(32, "ab"); }, {0x2A, 0x20, 0x02, 'a', 'b'}},
      {"string empty", [](sff_writer& w) { w.writeString(34, ""); }, {0x2A, 0x22, 0x00}},
      {"string null", [](sff_writer& w) { w.writeString(33, nullptr); }, {0x2A, 0x21, 0x00}},
      {"block 100", [](sff_writer& w) { w.writeBlock(100, "xyz", 3); }, {0x2B, 0x64, 0x03, 'x', 'y', 'z'}},
      {"integers", [](sff_writer& w) {
         const std::uint32_t v[3] = {1, 128, 16384};
         w.writeIntegers(v, 3);
       },
       {0x29, 0x13, 0x06, 0x01, 0x81, 0x00, 0x81, 0x80, 0x00}},
      {"integers 101", [](sff_writer& w) {
         const std::uint64_t v[1] = {0};
         w.writeIntegers(v, 1, 101);
       },
       {0x29, 0x65, 0x01, 0x00}},
      {"record tag 7 or less has no length", [](sff_writer& w) { w.writeRecord(6, 1, 3, "abc"); },
       {0x06, 0x01, 'a', 'b', 'c'}},
      {"record without data has length only", [](sff_writer& w) { w.writeRecord(50, 1, 3, nullptr); },
       {0x32, 0x01, 0x03}},
      {"element node", [](sff_writer& w) { w.writeElement(9, nullptr, "n", true); },
       {0x00, 0x45, 0x09, 0x2A, 0x21, 0x01, 'n', 0x07, 0x07, 0x09, 0x00, 0x50}},
      {"bare element node", [](sff_writer& w) { w.writeElement(1, nullptr, nullptr, false); },
       {0x00, 0x45, 0x01, 0x00, 0x50}},
  };
  for (const auto& c : cases) EXPECT_EQ(Written(c.write), c.bytes) << c.name;
}

TEST(SffWriter, DepthCountsNodesAndEmptyFilesAreTheMagicPlainOrAnEmptyZlibStream) {
  sff_buff_os sink;
  {
    sff_writer w(sink, false);
    EXPECT_EQ(w.depth(), 0);
    w.beginB(1);
    w.beginC(2);
    EXPECT_EQ(w.depth(), 2);
    w.end();
    EXPECT_EQ(w.depth(), 1);
  }
  sff_buff_os empty;
  { sff_writer w(empty, false); }
  EXPECT_EQ(empty.bytes(), (Bytes{'S', 'F', 'F', '0'}));
  sff_buff_os packed;
  { sff_writer w(packed, true); }
  // The magic, then a complete empty zlib stream: header for the default
  // level, one empty final block, Adler-32 of nothing (1).
  EXPECT_EQ(packed.bytes(), (Bytes{'S', 'F', 'Z', '0', 0x78, 0x9C, 0x03, 0x00, 0x00, 0x00, 0x00, 0x01}));
}

}  // namespace
}  // namespace kel
