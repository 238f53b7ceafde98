// Pick index: a wide tree built by the surface area heuristic, leaf
// triangles packed into packets, the column grid for vertical rays, and
// the kernel dispatch.
#include "kel/spatial/pick_index.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "spatial/detail/aligned_memory.h"
#include "spatial/detail/lane4.h"
#include "spatial/detail/pick_layout.h"

namespace kel::fdo {

using namespace detail;

#ifdef KEL_PICK_STATS
namespace detail {
PickCounters g_pickCounters;
namespace {
struct PrintCounters {
  ~PrintCounters() {
    const auto& c = g_pickCounters;
    const double n = c.rays ? double(c.rays) : 1.0;
    std::fprintf(stderr, "pick stats: %llu rays, per ray %.2f nodes, %.2f leaves, %.2f packets, %.2f entries\n", c.rays,
                 double(c.nodes) / n, double(c.leaves) / n, double(c.packets) / n, double(c.entries) / n);
  }
} printCounters;
}  // namespace
}  // namespace detail
#endif

namespace {

// The tree is built from the triangles alone, by binned surface-area
// splits, rather than from the exact bvh: that tree's middle splits cut
// through buildings and leave walls and roofs in leaves of ground, and on
// the benchmark tile random rays ran at a third of the speed they reach here.
//
// A group of up to this many triangles becomes a leaf, unless splitting it
// leaves parts with together less than half its area (a packet test costs
// about two node tests). Split costs count packets of this many triangles
// too. Fewer than a packet holds: the tighter boxes made random picks on
// the benchmark tile 8% faster than leaves of 16 did, for 4% more index.
constexpr int kLeafTriangles = 12;
constexpr int kBins = 16;
// Groups larger than this bin every (n / kSample)-th triangle only: the
// split is chosen from a sample, the partition still moves everyone.
constexpr std::uint32_t kSample = 1024;
// Groups of up to this many triangles bin along one axis only (up to 64
// built 3% faster but picked random rays 5% slower).
constexpr std::uint32_t kAllAxes = 16;
// Wide nodes deeper than this become leaves, so the walk's stack suffices.
constexpr int kMaxDepth = 60;

// Packets per grid cell, and the most column entries per packet before the
// grid is made coarser (huge triangles would otherwise fill every cell).
// Two packets a cell: vertical picks as fast as with one, or a little
// faster, on half the grid's memory.
constexpr double kPacketsPerCell = 2.0;
constexpr double kMaxEntriesPerPacket = 16.0;

using namespace detail::simd;

template <typename T>
using Block = std::unique_ptr<T[], BlockFree>;

template <typename T>
Block<T> Allocate(std::size_t n) {
  return Block<T>(static_cast<T*>(AllocBlock(n * sizeof(T), 64)));
}

[[noreturn]] void Invalid(const char* what) { throw std::invalid_argument(std::string("pick_index: ") + what); }

struct Bounds {
  float lo[3] = {HUGE_VALF, HUGE_VALF, HUGE_VALF};
  float hi[3] = {-HUGE_VALF, -HUGE_VALF, -HUGE_VALF};
  void grow(const float* p) {
    for (int a = 0; a < 3; ++a) {
      lo[a] = std::min(lo[a], p[a]);
      hi[a] = std::max(hi[a], p[a]);
    }
  }
  void grow(const Bounds& b) {
    for (int a = 0; a < 3; ++a) {
      lo[a] = std::min(lo[a], b.lo[a]);
      hi[a] = std::max(hi[a], b.hi[a]);
    }
  }
  bool empty() const { return !(lo[0] <= hi[0]); }
};

bool Finite3(const float* p) { return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]); }

// A triangle while the tree is built: its box as two four-lane vectors
// (spare lanes 0). Its triangle number travels in a parallel array.
struct alignas(16) Ref {
  float lo[4];
  float hi[4];
};

// A box and the box of the centres (kept doubled: lo + hi) of a group.
struct Box4 {
  Lane4 lo = Set1(HUGE_VALF), hi = Set1(-HUGE_VALF);
  void grow(Lane4 l, Lane4 h) {
    lo = Min(lo, l);
    hi = Max(hi, h);
  }
  float halfArea() const {
    alignas(16) float e[4];
    Store(e, Sub(hi, lo));
    if (!(e[0] >= 0.0f)) return 0.0f;
    return e[0] * e[1] + e[1] * e[2] + e[2] * e[0];
  }
};

// The bin of a scaled offset, saturating (also for NaN, from overflowed
// extents), where a plain conversion to int would be undefined.
inline int BinOf(float f) {
  if (!(f > 0.0f)) return 0;
  return f < float(kBins - 1) ? int(f) : kBins - 1;
}

