#include "city/procedural.h"

#include <algorithm>
#include <cmath>

namespace city {
namespace {

constexpr double kEarthRadius = 6371000.0;
constexpr double kPi = 3.14159265358979323846;
constexpr double kDistrict = 900.0;  // edge of a district, metres
constexpr double kArterial = 24.0;   // road between districts

// SplitMix64 (Steele, Lea and Flood, 2014): tiny, fast and the same
// everywhere, unlike the standard distributions.
class Random {
public:
  explicit Random(std::uint64_t seed) : s_(seed) {}
  std::uint64_t next() {
    std::uint64_t z = (s_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  double uniform(double lo, double hi) { return lo + (hi - lo) * double(next() >> 11) * 0x1.0p-53; }
  int integer(int lo, int hi) { return lo + int(next() % std::uint64_t(hi - lo + 1)); }  // inclusive
  bool chance(double p) { return uniform(0, 1) < p; }

private:
  std::uint64_t s_;
};

std::uint64_t Mix(std::uint64_t a, std::int64_t b, std::int64_t c) {
  Random r(a ^ (std::uint64_t(b) * 0x9E3779B97F4A7C15ull) ^ (std::uint64_t(c) * 0xC2B2AE3D27D4EB4Full));
  return r.next();
}

// Style numbers, see Styles() in textures.cpp.
enum : int { kPlaster = 0, kBrick, kTimber, kOffice, kGlass, kIndustrial, kModern, kSandstone };

// A street block: corner o, unit axes ex (along its width) and ey.
struct Block {
  Vec2d o, ex, ey;
  double w, d;
  Vec2d at(double u, double v) const { return o + ex * u + ey * v; }
};

class Generator {
public:
  Generator(const ProceduralOptions& opt, std::vector<SourceBuilding>& out)
      : opt_(opt), out_(out), radius_(CityRadius(opt.buildings)) {}

  void run() {
    const int cells = int(std::ceil(2 * radius_ / kDistrict));
    const double start = -cells * kDistrict / 2;
    for (int j = 0; j < cells; ++j)
      for (int i = 0; i < cells; ++i)
        district(start + i * kDistrict, start + j * kDistrict, Mix(opt_.seed, i, j));
  }

private:
  bool inCity(const Vec2d& p) const {
    const double lim = radius_ - 10;
    if (std::fabs(p.x()) > lim || std::fabs(p.y()) > lim) return false;
    const double angle = std::atan2(p.y(), p.x());
    return std::hypot(p.x(), p.y()) < radius_ * (1.18 + 0.1 * std::sin(3 * angle + 0.5));
  }
  bool inRiver(const Vec2d& p) const {
    return std::fabs(p.y() - RiverY(p.x(), radius_)) < 40 + 0.004 * radius_;
  }

  void district(double x0, double y0, std::uint64_t seed) {
    Random rng(seed);
    const Vec2d c(x0 + kDistrict / 2, y0 + kDistrict / 2);
    const bool core = std::hypot(c.x(), c.y()) < 0.3 * radius_;
    const double angle = core ? 0.0 : rng.uniform(-0.3, 0.3);
    const double sw = rng.uniform(10, 16);
    // Blocks tile the district: as many of about the chosen size as fit,
    // stretched to fill it, with an arterial road all round.
    const double room = kDistrict - kArterial + sw;
    const int nx = std::max(1, int(room / (rng.uniform(80, 130) + sw)));
    const int ny = std::max(1, int(room / (rng.uniform(55, 85) + sw)));
    const double bw = room / nx - sw, bd = room / ny - sw;
    const Vec2d ex(std::cos(angle), std::sin(angle)), ey(-std::sin(angle), std::cos(angle));
    const double lo = kArterial / 2;
    // A turned district is cut by the square it lies in; the grid reaches
    // one block further so that the cut leaves no empty corners.
    const int reach = angle == 0.0 ? 0 : 1;
    for (int j = -reach; j < ny + reach; ++j)
      for (int i = -reach; i < nx + reach; ++i) {
        const double u = -room / 2 + i * (bw + sw) + sw / 2, v = -room / 2 + j * (bd + sw) + sw / 2;
        Block b{c + ex * u + ey * v, ex, ey, bw, bd};
        bool keep = true;
        for (const Vec2d& p : {b.at(0, 0), b.at(bw, 0), b.at(bw, bd), b.at(0, bd), b.at(bw / 2, bd / 2)}) {
          keep = keep && p.x() >= x0 + lo && p.x() <= x0 + kDistrict - lo && p.y() >= y0 + lo &&
                 p.y() <= y0 + kDistrict - lo && inCity(p) && !inRiver(p);
        }
        if (keep) block(b, Random(Mix(seed, i, j)));
      }
  }

  void block(const Block& b, Random rng) {
    if (rng.chance(0.05)) return;  // a park
    const Vec2d m = b.at(b.w / 2, b.d / 2);
    const double r = std::hypot(m.x(), m.y()) / radius_ + rng.uniform(-0.08, 0.08);
    if (r > 0.35 && rng.chance(0.06)) return industrial(b, rng);
    if (r < 0.12) return rng.chance(0.6) ? towers(b, rng, r) : courtyard(b, rng, r);
    if (r < 0.3) return rng.chance(0.3) ? courtyard(b, rng, r) : rows(b, rng, r);
    if (r < 0.7) return rng.chance(0.8) ? rows(b, rng, r) : detached(b, rng);
    detached(b, rng);
  }

  SourceBuilding& add(std::vector<Ring> rings, int floors, double extra, int style, RoofShape roof) {
    SourceBuilding s;
    s.id = ++id_;
    Polygon p;
    p.rings = std::move(rings);
    s.parts.push_back(std::move(p));
    s.floors = floors;
    // Every seventh building comes with a floor count only.
    if (s.id % 7 != 0) s.height = floors * 3.1 + extra;
    s.style = style;
    s.roof = roof;
    out_.push_back(std::move(s));
    return out_.back();
  }

  Ring rect(const Block& b, double u0, double v0, double u1, double v1) const {
    return {b.at(u0, v0), b.at(u1, v0), b.at(u1, v1), b.at(u0, v1)};
  }

  void detached(const Block& b, Random& rng) {
    for (int side = 0; side < 2; ++side) {
      double u = 2;
      for (;;) {
        const double pw = rng.uniform(13, 20);
        if (u + pw > b.w - 2) break;
        const double gap = rng.uniform(3, 6), w = pw - gap, depth = rng.uniform(8, 12), setback = rng.uniform(3, 6);
        const double v0 = side == 0 ? setback : b.d - setback - depth, v1 = v0 + depth;
        const double a = u + gap / 2, e = a + w;
        const int floors = rng.integer(1, 3);
        const int style = rng.chance(0.5) ? kPlaster : (rng.chance(0.6) ? kBrick : kTimber);
        if (rng.chance(0.22) && w > 9) {
          // L-shape: a wing to the garden side.
          const double wing = std::min(rng.uniform(4, 7), w - 4), reach = rng.uniform(4, 8);
          const double g = side == 0 ? v1 + reach : v0 - reach;
          Ring ring = side == 0 ? Ring{b.at(a, v0), b.at(e, v0), b.at(e, v1), b.at(a + wing, v1), b.at(a + wing, g), b.at(a, g)}
                                : Ring{b.at(a, g), b.at(a + wing, g), b.at(a + wing, v0), b.at(e, v0), b.at(e, v1), b.at(a, v1)};
          add({ring}, floors, rng.uniform(0.5, 1.5), style, RoofShape::Flat);
        } else {
          add({rect(b, a, v0, e, v1)}, floors, rng.uniform(0.3, 1.0), style,
              rng.chance(0.85) ? RoofShape::Gabled : RoofShape::Flat);
        }
        u += pw;
      }
    }
  }

  void rows(const Block& b, Random& rng, double r) {
    const double rd = rng.uniform(11, 15);
    const int base = r < 0.3 ? 4 : 3;
    const bool gabled = rng.chance(0.5);
    auto house = [&](Ring ring) {
      const int style = rng.chance(0.4) ? kPlaster : rng.chance(0.5) ? kBrick : rng.chance(0.5) ? kSandstone : kTimber;
      add({std::move(ring)}, rng.integer(base, base + 3), rng.uniform(0.5, 1.2), style,
          gabled ? RoofShape::Gabled : RoofShape::Flat);
    };
    // Long sides run the whole width; short sides fill in between them.
    for (int side = 0; side < 2; ++side) {
      const double v0 = side == 0 ? 0 : b.d - rd, v1 = v0 + rd;
      for (double u = 0; u < b.w - 1;) {
        double w = rng.uniform(7, 15);
        if (b.w - (u + w) < 7) w = b.w - u;
        house(rect(b, u, v0, u + w, v1));
        u += w;
      }
    }
    if (b.d - 2 * rd < 8) return;
    for (int side = 0; side < 2; ++side) {
      const double u0 = side == 0 ? 0 : b.w - rd, u1 = u0 + rd;
      for (double v = rd; v < b.d - rd - 1;) {
        double w = rng.uniform(7, 15);
        if (b.d - rd - (v + w) < 7) w = b.d - rd - v;
        house(rect(b, u0, v, u1, v + w));
        v += w;
      }
    }
  }

  void courtyard(const Block& b, Random& rng, double r) {
    const double depth = rng.uniform(13, 18);
    const int floors = rng.integer(5, 8) + (r < 0.15 ? 2 : 0);
    const int style = rng.chance(0.4) ? kSandstone : rng.chance(0.5) ? kOffice : kModern;
    if (b.w - 2 * depth < 10 || b.d - 2 * depth < 10) {
      add({rect(b, 0, 0, b.w, b.d)}, floors, 1.0, style, RoofShape::Flat);
      return;
    }
    // The hole runs clockwise: outer counter-clockwise, courtyard the other way.
    Ring hole = rect(b, depth, depth, b.w - depth, b.d - depth);
    std::reverse(hole.begin(), hole.end());
    add({rect(b, 0, 0, b.w, b.d), hole}, floors, rng.uniform(0.8, 1.6), style, RoofShape::Flat);
  }

  void towers(const Block& b, Random& rng, double r) {
    const double hw = b.w / 2, hd = b.d / 2;
    for (int cj = 0; cj < 2; ++cj)
      for (int ci = 0; ci < 2; ++ci) {
        if (rng.chance(0.15)) continue;
        const double inset = rng.uniform(3, 7);
        const double u0 = ci * hw + inset, u1 = (ci + 1) * hw - inset, v0 = cj * hd + inset, v1 = (cj + 1) * hd - inset;
        const int floors = 6 + int(34 * std::exp(-std::max(r, 0.0) / 0.05) * rng.uniform(0.3, 1.0));
        const int style = rng.chance(0.45) ? kGlass : rng.chance(0.5) ? kOffice : kModern;
        const double pick = rng.uniform(0, 1);
        if (pick < 0.2) {
          // Octagonal tower.
          const double cu = (u0 + u1) / 2, cv = (v0 + v1) / 2, rad = std::min(u1 - u0, v1 - v0) / 2;
          Ring ring;
          for (int k = 0; k < 8; ++k) {
            const double a = (k + 0.5) * kPi / 4;
            ring.push_back(b.at(cu + rad * std::cos(a), cv + rad * std::sin(a)));
          }
          add({ring}, floors, 2.0, style, RoofShape::Flat);
        } else if (pick < 0.45) {
          // L-shaped tower.
          const double cu = u0 + (u1 - u0) * rng.uniform(0.45, 0.6), cv = v0 + (v1 - v0) * rng.uniform(0.45, 0.6);
          add({{b.at(u0, v0), b.at(u1, v0), b.at(u1, cv), b.at(cu, cv), b.at(cu, v1), b.at(u0, v1)}}, floors, 2.0,
              style, RoofShape::Flat);
        } else {
          add({rect(b, u0, v0, u1, v1)}, floors, 2.0, style, RoofShape::Flat);
        }
      }
  }

  void industrial(const Block& b, Random& rng) {
    const int halls = rng.integer(1, 3);
    const double slot = b.w / halls;
    for (int h = 0; h < halls; ++h) {
      const double u0 = h * slot + rng.uniform(3, 8), u1 = (h + 1) * slot - rng.uniform(3, 8);
      const double v0 = rng.uniform(4, 10), v1 = b.d - rng.uniform(4, 10);
      if (u1 - u0 < 8 || v1 - v0 < 8) continue;
      add({rect(b, u0, v0, u1, v1)}, 2, rng.uniform(1.5, 4.0), kIndustrial, RoofShape::Flat);
    }
  }

  const ProceduralOptions& opt_;
  std::vector<SourceBuilding>& out_;
  double radius_;
  std::int64_t id_ = 0;
};

}  // namespace

double CityRadius(int buildings) {
  // About 940 buildings per square kilometre of the city's square, measured
  // on the generator's mix of zones.
  return std::max(150.0, 0.5 * std::sqrt(std::max(buildings, 1) / 940.0) * 1000.0);
}

double RiverY(double x, double radius) {
  return 0.18 * radius * std::sin(1.9 * x / radius + 0.6) + 0.05 * radius * std::sin(5.3 * x / radius);
}

Vec2d LocalToLonLat(const ProceduralOptions& o, const Vec2d& local) {
  const double lat0 = o.latitude * kPi / 180;
  return Vec2d(o.longitude + local.x() / (kEarthRadius * std::cos(lat0)) * 180 / kPi,
               o.latitude + local.y() / kEarthRadius * 180 / kPi);
}

Vec2d LonLatToLocal(const ProceduralOptions& o, const Vec2d& ll) {
  const double lat0 = o.latitude * kPi / 180;
  return Vec2d((ll.x() - o.longitude) * kPi / 180 * kEarthRadius * std::cos(lat0),
               (ll.y() - o.latitude) * kPi / 180 * kEarthRadius);
}

std::vector<SourceBuilding> GenerateCity(const ProceduralOptions& options) {
  std::vector<SourceBuilding> out;
  Generator(options, out).run();
  for (SourceBuilding& b : out)
    for (Polygon& p : b.parts)
      for (Ring& ring : p.rings)
        for (Vec2d& q : ring) q = LocalToLonLat(options, q);
  return out;
}

ProceduralTerrain::ProceduralTerrain(const Vec2d& centre, int buildings)
    : centre_(centre), radius_(CityRadius(buildings)) {}

double ProceduralTerrain::height(double x, double y) const {
  const double lx = x - centre_.x(), ly = y - centre_.y();
  double h = 245 + 22 * std::sin(lx / 870 + 1.3) * std::cos(ly / 1130 - 0.4) + 11 * std::sin((lx + ly) / 470) +
             5 * std::cos((lx - 2 * ly) / 290) + 2 * std::sin(lx / 133) * std::sin(ly / 171);
  const double d = (ly - RiverY(lx, radius_)) / 170;
  return h - 14 * std::exp(-d * d);
}

}  // namespace city
