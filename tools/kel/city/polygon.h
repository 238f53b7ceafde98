// Plane polygons as the city pipeline handles them: a footprint part is an
// outer ring followed by its holes, each ring a list of distinct points
// without the closing repeat. After Orient() outer rings run
// counter-clockwise and holes clockwise (y up), which is what wall normals
// and roof triangulation rely on.
#pragma once

#include <cstdint>
#include <vector>

#include <kel/kel.h>

namespace city {

using kel::BBox;
using kel::Vec2d;
using kel::Vec3d;

using Ring = std::vector<Vec2d>;

struct Polygon {
  std::vector<Ring> rings;  // [0] outer, then holes
};

// Twice the signed area (positive for counter-clockwise rings).
double SignedArea2(const Ring& ring);
// Area of the outer ring less its holes.
double Area(const Polygon& polygon);
BBox<2, double> Bounds(const Polygon& polygon);
BBox<2, double> Bounds(const std::vector<Polygon>& parts);
// Outer counter-clockwise, holes clockwise.
void Orient(Polygon& polygon);
// Drops a closing point that repeats the first and consecutive duplicates.
void DropRepeats(Ring& ring);
// True when no two edges of the ring cross or touch except neighbours at
// their shared corner. Quadratic: meant for footprints of a few dozen points.
bool IsSimple(const Ring& ring);

// Triangulates a polygon with holes by ear clipping, holes first bridged to
// the outer ring at mutually visible vertices (Eberly, "Triangulation by Ear
// Clipping", 2002). Appends triangles, counter-clockwise, as indices into
// the polygon's points numbered ring after ring. Needs an oriented polygon
// (Orient) of simple rings. False when clipping gets stuck (rings that touch
// or overlap); `triangles` then holds what was clipped before.
bool EarClip(const Polygon& polygon, std::vector<std::uint32_t>& triangles);

// The triangulation the pipeline uses: ear clipping, and GEOS's constrained
// Delaunay triangulation for rings ear clipping cannot finish or that are
// too long for its quadratic search (about 130 us per footprint, 300 times
// the ear clipper, so only the exceptions take it). Indices as EarClip. False
// only when neither succeeds.
bool Triangulate(const Polygon& polygon, std::vector<std::uint32_t>& triangles);

}  // namespace city
