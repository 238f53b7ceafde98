#include "city/polygon.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <utility>

#include "city/geos_util.h"

namespace city {
namespace {

double Cross(const Vec2d& a, const Vec2d& b, const Vec2d& c) {
  return (b.x() - a.x()) * (c.y() - a.y()) - (b.y() - a.y()) * (c.x() - a.x());
}

// Segments ab and cd share a point (touching counts).
bool SegmentsMeet(const Vec2d& a, const Vec2d& b, const Vec2d& c, const Vec2d& d) {
  const double d1 = Cross(c, d, a), d2 = Cross(c, d, b), d3 = Cross(a, b, c), d4 = Cross(a, b, d);
  if (((d1 > 0 && d2 < 0) || (d1 < 0 && d2 > 0)) && ((d3 > 0 && d4 < 0) || (d3 < 0 && d4 > 0))) return true;
  auto onSegment = [](const Vec2d& p, const Vec2d& q, const Vec2d& r) {  // r on pq, given collinear
    return std::min(p.x(), q.x()) <= r.x() && r.x() <= std::max(p.x(), q.x()) && std::min(p.y(), q.y()) <= r.y() &&
           r.y() <= std::max(p.y(), q.y());
  };
  return (d1 == 0 && onSegment(c, d, a)) || (d2 == 0 && onSegment(c, d, b)) || (d3 == 0 && onSegment(a, b, c)) ||
         (d4 == 0 && onSegment(a, b, d));
}

// The merged outline of outer ring and bridged holes as a circular doubly
// linked list over the polygon's points; bridges duplicate two points.
struct Node {
  std::uint32_t index;
  Vec2d p;
  std::uint32_t prev, next;
};

class EarClipper {
public:
  explicit EarClipper(const Polygon& polygon) {
    // Relative to the first point: the cross products stay small and exact longer.
    origin_ = polygon.rings[0][0];
    std::uint32_t index = 0;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> holes;  // first node, node of largest x
    for (std::size_t r = 0; r < polygon.rings.size(); ++r) {
      const Ring& ring = polygon.rings[r];
      const auto first = static_cast<std::uint32_t>(nodes_.size());
      std::uint32_t right = first;
      for (std::size_t i = 0; i < ring.size(); ++i, ++index) {
        const auto n = static_cast<std::uint32_t>(nodes_.size());
        nodes_.push_back({index, ring[i] - origin_, i ? n - 1 : 0, 0});
        if (nodes_[n].p.x() > nodes_[right].p.x()) right = n;
      }
      const auto last = static_cast<std::uint32_t>(nodes_.size() - 1);
      nodes_[first].prev = last;
      for (std::uint32_t n = first; n < last; ++n) nodes_[n].next = n + 1;
      nodes_[last].next = first;
      if (r > 0) holes.push_back({first, right});
    }
    start_ = 0;
    // Holes reaching furthest right first: a later hole's ray then meets
    // the outline, which already holds the earlier ones.
    std::sort(holes.begin(), holes.end(), [&](const auto& a, const auto& b) {
      return nodes_[a.second].p.x() > nodes_[b.second].p.x();
    });
    ok_ = true;
    for (const auto& h : holes)
      if (!Bridge(h.second)) {
        ok_ = false;
        break;
      }
  }

  bool Clip(std::vector<std::uint32_t>& out) {
    if (!ok_) return false;
    std::uint32_t count = 0;
    for (std::uint32_t n = start_;;) {
      ++count;
      n = nodes_[n].next;
      if (n == start_) break;
    }
    std::uint32_t cur = start_, misses = 0;
    while (count > 3) {
      const Node& c = nodes_[cur];
      if (IsEar(cur)) {
        out.insert(out.end(), {nodes_[c.prev].index, c.index, nodes_[c.next].index});
        const std::uint32_t next = c.next;
        Remove(cur);
        --count;
        cur = next;
        misses = 0;
        continue;
      }
      cur = c.next;
      if (++misses < count) continue;
      // A whole round without an ear: drop one vertex that adds no area
      // (collinear or a spike back onto itself), else give up.
      if (!DropDegenerate(count)) return false;
      cur = start_;
      misses = 0;
    }
    const Node& c = nodes_[cur];
    if (Cross(nodes_[c.prev].p, c.p, nodes_[c.next].p) > 0)
      out.insert(out.end(), {nodes_[c.prev].index, c.index, nodes_[c.next].index});
    return true;
  }

private:
  void Remove(std::uint32_t n) {
    Node& x = nodes_[n];
    nodes_[x.prev].next = x.next;
    nodes_[x.next].prev = x.prev;
    if (start_ == n) start_ = x.next;
  }

