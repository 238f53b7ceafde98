// DDS texture files and buffers. The header is built and parsed word by word
// through little-endian helpers, never by casting a struct over the bytes.
#include "kel/image/dds.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>
#include <fstream>

#include "image/detail/dxt_block.h"
#include "kel/core/atomic_file.h"
#include "kel/core/log.h"
#include "kel/core/path.h"
#include "kel/core/wexception.h"
#include "kel/image/image_util.h"

namespace kel {
namespace {

constexpr std::size_t kMagicBytes = 4;
constexpr std::size_t kHeaderBytes = 124;
constexpr std::size_t kDataOffset = kMagicBytes + kHeaderBytes;
constexpr char kMagic[4] = {'D', 'D', 'S', ' '};

// Word indices of the 31 header words.
enum Field : std::size_t {
  kSize = 0,
  kFlags = 1,
  kHeight = 2,
  kWidth = 3,
  kPitchOrLinearSize = 4,
  kDepth = 5,
  kMipMapCount = 6,
  // 7..17 reserved
  kPfSize = 18,
  kPfFlags = 19,
  kPfFourCC = 20,
  kPfRGBBitCount = 21,
  kPfRMask = 22,
  kPfGMask = 23,
  kPfBMask = 24,
  kPfAMask = 25,
  kCaps = 26,
  kCaps2 = 27,
  kFieldCount = 31,
};

constexpr std::uint32_t kFlagsUncompressed = 0x100F;  // caps, height, width, pitch, pixel format
constexpr std::uint32_t kFlagsCompressed = 0x81007;   // caps, height, width, pixel format, linear size
constexpr std::uint32_t kPfAlphaPixelsRgb = 0x41;
constexpr std::uint32_t kPfFourCCFlag = 0x4;
constexpr std::uint32_t kCapsTexture = 0x1000;
constexpr std::uint32_t kCaps2CubeMap = 0x200;

constexpr std::uint32_t FourCC(char a, char b, char c, char d) {
  return std::uint32_t(std::uint8_t(a)) | std::uint32_t(std::uint8_t(b)) << 8 | std::uint32_t(std::uint8_t(c)) << 16 |
         std::uint32_t(std::uint8_t(d)) << 24;
}

using Header = std::array<std::uint32_t, kFieldCount>;

void PutU32(unsigned char* p, std::uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}

std::uint32_t GetU32(const unsigned char* p) {
  return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[3]) << 24;
}

void WriteHeader(const Header& h, unsigned char* out) {
  for (std::size_t i = 0; i < kFieldCount; ++i) PutU32(out + 4 * i, h[i]);
}

Header ReadHeader(const unsigned char* in) {
  Header h;
  for (std::size_t i = 0; i < kFieldCount; ++i) h[i] = GetU32(in + 4 * i);
  return h;
}

Header MakeHeader(const IImage& image) {
  Header h{};
  const auto w = static_cast<std::uint32_t>(image.width());
  const auto ht = static_cast<std::uint32_t>(image.height());
  const IImage::Format format = image.format();
  h[kSize] = kHeaderBytes;
  h[kHeight] = ht;
  h[kWidth] = w;
  h[kPfSize] = 32;
  h[kCaps] = kCapsTexture;  // never the mip-map or complex bits, whatever the level count
  switch (format) {
    case IImage::RGBA:
    case IImage::BGRA:
      h[kFlags] = kFlagsUncompressed;
      h[kPitchOrLinearSize] = 4 * w;
      h[kPfFlags] = kPfAlphaPixelsRgb;
      h[kPfRGBBitCount] = 32;
      h[kPfRMask] = format == IImage::RGBA ? 0xFFu : 0xFF0000u;
      h[kPfGMask] = 0xFF00u;
      h[kPfBMask] = format == IImage::RGBA ? 0xFF0000u : 0xFFu;
      h[kPfAMask] = 0xFF000000u;
      break;
    case IImage::DXT1:
    case IImage::DXT5: {
      const auto bpp = static_cast<std::uint32_t>(IImage::BitsPerPixel(format));
      h[kFlags] = kFlagsCompressed;
      // 32-bit arithmetic on truncated block counts; wraps for huge images.
      h[kPitchOrLinearSize] = ((bpp * (w / 4) * (ht / 4)) << 4) >> 3;
      h[kPfFlags] = kPfFourCCFlag;
      h[kPfFourCC] = format == IImage::DXT1 ? FourCC('D', 'X', 'T', '1') : FourCC('D', 'X', 'T', '5');
      h[kPfRGBBitCount] = bpp;  // the format's bits per pixel, also for block formats
      break;
    }
    default:
      KEL_LOG_WARN(L"Unexpected image format. Can't create surface descriptor for dds.");
      return h;
  }
  h[kMipMapCount] = static_cast<std::uint32_t>(image.mipLevels());
  return h;
}

// ---- Reading ---------------------------------------------------------------------
//
// Files from other programs use the DDS layout: blocks of ceil(w/4) x ceil(h/4)
// and levels of max(1, w>>n) x max(1, h>>n). The image model sizes levels as
// exact quarters of level 0 (IImage::SizeInBytes), which agree only while the
// sizes divide evenly. Files this library wrote carry the model's sizes; a
// file whose pixel bytes are exactly the model's size is read that way, so
// our own files round-trip byte for byte.
// Otherwise each level goes where the model puts it, as long as the model has
// room for it; the first level it cannot hold ends the chain, with a warning.

constexpr std::uint32_t kPfAlphaPixels = 0x1;
constexpr std::uint32_t kPfRgb = 0x40;
constexpr std::uint32_t kPfLuminance = 0x20000;
constexpr std::uint32_t kCaps2Volume = 0x200000;
constexpr std::size_t kDx10Bytes = 20;
constexpr std::uint32_t kDx10Texture2D = 3;
constexpr std::uint32_t kDx10CubeFlag = 0x4;

// How the pixel bytes of a file are encoded.
enum class Encoding { Rgba, Bgra, Dxt1, Dxt3, Dxt5, Masked };

struct Layout {
  Encoding encoding = Encoding::Rgba;
  IImage::Format target = IImage::Unknown;  // what LoadTexture gives
  std::uint32_t maskBytes = 0;              // Masked: bytes per pixel
  std::uint32_t mask[4] = {};               // Masked: red, green, blue, alpha
  bool luminance = false;                   // Masked: red mask is grey
  std::uint64_t offset = kDataOffset;       // first pixel byte in the file
  std::string dropped;                      // what the image cannot hold, for the warning
  bool firstSliceOnly = false;              // cube, array or volume: keep the first image
};

std::wstring FourCCName(std::uint32_t v) {
  std::wstring name;
  for (int i = 0; i < 4; ++i) {
    const auto c = static_cast<unsigned char>(v >> (8 * i));
    name += c >= 32 && c < 127 ? static_cast<wchar_t>(c) : L'?';
  }
  return name;
}

std::wstring Hex(std::uint32_t v) {
  wchar_t buf[16];
  std::swprintf(buf, 16, L"0x%X", v);
  return buf;
}

// Thrown for formats we cannot load: the library's message, then the format.
[[noreturn]] void Unsupported(const std::wstring& message, const std::wstring& format) {
  throw wexception(message + L" Found: " + format + L".");
}

bool MasksFit(const std::uint32_t mask[4], std::uint32_t bits) {
  const std::uint64_t room = bits >= 32 ? 0xFFFFFFFFull : (1ull << bits) - 1;
  if (mask[0] == 0) return false;
  for (int i = 0; i < 4; ++i)
    if (mask[i] & ~room) return false;
  return true;
}

// Decides how a header's pixels are read and what they load as. `dx10`
// points at the 20 bytes after the header, or is null when the data holds
// fewer. Throws the unsupported-format message `unsupported` naming the format.
Layout Recognise(const Header& h, const unsigned char* dx10, const std::wstring& unsupported) {
  Layout l;
  const std::uint32_t bits = h[kPfRGBBitCount], flags = h[kPfFlags];
  const std::uint32_t r = h[kPfRMask], g = h[kPfGMask], b = h[kPfBMask], a = h[kPfAMask];
  auto set = [&](Encoding e, IImage::Format f) {
    l.encoding = e;
    l.target = f;
  };
  // An extended header decides by itself, whatever bit count a writer left.
  const bool extended = (flags & kPfFourCCFlag) && h[kPfFourCC] == FourCC('D', 'X', '1', '0');
  if (!extended && bits == 32 && r == 0xFF && g == 0xFF00 && b == 0xFF0000 && a == 0xFF000000u) {
    set(Encoding::Rgba, IImage::RGBA);
  } else if (!extended && bits == 32 && r == 0xFF0000 && g == 0xFF00 && b == 0xFF && a == 0xFF000000u) {
    set(Encoding::Bgra, IImage::BGRA);
  } else if (extended || (bits != 32 && (flags & kPfFourCCFlag))) {
    const std::uint32_t code = h[kPfFourCC];
    if (code == FourCC('D', 'X', 'T', '1')) set(Encoding::Dxt1, IImage::DXT1);
    else if (code == FourCC('D', 'X', 'T', '3')) set(Encoding::Dxt3, IImage::RGBA);
    else if (code == FourCC('D', 'X', 'T', '5')) set(Encoding::Dxt5, IImage::DXT5);
    else if (code != FourCC('D', 'X', '1', '0')) Unsupported(unsupported, L"FourCC " + FourCCName(code));
    else {
      if (!dx10) Unsupported(unsupported, L"FourCC DX10 without its extended header");
      const std::uint32_t dxgi = GetU32(dx10), dimension = GetU32(dx10 + 4), misc = GetU32(dx10 + 8),
                          arraySize = GetU32(dx10 + 12);
      if (dimension != kDx10Texture2D)
        Unsupported(unsupported, L"DX10 resource dimension " + std::to_wstring(dimension));
      switch (dxgi) {
        case 70: case 71: case 72: set(Encoding::Dxt1, IImage::DXT1); break;
        case 73: case 74: case 75: set(Encoding::Dxt3, IImage::RGBA); break;
        case 76: case 77: case 78: set(Encoding::Dxt5, IImage::DXT5); break;
        case 27: case 28: case 29: set(Encoding::Rgba, IImage::RGBA); break;
        case 87: case 90: case 91: set(Encoding::Bgra, IImage::BGRA); break;
        case 88: case 92: case 93:  // B8G8R8X8
          set(Encoding::Masked, IImage::RGBA);
          l.maskBytes = 4;
          l.mask[0] = 0xFF0000;
          l.mask[1] = 0xFF00;
          l.mask[2] = 0xFF;
          break;
        default: Unsupported(unsupported, L"DXGI format " + std::to_wstring(dxgi));
      }
      l.offset = kDataOffset + kDx10Bytes;
      if (arraySize > 1 || (misc & kDx10CubeFlag)) l.firstSliceOnly = true;
    }
  } else if ((bits == 32 || (flags & (kPfRgb | kPfLuminance))) && (bits == 8 || bits == 16 || bits == 24 || bits == 32)) {
    set(Encoding::Masked, IImage::RGBA);
    l.maskBytes = bits / 8;
    l.mask[0] = r;
    l.mask[1] = (flags & kPfLuminance) ? 0 : g;
    l.mask[2] = (flags & kPfLuminance) ? 0 : b;
    l.mask[3] = (flags & kPfAlphaPixels) || bits == 32 ? a : 0;
    l.luminance = (flags & kPfLuminance) != 0;
    if (!MasksFit(l.mask, bits) || (!l.luminance && (l.mask[1] == 0 || l.mask[2] == 0)))
      Unsupported(unsupported, std::to_wstring(bits) + L"-bit masks R " + Hex(r) + L" G " + Hex(g) + L" B " +
                                   Hex(b) + L" A " + Hex(a));
  } else if (flags & kPfFourCCFlag) {
    Unsupported(unsupported, L"FourCC " + FourCCName(h[kPfFourCC]) + L" with " + std::to_wstring(bits) + L" bits");
  } else {
    Unsupported(unsupported, L"pixel format flags " + Hex(flags) + L" with " + std::to_wstring(bits) + L" bits");
  }
  if (h[kCaps2] & kCaps2CubeMap) l.firstSliceOnly = true;
  if ((h[kCaps2] & kCaps2Volume) && h[kDepth] > 1) l.firstSliceOnly = true;
  return l;
}

std::uint64_t BlockBytes(Encoding e) { return e == Encoding::Dxt1 ? 8 : 16; }
// The image format whose storage is the file's bytes, or Unknown.
IImage::Format StoredFormat(Encoding e) {
  switch (e) {
    case Encoding::Rgba: return IImage::RGBA;
    case Encoding::Bgra: return IImage::BGRA;
    case Encoding::Dxt1: return IImage::DXT1;
    case Encoding::Dxt5: return IImage::DXT5;
    default: return IImage::Unknown;
  }
}

bool IsBlocks(Encoding e) { return e == Encoding::Dxt1 || e == Encoding::Dxt3 || e == Encoding::Dxt5; }

std::uint64_t LevelSide(std::uint64_t side, std::uint64_t level) {
  return level >= 64 ? 1 : std::max<std::uint64_t>(1, side >> level);
}

// Bytes of one level in the DDS layout.
std::uint64_t DdsLevelBytes(const Layout& l, std::uint64_t w, std::uint64_t h) {
  if (IsBlocks(l.encoding)) return ((w + 3) / 4) * ((h + 3) / 4) * BlockBytes(l.encoding);
  const std::uint64_t px = l.encoding == Encoding::Masked ? l.maskBytes : 4;
  return w * h * px;
}

// Levels a full chain has: down to 1x1.
std::uint64_t ChainLength(std::uint64_t w, std::uint64_t h) {
  std::uint64_t n = 1;
  for (std::uint64_t m = std::max(w, h); m > 1; m >>= 1) ++n;
  return n;
}

// True when level n of a w x h image of `format` can hold the level the DDS
// layout gives: its rows at the model's pitch inside the model's level size.
bool ModelHolds(IImage::Format format, std::uint64_t w, std::uint64_t h, std::uint64_t n) {
  const std::uint64_t lw = LevelSide(w, n), lh = LevelSide(h, n);
  const std::uint64_t pitch = IImage::RowPitch(w, h, format) >> n;
  const std::uint64_t levelSize = (IImage::SizeInBytes(w, h, format, 1) >> n) >> n;
  std::uint64_t rowBytes = lw * 4, rows = lh;
  if (IImage::IsCompressed(format)) {
    rowBytes = (lw + 3) / 4 * (format == IImage::DXT1 ? 8 : 16);
    rows = (lh + 3) / 4;
  }
  return pitch == rowBytes && rows * pitch <= levelSize;
}

// A pixel channel from a mask, scaled to 8 bits (rounded).
struct Channel {
  std::uint32_t mask = 0, shift = 0, max = 0;
  explicit Channel(std::uint32_t m) : mask(m) {
    if (!m) return;
    while (!((m >> shift) & 1)) ++shift;
    max = m >> shift;
  }
  unsigned operator()(std::uint32_t v, unsigned absent) const {
    if (!mask) return absent;
    const std::uint32_t x = (v & mask) >> shift;
    return max == 255 ? x : static_cast<unsigned>((std::uint64_t{x} * 255 + max / 2) / max);
  }
};

// One level from its DDS bytes into an RGBA level of the image.
void ConvertLevel(const Layout& l, const unsigned char* in, std::uint64_t w, std::uint64_t h, std::uint8_t* out,
                  std::uint64_t pitch) {
  if (IsBlocks(l.encoding)) {
    const std::uint64_t across = (w + 3) / 4, down = (h + 3) / 4, bytes = BlockBytes(l.encoding);
    std::uint8_t px[64];
    for (std::uint64_t by = 0; by < down; ++by)
      for (std::uint64_t bx = 0; bx < across; ++bx) {
        const unsigned char* block = in + (by * across + bx) * bytes;
        if (l.encoding == Encoding::Dxt3) {
          // Colour as in DXT5 (always four colours), alpha from 4-bit values.
          unsigned char dxt5[16] = {255, 255};
          std::memcpy(dxt5 + 8, block + 8, 8);
          detail::DecodeBlock(dxt5, true, false, px, 16);
          for (int i = 0; i < 16; ++i) px[4 * i + 3] = static_cast<std::uint8_t>(((block[i / 2] >> (4 * (i & 1))) & 15) * 17);
        } else {
          detail::DecodeBlock(block, l.encoding == Encoding::Dxt5, false, px, 16);
        }
        const std::uint64_t rows = std::min<std::uint64_t>(4, h - by * 4), cols = std::min<std::uint64_t>(4, w - bx * 4);
        for (std::uint64_t j = 0; j < rows; ++j) std::memcpy(out + (by * 4 + j) * pitch + bx * 16, px + j * 16, cols * 4);
      }
    return;
  }
  const Channel r(l.mask[0]), g(l.mask[1]), b(l.mask[2]), a(l.mask[3]);
  const std::uint32_t n = l.maskBytes;
  for (std::uint64_t y = 0; y < h; ++y) {
    const unsigned char* p = in + y * w * n;
    std::uint8_t* q = out + y * pitch;
    for (std::uint64_t x = 0; x < w; ++x, p += n, q += 4) {
      std::uint32_t v = 0;
      for (std::uint32_t k = 0; k < n; ++k) v |= std::uint32_t{p[k]} << (8 * k);
      const unsigned red = r(v, 0);
      q[0] = static_cast<std::uint8_t>(red);
      q[1] = static_cast<std::uint8_t>(l.luminance ? red : g(v, 0));
      q[2] = static_cast<std::uint8_t>(l.luminance ? red : b(v, 0));
      q[3] = static_cast<std::uint8_t>(a(v, 255));
    }
  }
}

// What a file loads as, from its header and its size.
struct Plan {
  IImage::Format target = IImage::Unknown;
  bool own = false;             // the model's layout: written by this library
  std::uint64_t announced = 1;  // mip levels the header claims
  std::uint64_t levels = 1;     // levels of the first image in the DDS layout
  std::uint64_t kept = 1;       // levels the image model can hold
  std::uint64_t available = 0;  // pixel bytes after the header (and the DX10 block)
  std::uint64_t needed = 0;     // pixel bytes the plan reads
};

Plan MakePlan(const Header& h, const Layout& l, std::uint64_t dataSize) {
  Plan p;
  const std::uint64_t w = h[kWidth], ht = h[kHeight];
  const std::uint64_t extra = l.offset - kDataOffset;
  p.available = dataSize >= extra ? dataSize - extra : 0;
  p.announced = h[kMipMapCount] == 0 ? 1 : h[kMipMapCount];
  p.target = l.target;
  // Every encoding needs at least half a byte per pixel: checked first, so
  // that nothing below can overflow or allocate more than the input warrants.
  if (w * ht / 2 > p.available) {
    p.needed = ~std::uint64_t{0};
    return p;
  }
  if (w == 0 || ht == 0) {  // no pixels at all: an empty image, as the model has it
    p.own = true;
    p.kept = p.announced;
    return p;
  }
  // A volume's levels interleave its slices; only level 0's first slice is whole.
  const bool volume = l.firstSliceOnly && (h[kCaps2] & kCaps2Volume);
  p.levels = volume ? 1 : std::min(p.announced, ChainLength(w, ht));
  std::uint64_t ddsBytes = 0;
  for (std::uint64_t n = 0; n < p.levels; ++n) ddsBytes += DdsLevelBytes(l, LevelSide(w, n), LevelSide(ht, n));
  const IImage::Format stored = StoredFormat(l.encoding);
  const std::uint64_t modelBytes = stored != IImage::Unknown ? IImage::SizeInBytes(w, ht, stored, p.announced) : 0;
  // Equal sizes with unequal levels are ambiguous: ours win, so that our own
  // files always read back as written.
  if (stored != IImage::Unknown && extra == 0 && !l.firstSliceOnly && p.available == modelBytes) {
    p.own = true;
    p.kept = p.announced;
    p.needed = modelBytes;
    return p;
  }
  p.needed = ddsBytes;
  // Block data whose sides are not whole blocks cannot be an image of blocks.
  if (IImage::IsCompressed(p.target) && (w % 4 || ht % 4)) p.target = IImage::RGBA;
  p.kept = 1;  // level 0 always fits an RGBA image, and a block image of whole blocks
  while (p.kept < p.levels && ModelHolds(p.target, w, ht, p.kept)) ++p.kept;
  return p;
}

// The image a file describes. `dataSize` counts the bytes after the 128-byte
// header; `read(offset, target, n)` copies n file bytes from `offset` (counted
// from the start of the file) and returns false when they are not there.
template <class Read>
std::shared_ptr<IImage> LoadDds(const Header& h, const Layout& l, std::uint64_t dataSize, Read&& read,
                                const std::wstring& source) {
  const std::wstring shorter = L"DDS data is shorter than its header announces: " + source;
  const Plan p = MakePlan(h, l, dataSize);
  if (p.needed > p.available) throw wexception(shorter);
  const std::uint64_t w = h[kWidth], ht = h[kHeight];
  auto image = ImageUtil::CreateImage(w, ht, p.target, p.kept);
  if (p.own) {
    // Written by this library: the model's own layout, every level as it is.
    if (p.needed != 0 && !read(kDataOffset, image->lineData(0, 0), p.needed)) throw wexception(shorter);
    return image;
  }
  if (p.kept < p.announced)
    KEL_LOG_WARN(L"DDS mip levels the image model cannot hold were dropped (kept " + std::to_wstring(p.kept) +
                 L" of " + std::to_wstring(p.announced) + L"): " + source);
  if (l.firstSliceOnly) KEL_LOG_WARN(L"DDS cube map, array or volume: only the first image was loaded: " + source);

  const bool copy = p.target == StoredFormat(l.encoding);
  std::vector<unsigned char> bytes;
  std::uint64_t offset = l.offset;
  for (std::uint64_t n = 0; n < p.kept; ++n) {
    const std::uint64_t lw = LevelSide(w, n), lh = LevelSide(ht, n);
    const std::uint64_t size = DdsLevelBytes(l, lw, lh);
    std::uint8_t* out = image->lineData(0, n);
    if (copy) {
      // Whole rows at the model's pitch, which ModelHolds found equal.
      if (size != 0 && !read(offset, out, size)) throw wexception(shorter);
    } else {
      bytes.resize(size);
      if (size != 0 && !read(offset, bytes.data(), size)) throw wexception(shorter);
      ConvertLevel(l, bytes.data(), lw, lh, out, image->rowPitch() >> n);
    }
    // A level the model gives more room than it needs (2x1 in a quarter of
    // 4x2's 12 bytes) gets its slack cleared, not left to the allocator.
    const std::uint64_t room = (IImage::SizeInBytes(w, ht, p.target, 1) >> n) >> n;
    const std::uint64_t used = (image->rowPitch() >> n) * (IImage::IsCompressed(p.target) ? (lh + 3) / 4 : lh);
    if (room > used) std::memset(out + used, 0, room - used);
    offset += size;
  }
  return image;
}

const std::wstring kUnsupportedFile =
    L"DDS file has unsupported image format. Only DXT1, DXT5, and uncompressed RGBA/BGRA supported.";
const std::wstring kUnsupportedBuffer =
    L"DDS buffer has unsupported image format. Only DXT1, DXT5, and uncompressed RGBA/BGRA supported.";

// An opened DDS file: its magic checked, its header read.
struct OpenedFile {
  std::ifstream in;
  std::uint64_t size = 0;
  Header header{};
  unsigned char dx10[kDx10Bytes] = {};
  bool hasDx10 = false;
  bool opened = false;
  bool isDds = false;
  bool hasHeader = false;