// BinOf for three lanes at once: max then min (a NaN lane becomes 0, as
// maxps returns its second operand), then one truncating conversion.
inline void Bins3(Lane4 f, int* k) {
#if KEL_HAS_SSE2
  const __m128i b = _mm_cvttps_epi32(_mm_min_ps(_mm_max_ps(f.v, _mm_setzero_ps()), _mm_set1_ps(float(kBins - 1))));
  alignas(16) int out[4];
  _mm_store_si128(reinterpret_cast<__m128i*>(out), b);
  k[0] = out[0], k[1] = out[1], k[2] = out[2];
#else
  for (int a = 0; a < 3; ++a) k[a] = BinOf(f.v[a]);
#endif
}

// A group of triangles [begin, end) of the reference arrays.
struct Group {
  std::uint32_t begin = 0, end = 0;
  Box4 box, centres;
  // The chosen split, when there is one: bin `bin` and below go left.
  int axis = -1, bin = 0;
  float scale = 0, origin = 0;
  std::uint32_t count() const { return end - begin; }
};

// A packet being filled: triangles in leaf order, their distinct vertices
// as bit patterns (equal coordinates are one vertex, whatever their
// numbers; -0 and 0 are two) and corners.
struct Draft {
  int triangles = 0;
  int vertices = 0;
  std::uint32_t primitive[kPacketTris] = {};
  alignas(16) std::uint32_t x[kPacketVerts] = {}, y[kPacketVerts] = {}, z[kPacketVerts] = {};
  std::uint8_t corner[kPacketTris][3] = {};

  // The number of the vertex with bits v, or -1.
  int find(const std::uint32_t* v) const {
#if KEL_HAS_SSE2
    const __m128i px = _mm_set1_epi32(int(v[0])), py = _mm_set1_epi32(int(v[1])), pz = _mm_set1_epi32(int(v[2]));
    for (int j = 0; j < vertices; j += 4) {
      const auto at = [&](const std::uint32_t* a) { return _mm_load_si128(reinterpret_cast<const __m128i*>(a + j)); };
      const __m128i same = _mm_and_si128(_mm_and_si128(_mm_cmpeq_epi32(at(x), px), _mm_cmpeq_epi32(at(y), py)),
                                         _mm_cmpeq_epi32(at(z), pz));
      int m = _mm_movemask_ps(_mm_castsi128_ps(same));
      if (vertices - j < 4) m &= (1 << (vertices - j)) - 1;
      if (m) return j + __builtin_ctz(unsigned(m));
    }
#else
    for (int j = 0; j < vertices; ++j)
      if (x[j] == v[0] && y[j] == v[1] && z[j] == v[2]) return j;
#endif
    return -1;
  }
  void vertex(int j, float* out) const {
    std::memcpy(&out[0], &x[j], 4);
    std::memcpy(&out[1], &y[j], 4);
    std::memcpy(&out[2], &z[j], 4);
  }
};

struct PacketInfo {
  std::uint32_t offset;  // 4-byte units
  Bounds box;            // over triangles with finite vertices
};

class Builder {
public:
  Builder(const float* vertices, std::size_t vertexCount, const std::uint32_t* indices, std::size_t triangleCount)
      : xyz_(vertices), vertexCount_(vertexCount), tri_(indices), triangleCount_(triangleCount) {}

