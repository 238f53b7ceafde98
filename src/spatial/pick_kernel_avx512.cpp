// The AVX-512 kernel of the pick index: sixteen triangles per pass, node
// boxes on sixteen lanes. Built with -mavx512f and only called after the
// processor said it has AVX-512F.
#include "spatial/detail/pick_kernel.h"

#if defined(__AVX512F__) && !defined(KEL_NO_SIMD)
namespace kel::fdo::detail {

void PickAvx512(const PickData& d, const PickRay& r, PickBest& b) { Pick<Avx512Lanes, Avx512Lanes>(d, r, b); }

}  // namespace kel::fdo::detail
#endif