  bool DropDegenerate(std::uint32_t& count) {
    std::uint32_t n = start_;
    for (std::uint32_t i = 0; i < count; ++i, n = nodes_[n].next) {
      const Node& x = nodes_[n];
      const Vec2d &a = nodes_[x.prev].p, &b = x.p, &c = nodes_[x.next].p;
      if (Cross(a, b, c) == 0 || (a == b) || (b == c)) {
        Remove(n);
        --count;
        return true;
      }
    }
    return false;
  }

  // Convex corner whose triangle holds no other vertex of the outline
  // (copies of its own corners, made by bridges, do not count).
  bool IsEar(std::uint32_t n) const {
    const Node& x = nodes_[n];
    const Vec2d &a = nodes_[x.prev].p, &b = x.p, &c = nodes_[x.next].p;
    if (Cross(a, b, c) <= 0) return false;
    const double minX = std::min({a.x(), b.x(), c.x()}), maxX = std::max({a.x(), b.x(), c.x()});
    const double minY = std::min({a.y(), b.y(), c.y()}), maxY = std::max({a.y(), b.y(), c.y()});
    for (std::uint32_t m = nodes_[x.next].next; m != x.prev; m = nodes_[m].next) {
      const Vec2d& p = nodes_[m].p;
      if (p.x() < minX || p.x() > maxX || p.y() < minY || p.y() > maxY) continue;
      if (p == a || p == b || p == c) continue;
      if (Cross(a, b, p) >= 0 && Cross(b, c, p) >= 0 && Cross(c, a, p) >= 0) return false;
    }
    return true;
  }

  // Whether the direction from node n to q lies within the outline's
  // interior angle at n (the outline runs counter-clockwise).
  bool Opens(std::uint32_t n, const Vec2d& q) const {
    const Vec2d &a = nodes_[nodes_[n].prev].p, &v = nodes_[n].p, &b = nodes_[nodes_[n].next].p;
    const bool left = Cross(a, v, q) >= 0, right = Cross(v, b, q) >= 0;
    return Cross(a, v, b) >= 0 ? left && right : left || right;
  }

