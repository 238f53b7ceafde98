// Pick index: the bvh collapsed into wide nodes, leaf triangles packed into
// packets, the column grid for vertical rays, and the kernel dispatch.
#include "kel/spatial/pick_index.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include "spatial/detail/aligned_memory.h"
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

// The top of the wide tree comes from the bvh: its spatial-middle splits
// are fine at large scale. Below subtrees of this many triangles the
// triangles are regrouped by the surface area heuristic: on a city tile the
// middle splits put walls and roofs in one leaf with the ground around them,
// and every ray passing low over a building then tests them (measured on
// the benchmark tile: random rays 2.2x slower than with these subtrees).
constexpr int kSahSize = 256;

// Triangles per leaf, at most, unless the surface area heuristic finds a
// split of a smaller group whose parts have together less than half its
// area (a packet test costs about two node tests).
constexpr int kLeafTriangles = 16;
constexpr int kSahBins = 16;
// Wide nodes deeper than this become leaves, so the walk's stack suffices.
constexpr int kMaxDepth = 60;

// Packets per grid cell, and the most column entries per packet before the
// grid is made coarser (huge triangles would otherwise fill every cell).
constexpr double kPacketsPerCell = 4.0;
constexpr double kMaxEntriesPerPacket = 16.0;

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
  float halfArea() const {
    if (empty()) return 0.0f;
    const float x = hi[0] - lo[0], y = hi[1] - lo[1], z = hi[2] - lo[2];
    return x * y + y * z + z * x;
  }
};

bool Finite3(const float* p) { return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]); }

// A triangle while the tree is built: its box and its tree slot.
struct Ref {
  Bounds box;
  float centre(int a) const { return box.lo[a] + box.hi[a]; }  // twice the centre: only compared
  std::uint32_t slot;
};

// A packet being filled: triangles in leaf order, their distinct vertices
// (equal coordinates are one vertex, whatever their numbers) and corners.
struct Draft {
  int triangles = 0;
  int vertices = 0;
  std::uint32_t primitive[kPacketTris];
  const float* vertex[kPacketVerts];
  std::uint8_t corner[kPacketTris][3];
};

struct PacketInfo {
  std::uint32_t offset;  // 4-byte units
  Bounds box;            // over triangles with finite vertices
};

class Builder {
public:
  Builder(const bvh& tree, const float* vertices, std::size_t vertexCount, const std::uint32_t* indices,
          std::size_t triangleCount)
      : bn_(tree.getNodes()),
        nodeCount_(tree.getNodeCount()),
        slots_(tree.getPrimitiveIndices()),
        slotCount_(std::uint32_t(tree.getPrimitiveCount())),
        xyz_(vertices),
        vertexCount_(vertexCount),
        tri_(indices),
        triangleCount_(triangleCount) {}

