// DXT1/DXT5 block kernels: the scalar reference and its SSE2 twin.
//
// A block is read through four row pointers of 16 bytes (4 pixels of 4 bytes
// each). Channel bytes 0 and 2 are red and blue in either order: every step
// but the final 5:6:5 packing treats them alike (both are masked with 0xF8),
// so only the packer needs to know which is which.
//
// The SSE2 kernels work on channel planes of 16 bytes. Masked colours are
// multiples of 4 in every channel, so keys and distances are computed on
// values divided by 4: exact, order preserving, and small enough (<= 187) for
// byte lanes. A test checks both kernels agree bit for bit on random blocks.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__) && !defined(KEL_NO_SIMD)
#define KEL_DXT_SSE2 1
#include <emmintrin.h>
#else
#define KEL_DXT_SSE2 0
#endif

namespace kel::detail {

static_assert(std::endian::native == std::endian::little, "pixels are read as little-endian words");

inline std::uint16_t Pack565(unsigned x, unsigned y, unsigned z, bool bgra) {
  const unsigned r = bgra ? z : x, b = bgra ? x : z;
  return static_cast<std::uint16_t>(((r >> 3) << 11) | ((y >> 2) << 5) | (b >> 3));
}

inline void Store32(std::uint8_t* out, std::uint32_t v) { std::memcpy(out, &v, 4); }

inline unsigned AbsDiff(unsigned a, unsigned b) { return a > b ? a - b : b - a; }

// Palette entries from the two ordered endpoints, in byte order, masked scale.
struct ColourPalette {
  unsigned c[4][3];
};

inline void MakePalette(ColourPalette& p, const unsigned e0[3], const unsigned e1[3], bool threeColour) {
  static constexpr unsigned kMask[3] = {0xF8, 0xFC, 0xF8};
  for (int ch = 0; ch < 3; ++ch) {
    p.c[0][ch] = e0[ch];
    p.c[1][ch] = e1[ch];
    if (threeColour) {
      p.c[2][ch] = ((e0[ch] + e1[ch]) >> 1) & kMask[ch];
      p.c[3][ch] = 0;
    } else {
      p.c[2][ch] = ((2 * e0[ch] + e1[ch]) / 3) & kMask[ch];
      p.c[3][ch] = ((e0[ch] + 2 * e1[ch]) / 3) & kMask[ch];
    }
  }
}

// Endpoint choice shared by both kernels: from the darkest and the brightest
// pixel indices, fills the ordered endpoints and the two packed colours.
// Returns true for three-colour mode.
inline bool OrderEndpoints(const std::uint8_t* const rows[4], int minI, int maxI, bool hasTransparent, bool bgra,
                           unsigned e0[3], unsigned e1[3], std::uint16_t& c0, std::uint16_t& c1) {
  const std::uint8_t* pa = rows[minI >> 2] + 4 * (minI & 3);
  const std::uint8_t* pb = rows[maxI >> 2] + 4 * (maxI & 3);
  unsigned a[3] = {pa[0] & 0xF8u, pa[1] & 0xFCu, pa[2] & 0xF8u};
  unsigned b[3] = {pb[0] & 0xF8u, pb[1] & 0xFCu, pb[2] & 0xF8u};
  std::uint16_t ca = Pack565(a[0], a[1], a[2], bgra), cb = Pack565(b[0], b[1], b[2], bgra);
  const bool three = hasTransparent || ca == cb;
  // Three-colour mode wants colour 0 <= colour 1, four-colour mode colour 0 > colour 1.
  const bool swap = three ? ca > cb : ca < cb;
  if (swap) {
    std::swap(ca, cb);
    for (int ch = 0; ch < 3; ++ch) std::swap(a[ch], b[ch]);
  }
  for (int ch = 0; ch < 3; ++ch) {
    e0[ch] = a[ch];
    e1[ch] = b[ch];
  }
  c0 = ca;
  c1 = cb;
  return three;
}

// ---- Scalar reference --------------------------------------------------------

// Colour half of a block. `dxt1` enables punch-through alpha (alpha < 128).
inline void EncodeColourScalar(const std::uint8_t* const rows[4], bool bgra, bool dxt1, std::uint8_t out[8]) {
  unsigned px[16][3];
  bool transparent[16];
  bool hasTransparent = false;
  std::uint32_t minKey = 0xFFFFFFFFu, maxKey = 0;
  int minI = 0, maxI = 0;
  for (int i = 0; i < 16; ++i) {
    const std::uint8_t* p = rows[i >> 2] + 4 * (i & 3);
    px[i][0] = p[0] & 0xF8u;
    px[i][1] = p[1] & 0xFCu;
    px[i][2] = p[2] & 0xF8u;
    transparent[i] = dxt1 && p[3] < 128;
    if (transparent[i]) {
      hasTransparent = true;
      continue;
    }
    const std::uint32_t key = px[i][0] + px[i][1] + px[i][2];
    // "else if": a pixel that lowers the minimum is never tested as maximum.
    if (key < minKey) {
      minKey = key;
      minI = i;
    } else if (key > maxKey) {
      maxKey = key;
      maxI = i;
    }
  }
  unsigned e0[3], e1[3];
  std::uint16_t c0, c1;
  const bool three = OrderEndpoints(rows, minI, maxI, hasTransparent, bgra, e0, e1, c0, c1);
  ColourPalette pal;
  MakePalette(pal, e0, e1, three);

  std::uint32_t indices = 0;
  for (int i = 0; i < 16; ++i) {
    unsigned d[4];
    for (int k = 0; k < 4; ++k)
      d[k] = AbsDiff(px[i][0], pal.c[k][0]) + AbsDiff(px[i][1], pal.c[k][1]) + AbsDiff(px[i][2], pal.c[k][2]);
    std::uint32_t index;
    if (!three) {
      const unsigned x0 = (d[1] > d[2]) && (d[0] > d[2]);
      const unsigned x1 = (d[0] > d[3]) && (d[1] > d[3]);
      const unsigned x2 = (d[0] > d[3]) && (d[2] > d[3]);
      index = x2 | ((x0 | x1) << 1);
    } else if (transparent[i]) {
      index = 3;
    } else {
      index = 0;
      unsigned best = d[0];
      for (unsigned k = 1; k < 3 && best != 0; ++k)
        if (d[k] < best) {
          best = d[k];
          index = k;
        }
    }
    indices |= index << (2 * i);
  }
  Store32(out, c0 | (std::uint32_t{c1} << 16));
  Store32(out + 4, indices);
}

// Alpha palette: six-value mode with 0 and 255 when `six`, else eight-value.
inline void MakeAlphaPalette(unsigned pal[8], unsigned a0, unsigned a1, bool six) {
  pal[0] = a0;
  pal[1] = a1;
  if (six) {
    for (unsigned k = 1; k <= 4; ++k) pal[1 + k] = ((5 - k) * a0 + k * a1) / 5;
    pal[6] = 0;
    pal[7] = 255;
  } else {
    for (unsigned k = 1; k <= 6; ++k) pal[1 + k] = ((7 - k) * a0 + k * a1) / 7;
  }
}

// Chooses the two alpha endpoints from the scanned minimum and maximum.
inline void OrderAlphaEndpoints(unsigned minA, unsigned maxA, bool hasExtremes, unsigned& a0, unsigned& a1,
                                bool& six) {
  six = hasExtremes || minA == maxA;
  const unsigned lo = minA < maxA ? minA : maxA, hi = minA < maxA ? maxA : minA;
  // Six-value mode: a0 = minimum, a1 = maximum, swapped when the scan left the
  // minimum above the maximum. Eight-value mode: the reverse, with the same
  // exception; either way the larger one ends up in the same place.
  a0 = six ? lo : hi;
  a1 = six ? hi : lo;
}

// Packs 16 three-bit indices and the endpoints. Pixel 5's upper two bits go
// one bit higher than the usual layout (overlapping pixel 6's lowest bit): the
// files this library writes have always carried it that way.
inline void PackAlphaBlock(unsigned a0, unsigned a1, std::uint64_t bits48, std::uint8_t out[8]) {
  const std::uint32_t idx5 = static_cast<std::uint32_t>(bits48 >> 15) & 7;
  const std::uint32_t w0 = a0 | (a1 << 8) | (static_cast<std::uint32_t>(bits48 & 0xFFFF) << 16);
  const std::uint32_t w1 = (static_cast<std::uint32_t>(bits48 >> 16) & ~3u) | (idx5 & 6);
  Store32(out, w0);
  Store32(out + 4, w1);
}

inline void EncodeAlphaScalar(const std::uint8_t* const rows[4], std::uint8_t out[8]) {
  unsigned alpha[16];
  bool hasExtremes = false;
  unsigned minA = 255, maxA = 0;
  for (int i = 0; i < 16; ++i) {
    const unsigned a = rows[i >> 2][4 * (i & 3) + 3];
    alpha[i] = a;
    if (a == 0 || a == 255)
      hasExtremes = true;
    else if (a < minA)
      minA = a;
    else if (a > maxA)
      maxA = a;
  }
  unsigned a0, a1;
  bool six;
  OrderAlphaEndpoints(minA, maxA, hasExtremes, a0, a1, six);
  unsigned pal[8];
  MakeAlphaPalette(pal, a0, a1, six);
  std::uint64_t bits = 0;
  for (int i = 0; i < 16; ++i) {
    unsigned index = 0, best = AbsDiff(alpha[i], pal[0]);
    for (unsigned k = 1; k < 8 && best != 0; ++k) {
      const unsigned d = AbsDiff(alpha[i], pal[k]);
      if (d < best) {
        best = d;
        index = k;
      }
    }
    bits |= std::uint64_t{index} << (3 * i);
  }
  PackAlphaBlock(a0, a1, bits, out);
}

// ---- SSE2 twin -----------------------------------------------------------------

#if KEL_DXT_SSE2

struct Planes {
  __m128i c0, c1, c2, a;  // channel bytes 0..3 of pixels 0..15, in pixel order
};

// 16 pixels of 4 bytes to four planes of 16 bytes: four rounds of byte
// interleaving, each moving one bit of the pixel number into the byte lane.
inline Planes LoadPlanes(const std::uint8_t* const rows[4]) {
  const __m128i p0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[0]));
  const __m128i p1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[1]));
  const __m128i p2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[2]));
  const __m128i p3 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[3]));
  const __m128i s00 = _mm_unpacklo_epi8(p0, p2), s01 = _mm_unpackhi_epi8(p0, p2);
  const __m128i s10 = _mm_unpacklo_epi8(p1, p3), s11 = _mm_unpackhi_epi8(p1, p3);
  const __m128i t00 = _mm_unpacklo_epi8(s00, s10), t01 = _mm_unpackhi_epi8(s00, s10);
  const __m128i t10 = _mm_unpacklo_epi8(s01, s11), t11 = _mm_unpackhi_epi8(s01, s11);
  const __m128i u00 = _mm_unpacklo_epi8(t00, t10), u01 = _mm_unpackhi_epi8(t00, t10);
  const __m128i u10 = _mm_unpacklo_epi8(t01, t11), u11 = _mm_unpackhi_epi8(t01, t11);
  return {_mm_unpacklo_epi8(u00, u10), _mm_unpackhi_epi8(u00, u10), _mm_unpacklo_epi8(u01, u11),
          _mm_unpackhi_epi8(u01, u11)};
}

