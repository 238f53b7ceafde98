// SFF varints: big-endian groups of 7 bits, 0x80 on every byte but the last.
// A 64-bit value with any of its top 8 bits set takes nine bytes, the ninth
// carrying the low 8 bits whole (the same scheme as SQLite's record format).
#pragma once

#include <cstddef>
#include <cstdint>

namespace kel::detail {

constexpr std::size_t kMaxVarint = 9;

inline std::size_t VarintSize(std::uint64_t v) {
  if (v >> 56) return 9;
  std::size_t n = 1;
  while (v >>= 7) ++n;
  return n;
}

// Writes v at out (room for kMaxVarint bytes) and returns the byte count.
inline std::size_t PutVarint(unsigned char* out, std::uint64_t v) {
  if (v >> 56) {
    out[8] = static_cast<unsigned char>(v);
    v >>= 8;
    for (int i = 7; i >= 0; --i, v >>= 7) out[i] = static_cast<unsigned char>((v & 0x7F) | 0x80);
    return 9;
  }
  if (v < 0x80) {
    out[0] = static_cast<unsigned char>(v);
    return 1;
  }
  const std::size_t n = VarintSize(v);
  for (std::size_t i = n; i-- > 0; v >>= 7) out[i] = static_cast<unsigned char>((v & 0x7F) | 0x80);
  out[n - 1] &= 0x7F;
  return n;
}

// One loop for both widths. A 64-bit varint takes up to eight 7-bit groups
// and then a ninth byte whole; a 32-bit one stops at five bytes and is 0 when
// the fifth still carries the continuation bit. Returns the bytes used, or 0
// when the varint is not complete before `end` (v is then left alone).
template <typename U>
inline std::size_t GetVarint(const unsigned char* p, const unsigned char* end, U& v) {
  static_assert(sizeof(U) == 4 || sizeof(U) == 8);
  constexpr std::size_t kGroups = sizeof(U) == 8 ? 8 : 5;
  U r = 0;
  for (std::size_t i = 0; i < kGroups; ++i) {
    if (p + i >= end) return 0;
    const unsigned char b = p[i];
    r = (r << 7) | (b & 0x7F);
    if (!(b & 0x80)) {
      v = r;
      return i + 1;
    }
  }
  if constexpr (sizeof(U) == 8) {
    if (p + 8 >= end) return 0;
    v = (r << 8) | p[8];
    return 9;
  } else {
    v = 0;
    return 5;
  }
}

inline std::size_t GetVarint64(const unsigned char* p, const unsigned char* end, std::uint64_t& v) {
  return GetVarint(p, end, v);
}

inline std::size_t GetVarint32(const unsigned char* p, const unsigned char* end, std::uint32_t& v) {
  return GetVarint(p, end, v);
}

}  // namespace kel::detail
