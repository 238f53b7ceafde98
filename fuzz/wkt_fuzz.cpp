// Feeds arbitrary text to the WKT reader (through GEOS). Whatever it accepts
// must convert back to WKT that reads again, unless a coordinate is too large
// to print (then the writer refuses with an empty string).
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "kel/core/log.h"
#include "kel/core/text.h"
#include "kel/geometry/geometry_buffer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = [] {
    kel::Log::setSilent(true);  // the first call mutes the library's logger
    return true;
  }();
  (void)quiet;
  const std::wstring text = kel::Utf8String2WString(std::string(reinterpret_cast<const char*>(data), size));
  auto g = kel::GeometryBuffer::FromWKT(text);
  if (!g) return 0;
  const std::wstring wkt = g->ToWKT();
  if (!wkt.empty() && !kel::GeometryBuffer::FromWKT(wkt)) std::abort();
  kel::GeometryBuffer out(0, kel::FdoDimensionality_XY, false);
  // A step of a hundredth of the extent keeps the output small.
  const auto box = g->GetBBox3d();
  const double extent = std::max({box.max.x() - box.min.x(), box.max.y() - box.min.y(), box.max.z() - box.min.z()});
  if (extent > 0 && std::isfinite(extent)) g->Tessellate(&out, extent / 100);
  return 0;
}
