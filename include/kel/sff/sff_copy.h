// A read callback that writes every record it receives back through an
// sff_writer: reading a file into it copies the file record by record, e.g.
// to convert between plain and compressed. Records the reader does not
// interpret are copied raw. Node markers and payloads keep their order.
#pragma once

#include <cstdint>

#include "kel/export.h"
#include "kel/sff/sff_reader.h"

namespace kel {

class sff_writer;

class KEL_API sff_copy_callback : public sff_read_callback {
public:
  // `writer` must outlive this callback.
  explicit sff_copy_callback(sff_writer& writer) : w_(writer) {}

  std::uint64_t records() const { return records_; }
  std::uint64_t payloadBytes() const { return payloadBytes_; }

  void unknownRecord(std::uint32_t tag, std::uint32_t type, const void* data, std::size_t size) override;
  void beginAt(std::uint64_t id) override;
  void beginA(std::uint64_t id) override;
  void beginB(std::uint64_t id) override;
  void beginC(std::uint64_t id) override;
  void beginD(std::uint64_t id) override;
  void beginF(std::uint64_t id) override;
  void beginE(std::uint64_t id) override;
  void beginOther(std::uint32_t type, std::uint64_t id) override;
  void beginG(std::uint64_t id) override;
  void end(std::uint32_t type, std::uint64_t id) override;
  void reference(std::uint64_t id) override;
  void positions(const void* data, std::size_t count) override;
  void array24(const void* data, std::size_t count) override;
  void normals(const void* data, std::size_t count) override;
  void array8(const void* data, std::size_t count, std::uint32_t extra) override;
  void array4(const void* data, std::size_t count) override;
  void integers(const std::uint64_t* values, std::size_t count) override;
  void string34(const char* text, std::size_t size) override;
  void string32(const char* text, std::size_t size) override;
  void block21(const void* data, std::size_t size) override;
  void block22(const void* data, std::size_t size) override;
  void byte26(std::uint64_t value) override;
  void byte27(std::uint64_t value) override;
  void byte8(std::uint64_t value) override;
  void string33(const char* text, std::size_t size) override;
  void value16Type1(const void* bytes16) override;
  void value16Type2(const void* bytes16) override;
  void value16Type3(const void* bytes16) override;
  void value16Type4(const void* bytes16) override;
  void scalar(std::uint64_t value) override;
  void block64(const void* bytes64) override;
  void block128(std::uint32_t type, const void* bytes128) override;
  void block100(const void* data, std::size_t size) override;
  void integers101(const std::uint64_t* values, std::size_t count) override;

private:
  void raw(std::uint32_t tag, std::uint32_t type, const void* data, std::size_t size);
  void value7(std::uint32_t type, std::uint64_t value);

  sff_writer& w_;
  std::uint64_t records_ = 0;
  std::uint64_t payloadBytes_ = 0;
};

}  // namespace kel
