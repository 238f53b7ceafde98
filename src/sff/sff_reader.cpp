#include "kel/sff/sff_reader.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "detail/varint.h"
#include "kel/core/wexception.h"
#include "kel/sff/sff_stream.h"
#include "kel/sff/sff_zlib_stream.h"

namespace kel {
namespace {

constexpr std::size_t kBufferSize = 65536;
constexpr std::size_t kDirectPiece = std::size_t{1} << 20;

constexpr std::uint64_t Key(std::uint32_t tag, std::uint32_t type) { return std::uint64_t{tag} << 32 | type; }

[[noreturn]] void Truncated() { throw wexception(L"Invalid SFF stream!"); }

// realloc keeps the contents and, for large blocks, can move pages instead
// of copying them; no zero-filling as std::vector::resize would do.
template <class T>
void Grow(T*& block, std::size_t& size, std::size_t wanted) {
  void* p = std::realloc(block, wanted * sizeof(T));
  if (!p) throw std::bad_alloc();
  block = static_cast<T*>(p);
  size = wanted;
}

}  // namespace

sff_read_callback::~sff_read_callback() = default;

// Pulls bytes from the source through the 64 KiB buffer.
class sff_reader::Cursor {
public:
  Cursor(sff_reader& owner, sff_input_stream& source) : r_(owner), source_(source) {}

  // True when no byte is left; refills an empty buffer first.
  bool atEnd() {
    if (pos_ == end_) refill();
    return pos_ == end_;
  }

  std::uint32_t varint32() {
    std::uint32_t v = 0;
    if (const std::size_t n = detail::GetVarint32(pos_, end_, v)) {
      pos_ += n;
      return v;
    }
    unsigned char bytes[5];
    std::size_t n = 0;
    do bytes[n] = byte();
    while ((bytes[n++] & 0x80) && n < 5);
    detail::GetVarint32(bytes, bytes + n, v);
    return v;
  }

  std::uint64_t varint64() {
    std::uint64_t v = 0;
    if (const std::size_t n = detail::GetVarint64(pos_, end_, v)) {
      pos_ += n;
      return v;
    }
    unsigned char bytes[detail::kMaxVarint];
    std::size_t n = 0;
    do bytes[n] = byte();
    while ((bytes[n++] & 0x80) && n < 8);
    if (n == 8 && (bytes[7] & 0x80)) bytes[n++] = byte();
    detail::GetVarint64(bytes, bytes + n, v);
    return v;
  }

  // n contiguous bytes, in place when they lie in the buffer, else gathered in
  // the scratch area. Valid until the next call.
  const unsigned char* take(std::size_t n) {
    const std::size_t avail = static_cast<std::size_t>(end_ - pos_);
    if (avail >= n) {
      const unsigned char* p = pos_;
      pos_ += n;
      return p;
    }
    // The scratch grows with the bytes that actually arrive, never to a
    // claimed length up front: a hostile length costs only what is present.
    std::size_t have = avail;
    if (r_.scratchSize_ < std::min(n, have + kBufferSize))
      Grow(r_.scratch_, r_.scratchSize_, std::min(n, have + kBufferSize));
    if (have) std::memcpy(r_.scratch_, pos_, have);
    pos_ = end_;
    while (have < n) {
      if (have == r_.scratchSize_)
        Grow(r_.scratch_, r_.scratchSize_, std::min(n, std::max(2 * r_.scratchSize_, have + kBufferSize)));
      const std::size_t room = std::min(n, r_.scratchSize_) - have;
      if (n - have >= kBufferSize && pos_ == end_) {
        // Big remainders go straight from the source into the scratch, in
        // pieces that stay cache-sized: one huge memcpy switches to
        // non-temporal stores and ran at 60 % of chunked copies here.
        const std::size_t got = source_.read(r_.scratch_ + have, std::min(room, kDirectPiece));
        if (!got) Truncated();
        have += got;
      } else {
        if (pos_ == end_) refill();
        if (pos_ == end_) Truncated();
        const std::size_t c = std::min(room, static_cast<std::size_t>(end_ - pos_));
        std::memcpy(r_.scratch_ + have, pos_, c);
        pos_ += c;
        have += c;
      }
    }
    return r_.scratch_;
  }

private:
  unsigned char byte() {
    if (pos_ == end_) {
      refill();
      if (pos_ == end_) Truncated();
    }
    return *pos_++;
  }

  void refill() {
    pos_ = r_.buffer_;
    end_ = pos_ + source_.read(r_.buffer_, kBufferSize);
  }