  void run(pick_index::stats& st, PickData& d, Block<WideNode>& nodes, Block<std::uint8_t>& packets,
           Block<std::uint32_t>& start, Block<ColumnEntry>& entries) {
    if (std::size_t(slotCount_) != triangleCount_) Invalid("the tree's primitive count differs from the triangle count");
    st.triangles = int(slotCount_);
    if (slotCount_ == 0) return;
    if (!bn_ || nodeCount_ <= 0 || !slots_) Invalid("the tree has no nodes");
    for (std::uint32_t s = 0; s < slotCount_; ++s) {
      const std::uint32_t p = slots_[s];
      if (p >= slotCount_) Invalid("a tree slot names no triangle");
      for (int k = 0; k < 3; ++k)
        if (tri_[3 * std::size_t(p) + k] >= vertexCount_) Invalid("an index names no vertex");
    }
    state_.assign(std::size_t(nodeCount_), 0);
    count_.assign(std::size_t(nodeCount_), 0);
    Scan(0, 0);

    // Topology first (leaves only noted), then packets sized and written.
    if (bn_[0].count > 0 || count_[0] <= std::uint32_t(kSahSize))
      Subtree(kNoChild, 0, 0, 0);
    else
      Collapse(0, 0);

    std::size_t bytes = 0;
    for (const Leaf& leaf : leaves_)
      Packetise(leaf, [&](const Draft& p) {
        bytes += PacketBytes(p.triangles, p.vertices);
        ++st.packets;
      });
    // Leaf references count 4-byte units in 31 bits.
    if (bytes / 4 >= kLeafBit) throw std::length_error("pick_index: too many triangles");
    // 64 spare bytes: a kernel may load a full vector past a packet's end.
    packets = Allocate<std::uint8_t>(bytes + 64);
    std::memset(packets.get() + bytes, 0, 64);
    std::uint8_t* at = packets.get();
    std::vector<PacketInfo> info;
    info.reserve(std::size_t(st.packets));
    nodes = Allocate<WideNode>(std::max<std::size_t>(1, wide_.size()));
    std::copy(wide_.begin(), wide_.end(), nodes.get());
    for (const Leaf& leaf : leaves_) {
      const std::uint32_t first = std::uint32_t((at - packets.get()) / 4);
      std::uint32_t count = 0;
      Bounds box;
      Packetise(leaf, [&](const Draft& p) {
        PacketInfo pi{std::uint32_t((at - packets.get()) / 4), {}};
        at = Write(p, at, pi.box);
        box.grow(pi.box);
        info.push_back(pi);
        ++count;
      });
      if (leaf.node == kNoChild) {
        d.root = kLeafBit | first;
        d.rootPackets = count;
      } else {
        WideNode& n = nodes[leaf.node];
        n.child[leaf.slot] = kLeafBit | first;
        n.packets[leaf.slot] = count;
        SetBox(n, leaf.slot, box);
      }
    }
    // Children are made after their parents, so a reverse pass sees every
    // child's box complete before its parent takes it.
    for (std::size_t w = wide_.size(); w-- > 0;) {
      WideNode& n = nodes[w];
      for (int k = 0; k < kWidth; ++k) {
        if (n.child[k] == kNoChild || (n.child[k] & kLeafBit)) continue;
        SetBox(n, k, BoxOf(nodes[n.child[k]]));
      }
    }
    if (!wide_.empty()) d.root = 0;

    d.nodes = nodes.get();
    d.packets = packets.get();
    d.maxAbs = maxAbs_;
    st.nodes = int(wide_.size());
    st.leaves = int(leaves_.size());
    st.nodeBytes = sizeof(WideNode) * wide_.size();
    st.packetBytes = bytes + 64;
    BuildColumns(info, d, start, entries, st);
#ifdef KEL_PICK_STATS
    std::fprintf(stderr, "wide: %zu nodes, %zu leaves, %.2f children per node, %d packets\n", wide_.size(),
                 leaves_.size(), double(wide_.size() + leaves_.size() - 1) / double(std::max<std::size_t>(1, wide_.size())),
                 st.packets);
#endif
  }

private:
  // A leaf: child `slot` of wide node `node` (kNoChild: the root), over the
  // tree slots leafSlots_[begin, end).
  struct Leaf {
    std::uint32_t node;
    int slot;
    std::size_t begin, end;
  };

  // Checks the binary tree and counts each subtree's triangles; a node met
  // twice is counted once, a cycle or too deep a tree is refused.
  void Scan(int i, int depth) {
    if (i < 0 || i >= nodeCount_ || depth >= bvh::kStackSize) Invalid("the nodes do not form a tree");
    if (state_[std::size_t(i)] == 2) return;
    if (state_[std::size_t(i)] == 1) Invalid("the nodes do not form a tree");
    state_[std::size_t(i)] = 1;
    const node& n = bn_[i];
    if (n.count > 0) {
      if (n.first < 0 || std::int64_t{n.first} + n.count > std::int64_t{slotCount_})
        Invalid("a leaf lies outside the index array");
      count_[std::size_t(i)] = std::uint32_t(n.count);
    } else {
      if (n.count < 0 || n.first < 0 || n.first >= nodeCount_ - 1) Invalid("the nodes do not form a tree");
      Scan(n.first, depth + 1);
      Scan(n.first + 1, depth + 1);
      count_[std::size_t(i)] = count_[std::size_t(n.first)] + count_[std::size_t(n.first) + 1];
    }
    state_[std::size_t(i)] = 2;
  }

