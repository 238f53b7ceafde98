// From footprints as read to buildings ready to extrude: reprojection to
// the best-fitting UTM zone through a transform cache at 1 mm, the model
// offset, footprint cleaning (bad rings dropped, invalid polygons repaired
// through GEOS or skipped), heights from the height or the floor count,
// and ground heights from the terrain. Every footprint that does not make
// it is counted by reason.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "city/cache_files.h"
#include "city/mesh.h"
#include "city/model.h"
#include "city/procedural.h"

namespace city {

struct PrepareOptions {
  enum class Terrain { None, Procedural, Dem } terrain = Terrain::Procedural;
  std::string dem;                 // with Terrain::Dem
  ProceduralOptions procedural;    // where the procedural terrain's city lies
  double defaultHeight = NAN;      // for footprints without height or floors; NaN: skip them
  double floorHeight = 3.0;        // metres per floor
  double margin = 60.0;            // terrain beyond the outermost building, metres
};

struct PrepareReport {
  std::int64_t kept = 0;
  std::int64_t repaired = 0;          // invalid polygons that GEOS made valid
  std::int64_t droppedRings = 0;      // rings of fewer than 3 points, or no area, left out
  std::int64_t nonFinite = 0;         // NaN or infinite coordinates: skipped
  std::int64_t degenerate = 0;        // nothing with area left: skipped
  std::int64_t noHeight = 0;          // neither height nor floors: skipped
  std::int64_t badHeight = 0;         // height not in (0, 1000) m and no usable floors: skipped
  std::int64_t defaultHeight = 0;     // got the default height
  std::int64_t floorsOnly = 0;        // height from the floor count
  std::int64_t outsideTerrain = 0;    // no ground height under them: skipped
  std::int64_t notTransformed = 0;    // the coordinate transform failed: skipped
};

struct PreparedCity {
  std::vector<Building> buildings;  // by id
  std::shared_ptr<kel::SRSCoordSys> srs;  // the UTM zone
  ModelSettings settings;                 // its code and the offset
  std::unique_ptr<HeightField> terrain;   // null: none
  double terrainSpacing = 0;              // metres between the DEM's samples; 0 for procedural terrain
  BBox<2, double> extent;                 // model coordinates, buildings plus margin
  double minZ = 0, maxZ = 0;
  PrepareReport report;
};

// `sourceSrs` is the system of `buildings`' coordinates. Throws
// std::runtime_error when no UTM zone fits (coordinates out of range) and
// DemError when the DEM cannot be used.
PreparedCity Prepare(std::vector<SourceBuilding> buildings, const std::shared_ptr<kel::SRSCoordSys>& sourceSrs,
                     const PrepareOptions& options, kel::Progress& progress);

// A style for a footprint that came without one: tall ones get office
// looks, small ones houses; the id picks among them.
int ChooseStyle(std::int64_t id, double height, double area);

}  // namespace city
