// SpatialIndex2D: insertion level by level, the spill to paged files, and
// the three queries.
#include "kel/spatial/spatial_index_2d.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cfloat>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#if defined(__SSE2__) && !defined(KEL_NO_SIMD)
#include <emmintrin.h>
#endif

#include "kel/core/log.h"
#include "kel/core/path.h"
#include "kel/core/text.h"
#include "spatial/detail/aligned_memory.h"

namespace kel {

namespace {

// Big levels ask for huge pages: a query jumps across a level of many
// megabytes, and on 4 KiB pages nearly every such jump misses the TLB.
BoxRecord* AllocRecords(std::uint32_t n) {
  return static_cast<BoxRecord*>(fdo::detail::AllocBlock(std::size_t(std::max<std::uint32_t>(n, 1)) * sizeof(BoxRecord), 16));
}

void WidenBy(BoxRecord& r, const BoxRecord& b) {
  if (b.minX < r.minX) r.minX = b.minX;
  if (b.minY < r.minY) r.minY = b.minY;
  if (b.maxX > r.maxX) r.maxX = b.maxX;
  if (b.maxY > r.maxY) r.maxY = b.maxY;
}

// A fresh unique base name in the temp directory: "<dir>/si" + six
// characters. The marker file that reserves the name is removed at once: a
// level file of an index that lives long could in theory meet a later index
// drawing the same six characters, but the level files are themselves
// unlinked within microseconds of being made, and nothing is left behind by
// a crash.
std::wstring TempBase() {
  const char* env = std::getenv("TMPDIR");
  std::string dir = env && *env ? env : "/tmp";
  if (dir.size() > PATH_MAX - 16) {
    KEL_LOG_ERROR(L"GetTempPath failed (" + std::to_wstring(ENAMETOOLONG) + L")");
    dir = "/tmp";
  }
  std::string name = WString2Utf8String(File::ConcatPaths(Utf8String2WString(dir), L"siXXXXXX"));
  const int fd = mkstemp(name.data());
  if (fd < 0) {
    KEL_LOG_ERROR(L"GetTempFileName failed (" + std::to_wstring(errno) + L")");
  } else {
    ::close(fd);
    ::unlink(name.c_str());
  }
  return Utf8String2WString(name);
}

}  // namespace

SpatialIndex2D::SpatialIndex2D(const wchar_t* prefix) {
  if (prefix && *prefix) fileBase_ = std::wstring(prefix) + L".si.";
}

SpatialIndex2D::~SpatialIndex2D() {
  for (int l = 0; l < kMaxLevels; ++l) std::free(arrays_[l]);
}

const BoxRecord* SpatialIndex2D::record(int level, std::uint32_t index) const {
  assert(level >= 0 && level < kMaxLevels);
  if (onFile_[level]) return files_[level]->peek(index);
  assert(index < capacity_[level]);
  return arrays_[level] + index;
}

BoxRecord* SpatialIndex2D::MutableRecord(int level, std::uint32_t index, bool& pinned) {
  pinned = onFile_[level] != 0;
  if (pinned) return files_[level]->pin(index);
  assert(index < capacity_[level]);
  return arrays_[level] + index;
}

void SpatialIndex2D::Widen(int level, std::uint32_t index, const BoxRecord& b) {
  bool pinned = false;
  BoxRecord* r = MutableRecord(level, index, pinned);
  WidenBy(*r, b);
  if (pinned) files_[level]->unpin(r);
}

void SpatialIndex2D::Spill(int level) {
  auto file = std::make_unique<PagedRecordFile>(kFileSlots);
  if (fileBase_.empty()) fileBase_ = TempBase();
  file->create(fileBase_ + std::to_wstring(level), true);
  for (std::uint32_t r = 0; r < count_[level]; ++r) {
    BoxRecord* p = file->pin(r);
    *p = arrays_[level][r];
    file->unpin(p);
  }
  std::free(arrays_[level]);
  arrays_[level] = nullptr;
  capacity_[level] = 0;
  files_[level] = std::move(file);
  onFile_[level] = 1;
}

void SpatialIndex2D::MakeRoom(int level, std::uint32_t index) {
  if (onFile_[level]) {
    PagedRecordFile& f = *files_[level];
    for (std::uint32_t r = f.recordCount(); r <= index; ++r) {
      BoxRecord* p = f.pin(r);
      *p = BoxRecord::Empty();
      f.unpin(p);
    }
    return;
  }
  if (capacity_[level] > index) return;
  const std::uint32_t grown = 2 * index + 1;
  BoxRecord* bigger = AllocRecords(grown);
  if (count_[level] > 0) std::memcpy(bigger, arrays_[level], std::size_t(count_[level]) * sizeof(BoxRecord));
  std::fill(bigger + count_[level], bigger + grown, BoxRecord::Empty());
  std::free(arrays_[level]);
  arrays_[level] = bigger;
  capacity_[level] = grown;
}

void SpatialIndex2D::reserve(std::uint64_t leaves) {
  if (leaves == 0) return;
  leaves = std::min(leaves, kMaxLeaves);
  for (int l = 0; l < kMaxLevels; ++l) {
    const std::uint64_t needed = ((leaves - 1) >> (3 * l)) + 1;
    const std::uint32_t want = std::uint32_t(std::min<std::uint64_t>(needed, kSpillRecords));
    if (!onFile_[l] && want > capacity_[l]) {
      BoxRecord* bigger = AllocRecords(want);
      if (count_[l] > 0) std::memcpy(bigger, arrays_[l], std::size_t(count_[l]) * sizeof(BoxRecord));
      std::fill(bigger + count_[l], bigger + want, BoxRecord::Empty());
      std::free(arrays_[l]);
      arrays_[l] = bigger;
      capacity_[l] = want;
    }
    if (needed == 1) break;
  }
}

void SpatialIndex2D::insert(std::uint64_t leafIndex, double minX, double minY, double maxX, double maxY) {
  if (leafIndex >= kMaxLeaves) {
    KEL_LOG_ERROR(L"SpatialIndex2D: leaf index " + std::to_wstring(leafIndex) + L" needs more than ten levels");
    return;
  }
  if (!originSet_) {
    originX_ = minX;
    originY_ = minY;
    originSet_ = true;
  }
  const BoxRecord b{float(minX - originX_), float(minY - originY_), float(maxX - originX_), float(maxY - originY_)};
  for (int level = 0; level < kMaxLevels; ++level) {
    const std::uint32_t i = std::uint32_t(leafIndex >> (3 * level));
    if (i >= kSpillRecords && !onFile_[level]) Spill(level);
    MakeRoom(level, i);
    if (i >= count_[level]) count_[level] = i + 1;
    Widen(level, i, b);
    if (i != 0) continue;
    if (level <= topLevel_) {
      for (int up = level + 1; up <= topLevel_; ++up) Widen(up, 0, b);
    } else {
      // A new root. Levels strictly between the old root and the new one
      // only got the records this walk filled; node 0 of each must first
      // take the old root, or every earlier leaf drops out of the tree.
      for (int up = topLevel_ + 1; up < level; ++up) {
        const BoxRecord below = *record(up - 1, 0);
        Widen(up, 0, below);
      }
      topLevel_ = level;
      const std::uint32_t iBelow = std::uint32_t(leafIndex >> (3 * (level - 1)));
      for (std::uint32_t j = 0; j < iBelow; ++j) {
        const BoxRecord child = *record(level - 1, j);
        Widen(level, 0, child);
      }
    }
    break;
  }
  maxLeafIndex_ = std::max(maxLeafIndex_, std::uint32_t(leafIndex));
}

void SpatialIndex2D::bounds(double out[4]) const {
  if (count_[0] == 0) {
    out[0] = out[1] = DBL_MAX;
    out[2] = out[3] = -DBL_MAX;
    return;
  }
  const BoxRecord root = *record(topLevel_, 0);
  out[0] = double(root.minX) + originX_;
  out[1] = double(root.minY) + originY_;
  out[2] = double(root.maxX) + originX_;
  out[3] = double(root.maxY) + originY_;
}

// ---------------------------------------------------------------- point query

SpatialIndex2D::PointQuery::PointQuery(double x, double y, const SpatialIndex2D& index) : index_(index) {
  const float qx = float(x - index.originX_), qy = float(y - index.originY_);
  query_ = {qx, qy, qx, qy};
}

bool SpatialIndex2D::PointQuery::forEachAtPoint(Callback callback, void* context) const {
  if (index_.count_[0] == 0) return true;
  return Visit(index_.topLevel_, 0, callback, context);
}

bool SpatialIndex2D::PointQuery::Visit(int level, std::uint32_t first, Callback callback, void* context) const {
  const std::uint32_t c = index_.count_[level];
  if (first >= c) return true;
  const std::uint32_t k = std::min<std::uint32_t>(8, c - first);
  for (std::uint32_t j = first; j < first + k; ++j) {
    const BoxRecord r = *index_.record(level, j);
    // Exactly minX < px, minY < py, px <= maxX, py <= maxY: a point on a
    // min edge is outside, on a max edge inside.
    const int mask = (r.minX < query_.minX) | (r.minY < query_.minY) << 1 | (r.maxX < query_.minX) << 2 |
                     (r.maxY < query_.minY) << 3;
    if (mask != 0b0011) continue;
    if (level > 0) {
      if (!Visit(level - 1, j * 8, callback, context)) return false;
    } else if (!callback(j, context)) {
      return false;
    }
  }
  return true;
}

// ---------------------------------------------------------------- range cursor

SpatialIndex2D::RangeCursor::RangeCursor(const SpatialIndex2D& index, double minX, double minY, double maxX,
                                         double maxY)
    : index_(index), level_(index.topLevel_) {
  query_ = {float(minX - index.originX_), float(minY - index.originY_), float(maxX - index.originX_),
            float(maxY - index.originY_)};
}

bool SpatialIndex2D::RangeCursor::next(std::int64_t& start, std::int64_t& end) {
  start = -1;
  const std::int64_t leaves = index_.count_[0];
  std::int64_t pos = std::int64_t(node_) << (3 * level_);
  while (pos < leaves) {
    const BoxRecord r = *index_.record(level_, node_);
    const bool overlaps =
        !(r.maxX < query_.minX || r.maxY < query_.minY || query_.maxX < r.minX || query_.maxY < r.minY);
    if (overlaps) {
      const bool partly = r.minX < query_.minX || r.minY < query_.minY || query_.maxX < r.maxX || query_.maxY < r.maxY;
      if (level_ > 0 && partly) {
        node_ *= 8;
        --level_;
        continue;
      }
      if (start < 0) start = pos;
    } else if (start >= 0) {
      end = pos;
      return true;
    }
    ++node_;
    while ((node_ & 7) == 0 && level_ < index_.topLevel_) {
      node_ >>= 3;
      ++level_;
    }
    pos = std::int64_t(node_) << (3 * level_);
  }
  if (start < 0) {
    end = -1;
    return false;
  }
  end = leaves;
  return true;
}

// ---------------------------------------------------------------- crossing test

namespace {

// Bit j set when record j's y range holds yq (yq >= minY, not yq > maxY).
unsigned YMask(const BoxRecord* r, std::uint32_t n, float yq) {
  unsigned m = 0;
  for (std::uint32_t j = 0; j < n; ++j) m |= unsigned((yq >= r[j].minY) & !(yq > r[j].maxY)) << j;
  return m;
}

#if defined(__SSE2__) && !defined(KEL_NO_SIMD)
// Eight records at once: their minY and maxY gathered into two vectors per
// four. The comparisons are the scalar ones, NaN included.
unsigned YMask8(const BoxRecord* r, float yq) {
  const float* f = &r->minX;
  const __m128 q = _mm_set1_ps(yq);
  unsigned m = 0;
  for (int h = 0; h < 2; ++h, f += 16) {
    const __m128 a = _mm_shuffle_ps(_mm_load_ps(f), _mm_load_ps(f + 4), _MM_SHUFFLE(3, 1, 3, 1));
    const __m128 b = _mm_shuffle_ps(_mm_load_ps(f + 8), _mm_load_ps(f + 12), _MM_SHUFFLE(3, 1, 3, 1));
    const __m128 lo = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));  // minY of the four
    const __m128 hi = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));  // maxY
    m |= unsigned(_mm_movemask_ps(_mm_and_ps(_mm_cmpge_ps(q, lo), _mm_cmpngt_ps(q, hi)))) << (4 * h);
  }
  return m;
}
#else
unsigned YMask8(const BoxRecord* r, float yq) { return YMask(r, 8, yq); }
#endif

}  // namespace