  // Joins the hole holding node m (its rightmost point) to the outline.
  bool Bridge(std::uint32_t m) {
    const Vec2d M = nodes_[m].p;
    // The nearest outline edge the ray from M towards +x meets.
    double best = std::numeric_limits<double>::infinity();
    std::uint32_t hit = UINT32_MAX;
    std::uint32_t n = start_;
    do {
      const Vec2d &a = nodes_[n].p, &b = nodes_[nodes_[n].next].p;
      if (a.y() != b.y() && std::min(a.y(), b.y()) <= M.y() && M.y() <= std::max(a.y(), b.y())) {
        const double x = a.x() + (M.y() - a.y()) * (b.x() - a.x()) / (b.y() - a.y());
        if (x >= M.x() && x < best) {
          best = x;
          hit = a.x() > b.x() ? n : nodes_[n].next;
          if (x == a.x() && M.y() == a.y()) hit = n;
          else if (x == b.x() && M.y() == b.y()) hit = nodes_[n].next;
        }
      }
      n = nodes_[n].next;
    } while (n != start_);
    if (hit == UINT32_MAX) return false;
    // A reflex vertex inside the triangle (M, I, P) would block the view to P:
    // take the one seen at the smallest angle from the ray instead.
    const Vec2d I(best, M.y());
    const Vec2d P = nodes_[hit].p;
    if (P != I) {
      const Vec2d lo(std::min({M.x(), I.x(), P.x()}), std::min({M.y(), I.y(), P.y()}));
      const Vec2d hi(std::max({M.x(), I.x(), P.x()}), std::max({M.y(), I.y(), P.y()}));
      const bool ccw = Cross(M, I, P) > 0;
      double bestCos = -2, bestDist = 0;
      std::uint32_t chosen = hit;
      n = start_;
      do {
        const Node& x = nodes_[n];
        const Vec2d& q = x.p;
        if (n != hit && q.x() >= lo.x() && q.x() <= hi.x() && q.y() >= lo.y() && q.y() <= hi.y() &&
            Cross(nodes_[x.prev].p, q, nodes_[x.next].p) < 0) {
          const double s1 = Cross(M, I, q), s2 = Cross(I, P, q), s3 = Cross(P, M, q);
          const bool inside = ccw ? (s1 >= 0 && s2 >= 0 && s3 >= 0) : (s1 <= 0 && s2 <= 0 && s3 <= 0);
          if (inside) {
            const Vec2d d = q - M;
            const double len = std::hypot(d.x(), d.y());
            const double cosine = len > 0 ? d.x() / len : 1;
            if (cosine > bestCos || (cosine == bestCos && len < bestDist)) {
              bestCos = cosine;
              bestDist = len;
              chosen = n;
            }
          }
        }
        n = nodes_[n].next;
      } while (n != start_);
      hit = chosen;
    }
    // Earlier bridges left copies of some points. Of the copies of P, the
    // bridge must leave the one whose corner opens towards M, or the
    // outline would cross itself.
    n = start_;
    do {
      if (nodes_[n].p == nodes_[hit].p && n != hit && !Opens(hit, M) && Opens(n, M)) hit = n;
      n = nodes_[n].next;
    } while (n != start_);
    // P -> M -> (hole) -> M' -> P' -> P's old next.
    const auto m2 = static_cast<std::uint32_t>(nodes_.size());
    nodes_.push_back(nodes_[m]);
    const auto p2 = static_cast<std::uint32_t>(nodes_.size());
    nodes_.push_back(nodes_[hit]);
    const std::uint32_t mPrev = nodes_[m].prev, pNext = nodes_[hit].next;
    nodes_[hit].next = m;
    nodes_[m].prev = hit;
    nodes_[mPrev].next = m2;
    nodes_[m2].prev = mPrev;
    nodes_[m2].next = p2;
    nodes_[p2].prev = m2;
    nodes_[p2].next = pNext;
    nodes_[pNext].prev = p2;
    return true;
  }

