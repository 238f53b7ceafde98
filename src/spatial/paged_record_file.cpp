// PagedRecordFile on POSIX: open/pread/pwrite for the file, mmap views of one
// MiB for mapped pages, anonymous mappings for buffered ones (so a freed
// buffer goes back to the system at once, as committed pages would).
//
// There is no separate mapping object here: "the mapping" is the size the
// file had when it was last opened (mappedCount); views are mapped per page
// inside it.
#include "kel/spatial/paged_record_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "kel/core/log.h"
#include "kel/core/path.h"
#include "kel/core/text.h"
#include "kel/core/wexception.h"

namespace kel {

namespace {

constexpr std::uint32_t kPageMask = PagedRecordFile::kPageRecords - 1;

void LogSysError(const char* call, int err) {
  KEL_LOG_ERROR(Utf8String2WString(std::string(call) + " failed with error " + std::to_string(err) + ": " +
                                   std::strerror(err)));
}

BoxRecord* NewBuffer() {
  void* p = mmap(nullptr, PagedRecordFile::kPageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) throw std::bad_alloc();
  return static_cast<BoxRecord*>(p);
}

void FreeBuffer(BoxRecord* p) {
  if (p) munmap(p, PagedRecordFile::kPageBytes);
}

// Bytes read, short only at the end of the file or on an error.
std::size_t ReadAll(int fd, void* data, std::size_t size, off_t offset) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = pread(fd, static_cast<char*>(data) + done, size - done, offset + off_t(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += std::size_t(n);
  }
  return done;
}

std::size_t WriteAll(int fd, const void* data, std::size_t size, off_t offset) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = pwrite(fd, static_cast<const char*>(data) + done, size - done, offset + off_t(done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      LogSysError("WriteFile", errno);
      break;
    }
    done += std::size_t(n);
  }
  return done;
}

const BoxRecord kEmptyRecord = BoxRecord::Empty();

}  // namespace

PagedRecordFile::PagedRecordFile(std::uint32_t slotCount)
    : slotCount_(std::max<std::uint32_t>(slotCount, 1)), remapSlack_(slotCount_ << 16) {
  slots_ = new RecordPage[slotCount_];
  for (std::uint32_t i = 0; i < slotCount_; ++i) {
    slots_[i].next = &slots_[(i + 1) % slotCount_];
    slots_[i].prev = &slots_[(i + slotCount_ - 1) % slotCount_];
  }
  head_ = &slots_[0];
}

PagedRecordFile::~PagedRecordFile() {
  close();
  delete[] slots_;
}

bool PagedRecordFile::create(const std::wstring& path, bool temporary) {
  close();
  path_ = path;
  temporary_ = temporary ? 1 : 0;
  writable_ = 1;
  recordCount_ = mappedCount_ = writtenCount_ = 0;
  mappingOpen_ = false;
  const std::string native = File::NativePath(path);
  fd_ = ::open(native.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd_ < 0) {
    LogSysError("CreateFile", errno);
    return false;
  }
  posix_fadvise(fd_, 0, 0, POSIX_FADV_RANDOM);  // advice only
  // Gone from the directory at once: no crash can leave it behind, and the
  // descriptor keeps it alive for as long as we need it.
  if (temporary_) ::unlink(native.c_str());
  return true;
}

bool PagedRecordFile::open(const std::wstring& path, bool existing) {
  close();
  path_ = path;
  return OpenFd(existing);
}

bool PagedRecordFile::OpenFd(bool existing) {
  int flags = (writable_ ? O_RDWR : O_RDONLY) | O_CLOEXEC;
  if (!existing) flags |= O_CREAT | O_TRUNC;
  fd_ = ::open(File::NativePath(path_).c_str(), flags, 0600);
  if (fd_ < 0) {
    if (!(existing && errno == ENOENT)) LogSysError("CreateFile", errno);
    return false;
  }
  posix_fadvise(fd_, 0, 0, POSIX_FADV_RANDOM);
  recordCount_ = mappedCount_ = writtenCount_ = 0;
  if (existing) Refresh();
  return true;
}

