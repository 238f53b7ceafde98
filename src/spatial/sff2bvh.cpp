// Tile file to triangle soup to bvh, and the triangle intersector over it.
#include "kel/spatial/sff2bvh.h"

#include <algorithm>
#include <cfloat>
#include <chrono>
#include <climits>
#include <cstring>
#include <exception>

#include "kel/core/log.h"
#include "kel/core/path.h"
#include "kel/core/text.h"
#include "kel/core/wexception.h"
#include "kel/sff/sff_file_stream.h"
#include "kel/sff/sff_reader.h"
#include "kel/sff/sff_stream.h"
#include "kel/spatial/bvh.h"
#include "spatial/detail/aligned_memory.h"
#include "spatial/detail/triangle.h"

namespace kel {
namespace {

// Marks an index that cannot name a vertex (above 2^32-1 once offset); no
// soup gets that many vertices, so it is always out of range.
constexpr std::uint32_t kBadIndex = UINT32_MAX;

// Growable 16-byte-aligned array; grows to max(2 x capacity, needed).
template <typename T>
class SoupArray {
public:
  SoupArray() = default;
  SoupArray(const SoupArray&) = delete;
  SoupArray& operator=(const SoupArray&) = delete;

  T* data() { return data_.get(); }
  const T* data() const { return data_.get(); }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // Makes room for n more elements and returns where they go.
  T* extend(std::size_t n) {
    const std::size_t needed = size_ + n;
    if (needed > capacity_) {
      const std::size_t grown = std::max(2 * capacity_, needed);
      std::unique_ptr<T[], fdo::detail::BlockFree> bigger(
          static_cast<T*>(fdo::detail::AllocBlock(grown * sizeof(T), 16)));
      if (size_) std::memcpy(bigger.get(), data_.get(), size_ * sizeof(T));
      data_ = std::move(bigger);
      capacity_ = grown;
    }
    T* at = data_.get() + size_;
    size_ = needed;
    return at;
  }
  void truncate(std::size_t n) { size_ = std::min(size_, n); }

private:
  std::unique_ptr<T[], fdo::detail::BlockFree> data_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

using VertexArray = SoupArray<float>;
using IndexArray = SoupArray<std::uint32_t>;

// Collects every mesh's vertices and indices into the shared soup.
class SFF2BVHProcessor : public sff_read_callback {
public:
  SFF2BVHProcessor(std::shared_ptr<VertexArray> vertices, std::shared_ptr<IndexArray> indices)
      : vertices_(std::move(vertices)), indices_(std::move(indices)) {}

  void beginC(std::uint64_t /*id*/) override {
    verticesSeen_ = indicesSeen_ = 0;
    baseVertex_ = std::uint32_t(vertices_->size() / 3);
  }

  void end(std::uint32_t type, std::uint64_t /*id*/) override {
    if (type != 67 || !verticesSeen_ || indicesSeen_) return;
    // Implicit triangle list: indices from 0 of the whole soup, deliberately
    // not offset by baseVertex (later meshes reuse the first vertices).
    const std::uint32_t k = std::uint32_t(vertices_->size() / 3) - baseVertex_;
    std::uint32_t* out = indices_->extend(k);
    for (std::uint32_t i = 0; i < k; ++i) out[i] = i;
    // Once per mesh: "C" nodes nested around it must not append the list
    // again, or a small hostile file could multiply its vertices into
    // gigabytes of indices.
    indicesSeen_ = 1;
  }

  void positions(const void* data, std::size_t count) override {
    if (verticesSeen_) {
      KEL_LOG_WARN(L"Invalid SFF file: Only one vertex-array per mesh expected. Ignoring further vertex-arrays");
      return;
    }
    // Vertex numbers are 32-bit; a soup that would outgrow them keeps what fits.
    const std::size_t room = std::size_t{kBadIndex} - vertices_->size() / 3;
    count = std::min(count, room);
    if (count) std::memcpy(vertices_->extend(3 * count), data, 12 * count);
    verticesSeen_ = 1;
  }

  void integers(const std::uint64_t* values, std::size_t count) override {
    if (indicesSeen_) {
      KEL_LOG_WARN(L"Invalid SFF file: Only one index-array per mesh expected. Ignoring further arrays");
      return;
    }
    std::uint32_t* out = indices_->extend(count);
    const std::uint64_t limit = std::uint64_t{kBadIndex} - baseVertex_;
    for (std::size_t i = 0; i < count; ++i)
      out[i] = values[i] < limit ? std::uint32_t(values[i]) + baseVertex_ : kBadIndex;
    indicesSeen_ = 1;
  }

private:
  std::shared_ptr<VertexArray> vertices_;
  std::shared_ptr<IndexArray> indices_;
  std::uint32_t baseVertex_ = 0;
  std::uint8_t indicesSeen_ = 0;
  std::uint8_t verticesSeen_ = 0;
};

class TilePrimitveIterator : public fdo::bvh_primitive_iterator {
public:
  TilePrimitveIterator(std::shared_ptr<VertexArray> vertices, std::shared_ptr<IndexArray> indices)
      : vertices_(std::move(vertices)), indices_(std::move(indices)) {}

