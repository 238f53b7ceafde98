#include "kel/srs/srs_transform.h"

#include <cmath>

#include "kel/core/log.h"
#include "kel/geometry/geometry_buffer.h"
#include "kel/srs/srs_coord_sys.h"
#include "srs/detail/proj_crs.h"

namespace kel {
namespace {

using detail::PjPtr;

void LogTransformError() {
  KEL_LOG_ERROR(L"Coordinate system transform error. " + detail::TakeProjError(detail::ThreadContext()));
}

double HeightUnit(const SRSCoordSys& s) { return s.IsGeographic() ? 1.0 : s.GetUnitScale(); }

}  // namespace

SRSTransform::SRSTransform(std::unique_ptr<detail::SharedPj> transform, double heightScale)
    : transform_(std::move(transform)), heightScale_(heightScale) {}

SRSTransform::~SRSTransform() = default;  // SharedPj releases its master under the lock

std::shared_ptr<SRSTransform> SRSTransform::Create(const std::shared_ptr<SRSCoordSys>& source,
                                                   const std::shared_ptr<SRSCoordSys>& target) {
  if (!source || !target || source == target) return nullptr;
  std::lock_guard<std::recursive_mutex> lock(detail::CoordSysLock());
  PJ_CONTEXT* ctx = detail::MasterContext();
  detail::ClearProjError(ctx);
  PjPtr op(proj_create_crs_to_crs_from_pj(ctx, source->system_->crs.master(), target->system_->crs.master(),
                                          nullptr, nullptr));
  PjPtr normalised;
  if (op) {
    // Easting/longitude first on both sides, whatever the definitions say.
    normalised.reset(proj_normalize_for_visualization(ctx, op.get()));
  } else if (source->IsArbitrary() && target->IsArbitrary() && source->IsSameAs(target.get())) {
    // PROJ knows no operation between engineering systems, not even between
    // two copies of one; equal ones need none.
    normalised.reset(proj_create(ctx, "+proj=noop"));
  }
  if (!normalised) {
    KEL_LOG_ERROR(L"Failed to create transformation from " + source->GetCode() + L" to " + target->GetCode() +
                  L". Message: " + detail::TakeProjError(ctx, L"PROJ knows no operation between them"));
    return nullptr;
  }
  const double scale = HeightUnit(*source) / HeightUnit(*target);
  return std::shared_ptr<SRSTransform>(
      new SRSTransform(std::make_unique<detail::SharedPj>(std::move(normalised)), scale));
}

std::shared_ptr<SRSTransform> SRSTransform::Create(const std::wstring& sourceCode, const std::wstring& targetCode) {
  if (sourceCode.empty() || targetCode.empty() || sourceCode == targetCode) return nullptr;
  return Create(SRSCoordSys::Create(sourceCode), SRSCoordSys::Create(targetCode));
}

// Writes back only on success, so a failed point keeps its input.
bool SRSTransform::TransformXY(double& x, double& y) const {
  PJ* pj = transform_->local();
  if (pj == nullptr) return false;
  const PJ_COORD out = proj_trans(pj, PJ_FWD, proj_coord(x, y, 0.0, HUGE_VAL));
  if (!std::isfinite(out.xy.x) || !std::isfinite(out.xy.y)) return false;
  x = out.xy.x;
  y = out.xy.y;
  return true;
}

bool SRSTransform::Transform(double& x, double& y) const {
  if (TransformXY(x, y)) return true;
  LogTransformError();
  return false;
}

bool SRSTransform::Transform(double& x, double& y, double& z) const {
  if (!TransformXY(x, y)) {
    LogTransformError();
    return false;
  }
  z *= heightScale_;
  return true;
}

bool SRSTransform::Transform(Vec<3, double>& p) const { return Transform(p.x(), p.y(), p.z()); }

bool SRSTransform::Transform(Vec<2, double>& p) const { return Transform(p.x(), p.y()); }

bool SRSTransform::Transform(GeometryBuffer& g) const {
  double* xyz = g.pointData();
  for (int i = 0, n = g.pointCount(); i < n; ++i, xyz += 3) {
    if (!TransformXY(xyz[0], xyz[1])) {
      LogTransformError();
      return false;
    }
    xyz[2] *= heightScale_;
  }
  g.RecomputeBBox();
  return true;
}

bool SRSTransform::Transform(const IDataArray<Vec<3, double>>& points) const {
  for (Vec<3, double>& p : points) {
    if (!TransformXY(p.x(), p.y())) {
      LogTransformError();
      return false;
    }
    p.z() *= heightScale_;
  }
  return true;
}

bool SRSTransform::Transform(const IDataArray<Vec<2, double>>& points) const {
  for (Vec<2, double>& p : points) {
    if (!TransformXY(p.x(), p.y())) {
      LogTransformError();
      return false;
    }
  }
  return true;
}

void SRSTransform::scaleZ(double& z) const { z *= heightScale_; }

}  // namespace kel