  std::uint64_t dataSize() const { return size - kDataOffset; }
  bool read(std::uint64_t offset, void* target, std::uint64_t n) {
    in.clear();
    in.seekg(static_cast<std::streamoff>(offset), std::ios::beg);
    return static_cast<bool>(in.read(static_cast<char*>(target), static_cast<std::streamsize>(n)));
  }
};

void OpenDds(OpenedFile& f, const std::wstring& path) {
  f.in.open(File::NativePath(path), std::ios::binary);
  if (!f.in) return;
  f.opened = true;
  f.in.seekg(0, std::ios::end);
  f.size = static_cast<std::uint64_t>(f.in.tellg());
  f.in.seekg(0, std::ios::beg);
  char magic[kMagicBytes];
  if (!f.in.read(magic, kMagicBytes) || std::memcmp(magic, kMagic, kMagicBytes) != 0) return;
  f.isDds = true;
  unsigned char raw[kHeaderBytes];
  if (!f.in.read(reinterpret_cast<char*>(raw), kHeaderBytes)) return;
  f.header = ReadHeader(raw);
  f.hasHeader = true;
  f.hasDx10 = static_cast<bool>(f.in.read(reinterpret_cast<char*>(f.dx10), kDx10Bytes));
}

bool IsSaveable(const std::shared_ptr<const IImage>& image) {
  return image && image->width() != 0 && image->height() != 0;
}

}  // namespace

