// A file of 16-byte box records served through a small cache of one-MiB
// pages: each page slot is either a memory-mapped view of the file or a
// private buffer written back when the slot is evicted. Used by the paged
// two-dimensional index for levels too large to keep in memory.
//
// The file has no header: record r sits at byte r * 16. Pages hold 65536
// records and start at multiples of 65536. Slots form a circle in
// most-recently-used order; a lookup that misses takes the least recently
// used unpinned slot, or, when every slot is pinned, the least recently used
// slot all the same (a later unpin of a pointer into it then throws).
//
// A failed system call is logged as an error, "<call> failed with error
// <errno>: <text>", the call named CreateFile (open), CreateFileMapping
// (fstat), MapViewOfFile (mmap) or WriteFile (pwrite), and processing
// continues: a page that cannot be mapped is buffered, a page that cannot
// be read holds empty records. Nothing is thrown except by unpin(). One
// thread at a time.
//
// Temporary files are unlinked as soon as they are open, so they vanish with
// the process however it ends; they are reopened through their descriptor.
#pragma once

#include <cfloat>
#include <cstddef>
#include <cstdint>
#include <string>

#include "kel/export.h"

namespace kel {

// minX, minY, maxX, maxY relative to the index's origin.
struct alignas(16) BoxRecord {
  float minX, minY, maxX, maxY;

  // Contains nothing and widens to whatever it is widened by.
  static constexpr BoxRecord Empty() { return {FLT_MAX, FLT_MAX, -FLT_MAX, -FLT_MAX}; }
  friend constexpr bool operator==(const BoxRecord&, const BoxRecord&) = default;
};
static_assert(sizeof(BoxRecord) == 16);

// One page slot.
struct RecordPage {
  BoxRecord* data = nullptr;
  std::int32_t firstRecord = -1;  // a multiple of 65536, -1 when empty
  std::uint32_t recordsInPage = 0;
  std::uint32_t pinCount = 0;
  RecordPage* next = nullptr;
  RecordPage* prev = nullptr;
  std::uint32_t mapped = 0;  // 1: a view of the file; 0: a private buffer
  // Pinned since it was loaded: a buffer only ever peeked at holds the
  // file's own bytes and is not written back.
  std::uint32_t dirty = 0;
};

class KEL_API PagedRecordFile {
public:
  static constexpr std::uint32_t kPageRecords = 65536;
  static constexpr std::size_t kPageBytes = kPageRecords * sizeof(BoxRecord);

  // slotCount pages at most in memory at once (at least 1).
  explicit PagedRecordFile(std::uint32_t slotCount);
  // Closes (writing every buffered page back) and deletes a temporary file.
  ~PagedRecordFile();
  PagedRecordFile(const PagedRecordFile&) = delete;
  PagedRecordFile& operator=(const PagedRecordFile&) = delete;

  // A new empty file, read/write, replacing any file of that name. A
  // temporary file is unlinked at once. False (logged) when it cannot be made.
  bool create(const std::wstring& path, bool temporary);
  // Opens `path`: an existing file (its size sets the record count; a
  // missing one fails silently) or, with existing false, a new empty one.
  // Access follows writable(); create() sets it, setWritable() before open
  // chooses read-only.
  bool open(const std::wstring& path, bool existing);
  void setWritable(bool writable) { writable_ = writable ? 1u : 0u; }

  // The record, in a resident page that stays put until unpinned. Pinning
  // past the end grows the file; a growth of more than the remap slack past
  // the mapped size flushes every page and renews the mapping (pointers
  // pinned earlier are then stale).
  BoxRecord* pin(std::uint32_t record);
  // The record without pinning: valid until the next pin, peek or unpin.
  const BoxRecord* peek(std::uint32_t record);
  // Releases a pinned pointer. Throws kel::wexception "Page was released
  // before we were done using it!!!" when no resident page holds it (its
  // page was evicted while pinned) or its page holds no pins.
  void unpin(const BoxRecord* p);
  // Writes every buffered page back, unmaps every view, empties every slot.
  void flushAndUnmapAll();
  // flushAndUnmapAll, then closes the file (a temporary one is then gone).
  void close();
  // Flushes and opens the same file again as an existing file.
  bool reopen();

  bool isOpen() const { return fd_ >= 0; }
  bool writable() const { return writable_ != 0; }
  bool temporary() const { return temporary_ != 0; }
  const std::wstring& path() const { return path_; }
  std::uint32_t slotCount() const { return slotCount_; }
  std::uint32_t remapSlack() const { return remapSlack_; }
  std::uint32_t recordCount() const { return recordCount_; }
  std::uint32_t mappedCount() const { return mappedCount_; }
  std::uint32_t writtenCount() const { return writtenCount_; }
  // Slots now holding a view of the file and slots holding a buffer.
  std::uint32_t mappedSlots() const;
  std::uint32_t bufferedSlots() const;
  const RecordPage* head() const { return head_; }

private:
  RecordPage* Lookup(std::uint32_t record);
  void Load(RecordPage& slot, std::uint32_t base);
  void WriteBack(RecordPage& slot, bool free);
  void Release(RecordPage& slot);
  void MoveToFront(RecordPage& slot);
  bool OpenFd(bool existing);
  void Refresh();

  RecordPage* head_ = nullptr;
  RecordPage* slots_ = nullptr;
  bool mappingOpen_ = false;
  int fd_ = -1;
  std::uint32_t writable_ = 0;
  std::uint32_t slotCount_;
  std::uint32_t remapSlack_;
  std::uint32_t recordCount_ = 0;
  std::uint32_t mappedCount_ = 0;
  std::uint32_t writtenCount_ = 0;
  std::wstring path_;
  std::uint8_t noRemap_ = 0;
  // Only create(path, true) makes a file temporary: a file merely opened is
  // the caller's and must survive us.
  std::uint8_t temporary_ = 0;
};

}  // namespace kel
