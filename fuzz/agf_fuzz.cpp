// Feeds arbitrary bytes to the binary geometry reader. Whatever it accepts
// must write back to bytes it accepts again, unchanged (the writer is
// canonical), and must survive the operations that walk every point.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "kel/geometry/byte_sink.h"
#include "kel/core/log.h"
#include "kel/geometry/geometry_buffer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = [] {
    kel::Log::setSilent(true);  // the first call mutes the library's logger
    return true;
  }();
  (void)quiet;
  kel::GeometryBuffer g(0, kel::FdoDimensionality_XY, false);
  if (!g.LoadFromAgf(data, size)) return 0;
  kel::memory_byte_sink first;
  g.ToAgf(first);
  kel::GeometryBuffer again(0, kel::FdoDimensionality_XY, false);
  if (!again.LoadFromAgf(first.bytes().data(), first.bytes().size())) std::abort();
  kel::memory_byte_sink second;
  again.ToAgf(second);
  if (second.bytes() != first.bytes()) std::abort();

  kel::GeometryBuffer out(0, kel::FdoDimensionality_XY, false);
  g.Generalize(&out, 0.5);
  g.PointInPolygon(0.5, 0.5);
  g.OrientPolygons(true);
  return 0;
}
