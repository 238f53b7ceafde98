// The built-in city: districts of street blocks, each block divided into
// detached houses, row houses, courtyard blocks or towers by its distance
// from the centre, with a river and parks left open; and the rolling
// terrain it stands on. Deterministic: the same options give the same
// footprints, bit for bit, on every machine (own random numbers, no
// standard-library distributions, whose results differ between libraries).
#pragma once

#include <cstdint>
#include <vector>

#include "city/mesh.h"
#include "city/model.h"

namespace city {

struct ProceduralOptions {
  double longitude = 9.18;  // the centre (Stuttgart)
  double latitude = 48.78;
  int buildings = 50000;    // about this many
  std::uint64_t seed = 1;
};

// Footprints in longitude/latitude degrees (LL84), with heights in metres
// for most and only a floor count for every seventh, as imported data
// often has.
std::vector<SourceBuilding> GenerateCity(const ProceduralOptions& options);

// Half the edge of the square the city covers, in metres.
double CityRadius(int buildings);

// Metres east and north of the centre to degrees, and back (a local
// equirectangular mapping, exact enough over a city).
Vec2d LocalToLonLat(const ProceduralOptions& options, const Vec2d& local);
Vec2d LonLatToLocal(const ProceduralOptions& options, const Vec2d& lonLat);

// Rolling hills and the river valley of GenerateCity's city. `centre` is
// where the city's centre lies in the coordinates height() is asked in.
class ProceduralTerrain final : public HeightField {
public:
  ProceduralTerrain(const Vec2d& centre, int buildings);
  double height(double x, double y) const override;

private:
  Vec2d centre_;
  double radius_;
};

// The river's centre line: north offset at a given east offset, metres.
double RiverY(double x, double radius);

}  // namespace city
