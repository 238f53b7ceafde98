// The AVX2 kernel of the pick index. Built with -mavx2 and only called after
// the processor said it has AVX2.
#include "spatial/detail/pick_kernel.h"

#if defined(__AVX2__) && !defined(KEL_NO_SIMD)
namespace kel::fdo::detail {

void PickAvx2(const PickData& d, const PickRay& r, PickBest& b) { Pick<Avx2Lanes, Avx2Lanes>(d, r, b); }

}  // namespace kel::fdo::detail
#endif
