// Feeds arbitrary bytes to the SFF reader: as given (either magic), and the
// bytes after the first four once more behind "SFZ0" through deflate, so the
// record parser also meets arbitrary records coming out of the inflater.
#include <cstddef>
#include <cstdint>

#include "kel/core/wexception.h"
#include "kel/sff/sff_file_stream.h"
#include "kel/sff/sff_reader.h"
#include "kel/sff/sff_zlib_stream.h"

namespace {

// Reads every delivered byte so the sanitizers see any bad pointer or size.
class Toucher : public kel::sff_read_callback {
public:
  unsigned sum = 0;
  void touch(const void* p, std::size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (std::size_t i = 0; i < n; ++i) sum += b[i];
  }
  void unknownRecord(std::uint32_t, std::uint32_t, const void* d, std::size_t n) override { touch(d, n); }
  void beginOther(std::uint32_t type, std::uint64_t id) override { sum += type + static_cast<unsigned>(id); }
  void end(std::uint32_t type, std::uint64_t id) override { sum += type + static_cast<unsigned>(id); }
  void positions(const void* d, std::size_t n) override { touch(d, n * 12); }
  void array24(const void* d, std::size_t n) override { touch(d, n * 24); }
  void normals(const void* d, std::size_t n) override { touch(d, n * 12); }
  void array8(const void* d, std::size_t n, std::uint32_t e) override { touch(d, n * 8), sum += e; }
  void array4(const void* d, std::size_t n) override { touch(d, n * 4); }
  void integers(const std::uint64_t* v, std::size_t n) override { touch(v, n * 8); }
  void string34(const char* t, std::size_t n) override { touch(t, n); }
  void string32(const char* t, std::size_t n) override { touch(t, n); }
  void block21(const void* d, std::size_t n) override { touch(d, n); }
  void block22(const void* d, std::size_t n) override { touch(d, n); }
  void string33(const char* t, std::size_t n) override { touch(t, n); }
  void value16Type1(const void* d) override { touch(d, 16); }
  void value16Type2(const void* d) override { touch(d, 16); }
  void value16Type3(const void* d) override { touch(d, 16); }
  void value16Type4(const void* d) override { touch(d, 16); }
  void block64(const void* d) override { touch(d, 64); }
  void block128(std::uint32_t, const void* d) override { touch(d, 128); }
  void block100(const void* d, std::size_t n) override { touch(d, n); }
  void integers101(const std::uint64_t* v, std::size_t n) override { touch(v, n * 8); }
};

void Run(kel::sff_reader& reader, const unsigned char* data, std::size_t size) {
  kel::sff_buff_is in(data, size);
  Toucher cb;
  try {
    reader.read(in, cb);
  } catch (const kel::wexception&) {
    // The documented outcome for bad bytes.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kel::sff_reader reader;
  Run(reader, data, size);
  if (size > 4) {
    kel::sff_buff_os z;
    z.write("SFZ0", 4);
    {
      kel::deflating_output_stream deflater(z, 1);
      deflater.write(data + 4, size - 4);
    }
    Run(reader, z.bytes().data(), z.bytes().size());
  }
  return 0;
}
