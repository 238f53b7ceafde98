// DirectDraw Surface (DDS) textures as files and memory buffers: the magic
// "DDS ", the 124-byte header and the pixel data of every mip level, for the
// formats RGBA, BGRA, DXT1 and DXT5 only. No cube-map or volume data is ever
// read or written; levels are sized as IImage::SizeInBytes lays them out.
//
// Readers are safe on hostile input: a header that announces more pixel
// bytes than the file or buffer holds is refused before anything is
// allocated, with a wexception "DDS data is shorter than its header
// announces: " followed by the path (or "buffer"). All functions are static,
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

  // Writes "DDS ", the header and sizeInBytes() bytes from lineData(0, 0).
  // A null or empty image logs a warning and writes nothing; a stream that
  // fails throws wexception "Failed to save DDS file: <path>". Formats other
  // than the four get a bare header (with a warning) and are saved anyway.
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

  // The file's pixel format, or Unknown when it is unsupported, unreadable
  // or not a DDS file.
  static IImage::Format GetFormat(const std::wstring& path);
  // True when the header's cube-map capability bit (0x200 of dwCaps2) is set.
  static bool IsCubeMap(const std::wstring& path);
};

}  // namespace kel
