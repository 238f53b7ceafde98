#include "kel/sff/sff_copy.h"

#include "kel/sff/sff_writer.h"

namespace kel {

void sff_copy_callback::raw(std::uint32_t tag, std::uint32_t type, const void* data, std::size_t size) {
  ++records_;
  payloadBytes_ += size;
  w_.writeRecord(tag, type, size, data);
}

// Tag 7 values read back as varints, so they go out as varints: a value the
// writer once stored as one byte below 128 keeps its single byte.
void sff_copy_callback::value7(std::uint32_t type, std::uint64_t value) {
  ++records_;
  w_.writeVarint32(7);
  w_.writeVarint32(type);
  w_.writeVarint64(value);
}

void sff_copy_callback::unknownRecord(std::uint32_t tag, std::uint32_t type, const void* data, std::size_t size) {
  raw(tag, type, data, size);
}
void sff_copy_callback::beginAt(std::uint64_t id) { ++records_, w_.begin(64, id); }
void sff_copy_callback::beginA(std::uint64_t id) { ++records_, w_.begin(65, id); }
void sff_copy_callback::beginB(std::uint64_t id) { ++records_, w_.begin(66, id); }
void sff_copy_callback::beginC(std::uint64_t id) { ++records_, w_.begin(67, id); }
void sff_copy_callback::beginD(std::uint64_t id) { ++records_, w_.begin(68, id); }
void sff_copy_callback::beginF(std::uint64_t id) { ++records_, w_.begin(70, id); }
void sff_copy_callback::beginE(std::uint64_t id) { ++records_, w_.begin(69, id); }
void sff_copy_callback::beginOther(std::uint32_t type, std::uint64_t id) { ++records_, w_.begin(type, id); }
void sff_copy_callback::beginG(std::uint64_t id) { ++records_, w_.begin(71, id); }
void sff_copy_callback::end(std::uint32_t, std::uint64_t) { ++records_, w_.end(); }
void sff_copy_callback::reference(std::uint64_t id) { value7(7, id); }
void sff_copy_callback::positions(const void* data, std::size_t count) { raw(34, 16, data, count * 12); }
void sff_copy_callback::array24(const void* data, std::size_t count) { raw(38, 16, data, count * 24); }
void sff_copy_callback::normals(const void* data, std::size_t count) { raw(34, 17, data, count * 12); }
void sff_copy_callback::array8(const void* data, std::size_t count, std::uint32_t extra) {
  ++records_;
  payloadBytes_ += count * 8;
  w_.writeArray8(data, count, extra);
}
void sff_copy_callback::array4(const void* data, std::size_t count) { raw(43, 23, data, count * 4); }
void sff_copy_callback::integers(const std::uint64_t* values, std::size_t count) {
  ++records_;
  payloadBytes_ += count * 8;
  w_.writeIntegers(values, count, 19);
}
void sff_copy_callback::string34(const char* text, std::size_t size) { raw(42, 34, text, size); }
void sff_copy_callback::string32(const char* text, std::size_t size) { raw(42, 32, text, size); }
void sff_copy_callback::block21(const void* data, std::size_t size) { raw(43, 21, data, size); }
void sff_copy_callback::block22(const void* data, std::size_t size) { raw(43, 22, data, size); }
void sff_copy_callback::byte26(std::uint64_t value) { value7(26, value); }
void sff_copy_callback::byte27(std::uint64_t value) { value7(27, value); }
void sff_copy_callback::byte8(std::uint64_t value) { value7(8, value); }
void sff_copy_callback::string33(const char* text, std::size_t size) { raw(42, 33, text, size); }
void sff_copy_callback::value16Type1(const void* bytes16) { raw(2, 1, bytes16, 16); }
void sff_copy_callback::value16Type2(const void* bytes16) { raw(2, 2, bytes16, 16); }
void sff_copy_callback::value16Type3(const void* bytes16) { raw(2, 3, bytes16, 16); }
void sff_copy_callback::value16Type4(const void* bytes16) { raw(2, 4, bytes16, 16); }
void sff_copy_callback::scalar(std::uint64_t value) {
  ++records_;
  w_.writeScalar(value);
}
void sff_copy_callback::block64(const void* bytes64) { raw(3, 0, bytes64, 64); }
void sff_copy_callback::block128(std::uint32_t type, const void* bytes128) { raw(6, type, bytes128, 128); }
void sff_copy_callback::block100(const void* data, std::size_t size) { raw(43, 100, data, size); }
void sff_copy_callback::integers101(const std::uint64_t* values, std::size_t count) {
  ++records_;
  payloadBytes_ += count * 8;
  w_.writeIntegers(values, count, 101);
}

}  // namespace kel
