// Test helper: a read callback that logs every record as one line of text,
// payload bytes in hex, so record lists compare with EXPECT_EQ.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "kel/sff/sff_file_stream.h"
#include "kel/sff/sff_reader.h"

namespace kel::test {

inline std::string Hex(const void* data, std::size_t size) {
  std::string s;
  const auto* p = static_cast<const unsigned char*>(data);
  char b[4];
  for (std::size_t i = 0; i < size; ++i) {
    std::snprintf(b, sizeof b, "%02x", p[i]);
    s += b;
  }
  return s;
}

class RecordingCallback : public sff_read_callback {
public:
  std::vector<std::string> events;

  void unknownRecord(std::uint32_t tag, std::uint32_t type, const void* d, std::size_t n) override {
    add("unknown " + std::to_string(tag) + " " + std::to_string(type) + " " + Hex(d, n));
  }
  void beginAt(std::uint64_t id) override { add("begin @ " + std::to_string(id)); }
  void beginA(std::uint64_t id) override { add("begin A " + std::to_string(id)); }
  void beginB(std::uint64_t id) override { add("begin B " + std::to_string(id)); }
  void beginC(std::uint64_t id) override { add("begin C " + std::to_string(id)); }
  void beginD(std::uint64_t id) override { add("begin D " + std::to_string(id)); }
  void beginF(std::uint64_t id) override { add("begin F " + std::to_string(id)); }
  void beginE(std::uint64_t id) override { add("begin E " + std::to_string(id)); }
  void beginOther(std::uint32_t type, std::uint64_t id) override {
    add("begin " + std::to_string(type) + " " + std::to_string(id));
  }
  void beginG(std::uint64_t id) override { add("begin G " + std::to_string(id)); }
  void end(std::uint32_t type, std::uint64_t id) override {
    add("end " + std::to_string(type) + " " + std::to_string(id));
  }
  void reference(std::uint64_t id) override { add("reference " + std::to_string(id)); }
  void positions(const void* d, std::size_t n) override { add("positions " + std::to_string(n) + " " + Hex(d, n * 12)); }
  void array24(const void* d, std::size_t n) override { add("array24 " + std::to_string(n) + " " + Hex(d, n * 24)); }
  void normals(const void* d, std::size_t n) override { add("normals " + std::to_string(n) + " " + Hex(d, n * 12)); }
  void array8(const void* d, std::size_t n, std::uint32_t extra) override {
    add("array8 " + std::to_string(n) + " " + std::to_string(extra) + " " + Hex(d, n * 8));
  }
  void array4(const void* d, std::size_t n) override { add("array4 " + std::to_string(n) + " " + Hex(d, n * 4)); }
  void integers(const std::uint64_t* v, std::size_t n) override { add("integers" + List(v, n)); }
  void string34(const char* t, std::size_t n) override { add("string34 " + std::string(t, n)); }
  void string32(const char* t, std::size_t n) override { add("string32 " + std::string(t, n)); }
  void block21(const void* d, std::size_t n) override { add("block21 " + Hex(d, n)); }
  void block22(const void* d, std::size_t n) override { add("block22 " + Hex(d, n)); }
  void byte26(std::uint64_t v) override { add("byte26 " + std::to_string(v)); }
  void byte27(std::uint64_t v) override { add("byte27 " + std::to_string(v)); }
  void byte8(std::uint64_t v) override { add("byte8 " + std::to_string(v)); }
  void string33(const char* t, std::size_t n) override { add("string33 " + std::string(t, n)); }
  void value16Type1(const void* d) override { add("value16/1 " + Hex(d, 16)); }
  void value16Type2(const void* d) override { add("value16/2 " + Hex(d, 16)); }
  void value16Type3(const void* d) override { add("value16/3 " + Hex(d, 16)); }
  void value16Type4(const void* d) override { add("value16/4 " + Hex(d, 16)); }
  void scalar(std::uint64_t v) override { add("scalar " + std::to_string(v)); }
  void block64(const void* d) override { add("block64 " + Hex(d, 64)); }
  void block128(std::uint32_t type, const void* d) override {
    add("block128 " + std::to_string(type) + " " + Hex(d, 128));
  }
  void block100(const void* d, std::size_t n) override { add("block100 " + Hex(d, n)); }
  void integers101(const std::uint64_t* v, std::size_t n) override { add("integers101" + List(v, n)); }

private:
  static std::string List(const std::uint64_t* v, std::size_t n) {
    std::string s;
    for (std::size_t i = 0; i < n; ++i) s += " " + std::to_string(v[i]);
    return s;
  }
  void add(std::string s) { events.push_back(std::move(s)); }
};

// Every record `in` holds, as RecordingCallback lines.
inline std::vector<std::string> ReadEvents(sff_input_stream& in) {
  RecordingCallback cb;
  sff_reader().read(in, cb);
  return cb.events;
}
inline std::vector<std::string> ReadEvents(const std::vector<unsigned char>& bytes) {
  sff_buff_is in(bytes.data(), bytes.size());
  return ReadEvents(in);
}

}  // namespace kel::test