void DDSFileUtil::SaveTexture(std::shared_ptr<const IImage> image, const std::wstring& path) {
  if (!IsSaveable(image)) {
    KEL_LOG_WARN(L"image is null or empty. no file saved.");
    return;
  }
  unsigned char head[kDataOffset];
  std::memcpy(head, kMagic, kMagicBytes);
  WriteHeader(MakeHeader(*image), head + kMagicBytes);
  // Through a temporary: a failed or killed save keeps the texture that was there.
  try {
    AtomicFile out(path);
    out.write(head, kDataOffset);
    const std::uint64_t bytes = image->sizeInBytes();
    if (bytes != 0) out.write(image->lineData(0, 0), bytes);
    out.commit();
  } catch (const wexception&) {
    throw wexception(L"Failed to save DDS file: " + path);
  }
}

void DDSFileUtil::SaveTextureToMemory(std::vector<unsigned char>& out, std::shared_ptr<const IImage> image) {
  if (!IsSaveable(image)) {
    KEL_LOG_WARN(L"image is null or empty. no buffer created.");
    return;
  }
  const Header header = MakeHeader(*image);
  // The total is a 32-bit quantity; copy no more than it leaves room for.
  const std::uint32_t total = static_cast<std::uint32_t>(image->sizeInBytes() + kDataOffset);
  out.resize(total);
  if (total < kDataOffset) return;  // wrapped around: not even room for the header
  std::memcpy(out.data(), kMagic, kMagicBytes);
  WriteHeader(header, out.data() + kMagicBytes);
  const std::uint64_t bytes = std::min<std::uint64_t>(image->sizeInBytes(), total - kDataOffset);
  if (bytes != 0) std::memcpy(out.data() + kDataOffset, image->lineData(0, 0), bytes);
}

