#include "city/pick.h"

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <thread>

#include "city/model.h"
#include "png_writer.h"

namespace city {
namespace {

// Which node each triangle of a tile came from, in the order SFF2BVH puts
// triangles into its soup: meshes in file order, each its index array.
class NodeMap final : public kel::sff_read_callback {
public:
  struct Run {
    std::uint32_t firstTriangle;
    std::int64_t id;
    bool ground;
  };
  std::vector<Run> runs;

  void beginB(std::uint64_t id) override { group_ = id; }
  void beginC(std::uint64_t id) override { id_ = std::int64_t(id); }
  void integers(const std::uint64_t*, std::size_t count) override {
    runs.push_back({triangles_, id_, group_ == 1});
    triangles_ += std::uint32_t(count / 3);
  }

  const Run* find(std::uint32_t triangle) const {
    auto it = std::upper_bound(runs.begin(), runs.end(), triangle,
                               [](std::uint32_t t, const Run& r) { return t < r.firstTriangle; });
    return it == runs.begin() ? nullptr : &*(it - 1);
  }

private:
  std::uint64_t group_ = 0;
  std::int64_t id_ = 0;
  std::uint32_t triangles_ = 0;
};

bool ReadAll(const std::string& path, std::string& out) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return false;
  out.assign(std::istreambuf_iterator<char>(f), {});
  return true;
}

}  // namespace

struct CityCache::Tile {
  bool present = false;
  std::unique_ptr<kel::SFF2BVH> tree;  // null for null tiles and tiles without triangles
  NodeMap nodes;
};

CityCache::CityCache(const std::string& root) : root_(root) {
  std::string error;
  if (!ReadDescription(root, description_, error)) throw std::runtime_error(error);
  if (!ReadModelSettings(root, settings_, error)) throw std::runtime_error(error);
  set_ = TileSetOf(description_);
}

std::string CityCache::tileFile(const kel::TileCoords& tile) const {
  std::wstring path;
  kel::TileCacheFileUtil::GetTileFile(path, kel::Utf8String2WString(root_), description_.name, tile);
  return kel::WString2Utf8String(path);
}

std::shared_ptr<CityCache::Tile> CityCache::readTile(const kel::TileCoords& tile) const {
  auto t = std::make_shared<Tile>();
  std::string bytes;
  t->present = ReadAll(tileFile(tile), bytes);
  if (t->present && !bytes.empty()) {
    kel::sff_buff_is source(bytes.data(), bytes.size());
    auto tree = std::make_unique<kel::SFF2BVH>(source);
    if (tree->valid()) {
      kel::sff_buff_is again(bytes.data(), bytes.size());
      try {
        kel::sff_reader().read(again, t->nodes);
        t->tree = std::move(tree);
      } catch (const kel::wexception&) {
        // Unreadable: SFF2BVH logged it already; the tile answers nothing.
      }
    }
  }
  return t;
}

std::shared_ptr<CityCache::Tile> CityCache::load(const kel::TileCoords& tile) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (auto it = tiles_.find(tile); it != tiles_.end()) return it->second;
  }
  auto t = readTile(tile);
  std::lock_guard<std::mutex> lock(mutex_);
  return tiles_.emplace(tile, t).first->second;
}

kel::TileCoords CityCache::leafTileAt(double x, double y) const {
  const int leaf = leafLevel();
  const kel::BBox<2, double> point(kel::Vec2d(x, y), kel::Vec2d(x, y));
  const kel::BBox<2, int> r = kel::TileSetInfo::GetIndexRange(
      std::uint64_t(leaf), kel::Vec2d(set_.origin.x(), set_.origin.y()), point, set_.tileSize);
  return kel::TileCoords(leaf, r.min.y(), r.min.x());
}