inline __m128i Splat8(unsigned v) { return _mm_set1_epi32(static_cast<int>((v & 0xFF) * 0x01010101u)); }

inline __m128i AbsDiff8(__m128i a, __m128i b) { return _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a)); }

// Unsigned a > b per byte, for values <= 0xFF.
inline __m128i Greater8(__m128i a, __m128i b) {
  const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
  return _mm_cmpgt_epi8(_mm_xor_si128(a, bias), _mm_xor_si128(b, bias));
}

// Lanes that are strictly below every earlier lane (and below 255 before the
// first lane): the pixels that lower a running minimum started at 255.
inline __m128i LowersRunningMin(__m128i key) {
  const __m128i inv = _mm_xor_si128(key, _mm_set1_epi8(-1));  // running max of 255 - key, 0 is neutral
  __m128i m = _mm_max_epu8(inv, _mm_slli_si128(inv, 1));
  m = _mm_max_epu8(m, _mm_slli_si128(m, 2));
  m = _mm_max_epu8(m, _mm_slli_si128(m, 4));
  m = _mm_max_epu8(m, _mm_slli_si128(m, 8));
  const __m128i before = _mm_slli_si128(m, 1);
  return _mm_andnot_si128(_mm_cmpeq_epi8(_mm_max_epu8(inv, before), before), _mm_set1_epi8(-1));
}

