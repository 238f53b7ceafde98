// Model settings files from untrusted bytes: a file that parses must come
// back the same after writing and reading again; anything else must be
// refused with kel::wexception, nothing worse.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include <kel/kel.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  kel::PosFile file;
  try {
    file = kel::PosFile::Parse(bytes, L"fuzz");
  } catch (const kel::wexception&) {
    return 0;
  }
  const std::string text = file.format();
  try {
    const kel::PosFile again = kel::PosFile::Parse(text, L"fuzz (written)");
    if (again.format() != text) std::abort();
    if (again.hasOffset() != file.hasOffset()) std::abort();
  } catch (const kel::wexception&) {
    std::abort();  // we wrote something we cannot read
  }
  return 0;
}