PickResult CityCache::pickIn(const Tile& tile, double x, double y) const {
  PickResult out;
  if (!tile.tree) return out;
  const double top = description_.extent.max.z() + 10;
  const kel::fdo::ray ray = kel::fdo::MakeRay(float(x), float(y), float(top), 0, 0, -1);
  kel::fdo::hit h{~0u, FLT_MAX};
  tile.tree->pick(h, ray);  // the pick index: watertight, so no ray slips between two roof triangles
  if (h.primitive == ~0u) return out;
  out.hit = true;
  out.triangle = h.primitive;
  out.height = double(ray.origin[2]) - double(h.t);
  if (const NodeMap::Run* run = tile.nodes.find(h.primitive)) {
    out.ground = run->ground;
    out.building = run->ground ? 0 : run->id;
  }
  return out;
}

PickResult CityCache::pick(double x, double y) {
  const kel::TileCoords tile = leafTileAt(x, y);
  // NaN, or a point beyond the 32-bit tile range, lands in no tile.
  if (!set_.getTileRegion(tile).contains(kel::Vec2d(x, y))) return PickResult{false, 0, false, 0, tile, 0};
  PickResult out = pickIn(*load(tile), x, y);
  out.tile = tile;
  return out;
}

PickResult CityCache::pick(double x, double y, const std::wstring& srs) {
  const auto from = kel::SRSCoordSys::Create(srs);
  if (!from) throw std::runtime_error("unknown coordinate system '" + kel::WString2Utf8String(srs) + "'");
  const auto model = kel::SRSCoordSys::Create(settings_.srs);
  if (!model) throw std::runtime_error("the cache's coordinate system '" + kel::WString2Utf8String(settings_.srs) +
                                       "' is unknown");
  kel::Vec2d p(x, y);
  if (!from->IsSameAs(model.get())) {
    const auto tf = kel::SRSTransform::Create(from, model);
    if (!tf || !tf->Transform(p) || !std::isfinite(p.x()) || !std::isfinite(p.y()))
      throw std::runtime_error("cannot transform the point to " + kel::WString2Utf8String(settings_.srs));
  }
  return pick(p.x() - settings_.offset.x(), p.y() - settings_.offset.y());
}

