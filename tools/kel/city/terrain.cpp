#include "city/terrain.h"

#include <algorithm>
#include <cmath>

#include <gdal.h>
#include <gdal_alg.h>

namespace city {
namespace {

struct DatasetCloser {
  void operator()(void* ds) const { GDALClose(ds); }
};
using Dataset = std::unique_ptr<void, DatasetCloser>;

Dataset Open(const std::string& path) {
  GDALAllRegister();
  CPLPushErrorHandler(CPLQuietErrorHandler);
  Dataset ds(GDALOpenEx(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY, nullptr, nullptr, nullptr));
  CPLPopErrorHandler();
  if (!ds) throw DemError("cannot read DEM " + path + ": " + CPLGetLastErrorMsg());
  if (GDALGetRasterCount(ds.get()) < 1) throw DemError("DEM " + path + " has no raster band");
  return ds;
}

struct Georef {
  double toWorld[6], toPixel[6];
  std::shared_ptr<kel::SRSCoordSys> srs;
};

Georef GeorefOf(void* ds, const std::string& path) {
  Georef g;
  if (GDALGetGeoTransform(ds, g.toWorld) != CE_None || !GDALInvGeoTransform(g.toWorld, g.toPixel))
    throw DemError("DEM " + path + " has no usable georeference");
  const char* wkt = GDALGetProjectionRef(ds);
  if (!wkt || !*wkt) throw DemError("DEM " + path + " names no coordinate system");
  g.srs = kel::SRSCoordSys::Create(kel::Utf8String2WString(wkt));
  if (!g.srs) throw DemError("the coordinate system of DEM " + path + " is not one PROJ knows");
  return g;
}

Vec2d Apply(const double t[6], double a, double b) {
  return Vec2d(t[0] + a * t[1] + b * t[2], t[3] + a * t[4] + b * t[5]);
}

}  // namespace

GridTerrain::GridTerrain(const BBox<2, double>& region, int nx, int ny, std::vector<float> heights)
    : region_(region), nx_(nx), ny_(ny), z_(std::move(heights)) {
  sx_ = nx > 1 ? (nx - 1) / (region.max.x() - region.min.x()) : 0;
  sy_ = ny > 1 ? (ny - 1) / (region.max.y() - region.min.y()) : 0;
}

double GridTerrain::height(double x, double y) const {
  const double fx = (x - region_.min.x()) * sx_, fy = (y - region_.min.y()) * sy_;
  if (!(fx >= 0 && fy >= 0 && fx <= nx_ - 1 && fy <= ny_ - 1)) return NAN;
  const int cx = std::min(int(fx), nx_ - 2), cy = std::min(int(fy), ny_ - 2);
  const double tx = fx - cx, ty = fy - cy;
  const float* row0 = &z_[std::size_t(cy) * std::size_t(nx_) + std::size_t(cx)];
  const float* row1 = row0 + nx_;
  // A missing corner makes the cell missing: no height is made up.
  return (row0[0] * (1 - tx) + row0[1] * tx) * (1 - ty) + (row1[0] * (1 - tx) + row1[1] * tx) * ty;
}

DemProbe ProbeDem(const std::string& path) {
  Dataset ds = Open(path);
  const Georef g = GeorefOf(ds.get(), path);
  const int w = GDALGetRasterXSize(ds.get()), h = GDALGetRasterYSize(ds.get());
  Vec2d c = Apply(g.toWorld, w / 2.0, h / 2.0);
  DemProbe probe;
  probe.srs = g.srs;
  const auto ll = kel::SRSCoordSys::Create(L"LL84");
  if (!g.srs->IsSameAs(ll.get())) {
    const auto tf = kel::SRSTransform::Create(g.srs, ll);
    if (!tf || !tf->Transform(c)) throw DemError("DEM " + path + ": cannot place its centre in longitude/latitude");
  }
  probe.centreLonLat = c;
  const double step = std::hypot(g.toWorld[1], g.toWorld[4]);
  probe.pixelMetres = g.srs->IsGeographic() ? step * 111320.0 * std::cos(c.y() * M_PI / 180) : step * g.srs->GetUnitScale();
  return probe;
}

std::unique_ptr<GridTerrain> SampleDem(const std::string& path, const std::shared_ptr<kel::SRSCoordSys>& modelSrs,
                                       const kel::Vec3d& offset, const BBox<2, double>& region) {
  Dataset ds = Open(path);
  const Georef g = GeorefOf(ds.get(), path);
  const DemProbe probe = ProbeDem(path);
  const double spacing = std::clamp(probe.pixelMetres, 1.0, 100.0);
  const double w = region.max.x() - region.min.x(), h = region.max.y() - region.min.y();
  int nx = std::max(2, int(std::ceil(w / spacing)) + 1), ny = std::max(2, int(std::ceil(h / spacing)) + 1);
  // Four million samples (16 MB) at most, whatever the city.
  const double shrink = std::sqrt(double(nx) * ny / 4.0e6);
  if (shrink > 1) nx = std::max(2, int(nx / shrink)), ny = std::max(2, int(ny / shrink));

  // Model grid points into the DEM's system, through a transform cache at
  // a tenth of a pixel (the raster's own precision).
  std::vector<Vec2d> points(std::size_t(nx) * std::size_t(ny));
  for (int r = 0; r < ny; ++r)
    for (int c = 0; c < nx; ++c)
      points[std::size_t(r) * nx + c] = Vec2d(region.min.x() + w * c / (nx - 1) + offset.x(),
                                              region.min.y() + h * r / (ny - 1) + offset.y());
  const auto tf = g.srs->IsSameAs(modelSrs.get()) ? nullptr : kel::SRSTransform::Create(modelSrs, g.srs);
  if (tf) {
    BBox<2, double> box(points.front(), points.back());
    kel::TfCache cache(box, 0.1 * std::hypot(g.toWorld[1], g.toWorld[4]), tf.get(), 32);
    auto view = kel::MakeDataArray(points);
    cache.transform(view);
  }

  // Read the raster window those points reach, plus a pixel for the bilinear step.
  double minPx = 1e300, minPy = 1e300, maxPx = -1e300, maxPy = -1e300;
  for (Vec2d& p : points) {
    p = Apply(g.toPixel, p.x(), p.y());
    minPx = std::min(minPx, p.x()), maxPx = std::max(maxPx, p.x());
    minPy = std::min(minPy, p.y()), maxPy = std::max(maxPy, p.y());
  }
  const int W = GDALGetRasterXSize(ds.get()), H = GDALGetRasterYSize(ds.get());
  const int x0 = std::max(0, int(std::floor(minPx)) - 1), y0 = std::max(0, int(std::floor(minPy)) - 1);
  const int x1 = std::min(W, int(std::ceil(maxPx)) + 2), y1 = std::min(H, int(std::ceil(maxPy)) + 2);
  if (!(x0 < x1 && y0 < y1) || !std::isfinite(minPx) || !std::isfinite(maxPy))
    throw DemError("DEM " + path + " does not reach the city");
  const int ww = x1 - x0, wh = y1 - y0;
  if (double(ww) * wh > 2.5e8) throw DemError("DEM " + path + ": the part under the city is too large to read");
  std::vector<float> raster(std::size_t(ww) * std::size_t(wh));
  GDALRasterBandH band = GDALGetRasterBand(ds.get(), 1);
  if (GDALRasterIO(band, GF_Read, x0, y0, ww, wh, raster.data(), ww, wh, GDT_Float32, 0, 0) != CE_None)
    throw DemError("cannot read DEM " + path + ": " + CPLGetLastErrorMsg());
  int hasNoData = 0;
  const double noData = GDALGetRasterNoDataValue(band, &hasNoData);
  for (float& v : raster)
    if ((hasNoData && (v == float(noData) || (std::isnan(noData) && std::isnan(v)))) || !std::isfinite(v)) v = NAN;

  // Bilinear between pixel centres; a missing neighbour leaves the sample missing.
  std::vector<float> z(points.size(), NAN);
  for (std::size_t i = 0; i < points.size(); ++i) {
    const double fx = points[i].x() - 0.5 - x0, fy = points[i].y() - 0.5 - y0;
    if (!(fx >= 0 && fy >= 0 && fx <= ww - 1 && fy <= wh - 1)) continue;
    const int cx = std::min(int(fx), std::max(ww - 2, 0)), cy = std::min(int(fy), std::max(wh - 2, 0));
    const double tx = ww > 1 ? fx - cx : 0, ty = wh > 1 ? fy - cy : 0;
    auto at = [&](int x, int y) { return raster[std::size_t(std::min(y, wh - 1)) * ww + std::min(x, ww - 1)]; };
    z[i] = float((at(cx, cy) * (1 - tx) + at(cx + 1, cy) * tx) * (1 - ty) +
                 (at(cx, cy + 1) * (1 - tx) + at(cx + 1, cy + 1) * tx) * ty);
  }
  if (std::none_of(z.begin(), z.end(), [](float v) { return !std::isnan(v); }))
    throw DemError("DEM " + path + " holds no heights under the city");
  return std::make_unique<GridTerrain>(region, nx, ny, std::move(z));
}

}  // namespace city
