#include "kel/srs/tf_cache.h"

#include <limits>

#include "kel/core/log.h"
#include "kel/srs/transform.h"

namespace kel {

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
  const double tx = (p.x() - cellMin.x()) / (cellMax.x() - cellMin.x());
  const double ty = (p.y() - cellMin.y()) / (cellMax.y() - cellMin.y());
  const Vec<2, double>& ll = vertices_[n.ll];
  const Vec<2, double>& ul = vertices_[n.ul];
  const Vec<2, double>& lr = vertices_[n.lr];
  const Vec<2, double>& ur = vertices_[n.ur];
  const double bottomX = ll.x() * (1 - tx) + lr.x() * tx;
  const double bottomY = ll.y() * (1 - tx) + lr.y() * tx;
  const double topX = ul.x() * (1 - tx) + ur.x() * tx;
  const double topY = ul.y() * (1 - tx) + ur.y() * tx;
  p.x() = bottomX * (1 - ty) + topX * ty;
  p.y() = bottomY * (1 - ty) + topY * ty;
}

bool TfCache::descend(Vec<2, double>& p, Leaf& leaf) {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  Vec<2, double> lo = region_.min;
  Vec<2, double> hi = region_.max;
  Vec<2, double> routeMin(-kInf, -kInf);
  Vec<2, double> routeMax(kInf, kInf);
  std::size_t node = 0;
  std::size_t depth = 0;
  for (;;) {
    if (maxDepth_ != 0 && ++depth > maxDepth_) {
      KEL_LOG_WARN(L"Search tree depth exceeded. Performing slow transform.");
      transform_->Transform(p);
      return false;
    }
    if (nodes_[node].state == -1) break;
    const Vec<2, double> c((lo.x() + hi.x()) / 2, (lo.y() + hi.y()) / 2);
    if (nodes_[node].state == 0) {
      Vec<2, double> exact = c;
      transform_->Transform(exact);
      Vec<2, double> approx = c;
      interpolate(node, lo, hi, approx);
      const double dx = exact.x() - approx.x();
      const double dy = exact.y() - approx.y();
      if (dx * dx + dy * dy <= toleranceSquared_) {
        nodes_[node].state = -1;
        break;
      }
      // Midpoints are not shared with neighbouring cells: each split appends
      // its own five vertices, trading memory for no neighbour lookups.
      const std::uint64_t n = vertices_.size();
      vertices_.push_back(exact);
      for (Vec<2, double> mid : {Vec<2, double>(c.x(), lo.y()), Vec<2, double>(lo.x(), c.y()),
                                 Vec<2, double>(hi.x(), c.y()), Vec<2, double>(c.x(), hi.y())}) {
        transform_->Transform(mid);
        vertices_.push_back(mid);
      }
      const Node parent = nodes_[node];
      const auto m = static_cast<std::int32_t>(nodes_.size());
      nodes_.push_back({parent.ll, n + 2, n + 1, n, 0});
      nodes_.push_back({n + 1, n, parent.lr, n + 3, 0});
      nodes_.push_back({n + 2, parent.ul, n, n + 4, 0});
      nodes_.push_back({n, n + 4, n + 3, parent.ur, 0});
      nodes_[node].state = m;
    }
    // A point on a centre line goes right or up.
    std::size_t quadrant = 0;
    if (c.x() <= p.x()) {
      lo.x() = routeMin.x() = c.x();
      quadrant += 1;
    } else {
      hi.x() = routeMax.x() = c.x();
    }
    if (c.y() <= p.y()) {
      lo.y() = routeMin.y() = c.y();
      quadrant += 2;
    } else {
      hi.y() = routeMax.y() = c.y();
    }
    node = static_cast<std::size_t>(nodes_[node].state) + quadrant;
  }
  interpolate(node, lo, hi, p);
  leaf = {node, lo, hi, routeMin, routeMax};
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
  for (Vec<2, double>& p : points) {
    // The descent routes exactly the points of this half-open range to the
    // leaf, and leaves never change, so skipping it changes nothing.
    if (haveLeaf && leaf.routeMin.x() <= p.x() && p.x() < leaf.routeMax.x() && leaf.routeMin.y() <= p.y() &&
        p.y() < leaf.routeMax.y()) {
      interpolate(leaf.node, leaf.cellMin, leaf.cellMax, p);
      continue;
    }
    haveLeaf = descend(p, leaf);
  }
}

}  // namespace kel