  void run(pick_index::stats& st, PickData& d, Block<WideNode>& nodes, Block<std::uint8_t>& packets,
           Block<ColumnCell>& cells, Block<ColumnEntry>& overflow, Block<std::uint32_t>& hints) {
    if (triangleCount_ >= kLeafBit) throw std::length_error("pick_index: too many triangles");
    st.triangles = int(triangleCount_);
    if (triangleCount_ == 0) return;
    if (!xyz_ || !tri_) Invalid("no vertices or no indices");
    const auto n = std::uint32_t(triangleCount_);
    // The references' block becomes the packets' block once the tree is
    // made: a second block's fresh pages cost the kernel's zeroing (3-5%
    // of the build on the benchmark tile).
    std::size_t capacity = std::max(sizeof(Ref) * n, std::size_t(n) * 24 + 4096 + 64);
    refs_.reset(static_cast<Ref*>(AllocBlock(capacity, 64)));
    prims_.reset(static_cast<std::uint32_t*>(AllocBlock(sizeof(std::uint32_t) * n, 64)));
    // Triangles with a non-finite vertex are never hit: they go last, into
    // one leaf with an empty box that no ray visits.
    std::uint32_t live = 0, dead = n;
    // Locals for everything the loop reads: its vector stores may alias
    // anything, and members would be reloaded at every triangle.
    const float* const xyz = xyz_;
    const std::uint32_t* const tri = tri_;
    const std::size_t vertexCount = vertexCount_;
    Ref* const refs = refs_.get();
    std::uint32_t* const prims = prims_.get();
    Group all;
    for (std::uint32_t i = 0; i < n; ++i) {
      const std::uint32_t* t = tri + 3 * std::size_t(i);
      if (t[0] >= vertexCount || t[1] >= vertexCount || t[2] >= vertexCount) Invalid("an index names no vertex");
      const float* v[3] = {xyz + 3 * std::size_t(t[0]), xyz + 3 * std::size_t(t[1]), xyz + 3 * std::size_t(t[2])};
      const bool finite = Finite3(v[0]) && Finite3(v[1]) && Finite3(v[2]);
      const std::uint32_t at = finite ? live++ : --dead;
      alignas(16) Ref r;
      for (int a = 0; a < 3; ++a) {
        r.lo[a] = std::min(std::min(v[0][a], v[1][a]), v[2][a]);
        r.hi[a] = std::max(std::max(v[0][a], v[1][a]), v[2][a]);
      }
      r.lo[3] = r.hi[3] = 0.0f;
      refs[at] = r;
      prims[at] = i;
      if (finite) Grow(all, r);
    }
    all.end = live;
    wide_.reserve(n / 48 + 16);  // about what the benchmark tile needs
    boxes_.reserve((n / 48 + 16) * kWidth);
    leaves_.reserve(n / 8 + 16);
    if (live < n) {
      // A root with the dead leaf beside the real tree.
      const std::uint32_t w = NewNode();
      AddLeaf(w, 0, live, n);
      if (live) Hang(w, 1, all, 1);
    } else {
      Hang(kNoChild, 0, all, 0);
    }

    // Packets go into that block, grown if need be, which is then shortened
    // to their size: a large block shrinks where it stands.
    std::size_t bytes = 0;
    Block<std::uint8_t> draft(reinterpret_cast<std::uint8_t*>(refs_.release()));
    std::vector<PacketInfo> info;
    info.reserve(n / 8 + 16);  // about n / 10.7 on the benchmark tile
    nodes = Allocate<WideNode>(std::max<std::size_t>(1, wide_.size()));
    std::copy(wide_.begin(), wide_.end(), nodes.get());
    for (const Leaf& leaf : leaves_) {
      const std::size_t first = bytes / 4;
      std::uint32_t count = 0;
      Bounds box;
      Packetise(leaf, [&](const Draft& p) {
        const std::size_t size = PacketBytes(p.triangles, p.vertices);
        if (bytes + size + 64 > capacity) {
          capacity = std::max(2 * capacity, bytes + size + 64);
          Block<std::uint8_t> bigger(static_cast<std::uint8_t*>(AllocBlock(capacity, 64)));
          std::memcpy(bigger.get(), draft.get(), bytes);
          draft = std::move(bigger);
        }
        PacketInfo pi{std::uint32_t(bytes / 4), {}};
        Write(p, draft.get() + bytes, pi.box);
        if (!pi.box.empty()) d.top = std::max(d.top, pi.box.hi[2]);
        bytes += size;
        box.grow(pi.box);
        info.push_back(pi);
        ++count;
      });
      // Leaf references count 4-byte units in 31 bits.
      if (bytes / 4 >= kLeafBit) throw std::length_error("pick_index: too many triangles");
      if (leaf.node == kNoChild) {
        d.root = kLeafBit | std::uint32_t(first);
        d.rootPackets = count;
      } else {
        WideNode& w = nodes[leaf.node];
        w.child[leaf.slot] = kLeafBit | std::uint32_t(first);
        w.packets[leaf.slot] = count;
        boxes_[std::size_t(leaf.node) * kWidth + std::size_t(leaf.slot)] = box;
      }
    }
    st.packets = int(info.size());
    // 64 spare bytes: a kernel may load a full vector past a packet's end.
    const std::size_t kept = bytes + 64;
    std::memset(draft.get() + bytes, 0, 64);
    packets.reset(static_cast<std::uint8_t*>(ShrinkBlock(draft.release(), kept, 64)));
    prims_.reset();
    // Children are made after their parents, so a reverse pass sees every
    // child's box complete before its parent takes it.
    for (std::size_t w = wide_.size(); w-- > 0;) {
      WideNode& node = nodes[w];
      Bounds* box = &boxes_[w * kWidth];
      for (int k = 0; k < kWidth; ++k) {
        if (node.child[k] == kNoChild || (node.child[k] & kLeafBit)) continue;
        const Bounds* inner = &boxes_[std::size_t(node.child[k]) * kWidth];
        for (int j = 0; j < kWidth; ++j) box[k].grow(inner[j]);
      }
      Quantise(node, box);
    }
    if (!wide_.empty()) d.root = 0;

    d.nodes = nodes.get();
    d.packets = packets.get();
    d.maxAbs = maxAbs_;
    st.nodes = int(wide_.size());
    st.leaves = int(leaves_.size());
    st.nodeBytes = sizeof(WideNode) * wide_.size();
    st.packetBytes = kept;
    BuildColumns(info, d, cells, overflow, hints, st);
  }

private:
  // A leaf: child `slot` of wide node `node` (kNoChild: the root), over
  // the triangles [begin, end) of the reference arrays.
  struct Leaf {
    std::uint32_t node;
    int slot;
    std::uint32_t begin, end;
  };

