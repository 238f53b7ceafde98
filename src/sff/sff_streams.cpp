#include <cstring>
#include <exception>
#include <string>

#include "kel/core/log.h"

#include "kel/core/wexception.h"
#include "kel/sff/sff_file_stream.h"
#include "kel/sff/sff_stream.h"

namespace kel {

sff_output_stream::~sff_output_stream() = default;
sff_input_stream::~sff_input_stream() = default;

namespace {
// POSIX paths are bytes, so the UTF-8 path is already the native one.
AtomicFile CreateSffFile(const char* utf8Path) {
  if (!utf8Path) throw wexception(L"Failed to create SFF file.");
  try {
    return AtomicFile(std::string(utf8Path));
  } catch (const wexception&) {
    throw wexception(L"Failed to create SFF file.");
  }
}
}  // namespace

sff_file_os::sff_file_os(const char* utf8Path)
    : file_(CreateSffFile(utf8Path)), uncaught_(std::uncaught_exceptions()) {}

sff_file_os::~sff_file_os() {
  if (file_.committed()) return;
  if (failed_ || std::uncaught_exceptions() > uncaught_) {
    file_.discard();
    return;
  }
  try {
    file_.commit();
  } catch (const wexception& e) {
    KEL_LOG_ERROR(std::wstring(L"Failed to write SFF file. ") + e.message());
  }
}

void sff_file_os::write(const void* data, std::size_t size) {
  try {
    file_.write(data, size);
  } catch (const wexception&) {
    failed_ = true;
    throw wexception(L"Failed to write SFF file.");
  }
}

void sff_file_os::commit() {
  try {
    file_.commit();
  } catch (const wexception&) {
    failed_ = true;
    throw wexception(L"Failed to write SFF file.");
  }
}

void sff_file_os::discard() noexcept {
  failed_ = true;
  file_.discard();
}

sff_file_is::sff_file_is(const char* utf8Path) : file_(utf8Path ? std::fopen(utf8Path, "rb") : nullptr) {
  if (!file_) throw wexception(L"Failed to open SFF file.");
}

sff_file_is::~sff_file_is() { std::fclose(file_); }

void sff_file_is::reset() { std::fseek(file_, 0, SEEK_SET); }

std::size_t sff_file_is::read(void* buffer, std::size_t size) {
  return size ? std::fread(buffer, 1, size, file_) : 0;
}

sff_buff_is::sff_buff_is(const void* data, std::size_t size)
    : data_(static_cast<const unsigned char*>(data)), size_(data ? size : 0) {}

std::size_t sff_buff_is::read(void* buffer, std::size_t size) {
  const std::uint64_t left = size_ - position_;
  const std::size_t n = size < left ? size : static_cast<std::size_t>(left);
  if (n) {
    std::memcpy(buffer, data_ + position_, n);
    position_ += n;
  }
  return n;
}

void sff_buff_os::write(const void* data, std::size_t size) {
  if (!size) return;
  const auto* p = static_cast<const unsigned char*>(data);
  bytes_.insert(bytes_.end(), p, p + size);
}

}  // namespace kel
