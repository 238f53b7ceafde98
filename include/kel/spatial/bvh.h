// Bounding volume hierarchy over abstract primitives, for nearest-hit ray
// queries (picking). The tree knows nothing about what a primitive is: an
// iterator hands it boxes, an intersector answers ray/primitive tests.
//
// Nodes, primitive boxes and rays are 16-byte aligned groups of four floats so
// the query loads them as four-lane vectors. A tree is built once and then
// queried; queries are const and may run on several threads at once. Nothing
// here logs or throws (besides std::bad_alloc); caller mistakes are asserts.
#pragma once

#include <cmath>
#include <cstdint>
#include <memory>

#include "kel/export.h"

namespace kel::fdo {

// One tree node, 32 bytes. The spare fourth lane of min and max carries
// `first` and `count`, so a node loads as two four-lane vectors.
struct alignas(16) node {
  float minX, minY, minZ;
  std::int32_t first;  // leaf: first slot in the index array; interior: left child (right = first + 1)
  float maxX, maxY, maxZ;
  std::int32_t count;  // leaf: primitives (> 0); interior: 0
};
static_assert(sizeof(node) == 32);

// A primitive's box: min (x, y, z, spare) and max (x, y, z, spare).
struct alignas(16) box {
  float min[4];
  float max[4];
};

// A ray. invDirection must hold 1 / direction per component (the caller fills
// it, so division by zero gives the infinities the slab test relies on).
struct alignas(16) ray {
  float origin[4];
  float direction[4];
  float invDirection[4];
};

// A ray from (ox, oy, oz) along (dx, dy, dz) scaled to unit length, so hit
// distances are in model units, with invDirection filled in. A zero or
// non-finite direction is kept as given. A zero component gives an infinite
// inverse, which the slab test expects; the spare lanes stay 0.
inline ray MakeRay(float ox, float oy, float oz, float dx, float dy, float dz) {
  const double len = std::sqrt(double(dx) * dx + double(dy) * dy + double(dz) * dz);
  if (len > 0.0 && std::isfinite(len)) {
    dx = float(dx / len);
    dy = float(dy / len);
    dz = float(dz / len);
  }
  ray r{};
  r.origin[0] = ox, r.origin[1] = oy, r.origin[2] = oz;
  r.direction[0] = dx, r.direction[1] = dy, r.direction[2] = dz;
  for (int a = 0; a < 3; ++a) r.invDirection[a] = 1.0f / r.direction[a];
  return r;
}

// Nearest hit. Set t to the largest distance of interest before a query; the
// query only ever lowers it and sets primitive alongside.
struct hit {
  std::uint32_t primitive;
  float t;
};

// Feeds the build: primitive count and boxes.
class KEL_API bvh_primitive_iterator {
public:
  virtual ~bvh_primitive_iterator();
  virtual void getBox(int index, box& out) = 0;
  virtual int count() = 0;
};

// Ray against primitive i. On a hit writes the distance to out[0] (an
// implementation may write more values after it) and returns true.
class KEL_API bvh_primitive_intersector {
public:
  virtual ~bvh_primitive_intersector();
  virtual bool intersect(int primitive, const ray& r, float* out) = 0;
};

// Iterator over an indexed triangle array: triangle i has the vertices
// indices[3i..3i+2], each three floats at base + index * stride bytes. The
// arrays are the caller's and must outlive the build; indices are trusted.
class KEL_API simple_primitive_iterator : public bvh_primitive_iterator {
public:
  simple_primitive_iterator(const void* vertices, std::size_t strideBytes, const std::uint32_t* indices,
                            int triangleCount);
  void getBox(int index, box& out) override;
  int count() override;

private:
  const unsigned char* vertices_;
  std::size_t stride_;
  const std::uint32_t* indices_;
  int triangleCount_;
};

class KEL_API bvh {
public:
  using node = fdo::node;
  using box = fdo::box;
  using ray = fdo::ray;
  using hit = fdo::hit;

  // Traversal stack capacity (pairs). The build never makes a tree deeper
  // than this, so a built tree cannot overflow it.
  static constexpr int kStackSize = 64;

  bvh() = default;
  bvh(const bvh&) = delete;
  bvh& operator=(const bvh&) = delete;
  bvh(bvh&&) noexcept = default;
  bvh& operator=(bvh&&) noexcept = default;
  ~bvh();

  // (Re)builds over the iterator's primitives: spatial-middle splits of the
  // centroid box, leaves of up to four primitives. getBox is called once per
  // primitive in ascending order. An empty iterator gives one empty leaf.
  void build(bvh_primitive_iterator& primitives);

  // Nearest hit with distance below io.t; io is left alone when nothing is
  // nearer. Rays with |direction.z| == 1 take a cheaper column walk. Of equal
  // distances the primitive met first in traversal order wins. A tree without
  // primitives reports nothing.
  void intersect(hit& io, const ray& r, bvh_primitive_intersector& x) const;

  // Replace the arrays with copies, to reload a stored tree without a build.
  // The data must describe a valid tree (children inside the node array, leaf
  // slices inside the index array, depth below kStackSize).
  void setNodes(const node* data, int n);
  void setPrimitiveIndices(const std::uint32_t* data, int n);

  // Writes the root box to stderr (debug aid).
  void printRoot() const;

  const node* getNodes() const { return nodes.get(); }
  int getNodeCount() const { return nodeCount; }
  int getNodeCapacity() const { return nodeCapacity; }
  const std::uint32_t* getPrimitiveIndices() const { return primitiveIndices.get(); }
  int getPrimitiveCount() const { return primitiveCount; }
  float getEpsilon() const { return epsilon; }

private:
  struct AlignedFree {
    void operator()(void* p) const noexcept;
  };
  // Node arrays start 32 bytes past a cache-line boundary, so each pair of
  // siblings (odd index, next even index) shares one 64-byte line.
  struct NodeFree {
    void operator()(node* p) const noexcept;
  };
  template <typename T>
  using aligned_array = std::unique_ptr<T[], AlignedFree>;
  using node_array = std::unique_ptr<node[], NodeFree>;

  void intersectGeneral(hit& io, const ray& r, bvh_primitive_intersector& x) const;
  void intersectVertical(hit& io, const ray& r, bvh_primitive_intersector& x) const;

  node_array nodes;
  std::int32_t nodeCount = 0;
  std::int32_t nodeCapacity = 0;
  aligned_array<std::uint32_t> primitiveIndices;
  std::int32_t primitiveCount = 0;
  // Smallest centroid extent worth splitting; fixed by the first build.
  float epsilon = 0.0f;
};

}  // namespace kel::fdo
