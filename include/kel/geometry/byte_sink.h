// Where the binary geometry writer puts its bytes: an abstract sink and one
// that collects them in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "kel/export.h"

namespace kel {

// Byte sink. Writers never check for failure: a sink that cannot keep its
// bytes either throws or drops them.
class KEL_API byte_sink {
public:
  virtual ~byte_sink();
  virtual void write(const void* data, std::size_t size) = 0;
};

// Appends everything to a vector.
class KEL_API memory_byte_sink final : public byte_sink {
public:
  void write(const void* data, std::size_t size) override;
  const std::vector<std::uint8_t>& bytes() const { return bytes_; }
  std::vector<std::uint8_t> release() { return std::move(bytes_); }
  void clear() { bytes_.clear(); }

private:
  std::vector<std::uint8_t> bytes_;
};

}  // namespace kel
