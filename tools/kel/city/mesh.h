// Triangle meshes of one tile node: extruded buildings (walls, flat or
// gabled roofs) and terrain patches sampled from a height field.
//
// Vertices carry a position, a unit normal and, for textured meshes, six
// atlas floats: (u, v) in texture repeats and the atlas rectangle
// (x, y, width, height, as fractions of the atlas) the texture repeats in. A
// renderer samples rect.xy + fract(uv) * rect.wh, so facades tile across
// whole walls from one small atlas entry.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "city/polygon.h"

namespace city {

struct AtlasRect {
  float x = 0, y = 0, w = 0, h = 0;
};

struct Mesh {
  std::vector<float> positions;  // x, y, z per vertex
  std::vector<float> normals;    // unit, per vertex
  std::vector<float> atlas;      // u, v, rect x, y, w, h per vertex; empty when untextured
  std::vector<std::uint32_t> indices;

  void clear() {
    positions.clear();
    normals.clear();
    atlas.clear();
    indices.clear();
  }
  std::uint32_t vertexCount() const { return static_cast<std::uint32_t>(positions.size() / 3); }
  std::size_t triangleCount() const { return indices.size() / 3; }
  bool empty() const { return indices.empty(); }
};

// How a building's surfaces take their textures.
struct SurfaceStyle {
  AtlasRect facade, roof;
  double bayWidth = 3.0;     // metres of wall per facade repeat
  double floorHeight = 3.0;  // metres of wall per facade repeat upwards
  double roofRepeat = 8.0;   // metres of roof per roof repeat
};

enum class RoofShape : std::uint8_t { Flat = 0, Gabled = 1 };

struct Extrusion {
  double base = 0;    // z of the ground floor
  double height = 0;  // base to eaves
  RoofShape roof = RoofShape::Flat;
  // When the parts were cut out of a larger footprint: edges lying on this
  // box's boundary are cuts, not walls, and get none.
  const BBox<2, double>* cut = nullptr;
};

// Appends the walls and the roof of oriented polygons (outer
// counter-clockwise, holes clockwise). A gabled roof needs a four-cornered
// convex part; other parts get a flat roof. Returns false when a roof could
// not be triangulated (that part then has walls only).
bool Extrude(const std::vector<Polygon>& parts, const Extrusion& shape, const SurfaceStyle& style, Mesh& out,
             std::vector<std::uint32_t>& scratch);

// Ground heights, NaN where there are none.
class HeightField {
public:
  virtual ~HeightField() = default;
  virtual double height(double x, double y) const = 0;
};

// A regular grid of quadsX x quadsY cells over `region`, two triangles per
// cell; cells with a corner without height are left out. Normals come from
// the height field's slope (sampled a cell away), so neighbouring patches
// shade alike along their shared edges.
void TerrainPatch(const HeightField& field, const BBox<2, double>& region, int quadsX, int quadsY, Mesh& out);

}  // namespace city