Heightmap PickHeightmap(CityCache& cache, int size, int threads, kel::Progress& progress, int level) {
  Heightmap map;
  const auto& e = cache.description().extent;
  map.region = kel::BBox<2, double>(kel::Vec2d(e.min.x(), e.min.y()), kel::Vec2d(e.max.x(), e.max.y()));
  const double w = e.max.x() - e.min.x(), h = e.max.y() - e.min.y();
  const double pixel = std::max(w, h) / size;
  map.width = std::max(1, int(std::lround(w / pixel)));
  map.height = std::max(1, int(std::lround(h / pixel)));
  map.z.assign(std::size_t(map.width) * map.height, NAN);
  map.kind.assign(map.z.size(), 0);

  // Pixels grouped by the tile under them, so each tile is read once.
  const kel::TileSetInfo& set = cache.tileSet();
  const int leaf = level >= 0 && level <= cache.leafLevel() ? level : cache.leafLevel();
  const double edge = set.tileSize / double(1 << leaf);
  std::map<std::pair<int, int>, std::vector<std::uint32_t>> byTile;
  for (int j = 0; j < map.height; ++j)
    for (int i = 0; i < map.width; ++i) {
      const double x = e.min.x() + (i + 0.5) * w / map.width, y = e.max.y() - (j + 0.5) * h / map.height;
      byTile[{int(std::floor((y - set.origin.y()) / edge)), int(std::floor((x - set.origin.x()) / edge))}].push_back(
          std::uint32_t(j * map.width + i));
    }
  std::vector<std::pair<std::pair<int, int>, std::vector<std::uint32_t>>> jobs(byTile.begin(), byTile.end());
  byTile.clear();

  std::atomic<std::size_t> next{0}, done{0};
  std::atomic<std::int64_t> hits{0};
  std::atomic<bool> stop{false};
  auto work = [&] {
    // A tile's tree is dropped once its pixels are done: memory stays at
    // what the threads hold, not the whole city.
    while (!stop.load()) {
      const std::size_t k = next++;
      if (k >= jobs.size()) return;
      const auto& [key, pixels] = jobs[k];
      const auto tile = cache.readTile(kel::TileCoords(leaf, key.first, key.second));
      for (std::uint32_t p : pixels) {
        const int i = int(p % std::uint32_t(map.width)), j = int(p / std::uint32_t(map.width));
        const double x = e.min.x() + (i + 0.5) * w / map.width, y = e.max.y() - (j + 0.5) * h / map.height;
        const PickResult r = cache.pickIn(*tile, x, y);
        if (!r.hit) continue;
        map.z[p] = float(r.height);
        map.kind[p] = r.ground ? 1 : 2;
        ++hits;
      }
      ++done;
    }
  };
  std::vector<std::thread> pool;
  for (int t = 1; t < std::max(1, threads); ++t) pool.emplace_back(work);
  std::thread self(work);
  while (done.load() < jobs.size()) {
    if (!progress.updateValue(std::int64_t(done.load()) * progress.totalValue() / std::int64_t(std::max<std::size_t>(jobs.size(), 1)))) {
      stop = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  self.join();
  for (auto& t : pool) t.join();
  if (stop.load()) throw Interrupted();
  progress.updateValue(progress.totalValue());
  map.hits = hits.load();
  return map;
}

void WriteHeightmapPng(const Heightmap& map, const std::string& path) {
  float groundLo = FLT_MAX, groundHi = -FLT_MAX, roofHi = -FLT_MAX;
  for (std::size_t i = 0; i < map.z.size(); ++i) {
    if (map.kind[i] == 1) groundLo = std::min(groundLo, map.z[i]), groundHi = std::max(groundHi, map.z[i]);
    if (map.kind[i] == 2) roofHi = std::max(roofHi, map.z[i]);
  }
  if (groundLo > groundHi) groundLo = groundHi = 0;
  const double cell = (map.region.max.x() - map.region.min.x()) / map.width;
  auto at = [&](int i, int j, float fallback) {
    if (i < 0 || j < 0 || i >= map.width || j >= map.height) return fallback;
    const float z = map.z[std::size_t(j) * map.width + i];
    return std::isnan(z) ? fallback : z;
  };
  std::vector<std::uint8_t> rgba(map.z.size() * 4, 0);
  for (int j = 0; j < map.height; ++j)
    for (int i = 0; i < map.width; ++i) {
      const std::size_t k = std::size_t(j) * map.width + i;
      if (map.kind[k] == 0) continue;
      const float z = map.z[k];
      // Light from the north-west (row 0 is north).
      const double dzdx = (at(i + 1, j, z) - at(i - 1, j, z)) / (2 * cell);
      const double dzdy = (at(i, j - 1, z) - at(i, j + 1, z)) / (2 * cell);
      const double shade = std::clamp(0.8 + 0.45 * (-dzdx + dzdy) / std::sqrt(1 + dzdx * dzdx + dzdy * dzdy), 0.25, 1.15);
      double r, g, b;
      if (map.kind[k] == 1) {
        const double t = groundHi > groundLo ? (z - groundLo) / (groundHi - groundLo) : 0.5;
        r = 95 + 95 * t, g = 140 + 30 * t, b = 80 + 20 * t;  // valley green to upland ochre
      } else {
        // Roofs from brick red (low) to pale grey (the tallest towers).
        const double t = roofHi > groundLo ? std::clamp(double(z - groundLo) / double(roofHi - groundLo), 0.0, 1.0) : 0.5;
        const double k = std::sqrt(t);
        r = 205 + 40 * k, g = 110 + 135 * k, b = 90 + 160 * k;
      }
      std::uint8_t* px = &rgba[k * 4];
      px[0] = std::uint8_t(std::clamp(r * shade, 0.0, 255.0));
      px[1] = std::uint8_t(std::clamp(g * shade, 0.0, 255.0));
      px[2] = std::uint8_t(std::clamp(b * shade, 0.0, 255.0));
      px[3] = 255;
    }
  cli::WritePng(path, rgba.data(), std::uint32_t(map.width), std::uint32_t(map.height), std::size_t(map.width) * 4, 4);
}

}  // namespace city