inline unsigned HorizontalMax8(__m128i v) {
  v = _mm_max_epu8(v, _mm_srli_si128(v, 8));
  v = _mm_max_epu8(v, _mm_srli_si128(v, 4));
  v = _mm_max_epu8(v, _mm_srli_si128(v, 2));
  v = _mm_max_epu8(v, _mm_srli_si128(v, 1));
  return static_cast<unsigned>(_mm_cvtsi128_si32(v)) & 0xFF;
}

inline unsigned HorizontalMin8(__m128i v) {
  v = _mm_min_epu8(v, _mm_srli_si128(v, 8));
  v = _mm_min_epu8(v, _mm_srli_si128(v, 4));
  v = _mm_min_epu8(v, _mm_srli_si128(v, 2));
  v = _mm_min_epu8(v, _mm_srli_si128(v, 1));
  return static_cast<unsigned>(_mm_cvtsi128_si32(v)) & 0xFF;
}

// The largest byte in every lane.
inline __m128i BroadcastMax8(__m128i v) {
  v = _mm_max_epu8(v, _mm_shuffle_epi32(v, 0x4E));
  v = _mm_max_epu8(v, _mm_shuffle_epi32(v, 0xB1));
  v = _mm_max_epu8(v, _mm_shufflehi_epi16(_mm_shufflelo_epi16(v, 0xB1), 0xB1));
  return _mm_max_epu8(v, _mm_or_si128(_mm_srli_epi16(v, 8), _mm_slli_epi16(v, 8)));
}

// Two bit masks (one bit per pixel) to the 2-bit index word.
inline std::uint32_t InterleaveIndexBits(__m128i low, __m128i high) {
  const auto lo = static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_unpacklo_epi8(low, high)));
  const auto hi = static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_unpackhi_epi8(low, high)));
  return lo | (hi << 16);
}

// 5:6:5 of a masked pixel word (bytes 0, 1, 2 masked with F8, FC, F8).
template <bool Bgra>
inline std::uint32_t Pack565Word(std::uint32_t m) {
  if (Bgra) return ((m >> 8) & 0xF800) | ((m & 0xFC00) >> 5) | ((m & 0xF8) >> 3);
  return ((m & 0xF8) << 8) | ((m & 0xFC00) >> 5) | ((m >> 19) & 0x1F);
}