template <typename Edge>
bool SpatialIndex2D::Crossings(double x, double y, Edge edge, const std::uint32_t* gaps,
                               const std::uint32_t* gapsEnd) const {
  if (count_[0] == 0) return false;
  const float yq = float(y - originY_);
  const int top = topLevel_;
  bool inside = false;
  // Each edge owns its upper end only (y0 >= y versus y1 >= y), so a
  // horizontal line through a shared vertex counts it once.
  const auto cross = [&](std::uint32_t n) {
    double e[4];
    edge(n, e);
    const bool a = y <= e[3];
    if (a != (e[1] >= y)) {
      const bool c = (e[0] - e[2]) * (e[3] - y) >= (e[1] - e[3]) * (e[2] - x);
      if (c == a) inside = !inside;
    }
  };
  // With vouched leaves the walk stops one level up and tests all eight.
  const int lowest = gaps && top > 0 ? 1 : 0;
  const auto records = [&](int level, std::uint32_t group) {
    return onFile_[level] ? files_[level]->peek(group) : arrays_[level] + group;
  };
  // Bit j set when node group + j exists and its box holds the line.
  const auto groupMask = [&](int level, std::uint32_t group) {
    const std::uint32_t k = std::min<std::uint32_t>(8, count_[level] - group);
    const BoxRecord* r = records(level, group);
    return k == 8 ? YMask8(r, yq) : YMask(r, k, yq);
  };
  // The edges under a node of level 1, asked for before they are tested.
  const auto prefetchEdges = [&](std::uint32_t node) {
    if constexpr (requires { edge.prefetch(0u); }) edge.prefetch(8 * node);
  };
  const auto testLeaves = [&](std::uint32_t node) {
    const std::uint32_t last = std::min<std::uint32_t>(node * 8 + 8, count_[0]);
    for (std::uint32_t n = node * 8; n < last; ++n) {
      while (gaps != gapsEnd && *gaps < n) ++gaps;
      if (gaps == gapsEnd || *gaps != n) cross(n);
    }
  };

  // Breadth first while a level's qualifying nodes fit in the buffers: all
  // of them are known before any child is read, so the cache misses of the
  // separate places where the line meets the polygon overlap instead of
  // queueing. Ascending node order is kept, which is the leaf order.
  {
    constexpr std::uint32_t kWide = 512;
    constexpr std::uint32_t kAhead = 8;  // prefetch distance, in nodes
    std::uint32_t bufA[kWide], bufB[kWide];
    std::uint32_t *cur = bufA, *next = bufB;
    std::uint32_t n = 0;
    for (unsigned m = groupMask(top, 0); m; m &= m - 1) cur[n++] = unsigned(__builtin_ctz(m));
    bool wide = false;
    for (int level = top; level > lowest && !wide; --level) {
      const auto ahead = [&](std::uint32_t i) {
        if (i >= n) return;
        const BoxRecord* c = records(level - 1, 8 * cur[i]);
        __builtin_prefetch(c);
        __builtin_prefetch(c + 4);
      };
      for (std::uint32_t i = 0; i < kAhead; ++i) ahead(i);
      std::uint32_t made = 0;
      for (std::uint32_t i = 0; i < n; ++i) {
        ahead(i + kAhead);
        const std::uint32_t group = 8 * cur[i];
        unsigned m = groupMask(level - 1, group);
        if (made + unsigned(__builtin_popcount(m)) > kWide) {
          wide = true;
          break;
        }
        for (; m; m &= m - 1) next[made++] = group + unsigned(__builtin_ctz(m));
      }
      std::swap(cur, next);
      n = made;
    }
    if (!wide) {
      if (lowest == 0) {
        for (std::uint32_t i = 0; i < n; ++i) cross(cur[i]);
      } else {
        for (std::uint32_t i = 0; i < std::min(n, kAhead); ++i) prefetchEdges(cur[i]);
        for (std::uint32_t i = 0; i < n; ++i) {
          if (i + kAhead < n) prefetchEdges(cur[i + kAhead]);
          testLeaves(cur[i]);
        }
      }
      return inside;
    }
  }

  // Depth first, for lines along which too many boxes qualify.
  // The walk keeps, per level, the first node of the sibling group it is in
  // and a bit per sibling still to visit whose box holds y. Visiting the
  // bits in ascending order is the leaf order; one look at each group's
  // records (a single page lookup for a file level) serves all eight.
  std::uint32_t first[kMaxLevels];
  unsigned todo[kMaxLevels];
  const auto enter = [&](int level, std::uint32_t group) {
    const unsigned m = groupMask(level, group);
    first[level] = group;
    todo[level] = m;
    // The edges the walk will test load together rather than one miss
    // after another.
    if (level == 1 && lowest == 1)
      for (unsigned k = m; k; k &= k - 1) prefetchEdges(group + unsigned(__builtin_ctz(k)));
  };
  enter(top, 0);
  int level = top;
  for (;;) {
    if (!todo[level]) {
      if (level == top) break;
      ++level;
      continue;
    }
    const std::uint32_t node = first[level] + unsigned(__builtin_ctz(todo[level]));
    todo[level] &= todo[level] - 1;
    if (level > lowest) {
      --level;
      enter(level, node * 8);
    } else if (level == 0) {
      cross(node);
    } else {
      testLeaves(node);
    }
  }
  return inside;
}