// Takes the file's size as the record count and "maps" all of it.
void PagedRecordFile::Refresh() {
  struct stat st {};
  if (fstat(fd_, &st) != 0) {
    LogSysError("CreateFileMapping", errno);
    return;
  }
  const std::uint64_t records = std::uint64_t(st.st_size) / sizeof(BoxRecord);
  recordCount_ = std::uint32_t(std::min<std::uint64_t>(records, UINT32_MAX));
  mappingOpen_ = recordCount_ != 0;
  mappedCount_ = writtenCount_ = recordCount_;
}

bool PagedRecordFile::reopen() {
  flushAndUnmapAll();
  if (temporary_ && fd_ >= 0) {
    // Unlinked: the descriptor is the only way back to it.
    Refresh();
    return true;
  }
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  return OpenFd(true);
}

void PagedRecordFile::close() {
  flushAndUnmapAll();
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  mappingOpen_ = false;
}

void PagedRecordFile::WriteBack(RecordPage& slot, bool free) {
  if (writable_ && !slot.mapped && slot.dirty && slot.data && slot.firstRecord >= 0) {
    const std::uint32_t first = std::uint32_t(slot.firstRecord);
    const std::uint32_t n = recordCount_ > first ? std::min(recordCount_ - first, slot.recordsInPage) : 0;
    if (n > 0) {
      const std::size_t written = fd_ >= 0 ? WriteAll(fd_, slot.data, std::size_t(n) * sizeof(BoxRecord),
                                                      off_t(first) * off_t(sizeof(BoxRecord)))
                                           : 0;
      if (fd_ < 0) LogSysError("WriteFile", EBADF);
      writtenCount_ = std::max(writtenCount_, first + std::uint32_t(written / sizeof(BoxRecord)));
    }
  }
  if (free && !slot.mapped && slot.data) {
    FreeBuffer(slot.data);
    slot.data = nullptr;
    slot.recordsInPage = 0;
  }
}

// Empties a slot: buffers are written back and freed, views unmapped.
void PagedRecordFile::Release(RecordPage& slot) {
  if (slot.mapped) {
    if (slot.data) munmap(slot.data, std::size_t(slot.recordsInPage) * sizeof(BoxRecord));
    slot.data = nullptr;
    slot.mapped = 0;
    slot.recordsInPage = 0;
  } else {
    WriteBack(slot, true);
  }
  slot.firstRecord = -1;
  slot.pinCount = 0;
}

void PagedRecordFile::flushAndUnmapAll() {
  for (std::uint32_t i = 0; i < slotCount_; ++i) Release(slots_[i]);
  mappingOpen_ = false;
}

std::uint32_t PagedRecordFile::mappedSlots() const {
  std::uint32_t n = 0;
  for (std::uint32_t i = 0; i < slotCount_; ++i) n += slots_[i].firstRecord >= 0 && slots_[i].mapped;
  return n;
}

std::uint32_t PagedRecordFile::bufferedSlots() const {
  std::uint32_t n = 0;
  for (std::uint32_t i = 0; i < slotCount_; ++i) n += slots_[i].firstRecord >= 0 && !slots_[i].mapped;
  return n;
}

