// ImageUtil::Load and LoadFromMemory: PNG through libpng's simplified API,
// JPEG through libjpeg(-turbo), DDS through DDSFileUtil. Hostile bytes are
// safe: decoder errors come back as wexception (libjpeg's exit() and
// libpng's longjmp never leave this file).
//
// Decoders are bounded by their input: a header that claims more pixels than
// its bytes can carry is refused before anything big is allocated.
// - PNG: deflate expands at most 1032:1 (a 258-byte match in two 1-bit
//   codes), so the filtered rows, h * (1 + ceil(w * bits per pixel / 8))
//   bytes, may not exceed 1032 times the file.
// - JPEG: every 8x8 block of a component takes at least one Huffman code, one
//   bit, and a file must code at least one component, so the blocks of the
//   least-sampled component may not exceed 8 per byte of file (about 512
//   pixels per byte for 4:4:4 and grey, 2048 for 4:2:0). Arithmetic-coded
//   files could be denser; they are held to the same bound.
// A 547-byte JPEG claiming 4112 x 63751 pixels is refused after its header;
// a uniform 20000 x 20000 JPEG from a normal encoder is hundreds of kilobytes
// and loads. Whatever the bound, no image beyond the model's 4 GiB is made.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <cwctype>
#include <vector>

#include <jpeglib.h>
#include <jerror.h>
#include <png.h>

#include "detail/image_convert.h"
#include "kel/core/path.h"
#include "kel/core/wexception.h"
#include "kel/image/dds.h"
#include "kel/image/image_util.h"

namespace kel {
namespace {

// The image model addresses levels with 32-bit offsets (IImage::lineData).
constexpr std::uint64_t kMaxDecodedBytes = (std::uint64_t{1} << 32) - 16;
// Deflate's largest expansion: 258 bytes from two 1-bit codes.
constexpr std::uint64_t kDeflateMaxRatio = 1032;

enum class Kind { Png, Jpeg, Dds, Unsupported };

Kind KindOf(const std::wstring& name) {
  const auto slash = name.find_last_of(L"/\\");
  const auto dot = name.find_last_of(L'.');
  if (dot == std::wstring::npos || (slash != std::wstring::npos && dot < slash)) return Kind::Unsupported;
  std::wstring ext = name.substr(dot);
  for (auto& c : ext) c = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c)));
  if (ext == L".png") return Kind::Png;
  if (ext == L".jpg" || ext == L".jpeg") return Kind::Jpeg;
  if (ext == L".dds") return Kind::Dds;
  return Kind::Unsupported;
}

[[noreturn]] void Fail(const wchar_t* what, const std::wstring& name) { throw wexception(what + name); }

bool TooLarge(std::uint64_t width, std::uint64_t height) {
  return width != 0 && height > kMaxDecodedBytes / 4 / width;
}

std::shared_ptr<IImage> NewRgba(std::uint64_t width, std::uint64_t height, const std::wstring& name) {
  if (width == 0 || height == 0 || TooLarge(width, height)) Fail(L"Image decompression failed: ", name);
  auto image = ImageUtil::CreateImage(width, height, IImage::RGBA, 1);
  if (image->lineData(0, 0) == nullptr) Fail(L"Image decompression failed: ", name);
  return image;
}

