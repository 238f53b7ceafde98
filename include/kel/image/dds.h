// DirectDraw Surface (DDS) textures as files and memory buffers: the magic
// "DDS ", the 124-byte header and the pixel data of every mip level. Files are
// written as RGBA, BGRA, DXT1 or DXT5 with levels sized as IImage::SizeInBytes
// lays them out, and such files read back byte for byte.
//
// Files from other programs use the DDS layout (blocks of ceil(w/4) x
// ceil(h/4), levels of max(1, w>>n) x max(1, h>>n)) and are read that way:
// - DXT1 and DXT5 stay compressed when both sides are multiples of 4, and
//   decode to RGBA otherwise (the image model has no room for part blocks);
// - DXT3, 24-bit RGB, X8R8G8B8 and any other 8/16/24/32-bit channel masks
//   (R5G6B5, L8, A8L8, ...) load as RGBA; channels narrower than 8 bits are
//   scaled with rounding, a missing alpha reads as 255;
// - DX10 headers carrying BC1, BC2, BC3, RGBA8 or BGRA8/BGRX8 load as above.
// Mip levels are kept while the model's quarter-sized levels can hold them;
// the rest, and every face but the first of a cube map, array or volume, are
// dropped with a warning. Other formats throw the unsupported-format message
// followed by " Found: <format>." (a FourCC, a DXGI number or the masks).
//
// Readers are safe on hostile input: a header that announces more pixel
// bytes than the file or buffer holds is refused before anything is
// allocated, with a wexception "DDS data is shorter than its header
// announces: " followed by the path (or "buffer"); an image never takes more
// than 8 bytes of memory per byte of input. All functions are static,
// reentrant and single-threaded.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kel/export.h"
#include "kel/image/image.h"

namespace kel {

class KEL_API DDSFileUtil final {
public:
  DDSFileUtil() = delete;

  // Writes "DDS ", the header and sizeInBytes() bytes from lineData(0, 0),
  // through a temporary file renamed over `path` (kel::AtomicFile): a failed
  // save leaves the old file. A null or empty image logs a warning and writes
  // nothing; a failed write throws wexception "Failed to save DDS file:
  // <path>". Formats other than the four get a bare header (with a warning)
  // and are saved anyway.
  static void SaveTexture(std::shared_ptr<const IImage> image, const std::wstring& path);
  // The same file image into `out` (resized to 128 + sizeInBytes()); a null
  // or empty image logs a warning and leaves `out` untouched.
  static void SaveTextureToMemory(std::vector<unsigned char>& out, std::shared_ptr<const IImage> image);

  // Null when the file cannot be opened, null with a logged error when it is
  // not a DDS file; throws wexception for an unsupported pixel format or data
  // shorter than the header announces. A mip count of 0 loads one level.
  static std::shared_ptr<IImage> LoadTexture(const std::wstring& path);
  // Throws wexception "No valid dds data in buffer" for fewer than 128 bytes
  // or a wrong magic; otherwise as LoadTexture.
  static std::shared_ptr<IImage> LoadTextureFromBuffer(const unsigned char* data, std::uint64_t size);

  // The format LoadTexture gives for the file, or Unknown when it is
  // unsupported, unreadable or not a DDS file.
  static IImage::Format GetFormat(const std::wstring& path);
  // True when the header's cube-map capability bit (0x200 of dwCaps2) is set.
  static bool IsCubeMap(const std::wstring& path);
};

}  // namespace kel