  sff_reader& r_;
  sff_input_stream& source_;
  const unsigned char* pos_ = nullptr;
  const unsigned char* end_ = nullptr;
};

sff_reader::sff_reader() = default;

sff_reader::~sff_reader() {
  std::free(buffer_);
  std::free(scratch_);
  std::free(values_);
}

void sff_reader::read(sff_input_stream& source, sff_read_callback& cb) {
  source.reset();
  unsigned char magic[4];
  std::size_t got = 0;
  while (got < 4) {
    const std::size_t n = source.read(magic + got, 4 - got);
    if (!n) break;
    got += n;
  }
  if (got < 4 || (std::memcmp(magic, "SFF0", 4) != 0 && std::memcmp(magic, "SFZ0", 4) != 0))
    throw wexception(L"Invalid SFF file");
  std::unique_ptr<inflating_input_stream> inflater;
  sff_input_stream* in = &source;
  if (magic[2] == 'Z') {
    inflater = std::make_unique<inflating_input_stream>(source);
    in = inflater.get();
  }
  if (!buffer_) {
    buffer_ = static_cast<unsigned char*>(std::malloc(kBufferSize));
    if (!buffer_) throw std::bad_alloc();
  }
  stack_.clear();
  Cursor c(*this, *in);

  while (!c.atEnd()) {
    const std::uint32_t tag = c.varint32();
    const std::uint32_t type = c.varint32();
    if (tag <= 7) {
      switch (tag) {
        case 0: {
          if (type == 80) {
            if (stack_.empty()) Truncated();
            const auto top = stack_.back();
            stack_.pop_back();
            cb.end(top.first, top.second);
            break;
          }
          const std::uint64_t id = c.varint64();
          stack_.emplace_back(type, id);
          switch (type) {
            case 64: cb.beginAt(id); break;
            case 65: cb.beginA(id); break;
            case 66: cb.beginB(id); break;
            case 67: cb.beginC(id); break;
            case 68: cb.beginD(id); break;
            case 69: cb.beginE(id); break;
            case 70: cb.beginF(id); break;
            case 71: cb.beginG(id); break;
            default: cb.beginOther(type, id); break;
          }
          break;
        }
        case 1:
        case 7: {
          const std::uint64_t v = c.varint64();
          if (tag == 1 && type == 5) cb.scalar(v);
          else if (tag == 7 && type == 7) cb.reference(v);
          else if (tag == 7 && type == 8) cb.byte8(v);
          else if (tag == 7 && type == 26) cb.byte26(v);
          else if (tag == 7 && type == 27) cb.byte27(v);
          else {
            unsigned char bytes[detail::kMaxVarint];
            cb.unknownRecord(tag, type, bytes, detail::PutVarint(bytes, v));
          }
          break;
        }
        case 2: {
          const unsigned char* p = c.take(16);
          switch (type) {
            case 1: cb.value16Type1(p); break;
            case 2: cb.value16Type2(p); break;
            case 3: cb.value16Type3(p); break;
            case 4: cb.value16Type4(p); break;
            default: cb.unknownRecord(tag, type, p, 16); break;
          }
          break;
        }
        case 3: {
          const unsigned char* p = c.take(64);
          if (type == 0) cb.block64(p);
          else cb.unknownRecord(tag, type, p, 64);
          break;
        }
        case 6: cb.block128(type, c.take(128)); break;
        default: cb.unknownRecord(tag, type, nullptr, 0); break;  // tags 4 and 5 carry nothing
      }
      continue;
    }

    const std::size_t length = c.varint32();
    if (tag == 33 && type == 18) {
      const std::uint32_t extra = c.varint32();
      cb.array8(c.take(length), length / 8, extra);
      continue;
    }
    const unsigned char* p = c.take(length);
    const char* text = reinterpret_cast<const char*>(p);
    switch (Key(tag, type)) {
      case Key(34, 16): cb.positions(p, length / 12); break;
      case Key(34, 17): cb.normals(p, length / 12); break;
      case Key(38, 16): cb.array24(p, length / 24); break;
      case Key(43, 23): cb.array4(p, length / 4); break;
      case Key(43, 21): cb.block21(p, length); break;
      case Key(43, 22): cb.block22(p, length); break;
      case Key(43, 100): cb.block100(p, length); break;
      case Key(42, 32): cb.string32(text, length); break;
      case Key(42, 33): cb.string33(text, length); break;
      case Key(42, 34): cb.string34(text, length); break;
      case Key(41, 19):
      case Key(41, 101): {
        // One value per byte below 0x80 (the last byte of each short varint);
        // decoding stops there and at an unfinished varint, so any bytes are safe.
        std::size_t count = 0;
        for (std::size_t i = 0; i < length; ++i) count += p[i] < 0x80;
        if (count > valuesSize_) Grow(values_, valuesSize_, std::max(count, 2 * valuesSize_));
        std::size_t decoded = 0;
        const unsigned char* q = p;
        const unsigned char* qEnd = p + length;
        while (decoded < count) {
          const std::size_t used = detail::GetVarint64(q, qEnd, values_[decoded]);
          if (!used) break;
          q += used;
          ++decoded;
        }
        if (type == 19) cb.integers(values_, decoded);
        else cb.integers101(values_, decoded);
        break;
      }
      default: cb.unknownRecord(tag, type, p, length); break;
    }
  }
}

}  // namespace kel