  static void Grow(Group& g, const Ref& r) {
    const Lane4 lo = Load(r.lo), hi = Load(r.hi);
    g.box.grow(lo, hi);
    const Lane4 c = Add(lo, hi);
    g.centres.grow(c, c);
  }

  std::uint32_t NewNode() {
    WideNode empty{};
    for (int k = 0; k < kWidth; ++k) empty.child[k] = kNoChild, empty.packets[k] = 0;
    wide_.push_back(empty);
    boxes_.resize(boxes_.size() + kWidth);
    return std::uint32_t(wide_.size() - 1);
  }

  void AddLeaf(std::uint32_t parent, int slot, std::uint32_t begin, std::uint32_t end) {
    leaves_.push_back(Leaf{parent, slot, begin, end});
    if (parent != kNoChild) wide_[parent].child[slot] = kLeafBit;
  }

  // Picks the best binned split of g; false when g should stay a leaf.
  bool Plan(Group& g) const {
    const std::uint32_t n = g.count();
    g.axis = -1;
    if (n <= 1) return false;
    alignas(16) float clo[4], chi[4];
    Store(clo, g.centres.lo);
    Store(chi, g.centres.hi);
    float scale[3];
    bool any = false;
    // Small groups try only the axis along which their centres spread most:
    // their planning is most of the build, and the other axes rarely win.
    int widest = 0;
    for (int a = 1; a < 3; ++a)
      if (chi[a] - clo[a] > chi[widest] - clo[widest]) widest = a;
    for (int a = 0; a < 3; ++a) {
      const float extent = chi[a] - clo[a];
      const bool tried = n > kAllAxes || a == widest;
      scale[a] = tried && extent > 0.0f ? float(kBins) * (1.0f - 1e-6f) / extent : 0.0f;
      any |= scale[a] > 0.0f;
    }
    if (!any) return false;  // every centre in one place
    const Lane4 origin = g.centres.lo, scales = [&] {
      alignas(16) float s4[4] = {scale[0], scale[1], scale[2], 0.0f};
      return Load(s4);
    }();
    Box4 bins[3][kBins];
    std::uint32_t counts[3][kBins] = {};
    const std::uint32_t step = n > kSample ? n / kSample : 1;
    const Ref* const refs = refs_.get();  // the bins' stores may alias the member
    for (std::uint32_t i = g.begin, end = g.end; i < end; i += step) {
      const Lane4 lo = Load(refs[i].lo), hi = Load(refs[i].hi);
      int k[3];
      Bins3(Mul(Sub(Add(lo, hi), origin), scales), k);
      for (int a = 0; a < 3; ++a) {
        bins[a][k[a]].grow(lo, hi);
        ++counts[a][k[a]];
      }
    }
    float best = HUGE_VALF;
    for (int a = 0; a < 3; ++a) {
      if (scale[a] == 0.0f) continue;
      // Sweeps over the bins from both ends; a part's cost is its area
      // times the packets it fills (sampled counts scaled back up).
      float rightCost[kBins];
      Box4 acc;
      std::uint32_t cnt = 0;
      float cost = -1.0f;  // unchanged across empty bins
      for (int k = kBins - 1; k > 0; --k) {
        if (counts[a][k]) {
          acc.grow(bins[a][k].lo, bins[a][k].hi), cnt += counts[a][k];
          cost = acc.halfArea() * float((cnt * step + kLeafTriangles - 1) / kLeafTriangles);
        }
        rightCost[k] = cost;
      }
      acc = Box4();
      cnt = 0;
      for (int k = 0; k < kBins - 1; ++k) {
        if (!counts[a][k]) continue;
        acc.grow(bins[a][k].lo, bins[a][k].hi);
        cnt += counts[a][k];
        if (rightCost[k + 1] < 0.0f) break;
        const float cost = acc.halfArea() * float((cnt * step + kLeafTriangles - 1) / kLeafTriangles) + rightCost[k + 1];
        if (cost < best) best = cost, g.axis = a, g.bin = k, g.scale = scale[a], g.origin = clo[a];
      }
    }
    if (g.axis < 0) return false;
    const float area = g.box.halfArea();
    if (n <= std::uint32_t(kLeafTriangles) && !(best + 0.5f * area < area)) {
      g.axis = -1;
      return false;
    }
    return true;
  }