std::shared_ptr<IImage> DDSFileUtil::LoadTexture(const std::wstring& path) {
  OpenedFile f;
  OpenDds(f, path);
  if (!f.opened) return nullptr;
  if (!f.isDds) {
    KEL_LOG_ERROR(L"Not a valid dds file: " + path);
    return nullptr;
  }
  if (!f.hasHeader) throw wexception(L"DDS data is shorter than its header announces: " + path);
  const Layout layout = Recognise(f.header, f.hasDx10 ? f.dx10 : nullptr, kUnsupportedFile);
  return LoadDds(f.header, layout, f.dataSize(),
                 [&](std::uint64_t offset, void* target, std::uint64_t n) { return f.read(offset, target, n); }, path);
}

std::shared_ptr<IImage> DDSFileUtil::LoadTextureFromBuffer(const unsigned char* data, std::uint64_t size) {
  if (data == nullptr || size < kDataOffset || std::memcmp(data, kMagic, kMagicBytes) != 0)
    throw wexception(L"No valid dds data in buffer");
  const Header header = ReadHeader(data + kMagicBytes);
  const Layout layout =
      Recognise(header, size >= kDataOffset + kDx10Bytes ? data + kDataOffset : nullptr, kUnsupportedBuffer);
  return LoadDds(
      header, layout, size - kDataOffset,
      [&](std::uint64_t offset, void* target, std::uint64_t n) {
        if (offset > size || n > size - offset) return false;
        std::memcpy(target, data + offset, n);
        return true;
      },
      L"buffer");
}

IImage::Format DDSFileUtil::GetFormat(const std::wstring& path) {
  OpenedFile f;
  OpenDds(f, path);
  if (!f.opened) return IImage::Unknown;
  if (!f.isDds) {
    KEL_LOG_ERROR(L"Not a valid dds file: " + path);
    return IImage::Unknown;
  }
  if (!f.hasHeader) return IImage::Unknown;
  try {
    const Layout l = Recognise(f.header, f.hasDx10 ? f.dx10 : nullptr, kUnsupportedFile);
    return MakePlan(f.header, l, f.dataSize()).target;
  } catch (const wexception&) {
    return IImage::Unknown;
  }
}

bool DDSFileUtil::IsCubeMap(const std::wstring& path) {
  OpenedFile f;
  OpenDds(f, path);
  return f.hasHeader && (f.header[kCaps2] & kCaps2CubeMap) != 0;
}

}  // namespace kel