  std::vector<Node> nodes_;
  Vec2d origin_;
  std::uint32_t start_ = 0;
  bool ok_ = false;
};

bool GeosTriangulate(const Polygon& polygon, std::vector<std::uint32_t>& out) {
  GEOSContextHandle_t ctx = GEOS_init_r();
  if (!ctx) return false;
  std::map<std::pair<double, double>, std::uint32_t> indexOf;
  std::uint32_t index = 0;
  for (const Ring& ring : polygon.rings)
    for (const Vec2d& p : ring) indexOf.emplace(std::make_pair(p.x(), p.y()), index++);
  bool ok = false;
  GEOSGeometry* shape = ToGeos(ctx, polygon);
  GEOSGeometry* tin = shape ? GEOSConstrainedDelaunayTriangulation_r(ctx, shape) : nullptr;
  if (tin) {
    ok = true;
    const int n = GEOSGetNumGeometries_r(ctx, tin);
    for (int t = 0; t < n; ++t) {
      const GEOSGeometry* ring = GEOSGetExteriorRing_r(ctx, GEOSGetGeometryN_r(ctx, tin, t));
      const GEOSCoordSequence* seq = ring ? GEOSGeom_getCoordSeq_r(ctx, ring) : nullptr;
      std::uint32_t tri[3];
      Vec2d corner[3];
      bool found = seq != nullptr;
      for (unsigned i = 0; found && i < 3; ++i) {
        double x = 0, y = 0;
        GEOSCoordSeq_getXY_r(ctx, seq, i, &x, &y);
        const auto it = indexOf.find({x, y});
        found = it != indexOf.end();
        if (found) tri[i] = it->second, corner[i] = Vec2d(x, y);
      }
      if (!found) continue;  // a point the triangulator added: its triangle is dropped
      if (Cross(corner[0], corner[1], corner[2]) < 0) std::swap(tri[1], tri[2]);
      out.insert(out.end(), {tri[0], tri[1], tri[2]});
    }
    GEOSGeom_destroy_r(ctx, tin);
  }
  if (shape) GEOSGeom_destroy_r(ctx, shape);
  GEOS_finish_r(ctx);
  return ok;
}

}  // namespace

double SignedArea2(const Ring& ring) {
  double sum = 0;
  const std::size_t n = ring.size();
  if (n < 3) return 0;
  // Relative to the first point: model coordinates of whole cities would
  // otherwise cancel most of the digits.
  const Vec2d o = ring[0];
  for (std::size_t i = 1; i + 1 < n; ++i) {
    const Vec2d a = ring[i] - o, b = ring[i + 1] - o;
    sum += a.x() * b.y() - a.y() * b.x();
  }
  return sum;
}

double Area(const Polygon& polygon) {
  double area = 0;
  for (std::size_t r = 0; r < polygon.rings.size(); ++r) {
    const double a = std::fabs(SignedArea2(polygon.rings[r])) / 2;
    area += r == 0 ? a : -a;
  }
  return area;
}

BBox<2, double> Bounds(const Polygon& polygon) {
  BBox<2, double> box;
  if (!polygon.rings.empty())
    for (const Vec2d& p : polygon.rings[0]) box.extend(p);
  return box;
}

BBox<2, double> Bounds(const std::vector<Polygon>& parts) {
  BBox<2, double> box;
  for (const Polygon& p : parts) box.extend(Bounds(p));
  return box;
}

void Orient(Polygon& polygon) {
  for (std::size_t r = 0; r < polygon.rings.size(); ++r) {
    Ring& ring = polygon.rings[r];
    const bool ccw = SignedArea2(ring) > 0;
    if (ccw != (r == 0)) std::reverse(ring.begin(), ring.end());
  }
}

void DropRepeats(Ring& ring) {
  ring.erase(std::unique(ring.begin(), ring.end()), ring.end());
  while (ring.size() > 1 && ring.front() == ring.back()) ring.pop_back();
}

bool IsSimple(const Ring& ring) {
  const std::size_t n = ring.size();
  if (n < 3) return false;
  for (std::size_t i = 0; i < n; ++i) {
    const Vec2d &a = ring[i], &b = ring[(i + 1) % n];
    for (std::size_t j = i + 1; j < n; ++j) {
      const Vec2d &c = ring[j], &d = ring[(j + 1) % n];
      const bool neighbours = j == i + 1 || (i == 0 && j == n - 1);
      if (neighbours) {
        // Neighbours share one corner; folding back onto each other is a
        // touch all the same.
        const Vec2d& shared = j == i + 1 ? b : a;
        const Vec2d& p = j == i + 1 ? a : b;
        const Vec2d& q = j == i + 1 ? d : c;
        if (Cross(p, shared, q) == 0 && ((p.x() - shared.x()) * (q.x() - shared.x()) + (p.y() - shared.y()) * (q.y() - shared.y())) > 0)
          return false;
        continue;
      }
      if (SegmentsMeet(a, b, c, d)) return false;
    }
  }
  return true;
}

bool EarClip(const Polygon& polygon, std::vector<std::uint32_t>& triangles) {
  if (polygon.rings.empty() || polygon.rings[0].size() < 3) return false;
  for (const Ring& r : polygon.rings)
    if (r.size() < 3) return false;
  EarClipper clipper(polygon);
  return clipper.Clip(triangles);
}

bool Triangulate(const Polygon& polygon, std::vector<std::uint32_t>& triangles) {
  std::size_t points = 0;
  for (const Ring& r : polygon.rings) points += r.size();
  const std::size_t before = triangles.size();
  // Past a few hundred points the ear search's quadratic cost overtakes GEOS.
  if (points <= 400 && EarClip(polygon, triangles)) return true;
  triangles.resize(before);
  return GeosTriangulate(polygon, triangles);
}

}  // namespace city
