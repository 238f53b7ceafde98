// Fuzzes the tile loader: SFF bytes -> triangle soup -> bvh and pick index,
// then a few rays (vertical and tilted) through the tree and its
// intersector, and through every pick kernel, which must agree bit for bit.
#include <cfloat>
#include <cstddef>
#include <cstdint>

#include <kel/core/log.h>
#include <kel/sff/sff_file_stream.h>
#include <kel/spatial/bvh.h>
#include <kel/spatial/pick_index.h>
#include <kel/spatial/sff2bvh.h>

namespace {

kel::fdo::ray MakeRay(float ox, float oy, float oz, float dx, float dy, float dz) {
  kel::fdo::ray r{};
  r.origin[0] = ox, r.origin[1] = oy, r.origin[2] = oz;
  r.direction[0] = dx, r.direction[1] = dy, r.direction[2] = dz;
  for (int a = 0; a < 3; ++a) r.invDirection[a] = 1.0f / r.direction[a];
  return r;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool silenced = [] {
    kel::Log::setSilent(true);  // warnings about bad files are expected here
    return true;
  }();
  (void)silenced;
  kel::sff_buff_is source(data, size);
  const kel::SFF2BVH tile(source);
  if (!tile.valid()) return 0;
  const auto tree = tile.getBVH();
  auto& x = *tile.getIntersector();
  const kel::fdo::node& root = tree->getNodes()[0];
  const float cx = 0.5f * (root.minX + root.maxX), cy = 0.5f * (root.minY + root.maxY);
  const kel::fdo::ray rays[] = {
      MakeRay(cx, cy, root.maxZ + 1.0f, 0, 0, -1),
      MakeRay(cx, cy, root.minZ - 1.0f, 0, 0, 1),
      MakeRay(root.minX, root.minY, root.maxZ + 1.0f, 0, 0, -1),
      MakeRay(cx, cy, root.maxZ + 1.0f, 0.3f, -0.2f, -1),
      MakeRay(root.minX - 1.0f, cy, 0.5f * (root.minZ + root.maxZ), 1, 0.01f, 0),
  };
  // The tile is this call's own: switching its index's kernel disturbs nobody.
  auto& index = const_cast<kel::fdo::pick_index&>(*tile.getPickIndex());
  const auto best = index.kernel();
  for (const auto& r : rays) {
    kel::fdo::hit h{~0u, FLT_MAX};
    tree->intersect(h, r, x);
    if (h.primitive != ~0u && h.primitive >= std::uint32_t(tree->getPrimitiveCount())) __builtin_trap();
    kel::fdo::hit first{~0u, FLT_MAX};
    bool any = false;
    for (auto k : {kel::fdo::pick_kernel::scalar, kel::fdo::pick_kernel::sse2, kel::fdo::pick_kernel::avx2,
                   kel::fdo::pick_kernel::avx512}) {
      if (!index.setKernel(k)) continue;
      kel::fdo::hit p{~0u, FLT_MAX};
      float uv[2];
      index.intersect(p, r, uv);
      if (p.primitive != ~0u && (p.primitive >= std::uint32_t(tree->getPrimitiveCount()) || !(p.t >= 0.0f)))
        __builtin_trap();
      if (any && (p.primitive != first.primitive || __builtin_memcmp(&p.t, &first.t, 4) != 0)) __builtin_trap();
      first = p, any = true;
    }
    index.setKernel(best);
  }
  float z;
  tile.heightAt(cx, cy, z);
  return 0;
}
