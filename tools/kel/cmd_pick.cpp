// kel pick / kel bvh: ray picking on tile files and a look at their trees.
#include <algorithm>
#include <chrono>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "commands.h"
#include "options.h"
#include "png_writer.h"
#include "progress_view.h"

namespace {

struct LoadedTile {
  std::unique_ptr<kel::SFF2BVH> tile;
  double seconds = 0;
};

LoadedTile LoadTile(const std::string& path) {
  const auto start = std::chrono::steady_clock::now();
  LoadedTile loaded;
  {
    tool::Task task(L"read " + kel::Utf8String2WString(std::filesystem::path(path).filename().string()), 1);
    loaded.tile = std::make_unique<kel::SFF2BVH>(kel::Utf8String2WString(path));
    task.step(1);
  }
  loaded.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!loaded.tile->valid())
    throw kel::wexception(L"cannot read tile or it holds no triangles: " + kel::Utf8String2WString(path));
  return loaded;
}

kel::fdo::ray MakeRay(double ox, double oy, double oz, double dx, double dy, double dz) {
  return kel::fdo::MakeRay(float(ox), float(oy), float(oz), float(dx), float(dy), float(dz));
}

struct PickResult {
  bool hit = false;
  std::uint32_t triangle = 0;
  float t = 0, u = 0, v = 0;
};

// Through the pick index: watertight, and the fast path.
PickResult Shoot(const kel::SFF2BVH& tile, const kel::fdo::ray& r) {
  kel::fdo::hit h{~0u, FLT_MAX};
  float uv[2] = {};
  tile.pick(h, r, uv);
  PickResult out;
  if (h.primitive == ~0u) return out;
  out.hit = true;
  out.triangle = h.primitive;
  out.t = h.t;
  out.u = uv[0];
  out.v = uv[1];
  return out;
}

int WriteHeightmap(const kel::SFF2BVH& tile, const std::string& path, long long size) {
  const kel::fdo::node& root = tile.getBVH()->getNodes()[0];
  const auto n = std::uint32_t(size);
  std::vector<float> heights(std::size_t(n) * n, NAN);
  const double w = double(root.maxX) - root.minX, h = double(root.maxY) - root.minY;
  const double top = double(root.maxZ) + 1.0 + std::fabs(root.maxZ) * 1e-3;
  {
    // A row of rays per batch call: the pick index spreads it over threads.
    tool::Task task(L"heightmap " + kel::Utf8String2WString(std::filesystem::path(path).filename().string()), n);
    std::vector<kel::fdo::ray> rays(n);
    std::vector<kel::fdo::hit> hits(n);
    for (std::uint32_t j = 0; j < n; ++j) {
      for (std::uint32_t i = 0; i < n; ++i) {
        const double x = root.minX + (i + 0.5) / n * w, y = root.maxY - (j + 0.5) / n * h;
        rays[i] = MakeRay(x, y, top, 0, 0, -1);
        hits[i] = kel::fdo::hit{~0u, FLT_MAX};
      }
      tile.pick(hits.data(), rays.data(), n);
      for (std::uint32_t i = 0; i < n; ++i)
        if (hits[i].primitive != ~0u) heights[std::size_t(j) * n + i] = rays[i].origin[2] - hits[i].t;
      task.step(j + 1);
    }
  }

  float lo = FLT_MAX, hi = -FLT_MAX;
  for (float z : heights)
    if (!std::isnan(z)) lo = std::min(lo, z), hi = std::max(hi, z);
  // Height as brightness, shaded by a light from the north-west so relief reads.
  const double cell = std::max(w, h) / n;
  const double range = hi > lo ? hi - lo : 1.0;
  std::vector<std::uint8_t> rgba(std::size_t(n) * n * 4, 0);
  auto at = [&](std::int64_t i, std::int64_t j, float fallback) {
    if (i < 0 || j < 0 || i >= n || j >= n) return fallback;
    const float z = heights[std::size_t(j) * n + std::size_t(i)];
    return std::isnan(z) ? fallback : z;
  };
  std::size_t hits = 0;
  for (std::uint32_t j = 0; j < n; ++j)
    for (std::uint32_t i = 0; i < n; ++i) {
      const float z = heights[std::size_t(j) * n + i];
      if (std::isnan(z)) continue;
      ++hits;
      const double dzdx = (at(i + 1, j, z) - at(std::int64_t(i) - 1, j, z)) / (2 * cell);
      const double dzdy = (at(i, std::int64_t(j) - 1, z) - at(i, j + 1, z)) / (2 * cell);
      const double shade = std::clamp(0.75 + 0.5 * (-dzdx + dzdy) / std::sqrt(1 + dzdx * dzdx + dzdy * dzdy), 0.2, 1.0);
      const double level = 0.25 + 0.75 * (z - lo) / range;
      const auto g = std::uint8_t(std::clamp(255.0 * level * shade, 0.0, 255.0));
      std::uint8_t* px = &rgba[(std::size_t(j) * n + i) * 4];
      px[0] = px[1] = px[2] = g;
      px[3] = 255;
    }
  cli::WritePng(path, rgba.data(), n, n, std::size_t(n) * 4, 4);
  std::printf("wrote %s: %u x %u, %zu of %zu rays hit, heights %g .. %g\n", path.c_str(), n, n, hits,
              std::size_t(n) * n, hits ? double(lo) : 0.0, hits ? double(hi) : 0.0);
  return 0;
}