  bool Interior(int i) const { return bn_[i].count == 0; }

  static float HalfArea(const node& n) {
    const float x = n.maxX - n.minX, y = n.maxY - n.minY, z = n.maxZ - n.minZ;
    return x * y + y * z + z * x;
  }

  std::uint32_t NewNode() {
    WideNode empty;
    for (int a = 0; a < 3; ++a)
      for (int k = 0; k < kWidth; ++k) empty.lo[a][k] = HUGE_VALF, empty.hi[a][k] = -HUGE_VALF;
    for (int k = 0; k < kWidth; ++k) empty.child[k] = kNoChild, empty.packets[k] = 0;
    wide_.push_back(empty);
    return std::uint32_t(wide_.size() - 1);
  }

  // The top: binary node b collapsed into one wide node by opening the
  // largest child still above kSahSize triangles, up to eight children.
  std::uint32_t Collapse(int b, int depth) {
    int list[kWidth];
    int m = 0;
    list[m++] = bn_[b].first;
    list[m++] = bn_[b].first + 1;
    while (m < kWidth) {
      int best = -1;
      float bestArea = -1.0f;
      for (int j = 0; j < m; ++j) {
        const int c = list[j];
        if (!Interior(c) || count_[std::size_t(c)] <= std::uint32_t(kSahSize)) continue;
        const float area = HalfArea(bn_[c]);
        if (best < 0 || area > bestArea) best = j, bestArea = area;
      }
      if (best < 0) break;
      const int c = list[best];
      for (int j = m; j > best + 1; --j) list[j] = list[j - 1];
      list[best] = bn_[c].first;
      list[best + 1] = bn_[c].first + 1;
      ++m;
    }
    const std::uint32_t w = NewNode();
    for (int k = 0; k < m; ++k) {
      const int c = list[k];
      if (!Interior(c) || count_[std::size_t(c)] <= std::uint32_t(kSahSize)) {
        Subtree(w, k, c, depth + 1);
      } else {
        const std::uint32_t child = Collapse(c, depth + 1);
        wide_[w].child[k] = child;
      }
    }
    return w;
  }

  // The bottom: the triangles of binary subtree b regrouped by the surface
  // area heuristic, hung as child `slot` of wide node `parent`.
  void Subtree(std::uint32_t parent, int slot, int b, int depth) {
    refs_.clear();
    Gather(b);
    // Triangles with a non-finite vertex are never hit: one leaf of their
    // own, with an empty box, so they neither widen boxes nor get visited.
    const auto dead = std::stable_partition(refs_.begin(), refs_.end(), [](const Ref& r) { return !r.box.empty(); });
    const int live = int(dead - refs_.begin()), n = int(refs_.size());
    if (live == n) {
      Hang(parent, slot, refs_.data(), n, depth);
      return;
    }
    const std::uint32_t w = NewNode();
    Attach(parent, slot, w);
    AddLeaf(w, 0, refs_.data() + live, n - live);
    if (live) Hang(w, 1, refs_.data(), live, depth + 1);
  }

  void Gather(int b) {
    if (Interior(b)) {
      Gather(bn_[b].first);
      Gather(bn_[b].first + 1);
      return;
    }
    for (int s = bn_[b].first, e = s + bn_[b].count; s < e; ++s) {
      Ref r;
      r.slot = std::uint32_t(s);
      bool finite = true;
      for (int k = 0; k < 3; ++k) {
        finite &= Finite3(Vertex(r.slot, k));
        r.box.grow(Vertex(r.slot, k));
      }
      if (!finite) r.box = Bounds();
      refs_.push_back(r);
    }
  }

  void Attach(std::uint32_t parent, int slot, std::uint32_t child) {
    if (parent != kNoChild) wide_[parent].child[slot] = child;
  }

  void AddLeaf(std::uint32_t parent, int slot, const Ref* r, int n) {
    const std::size_t begin = leafSlots_.size();
    for (int i = 0; i < n; ++i) leafSlots_.push_back(r[i].slot);
    leaves_.push_back(Leaf{parent, slot, begin, leafSlots_.size()});
    if (parent != kNoChild) wide_[parent].child[slot] = kLeafBit;
  }

