// LoadFromMemory on arbitrary bytes: the first byte picks the decoder (even:
// PNG, odd: JPEG), the rest is the file. Only wexception may come out.
#include <cstddef>
#include <cstdint>

#include <kel/kel.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const wchar_t* name = (data[0] & 1) ? L"fuzz.jpg" : L"fuzz.png";
  try {
    auto image = kel::ImageUtil::LoadFromMemory(data + 1, size - 1, name, kel::IImage::RGBA);
    if (image && image->sizeInBytes() > 0) {
      // Touch the first and last byte so a short allocation shows up.
      volatile std::uint8_t sink = image->lineData(0, 0)[0];
      sink = image->lineData(0, 0)[image->sizeInBytes() - 1];
      (void)sink;
    }
  } catch (const kel::wexception&) {
  }
  return 0;
}
