// Ground heights in model coordinates: a regular grid sampled once from a
// DEM raster read through GDAL (reprojected point by point through the
// library's transforms), or the procedural terrain. Lookups are bilinear,
// NaN outside the grid or next to a missing DEM cell; they only read, so
// any number of tile workers may share one grid.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "city/mesh.h"

namespace city {

class GridTerrain final : public HeightField {
public:
  // nx x ny samples, sample (0, 0) at region.min, (nx-1, ny-1) at region.max.
  GridTerrain(const BBox<2, double>& region, int nx, int ny, std::vector<float> heights);
  double height(double x, double y) const override;
  const BBox<2, double>& region() const { return region_; }
  int columns() const { return nx_; }
  int rows() const { return ny_; }

private:
  BBox<2, double> region_;
  int nx_, ny_;
  double sx_, sy_;  // samples per metre
  std::vector<float> z_;
};

struct DemError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct DemProbe {
  std::shared_ptr<kel::SRSCoordSys> srs;
  Vec2d centreLonLat;  // the raster's centre in LL84
  double pixelMetres = 0;  // about, for choosing a sampling step
};

// Opens the raster and reads its coordinate system and extent. Throws
// DemError when GDAL cannot read it or its system is unknown.
DemProbe ProbeDem(const std::string& path);

// Samples the DEM's first band over `region` (model coordinates, which are
// `modelSrs` less `offset`) at about the DEM's own spacing, between 1 and
// 100 metres. Cells the DEM has no value for (no-data, outside) are NaN.
// Throws DemError when the raster cannot be read or does not reach the
// region at all.
std::unique_ptr<GridTerrain> SampleDem(const std::string& path, const std::shared_ptr<kel::SRSCoordSys>& modelSrs,
                                       const kel::Vec3d& offset, const BBox<2, double>& region);

}  // namespace city
