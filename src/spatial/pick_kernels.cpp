// The scalar reference kernel and the SSE2 kernel of the pick index.
#include "spatial/detail/pick_kernel.h"

namespace kel::fdo::detail {

void PickWeights(const PickRay& r, const PickBest& b, float* uv) {
  ArrayTable t;
  ScalarLanes::Shear(PacketVertices(b.packet), Header(b.packet).vertices, r, t);
  const std::uint8_t* c = PacketCorners(b.packet);
  float out[5];
  const bool hit = TestLane(t.x, t.y, t.z, Corner(c, 0, b.lane), Corner(c, 1, b.lane), Corner(c, 2, b.lane), out);
  uv[0] = hit ? out[1] / out[3] : 0.0f;  // V / det: the weight of vertex 1
  uv[1] = hit ? out[2] / out[3] : 0.0f;
}

void PickScalar(const PickData& d, const PickRay& r, PickBest& b) { Pick<ScalarLanes, ScalarLanes>(d, r, b); }

#if defined(__SSE2__) && !defined(KEL_NO_SIMD)
void PickSse2(const PickData& d, const PickRay& r, PickBest& b) { Pick<Sse2Lanes, Sse2Lanes>(d, r, b); }
#endif

}  // namespace kel::fdo::detail
