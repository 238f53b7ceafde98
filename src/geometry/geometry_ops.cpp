// GeometryBuffer operations of our own: generalisation (Douglas-Peucker),
// tessellation, the height filter and Chaikin smoothing.
#include <algorithm>
#include <array>
#include <cassert>
#include <climits>
#include <cmath>
#include <utility>
#include <vector>

#include "kel/core/log.h"
#include "kel/geometry/geometry_buffer.h"

namespace kel {

namespace {

// Starts out's geometry for one input geometry; an empty out takes the
// input's type and labels first.
void BeginGeometry(const LineBuffer& in, LineBuffer* out) {
  if (out->geometryCount() == 0) {
    out->SetGeometryType(in.geometryType());
    out->SetDimensionality(in.dimensionality(), in.ignoreZ());
  }
  out->NewGeometry();
}

struct P3 {
  double x, y, z;
};

P3 At(const LineBuffer& b, int i) { return {b.x(i), b.y(i), b.z(i)}; }

// Squared 3D distance from p to the segment a-b (to the nearer end when the
// foot of the perpendicular falls outside, to a when a and b coincide).
inline double SegmentDistance2(const double* p, const double* a, const double* b) {
  const double sx = b[0] - a[0], sy = b[1] - a[1], sz = b[2] - a[2];
  const double px = p[0] - a[0], py = p[1] - a[1], pz = p[2] - a[2];
  const double len2 = sx * sx + sy * sy + sz * sz;
  const double dot = px * sx + py * sy + pz * sz;
  if (len2 == 0.0 || dot <= 0.0) return px * px + py * py + pz * pz;
  if (dot >= len2) {
    const double qx = p[0] - b[0], qy = p[1] - b[1], qz = p[2] - b[2];
    return qx * qx + qy * qy + qz * qz;
  }
  const double t = dot / len2;
  const double dx = px - t * sx, dy = py - t * sy, dz = pz - t * sz;
  return dx * dx + dy * dy + dz * dz;
}

}  // namespace

bool GeometryBuffer::Generalize(LineBuffer* out, double tolerance) const {
  assert(out != nullptr && out != this);
  if (!(tolerance >= 0.0)) return false;
  const double limit = tolerance * tolerance;
  out->Reserve(out->pointCount() + pointCount());
  // The recursion of Douglas-Peucker emits kept points in index order, so a
  // stack that only marks them and one pass that emits the marks give the
  // same output without recursing a million deep on a spiral.
  std::vector<std::uint8_t> keep;
  std::vector<std::pair<int, int>> stack;
  const double* pts = pointData();
  for (int g = 0; g < geometryCount(); ++g) {
    BeginGeometry(*this, out);
    const int c0 = geometryFirstContour(g);
    for (int c = c0; c < c0 + geometryContourCount(g); ++c) {
      const int s = contourStart(c), e = contourEnd(c);
      keep.assign(std::size_t(e - s + 1), 0);
      stack.assign(1, {s, e});
      while (!stack.empty()) {
        const auto [i, j] = stack.back();
        stack.pop_back();
        if (j - i < 2) continue;
        const double* a = pts + 3 * std::size_t(i);
        const double* b = pts + 3 * std::size_t(j);
        double best = -1.0;
        int k = -1;
        for (int m = i + 1; m < j; ++m) {
          const double d = SegmentDistance2(pts + 3 * std::size_t(m), a, b);
          if (d > best) {
            best = d;
            k = m;
          }
        }
        if (best > limit) {
          keep[std::size_t(k - s)] = 1;
          stack.push_back({k, j});
          stack.push_back({i, k});
        }
      }
      out->MoveTo(x(s), y(s), z(s));
      for (int m = s + 1; m < e; ++m)
        if (keep[std::size_t(m - s)]) out->LineTo(x(m), y(m), z(m));
      out->LineTo(x(e), y(e), z(e));
    }
  }
  return true;
}

bool GeometryBuffer::Tessellate(LineBuffer* out, double maxSegmentLength) const {
  assert(out != nullptr && out != this);
  if (!(maxSegmentLength > 0.0)) return false;
  const double inverse = 1.0 / maxSegmentLength;
  // First the pieces of every segment, so the output is sized once: growing
  // it as we go would copy and fault in every point about twice more.
  std::vector<std::uint32_t> pieces(std::size_t(std::max(pointCount(), 1)));
  double total = double(out->pointCount()) + double(pointCount());
  const double* pts = pointData();
  for (int c = 0; c < contourCount(); ++c)
    for (int i = contourStart(c) + 1; i <= contourEnd(c); ++i) {
      const double* p = pts + 3 * std::size_t(i - 1);
      const double dx = p[3] - p[0], dy = p[4] - p[1], dz = p[5] - p[2];
      const double n = std::ceil(std::sqrt(dx * dx + dy * dy + dz * dz) * inverse);
      if (n > 1.0) {
        total += n - 1.0;
        if (!(total <= double(INT_MAX))) {
          KEL_LOG_ERROR(L"Tessellate: the segment length is too small for this geometry");
          return false;
        }
      }
      pieces[std::size_t(i)] = n > 1.0 ? std::uint32_t(n) : 1u;
    }
  out->Reserve(int(total));
  const bool withZ = hasZ();
  std::array<double, 3 * 256> block;
  for (int g = 0; g < geometryCount(); ++g) {
    BeginGeometry(*this, out);
    const int c0 = geometryFirstContour(g);
    for (int c = c0; c < c0 + geometryContourCount(g); ++c) {
      const int s = contourStart(c), e = contourEnd(c);
      out->MoveTo(x(s), y(s), z(s));
      // Points go out in blocks, not one LineTo each.
      std::size_t used = 0;
      for (int i = s + 1; i <= e; ++i) {
        const double* p = pts + 3 * std::size_t(i - 1);
        const std::uint32_t n = pieces[std::size_t(i)];
        const double dx = p[3] - p[0], dy = p[4] - p[1], dz = p[5] - p[2];
        const double dn = double(n);
        for (std::uint32_t k = 1; k <= n; ++k) {
          if (used == block.size()) {
            out->LineToMany(block.data(), int(used / 3));
            used = 0;
          }
          if (k == n) {  // the input vertex itself, exactly
            block[used] = p[3], block[used + 1] = p[4], block[used + 2] = p[5];
          } else {
            const double t = double(k) / dn;
            block[used] = p[0] + dx * t, block[used + 1] = p[1] + dy * t, block[used + 2] = p[2] + dz * t;
          }
          used += 3;
        }
      }
      out->LineToMany(block.data(), int(used / 3));
      if (x(e) == x(s) && y(e) == y(s) && (!withZ || z(e) == z(s))) out->Close();
    }
  }
  return true;
}

bool GeometryBuffer::SmoothHeightChanges(LineBuffer* out, double window) const {
  assert(out != nullptr && out != this);
  if (!(window > 0.0)) return false;
  std::vector<double> along, zs, prefix, pos;
  for (int g = 0; g < geometryCount(); ++g) {
    BeginGeometry(*this, out);
    const int c0 = geometryFirstContour(g);
    for (int c = c0; c < c0 + geometryContourCount(g); ++c) {
      const int s = contourStart(c), e = contourEnd(c);
      const int n = e - s + 1;
      along.assign(std::size_t(n), 0.0);
      for (int i = 1; i < n; ++i)
        along[std::size_t(i)] = along[std::size_t(i - 1)] + std::hypot(x(s + i) - x(s + i - 1), y(s + i) - y(s + i - 1));
      const bool closed = n >= 4 && x(e) == x(s) && y(e) == y(s) && z(e) == z(s);
      // Positions and heights of the points the window runs over: a closed
      // ring's distinct points three times (one lap before and after), else
      // the contour once.
      const int m = closed ? n - 1 : n;
      const double lap = closed ? along[std::size_t(n - 1)] : 0.0;
      const int copies = closed ? 3 : 1;
      pos.clear();
      prefix.assign(1, 0.0);
      for (int r = 0; r < copies; ++r)
        for (int i = 0; i < m; ++i) {
          pos.push_back(along[std::size_t(i)] + (r - (closed ? 1 : 0)) * lap);
          prefix.push_back(prefix.back() + z(s + i));
        }
      double half = 0.5 * window;
      // Never a whole lap: each point of a ring counts once at most.
      const bool wholeLap = closed && half >= 0.5 * lap;
      if (wholeLap) half = 0.5 * lap;
      zs.assign(std::size_t(n), 0.0);
      std::size_t lo = 0, hi = 0;
      for (int i = 0; i < m; ++i) {
        const double centre = pos[std::size_t(i + (closed ? m : 0))];
        while (pos[lo] < centre - half) ++lo;
        if (hi < lo) hi = lo;
        while (hi < pos.size() && (wholeLap ? pos[hi] < centre + half : pos[hi] <= centre + half)) ++hi;
        zs[std::size_t(i)] = (prefix[hi] - prefix[lo]) / double(hi - lo);
      }
      if (closed) zs[std::size_t(n - 1)] = zs[0];
      out->MoveTo(x(s), y(s), zs[0]);
      for (int i = 1; i < n; ++i) out->LineTo(x(s + i), y(s + i), zs[std::size_t(i)]);
    }
  }
  return true;
}

void GeometryBuffer::SmoothPolygon(GeometryBuffer* out, const LineBuffer* in, double cut, double passes) {
  assert(out != nullptr && in != nullptr && out != in);
  if (std::isnan(cut) || std::isnan(passes)) {
    KEL_LOG_ERROR(L"SmoothPolygon: the cut or the pass count is not a number");
    return;
  }
  cut = std::clamp(cut, 0.01, 0.5);
  const int rounds = int(std::clamp(std::round(passes), 0.0, 8.0));
  std::vector<P3> a, b;
  auto mix = [](const P3& p, const P3& q, double t) {
    return P3{p.x + (q.x - p.x) * t, p.y + (q.y - p.y) * t, p.z + (q.z - p.z) * t};
  };
  for (int g = 0; g < in->geometryCount(); ++g) {
    BeginGeometry(*in, out);
    const int c0 = in->geometryFirstContour(g);
    for (int c = c0; c < c0 + in->geometryContourCount(g); ++c) {
      const int s = in->contourStart(c), e = in->contourEnd(c);
      a.clear();
      for (int i = s; i <= e; ++i) a.push_back(At(*in, i));
      const bool closed = a.size() >= 4 && a.front().x == a.back().x && a.front().y == a.back().y &&
                          a.front().z == a.back().z;
      if (closed) a.pop_back();
      if (a.size() >= 3) {
        for (int r = 0; r < rounds; ++r) {
          b.clear();
          const std::size_t n = a.size();
          if (!closed) b.push_back(a.front());
          const std::size_t edges = closed ? n : n - 1;
          for (std::size_t i = 0; i < edges; ++i) {
            const P3& p = a[i];
            const P3& q = a[(i + 1) % n];
            if (cut >= 0.5) {  // both cuts meet in the middle
              b.push_back(mix(p, q, 0.5));
              continue;
            }
            // An open line keeps its ends: no cut next to them.
            if (closed || i > 0) b.push_back(mix(p, q, cut));
            if (closed || i + 1 < edges) b.push_back(mix(p, q, 1.0 - cut));
          }
          if (!closed) b.push_back(a.back());
          std::swap(a, b);
        }
      }
      out->MoveTo(a[0].x, a[0].y, a[0].z);
      for (std::size_t i = 1; i < a.size(); ++i) out->LineTo(a[i].x, a[i].y, a[i].z);
      if (closed) out->LineTo(a[0].x, a[0].y, a[0].z);
    }
  }
}

}  // namespace kel