struct PickArgs {
  std::string tile;
  std::vector<double> xy;
  std::vector<double> ray;
  std::string heightmap;
  std::int64_t size = 512;
  bool sizeGiven = false;
};

int RunPick(const PickArgs& a) {
  const bool ray = !a.ray.empty(), heightmap = !a.heightmap.empty();
  if (ray && heightmap) throw tool::UsageError("--ray and --heightmap exclude each other");
  if (a.sizeGiven && !heightmap) throw tool::UsageError("--size goes with --heightmap");
  if ((ray || heightmap) && !a.xy.empty()) throw tool::UsageError("X Y go without --ray and --heightmap");
  if (!ray && !heightmap && a.xy.size() != 2) throw tool::UsageError("need X and Y; see 'kel pick --help'");
  if (ray && a.ray[3] == 0 && a.ray[4] == 0 && a.ray[5] == 0)
    throw tool::UsageError("--ray needs a non-zero direction");
  const std::vector<double>& r = a.ray;
  const double x = ray || heightmap ? 0.0 : a.xy[0], y = ray || heightmap ? 0.0 : a.xy[1];
  const long long size = a.size;

  const LoadedTile loaded = LoadTile(a.tile);
  const kel::SFF2BVH& tile = *loaded.tile;
  if (heightmap) return WriteHeightmap(tile, a.heightmap, size);

  const kel::fdo::node& root = tile.getBVH()->getNodes()[0];
  const kel::fdo::ray shot = ray ? MakeRay(r[0], r[1], r[2], r[3], r[4], r[5])
                                 : MakeRay(x, y, double(root.maxZ) + 1.0 + std::fabs(root.maxZ) * 1e-3, 0, 0, -1);
  const PickResult p = Shoot(tile, shot);
  if (!p.hit) {
    std::puts("no hit");
    return 0;
  }
  const double hx = shot.origin[0] + double(p.t) * shot.direction[0];
  const double hy = shot.origin[1] + double(p.t) * shot.direction[1];
  const double hz = shot.origin[2] + double(p.t) * shot.direction[2];
  if (!ray) std::printf("height    %.4f\n", hz);
  std::printf("t         %.6g\n", double(p.t));
  std::printf("point     %.4f, %.4f, %.4f\n", hx, hy, hz);
  std::printf("triangle  %u (u %.4f, v %.4f)\n", p.triangle, double(p.u), double(p.v));
  return 0;
}

