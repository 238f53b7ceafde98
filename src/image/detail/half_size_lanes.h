// Row kernel of the fast half-size path: two source rows of 4-byte pixels in,
// one destination row out, 8 source pixels giving 4 destination pixels.
// Columns pair as (0,2), (1,3), (4,6), (5,7) within each group of 8 (the
// order two 16-byte loads fall apart into), each byte (a+b+c+d+2)>>2.
// The scalar kernel is the reference; the SSE2 one must match it byte for byte.
#pragma once

#include <cstddef>
#include <cstdint>

#if !defined(KEL_NO_SIMD) && defined(__SSE2__)
#define KEL_HALF_SIZE_SSE2 1
#include <emmintrin.h>
#endif

namespace kel::detail {

// `groups` groups of 8 source pixels (32 bytes per row) into 16 bytes each.
inline void HalveRowScalar(const std::uint8_t* row0, const std::uint8_t* row1, std::uint8_t* dst,
                           std::size_t groups) {
  // Destination pixel k of a group reads source columns kFirst[k] and kFirst[k] + 2.
  static constexpr int kFirst[4] = {0, 1, 4, 5};
  for (std::size_t g = 0; g < groups; ++g) {
    const std::uint8_t* a = row0 + g * 32;
    const std::uint8_t* b = row1 + g * 32;
    std::uint8_t* out = dst + g * 16;
    for (int k = 0; k < 4; ++k)
      for (int c = 0; c < 4; ++c) {
        const int i = kFirst[k] * 4 + c;
        const int j = i + 8;
        out[k * 4 + c] = static_cast<std::uint8_t>((a[i] + a[j] + b[i] + b[j] + 2) >> 2);
      }
  }
}

#if KEL_HALF_SIZE_SSE2
// Lanes of one 16-byte group, widened to 16 bits so the +2 >> 2 rounding is exact.
struct HalfLane {
  __m128i lo;  // destination pixels 0 and 1
  __m128i hi;  // destination pixels 2 and 3
};

inline HalfLane WidenPairs(__m128i first4, __m128i next4) {
  // first4 = p0 p1 p2 p3, next4 = p4 p5 p6 p7: lo64 halves p0 p1 p4 p5, hi64 halves p2 p3 p6 p7.
  const __m128i left = _mm_unpacklo_epi64(first4, next4);
  const __m128i right = _mm_unpackhi_epi64(first4, next4);
  const __m128i zero = _mm_setzero_si128();
  return {_mm_add_epi16(_mm_unpacklo_epi8(left, zero), _mm_unpacklo_epi8(right, zero)),
          _mm_add_epi16(_mm_unpackhi_epi8(left, zero), _mm_unpackhi_epi8(right, zero))};
}

inline __m128i AverageGroup(const std::uint8_t* a, const std::uint8_t* b) {
  const HalfLane top = WidenPairs(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a)),
                                  _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + 16)));
  const HalfLane bottom = WidenPairs(_mm_loadu_si128(reinterpret_cast<const __m128i*>(b)),
                                     _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 16)));
  const __m128i two = _mm_set1_epi16(2);
  const __m128i lo = _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(top.lo, bottom.lo), two), 2);
  const __m128i hi = _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(top.hi, bottom.hi), two), 2);
  return _mm_packus_epi16(lo, hi);
}

// Streaming stores need a 16-byte aligned destination; callers check.
inline void HalveRowSse2(const std::uint8_t* row0, const std::uint8_t* row1, std::uint8_t* dst, std::size_t groups,
                         bool streaming) {
  if (streaming) {
    for (std::size_t g = 0; g < groups; ++g)
      _mm_stream_si128(reinterpret_cast<__m128i*>(dst + g * 16), AverageGroup(row0 + g * 32, row1 + g * 32));
  } else {
    for (std::size_t g = 0; g < groups; ++g)
      _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + g * 16), AverageGroup(row0 + g * 32, row1 + g * 32));
  }
}
#endif

// The kernel the library uses. Call HalveRowsDone after the last row so
// streamed stores are visible before the image is handed out.
inline void HalveRow(const std::uint8_t* row0, const std::uint8_t* row1, std::uint8_t* dst, std::size_t groups,
                     bool streaming) {
#if KEL_HALF_SIZE_SSE2
  HalveRowSse2(row0, row1, dst, groups, streaming && (reinterpret_cast<std::uintptr_t>(dst) & 15) == 0);
#else
  (void)streaming;
  HalveRowScalar(row0, row1, dst, groups);
#endif
}

inline void HalveRowsDone() {
#if KEL_HALF_SIZE_SSE2
  _mm_sfence();
#endif
}

}  // namespace kel::detail