  // Moves g's triangles so that the planned left part comes first and
  // gathers both parts' boxes on the way.
  void Split(const Group& g, Group& leftOut, Group& rightOut) {
    // Locals throughout: the swaps' vector stores may alias anything, which
    // would keep members and the callers' groups in memory for the loop.
    Ref* const refs = refs_.get();
    std::uint32_t* const prims = prims_.get();
    const int a = g.axis, bin = g.bin;
    const float origin = g.origin, scale = g.scale;
    std::uint32_t i = g.begin, j = g.end;
    Group left, right;
    auto goesLeft = [&](const Ref& r) { return BinOf(((r.lo[a] + r.hi[a]) - origin) * scale) <= bin; };
    while (i < j) {
      if (goesLeft(refs[i])) {
        Grow(left, refs[i++]);
        continue;
      }
      --j;
      std::swap(refs[i], refs[j]);
      std::swap(prims[i], prims[j]);
      Grow(right, refs[j]);
    }
    left.begin = g.begin, left.end = i;
    right.begin = i, right.end = g.end;
    // A sampled plan may leave one side empty: halve instead.
    if (left.count() == 0 || right.count() == 0) {
      const std::uint32_t mid = g.begin + g.count() / 2;
      left = Group(), right = Group();
      left.begin = g.begin, left.end = mid, right.begin = mid, right.end = g.end;
      for (std::uint32_t k = left.begin; k < left.end; ++k) Grow(left, refs[k]);
      for (std::uint32_t k = right.begin; k < right.end; ++k) Grow(right, refs[k]);
    }
    leftOut = left;
    rightOut = right;
  }

  // g as child `slot` of `parent`: a leaf, or a wide node made by splitting
  // the largest splittable group until there are kWidth.
  void Hang(std::uint32_t parent, int slot, Group g, int depth) {
    if (depth >= kMaxDepth || !Plan(g)) {
      AddLeaf(parent, slot, g.begin, g.end);
      return;
    }
    Group groups[kWidth];
    groups[0] = g;
    int m = 1;
    while (m < kWidth) {
      int best = -1;
      float bestArea = -1.0f;
      for (int k = 0; k < m; ++k) {
        if (groups[k].axis < 0) continue;
        const float area = groups[k].box.halfArea();
        if (best < 0 || area > bestArea) best = k, bestArea = area;
      }
      if (best < 0) break;
      Group left, right;
      Split(groups[best], left, right);
      Plan(left);
      Plan(right);
      groups[best] = left;
      groups[m++] = right;
    }
    const std::uint32_t w = NewNode();
    if (parent != kNoChild) wide_[parent].child[slot] = w;
    for (int k = 0; k < m; ++k) {
      if (groups[k].axis < 0)
        AddLeaf(w, k, groups[k].begin, groups[k].end);
      else
        Hang(w, k, groups[k], depth + 1);
    }
  }

  const float* Vertex(std::uint32_t prim, int k) const {
    return xyz_ + 3 * std::size_t(tri_[3 * std::size_t(prim) + std::size_t(k)]);
  }

  // Splits a leaf's triangles into packets: in order, while there are at
  // most 16 of them with at most 16 distinct vertices.
  template <class Emit>
  void Packetise(const Leaf& leaf, Emit&& emit) const {
    Draft p;
    for (std::uint32_t i = leaf.begin; i < leaf.end; ++i) {
      const std::uint32_t prim = prims_[i];
      // Leaf order is not soup order: ask early for a later triangle's corners.
      if (i + 8 < leaf.end) __builtin_prefetch(tri_ + 3 * std::size_t(prims_[i + 8]));
      std::uint32_t v[3][3];
      for (int k = 0; k < 3; ++k) std::memcpy(v[k], Vertex(prim, k), 12);
      int found[3], fresh = 0;
      for (int k = 0; k < 3; ++k) {
        found[k] = p.find(v[k]);
        bool dup = false;  // the same new vertex twice in one triangle
        for (int j = 0; j < k; ++j) dup |= found[j] < 0 && std::memcmp(v[j], v[k], 12) == 0;
        fresh += found[k] < 0 && !dup;
      }
      if (p.triangles == kPacketTris || p.vertices + fresh > kPacketVerts) {
        emit(p);
        p.triangles = p.vertices = 0;
        for (int k = 0; k < 3; ++k) found[k] = -1;
      }
      for (int k = 0; k < 3; ++k) {
        int j = found[k] >= 0 ? found[k] : p.find(v[k]);
        if (j < 0) {
          j = p.vertices++;
          p.x[j] = v[k][0], p.y[j] = v[k][1], p.z[j] = v[k][2];
        }
        p.corner[p.triangles][k] = std::uint8_t(j);
      }
      p.primitive[p.triangles++] = prim;
    }
    if (p.triangles) emit(p);
  }

