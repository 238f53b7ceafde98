// File and memory byte streams for SFF data. Paths are UTF-8. Failures to
// open throw kel::wexception; later write failures (a full disk) go unnoticed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "kel/export.h"
#include "kel/sff/sff_stream.h"

namespace kel {

// Creates (truncates) a file for binary writing; closes it on destruction.
// Throws "Failed to create SFF file." when the file cannot be created.
class KEL_API sff_file_os final : public sff_output_stream {
public:
  explicit sff_file_os(const char* utf8Path);
  ~sff_file_os() override;
  sff_file_os(const sff_file_os&) = delete;
  sff_file_os& operator=(const sff_file_os&) = delete;

  void write(const void* data, std::size_t size) override;

private:
  std::FILE* file_;
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