inline std::uint32_t Load32(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

// Broadcasts 16-bit lane `L` (whose two bytes are equal) to every byte.
template <int L>
inline __m128i SplatLane(__m128i v) {
  if constexpr (L < 4)
    return _mm_shuffle_epi32(_mm_shufflelo_epi16(v, L * 0x55), 0x00);
  else
    return _mm_shuffle_epi32(_mm_shufflehi_epi16(v, (L - 4) * 0x55), 0xAA);
}

// Sum of absolute differences to the palette entry held in lanes L..L+2.
template <int L>
inline __m128i Distance(__m128i x, __m128i y, __m128i z, __m128i entries) {
  return _mm_add_epi8(_mm_add_epi8(AbsDiff8(x, SplatLane<L>(entries)), AbsDiff8(y, SplatLane<L + 1>(entries))),
                      AbsDiff8(z, SplatLane<L + 2>(entries)));
}

// First half of the colour kernel: scaled channel planes and the endpoint
// pixels. Split from the second half so that two blocks can be interleaved
// (the kernel is one long dependency chain; two chains keep the core busy).
struct ColourScan {
  __m128i x, y, z, opaque;
  int minI, maxI;
  bool hasTransparent;
};

template <bool Dxt1>
inline ColourScan ScanColour(const Planes& pl) {
  // Channels divided by 4 after masking: 0..62, 0..63, 0..62.
  const __m128i x = _mm_and_si128(_mm_srli_epi16(pl.c0, 2), _mm_set1_epi8(0x3E));
  const __m128i y = _mm_and_si128(_mm_srli_epi16(pl.c1, 2), _mm_set1_epi8(0x3F));
  const __m128i z = _mm_and_si128(_mm_srli_epi16(pl.c2, 2), _mm_set1_epi8(0x3E));
  const __m128i key = _mm_add_epi8(_mm_add_epi8(x, y), z);
  const __m128i ones = _mm_set1_epi8(-1);
  const __m128i opaque = Dxt1 ? _mm_cmplt_epi8(pl.a, _mm_setzero_si128()) : ones;
  const bool hasTransparent = Dxt1 && _mm_movemask_epi8(opaque) != 0xFFFF;

  // Transparent pixels take key 255: above every real key, so never a new
  // minimum. Running maximum of 255 - key, with 0 as the neutral start.
  const __m128i inv = _mm_andnot_si128(_mm_or_si128(key, _mm_andnot_si128(opaque, ones)), ones);
  __m128i run = _mm_max_epu8(inv, _mm_slli_si128(inv, 1));
  run = _mm_max_epu8(run, _mm_slli_si128(run, 2));
  run = _mm_max_epu8(run, _mm_slli_si128(run, 4));
  run = _mm_max_epu8(run, _mm_slli_si128(run, 8));
  const __m128i before = _mm_slli_si128(run, 1);
  // The last lane holds the overall maximum: broadcast it and find its first lane.
  __m128i top = _mm_shuffle_epi32(_mm_shufflehi_epi16(run, 0xFF), 0xFF);
  top = _mm_or_si128(_mm_srli_epi16(top, 8), _mm_slli_epi16(_mm_srli_epi16(top, 8), 8));
  const int minMask = _mm_movemask_epi8(_mm_cmpeq_epi8(inv, top));
  const int minI = std::countr_zero(static_cast<unsigned>(minMask) | 0x10000u) & 15;  // all transparent: pixel 0
  // Maximum candidates: opaque pixels that did not lower the running minimum.
  const __m128i kept = _mm_cmpeq_epi8(_mm_max_epu8(inv, before), before);
  const __m128i cand = _mm_and_si128(_mm_and_si128(kept, opaque), key);
  // First lane holding the largest candidate; with no candidate every lane
  // is 0 and pixel 0 is taken, as the scan's starting index.
  const int maxI = std::countr_zero(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(cand, BroadcastMax8(cand)))));
  return {x, y, z, opaque, minI, maxI, hasTransparent};
}

template <bool Bgra>
inline void FinishColour(const ColourScan& scan, const std::uint8_t* const rows[4], std::uint8_t out[8]) {
  const __m128i x = scan.x, y = scan.y, z = scan.z, opaque = scan.opaque;
  const int minI = scan.minI, maxI = scan.maxI;
  const bool hasTransparent = scan.hasTransparent;
  const __m128i ones = _mm_set1_epi8(-1);
  constexpr std::uint32_t kMask = 0x00F8FCF8u;
  std::uint32_t m0 = Load32(rows[minI >> 2] + 4 * (minI & 3)) & kMask;
  std::uint32_t m1 = Load32(rows[maxI >> 2] + 4 * (maxI & 3)) & kMask;
  std::uint32_t c0 = Pack565Word<Bgra>(m0), c1 = Pack565Word<Bgra>(m1);
  const bool three = hasTransparent || c0 == c1;
  if (three ? c0 > c1 : c0 < c1) {
    std::swap(c0, c1);
    std::swap(m0, m1);
  }
  // Endpoints as 16-bit lanes [x0 y0 z0 0 x1 y1 z1 0]; the two derived entries
  // are computed side by side: (2e0 + e1) / 3 and (e0 + 2e1) / 3, or the mean.
  const __m128i ends = _mm_unpacklo_epi8(_mm_cvtsi32_si128(static_cast<int>(m0)), _mm_setzero_si128());
  const __m128i e01 = _mm_unpacklo_epi64(ends, _mm_unpacklo_epi8(_mm_cvtsi32_si128(static_cast<int>(m1)),
                                                                 _mm_setzero_si128()));
  const __m128i lo = _mm_unpacklo_epi64(e01, e01), hi = _mm_unpackhi_epi64(e01, e01);
  const __m128i chanMask = _mm_set_epi16(0, 0xF8, 0xFC, 0xF8, 0, 0xF8, 0xFC, 0xF8);
  __m128i e23;
  if (three)
    e23 = _mm_and_si128(_mm_srli_epi16(_mm_add_epi16(lo, hi), 1), chanMask);
  else  // exact division by 3 for sums below 2^15
    e23 = _mm_and_si128(
        _mm_srli_epi16(_mm_mulhi_epu16(_mm_add_epi16(_mm_add_epi16(lo, hi), e01), _mm_set1_epi16(-21845)), 1),
        chanMask);
  // Scaled by 1/4 and doubled into both bytes of each lane for the broadcasts.
  __m128i p01 = _mm_srli_epi16(e01, 2), p23 = _mm_srli_epi16(e23, 2);
  p01 = _mm_or_si128(p01, _mm_slli_epi16(p01, 8));
  p23 = _mm_or_si128(p23, _mm_slli_epi16(p23, 8));
  const __m128i d0 = Distance<0>(x, y, z, p01), d1 = Distance<4>(x, y, z, p01), d2 = Distance<0>(x, y, z, p23);
  std::uint32_t indices;
  if (!three) {
    const __m128i d3 = Distance<4>(x, y, z, p23);
    const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
    const __m128i b0 = _mm_xor_si128(d0, bias), b1 = _mm_xor_si128(d1, bias), b2 = _mm_xor_si128(d2, bias),
                  b3 = _mm_xor_si128(d3, bias);
    const __m128i g03 = _mm_cmpgt_epi8(b0, b3);
    const __m128i x0 = _mm_and_si128(_mm_cmpgt_epi8(b1, b2), _mm_cmpgt_epi8(b0, b2));
    const __m128i x1 = _mm_and_si128(g03, _mm_cmpgt_epi8(b1, b3));
    const __m128i x2 = _mm_and_si128(g03, _mm_cmpgt_epi8(b2, b3));
    indices = InterleaveIndexBits(x2, _mm_or_si128(x0, x1));
  } else {
    const __m128i transparent = _mm_andnot_si128(opaque, ones);
    const __m128i lt10 = Greater8(d0, d1);
    const __m128i lt2 = Greater8(_mm_min_epu8(d0, d1), d2);
    const __m128i bit0 = _mm_or_si128(_mm_andnot_si128(lt2, lt10), transparent);
    const __m128i bit1 = _mm_or_si128(lt2, transparent);
    indices = InterleaveIndexBits(bit0, bit1);
  }
  Store32(out, c0 | (c1 << 16));
  Store32(out + 4, indices);
}