  std::uint8_t* Write(const Draft& p, std::uint8_t* at, Bounds& box) {
    const int nv = p.vertices;
    // Every vertex belongs to a triangle, so when all are finite the box
    // of the vertices is the box of the triangles.
    bool finite = true;
    for (int j = 0; j < nv; ++j) {
      float q[3];
      p.vertex(j, q);
      finite &= Finite3(q);
    }
    const auto take = [&](const float* q) {
      box.grow(q);
      for (int a = 0; a < 3; ++a) maxAbs_ = std::max(maxAbs_, std::fabs(q[a]));
    };
    for (int j = 0; j < nv && finite; ++j) {
      float q[3];
      p.vertex(j, q);
      take(q);
    }
    for (int t = 0; t < p.triangles && !finite; ++t) {
      float c[3][3];
      for (int k = 0; k < 3; ++k) p.vertex(p.corner[t][k], c[k]);
      if (!Finite3(c[0]) || !Finite3(c[1]) || !Finite3(c[2])) continue;  // never hit
      for (const float* q : c) take(q);
    }
    PacketHeader h{};
    h.triangles = std::uint8_t(p.triangles);
    h.vertices = std::uint8_t(nv);
    h.minZ = box.lo[2];
    h.maxZ = box.hi[2];
    std::memcpy(at, &h, sizeof h);
    std::uint8_t* q = at + sizeof h;
    std::memcpy(q, p.primitive, 4 * std::size_t(p.triangles));
    q += 4 * p.triangles;
    for (const std::uint32_t* axis : {p.x, p.y, p.z}) {
      std::memcpy(q, axis, 4 * std::size_t(nv));
      q += 4 * nv;
    }
    std::memset(q, 0, 24);
    for (int t = 0; t < p.triangles; ++t)
      for (int k = 0; k < 3; ++k) q[8 * k + t / 2] |= std::uint8_t(p.corner[t][k] << (4 * (t & 1)));
    return at + PacketBytes(p.triangles, nv);
  }

  // Stores the children's boxes in 8 bits per plane (see WideNode),
  // rounded outward and checked with the kernels' own decoding.
  static void Quantise(WideNode& n, const Bounds* box) {
    Bounds all;
    n.valid = 0;
    for (int k = 0; k < kWidth; ++k)
      if (n.child[k] != kNoChild && !box[k].empty()) all.grow(box[k]), n.valid |= 1u << k;
    std::memset(n.q, 0, sizeof n.q);
    for (int a = 0; a < 3; ++a) {
      n.origin[a] = n.valid ? all.lo[a] : 0.0f;
      const double extent = n.valid ? double(all.hi[a]) - double(all.lo[a]) : 0.0;
      int e = extent > 0.0 ? int(std::ceil(std::log2(extent / 255.0))) : -126;
      e = std::clamp(e, -126, 127);
      while (e < 127 && n.valid && !(Decode(255, std::ldexp(1.0f, e), n.origin[a]) >= all.hi[a])) ++e;
      n.scale[a] = std::ldexp(1.0f, e);
    }
    for (int k = 0; k < kWidth; ++k) {
      if (!(n.valid >> k & 1)) continue;
      for (int a = 0; a < 3; ++a) {
        const float s = n.scale[a], o = n.origin[a], lo = box[k].lo[a], hi = box[k].hi[a];
        int ql = int(std::clamp(std::floor((double(lo) - o) / s), 0.0, 255.0));
        while (ql > 0 && Decode(std::uint8_t(ql), s, o) > lo) --ql;
        int qh = int(std::clamp(std::ceil((double(hi) - o) / s), 0.0, 255.0));
        while (qh < 255 && Decode(std::uint8_t(qh), s, o) < hi) ++qh;
        n.q[a][k] = std::uint8_t(ql);
        n.q[3 + a][k] = std::uint8_t(qh);
      }
    }
  }

