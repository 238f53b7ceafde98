// zlib-format (RFC 1950) compression streams behind the compressed "SFZ0"
// variant. Each stream works through fixed 64 KiB buffers allocated once at
// construction; no allocation happens per read or write. Safe on hostile
// compressed input: corrupt data throws "Inflate error.", never worse.
#pragma once

#include <cstddef>
#include <memory>

#include "kel/export.h"
#include "kel/sff/sff_stream.h"

namespace kel {

// Compresses everything written to it into `target` (not owned, must outlive
// this stream). The zlib stream is completed by finish() or, at the latest,
// by the destructor. Throws "Failed to init ZIP stream" when zlib refuses the
// level, "Something bad happened during SFZ compression." on a stream error.
class KEL_API deflating_output_stream final : public sff_output_stream {
public:
  // level: zlib level 0-9, -1 for zlib's default (6). Level 1 is about six
  // times faster on mesh data for output within ~2 % of the default's size.
  explicit deflating_output_stream(sff_output_stream& target, int level = -1);
  ~deflating_output_stream() override;
  deflating_output_stream(const deflating_output_stream&) = delete;
  deflating_output_stream& operator=(const deflating_output_stream&) = delete;

  void write(const void* data, std::size_t size) override;
  // Writes the end of the zlib stream; later writes are ignored. Idempotent.
  void finish();

private:
  struct State;
  std::unique_ptr<State> state_;
};

// Decompresses the zlib stream read from `source` (not owned, must outlive
// this stream). Bytes after the end of the zlib stream are ignored. Throws
// "Inflate init error.", or "Inflate error." for corrupt data and for a
// source that runs dry before the end of the zlib stream (a cut file).
class KEL_API inflating_input_stream final : public sff_input_stream {
public:
  explicit inflating_input_stream(sff_input_stream& source);
  ~inflating_input_stream() override;
  inflating_input_stream(const inflating_input_stream&) = delete;
  inflating_input_stream& operator=(const inflating_input_stream&) = delete;

  // Restarts decompression; the source itself is not reset, so the caller
  // positions it at the start of the zlib stream first.
  void reset() override;
  std::size_t read(void* buffer, std::size_t size) override;

private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kel