  // Where to split r[0, n) in two, after reordering it so the left part
  // comes first; 0 when the group should stay a leaf.
  int SahSplit(Ref* r, int n, const Bounds& box) {
    if (n <= 1) return 0;
    Bounds cb;
    for (int i = 0; i < n; ++i) {
      const float c[3] = {r[i].centre(0), r[i].centre(1), r[i].centre(2)};
      cb.grow(c);
    }
    struct Bin {
      Bounds box;
      int count = 0;
    };
    float bestCost = HUGE_VALF;
    int bestAxis = -1, bestBin = 0;
    float bestScale = 0;
    for (int a = 0; a < 3; ++a) {
      const float extent = cb.hi[a] - cb.lo[a];
      if (!(extent > 0.0f)) continue;
      const float scale = float(kSahBins) * (1.0f - 1e-6f) / extent;
      Bin bins[kSahBins];
      for (int i = 0; i < n; ++i) {
        const int k = std::min(kSahBins - 1, int((r[i].centre(a) - cb.lo[a]) * scale));
        bins[k].box.grow(r[i].box);
        ++bins[k].count;
      }
      float rightArea[kSahBins];
      int rightCount[kSahBins];
      Bounds acc;
      int cnt = 0;
      for (int k = kSahBins - 1; k > 0; --k) {
        acc.grow(bins[k].box);
        cnt += bins[k].count;
        rightArea[k] = acc.halfArea();
        rightCount[k] = cnt;
      }
      acc = Bounds();
      cnt = 0;
      for (int k = 0; k < kSahBins - 1; ++k) {
        acc.grow(bins[k].box);
        cnt += bins[k].count;
        if (cnt == 0 || cnt == n) continue;
        // A packet test costs about two node tests; packets hold 16.
        const float cost = acc.halfArea() * float((cnt + kLeafTriangles - 1) / kLeafTriangles) +
                           rightArea[k + 1] * float((rightCount[k + 1] + kLeafTriangles - 1) / kLeafTriangles);
        if (cost < bestCost) bestCost = cost, bestAxis = a, bestBin = k, bestScale = scale;
      }
    }
    if (bestAxis < 0) return 0;  // every centre in one place
    if (n <= kLeafTriangles && !(bestCost + 0.5f * box.halfArea() < box.halfArea())) return 0;
    const float lo = cb.lo[bestAxis];
    Ref* mid = std::partition(r, r + n, [&](const Ref& x) {
      return std::min(kSahBins - 1, int((x.centre(bestAxis) - lo) * bestScale)) <= bestBin;
    });
    return int(mid - r);
  }

  static Bounds BoxOfRefs(const Ref* r, int n) {
    Bounds b;
    for (int i = 0; i < n; ++i) b.grow(r[i].box);
    return b;
  }

  // r[0, n) as child `slot` of `parent`: a leaf, or a wide node made by
  // splitting the largest splittable group until there are eight.
  void Hang(std::uint32_t parent, int slot, Ref* r, int n, int depth) {
    struct Group {
      Ref* r;
      int n;
      Bounds box;
      int split;
    };
    Group g[kWidth];
    g[0] = Group{r, n, BoxOfRefs(r, n), 0};
    g[0].split = depth >= kMaxDepth ? 0 : SahSplit(r, n, g[0].box);
    if (g[0].split == 0) {
      AddLeaf(parent, slot, r, n);
      return;
    }
    int m = 1;
    while (m < kWidth) {
      int best = -1;
      for (int j = 0; j < m; ++j)
        if (g[j].split && (best < 0 || g[j].box.halfArea() > g[best].box.halfArea())) best = j;
      if (best < 0) break;
      const Group whole = g[best];
      Group left{whole.r, whole.split, BoxOfRefs(whole.r, whole.split), 0};
      Group right{whole.r + whole.split, whole.n - whole.split, BoxOfRefs(whole.r + whole.split, whole.n - whole.split), 0};
      left.split = SahSplit(left.r, left.n, left.box);
      right.split = SahSplit(right.r, right.n, right.box);
      g[best] = left;
      g[m++] = right;
    }
    const std::uint32_t w = NewNode();
    Attach(parent, slot, w);
    for (int k = 0; k < m; ++k) {
      if (g[k].split == 0)
        AddLeaf(w, k, g[k].r, g[k].n);
      else
        Hang(w, k, g[k].r, g[k].n, depth + 1);
    }
  }