inline void EncodeColourPlanes(const Planes& pl, const std::uint8_t* const rows[4], bool bgra, bool dxt1,
                               std::uint8_t out[8]) {
  const ColourScan scan = dxt1 ? ScanColour<true>(pl) : ScanColour<false>(pl);
  bgra ? FinishColour<true>(scan, rows, out) : FinishColour<false>(scan, rows, out);
}

// Bit i of a byte moved to bit 3i.
inline constexpr std::array<std::uint32_t, 256> kSpread3 = [] {
  std::array<std::uint32_t, 256> t{};
  for (unsigned v = 0; v < 256; ++v)
    for (unsigned i = 0; i < 8; ++i)
      if (v & (1u << i)) t[v] |= 1u << (3 * i);
  return t;
}();

inline std::uint64_t Spread3(unsigned mask16) {
  return kSpread3[mask16 & 0xFF] | (std::uint64_t{kSpread3[mask16 >> 8]} << 24);
}

inline void EncodeAlphaPlane(__m128i a, std::uint8_t out[8]) {
  const __m128i ones = _mm_set1_epi8(-1);
  const __m128i extreme = _mm_or_si128(_mm_cmpeq_epi8(a, _mm_setzero_si128()), _mm_cmpeq_epi8(a, ones));
  const bool hasExtremes = _mm_movemask_epi8(extreme) != 0;
  // 0 and 255 take part in neither scan: as 255 they never lower the minimum.
  const __m128i minKey = _mm_or_si128(a, extreme);
  const unsigned minA = HorizontalMin8(minKey);
  const __m128i cand = _mm_and_si128(_mm_andnot_si128(_mm_or_si128(LowersRunningMin(minKey), extreme), ones), a);
  const unsigned maxA = HorizontalMax8(cand);

  unsigned a0, a1;
  bool six;
  OrderAlphaEndpoints(minA, maxA, hasExtremes, a0, a1, six);
  unsigned pal[8];
  MakeAlphaPalette(pal, a0, a1, six);
  // Running argmin; a strictly smaller distance wins, so ties keep the lower index.
  __m128i best = AbsDiff8(a, Splat8(pal[0]));
  __m128i index = _mm_setzero_si128();
  for (unsigned k = 1; k < 8; ++k) {
    const __m128i dk = AbsDiff8(a, Splat8(pal[k]));
    const __m128i better = Greater8(best, dk);
    best = _mm_min_epu8(best, dk);
    index = _mm_or_si128(_mm_andnot_si128(better, index), _mm_and_si128(better, Splat8(k)));
  }
  const auto b0 = static_cast<unsigned>(_mm_movemask_epi8(_mm_slli_epi16(index, 7)));
  const auto b1 = static_cast<unsigned>(_mm_movemask_epi8(_mm_slli_epi16(index, 6)));
  const auto b2 = static_cast<unsigned>(_mm_movemask_epi8(_mm_slli_epi16(index, 5)));
  PackAlphaBlock(a0, a1, Spread3(b0) | (Spread3(b1) << 1) | (Spread3(b2) << 2), out);
}

inline void EncodeColourSse2(const std::uint8_t* const rows[4], bool bgra, bool dxt1, std::uint8_t out[8]) {
  EncodeColourPlanes(LoadPlanes(rows), rows, bgra, dxt1, out);
}

inline void EncodeAlphaSse2(const std::uint8_t* const rows[4], std::uint8_t out[8]) {
  EncodeAlphaPlane(LoadPlanes(rows).a, out);
}

#endif  // KEL_DXT_SSE2

// ---- Dispatch -------------------------------------------------------------------

inline void EncodeDxt1Block(const std::uint8_t* const rows[4], bool bgra, std::uint8_t out[8]) {
#if KEL_DXT_SSE2
  EncodeColourPlanes(LoadPlanes(rows), rows, bgra, true, out);
#else
  EncodeColourScalar(rows, bgra, true, out);
#endif
}