bool SpatialIndex2D::pointInPolygon(double x, double y, const double* edges) const {
  return Crossings(x, y, [edges](std::uint32_t n, double e[4]) { std::memcpy(e, edges + 4 * std::size_t(n), 4 * sizeof(double)); });
}

namespace {

struct PolylineEdge {
  const double* points;
  std::size_t stride;
  void operator()(std::uint32_t n, double e[4]) const {
    const double* p = points + stride * n;
    e[0] = p[0];
    e[1] = p[1];
    e[2] = p[stride];
    e[3] = p[stride + 1];
  }
  // Leaves first .. first + 7 and the point closing the last.
  void prefetch(std::uint32_t first) const {
    const char* p = reinterpret_cast<const char*>(points + stride * first);
    const char* end = reinterpret_cast<const char*>(points + stride * (first + 8) + 2);
    for (; p < end; p += 64) __builtin_prefetch(p);
    __builtin_prefetch(end - 1);
  }
};

}  // namespace

bool SpatialIndex2D::pointInPolygon(double x, double y, const double* points, std::size_t stride) const {
  return Crossings(x, y, PolylineEdge{points, stride});
}

bool SpatialIndex2D::pointInPolygon(double x, double y, const double* points, std::size_t stride,
                                    const std::uint32_t* gaps, std::size_t gapCount) const {
  static const std::uint32_t kNone = 0;
  const std::uint32_t* begin = gapCount ? gaps : &kNone;
  return Crossings(x, y, PolylineEdge{points, stride}, begin, begin + gapCount);
}

