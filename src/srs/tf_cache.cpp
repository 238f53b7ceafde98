#include "kel/srs/tf_cache.h"

#include <cmath>
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
  buildJumps();
}

void TfCache::buildJumps() {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  constexpr std::size_t kColumns = std::size_t{1} << kJumpLevel;
  for (int axis = 0; axis < 2; ++axis) {
    const double lo = region_.min[axis], hi = region_.max[axis];
    if (!(lo < hi)) return;  // also NaN
    jumpScale_[axis] = static_cast<double>(kColumns) / (hi - lo);
    if (!std::isfinite(jumpScale_[axis])) return;
  }
  for (int axis = 0; axis < 2; ++axis) {
    std::vector<AxisCell>& cells = axes_[axis];
    cells.resize(2 * kColumns - 1);
    const double lo = region_.min[axis], hi = region_.max[axis];
    cells[0] = {lo, hi, (lo + hi) * 0.5, -kInf, kInf};
    for (std::size_t level = 1; level <= kJumpLevel; ++level) {
      const std::size_t first = (std::size_t{1} << level) - 1, parentFirst = (std::size_t{1} << (level - 1)) - 1;
      for (std::size_t i = 0; i < (std::size_t{1} << level); ++i) {
        const AxisCell& parent = cells[parentFirst + i / 2];
        AxisCell& cell = cells[first + i];
        // Exactly the descent's steps: upper takes [c, hi), lower [lo, c).
        if (i & 1) cell = {parent.c, parent.hi, 0, parent.c, parent.routeHi};
        else cell = {parent.lo, parent.c, 0, parent.routeLo, parent.c};
        cell.c = (cell.lo + cell.hi) * 0.5;
      }
    }
  }
  jumps_.assign(kColumns * kColumns, Jump{});
}

namespace {

// The column of the last level whose routing range holds x: a guess from
// the scale, then corrected against the cuts themselves, which rounding may
// shift by one. A NaN goes left at every level, as in the descent. A free
// function, so that it inlines (members of an exported class do not).
template <typename Cell>
std::size_t Column(const Cell* cells, std::size_t last, double origin, double scale, double x) {
  if (std::isnan(x)) return 0;
  double guess = (x - origin) * scale;
  guess = guess < 0.0 ? 0.0 : guess > static_cast<double>(last) ? static_cast<double>(last) : guess;
  std::size_t i = static_cast<std::size_t>(guess);
  while (i > 0 && x < cells[i].routeLo) --i;
  while (i < last && !(x < cells[i].routeHi)) ++i;
  return i;
}

}  // namespace

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
  constexpr std::size_t kNoCell = ~std::size_t{0};
  const V point = Lanes::Load(p);
  V lo = Lanes::Load(region_.min);
  V hi = Lanes::Load(region_.max);
  V c = Lanes::Half(Lanes::Add(lo, hi));
  V routeLo = Lanes::Set(-kInf, -kInf);
  V routeHi = Lanes::Set(kInf, kInf);
  const std::size_t depthLimit = maxDepth_ != 0 ? maxDepth_ : std::numeric_limits<std::size_t>::max();
  std::size_t node = 0;
  std::size_t depth = 0;  // nodes visited so far; the node at level l is the (l+1)-th
  std::size_t cell = kNoCell;  // the jump cell still to be filled by this descent
  if (!jumps_.empty()) {
    constexpr std::size_t kLast = (std::size_t{1} << kJumpLevel) - 1;
    const std::size_t column = Column(&axes_[0][kLast], kLast, region_.min.x(), jumpScale_[0], p.x());
    const std::size_t row = Column(&axes_[1][kLast], kLast, region_.min.y(), jumpScale_[1], p.y());
    cell = row << kJumpLevel | column;
    const Jump jump = jumps_[cell];
    if (jump.node >= 0) {
      const std::size_t offset = (std::size_t{1} << jump.level) - 1, shift = kJumpLevel - jump.level;
      const AxisCell& ax = axes_[0][offset + (column >> shift)];
      const AxisCell& ay = axes_[1][offset + (row >> shift)];
      lo = Lanes::Set(ax.lo, ay.lo);
      hi = Lanes::Set(ax.hi, ay.hi);
      c = Lanes::Set(ax.c, ay.c);
      routeLo = Lanes::Set(ax.routeLo, ay.routeLo);
      routeHi = Lanes::Set(ax.routeHi, ay.routeHi);
      node = static_cast<std::size_t>(jump.node);
      depth = static_cast<std::size_t>(jump.level);
      cell = kNoCell;
    }
  }
  for (;;) {
    if (++depth > depthLimit) {
      KEL_LOG_WARN(L"Search tree depth exceeded. Performing slow transform.");
      transform_->Transform(p);
      return false;
    }
    std::int32_t state = states_[node];
    if (state == 0) state = test(node, Lanes::ToVec(lo), Lanes::ToVec(hi), Lanes::ToVec(c)) ? -1 : states_[node];
    if (cell != kNoCell && (state == -1 || depth == kJumpLevel + 1)) {
      jumps_[cell] = {static_cast<std::int32_t>(node), static_cast<std::int32_t>(depth - 1)};
      cell = kNoCell;
    }
    if (state == -1) break;
    node = static_cast<std::size_t>(state) + detail::Route<Lanes, kTrackLeaf>(point, lo, hi, c, routeLo, routeHi);
    // Whether this node is the leaf is known only once its state arrives;
    // its corners, which a leaf needs next, are fetched meanwhile.
    __builtin_prefetch(&nodes_[node]);
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
  // Points in random order rarely fall into a remembered leaf; after a run of
  // misses a stretch goes through the plain descent, without the
  // bookkeeping (a fifth of the time per point), then the leaves get tried
  // again.
  constexpr int kMissRun = 16;
  constexpr std::uint32_t kStretch = 256;
  int misses = 0;
  for (std::uint32_t i = 0; i < points.count; ++i) {
    if (misses == kMissRun) {
      const std::uint32_t end = points.count - i < kStretch ? points.count : i + kStretch;
      for (; i < end; ++i) descend<false>(points[i], nullptr);
      misses = 0;
      if (i == points.count) break;
    }
    Vec<2, double>& p = points[i];
    const V point = Lanes::Load(p);
    if (held > 0 && detail::InRoute<Lanes>(recent[0].leaf.routeLo, recent[0].leaf.routeHi, point)) {
      const Recent& r = recent[0];
      p = Lanes::ToVec(detail::Bilinear<Lanes>(r.ll, r.ul, r.lr, r.ur, r.leaf.lo, r.leaf.hi, point));
      misses = 0;
      continue;
    }
    if (held > 1 && detail::InRoute<Lanes>(recent[1].leaf.routeLo, recent[1].leaf.routeHi, point)) {
      std::swap(recent[0], recent[1]);
      const Recent& r = recent[0];
      p = Lanes::ToVec(detail::Bilinear<Lanes>(r.ll, r.ul, r.lr, r.ur, r.leaf.lo, r.leaf.hi, point));
      misses = 0;
      continue;
    }
    ++misses;
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