void PagedRecordFile::Load(RecordPage& slot, std::uint32_t base) {
  // A writable file maps only pages wholly inside the mapping: views cannot
  // grow, and pages past it are still being written through buffers.
  bool map = writable_ ? mappedCount_ > base && mappedCount_ - base >= kPageRecords : writtenCount_ > base;
  if (fd_ < 0 || !mappingOpen_) map = false;

  // Retire the old content. A slot taken while pinned gets fresh memory
  // before its old memory goes, so the stale pointer matches no slot and its
  // unpin throws instead of corrupting the new page's pin count.
  const bool forced = slot.firstRecord >= 0 && slot.pinCount > 0;
  BoxRecord* retired = nullptr;
  std::size_t retiredBytes = 0;
  const bool retiredView = slot.mapped != 0;
  if (slot.mapped) {
    retired = slot.data;
    retiredBytes = std::size_t(slot.recordsInPage) * sizeof(BoxRecord);
    slot.data = nullptr;
    slot.mapped = 0;
  } else if (slot.data) {
    WriteBack(slot, false);
    if (map || forced) {
      retired = slot.data;
      retiredBytes = kPageBytes;
      slot.data = nullptr;
    }
  }
  slot.firstRecord = -1;
  slot.recordsInPage = 0;

  if (map) {
    const std::uint32_t n = std::min(writtenCount_ - base, kPageRecords);
    void* view = mmap(nullptr, std::size_t(n) * sizeof(BoxRecord), PROT_READ | (writable_ ? PROT_WRITE : 0),
                      MAP_SHARED, fd_, off_t(base) * off_t(sizeof(BoxRecord)));
    if (view == MAP_FAILED) {
      LogSysError("MapViewOfFile", errno);
      map = false;
    } else {
      slot.data = static_cast<BoxRecord*>(view);
      slot.recordsInPage = n;
      slot.mapped = 1;
    }
  }
  if (!map) {
    if (!slot.data) slot.data = NewBuffer();
    const std::uint32_t want = recordCount_ > base ? std::min(recordCount_ - base, kPageRecords) : 0;
    const std::size_t got =
        want > 0 && fd_ >= 0
            ? ReadAll(fd_, slot.data, std::size_t(want) * sizeof(BoxRecord), off_t(base) * off_t(sizeof(BoxRecord))) /
                  sizeof(BoxRecord)
            : 0;
    std::fill(slot.data + got, slot.data + kPageRecords, BoxRecord::Empty());
    slot.recordsInPage = kPageRecords;
    slot.mapped = 0;
  }
  slot.firstRecord = std::int32_t(base);
  slot.pinCount = 0;
  slot.dirty = 0;

  if (retired) {
    if (retiredView) munmap(retired, retiredBytes);
    else FreeBuffer(retired);
  }
}

void PagedRecordFile::MoveToFront(RecordPage& slot) {
  if (&slot == head_) return;
  slot.prev->next = slot.next;
  slot.next->prev = slot.prev;
  slot.next = head_;
  slot.prev = head_->prev;
  head_->prev->next = &slot;
  head_->prev = &slot;
  head_ = &slot;
}

RecordPage* PagedRecordFile::Lookup(std::uint32_t record) {
  const std::int32_t base = std::int32_t(record & ~kPageMask);
  if (head_->firstRecord == base) return head_;
  RecordPage* found = nullptr;
  for (RecordPage* s = head_->next; s != head_; s = s->next)
    if (s->firstRecord == base) {
      found = s;
      break;
    }
  if (!found) {
    // From the least recently used backwards to the first unpinned slot;
    // with every slot pinned, the least recently used one all the same.
    found = head_->prev;
    for (RecordPage* s = head_->prev;; s = s->prev) {
      if (s->pinCount == 0) {
        found = s;
        break;
      }
      if (s == head_) break;
    }
    Load(*found, std::uint32_t(base));
  }
  MoveToFront(*found);
  return found;
}

BoxRecord* PagedRecordFile::pin(std::uint32_t record) {
  RecordPage* slot = Lookup(record);
  // Dirty before a remap can flush it: a growing record must reach the file.
  slot->dirty = 1;
  if (record >= recordCount_) {
    recordCount_ = record + 1;
    if (!noRemap_ && recordCount_ > mappedCount_ && recordCount_ - mappedCount_ > remapSlack_) {
      flushAndUnmapAll();
      reopen();
      Load(*slot, record & ~kPageMask);
      MoveToFront(*slot);
    }
  }
  assert((record & kPageMask) < slot->recordsInPage && "pinning past the end of a read-only file");
  ++slot->pinCount;
  slot->dirty = 1;
  return slot->data + (record & kPageMask);
}

const BoxRecord* PagedRecordFile::peek(std::uint32_t record) {
  RecordPage* slot = Lookup(record);
  if ((record & kPageMask) >= slot->recordsInPage) return &kEmptyRecord;  // past a read-only file's end
  return slot->data + (record & kPageMask);
}

void PagedRecordFile::unpin(const BoxRecord* p) {
  const auto at = reinterpret_cast<std::uintptr_t>(p);
  RecordPage* s = head_;
  do {
    const auto data = reinterpret_cast<std::uintptr_t>(s->data);
    if (s->data && at >= data && (at - data) / sizeof(BoxRecord) < s->recordsInPage) {
      if (s->pinCount == 0) break;
      --s->pinCount;
      return;
    }
    s = s->next;
  } while (s != head_);
  throw wexception(L"Page was released before we were done using it!!!");
}

}  // namespace kel
