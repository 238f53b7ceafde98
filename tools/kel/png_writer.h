// Writes 8-bit RGBA or grey pictures as PNG for the kel tool (heightmaps,
// decoded textures), through a temporary file renamed into place: a failed
// write leaves the old picture. Throws std::runtime_error or kel::wexception
// when the file cannot be written.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

// `pixels` holds height rows of `stride` bytes; channels is 1 (grey) or 4 (RGBA).
void WritePng(const std::string& path, const std::uint8_t* pixels, std::uint32_t width, std::uint32_t height,
              std::size_t stride, int channels);

// The same picture as PNG bytes in memory, for writers that go through
// kel::AtomicFile. Throws std::runtime_error when libpng fails.
std::vector<std::uint8_t> EncodePng(const std::uint8_t* pixels, std::uint32_t width, std::uint32_t height,
                                    std::size_t stride, int channels);

}  // namespace cli