inline void EncodeDxt5Block(const std::uint8_t* const rows[4], bool bgra, std::uint8_t out[16]) {
#if KEL_DXT_SSE2
  const Planes pl = LoadPlanes(rows);
  EncodeAlphaPlane(pl.a, out);
  EncodeColourPlanes(pl, rows, bgra, false, out + 8);
#else
  EncodeAlphaScalar(rows, out);
  EncodeColourScalar(rows, bgra, false, out + 8);
#endif
}

// Two neighbouring blocks with the same results as two single calls; the
// SSE2 version interleaves their dependency chains.
template <bool Bgra, bool Dxt5>
inline void EncodeBlockPair(const std::uint8_t* const rowsA[4], const std::uint8_t* const rowsB[4],
                            std::uint8_t* outA, std::uint8_t* outB) {
#if KEL_DXT_SSE2
  const Planes pa = LoadPlanes(rowsA), pb = LoadPlanes(rowsB);
  const ColourScan sa = ScanColour<!Dxt5>(pa), sb = ScanColour<!Dxt5>(pb);
  if constexpr (Dxt5) {
    EncodeAlphaPlane(pa.a, outA);
    EncodeAlphaPlane(pb.a, outB);
    outA += 8;
    outB += 8;
  }
  FinishColour<Bgra>(sa, rowsA, outA);
  FinishColour<Bgra>(sb, rowsB, outB);
#else
  if constexpr (Dxt5) {
    EncodeDxt5Block(rowsA, Bgra, outA);
    EncodeDxt5Block(rowsB, Bgra, outB);
  } else {
    EncodeDxt1Block(rowsA, Bgra, outA);
    EncodeDxt1Block(rowsB, Bgra, outB);
  }
#endif
}

// ---- Decoder ----------------------------------------------------------------------

// 5:6:5 to 8 bits: shift up and fill the vacated bits with ones when the
// field's lowest bit is set (the library's own expansion, not replication).
inline unsigned Expand5(unsigned v) { return (v << 3) | ((v & 1) * 7); }
inline unsigned Expand6(unsigned v) { return (v << 2) | ((v & 1) * 3); }

// Colour palette of a block as four pixel words (alpha byte 0 for DXT5,
// whose alpha comes from its alpha block). `colour` is the 8-byte colour half.
inline void DecodePalette(const std::uint8_t* colour, bool dxt5, bool bgra, std::uint32_t pal[4]) {
  const unsigned c0 = colour[0] | (colour[1] << 8), c1 = colour[2] | (colour[3] << 8);
  const unsigned rs = bgra ? 16 : 0, bs = bgra ? 0 : 16;
  unsigned e[2][3];
  for (int k = 0; k < 2; ++k) {
    const unsigned c = k ? c1 : c0;
    e[k][0] = Expand5(c >> 11);
    e[k][1] = Expand6((c >> 5) & 0x3F);
    e[k][2] = Expand5(c & 0x1F);
  }
  auto word = [&](unsigned r, unsigned g, unsigned b, unsigned a) -> std::uint32_t {
    return (r << rs) | (g << 8) | (b << bs) | (a << 24);
  };
  const unsigned opaque = dxt5 ? 0u : 255u;
  pal[0] = word(e[0][0], e[0][1], e[0][2], opaque);
  pal[1] = word(e[1][0], e[1][1], e[1][2], opaque);
  if (!dxt5 && c0 <= c1) {
    pal[2] = word((e[0][0] + e[1][0]) >> 1, (e[0][1] + e[1][1]) >> 1, (e[0][2] + e[1][2]) >> 1, 255);
    pal[3] = 0;
  } else {
    pal[2] = word((2 * e[0][0] + e[1][0]) / 3, (2 * e[0][1] + e[1][1]) / 3, (2 * e[0][2] + e[1][2]) / 3, opaque);
    pal[3] = word((e[0][0] + 2 * e[1][0]) / 3, (e[0][1] + 2 * e[1][1]) / 3, (e[0][2] + 2 * e[1][2]) / 3, opaque);
  }
}

// Alpha palette of a DXT5 block: a0 >= a1 (greater or equal) selects the
// eight-value palette, else the six-value one with 0 and 255.
inline void DecodeAlphaPalette(const std::uint8_t* in, std::uint8_t apal[8]) {
  const unsigned a0 = in[0], a1 = in[1];
  apal[0] = static_cast<std::uint8_t>(a0);
  apal[1] = static_cast<std::uint8_t>(a1);
  if (a0 >= a1) {
    for (unsigned k = 1; k <= 6; ++k) apal[1 + k] = static_cast<std::uint8_t>(((7 - k) * a0 + k * a1) / 7);
  } else {
    for (unsigned k = 1; k <= 4; ++k) apal[1 + k] = static_cast<std::uint8_t>(((5 - k) * a0 + k * a1) / 5);
    apal[6] = 0;
    apal[7] = 255;
  }
}

// The 48 index bits of a DXT5 alpha block, pixel i at bit 3i.
inline std::uint64_t AlphaBits(const std::uint8_t* in) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, in + 2, 6);  // little-endian
  return bits;
}