  const float* Vertex(std::uint32_t slot, int k) const {
    return xyz_ + 3 * std::size_t(tri_[3 * std::size_t(slots_[slot]) + k]);
  }

  // Splits a leaf's triangles into packets: in order, while there are at
  // most 16 of them with at most 16 distinct vertices.
  template <class Emit>
  void Packetise(const Leaf& leaf, Emit&& emit) const {
    Draft p;
    for (std::size_t i = leaf.begin; i < leaf.end; ++i) {
      const std::uint32_t s = leafSlots_[i];
      const float* v[3] = {Vertex(s, 0), Vertex(s, 1), Vertex(s, 2)};
      int found[3], fresh = 0;
      for (int k = 0; k < 3; ++k) {
        found[k] = -1;
        for (int j = 0; j < p.vertices; ++j)
          if (std::memcmp(p.vertex[j], v[k], 12) == 0) {
            found[k] = j;
            break;
          }
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
        int j = found[k];
        if (j < 0)
          for (j = 0; j < p.vertices; ++j)
            if (std::memcmp(p.vertex[j], v[k], 12) == 0) break;
        if (j == p.vertices) p.vertex[p.vertices++] = v[k];
        p.corner[p.triangles][k] = std::uint8_t(j);
      }
      p.primitive[p.triangles++] = slots_[s];
    }
    if (p.triangles) emit(p);
  }

  std::uint8_t* Write(const Draft& p, std::uint8_t* at, Bounds& box) {
    const int nv = p.vertices;
    for (int t = 0; t < p.triangles; ++t) {
      const float* c[3] = {p.vertex[p.corner[t][0]], p.vertex[p.corner[t][1]], p.vertex[p.corner[t][2]]};
      if (!Finite3(c[0]) || !Finite3(c[1]) || !Finite3(c[2])) continue;  // never hit
      for (const float* q : c) {
        box.grow(q);
        for (int a = 0; a < 3; ++a) maxAbs_ = std::max(maxAbs_, std::fabs(q[a]));
      }
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
    for (int a = 0; a < 3; ++a)
      for (int j = 0; j < nv; ++j, q += 4) std::memcpy(q, &p.vertex[j][a], 4);
    std::memset(q, 0, 24);
    for (int t = 0; t < p.triangles; ++t)
      for (int k = 0; k < 3; ++k) q[8 * k + t / 2] |= std::uint8_t(p.corner[t][k] << (4 * (t & 1)));
    return at + PacketBytes(p.triangles, nv);
  }

  static void SetBox(WideNode& n, int k, const Bounds& b) {
    for (int a = 0; a < 3; ++a) {
      n.lo[a][k] = b.lo[a];
      n.hi[a][k] = b.hi[a];
    }
  }

  static Bounds BoxOf(const WideNode& n) {
    Bounds b;
    for (int a = 0; a < 3; ++a)
      for (int k = 0; k < kWidth; ++k) {
        b.lo[a] = std::min(b.lo[a], n.lo[a][k]);
        b.hi[a] = std::max(b.hi[a], n.hi[a][k]);
      }
    return b;
  }

  void BuildColumns(const std::vector<PacketInfo>& info, PickData& d, Block<std::uint32_t>& start,
                    Block<ColumnEntry>& entries, pick_index::stats& st) {
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
      if ((double(total) <= kMaxEntriesPerPacket * double(live) && total < 0xffffffffu) || (c.nx == 1 && c.ny == 1))
        break;
      c.nx = std::max(1, c.nx / 2);
      c.ny = std::max(1, c.ny / 2);
    }
    const std::size_t cells = std::size_t(c.nx) * std::size_t(c.ny);
    start = Allocate<std::uint32_t>(cells + 1);
    entries = Allocate<ColumnEntry>(std::max<std::size_t>(1, total));
    std::uint32_t* s = start.get();
    std::fill(s, s + cells + 1, 0u);
    auto each = [&](const PacketInfo& p, auto&& f) {
      const Span sp = span(p.box);
      for (int y = sp.y0 / kFine; y <= sp.y1 / kFine; ++y)
        for (int x = sp.x0 / kFine; x <= sp.x1 / kFine; ++x) {
          // The part of the box inside this cell, in the cell's fine units.
          const auto clip = [](int v, int cell) { return std::uint8_t(std::clamp(v - cell * kFine, 0, kFine - 1)); };
          f(std::size_t(y) * std::size_t(c.nx) + std::size_t(x),
            ColumnEntry{p.offset, p.box.hi[2], clip(sp.x0, x), clip(sp.x1, x), clip(sp.y0, y), clip(sp.y1, y)});
        }
    };
    for (const PacketInfo& p : info)
      if (!p.box.empty()) each(p, [&](std::size_t cell, const ColumnEntry&) { ++s[cell + 1]; });
    for (std::size_t i = 0; i < cells; ++i) s[i + 1] += s[i];
    std::vector<std::uint32_t> fill(s, s + cells);
    ColumnEntry* e = entries.get();
    for (const PacketInfo& p : info)
      if (!p.box.empty()) each(p, [&](std::size_t cell, const ColumnEntry& ce) { e[fill[cell]++] = ce; });
    // Highest top first; equal tops in packet order, so the build is deterministic.
    for (std::size_t i = 0; i < cells; ++i)
      std::sort(e + s[i], e + s[i + 1], [](const ColumnEntry& a, const ColumnEntry& b) {
        return a.maxZ > b.maxZ || (a.maxZ == b.maxZ && a.packet < b.packet);
      });
    c.start = start.get();
    c.entries = entries.get();
    d.columns = c;
    st.columns = int(cells);
    st.columnEntries = total;
    st.columnBytes = sizeof(std::uint32_t) * (cells + 1) + sizeof(ColumnEntry) * total;
  }

