// DDS texture files and buffers. The header is built and parsed word by word
// through little-endian helpers, never by casting a struct over the bytes.
#include "kel/image/dds.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>

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

IImage::Format RecogniseFormat(const Header& h) {
  if (h[kPfRGBBitCount] == 32) {  // whatever the pixel format flags say
    const std::uint32_t r = h[kPfRMask], g = h[kPfGMask], b = h[kPfBMask], a = h[kPfAMask];
    if (r == 0xFF && g == 0xFF00 && b == 0xFF0000 && a == 0xFF000000u) return IImage::RGBA;
    if (r == 0xFF0000 && g == 0xFF00 && b == 0xFF && a == 0xFF000000u) return IImage::BGRA;
    return IImage::Unknown;
  }
  if (h[kPfFlags] & kPfFourCCFlag) {
    if (h[kPfFourCC] == FourCC('D', 'X', 'T', '1')) return IImage::DXT1;
    if (h[kPfFourCC] == FourCC('D', 'X', 'T', '5')) return IImage::DXT5;
  }
  return IImage::Unknown;
}

// The image a header describes, allocated only once the announced pixel bytes
// are known to fit in `available`. The width-times-height test comes first so
// that the size arithmetic cannot overflow (every format needs at least half
// a byte per pixel).
std::shared_ptr<IImage> CreateFor(const Header& h, IImage::Format format, std::uint64_t available,
                                  const std::wstring& source) {
  const std::uint64_t w = h[kWidth], ht = h[kHeight];
  const std::uint64_t levels = h[kMipMapCount] == 0 ? 1 : h[kMipMapCount];
  if (w * ht / 2 > available || IImage::SizeInBytes(w, ht, format, levels) > available)
    throw wexception(L"DDS data is shorter than its header announces: " + source);
  return ImageUtil::CreateImage(w, ht, format, levels);
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
  bool opened = false;
  bool isDds = false;
  bool hasHeader = false;
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
  std::ofstream out(File::NativePath(path), std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(head), kDataOffset);
  const std::uint64_t bytes = image->sizeInBytes();
  if (bytes != 0) out.write(reinterpret_cast<const char*>(image->lineData(0, 0)), static_cast<std::streamsize>(bytes));
  out.close();
  if (out.fail()) throw wexception(L"Failed to save DDS file: " + path);
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
  const IImage::Format format = RecogniseFormat(f.header);
  if (format == IImage::Unknown) throw wexception(kUnsupportedFile);
  auto image = CreateFor(f.header, format, f.size - kDataOffset, path);
  const std::uint64_t bytes = image->sizeInBytes();
  if (bytes != 0 &&
      !f.in.read(reinterpret_cast<char*>(image->lineData(0, 0)), static_cast<std::streamsize>(bytes)))
    throw wexception(L"DDS data is shorter than its header announces: " + path);
  return image;
}

std::shared_ptr<IImage> DDSFileUtil::LoadTextureFromBuffer(const unsigned char* data, std::uint64_t size) {
  if (data == nullptr || size < kDataOffset || std::memcmp(data, kMagic, kMagicBytes) != 0)
    throw wexception(L"No valid dds data in buffer");
  const Header header = ReadHeader(data + kMagicBytes);
  const IImage::Format format = RecogniseFormat(header);
  if (format == IImage::Unknown) throw wexception(kUnsupportedBuffer);
  auto image = CreateFor(header, format, size - kDataOffset, L"buffer");
  const std::uint64_t bytes = image->sizeInBytes();
  if (bytes != 0) std::memcpy(image->lineData(0, 0), data + kDataOffset, bytes);
  return image;
}

IImage::Format DDSFileUtil::GetFormat(const std::wstring& path) {
  OpenedFile f;
  OpenDds(f, path);
  if (!f.opened) return IImage::Unknown;
  if (!f.isDds) {
    KEL_LOG_ERROR(L"Not a valid dds file: " + path);
    return IImage::Unknown;
  }
  return f.hasHeader ? RecogniseFormat(f.header) : IImage::Unknown;
}

bool DDSFileUtil::IsCubeMap(const std::wstring& path) {
  OpenedFile f;
  OpenDds(f, path);
  return f.hasHeader && (f.header[kCaps2] & kCaps2CubeMap) != 0;
}

}  // namespace kel
