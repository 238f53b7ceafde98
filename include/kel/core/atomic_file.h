// Writing a file so that it either appears whole under its name or not at
// all. Bytes go to a temporary file in the target's folder; commit() flushes,
// fsyncs, closes and renames it over the target. Until then the old file (if
// any) is untouched, and an AtomicFile destroyed without commit() (an
// exception unwinding, a caller giving up) removes its temporary.
//
// The temporary is unnamed where the file system allows it (Linux O_TMPFILE),
// so even a killed process leaves nothing behind; elsewhere it is named
// "<target>.kel-tmp-<pid>-<n>", and the next AtomicFile for the same target
// removes such leftovers whose process is gone.
//
// Paths are UTF-8 (the native form on POSIX). Every failure throws
// kel::wexception naming the path and the system's reason; errno holds the
// system's error number when the exception is caught. One object belongs
// to one thread at a time; distinct objects are independent, also for the
// same target (the last commit wins).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kel/export.h"

namespace kel {

class KEL_API AtomicFile final {
public:
  // Opens the temporary next to `path`. Throws "Failed to create <path>: ..."
  // when the folder is missing or not writable. The final file gets the mode
  // of the file it replaces, or 0666 less the umask for a new one.
  explicit AtomicFile(const std::string& utf8Path);
  explicit AtomicFile(const std::wstring& path);
  ~AtomicFile();
  // A moved-from object may only be destroyed or assigned to.
  AtomicFile(AtomicFile&& other) noexcept;
  AtomicFile& operator=(AtomicFile&& other) noexcept;
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  // Appends bytes (buffered). Throws "Failed to write <path>: ..." when the
  // system refuses them (a full disk, a file size limit); the object is then
  // failed: later writes and commit() throw the same, the destructor cleans up.
  void write(const void* data, std::size_t size);
  void write(std::string_view bytes) { write(bytes.data(), bytes.size()); }

  // How commit() makes the file durable. Synced (the default) fsyncs before
  // the rename, so the file survives a power cut once commit() returns.
  // Unsynced skips that flush: readers, and a process that is killed, still
  // see either the old file or the whole new one, but after a power cut the
  // new name may hold an empty or partial file. Meant for many files written
  // in one go and flushed together afterwards (syncfs), such as the tiles of
  // a cache: a flush per file costs about 10 ms on a disk.
  enum class Sync { Synced, Unsynced };

  // Flushes, fsyncs (unless Unsynced), closes and renames over the target.
  // Throws on any failure, after which the target is still the old file and
  // the temporary is gone. Calling it twice, or after a failure, throws.
  void commit(Sync sync = Sync::Synced);
  // Drops everything written so far and removes the temporary now; the target
  // is left as it was, and later writes and commit() throw. Idempotent.
  void discard() noexcept;

  // The target path as given (UTF-8).
  const std::string& path() const;
  // Bytes accepted by write() so far.
  std::uint64_t size() const;
  bool committed() const;

  // The prefix every temporary of `utf8Path` starts with; for tests and tools
  // that look for leftovers.
  static std::string TemporaryPrefix(const std::string& utf8Path);

private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kel