  void getBox(int i, fdo::box& out) override {
    const float* v = vertices_->data();
    const std::uint32_t* t = indices_->data() + 3 * std::size_t(i);
    const float* p0 = v + 3 * std::size_t{t[0]};
    const float* p1 = v + 3 * std::size_t{t[1]};
    const float* p2 = v + 3 * std::size_t{t[2]};
    for (int a = 0; a < 3; ++a) {
      out.min[a] = std::min(std::min(p0[a], p1[a]), p2[a]);
      out.max[a] = std::max(std::max(p0[a], p1[a]), p2[a]);
    }
    out.min[3] = out.max[3] = 0.0f;
  }

  int count() override { return int(indices_->size() / 3); }

private:
  std::shared_ptr<VertexArray> vertices_;
  std::shared_ptr<IndexArray> indices_;
};

class TileIntersector : public fdo::bvh_primitive_intersector {
public:
  TileIntersector(std::shared_ptr<VertexArray> vertices, std::shared_ptr<IndexArray> indices)
      : vertices_(std::move(vertices)), indices_(std::move(indices)) {}

  bool intersect(int i, const fdo::ray& r, float* out) override {
    const float* v = vertices_->data();
    const std::uint32_t* t = indices_->data() + 3 * std::size_t(i);
    return fdo::detail::RayTriangle(v + 3 * std::size_t{t[0]}, v + 3 * std::size_t{t[1]},
                                    v + 3 * std::size_t{t[2]}, r, FLT_MAX, out);
  }

private:
  std::shared_ptr<VertexArray> vertices_;
  std::shared_ptr<IndexArray> indices_;
};

// Drops whole triangles naming a vertex outside the soup, so no query ever
// reads past it. A trailing partial triangle is left alone: it is never read.
void DropBadTriangles(const VertexArray& vertices, IndexArray& indices) {
  const std::uint64_t vertexCount = vertices.size() / 3;
  const std::size_t triangles = indices.size() / 3;
  std::uint32_t* t = indices.data();
  std::size_t kept = 0;
  for (std::size_t i = 0; i < triangles; ++i) {
    const std::uint32_t* src = t + 3 * i;
    if (src[0] >= vertexCount || src[1] >= vertexCount || src[2] >= vertexCount) continue;
    if (kept != i) std::memmove(t + 3 * kept, src, 3 * sizeof(std::uint32_t));
    ++kept;
  }
  if (kept == triangles) return;
  KEL_LOG_WARN(L"Invalid SFF file: Index out of range. Ignoring triangle");
  const std::size_t tail = indices.size() - 3 * triangles;
  if (tail) std::memmove(t + 3 * kept, t + 3 * triangles, tail * sizeof(std::uint32_t));
  indices.truncate(3 * kept + tail);
}

}  // namespace

SFF2BVH::SFF2BVH(const std::wstring& path) {
  try {
    sff_file_is file(File::NativePath(path).c_str());
    load(file, path);
  } catch (const wexception& e) {
    KEL_LOG_ERROR(L"Cannot read tile " + path + L": " + e.message());
  } catch (const std::exception& e) {
    KEL_LOG_ERROR(L"Cannot read tile " + path + L": " + A2W_SLOW(e.what()));
  }
}

SFF2BVH::SFF2BVH(sff_input_stream& source) {
  try {
    load(source, std::wstring());
  } catch (const wexception& e) {
    KEL_LOG_ERROR(std::wstring(L"Cannot read tile: ") + e.message());
  } catch (const std::exception& e) {
    KEL_LOG_ERROR(L"Cannot read tile: " + A2W_SLOW(e.what()));
  }
}

void SFF2BVH::load(sff_input_stream& source, const std::wstring& name) {
  using Clock = std::chrono::steady_clock;
  const auto seconds = [](Clock::time_point from) { return std::chrono::duration<double>(Clock::now() - from).count(); };
  auto began = Clock::now();
  auto vertices = std::make_shared<VertexArray>();
  auto indices = std::make_shared<IndexArray>();
  {
    SFF2BVHProcessor processor(vertices, indices);
    sff_reader().read(source, processor);
  }
  DropBadTriangles(*vertices, *indices);
  timings_.read = seconds(began);
  if (vertices->empty() || indices->empty()) return;
  if (indices->size() / 3 > std::size_t(INT_MAX)) {
    KEL_LOG_ERROR(L"Tile has too many triangles for one tree" + (name.empty() ? L"" : L": " + name));
    return;
  }
  began = Clock::now();
  TilePrimitveIterator iterator(vertices, indices);
  auto tree = std::make_shared<fdo::bvh>();
  tree->build(iterator);
  timings_.tree = seconds(began);
  began = Clock::now();
  pick_ = std::make_shared<const fdo::pick_index>(*tree, vertices->data(), vertices->size() / 3, indices->data(),
                                                  indices->size() / 3);
  timings_.index = seconds(began);
  intersector_ = std::make_shared<TileIntersector>(vertices, indices);
  tree_ = std::move(tree);
}

void SFF2BVH::pick(fdo::hit& io, const fdo::ray& r, float* uv) const {
  if (pick_) pick_->intersect(io, r, uv);
}

void SFF2BVH::pick(fdo::hit* io, const fdo::ray* rays, std::size_t n) const {
  if (pick_) pick_->intersect(io, rays, n);
}

bool SFF2BVH::heightAt(float x, float y, float& z, std::uint32_t* primitive) const {
  return pick_ && pick_->heightAt(x, y, z, primitive);
}

}  // namespace kel
