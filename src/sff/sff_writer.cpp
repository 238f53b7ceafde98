#include "kel/sff/sff_writer.h"

#include <cassert>
#include <cstring>

#include "detail/varint.h"
#include "kel/sff/sff_stream.h"
#include "kel/sff/sff_zlib_stream.h"

namespace kel {
namespace {
constexpr std::size_t kChunk = 65536;
}  // namespace

sff_writer::sff_writer(sff_output_stream& sink, bool compress, int level) : out_(&sink) {
  sink.write(compress ? "SFZ0" : "SFF0", 4);
  if (compress) {
    deflater_ = std::make_unique<deflating_output_stream>(sink, level);
    out_ = deflater_.get();
  }
}

sff_writer::~sff_writer() = default;

void sff_writer::finish() {
  if (deflater_) static_cast<deflating_output_stream&>(*deflater_).finish();
}

// Tag, type and length go out in one write: a compressing sink pays per call.
void sff_writer::header(std::uint32_t tag, std::uint32_t type, std::uint64_t length) {
  unsigned char bytes[3 * detail::kMaxVarint];
  std::size_t n = detail::PutVarint(bytes, tag);
  n += detail::PutVarint(bytes + n, type);
  if (tag > 7) n += detail::PutVarint(bytes + n, length);
  out_->write(bytes, n);
}

void sff_writer::payload(const void* data, std::size_t size) {
  if (size && data) out_->write(data, size);
}

void sff_writer::begin(std::uint32_t type, std::uint64_t id) {
  assert(type != sff_node::kClose);
  unsigned char bytes[3 * detail::kMaxVarint];
  std::size_t n = detail::PutVarint(bytes, 0);
  n += detail::PutVarint(bytes + n, type);
  n += detail::PutVarint(bytes + n, id);
  out_->write(bytes, n);
  ++depth_;
}

void sff_writer::beginAt() { begin(sff_node::kAt, 0); }
void sff_writer::beginA() { begin(sff_node::kA, 0); }
void sff_writer::beginB(std::uint64_t id) { begin(sff_node::kB, id); }
void sff_writer::beginC(std::uint64_t id) { begin(sff_node::kC, id); }
void sff_writer::beginD(std::uint64_t id) { begin(sff_node::kD, id); }
void sff_writer::beginE(std::uint64_t id) { begin(sff_node::kE, id); }
void sff_writer::beginF(std::uint64_t id) { begin(sff_node::kF, id); }
void sff_writer::beginG() { begin(sff_node::kG, 0); }

void sff_writer::end() {
  header(0, sff_node::kClose, 0);
  --depth_;
}

void sff_writer::writeValue16(std::uint32_t type, const void* bytes16) {
  assert(type >= 1 && type <= 4);
  writeRecord(2, type, 16, bytes16);
}

void sff_writer::writeBlock64(const void* bytes64) { writeRecord(3, 0, 64, bytes64); }

void sff_writer::writeElement(std::uint64_t id, const void* block64, const char* name, bool withReference) {
  beginE(id);
  if (block64) writeBlock64(block64);
  if (name) writeString(33, name);
  if (withReference) writeReference(id);
  end();
}

void sff_writer::writeReference(std::uint64_t id) {
  header(7, 7, 0);
  writeVarint64(id);
}

void sff_writer::writeByte(std::uint32_t type, std::uint8_t value) {
  header(7, type, 0);
  out_->write(&value, 1);
}

void sff_writer::writeScalar(std::uint64_t value) {
  header(1, 5, 0);
  writeVarint64(value);
}

void sff_writer::writeArray8(const void* data, std::size_t count, std::uint32_t extra) {
  assert(data || !count);
  unsigned char bytes[4 * detail::kMaxVarint];
  std::size_t n = detail::PutVarint(bytes, 33);
  n += detail::PutVarint(bytes + n, 18);
  n += detail::PutVarint(bytes + n, std::uint64_t{count} * 8);
  n += detail::PutVarint(bytes + n, extra);
  out_->write(bytes, n);
  payload(data, count * 8);
}

void sff_writer::writePositions(const float* xyz, std::size_t count) {
  assert(xyz || !count);
  writeRecord(34, 16, count * 12, xyz);
}

void sff_writer::writeNormals(const float* xyz, std::size_t count) {
  assert(xyz || !count);
  writeRecord(34, 17, count * 12, xyz);
}

void sff_writer::writeArray24(const void* data, std::size_t count) {
  assert(data || !count);
  writeRecord(38, 16, count * 24, data);
}

void sff_writer::writeArray4(const void* data, std::size_t count) {
  assert(data || !count);
  writeRecord(43, 23, count * 4, data);
}

void sff_writer::writeBlock(std::uint32_t type, const void* data, std::size_t size) {
  assert(data || !size);
  writeRecord(43, type, size, data);
}

template <class T>
void sff_writer::integers(const T* values, std::size_t count, std::uint32_t type) {
  assert(values || !count);
  if (!values) count = 0;
  std::uint64_t length = 0;
  for (std::size_t i = 0; i < count; ++i) length += detail::VarintSize(values[i]);
  header(41, type, length);
  if (!count) return;
  if (!chunk_) chunk_ = std::make_unique<unsigned char[]>(kChunk);
  unsigned char* chunk = chunk_.get();
  std::size_t used = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (used > kChunk - detail::kMaxVarint) {
      out_->write(chunk, used);
      used = 0;
    }
    used += detail::PutVarint(chunk + used, values[i]);
  }
  out_->write(chunk, used);
}

void sff_writer::writeIntegers(const std::uint32_t* values, std::size_t count, std::uint32_t type) {
  integers(values, count, type);
}

void sff_writer::writeIntegers(const std::uint64_t* values, std::size_t count, std::uint32_t type) {
  integers(values, count, type);
}

void sff_writer::writeString(std::uint32_t type, const char* text) {
  const std::size_t size = text ? std::strlen(text) : 0;
  writeRecord(42, type, size, text);
}

void sff_writer::writeVarint32(std::uint32_t value) { writeVarint64(value); }

void sff_writer::writeVarint64(std::uint64_t value) {
  unsigned char bytes[detail::kMaxVarint];
  out_->write(bytes, detail::PutVarint(bytes, value));
}

void sff_writer::writeRecord(std::uint32_t tag, std::uint32_t type, std::size_t length, const void* data) {
  // Small records leave in one write with their header.
  if (length && data && length <= 256) {
    unsigned char bytes[3 * detail::kMaxVarint + 256];
    std::size_t n = detail::PutVarint(bytes, tag);
    n += detail::PutVarint(bytes + n, type);
    if (tag > 7) n += detail::PutVarint(bytes + n, length);
    std::memcpy(bytes + n, data, length);
    out_->write(bytes, n + length);
    return;
  }
  header(tag, type, length);
  payload(data, length);
}

}  // namespace kel
