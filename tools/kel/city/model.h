// The city as the pipeline carries it from input to tiles: buildings with
// footprints, heights and a style, first in the input's coordinate system,
// then in model coordinates (the best-fitting UTM zone less the model's
// offset), plus the building styles that decide textures and roofs.
#pragma once

#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "city/mesh.h"
#include "city/polygon.h"

namespace city {

// Thrown where a stage notices that its progress was interrupted (Ctrl-C).
struct Interrupted : std::runtime_error {
  Interrupted() : std::runtime_error("interrupted") {}
};

// One footprint as read: parts in the source's coordinates; the height in
// metres or, when the source gave none, a floor count (0: neither).
struct SourceBuilding {
  std::int64_t id = 0;
  std::vector<Polygon> parts;
  double height = NAN;
  int floors = 0;
  int style = -1;  // -1: chosen from the id
  RoofShape roof = RoofShape::Flat;
};

// A cleaned building in model coordinates, ready to extrude.
struct Building {
  std::int64_t id = 0;
  std::vector<Polygon> parts;  // oriented, simple rings
  BBox<2, double> box;
  double area = 0;    // square metres, all parts
  double base = 0;    // ground height under the footprint (its lowest corner)
  double height = 0;  // base to eaves, metres
  std::uint8_t style = 0;
  RoofShape roof = RoofShape::Flat;
};

// A facade and roof look. Textures are drawn procedurally from these values.
struct BuildingStyle {
  const char* name;
  std::uint8_t wall[3], window[3], frame[3], roof[3];
  std::uint8_t windowAlpha;  // below 255: see-through glazing (the atlas then needs DXT5)
  int columns, rows;         // windows per facade repeat
  double repeatWidth, repeatHeight;  // metres of wall one facade texture covers
  double roofRepeat;                 // metres of roof one roof texture covers
  int roofPattern;                   // 0 gravel, 1 tiles, 2 metal seams, 3 green
};

const std::vector<BuildingStyle>& Styles();
// Styles()[style] as the mesh builder takes it, with the style's atlas entries.
SurfaceStyle SurfaceOf(const BuildingStyle& style, const AtlasRect& facade, const AtlasRect& roof);

}  // namespace city
