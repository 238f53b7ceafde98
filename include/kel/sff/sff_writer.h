// Writes SFF scene data: the magic ("SFF0" plain, "SFZ0" compressed) and then
// one record per call. A record is a varint tag, a varint type, for tags above
// 7 a varint payload length, then the payload. Varints are big-endian groups
// of 7 bits with 0x80 on every byte but the last; a 64-bit value with any of
// its top 8 bits set takes nine bytes, the ninth carrying 8 bits.
// Multi-byte numbers inside arrays are the machine's little-endian images.
//
// The writer never checks its sink's results. Not thread-safe; one writer per
// sink.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "kel/export.h"

namespace kel {

class sff_output_stream;

// Node types of tag 0 records ('@' .. 'G' open a node, 'P' closes one).
namespace sff_node {
constexpr std::uint32_t kAt = 64, kA = 65, kB = 66, kC = 67, kD = 68, kE = 69, kF = 70, kG = 71;
constexpr std::uint32_t kClose = 80;
}  // namespace sff_node

class KEL_API sff_writer final {
public:
  // Writes the magic at once. With `compress` the records go through a
  // deflating stream at zlib `level` (-1: zlib's default) that this writer
  // owns and completes in finish() or its destructor.
  sff_writer(sff_output_stream& sink, bool compress, int level = -1);
  ~sff_writer();
  sff_writer(const sff_writer&) = delete;
  sff_writer& operator=(const sff_writer&) = delete;

  // Completes a compressed stream now (so the caller can close the sink);
  // records written afterwards are dropped. Does nothing for plain output.
  void finish();

  // Node markers (tag 0). '@', 'A' and 'G' carry identifier 0.
  void beginAt();
  void beginA();
  void beginB(std::uint64_t id);
  void beginC(std::uint64_t id);
  void beginD(std::uint64_t id);
  void beginE(std::uint64_t id);
  void beginF(std::uint64_t id);
  void beginG();
  // Any node type but 'P' (80), which would read back as a close.
  void begin(std::uint32_t type, std::uint64_t id);
  // Closes the innermost open node.
  void end();
  // Open nodes: +1 per begin, -1 per end.
  int depth() const { return depth_; }

  // Tag 2, type 1-4: one 16-byte value.
  void writeValue16(std::uint32_t type, const void* bytes16);
  // Tag 3, type 0: one 64-byte block.
  void writeBlock64(const void* bytes64);
  // An 'E' node with `id` holding, when given, the 64-byte block, the name
  // (tag 42 / 33) and a reference repeating the identifier.
  void writeElement(std::uint64_t id, const void* block64, const char* name, bool withReference);
  // Tag 7, type 7: an identifier reference (64-bit varint).
  void writeReference(std::uint64_t id);
  // Tag 7, type 8, 26 or 27: one raw byte. The reader decodes tag 7 payloads
  // as varints, so only values below 128 read back unchanged.
  void writeByte(std::uint32_t type, std::uint8_t value);
  // Tag 1, type 5: one 64-bit varint.
  void writeScalar(std::uint64_t value);

  // Arrays: the payload is written only when count > 0 and the pointer is not
  // null; null with count > 0 is a caller error. Counts are elements.
  // Tag 33, type 18: 8-byte elements; `extra` is written as a varint between
  // the length and the elements (the length covers the elements only).
  void writeArray8(const void* data, std::size_t count, std::uint32_t extra);
  // Tag 34, type 16: vertex positions, 3 floats each.
  void writePositions(const float* xyz, std::size_t count);
  // Tag 34, type 17: a second 12-byte-element array (normals), 3 floats each.
  void writeNormals(const float* xyz, std::size_t count);
  // Tag 38, type 16: 24-byte elements.
  void writeArray24(const void* data, std::size_t count);
  // Tag 43, type 23: a block of 4-byte elements. Not a mesh's index array:
  // readers of meshes (SFF2BVH) take indices from writeIntegers' tag 41 /
  // type 19 record only.
  void writeArray4(const void* data, std::size_t count);
  // Tag 43, type 21, 22 or 100: a raw block of `size` bytes.
  void writeBlock(std::uint32_t type, const void* data, std::size_t size);
  // Tag 41, type 19 (or 101): integers as a run of varints, which suits
  // small values. Type 19 inside a 'C' node is a mesh's index array. Values must be below 2^56 (the reader counts the varints by
  // their final bytes, which the nine-byte form does not have).
  void writeIntegers(const std::uint32_t* values, std::size_t count, std::uint32_t type = 19);
  void writeIntegers(const std::uint64_t* values, std::size_t count, std::uint32_t type = 19);

  // Tag 42, type 32, 33 (names) or 34: the string's bytes without the
  // terminator. Null or empty writes a zero length.
  void writeString(std::uint32_t type, const char* text);

  // Raw varints, for framing of the caller's own.
  void writeVarint32(std::uint32_t value);
  void writeVarint64(std::uint64_t value);
  // Any record: tag, type, the length when tag > 7, then `length` bytes of
  // `data` when both are non-zero. For tags up to 7 the reader infers the
  // payload size from tag and type, so `length` must match it.
  void writeRecord(std::uint32_t tag, std::uint32_t type, std::size_t length, const void* data);

private:
  void header(std::uint32_t tag, std::uint32_t type, std::uint64_t length);
  void payload(const void* data, std::size_t size);
  template <class T>
  void integers(const T* values, std::size_t count, std::uint32_t type);

  sff_output_stream* out_;
  std::unique_ptr<sff_output_stream> deflater_;
  int depth_ = 0;
  std::unique_ptr<unsigned char[]> chunk_;  // varint staging for tag 41
};

}  // namespace kel