std::shared_ptr<IImage> DecodePng(const std::uint8_t* data, std::size_t size, const std::wstring& name) {
  // The simplified API catches libpng's errors itself and reports failure.
  png_image png;
  std::memset(&png, 0, sizeof png);
  png.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_memory(&png, data, size)) Fail(L"Image decompression failed: ", name);
  png.format = PNG_FORMAT_RGBA;
  // libpng accepted the signature and the header chunk, which comes first.
  const unsigned depth = data[24], type = data[25];
  const unsigned channels = type == 2 ? 3 : type == 4 ? 2 : type == 6 ? 4 : 1;
  const std::uint64_t rowBytes = 1 + (std::uint64_t{png.width} * depth * channels + 7) / 8;
  if (std::uint64_t{png.height} * rowBytes / kDeflateMaxRatio > size) {
    png_image_free(&png);
    Fail(L"Image decompression failed: ", name);
  }
  std::shared_ptr<IImage> image;
  try {
    image = NewRgba(png.width, png.height, name);
  } catch (...) {
    png_image_free(&png);
    throw;
  }
  const auto stride = static_cast<png_int_32>(png.width * 4);
  if (!png_image_finish_read(&png, nullptr, image->lineData(0, 0), stride, nullptr)) {
    png_image_free(&png);
    Fail(L"Image decompression failed: ", name);
  }
  png_image_free(&png);
  return image;
}

struct JpegError {
  jpeg_error_mgr mgr;
  std::jmp_buf jump;
};

void JpegErrorExit(j_common_ptr info) { std::longjmp(reinterpret_cast<JpegError*>(info->err)->jump, 1); }

// Warnings are silent, except running out of entropy data (the stream ends,
// or a marker cuts a segment short): libjpeg would pad the rest of the
// picture with grey, so a few hundred bytes could claim a gigabyte image.
void JpegEmitMessage(j_common_ptr info, int level) {
  const int code = info->err->msg_code;
  if (level < 0 && (code == JWRN_JPEG_EOF || code == JWRN_HIT_MARKER)) JpegErrorExit(info);
}

void JpegOutputMessage(j_common_ptr) {}

// Blocks of the least-sampled component: the fewest Huffman codes, one bit
// each, that a file of this size must hold.
std::uint64_t LeastBlocks(const jpeg_decompress_struct& info) {
  std::uint64_t least = ~std::uint64_t{0};
  for (int i = 0; i < info.num_components; ++i) {
    const jpeg_component_info& c = info.comp_info[i];
    const std::uint64_t hmax = std::max(1, info.max_h_samp_factor), vmax = std::max(1, info.max_v_samp_factor);
    const std::uint64_t w = (std::uint64_t{info.image_width} * std::max(1, c.h_samp_factor) + hmax - 1) / hmax;
    const std::uint64_t h = (std::uint64_t{info.image_height} * std::max(1, c.v_samp_factor) + vmax - 1) / vmax;
    least = std::min(least, ((w + 7) / 8) * ((h + 7) / 8));
  }
  return least;
}

// CMYK (libjpeg's output for CMYK and YCCK files) to opaque RGB in place.
// Files with Adobe's marker store the inks inverted, as Photoshop writes them.
void CmykToRgba(std::uint8_t* p, std::uint64_t width, bool inverted) {
  for (std::uint64_t x = 0; x < width; ++x, p += 4) {
    unsigned c = p[0], m = p[1], y = p[2], k = p[3];
    if (!inverted) {
      c = 255 - c;
      m = 255 - m;
      y = 255 - y;
      k = 255 - k;
    }
    p[0] = static_cast<std::uint8_t>((c * k + 127) / 255);
    p[1] = static_cast<std::uint8_t>((m * k + 127) / 255);
    p[2] = static_cast<std::uint8_t>((y * k + 127) / 255);
    p[3] = 255;
  }
}

struct JpegJob {
  jpeg_decompress_struct info;
  JpegError error;
};