int RunInfo(const std::string& path) {
  const LoadedTile loaded = LoadTile(path);
  const kel::fdo::bvh& tree = *loaded.tile->getBVH();
  const kel::fdo::node* nodes = tree.getNodes();
  std::map<int, long long> leafSizes;
  int depth = 0, leaves = 0;
  std::vector<std::pair<int, int>> stack{{0, 0}};
  while (!stack.empty()) {
    const auto [i, d] = stack.back();
    stack.pop_back();
    depth = std::max(depth, d);
    if (nodes[i].count > 0) {
      ++leafSizes[nodes[i].count];
      ++leaves;
    } else {
      stack.push_back({nodes[i].first, d + 1});
      stack.push_back({nodes[i].first + 1, d + 1});
    }
  }
  const kel::SFF2BVH::timings& time = loaded.tile->getTimings();
  const kel::fdo::pick_index& index = *loaded.tile->getPickIndex();
  const kel::fdo::pick_index::stats& st = index.getStats();
  const double mb = 1.0 / (1024.0 * 1024.0);
  const double treeBytes = 32.0 * tree.getNodeCapacity() + 4.0 * tree.getPrimitiveCount();
  std::printf("triangles   %d\n", tree.getPrimitiveCount());
  const auto& root = nodes[0];
  std::printf("box         %g, %g, %g : %g, %g, %g\n", double(root.minX), double(root.minY), double(root.minZ),
              double(root.maxX), double(root.maxY), double(root.maxZ));
  std::printf("read        %.3f s\n", time.read);
  std::puts("exact tree (stored format):");
  std::printf("  nodes     %d (%d leaves, capacity %d), depth %d\n", tree.getNodeCount(), leaves,
              tree.getNodeCapacity(), depth);
  std::printf("  memory    %.2f MiB\n", treeBytes * mb);
  std::printf("  build     %.3f s\n", time.tree);
  std::puts("  leaf sizes:");
  for (const auto& [sz, count] : leafSizes) std::printf("    %4d: %lld\n", sz, count);
  std::puts("pick index (queries):");
  std::printf("  nodes     %d wide, %d leaves, %d packets\n", st.nodes, st.leaves, st.packets);
  std::printf("  columns   %d cells, %zu entries\n", st.columns, st.columnEntries);
  std::printf("  memory    %.2f MiB (nodes %.2f, packets %.2f, columns %.2f)\n", double(st.bytes()) * mb,
              double(st.nodeBytes) * mb, double(st.packetBytes) * mb, double(st.columnBytes) * mb);
  std::printf("  build     %.3f s\n", time.index);
  std::printf("  kernel    %s\n", kel::fdo::pick_index::kernelName(index.kernel()));
  return 0;
}

double ParseCoordinate(const std::string& word, const char* name) {
  try {
    return tool::ParseDouble(word, name);
  } catch (const tool::UsageError& e) {
    throw CLI::ValidationError(e.what());
  }
}

}  // namespace

void AddPickCommands(CLI::App& app) {
  auto a = std::make_shared<PickArgs>();
  CLI::App* cmd = tool::AddCommand(
      app, "pick", "heights and ray hits on a tile file (kel pick TILE X Y)",
      "Reads an SFF tile file (plain or compressed) into a triangle tree and shoots rays at it:\n"
      "  kel pick TILE X Y    height under the point: a ray straight down from above the\n"
      "                       tile's box; prints the height, the distance and the triangle\n"
      "                       hit (with u, v)\n"
      "  kel pick TILE --ray OX,OY,OZ,DX,DY,DZ\n"
      "                       any ray (the direction need not be of unit length); prints\n"
      "                       the distance t in the model's units, the hit point and the\n"
      "                       triangle\n"
      "  kel pick TILE --heightmap OUT.png [--size N]\n"
      "                       an N x N grid of vertical rays over the tile's box, written as\n"
      "                       a shaded grey PNG seen from above, north up; pixels without a\n"
      "                       hit are transparent\n"
      "Rays go through the tile's pick index, whose triangle test lets no ray slip\n"
      "between two triangles that share an edge.\n"
      "Exit code 1 when the tile cannot be read or holds no triangles.",
      [a] { return RunPick(*a); });
  cmd->add_option("TILE", a->tile, "SFF tile file")->required();
  // X and Y are optional because --ray and --heightmap go without them.
  for (const char* name : {"X", "Y"})
    cmd->add_option_function<std::string>(
           name, [a, name](const std::string& w) { a->xy.push_back(ParseCoordinate(w, name)); },
           std::string(name) + " of the point to pick under")
        ->type_name("NUMBER");
  tool::AddNumbers(*cmd, "--ray", a->ray, 6, "a ray OX,OY,OZ,DX,DY,DZ")->type_name("OX,OY,OZ,DX,DY,DZ");
  cmd->add_option("--heightmap", a->heightmap, "PNG file for a heightmap of the tile")->type_name("OUT.png");
  tool::AddInt(*cmd, "--size", a->size, 1, 16384, "heightmap edge in pixels (default 512)")
      ->each([a](const std::string&) { a->sizeGiven = true; });

  CLI::App* group = tool::AddGroup(app, "bvh", "the triangle tree of a tile file");
  auto tile = std::make_shared<std::string>();
  cmd = tool::AddCommand(*group, "info", "sizes and build times of a tile's tree and pick index",
                         "Reads an SFF tile file and prints its two structures: the exact tree (node\n"
                         "count, depth, leaf size histogram, memory, build time) and the pick index\n"
                         "that answers picks (wide nodes, packets, columns, memory, build time, the\n"
                         "processor kernel it uses), with the triangle count, the root box and the\n"
                         "time to read the file.",
                         [tile] { return RunInfo(*tile); });
  cmd->add_option("TILE", *tile, "SFF tile file")->required();
}
