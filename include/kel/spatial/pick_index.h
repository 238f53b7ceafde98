// Fast picking: a query structure built beside a finished bvh over the same
// triangle soup, for nearest-hit queries only. The bvh stays the stored,
// reloadable tree with its own exact walk; this index answers the same
// questions faster and never lets a ray slip through a closed surface.
//
// What it holds: the tree collapsed to eight children per node, the
// triangles copied in leaf order (packets of up to 16 triangles that share
// their vertices, one run of memory per leaf), and for rays straight down a
// grid of columns over x and y. The triangle test is watertight (Woop,
// Benthin and Wald, 2013): a ray through a shared edge or vertex of a closed
// surface hits it. Triangles are two-sided, a hit at t = 0 counts, and a
// triangle with a non-finite vertex is never hit.
//
// Agreement with the exact walk: the nearest distance is the same up to
// float rounding (the two triangle tests round differently), except for rays
// whose hit lies within rounding of a triangle edge, where either answer may
// stand. Of equal distances the lowest primitive number wins, whatever the
// traversal order, so every kernel and both walks return the same hit.
//
// Kernels: AVX-512, AVX2, SSE2 and scalar, chosen at run time from what the
// processor offers (scalar only in a KEL_NO_SIMD build). All return the same
// bits. Queries are const and may run on any number of threads at once.
// Nothing here logs; bad arguments to the constructor throw
// std::invalid_argument, a failed allocation std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "kel/export.h"
#include "kel/spatial/bvh.h"

namespace kel::fdo {

enum class pick_kernel { scalar, sse2, avx2, avx512 };

class KEL_API pick_index {
public:
  // Sizes and counts, for reports.
  struct stats {
    int triangles = 0;
    int nodes = 0;    // wide nodes
    int leaves = 0;   // runs of packets
    int packets = 0;
    int columns = 0;  // grid cells (0: no grid, vertical rays walk the tree)
    std::size_t columnEntries = 0;
    std::size_t nodeBytes = 0, packetBytes = 0, columnBytes = 0;
    std::size_t bytes() const { return nodeBytes + packetBytes + columnBytes; }
  };

  // An index answering nothing.
  pick_index();
  // Builds from `tree`, which must have been built over this soup (or
  // reloaded with its nodes and indices): triangle i has the vertices
  // indices[3i .. 3i+2], vertex k at vertices[3k .. 3k+2]. Nothing is kept
  // of the arguments. Throws std::invalid_argument when the tree's
  // primitive count differs from triangleCount, when its nodes do not form
  // a tree over those primitives, or when an index names no vertex.
  pick_index(const bvh& tree, const float* vertices, std::size_t vertexCount, const std::uint32_t* indices,
             std::size_t triangleCount);
  ~pick_index();
  pick_index(pick_index&&) noexcept;
  pick_index& operator=(pick_index&&) noexcept;
  pick_index(const pick_index&) = delete;
  pick_index& operator=(const pick_index&) = delete;

  // Nearest hit with a distance below io.t (set it to the largest distance
  // of interest, FLT_MAX for any); io is left alone when there is none.
  // Distances are in units of the direction's length, like the exact walk.
  // invDirection is not read. A ray with a non-finite component or a zero
  // direction hits nothing. Rays whose x and y direction are exactly zero
  // and whose z direction is negative walk the columns. With uv given, a
  // hit also writes the barycentric weights of the triangle's second and
  // third vertices (u, v as in the exact intersector).
  void intersect(hit& io, const ray& r, float* uv = nullptr) const;

  // intersect() for rays[0 .. n), results in io[0 .. n), over OpenMP
  // threads (omp_set_num_threads or OMP_NUM_THREADS choose how many).
  void intersect(hit* io, const ray* rays, std::size_t n) const;

  // Height of the highest surface under (x, y): a ray straight down from the
  // top of the soup. False when nothing is there or x, y is not finite.
  bool heightAt(float x, float y, float& z, std::uint32_t* primitive = nullptr) const;

  const stats& getStats() const;
  // Seconds the constructor took.
  double buildSeconds() const;

  // The kernel queries use; the best available by default.
  pick_kernel kernel() const;
  // Switches kernels (for tests and benchmarks; not while queries run).
  // False, and no change, when this build or processor lacks it.
  bool setKernel(pick_kernel k);
  static bool kernelAvailable(pick_kernel k);
  static pick_kernel bestKernel();
  static const char* kernelName(pick_kernel k);

private:
  struct impl;
  std::unique_ptr<impl> d_;
};

}  // namespace kel::fdo