// Everything between setjmp and a possible longjmp lives in `job` or
// `image` (both owned by the caller), so the jump skips no destructor.
bool RunJpeg(JpegJob& job, const std::uint8_t* data, std::size_t size, const std::wstring& name,
             std::shared_ptr<IImage>& image) {
  if (setjmp(job.error.jump)) return false;
  jpeg_mem_src(&job.info, data, static_cast<unsigned long>(size));
  if (jpeg_read_header(&job.info, TRUE) != JPEG_HEADER_OK) return false;
  if (TooLarge(job.info.image_width, job.info.image_height)) return false;
  if (LeastBlocks(job.info) > std::uint64_t{size} * 8) return false;
  // libjpeg turns YCCK into CMYK but not CMYK into RGB: that is ours.
  const bool cmyk = job.info.jpeg_color_space == JCS_CMYK || job.info.jpeg_color_space == JCS_YCCK;
  job.info.out_color_space = cmyk ? JCS_CMYK : JCS_EXT_RGBA;
  jpeg_start_decompress(&job.info);
  if (job.info.output_components != 4) return false;
  image = NewRgba(job.info.output_width, job.info.output_height, name);
  while (job.info.output_scanline < job.info.output_height) {
    JSAMPROW row = image->lineData(job.info.output_scanline, 0);
    if (jpeg_read_scanlines(&job.info, &row, 1) != 1) return false;
    if (cmyk) CmykToRgba(row, job.info.output_width, job.info.saw_Adobe_marker);
  }
  jpeg_finish_decompress(&job.info);
  return true;
}

std::shared_ptr<IImage> DecodeJpeg(const std::uint8_t* data, std::size_t size, const std::wstring& name) {
  JpegJob job;
  std::memset(&job, 0, sizeof job);
  job.info.err = jpeg_std_error(&job.error.mgr);
  job.error.mgr.error_exit = &JpegErrorExit;
  job.error.mgr.emit_message = &JpegEmitMessage;
  job.error.mgr.output_message = &JpegOutputMessage;
  jpeg_create_decompress(&job.info);
  std::shared_ptr<IImage> image;
  bool ok = false;
  try {
    ok = RunJpeg(job, data, size, name, image);
  } catch (...) {
    jpeg_destroy_decompress(&job.info);
    throw;
  }
  jpeg_destroy_decompress(&job.info);
  if (!ok) Fail(L"Image decompression failed: ", name);
  return image;
}

std::shared_ptr<IImage> Decode(const std::uint8_t* data, std::size_t size, const std::wstring& name, Kind kind,
                               IImage::Format format) {
  std::shared_ptr<IImage> image;
  switch (kind) {
    case Kind::Png: image = DecodePng(data, size, name); break;
    case Kind::Jpeg: image = DecodeJpeg(data, size, name); break;
    case Kind::Dds:
      // Bounded by its input too: a header claiming more than the bytes is refused.
      image = DDSFileUtil::LoadTextureFromBuffer(data, size);
      if (!image) Fail(L"Image decompression failed: ", name);
      break;
    case Kind::Unsupported: Fail(L"Unsupported file extension: ", name);
  }
  return ImageUtil::ForceFormat(image, format);
}

}  // namespace

std::shared_ptr<IImage> ImageUtil::LoadFromMemory(const std::uint8_t* data, std::size_t size,
                                                  const std::wstring& name, IImage::Format format) {
  const Kind kind = KindOf(name);
  if (kind == Kind::Unsupported) Fail(L"Unsupported file extension: ", name);
  if (data == nullptr || size == 0) Fail(L"File is empty: ", name);
  return Decode(data, size, name, kind, format);
}

std::shared_ptr<IImage> ImageUtil::Load(const std::wstring& path, IImage::Format format) {
  const Kind kind = KindOf(path);
  if (kind == Kind::Unsupported) Fail(L"Unsupported file extension: ", path);
  const int fd = ::open(File::NativePath(path).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Fail(L"Failed to open file: ", path);
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    Fail(L"Failed to open file: ", path);
  }
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(st.st_size));
  std::size_t got = 0;
  while (got < bytes.size()) {
    const ssize_t n = ::read(fd, bytes.data() + got, bytes.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  ::close(fd);
  if (got != bytes.size()) Fail(L"Failed to open file: ", path);
  if (bytes.empty()) Fail(L"File is empty: ", path);
  return Decode(bytes.data(), bytes.size(), path, kind, format);
}

}  // namespace kel
