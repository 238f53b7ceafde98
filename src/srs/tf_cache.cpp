#include "kel/srs/tf_cache.h"

#include <limits>

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
  const Vec<2, double>& lo = region.min;
  const Vec<2, double>& hi = region.max;
  for (Vec<2, double> corner : {lo, Vec<2, double>(hi.x(), lo.y()), Vec<2, double>(lo.x(), hi.y()), hi}) {
    transform_->Transform(corner);  // a failed corner keeps what the transform left in it
    vertices_.push_back(corner);
  }
  nodes_.push_back({0, 2, 1, 3, 0});
}

TfCache::~TfCache() = default;

void TfCache::interpolate(std::size_t node, const Vec<2, double>& cellMin, const Vec<2, double>& cellMax,
                          Vec<2, double>& p) const {
  const Node& n = nodes_[node];
  p = Lanes::ToVec(detail::Bilinear<Lanes>(Lanes::Load(vertices_[n.ll]), Lanes::Load(vertices_[n.ul]),
                                           Lanes::Load(vertices_[n.lr]), Lanes::Load(vertices_[n.ur]),
                                           Lanes::Load(cellMin), Lanes::Load(cellMax), Lanes::Load(p)));
}

bool TfCache::descend(Vec<2, double>& p, Leaf& leaf) {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  const V point = Lanes::Load(p);
  V lo = Lanes::Load(region_.min);
  V hi = Lanes::Load(region_.max);
  V routeLo = Lanes::Set(-kInf, -kInf);
  V routeHi = Lanes::Set(kInf, kInf);
  std::size_t node = 0;
  std::size_t depth = 0;
  for (;;) {
    if (maxDepth_ != 0 && ++depth > maxDepth_) {
      KEL_LOG_WARN(L"Search tree depth exceeded. Performing slow transform.");
      transform_->Transform(p);
      return false;
    }
    std::int32_t state = nodes_[node].state;
    if (state == -1) break;
    const V c = Lanes::Half(Lanes::Add(lo, hi));
    if (state == 0) {
      const Vec<2, double> centre = Lanes::ToVec(c);
      Vec<2, double> exact = centre;
      transform_->Transform(exact);
      Vec<2, double> approx = centre;
      interpolate(node, Lanes::ToVec(lo), Lanes::ToVec(hi), approx);
      const double dx = exact.x() - approx.x();
      const double dy = exact.y() - approx.y();
      if (dx * dx + dy * dy <= toleranceSquared_) {
        nodes_[node].state = -1;
        break;
      }
      // Midpoints are not shared with neighbouring cells: each split appends
      // its own five vertices, trading memory for no neighbour lookups.
      const Vec<2, double> cellLo = Lanes::ToVec(lo);
      const Vec<2, double> cellHi = Lanes::ToVec(hi);
      const std::uint64_t n = vertices_.size();
      vertices_.push_back(exact);
      for (Vec<2, double> mid :
           {Vec<2, double>(centre.x(), cellLo.y()), Vec<2, double>(cellLo.x(), centre.y()),
            Vec<2, double>(cellHi.x(), centre.y()), Vec<2, double>(centre.x(), cellHi.y())}) {
        transform_->Transform(mid);
        vertices_.push_back(mid);
      }
      const Node parent = nodes_[node];
      state = static_cast<std::int32_t>(nodes_.size());
      nodes_.push_back({parent.ll, n + 2, n + 1, n, 0});
      nodes_.push_back({n + 1, n, parent.lr, n + 3, 0});
      nodes_.push_back({n + 2, parent.ul, n, n + 4, 0});
      nodes_.push_back({n, n + 4, n + 3, parent.ur, 0});
      nodes_[node].state = state;
    }
    node = static_cast<std::size_t>(state) + detail::Route<Lanes>(c, point, lo, hi, routeLo, routeHi);
  }
  const Node& n = nodes_[node];
  p = Lanes::ToVec(detail::Bilinear<Lanes>(Lanes::Load(vertices_[n.ll]), Lanes::Load(vertices_[n.ul]),
                                           Lanes::Load(vertices_[n.lr]), Lanes::Load(vertices_[n.ur]), lo, hi,
                                           point));
  leaf = {node, lo, hi, routeLo, routeHi};
  return true;
}

void TfCache::transform(Vec<2, double>& p) {
  if (transform_ == nullptr) return;
  Leaf leaf;
  descend(p, leaf);
}

void TfCache::transform(const IDataArray<Vec<2, double>>& points) {
  if (transform_ == nullptr) return;
  Leaf leaf;
  bool haveLeaf = false;
  V ll{}, ul{}, lr{}, ur{};
  for (Vec<2, double>& p : points) {
    // The descent routes exactly the points of this range to the leaf, and
    // leaves never change, so skipping it changes nothing.
    const V point = Lanes::Load(p);
    if (haveLeaf && detail::InRoute<Lanes>(leaf.routeLo, leaf.routeHi, point)) {
      p = Lanes::ToVec(detail::Bilinear<Lanes>(ll, ul, lr, ur, leaf.lo, leaf.hi, point));
      continue;
    }
    haveLeaf = descend(p, leaf);
    if (haveLeaf) {
      const Node& n = nodes_[leaf.node];
      ll = Lanes::Load(vertices_[n.ll]);
      ul = Lanes::Load(vertices_[n.ul]);
      lr = Lanes::Load(vertices_[n.lr]);
      ur = Lanes::Load(vertices_[n.ur]);
    }
  }
}

}  // namespace kel
