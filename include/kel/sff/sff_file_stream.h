// File and memory byte streams for SFF data. Paths are UTF-8. Failures throw
// kel::wexception. A file written through sff_file_os appears whole under its
// name or not at all (see kel::AtomicFile): a full disk, a killed process or
// an exception leave the previous file untouched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "kel/core/atomic_file.h"
#include "kel/export.h"
#include "kel/sff/sff_stream.h"

namespace kel {

// Writes a file for binary output through a temporary beside it. Throws
// "Failed to create SFF file." when the temporary cannot be created and
// "Failed to write SFF file." when a write or the close fails.
//
// The file replaces the target at commit(), or in the destructor when no
// exception is unwinding and nothing failed. The destructor cannot throw, so
// a failure there is only logged: callers that must know (a tool's exit code)
// destroy or finish() their sff_writer and call commit(). An exception
// unwinding through the destructor, or discard(), leaves the target alone.
class KEL_API sff_file_os final : public sff_output_stream {
public:
  explicit sff_file_os(const char* utf8Path);
  ~sff_file_os() override;
  sff_file_os(const sff_file_os&) = delete;
  sff_file_os& operator=(const sff_file_os&) = delete;

  void write(const void* data, std::size_t size) override;
  // Puts the file in place. Throws "Failed to write SFF file." when any write,
  // the flush or the close failed, leaving the old file. Once only.
  void commit();
  // Gives the file up: the target keeps its old content. Later writes throw.
  void discard() noexcept;

private:
  AtomicFile file_;
  int uncaught_;         // exceptions in flight at construction
  bool failed_ = false;  // a write threw: the caller knows, the file is gone
};

// Opens a file for binary reading; closes it on destruction. Throws
// "Failed to open SFF file." when the file cannot be opened.
class KEL_API sff_file_is final : public sff_input_stream {
public:
  explicit sff_file_is(const char* utf8Path);
  ~sff_file_is() override;
  sff_file_is(const sff_file_is&) = delete;
  sff_file_is& operator=(const sff_file_is&) = delete;

  void reset() override;
  std::size_t read(void* buffer, std::size_t size) override;

private:
  std::FILE* file_;
};

// Reads caller-owned memory, which must outlive the stream. Reads past the
// end return 0 and leave the position where it is.
class KEL_API sff_buff_is final : public sff_input_stream {
public:
  sff_buff_is(const void* data, std::size_t size);

  void reset() override { position_ = 0; }
  std::size_t read(void* buffer, std::size_t size) override;

private:
  const unsigned char* data_;
  std::uint64_t size_;
  std::uint64_t position_ = 0;
};

// Appends everything written to a growable byte vector it owns.
class KEL_API sff_buff_os final : public sff_output_stream {
public:
  sff_buff_os() = default;

  void write(const void* data, std::size_t size) override;
  const std::vector<unsigned char>& bytes() const { return bytes_; }
  std::vector<unsigned char>& bytes() { return bytes_; }

private:
  std::vector<unsigned char> bytes_;
};

}  // namespace kel
