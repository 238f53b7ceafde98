// A two-dimensional box hierarchy over leaves the caller numbers (for a
// polygon, one leaf per edge in ring order): eight consecutive leaves share a
// parent, so consecutive pieces of a polyline make tight boxes without any
// sorting. Levels live in memory while small and move to paged, memory-mapped
// temporary files (PagedRecordFile, 20 slots of one MiB) once a level holds
// 2^20 records or more; a level never moves back.
//
// Boxes are stored as floats relative to an origin (the first inserted box's
// min corner), so a query point narrowed the same way meets the boxes its
// double coordinates meet. Leaf indices stay below 8^10 (ten levels).
//
// Queries: every leaf whose box contains a point (in leaf order), maximal
// runs of leaves whose boxes meet a box, and the crossing test of a point
// against the edges behind the leaves. Queries read pages through the files'
// caches, so even the const ones belong to one thread at a time.
//
// When one insert makes a new top level two or more levels above the old
// one (a large leaf index arriving early), the levels in between are
// widened by the old root first, so no earlier leaf drops out of the tree.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kel/export.h"
#include "kel/spatial/paged_record_file.h"

namespace kel {

class KEL_API SpatialIndex2D {
public:
  static constexpr int kMaxLevels = 10;
  static constexpr std::uint32_t kSpillRecords = 1u << 20;
  static constexpr std::uint32_t kFileSlots = 20;
  // Leaves go up to 8^10 - 1.
  static constexpr std::uint64_t kMaxLeaves = std::uint64_t(1) << (3 * kMaxLevels);

  // Level files are named prefix + ".si." + level. Without a prefix the
  // first spill makes a unique name in $TMPDIR ("si" + six characters),
  // and the files are named that + level. Either way they are unlinked as
  // soon as they are open.
  explicit SpatialIndex2D(const wchar_t* prefix = nullptr);
  ~SpatialIndex2D();
  SpatialIndex2D(const SpatialIndex2D&) = delete;
  SpatialIndex2D& operator=(const SpatialIndex2D&) = delete;

  // Widens leaf `leafIndex` and its ancestors by the box. The first insert
  // fixes the origin. A leaf index of 8^10 or more is logged and ignored.
  void insert(std::uint64_t leafIndex, double minX, double minY, double maxX, double maxY);
  // Sizes the in-memory levels for leaves 0 .. leaves - 1 at once instead of
  // growing them geometrically (saves the copies and up to half the memory).
  void reserve(std::uint64_t leaves);
  // minX, minY, maxX, maxY of the root in absolute coordinates;
  // (DBL_MAX, DBL_MAX, -DBL_MAX, -DBL_MAX) while empty.
  void bounds(double out[4]) const;

  // Leaves whose box contains (x, y): min edges exclusive, max edges
  // inclusive (minX < x <= maxX, likewise y).
  class KEL_API PointQuery {
  public:
    using Callback = bool (*)(std::uint32_t leafIndex, void* context);
    PointQuery(double x, double y, const SpatialIndex2D& index);
    // Calls back in ascending leaf order until the callback returns false;
    // false when it was stopped.
    bool forEachAtPoint(Callback callback, void* context) const;

  private:
    bool Visit(int level, std::uint32_t first, Callback callback, void* context) const;
    const SpatialIndex2D& index_;
    alignas(16) BoxRecord query_;
  };

  // Maximal runs [start, end) of leaf positions whose boxes meet a query box
  // (edges touching count); a subtree wholly inside the box is one run
  // without visiting its leaves.
  class KEL_API RangeCursor {
  public:
    RangeCursor(const SpatialIndex2D& index, double minX, double minY, double maxX, double maxY);
    // False, with both ends -1, after the last run.
    bool next(std::int64_t& start, std::int64_t& end);

  private:
    const SpatialIndex2D& index_;
    alignas(16) BoxRecord query_;
    std::uint32_t node_ = 0;
    int level_;
  };

  // Even-odd crossing test of (x, y) against the edges of the leaves whose
  // y range holds y. edges holds x0, y0, x1, y1 per leaf index, in absolute
  // coordinates. False while empty.
  bool pointInPolygon(double x, double y, const double* edges) const;
  // The same with the edges given as a polyline: leaf n is the segment from
  // point n to point n + 1, points `stride` doubles apart (x then y). Leaves
  // whose segment is not an edge must not have been inserted.
  bool pointInPolygon(double x, double y, const double* points, std::size_t stride) const;
  // The same answer without reading the leaf level, for a caller whose every
  // leaf below count(0) was inserted once with exactly its segment's box,
  // except the leaves listed in `gaps` (ascending), never inserted. The edge
  // test's own y check is exact and the float boxes round monotonically, so
  // an edge whose leaf box would not hold y cannot cross; reading only the
  // levels above keeps a spilled leaf level on disk while queries run.
  bool pointInPolygon(double x, double y, const double* points, std::size_t stride, const std::uint32_t* gaps,
                      std::size_t gapCount) const;

  // Empty again: files closed and gone, in-memory arrays kept for reuse.
  void clear();
  // Record `index` of `level`, read through the page cache for a file
  // level (valid until the next access to that level).
  const BoxRecord* record(int level, std::uint32_t index) const;
  // Closes and reopens every file-backed level.
  void reopenFiles();

  std::uint32_t maxLeafIndex() const { return maxLeafIndex_; }
  int topLevel() const { return topLevel_; }
  std::uint32_t count(int level) const { return count_[level]; }
  bool onFile(int level) const { return onFile_[level] != 0; }
  const PagedRecordFile* levelFile(int level) const { return files_[level].get(); }
  const std::wstring& fileBase() const { return fileBase_; }
  // Bytes of index records held in memory arrays and in level files.
  std::uint64_t memoryBytes() const;
  std::uint64_t fileBytes() const;

private:
  friend class PointQuery;
  friend class RangeCursor;
  BoxRecord* MutableRecord(int level, std::uint32_t index, bool& pinned);
  void Widen(int level, std::uint32_t index, const BoxRecord& b);
  void Spill(int level);
  void MakeRoom(int level, std::uint32_t index);
  // gaps null: leaves are read; otherwise see the vouched pointInPolygon.
  template <typename Edge>
  bool Crossings(double x, double y, Edge edge, const std::uint32_t* gaps = nullptr,
                 const std::uint32_t* gapsEnd = nullptr) const;

  std::uint32_t maxLeafIndex_ = 0;
  std::int32_t topLevel_ = 0;
  BoxRecord* arrays_[kMaxLevels] = {};
  std::unique_ptr<PagedRecordFile> files_[kMaxLevels];
  std::uint32_t onFile_[kMaxLevels] = {};
  std::uint32_t capacity_[kMaxLevels] = {};
  std::uint32_t count_[kMaxLevels] = {};
  double originX_ = 0.0;
  double originY_ = 0.0;
  bool originSet_ = false;
  std::wstring fileBase_;
};

}  // namespace kel
