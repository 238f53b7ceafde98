// `kel city build`: the whole pipeline from footprints (a feature store or
// the built-in procedural city) and terrain to a renderer's tile cache,
// with nested progress, tiles in parallel, shards for job runners, resume,
// and a summary with a heightmap picked from the finished tiles.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "city/input.h"
#include "city/prepare.h"
#include "city/procedural.h"

namespace city {

struct BuildOptions {
  std::string out;  // cache root, created when missing
  InputOptions input;  // input.source empty: the procedural city
  ProceduralOptions procedural;
  PrepareOptions::Terrain terrain = PrepareOptions::Terrain::Procedural;  // Dem when dem is set
  std::string dem;
  double defaultHeight = NAN;
  double leafSize = 256;   // metres, edge of a full-detail tile at most
  int terrainQuads = 0;    // terrain cells per tile edge; 0: 32, or the DEM's own spacing at full detail
  int zlibLevel = 1;       // deflate level of the tile files
  int threads = 0;         // 0: every core
  int shardIndex = 0, shardCount = 1;  // build tiles whose number % count == index
  bool force = false;      // rebuild tiles that are up to date
  bool sync = true;        // flush the cache's file system once the tiles are written
  int heightmapSize = 1024;  // pixels on the longer side; 0: none
};

struct LevelCounts {
  std::int64_t written = 0, null = 0, fresh = 0, buildings = 0, triangles = 0;
};

struct StageSeconds {
  double read = 0, prepare = 0, plan = 0, tiles = 0, heightmap = 0;
  // Inside the tile stage, summed over the workers' threads:
  double geometry = 0, textures = 0, dxt = 0, deflate = 0, write = 0;
};

struct BuildSummary {
  std::string source;  // what was read
  InputReport input;
  PrepareReport prepare;
  ModelSettings settings;
  CityDescription description;
  std::vector<LevelCounts> levels;
  std::int64_t tilesPlanned = 0, tilesInShard = 0;
  std::int64_t buildingsInput = 0;
  std::int64_t triangles = 0, sffBytes = 0, ddsBytes = 0, atlases = 0;
  StageSeconds seconds;
  double totalSeconds = 0;
  int threads = 1;
  std::string heightmap;  // the PNG's path; empty when none was drawn
  bool interrupted = false;
};

// Runs every stage under `root` (progress of each stage and tile become its
// children). Throws InputError, DemError or std::runtime_error for input it
// cannot use, kel::wexception for I/O failures; on Ctrl-C (root
// interrupted) it stops within a tile and returns with `interrupted` set.
// Every tile on disk is complete whatever happens.
BuildSummary BuildCity(const BuildOptions& options, kel::Progress& root);

// The summary as the tool prints it.
std::string FormatSummary(const BuildSummary& s);

// One line naming every parameter the tiles depend on; a change makes every
// tile stale.
std::wstring ParameterLine(const BuildOptions& options);

}  // namespace city