  void BuildColumns(const std::vector<PacketInfo>& info, PickData& d, Block<ColumnCell>& cellBlock,
                    Block<ColumnEntry>& overflow, Block<std::uint32_t>& hints, pick_index::stats& st) {
    Bounds all;
    std::size_t live = 0;
    for (const PacketInfo& p : info)
      if (!p.box.empty()) all.grow(p.box), ++live;
    if (live == 0) return;
    Columns c;
    c.x0 = all.lo[0], c.x1 = all.hi[0], c.y0 = all.lo[1], c.y1 = all.hi[1];
    const double w = double(c.x1) - c.x0, h = double(c.y1) - c.y0;
    const double target = std::max(1.0, double(live) / kPacketsPerCell);
    double nx = 1, ny = 1;
    if (w > 0 && h > 0) {
      nx = std::ceil(std::sqrt(target * w / h));
      ny = std::ceil(target / nx);
    } else if (w > 0) {
      nx = target;
    } else if (h > 0) {
      ny = target;
    }
    c.nx = int(std::clamp(nx, 1.0, 8192.0));
    c.ny = int(std::clamp(ny, 1.0, 8192.0));
    struct Span {
      int x0, x1, y0, y1;  // fine units
    };
    auto span = [&](const Bounds& b) {
      return Span{Fine(b.lo[0], c.x0, c.sx, c.nx), Fine(b.hi[0], c.x0, c.sx, c.nx), Fine(b.lo[1], c.y0, c.sy, c.ny),
                  Fine(b.hi[1], c.y0, c.sy, c.ny)};
    };
    std::size_t total = 0;
    for (;;) {
      c.sx = w > 0 ? float(double(c.nx) * kFine / w) : 0.0f;
      c.sy = h > 0 ? float(double(c.ny) * kFine / h) : 0.0f;
      total = 0;
      for (const PacketInfo& p : info) {
        if (p.box.empty()) continue;
        const Span s = span(p.box);
        total += std::size_t(s.x1 / kFine - s.x0 / kFine + 1) * std::size_t(s.y1 / kFine - s.y0 / kFine + 1);
      }
      if ((double(total) <= kMaxEntriesPerPacket * double(live) && total < kNoOverflow / 2) || (c.nx == 1 && c.ny == 1))
        break;
      c.nx = std::max(1, c.nx / 2);
      c.ny = std::max(1, c.ny / 2);
    }
    // Every cell's entries, gathered by counting first.
    const std::size_t cells = std::size_t(c.nx) * std::size_t(c.ny);
    std::vector<std::uint32_t> start(cells + 1, 0);
    // Each entry with its packet's top (the header's maxZ), so sorting
    // never reads the packets themselves.
    struct Keyed {
      float top;
      ColumnEntry e;
    };
    std::vector<Keyed> entries(total);
    auto each = [&](const PacketInfo& p, auto&& f) {
      const Span sp = span(p.box);
      for (int y = sp.y0 / kFine; y <= sp.y1 / kFine; ++y)
        for (int x = sp.x0 / kFine; x <= sp.x1 / kFine; ++x) {
          // The part of the box inside this cell, in the cell's fine units.
          const auto clip = [](int v, int cell) { return std::uint8_t(std::clamp(v - cell * kFine, 0, kFine - 1)); };
          f(std::size_t(y) * std::size_t(c.nx) + std::size_t(x),
            ColumnEntry{p.offset, clip(sp.x0, x), clip(sp.x1, x), clip(sp.y0, y), clip(sp.y1, y)});
        }
    };
    for (const PacketInfo& p : info)
      if (!p.box.empty()) each(p, [&](std::size_t cell, const ColumnEntry&) { ++start[cell + 1]; });
    for (std::size_t i = 0; i < cells; ++i) start[i + 1] += start[i];
    std::vector<std::uint32_t> fill(start.begin(), start.end() - 1);
    for (const PacketInfo& p : info)
      if (!p.box.empty())
        each(p, [&](std::size_t cell, const ColumnEntry& ce) {
          entries[fill[cell]++] = Keyed{p.box.hi[2], ce};
        });
    // Highest top first; equal tops in packet order, so the build is
    // deterministic. The first seven go into the cell's line, the rest
    // (ended by a kNoChild entry) into the overflow list.
    std::size_t spill = 0;
    for (std::size_t i = 0; i < cells; ++i) {
      std::sort(entries.begin() + start[i], entries.begin() + start[i + 1], [](const Keyed& a, const Keyed& b) {
        return a.top > b.top || (a.top == b.top && a.e.packet < b.e.packet);
      });
      const std::uint32_t n = start[i + 1] - start[i];
      if (n > std::uint32_t(kInlineEntries)) spill += n - kInlineEntries + 1;
    }
    cellBlock = Allocate<ColumnCell>(cells);
    overflow = Allocate<ColumnEntry>(std::max<std::size_t>(1, spill));
    hints = Allocate<std::uint32_t>(cells);
    std::size_t at = 0;
    for (std::size_t i = 0; i < cells; ++i) {
      // The hint: the highest-topped packet whose box holds the centre.
      constexpr int mid = kFine / 2;
      const auto centre = std::find_if(entries.begin() + start[i], entries.begin() + start[i + 1], [](const Keyed& k) {
        return k.e.x0 <= mid && mid <= k.e.x1 && k.e.y0 <= mid && mid <= k.e.y1;
      });
      hints[i] = centre == entries.begin() + start[i + 1] ? kNoChild : centre->e.packet;
      ColumnCell& cell = cellBlock[i];
      std::memset(&cell, 0, sizeof cell);
      const std::uint32_t n = start[i + 1] - start[i];
      const std::uint32_t here = std::min<std::uint32_t>(n, kInlineEntries);
      for (std::uint32_t k = 0; k < here; ++k) cell.entry[k] = entries[start[i] + k].e;
      std::uint32_t more = kNoOverflow;
      if (n > here) {
        more = std::uint32_t(at);
        for (std::uint32_t k = here; k < n; ++k) overflow[at++] = entries[start[i] + k].e;
        overflow[at++] = ColumnEntry{kNoChild, 0, 0, 0, 0};
      }
      cell.more = (more << 3) | here;
    }
    c.cells = cellBlock.get();
    c.overflow = overflow.get();
    c.hint = hints.get();
    d.columns = c;
    st.columns = int(cells);
    st.columnEntries = total;
    st.columnBytes = (sizeof(ColumnCell) + 4) * cells + sizeof(ColumnEntry) * std::max<std::size_t>(1, spill);
  }

