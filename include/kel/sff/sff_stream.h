// The two byte-stream interfaces under the SFF writer and reader: a sink that
// takes bytes and a source that hands them out. Implementations decide where
// the bytes live (files, memory, zlib); see sff_file_stream.h and
// sff_zlib_stream.h.
#pragma once

#include <cstddef>

#include "kel/export.h"

namespace kel {

// Byte sink. Writers never check for failure: a sink that cannot store its
// bytes either throws kel::wexception or drops them.
class KEL_API sff_output_stream {
public:
  virtual ~sff_output_stream();
  virtual void write(const void* data, std::size_t size) = 0;
};

// Byte source. read() delivers up to `size` bytes and returns how many it
// delivered; 0 means the source is exhausted. A short read does not mean the
// end: callers that need `size` bytes keep reading until 0.
class KEL_API sff_input_stream {
public:
  virtual ~sff_input_stream();
  // Starts again from the first byte.
  virtual void reset() = 0;
  virtual std::size_t read(void* buffer, std::size_t size) = 0;
};

}  // namespace kel