// ---------------------------------------------------------------- upkeep

void SpatialIndex2D::clear() {
  topLevel_ = 0;
  maxLeafIndex_ = 0;
  originSet_ = false;
  originX_ = originY_ = 0.0;
  for (int l = 0; l < kMaxLevels; ++l) {
    if (onFile_[l]) {
      files_[l].reset();
      capacity_[l] = 0;
    }
    // Kept arrays are emptied too: growth only empties the records it adds,
    // so old boxes would otherwise leak into the next use.
    if (arrays_[l]) std::fill(arrays_[l], arrays_[l] + capacity_[l], BoxRecord::Empty());
    onFile_[l] = 0;
    count_[l] = 0;
  }
}

void SpatialIndex2D::reopenFiles() {
  for (int l = 0; l < kMaxLevels; ++l)
    if (onFile_[l]) files_[l]->reopen();
}

std::uint64_t SpatialIndex2D::memoryBytes() const {
  std::uint64_t n = 0;
  for (int l = 0; l < kMaxLevels; ++l) n += std::uint64_t(capacity_[l]) * sizeof(BoxRecord);
  return n;
}

std::uint64_t SpatialIndex2D::fileBytes() const {
  std::uint64_t n = 0;
  for (int l = 0; l < kMaxLevels; ++l)
    if (onFile_[l]) n += std::uint64_t(files_[l]->recordCount()) * sizeof(BoxRecord);
  return n;
}

}  // namespace kel