// Decodes one block into 4 rows of 4 pixels at `out` + row * `stride`. Pixels
// are written as little-endian words with red at byte 0 (`bgra` false) or
// byte 2; alpha at byte 3. `in` holds 8 bytes (DXT1) or 16 (DXT5).
inline void DecodeBlockScalar(const std::uint8_t* in, bool dxt5, bool bgra, std::uint8_t* out, std::size_t stride) {
  std::uint32_t pal[4];
  DecodePalette(dxt5 ? in + 8 : in, dxt5, bgra, pal);
  const std::uint8_t* colour = dxt5 ? in + 8 : in;
  const std::uint32_t idx = colour[4] | (colour[5] << 8) | (colour[6] << 16) | (std::uint32_t{colour[7]} << 24);
  std::uint8_t apal[8] = {};
  std::uint64_t abits = 0;
  if (dxt5) {
    DecodeAlphaPalette(in, apal);
    abits = AlphaBits(in);
  }
  for (int row = 0; row < 4; ++row) {
    std::uint32_t px[4];
    for (int i = 0; i < 4; ++i) {
      const int n = 4 * row + i;
      px[i] = pal[(idx >> (2 * n)) & 3];
      if (dxt5) px[i] |= std::uint32_t{apal[(abits >> (3 * n)) & 7]} << 24;
    }
    std::memcpy(out + row * stride, px, 16);
  }
}

#if KEL_DXT_SSE2
// The palette of DecodePalette as one vector of four pixel words, computed in
// 16-bit lanes: both endpoints widened at once (shift into place, then fill
// the low bits with ones where the field's lowest bit is set), the two thirds
// as (2a + b) * 21846 >> 16, which is exact division by 3 up to 765.
inline __m128i DecodePaletteSse2(const std::uint8_t* colour, bool dxt5, bool bgra) {
  const unsigned c0 = colour[0] | (colour[1] << 8), c1 = colour[2] | (colour[3] << 8);
  // Lanes 0-2 and 4-6: the channels in output byte order (r, g, b or b, g, r).
  const __m128i c = _mm_unpacklo_epi64(_mm_set1_epi16(static_cast<short>(c0)), _mm_set1_epi16(static_cast<short>(c1)));
  const __m128i field = bgra ? _mm_setr_epi16(0x001F, 0x07E0, static_cast<short>(0xF800), 0, 0x001F, 0x07E0, static_cast<short>(0xF800), 0)
                             : _mm_setr_epi16(static_cast<short>(0xF800), 0x07E0, 0x001F, 0, static_cast<short>(0xF800), 0x07E0, 0x001F, 0);
  const __m128i x = _mm_and_si128(c, field);
  // Red and green move down (high half of a product), blue moves up (low half).
  const __m128i down = bgra ? _mm_setr_epi16(0, 1 << 13, 1 << 8, 0, 0, 1 << 13, 1 << 8, 0)
                            : _mm_setr_epi16(1 << 8, 1 << 13, 0, 0, 1 << 8, 1 << 13, 0, 0);
  const __m128i up = bgra ? _mm_setr_epi16(8, 0, 0, 0, 8, 0, 0, 0) : _mm_setr_epi16(0, 0, 8, 0, 0, 0, 8, 0);
  __m128i e = _mm_or_si128(_mm_mulhi_epu16(x, down), _mm_mullo_epi16(x, up));
  // The field's lowest bit sits at bit 3 (5-bit fields) or bit 2 (green).
  const __m128i low = _mm_setr_epi16(8, 4, 8, 0, 8, 4, 8, 0);
  const __m128i fill = _mm_setr_epi16(7, 3, 7, 0, 7, 3, 7, 0);
  e = _mm_or_si128(e, _mm_and_si128(_mm_cmpeq_epi16(_mm_and_si128(e, low), low), fill));
  const __m128i swapped = _mm_shuffle_epi32(e, _MM_SHUFFLE(1, 0, 3, 2));  // [e1 | e0]
  __m128i mid;
  const bool threeColour = !dxt5 && c0 <= c1;
  if (threeColour) {
    // Entry 2 the mean, entry 3 transparent black.
    mid = _mm_srli_epi16(_mm_add_epi16(e, swapped), 1);
    mid = _mm_unpacklo_epi64(mid, _mm_setzero_si128());
  } else {
    mid = _mm_mulhi_epu16(_mm_add_epi16(_mm_add_epi16(e, e), swapped), _mm_set1_epi16(21846));
  }
  __m128i pal = _mm_packus_epi16(e, mid);
  if (!dxt5) {
    const __m128i opaque = threeColour ? _mm_setr_epi32(-16777216, -16777216, -16777216, 0) : _mm_set1_epi32(-16777216);
    pal = _mm_or_si128(pal, opaque);
  }
  return pal;
}

// Rows of four pixels as vectors: each 2-bit index picks its palette word by
// compare and select (the selects are exclusive, so xor-ing the differences
// to entry 0 in is a blend). The four indices of a row are shifted apart in
// one 16-bit multiply: lane j holds the row's byte shifted left by 6 - 2j.
// The alpha of a DXT5 block's 16 pixels, in the top byte of four rows of
// pixel words. No table: each pixel's alpha is computed from its 3-bit index
// k as (w0 * a0 + w1 * a1) / d in 16-bit lanes, with the weights following
// from k (eight values: d 7, weights (7, 0), (0, 7), then (8 - k, k - 1);
// six values: d 5, the same up to k 5, then 0 and 255) and the division a
// multiply by ceil(65536 / d), exact for every sum that can occur (<= 1785).
struct AlphaRows {
  __m128i row[4];
};

