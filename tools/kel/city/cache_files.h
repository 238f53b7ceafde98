// The two text files at a city cache's root besides the tiles:
//  - the model settings file "model.pos": the header line
//    "#ORB_ModelSettings_V1.0", then "Offset = x y z" (model coordinates are
//    the coordinate system's less this offset) and "SRS = <code>";
//  - the tile set description "kel-city.txt" (property-bag lines): where
//    the tiles lie (origin, level-0 edge, levels, extent), the tile set's
//    name, and the parameters the tiles were built with. It is rewritten
//    only when those change, so its time stamp tells which tiles are stale.
// Both are written atomically. Reading is safe on any bytes: a file that
// does not parse gives false and a message, never a throw.
#pragma once

#include <cstdint>
#include <string>

#include <kel/kel.h>

namespace city {

struct ModelSettings {
  kel::Vec3d offset;
  std::wstring srs;
};

struct CityDescription {
  std::wstring name = L"city";  // tile files are <name>_<level>_<row>_<column>.sff
  kel::Vec3d origin;            // lower corner of tile (0, 0, 0), model coordinates
  double tileSize = 0;          // edge of the level-0 tile
  int levels = 0;               // 0 .. levels-1; the last holds full detail
  kel::BBox<3, double> extent;  // model coordinates
  std::int64_t buildings = 0;
  std::wstring parameters;      // what the tiles depend on, one line
};

inline constexpr const char* kModelSettingsFile = "model.pos";
inline constexpr const char* kDescriptionFile = "kel-city.txt";

std::string ModelSettingsText(const ModelSettings& settings);
bool ParseModelSettings(const std::string& text, ModelSettings& out, std::string& error);

std::string DescriptionText(const CityDescription& d);
bool ParseDescription(const std::string& text, CityDescription& out, std::string& error);

// Reads `root`/<file>; false with a message when missing or unparsable.
bool ReadModelSettings(const std::string& root, ModelSettings& out, std::string& error);
bool ReadDescription(const std::string& root, CityDescription& out, std::string& error);
void WriteModelSettings(const std::string& root, const ModelSettings& settings);
// Writes the description unless the file already holds the same text;
// true when it wrote.
bool WriteDescriptionIfChanged(const std::string& root, const CityDescription& d);

// The tile set the description lays out.
kel::TileSetInfo TileSetOf(const CityDescription& d);

}  // namespace city
