// A tile file as a ray-queryable triangle set: reads every mesh of an SFF
// tile into one triangle soup, builds a bvh over it and hands out the tree
// with a matching triangle intersector (two-sided; a hit writes t, u, v).
//
// Meshes are "C" nodes carrying one vertex array (tag 34 / type 16, written
// by sff_writer::writePositions) and at most one index array, which is the
// integer record tag 41 / type 19 (sff_writer::writeIntegers). A block of
// 4-byte elements (tag 43 / type 23, sff_writer::writeArray4) is not an index
// array and is ignored: a mesh that carries its indices that way reads as
// having none (`kel sff dump --summary` lists such meshes).
// A mesh without an index array is read as a triangle list whose indices
// start at 0 of the whole soup, not of the mesh: in every mesh after the
// first such triangles reuse the soup's first vertices. Vertices are used as
// stored (materials and transforms are ignored).
//
// Beside the tree it builds a pick index (pick_index.h) over the same
// triangles: pick() and heightAt() answer through it, faster than the
// tree's exact walk and watertight (rays through shared edges hit).
//
// Safe on hostile files: nothing throws. An unreadable file leaves the
// object invalid (the reader's message is logged as an error); triangles
// whose indices lie outside the soup are dropped with one warning per file;
// memory stays proportional to the file (a mesh's implicit triangle list is
// appended once, also when "C" nodes nest around it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "kel/export.h"
#include "kel/spatial/pick_index.h"

namespace kel {

class sff_input_stream;

class KEL_API SFF2BVH {
public:
  // Reads the tile file at `path`.
  explicit SFF2BVH(const std::wstring& path);
  // Reads from any SFF byte source (memory, compressed, ...).
  explicit SFF2BVH(sff_input_stream& source);

  // True when a tree was built: the file held vertices and indices.
  bool valid() const { return static_cast<bool>(tree_); }
  // Both null unless valid(). Copies of this object share them; queries may
  // run concurrently.
  std::shared_ptr<fdo::bvh> getBVH() const { return tree_; }
  std::shared_ptr<fdo::bvh_primitive_intersector> getIntersector() const { return intersector_; }
  // The fast query structure over the same triangles; null unless valid().
  std::shared_ptr<const fdo::pick_index> getPickIndex() const { return pick_; }

  // Nearest hit through the pick index (see pick_index::intersect); io is
  // left alone when nothing is nearer or the object is not valid.
  void pick(fdo::hit& io, const fdo::ray& r, float* uv = nullptr) const;
  // The same for rays[0 .. n) into io[0 .. n), over OpenMP threads.
  void pick(fdo::hit* io, const fdo::ray* rays, std::size_t n) const;
  // Height of the highest surface under (x, y); false when there is none.
  bool heightAt(float x, float y, float& z, std::uint32_t* primitive = nullptr) const;

  // Where construction spent its time, in seconds.
  struct timings {
    double read = 0;   // the file into the triangle soup
    double tree = 0;   // the bvh
    double index = 0;  // the pick index
  };
  const timings& getTimings() const { return timings_; }

private:
  void load(sff_input_stream& source, const std::wstring& name);

  std::shared_ptr<fdo::bvh> tree_;
  std::shared_ptr<fdo::bvh_primitive_intersector> intersector_;
  std::shared_ptr<const fdo::pick_index> pick_;
  timings timings_;
};

}  // namespace kel