  const node* bn_;
  int nodeCount_;
  const std::uint32_t* slots_;
  std::uint32_t slotCount_;
  const float* xyz_;
  std::size_t vertexCount_;
  const std::uint32_t* tri_;
  std::size_t triangleCount_;

  std::vector<std::uint8_t> state_;
  std::vector<std::uint32_t> count_;
  std::vector<WideNode> wide_;
  std::vector<Leaf> leaves_;
  std::vector<std::uint32_t> leafSlots_;
  std::vector<Ref> refs_;
  float maxAbs_ = 0;
};

}  // namespace

struct pick_index::impl {
  PickData data;
  Block<WideNode> nodes;
  Block<std::uint8_t> packets;
  Block<std::uint32_t> columnStart;
  Block<ColumnEntry> columnEntries;
  stats st;
  double seconds = 0;
  float top = -HUGE_VALF;  // highest finite z
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

pick_index::pick_index(const bvh& tree, const float* vertices, std::size_t vertexCount,
                       const std::uint32_t* indices, std::size_t triangleCount)
    : pick_index() {
  const auto began = std::chrono::steady_clock::now();
  Builder(tree, vertices, vertexCount, indices, triangleCount)
      .run(d_->st, d_->data, d_->nodes, d_->packets, d_->columnStart, d_->columnEntries);
  // The top of the soup, where heightAt starts its rays.
  const PickData& d = d_->data;
  if (d.root != kNoChild) {
    if (d.root & kLeafBit) {
      const std::uint8_t* p = d.packets + 4 * std::size_t(d.root & ~kLeafBit);
      for (std::uint32_t k = 0; k < d.rootPackets; ++k, p += PacketBytes(p)) d_->top = std::max(d_->top, Header(p).maxZ);
    } else {
      for (int k = 0; k < kWidth; ++k) d_->top = std::max(d_->top, d.nodes[0].hi[2][k]);
    }
  }
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
  if (!std::isfinite(d_->top)) return false;
  hit h{~0u, HUGE_VALF};
  intersect(h, MakeRay(x, y, d_->top, 0.0f, 0.0f, -1.0f));
  if (h.primitive == ~0u) return false;
  z = d_->top - h.t;
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
