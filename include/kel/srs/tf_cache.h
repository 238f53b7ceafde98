// A transform approximated over a fixed region by a quadtree of bilinear
// patches, for reprojecting very many points of one region. The tree grows
// lazily along the paths queries take: a cell is tested once, by comparing
// the exact transform of its centre with the interpolation from its corners;
// within `tolerance` (Euclidean, target units) it becomes a leaf, otherwise it
// is split. Only refinement calls the wrapped transform.
//
// The tolerance bounds the error at tested centres, not everywhere. Points
// outside the region are extrapolated from the outermost cells. The wrapped
// transform's failures are ignored (a failing transform yields interpolated
// garbage, not an error). Past `maxDepth` nodes on one descent (0: no limit)
// a point falls back to the exact transform, each time with the warning
// "Search tree depth exceeded. Performing slow transform."
//
// Not thread-safe: transform() grows the tree. Give each thread its own copy.
// The wrapped transform is not owned and must outlive the cache; with a null
// one the cache stays empty and changes nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kel/core/enumerate.h"
#include "kel/core/types.h"
#include "kel/export.h"

namespace kel {

class ITransform;

class KEL_API TfCache {
public:
  TfCache(const BBox<2, double>& region, double tolerance, const ITransform* transform, std::size_t maxDepth);
  TfCache(const TfCache& other) = default;
  TfCache& operator=(const TfCache& other) = default;
  ~TfCache();

  void transform(Vec<2, double>& p);
  // Every point as transform(p) would, in index order, with the same results
  // bit for bit. Faster when consecutive points fall into one leaf, as the
  // points of a polyline usually do: they skip the descent.
  void transform(const IDataArray<Vec<2, double>>& points);

  std::size_t nodeCount() const { return states_.size(); }
  std::size_t vertexCount() const { return vertices_.size(); }

private:
  // A node: the indices into vertices_ of its cell's corners, and its state
  // (0 untested, -1 leaf, else the first of its four children: lower-left,
  // lower-right, upper-left, upper-right). The states live apart, in
  // states_, so that a descent reads 4 bytes per level and the upper levels
  // stay in the first-level cache.
  struct Corners {
    std::uint64_t ll, ul, lr, ur;
  };
  // Where a descent ended: a leaf, its cell and the range of points the
  // descent routes to it.
  struct Leaf;

  // Descends from the root; true when p was interpolated in a leaf (then
  // described in `leaf` if it is not null), false when it was transformed
  // exactly (depth fallback).
  // Private members are hidden from the library's exports, so that calls
  // within the library are direct and can inline.
  template <bool kTrackLeaf>
  KEL_NO_EXPORT bool descend(Vec<2, double>& p, Leaf* leaf);
  // Tests an untested node with centre c: a leaf (true) when the exact centre
  // is within tolerance of the interpolated one, else split (false).
  KEL_NO_EXPORT bool test(std::size_t node, const Vec<2, double>& lo, const Vec<2, double>& hi,
                          const Vec<2, double>& c);
  KEL_NO_EXPORT void interpolate(std::size_t node, const Vec<2, double>& cellMin, const Vec<2, double>& cellMax,
                   Vec<2, double>& p) const;

  // A shortcut past the top of the descent. Each axis is cut as the tree
  // cuts it, down to level kJumpLevel; the 2^K x 2^K cells of that level each
  // remember the node a descent found for them: the node at level K, or the
  // leaf above it. A query finds its cell from the per-axis cuts (the same
  // comparisons the descent makes, so the same cell) and starts there. The
  // tree itself is untouched; this saves the first K levels (3 of 21 ns per
  // query on the benchmark's 1 mm tree).
  static constexpr int kJumpLevel = 6;
  struct AxisCell {  // one cell of one axis at one level, as the descent computes it
    double lo, hi, c, routeLo, routeHi;
  };
  struct Jump {
    std::int32_t node = -1;  // -1: no descent has been here yet
    std::int32_t level = 0;
  };
  KEL_NO_EXPORT void buildJumps();

  const ITransform* transform_;
  BBox<2, double> region_;
  std::vector<Vec<2, double>> vertices_;
  std::vector<Corners> nodes_;
  std::vector<std::int32_t> states_;
  double toleranceSquared_;
  std::size_t maxDepth_;
  std::vector<AxisCell> axes_[2];  // level l at offset 2^l - 1
  std::vector<Jump> jumps_;        // empty when the region is not a proper box
  double jumpScale_[2] = {0, 0};   // level-K columns per unit
};

}  // namespace kel