inline AlphaRows DecodeAlphaSse2(const std::uint8_t* in) {
  const unsigned a0 = in[0], a1 = in[1];
  // The 6 index bytes and 2 colour bytes after them, in one load (a 6-byte
  // copy through memory stalls store forwarding); no index reaches the
  // colour bytes. 16-bit lanes l_i = byte i | byte i+1 << 8: lanes 0-2 hold
  // the index bits of pixels 0-7, lanes 3-5 those of pixels 8-15.
  const __m128i x = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in + 2));
  const __m128i l = _mm_unpacklo_epi8(x, _mm_srli_si128(x, 1));
  auto spread = [](__m128i w) {  // [w0 w0 w0 w1 w1 w1 w2 w2]
    const __m128i both = _mm_unpacklo_epi64(w, w);
    return _mm_shufflehi_epi16(_mm_shufflelo_epi16(both, _MM_SHUFFLE(1, 0, 0, 0)), _MM_SHUFFLE(2, 2, 1, 1));
  };
  // Pixel j's bits start at bit 3j mod 8 of its lane: shift them to the top, then down.
  const __m128i align = _mm_setr_epi16(8192, 1024, 128, 4096, 512, 64, 2048, 256);
  const __m128i k[2] = {_mm_srli_epi16(_mm_mullo_epi16(spread(l), align), 13),
                        _mm_srli_epi16(_mm_mullo_epi16(spread(_mm_srli_si128(l, 6)), align), 13)};
  const bool eight = a0 >= a1;
  const __m128i d = _mm_set1_epi16(eight ? 7 : 5);
  const __m128i va0 = _mm_set1_epi16(static_cast<short>(a0)), va1 = _mm_set1_epi16(static_cast<short>(a1));
  const __m128i reciprocal = _mm_set1_epi16(static_cast<short>(eight ? 9363 : 13108));
  const __m128i zero = _mm_setzero_si128(), one = _mm_set1_epi16(1);
  AlphaRows out;
  for (int h = 0; h < 2; ++h) {
    const __m128i eq0 = _mm_cmpeq_epi16(k[h], zero), eq1 = _mm_cmpeq_epi16(k[h], one);
    // w1: 0 for k 0, d for k 1, k - 1 otherwise; w0 = d - w1.
    __m128i w1 = _mm_add_epi16(_mm_sub_epi16(_mm_sub_epi16(k[h], one), eq0), _mm_and_si128(eq1, d));
    __m128i w0 = _mm_sub_epi16(d, w1);
    __m128i top = zero;
    if (!eight) {
      const __m128i high = _mm_cmpgt_epi16(k[h], _mm_set1_epi16(5));  // 6 and 7: 0 and 255
      w0 = _mm_andnot_si128(high, w0);
      w1 = _mm_andnot_si128(high, w1);
      top = _mm_and_si128(_mm_cmpeq_epi16(k[h], _mm_set1_epi16(7)), _mm_set1_epi16(255));
    }
    const __m128i sum = _mm_add_epi16(_mm_mullo_epi16(w0, va0), _mm_mullo_epi16(w1, va1));
    const __m128i alpha = _mm_slli_epi16(_mm_or_si128(_mm_mulhi_epu16(sum, reciprocal), top), 8);
    out.row[2 * h] = _mm_unpacklo_epi16(zero, alpha);
    out.row[2 * h + 1] = _mm_unpackhi_epi16(zero, alpha);
  }
  return out;
}

inline void DecodeBlockSse2(const std::uint8_t* in, bool dxt5, bool bgra, std::uint8_t* out, std::size_t stride) {
  const std::uint8_t* colour = dxt5 ? in + 8 : in;
  const __m128i pal = DecodePaletteSse2(colour, dxt5, bgra);
  std::uint32_t idx;
  std::memcpy(&idx, colour + 4, 4);
  const __m128i p0 = _mm_shuffle_epi32(pal, 0x00);
  const __m128i d1 = _mm_xor_si128(p0, _mm_shuffle_epi32(pal, 0x55));
  const __m128i d2 = _mm_xor_si128(p0, _mm_shuffle_epi32(pal, 0xAA));
  const __m128i d3 = _mm_xor_si128(p0, _mm_shuffle_epi32(pal, 0xFF));
  const __m128i scale = _mm_setr_epi32(64, 16, 4, 1);
  const __m128i one = _mm_set1_epi32(1), two = _mm_set1_epi32(2), three = _mm_set1_epi32(3);
  AlphaRows alpha;
  if (dxt5) alpha = DecodeAlphaSse2(in);
  for (int row = 0; row < 4; ++row) {
    const __m128i b = _mm_set1_epi32(static_cast<int>((idx >> (8 * row)) & 0xFF));
    const __m128i k = _mm_and_si128(_mm_srli_epi32(_mm_mullo_epi16(b, scale), 6), three);
    __m128i px = _mm_xor_si128(p0, _mm_and_si128(_mm_cmpeq_epi32(k, one), d1));
    px = _mm_xor_si128(px, _mm_and_si128(_mm_cmpeq_epi32(k, two), d2));
    px = _mm_xor_si128(px, _mm_and_si128(_mm_cmpeq_epi32(k, three), d3));
    if (dxt5) px = _mm_or_si128(px, alpha.row[row]);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + row * stride), px);
  }
}
#endif

inline void DecodeBlock(const std::uint8_t* in, bool dxt5, bool bgra, std::uint8_t* out, std::size_t stride) {
#if KEL_DXT_SSE2
  DecodeBlockSse2(in, dxt5, bgra, out, stride);
#else
  DecodeBlockScalar(in, dxt5, bgra, out, stride);
#endif
}

}  // namespace kel::detail
