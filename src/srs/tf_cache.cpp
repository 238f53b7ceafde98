#include "kel/srs/tf_cache.h"

#include <limits>
#include <utility>

#include "kel/core/log.h"
#include "kel/srs/transform.h"
#include "srs/detail/lane2.h"

namespace kel {

using detail::Lanes;
using V = Lanes::V;

// The routing range is half-open and unbounded at the region's outer edges:
// exactly the points whose descent ends in this leaf.
struct TfCache::Leaf {
  std::size_t node;
  V lo, hi;
  V routeLo, routeHi;
};

TfCache::TfCache(const BBox<2, double>& region, double tolerance, const ITransform* transform,
                 std::size_t maxDepth)
    : transform_(transform), region_(region), toleranceSquared_(tolerance * tolerance), maxDepth_(maxDepth) {
  if (transform_ == nullptr) return;
  // A root split twice over fits without reallocation.
  vertices_.reserve(29);
  nodes_.reserve(21);
  states_.reserve(21);
  const Vec<2, double>& lo = region.min;
  const Vec<2, double>& hi = region.max;
  for (Vec<2, double> corner : {lo, Vec<2, double>(hi.x(), lo.y()), Vec<2, double>(lo.x(), hi.y()), hi}) {
    transform_->Transform(corner);  // a failed corner keeps what the transform left in it
    vertices_.push_back(corner);
  }
  nodes_.push_back({0, 2, 1, 3});
  states_.push_back(0);
}

TfCache::~TfCache() = default;

void TfCache::interpolate(std::size_t node, const Vec<2, double>& cellMin, const Vec<2, double>& cellMax,
                          Vec<2, double>& p) const {
  const Corners& n = nodes_[node];
  p = Lanes::ToVec(detail::Bilinear<Lanes>(Lanes::Load(vertices_[n.ll]), Lanes::Load(vertices_[n.ul]),
                                           Lanes::Load(vertices_[n.lr]), Lanes::Load(vertices_[n.ur]),
                                           Lanes::Load(cellMin), Lanes::Load(cellMax), Lanes::Load(p)));
}

// Only the batch call needs the leaf's routing range; the single call skips
// its bookkeeping (a fifth of a query's instructions).
template <bool kTrackLeaf>
bool TfCache::descend(Vec<2, double>& p, Leaf* leaf) {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  const V point = Lanes::Load(p);
  V lo = Lanes::Load(region_.min);
  V hi = Lanes::Load(region_.max);
  V c = Lanes::Half(Lanes::Add(lo, hi));
  V routeLo = Lanes::Set(-kInf, -kInf);
  V routeHi = Lanes::Set(kInf, kInf);
  const std::size_t depthLimit = maxDepth_ != 0 ? maxDepth_ : std::numeric_limits<std::size_t>::max();
  std::size_t node = 0;
  std::size_t depth = 0;
  for (;;) {
    if (++depth > depthLimit) {
      KEL_LOG_WARN(L"Search tree depth exceeded. Performing slow transform.");
      transform_->Transform(p);
      return false;
    }
    std::int32_t state = states_[node];
    if (state == -1) break;
    if (state == 0) {
      if (test(node, Lanes::ToVec(lo), Lanes::ToVec(hi), Lanes::ToVec(c))) break;
      state = states_[node];
    }
    node = static_cast<std::size_t>(state) + detail::Route<Lanes, kTrackLeaf>(point, lo, hi, c, routeLo, routeHi);
  }
  const Corners& n = nodes_[node];
  p = Lanes::ToVec(detail::Bilinear<Lanes>(Lanes::Load(vertices_[n.ll]), Lanes::Load(vertices_[n.ul]),
                                           Lanes::Load(vertices_[n.lr]), Lanes::Load(vertices_[n.ur]), lo, hi,
                                           point));
  if constexpr (kTrackLeaf) *leaf = {node, lo, hi, routeLo, routeHi};
  return true;
}

bool TfCache::test(std::size_t node, const Vec<2, double>& lo, const Vec<2, double>& hi, const Vec<2, double>& c) {
  Vec<2, double> exact = c;
  transform_->Transform(exact);
  Vec<2, double> approx = c;
  interpolate(node, lo, hi, approx);
  const double dx = exact.x() - approx.x();
  const double dy = exact.y() - approx.y();
  if (dx * dx + dy * dy <= toleranceSquared_) {
    states_[node] = -1;
    return true;
  }
  // Midpoints are not shared with neighbouring cells: each split appends its
  // own five vertices, trading memory for no neighbour lookups.
  const std::uint64_t n = vertices_.size();
  vertices_.push_back(exact);
  for (Vec<2, double> mid : {Vec<2, double>(c.x(), lo.y()), Vec<2, double>(lo.x(), c.y()),
                             Vec<2, double>(hi.x(), c.y()), Vec<2, double>(c.x(), hi.y())}) {
    transform_->Transform(mid);
    vertices_.push_back(mid);
  }
  const Corners parent = nodes_[node];
  const auto m = static_cast<std::int32_t>(states_.size());
  nodes_.push_back({parent.ll, n + 2, n + 1, n});
  nodes_.push_back({n + 1, n, parent.lr, n + 3});
  nodes_.push_back({n + 2, parent.ul, n, n + 4});
  nodes_.push_back({n, n + 4, n + 3, parent.ur});
  states_.insert(states_.end(), 4, 0);
  states_[node] = m;
  return false;
}

void TfCache::transform(Vec<2, double>& p) {
  if (transform_ == nullptr) return;
  descend<false>(p, nullptr);
}

void TfCache::transform(const IDataArray<Vec<2, double>>& points) {
  if (transform_ == nullptr) return;
  // The two leaves used last, with their corner values. The descent routes
  // exactly the points of a leaf's range to it and leaves never change, so
  // skipping the descent changes nothing. Two, because a polyline along a
  // cell edge crosses back and forth (a third of the descents on a random
  // walk of 5 m steps).
  struct Recent {
    Leaf leaf;
    V ll, ul, lr, ur;
  } recent[2];
  int held = 0;
  for (Vec<2, double>& p : points) {
    const V point = Lanes::Load(p);
    if (held > 0 && detail::InRoute<Lanes>(recent[0].leaf.routeLo, recent[0].leaf.routeHi, point)) {
      const Recent& r = recent[0];
      p = Lanes::ToVec(detail::Bilinear<Lanes>(r.ll, r.ul, r.lr, r.ur, r.leaf.lo, r.leaf.hi, point));
      continue;
    }
    if (held > 1 && detail::InRoute<Lanes>(recent[1].leaf.routeLo, recent[1].leaf.routeHi, point)) {
      std::swap(recent[0], recent[1]);
      const Recent& r = recent[0];
      p = Lanes::ToVec(detail::Bilinear<Lanes>(r.ll, r.ul, r.lr, r.ur, r.leaf.lo, r.leaf.hi, point));
      continue;
    }
    Leaf leaf;
    if (!descend<true>(p, &leaf)) continue;
    recent[1] = recent[0];
    const Corners& n = nodes_[leaf.node];
    recent[0] = {leaf, Lanes::Load(vertices_[n.ll]), Lanes::Load(vertices_[n.ul]), Lanes::Load(vertices_[n.lr]),
                 Lanes::Load(vertices_[n.ur])};
    held = held < 2 ? held + 1 : 2;
  }
}

}  // namespace kel
