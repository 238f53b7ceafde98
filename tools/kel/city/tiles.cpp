#include "city/tiles.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>

#include "city/clock.h"

namespace city {
namespace {

namespace fs = std::filesystem;
// Thread CPU time: shares that hold on a busy machine.
struct Clock {
  using time_point = double;
  static double now() { return ThreadSeconds(); }
};
double Since(double t) { return ThreadSeconds() - t; }

constexpr std::uint64_t kFacadeMaterial = 1, kGroundMaterial = 2;
constexpr std::uint64_t kTerrainGroup = 1, kBuildingGroup = 2;

std::wstring Wide(const std::string& s) { return kel::Utf8String2WString(s); }
std::string Narrow(const std::wstring& s) { return kel::WString2Utf8String(s); }

std::wstring LevelRowColumn(const kel::TileCoords& t) {
  std::wstring s;
  kel::TileCacheFileUtil::GetLevelRowColumnName(s, t, L'_');
  return s;
}

// A material as 16 little-endian floats: diffuse RGBA, ambient RGBA,
// specular RGBA, shininess, texture channel (-1: none), two reserved.
void MaterialBlock(const float (&values)[16], std::uint8_t (&out)[64]) {
  for (int i = 0; i < 16; ++i) {
    std::uint32_t bits;
    std::memcpy(&bits, &values[i], 4);
    for (int b = 0; b < 4; ++b) out[4 * i + b] = std::uint8_t(bits >> (8 * b));
  }
}

struct CutBuilding {
  std::uint32_t index;
  std::vector<Polygon> parts;
  bool cut;
};

}  // namespace

struct TileScratch {
  Mesh mesh;
  std::vector<std::uint32_t> triangles;
  std::vector<CutBuilding> buildings;
  kel::GeometryBuffer geometry{0, kel::FdoDimensionality_XY, false};
  kel::LineBuffer generalized;
  kel::sff_buff_os records, compressed;
  std::vector<unsigned char> dds;
};

void TileScratchDeleter::operator()(TileScratch* s) const { delete s; }
std::unique_ptr<TileScratch, TileScratchDeleter> MakeTileScratch() {
  return std::unique_ptr<TileScratch, TileScratchDeleter>(new TileScratch);
}

namespace {

void Draw(const Polygon& p, kel::GeometryBuffer& g) {
  g.Reset(kel::FdoDimensionality_XY, false);
  g.SetGeometryType(kel::FdoGeometryType_Polygon);
  for (const Ring& r : p.rings) {
    for (std::size_t i = 0; i < r.size(); ++i) i ? g.LineTo(r[i].x(), r[i].y()) : g.MoveTo(r[i].x(), r[i].y());
    g.Close();
  }
}

// Polygons of a buffer's polygon geometries, rings cleaned and oriented.
void Collect(const kel::LineBuffer& b, int firstGeometry, int geometries, std::vector<Polygon>& out) {
  for (int k = firstGeometry; k < firstGeometry + geometries; ++k) {
    Polygon p;
    const int first = b.geometryFirstContour(k);
    for (int c = first; c < first + b.geometryContourCount(k); ++c) {
      Ring ring;
      for (int i = b.contourStart(c); i <= b.contourEnd(c); ++i) ring.emplace_back(b.x(i), b.y(i));
      DropRepeats(ring);
      if (ring.size() >= 3 && SignedArea2(ring) != 0) p.rings.push_back(std::move(ring));
      else if (c == first) break;
    }
    if (p.rings.empty()) continue;
    Orient(p);
    out.push_back(std::move(p));
  }
}

// Douglas-Peucker on every ring; a ring that would fold or vanish keeps its
// full outline (holes that vanish are dropped: they are below the level's
// detail anyway).
Polygon Generalized(const Polygon& p, double tolerance, TileScratch& s) {
  Draw(p, s.geometry);
  s.generalized.Reset(kel::FdoDimensionality_XY, false);
  if (!s.geometry.Generalize(&s.generalized, tolerance) || s.generalized.contourCount() != int(p.rings.size()))
    return p;
  Polygon out;
  for (int c = 0; c < s.generalized.contourCount(); ++c) {
    Ring ring;
    for (int i = s.generalized.contourStart(c); i <= s.generalized.contourEnd(c); ++i)
      ring.emplace_back(s.generalized.x(i), s.generalized.y(i));
    DropRepeats(ring);
    // Long outlines are trusted (IsSimple is quadratic); the roof's
    // triangulation falls back to GEOS should one fold.
    const bool ok = ring.size() >= 3 && (ring.size() > 256 || IsSimple(ring)) && SignedArea2(ring) != 0;
    if (c == 0) out.rings.push_back(ok ? std::move(ring) : p.rings[0]);
    else if (ok) out.rings.push_back(std::move(ring));
  }
  Orient(out);
  return out;
}

bool Inside(const BBox<2, double>& inner, const BBox<2, double>& outer) {
  return inner.min.x() >= outer.min.x() && inner.min.y() >= outer.min.y() && inner.max.x() <= outer.max.x() &&
         inner.max.y() <= outer.max.y();
}

// The content of the tile: the buildings' parts as they appear in it.
void CutBuildings(const TileContext& ctx, const kel::TileCoords& tile, const BBox<2, double>& region,
                  TileScratch& s, kel::Progress& progress) {
  const int level = tile.level;
  const double tolerance = GeneralizeTolerance(ctx.plan, level);
  s.buildings.clear();
  std::size_t n = 0;
  for (const std::uint32_t i : ctx.index.candidates(tile)) {
    if (++n % 64 == 0 && (!progress.updateValue(std::int64_t(n) / 2) || (ctx.stop && ctx.stop->isInterrupted())))
      throw Interrupted();
    const Building& b = ctx.city.buildings[i];
    CutBuilding cb{i, {}, false};
    for (const Polygon& p : b.parts) cb.parts.push_back(tolerance > 0 ? Generalized(p, tolerance, s) : p);
    if (!Inside(b.box, region)) {
      std::vector<Polygon> clipped;
      for (const Polygon& p : cb.parts) {
        auto g = std::make_shared<kel::GeometryBuffer>(0, kel::FdoDimensionality_XY, false);
        Draw(p, *g);
        const auto result = kel::GeometryBuffer::ClipPoly(g, region);
        if (result) Collect(*result, 0, result->geometryCount(), clipped);
      }
      cb.parts = std::move(clipped);
      cb.cut = true;
    }
    if (!cb.parts.empty()) s.buildings.push_back(std::move(cb));
  }
}

}  // namespace

TilePlan PlanTiles(const PreparedCity& city, double leafSize) {
  TilePlan plan;
  const BBox<2, double>& e = city.extent;
  CityDescription& d = plan.description;
  d.origin = kel::Vec3d(std::floor(e.min.x()), std::floor(e.min.y()), 0);
  const double span = std::max(e.max.x() - d.origin.x(), e.max.y() - d.origin.y());
  int leaf = 0;
  double size = leafSize;
  while (size < span && leaf < 24) size *= 2, ++leaf;
  d.tileSize = size;
  d.levels = leaf + 1;
  d.extent = BBox<3, double>(kel::Vec3d(e.min.x(), e.min.y(), city.minZ), kel::Vec3d(e.max.x(), e.max.y(), city.maxZ));
  d.buildings = std::int64_t(city.buildings.size());
  plan.leafLevel = leaf;
  plan.set = TileSetOf(d);
  for (int level = 0; level <= leaf; ++level) {
    const kel::BBox<2, int> r = plan.set.GetIndexRange(std::uint64_t(level));
    for (int row = r.min.y(); row <= r.max.y(); ++row)
      for (int column = r.min.x(); column <= r.max.x(); ++column) plan.tiles.emplace_back(level, row, column);
  }
  return plan;
}

double MinimumArea(const TilePlan& plan, int level) {
  if (level >= plan.leafLevel) return 0;
  const double edge = plan.description.tileSize / double(1 << level);
  return (edge / 160) * (edge / 160);
}

double GeneralizeTolerance(const TilePlan& plan, int level) {
  if (level >= plan.leafLevel) return 0;
  return plan.description.tileSize / double(1 << level) / 1024;
}

TileIndex::TileIndex(const TilePlan& plan, const std::vector<Building>& buildings) {
  const kel::Vec2d origin(plan.description.origin.x(), plan.description.origin.y());
  levels_.resize(std::size_t(plan.leafLevel + 1));
  for (int level = 0; level <= plan.leafLevel; ++level) {
    const kel::BBox<2, int> range = plan.set.GetIndexRange(std::uint64_t(level));
    const double minArea = MinimumArea(plan, level);
    auto& cells = levels_[std::size_t(level)];
    for (std::uint32_t i = 0; i < buildings.size(); ++i) {
      const Building& b = buildings[i];
      if (b.area < minArea) continue;
      const kel::BBox<2, int> r =
          kel::TileSetInfo::GetIndexRange(std::uint64_t(level), origin, b.box, plan.description.tileSize);
      for (int row = std::max(r.min.y(), range.min.y()); row <= std::min(r.max.y(), range.max.y()); ++row)
        for (int col = std::max(r.min.x(), range.min.x()); col <= std::min(r.max.x(), range.max.x()); ++col)
          cells[Key(row, col)].push_back(i);
    }
  }
}

const std::vector<std::uint32_t>& TileIndex::candidates(const kel::TileCoords& t) const {
  if (t.level < 0 || std::size_t(t.level) >= levels_.size()) return none_;
  const auto& cells = levels_[std::size_t(t.level)];
  const auto it = cells.find(Key(t.row, t.column));
  return it == cells.end() ? none_ : it->second;
}

std::string TilePath(const std::string& root, const std::wstring& name, const kel::TileCoords& tile) {
  std::wstring path;
  kel::TileCacheFileUtil::GetTileFile(path, Wide(root), name, tile);
  return Narrow(path);
}

std::string TilePath(const TileContext& ctx, const kel::TileCoords& tile) {
  return TilePath(ctx.root, ctx.plan.description.name, tile);
}

std::string AtlasFolder(const std::string& root, const kel::TileCoords& tile) {
  return Narrow(kel::File::ConcatPaths(kel::File::ConcatPaths(Wide(root), kel::TileCacheFileUtil::GetAtlasFolderName()),
                                       LevelRowColumn(tile)));
}

void WriteMeshNode(kel::sff_writer& w, std::uint64_t id, std::uint64_t material, const Mesh& m) {
  w.beginC(id);
  w.writeReference(material);
  w.writePositions(m.positions.data(), m.vertexCount());
  w.writeNormals(m.normals.data(), m.vertexCount());
  if (!m.atlas.empty()) w.writeArray24(m.atlas.data(), m.vertexCount());
  w.writeIntegers(m.indices.data(), m.indices.size());
  w.end();
}

TileStats BuildTile(const TileContext& ctx, const kel::TileCoords& tile, TileScratch& s) {
  TileStats stats;
  const std::string path = TilePath(ctx, tile);
  const std::wstring wpath = Wide(path);
  if (!ctx.force && kel::TileCacheFileUtil::GetSffFileState(wpath.c_str()) != kel::TileCacheFileUtil::SffMissing &&
      std::all_of(ctx.inputs.begin(), ctx.inputs.end(), [&](const std::wstring& input) {
        return kel::TileCacheFileUtil::CacheFolderUtil::CacheFileUsable(input, wpath);
      })) {
    stats.outcome = TileStats::Outcome::Fresh;
    return stats;
  }

  auto t0 = Clock::now();
  const BBox<2, double> region = ctx.plan.set.getTileRegion(tile);
  const auto& candidates = ctx.index.candidates(tile);
  kel::Progress progress(L"tile " + LevelRowColumn(tile), std::int64_t(candidates.size()) + 1);
  CutBuildings(ctx, tile, region, s, progress);

  // Terrain over the part of the tile inside the city's extent, at the same
  // spacing in every tile of the level, so neighbours meet vertex to vertex.
  Mesh terrain;
  if (ctx.city.terrain) {
    const BBox<2, double>& e = ctx.city.extent;
    const BBox<2, double> patch(kel::Vec2d(std::max(region.min.x(), e.min.x()), std::max(region.min.y(), e.min.y())),
                                kel::Vec2d(std::min(region.max.x(), e.max.x()), std::min(region.max.y(), e.max.y())));
    if (patch.min.x() < patch.max.x() && patch.min.y() < patch.max.y()) {
      const double edge = region.max.x() - region.min.x();
      const int qx = std::max(1, int(std::ceil(ctx.terrainQuads * (patch.max.x() - patch.min.x()) / edge - 1e-9)));
      const int qy = std::max(1, int(std::ceil(ctx.terrainQuads * (patch.max.y() - patch.min.y()) / edge - 1e-9)));
      // The last column and row end on the patch's edge (narrower when the extent cuts them).
      const BBox<2, double> grid(patch.min, kel::Vec2d(std::min(patch.min.x() + qx * edge / ctx.terrainQuads, patch.max.x()),
                                                       std::min(patch.min.y() + qy * edge / ctx.terrainQuads, patch.max.y())));
      TerrainPatch(*ctx.city.terrain, grid, qx, qy, terrain);
    }
  }
  if (s.buildings.empty() && terrain.empty()) {
    stats.geometrySeconds = Since(t0);
    t0 = Clock::now();
    fs::create_directories(fs::path(path).parent_path());
    kel::AtomicFile null(path);  // zero bytes: computed, holds nothing
    null.commit(kel::AtomicFile::Sync::Unsynced);
    stats.writeSeconds = Since(t0);
    stats.outcome = TileStats::Outcome::Null;
    return stats;
  }

  // The atlas: the styles of this tile's buildings, at a resolution for its level.
  std::vector<int> styles;
  for (const CutBuilding& b : s.buildings) styles.push_back(ctx.city.buildings[b.index].style);
  const int levelsUp = ctx.plan.leafLevel - tile.level;
  const AtlasLayout layout(styles, levelsUp == 0 ? 128 : levelsUp == 1 ? 64 : 32);
  const std::wstring atlasName = kel::TileCacheFileUtil::GetSharedAtlasFileName(0);
  const std::wstring atlasPath =
      kel::File::ConcatPaths(kel::File::ConcatPaths(kel::TileCacheFileUtil::GetAtlasFolderName(), LevelRowColumn(tile)),
                             atlasName);

  // Records into memory, uncompressed: deflate runs once over the whole tile below.
  s.records.bytes().clear();
  {
    kel::sff_writer w(s.records, false);
    w.beginAt();
    w.beginA();
    std::uint8_t block[64];
    if (!s.buildings.empty()) {
      MaterialBlock({1, 1, 1, 1, 0.3f, 0.3f, 0.3f, 1, 0.1f, 0.1f, 0.1f, 1, 8, 0, 0, 0}, block);
      w.writeElement(kFacadeMaterial, block, Narrow(atlasPath).c_str(), true);
    }
    if (!terrain.empty()) {
      MaterialBlock({0.45f, 0.55f, 0.3f, 1, 0.2f, 0.25f, 0.15f, 1, 0, 0, 0, 1, 1, -1, 0, 0}, block);
      w.writeElement(kGroundMaterial, block, "ground", true);
    }
    w.end();
    if (!terrain.empty()) {
      w.beginB(kTerrainGroup);
      WriteMeshNode(w, 0, kGroundMaterial, terrain);
      w.end();
      stats.triangles += std::int64_t(terrain.triangleCount());
    }
    if (!s.buildings.empty()) {
      w.beginB(kBuildingGroup);
      std::size_t n = 0;
      for (const CutBuilding& cb : s.buildings) {
        if (++n % 64 == 0 && (!progress.updateValue(std::int64_t((candidates.size() + n) / 2)) ||
                              (ctx.stop && ctx.stop->isInterrupted())))
          throw Interrupted();
        const Building& b = ctx.city.buildings[cb.index];
        const BuildingStyle& look = Styles()[b.style];
        Extrusion shape;
        shape.base = b.base;
        shape.height = b.height;
        // Gables only where a roof's shape still shows.
        shape.roof = levelsUp <= 1 ? b.roof : RoofShape::Flat;
        shape.cut = cb.cut ? &region : nullptr;
        s.mesh.clear();
        Extrude(cb.parts, shape, SurfaceOf(look, layout.facade(b.style), layout.roof(b.style)), s.mesh, s.triangles);
        if (s.mesh.empty()) continue;
        WriteMeshNode(w, std::uint64_t(b.id), kFacadeMaterial, s.mesh);
        stats.triangles += std::int64_t(s.mesh.triangleCount());
        ++stats.buildings;
      }
      w.end();
    }
    w.end();
  }
  stats.geometrySeconds = Since(t0);

  if (!s.buildings.empty()) {
    const EncodedAtlas atlas = EncodeAtlas(layout, ctx.textures);
    stats.textureSeconds = atlas.drawSeconds;
    stats.dxtSeconds = atlas.dxtSeconds;
    t0 = Clock::now();
    const std::string folder = AtlasFolder(ctx.root, tile);
    fs::create_directories(folder);
    kel::DDSFileUtil::SaveTextureToMemory(s.dds, atlas.image);
    kel::AtomicFile dds(folder + "/" + Narrow(atlasName));
    dds.write(s.dds.data(), s.dds.size());
    dds.commit(kel::AtomicFile::Sync::Unsynced);
    WriteAtlasInfo(Wide(folder) + L"/" + kel::TileCacheFileUtil::GetAtlasInfoFileName(), atlasName, layout,
                   *atlas.image);
    stats.ddsBytes = std::int64_t(s.dds.size());
    stats.writeSeconds += Since(t0);
  }
  if ((ctx.stop && ctx.stop->isInterrupted()) || !progress.updateValue(progress.totalValue())) throw Interrupted();

  // The tile itself last: on disk it means "done", atlas included.
  t0 = Clock::now();
  s.compressed.bytes().clear();
  s.compressed.write("SFZ0", 4);
  {
    kel::deflating_output_stream z(s.compressed, ctx.zlibLevel);
    const auto& bytes = s.records.bytes();
    z.write(bytes.data() + 4, bytes.size() - 4);  // past the plain writer's "SFF0"
    z.finish();
  }
  stats.deflateSeconds = Since(t0);
  t0 = Clock::now();
  fs::create_directories(fs::path(path).parent_path());
  kel::AtomicFile file(path);
  file.write(s.compressed.bytes().data(), s.compressed.bytes().size());
  file.commit(kel::AtomicFile::Sync::Unsynced);
  stats.sffBytes = std::int64_t(s.compressed.bytes().size());
  stats.writeSeconds += Since(t0);
  return stats;
}

}  // namespace city
