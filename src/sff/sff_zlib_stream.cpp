#include "kel/sff/sff_zlib_stream.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include <zlib.h>

#include "kel/core/wexception.h"

namespace kel {
namespace {
constexpr std::size_t kBufferSize = 65536;
// zlib counts in uInt; larger requests go through in slices of this size.
constexpr std::size_t kMaxSlice = std::size_t{1} << 30;
}  // namespace

struct deflating_output_stream::State {
  sff_output_stream* target;
  z_stream z{};
  bool live = false;      // deflateInit succeeded and deflateEnd not yet run
  bool finished = false;  // the stream end has been written
  unsigned char out[kBufferSize];

  void pump(int flush) {
    do {
      z.next_out = out;
      z.avail_out = kBufferSize;
      if (deflate(&z, flush) == Z_STREAM_ERROR)
        throw wexception(L"Something bad happened during SFZ compression.");
      const std::size_t produced = kBufferSize - z.avail_out;
      if (produced) target->write(out, produced);
    } while (z.avail_out == 0);
  }
};

deflating_output_stream::deflating_output_stream(sff_output_stream& target, int level)
    : state_(std::make_unique<State>()) {
  state_->target = &target;
  if (deflateInit(&state_->z, level) != Z_OK) throw wexception(L"Failed to init ZIP stream");
  state_->live = true;
}

deflating_output_stream::~deflating_output_stream() {
  try {
    finish();
  } catch (...) {
    // A destructor must not throw; finish() reports the same error to callers who ask.
  }
  if (state_->live) deflateEnd(&state_->z);
}

void deflating_output_stream::write(const void* data, std::size_t size) {
  State& s = *state_;
  if (s.finished) return;
  auto* p = static_cast<const unsigned char*>(data);
  while (size) {
    const std::size_t slice = std::min(size, kMaxSlice);
    s.z.next_in = const_cast<unsigned char*>(p);
    s.z.avail_in = static_cast<uInt>(slice);
    s.pump(Z_NO_FLUSH);
    p += slice;
    size -= slice;
  }
}

void deflating_output_stream::finish() {
  State& s = *state_;
  if (s.finished) return;
  s.finished = true;
  s.z.next_in = nullptr;
  s.z.avail_in = 0;
  s.pump(Z_FINISH);
  deflateEnd(&s.z);
  s.live = false;
}

struct inflating_input_stream::State {
  sff_input_stream* source;
  z_stream z{};
  bool live = false;   // inflateInit succeeded and inflateEnd not yet run
  bool ended = false;  // the zlib stream is complete; later bytes are ignored
  std::uint32_t readPos = 0;
  std::uint32_t fill = 0;
  unsigned char in[kBufferSize];
  unsigned char out[kBufferSize];

  void init() {
    z = z_stream{};
    if (inflateInit(&z) != Z_OK) throw wexception(L"Inflate init error.");
    live = true;
    ended = false;
    readPos = fill = 0;
  }

  // One inflate step into [target, target + room); `produced` may be 0 when
  // zlib only consumed input. False when no output can come any more: the
  // source is dry or the stream has ended.
  bool inflateInto(unsigned char* target, std::size_t room, std::size_t& produced) {
    produced = 0;
    if (!live) throw wexception(L"Inflate error.");
    if (ended) return false;
    bool dry = false;
    if (z.avail_in == 0) {
      const std::size_t got = source->read(in, kBufferSize);
      dry = got == 0;
      z.next_in = in;
      z.avail_in = static_cast<uInt>(std::min(got, kBufferSize));
    }
    const uInt availIn = z.avail_in;
    z.next_out = target;
    z.avail_out = static_cast<uInt>(std::min(room, kMaxSlice));
    const uInt availOut = z.avail_out;
    const int r = inflate(&z, Z_NO_FLUSH);
    if (r == Z_STREAM_ERROR) throw wexception(L"Inflate error.");
    if (r == Z_DATA_ERROR || r == Z_MEM_ERROR || r == Z_NEED_DICT) {
      inflateEnd(&z);
      live = false;
      throw wexception(L"Inflate error.");
    }
    if (r == Z_STREAM_END) ended = true;
    produced = availOut - z.avail_out;
    // A dry source still gets one call: zlib may hold output it owes for
    // input already taken. Dry with nothing owed and no stream end means the
    // data was cut: refuse it, or a tile cut at a record boundary would load
    // as a smaller valid one.
    if (dry) {
      if (!produced && !ended) throw wexception(L"Inflate error.");
      return produced > 0;
    }
    // Neither input taken nor output made: zlib is stuck, never spin on it.
    if (!produced && z.avail_in == availIn && !ended) throw wexception(L"Inflate error.");
    return true;
  }
};

inflating_input_stream::inflating_input_stream(sff_input_stream& source) : state_(std::make_unique<State>()) {
  state_->source = &source;
  state_->init();
}

inflating_input_stream::~inflating_input_stream() {
  if (state_->live) inflateEnd(&state_->z);
}

void inflating_input_stream::reset() {
  State& s = *state_;
  if (s.live) inflateEnd(&s.z);
  s.live = false;
  s.init();
}

std::size_t inflating_input_stream::read(void* buffer, std::size_t size) {
  State& s = *state_;
  auto* dst = static_cast<unsigned char*>(buffer);
  std::size_t remaining = size;
  while (remaining) {
    if (s.readPos == s.fill) {
      s.readPos = s.fill = 0;
      // Large requests inflate straight into the caller's memory: one copy less.
      std::size_t produced = 0;
      if (remaining >= kBufferSize) {
        if (!s.inflateInto(dst, remaining, produced)) break;
        dst += produced;
        remaining -= produced;
        continue;
      }
      if (!s.inflateInto(s.out, kBufferSize, produced)) break;
      s.fill = static_cast<std::uint32_t>(produced);
    }
    const std::size_t n = std::min<std::size_t>(s.fill - s.readPos, remaining);
    std::memcpy(dst, s.out + s.readPos, n);
    s.readPos += static_cast<std::uint32_t>(n);
    dst += n;
    remaining -= n;
  }
  return size - remaining;
}

}  // namespace kel
