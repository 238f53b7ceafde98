#include "city/prepare.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "city/geos_util.h"

#include "city/terrain.h"

namespace city {
namespace {

bool Finite(const std::vector<Polygon>& parts) {
  for (const Polygon& p : parts)
    for (const Ring& r : p.rings)
      for (const Vec2d& q : r)
        if (!std::isfinite(q.x()) || !std::isfinite(q.y())) return false;
  return true;
}

// Ring clean-up, then validity; invalid parts are repaired through GEOS's
// make-valid. Returns false when nothing with area is left.
bool Clean(std::vector<Polygon>& parts, GEOSContextHandle_t ctx, PrepareReport& report, bool& repaired) {
  constexpr double kMinArea = 0.5;  // square metres: slivers from digitising
  constexpr std::size_t kQuadraticLimit = 256;
  std::vector<Polygon> out;
  for (Polygon& p : parts) {
    Polygon q;
    bool simple = true;
    for (std::size_t r = 0; r < p.rings.size(); ++r) {
      Ring ring = std::move(p.rings[r]);
      DropRepeats(ring);
      // IsSimple is quadratic: long rings go to GEOS's validity test instead.
      const bool ringSimple = ring.size() <= kQuadraticLimit && IsSimple(ring);
      // A self-crossing ring's signed area may cancel out: make-valid judges it.
      if (ring.size() < 3 || (ring.size() <= kQuadraticLimit && ringSimple && std::fabs(SignedArea2(ring)) / 2 < kMinArea)) {
        ++report.droppedRings;
        if (r == 0) break;  // without its outer ring a part is gone
        continue;
      }
      simple = simple && ringSimple;
      q.rings.push_back(std::move(ring));
    }
    if (q.rings.empty()) continue;
    bool valid = simple;
    GEOSGeometry* shape = nullptr;
    if (!simple || q.rings.size() > 1) {
      // Crossing rings, and holes that must lie inside and apart: GEOS decides.
      shape = ToGeos(ctx, q);
      valid = shape && GEOSisValid_r(ctx, shape) == 1;
    }
    if (valid) {
      if (shape) GEOSGeom_destroy_r(ctx, shape);
      Orient(q);
      out.push_back(std::move(q));
      continue;
    }
    std::vector<Polygon> fixed;
    if (GEOSGeometry* made = shape ? GEOSMakeValid_r(ctx, shape) : nullptr) {
      FromGeos(ctx, made, fixed);
      GEOSGeom_destroy_r(ctx, made);
    }
    if (shape) GEOSGeom_destroy_r(ctx, shape);
    // Make-valid's rings are simple unless they lost points to DropRepeats.
    for (Polygon& f : fixed)
      if (Area(f) >= kMinArea && std::all_of(f.rings.begin(), f.rings.end(), [](const Ring& r) {
            return r.size() > kQuadraticLimit || IsSimple(r);
          })) {
        Orient(f);
        out.push_back(std::move(f));
        repaired = true;
      }
  }
  parts = std::move(out);
  return !parts.empty();
}

bool IsResidential(int style) { return style <= 2; }

}  // namespace

int ChooseStyle(std::int64_t id, double height, double area) {
  static const int kTall[] = {3, 4, 6}, kHouse[] = {0, 1, 2}, kOther[] = {0, 1, 3, 6, 7};
  const auto h = std::uint64_t(id) * 0x9E3779B97F4A7C15ull >> 40;
  if (height > 30) return kTall[h % 3];
  if (area > 1500 && height < 12) return 5;
  if (height < 12 && area < 300) return kHouse[h % 3];
  return kOther[h % 5];
}

PreparedCity Prepare(std::vector<SourceBuilding> in, const std::shared_ptr<kel::SRSCoordSys>& sourceSrs,
                     const PrepareOptions& options, kel::Progress& progress) {
  PreparedCity city;
  PrepareReport& report = city.report;

  // Footprints with NaN or infinite corners are dropped before they can
  // spoil the region the transform cache covers.
  BBox<2, double> sourceBox;
  std::vector<SourceBuilding> finite;
  finite.reserve(in.size());
  for (SourceBuilding& b : in) {
    if (!Finite(b.parts)) {
      ++report.nonFinite;
      continue;
    }
    sourceBox.extend(Bounds(b.parts));
    finite.push_back(std::move(b));
  }
  in.clear();
  in.shrink_to_fit();

  if (finite.empty()) return city;
  city.srs = sourceSrs->GetBestFittingUTM84Projection(sourceBox);
  if (!city.srs) throw std::runtime_error("no UTM zone fits the input's coordinates (are they in the system named?)");
  const auto tf = kel::SRSTransform::Create(sourceSrs, city.srs);
  if (!tf && !sourceSrs->IsSameAs(city.srs.get()))
    throw std::runtime_error("cannot transform from " + kel::WString2Utf8String(sourceSrs->GetCode()) + " to " +
                             kel::WString2Utf8String(city.srs->GetCode()));
  // 1 mm in the target: the cache replaces nearly every PROJ call by an interpolation.
  kel::TfCache cache(sourceBox, 0.001, tf.get(), 40);
  BBox<2, double> utmBox;
  std::size_t done = 0;
  for (SourceBuilding& b : finite) {
    bool ok = true;
    for (Polygon& p : b.parts)
      for (Ring& r : p.rings) {
        if (tf) cache.transform(kel::MakeDataArray(r));
        for (const Vec2d& q : r) ok = ok && std::isfinite(q.x()) && std::isfinite(q.y());
      }
    if (!ok) {
      ++report.notTransformed;
      b.parts.clear();
      continue;
    }
    utmBox.extend(Bounds(b.parts));
    if (++done % 4096 == 0 && !progress.updateValue(std::int64_t(done / 2))) throw Interrupted();
  }
  if (utmBox.isEmpty()) return city;
  // Whole kilometres: float vertices near the origin keep sub-millimetre steps.
  const Vec2d centre = (utmBox.min + utmBox.max) * 0.5;
  city.settings.offset = kel::Vec3d(std::round(centre.x() / 1000) * 1000, std::round(centre.y() / 1000) * 1000, 0);
  city.settings.srs = city.srs->GetCode();
  const Vec2d offset(city.settings.offset.x(), city.settings.offset.y());

  const kel::GeosContextPtr context = kel::MakeGeosContext();
  GEOSContextHandle_t ctx = context.get();
  BBox<2, double> box;
  for (SourceBuilding& s : finite) {
    if (s.parts.empty()) continue;
    Building b;
    b.id = s.id;
    for (Polygon& p : s.parts)
      for (Ring& r : p.rings)
        for (Vec2d& q : r) q = q - offset;
    bool repaired = false;
    if (!Clean(s.parts, ctx, report, repaired)) {
      ++report.degenerate;
      continue;
    }
    report.repaired += repaired;
    b.parts = std::move(s.parts);
    b.box = Bounds(b.parts);
    for (const Polygon& p : b.parts) b.area += Area(p);
    // Heights: the attribute when plausible, else floors, else the default.
    if (std::isfinite(s.height) && s.height > 0 && s.height < 1000) {
      b.height = s.height;
    } else if (s.floors > 0) {
      b.height = s.floors * options.floorHeight;
      ++report.floorsOnly;
    } else if (!std::isnan(s.height)) {
      ++report.badHeight;
      continue;
    } else if (std::isfinite(options.defaultHeight)) {
      b.height = options.defaultHeight;
      ++report.defaultHeight;
    } else {
      ++report.noHeight;
      continue;
    }
    b.style = std::uint8_t(s.style >= 0 && std::size_t(s.style) < Styles().size() ? s.style
                                                                                    : ChooseStyle(b.id, b.height, b.area));
    b.roof = s.style >= 0 ? s.roof
                          : (IsResidential(b.style) && b.area < 250 && b.height < 14 ? RoofShape::Gabled : RoofShape::Flat);
    box.extend(b.box);
    city.buildings.push_back(std::move(b));
  }
  finite.clear();
  if (city.buildings.empty()) return city;
  city.extent = BBox<2, double>(box.min - Vec2d(options.margin, options.margin), box.max + Vec2d(options.margin, options.margin));

  switch (options.terrain) {
    case PrepareOptions::Terrain::None: break;
    case PrepareOptions::Terrain::Procedural: {
      Vec2d c(options.procedural.longitude, options.procedural.latitude);
      const auto ll = kel::SRSCoordSys::Create(L"LL84");
      const auto toUtm = kel::SRSTransform::Create(ll, city.srs);
      if (!toUtm || !toUtm->Transform(c)) throw std::runtime_error("cannot place the procedural terrain");
      city.terrain = std::make_unique<ProceduralTerrain>(c - offset, options.procedural.buildings);
      break;
    }
    case PrepareOptions::Terrain::Dem:
    {
      auto grid = SampleDem(options.dem, city.srs, city.settings.offset, city.extent);
      city.terrainSpacing = (grid->region().max.x() - grid->region().min.x()) / (grid->columns() - 1);
      city.terrain = std::move(grid);
    }
      break;
  }

  // Ground floors sit at the lowest ground under their corners, a little
  // below it, so no gap opens on a slope.
  std::vector<Building> kept;
  kept.reserve(city.buildings.size());
  city.minZ = 1e300;
  city.maxZ = -1e300;
  for (Building& b : city.buildings) {
    double ground = 0;
    if (city.terrain) {
      ground = city.terrain->height((b.box.min.x() + b.box.max.x()) / 2, (b.box.min.y() + b.box.max.y()) / 2);
      for (const Polygon& p : b.parts)
        for (const Vec2d& q : p.rings[0]) {
          const double z = city.terrain->height(q.x(), q.y());
          ground = std::isnan(z) ? z : std::min(ground, z);  // std::min would pass a NaN over
        }
      if (std::isnan(ground)) {
        ++report.outsideTerrain;
        continue;
      }
      ground -= 0.2;
    }
    b.base = ground;
    city.minZ = std::min(city.minZ, b.base);
    city.maxZ = std::max(city.maxZ, b.base + b.height + 6);  // room for a gable
    kept.push_back(std::move(b));
  }
  city.buildings = std::move(kept);
  if (city.terrain)
    for (int r = 0; r <= 64; ++r)
      for (int c = 0; c <= 64; ++c) {
        const double z = city.terrain->height(city.extent.min.x() + (city.extent.max.x() - city.extent.min.x()) * c / 64,
                                              city.extent.min.y() + (city.extent.max.y() - city.extent.min.y()) * r / 64);
        if (!std::isnan(z)) city.minZ = std::min(city.minZ, z), city.maxZ = std::max(city.maxZ, z);
      }
  std::sort(city.buildings.begin(), city.buildings.end(), [](const Building& a, const Building& b) { return a.id < b.id; });
  report.kept = std::int64_t(city.buildings.size());
  if (city.buildings.empty()) city.minZ = city.maxZ = 0;
  progress.updateValue(progress.totalValue());
  return city;
}

}  // namespace city
