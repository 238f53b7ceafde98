// Reads SFF scene data (plain "SFF0" or compressed "SFZ0") and hands every
// record to a callback, in file order. Payload pointers point into the
// reader's buffers, are valid only during the call and may be unaligned
// (read elements with memcpy). Arrays lying wholly in the 64 KiB read buffer
// are delivered in place; others are gathered in a scratch area that grows
// with the data actually read and is kept for the reader's next records.
//
// Safe on hostile input: a bad magic throws kel::wexception("Invalid SFF
// file"), data ending inside a record or a close without an open node throws
// "Invalid SFF stream!", corrupt compressed data "Inflate error.". Memory
// stays bounded by the bytes present, whatever lengths the records claim.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "kel/export.h"

namespace kel {

class sff_input_stream;

// Receiver of records. Every slot has an empty default body: override what
// you need. Counts of arrays are whole elements (payload bytes / element
// size); sizes are bytes.
class KEL_API sff_read_callback {
public:
  virtual ~sff_read_callback();
  // A record the reader does not interpret, with its payload.
  virtual void unknownRecord(std::uint32_t /*tag*/, std::uint32_t /*type*/, const void* /*data*/,
                             std::size_t /*size*/) {}
  virtual void beginAt(std::uint64_t /*id*/) {}
  virtual void beginA(std::uint64_t /*id*/) {}
  virtual void beginB(std::uint64_t /*id*/) {}
  virtual void beginC(std::uint64_t /*id*/) {}
  virtual void beginD(std::uint64_t /*id*/) {}
  virtual void beginF(std::uint64_t /*id*/) {}
  virtual void beginE(std::uint64_t /*id*/) {}
  // A node type outside '@'..'G' (and not the close type).
  virtual void beginOther(std::uint32_t /*type*/, std::uint64_t /*id*/) {}
  virtual void beginG(std::uint64_t /*id*/) {}
  // Closes the innermost open node, whose type and identifier are given.
  virtual void end(std::uint32_t /*type*/, std::uint64_t /*id*/) {}
  // Tag 7 / type 7.
  virtual void reference(std::uint64_t /*id*/) {}
  // Tag 34 / type 16: count 12-byte vertices.
  virtual void positions(const void* /*data*/, std::size_t /*count*/) {}
  // Tag 38 / type 16: count 24-byte elements.
  virtual void array24(const void* /*data*/, std::size_t /*count*/) {}
  // Tag 34 / type 17: count 12-byte elements.
  virtual void normals(const void* /*data*/, std::size_t /*count*/) {}
  // Tag 33 / type 18: count 8-byte elements and the record's extra count.
  virtual void array8(const void* /*data*/, std::size_t /*count*/, std::uint32_t /*extra*/) {}
  // Tag 43 / type 23: a block of count 4-byte elements (not a mesh's index
  // array, which is integers()).
  virtual void array4(const void* /*data*/, std::size_t /*count*/) {}
  // Tag 41 / type 19: the decoded varints (8-byte aligned); inside a 'C'
  // node, the mesh's index array.
  virtual void integers(const std::uint64_t* /*values*/, std::size_t /*count*/) {}
  // Tag 42 / type 34, then type 32: string bytes, no terminator.
  virtual void string34(const char* /*text*/, std::size_t /*size*/) {}
  virtual void string32(const char* /*text*/, std::size_t /*size*/) {}
  // Tag 43 / types 21 and 22: raw blocks.
  virtual void block21(const void* /*data*/, std::size_t /*size*/) {}
  virtual void block22(const void* /*data*/, std::size_t /*size*/) {}
  // Tag 7 / types 26, 27 and 8.
  virtual void byte26(std::uint64_t /*value*/) {}
  virtual void byte27(std::uint64_t /*value*/) {}
  virtual void byte8(std::uint64_t /*value*/) {}
  // Tag 42 / type 33 (names).
  virtual void string33(const char* /*text*/, std::size_t /*size*/) {}
  // Tag 2 / types 1-4: 16 bytes each.
  virtual void value16Type1(const void* /*bytes16*/) {}
  virtual void value16Type2(const void* /*bytes16*/) {}
  virtual void value16Type3(const void* /*bytes16*/) {}
  virtual void value16Type4(const void* /*bytes16*/) {}
  // Tag 1 / type 5: one 64-bit varint.
  virtual void scalar(std::uint64_t /*value*/) {}
  // Tag 3 / type 0: 64 bytes.
  virtual void block64(const void* /*bytes64*/) {}
  // Tag 6, any type: 128 bytes.
  virtual void block128(std::uint32_t /*type*/, const void* /*bytes128*/) {}
  // Tag 43 / type 100: raw block.
  virtual void block100(const void* /*data*/, std::size_t /*size*/) {}
  // Tag 41 / type 101: decoded varints, as integers().
  virtual void integers101(const std::uint64_t* /*values*/, std::size_t /*count*/) {}
};

class KEL_API sff_reader final {
public:
  sff_reader();
  ~sff_reader();
  sff_reader(const sff_reader&) = delete;
  sff_reader& operator=(const sff_reader&) = delete;

  // Resets `source`, checks the magic and delivers every record to
  // `callback` until the source is exhausted. Nodes left open at the end are
  // not reported. Exceptions from the callback pass through.
  void read(sff_input_stream& source, sff_read_callback& callback);

private:
  class Cursor;
  unsigned char* buffer_ = nullptr;   // 64 KiB read buffer
  unsigned char* scratch_ = nullptr;  // straddling payloads
  std::size_t scratchSize_ = 0;
  std::uint64_t* values_ = nullptr;   // decoded tag 41 varints
  std::size_t valuesSize_ = 0;
  std::vector<std::pair<std::uint32_t, std::uint64_t>> stack_;
};

}  // namespace kel