  const float* xyz_;
  std::size_t vertexCount_;
  const std::uint32_t* tri_;
  std::size_t triangleCount_;

  std::unique_ptr<Ref[], BlockFree> refs_;
  std::unique_ptr<std::uint32_t[], BlockFree> prims_;
  std::vector<WideNode> wide_;
  std::vector<Bounds> boxes_;  // kWidth per node while building
  std::vector<Leaf> leaves_;
  float maxAbs_ = 0;
};

}  // namespace

struct pick_index::impl {
  PickData data;
  Block<WideNode> nodes;
  Block<std::uint8_t> packets;
  Block<ColumnCell> columnCells;
  Block<ColumnEntry> columnOverflow;
  Block<std::uint32_t> columnHints;
  stats st;
  double seconds = 0;
  pick_kernel kernel = bestKernel();
  PickFn fn = nullptr;
};

namespace {

PickFn KernelFunction(pick_kernel k) {
  switch (k) {
    case pick_kernel::scalar: return &PickScalar;
#if defined(__SSE2__) && !defined(KEL_NO_SIMD)
    case pick_kernel::sse2: return &PickSse2;
#endif
#if KEL_PICK_AVX2
    case pick_kernel::avx2: return &PickAvx2;
#endif
#if KEL_PICK_AVX512
    case pick_kernel::avx512: return &PickAvx512;
#endif
    default: return nullptr;
  }
}

}  // namespace

pick_index::pick_index() : d_(std::make_unique<impl>()) { d_->fn = KernelFunction(d_->kernel); }

pick_index::pick_index(const float* vertices, std::size_t vertexCount, const std::uint32_t* indices,
                       std::size_t triangleCount)
    : pick_index() {
  const auto began = std::chrono::steady_clock::now();
  Builder(vertices, vertexCount, indices, triangleCount)
      .run(d_->st, d_->data, d_->nodes, d_->packets, d_->columnCells, d_->columnOverflow, d_->columnHints);
  d_->seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
}

pick_index::~pick_index() = default;
pick_index::pick_index(pick_index&&) noexcept = default;
pick_index& pick_index::operator=(pick_index&&) noexcept = default;

void pick_index::intersect(hit& io, const ray& r, float* uv) const {
  PickRay pr;
  if (!PrepareRay(r, d_->data.maxAbs, pr)) return;
  PickBest b{io.t, false, nullptr, 0};
  d_->fn(d_->data, pr, b);
  if (!b.found) return;
  io.t = b.t;
  io.primitive = PacketPrimitives(b.packet)[b.lane];
  if (uv) PickWeights(pr, b, uv);
}

void pick_index::intersect(hit* io, const ray* rays, std::size_t n) const {
  const auto count = std::int64_t(n);
#pragma omp parallel for schedule(dynamic, 64)
  for (std::int64_t i = 0; i < count; ++i) intersect(io[i], rays[i]);
}

bool pick_index::heightAt(float x, float y, float& z, std::uint32_t* primitive) const {
  const float top = d_->data.top;  // where heightAt starts its rays
  if (!std::isfinite(top)) return false;
  hit h{~0u, HUGE_VALF};
  intersect(h, MakeRay(x, y, top, 0.0f, 0.0f, -1.0f));
  if (h.primitive == ~0u) return false;
  z = top - h.t;
  if (primitive) *primitive = h.primitive;
  return true;
}

const pick_index::stats& pick_index::getStats() const { return d_->st; }
double pick_index::buildSeconds() const { return d_->seconds; }
pick_kernel pick_index::kernel() const { return d_->kernel; }

bool pick_index::setKernel(pick_kernel k) {
  if (!kernelAvailable(k)) return false;
  d_->kernel = k;
  d_->fn = KernelFunction(k);
  return true;
}

bool pick_index::kernelAvailable(pick_kernel k) {
  if (!KernelFunction(k)) return false;
  switch (k) {
#if KEL_PICK_AVX2
    case pick_kernel::avx2: return __builtin_cpu_supports("avx2");
#endif
#if KEL_PICK_AVX512
    case pick_kernel::avx512: return __builtin_cpu_supports("avx512f");
#endif
    default: return true;
  }
}

pick_kernel pick_index::bestKernel() {
  for (pick_kernel k : {pick_kernel::avx512, pick_kernel::avx2, pick_kernel::sse2})
    if (kernelAvailable(k)) return k;
  return pick_kernel::scalar;
}

const char* pick_index::kernelName(pick_kernel k) {
  switch (k) {
    case pick_kernel::scalar: return "scalar";
    case pick_kernel::sse2: return "SSE2";
    case pick_kernel::avx2: return "AVX2";
    case pick_kernel::avx512: return "AVX-512";
  }
  return "?";
}

}  // namespace kel::fdo
