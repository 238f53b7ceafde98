// Coordinates from one spatial reference system to another through PROJ.
// Axes are easting/longitude first on both sides, whatever the systems'
// definitions say. Heights are never reprojected or datum-shifted: they are
// only scaled from the source's unit to the target's (a geographic side
// counts as 1.0).
//
// The point operations never throw: a PROJ failure logs the error
// "Coordinate system transform error. <PROJ's error>" and returns false,
// leaving the failing point as it was (earlier elements of an array stay
// transformed, later ones untouched). They take no lock and may be used from
// any number of threads at once: each thread runs its own PROJ copy.
#pragma once

#include <memory>
#include <string>

#include "kel/export.h"
#include "kel/srs/transform.h"

namespace kel {

class SRSCoordSys;
namespace detail {
class SharedPj;
}

class KEL_API SRSTransform final : public ITransform {
public:
  // Empty when either system is empty or both are the same object (nothing
  // to do), and when PROJ finds no way between them; the last logs the error
  // "Failed to create transformation from <code> to <code>. Message: <PROJ's
  // error>". Two equal non-earth systems get an identity.
  static std::shared_ptr<SRSTransform> Create(const std::shared_ptr<SRSCoordSys>& source,
                                              const std::shared_ptr<SRSCoordSys>& target);
  // Both codes must be non-empty and differ, else the result is empty; the
  // systems come from SRSCoordSys::Create.
  static std::shared_ptr<SRSTransform> Create(const std::wstring& sourceCode, const std::wstring& targetCode);

  SRSTransform(const SRSTransform&) = delete;
  SRSTransform& operator=(const SRSTransform&) = delete;
  ~SRSTransform();

  using ITransform::Transform;
  // Every point; the bounds are recomputed only when all succeeded.
  bool Transform(GeometryBuffer& g) const override;
  bool Transform(const IDataArray<Vec<3, double>>& points) const override;
  bool Transform(const IDataArray<Vec<2, double>>& points) const override;
  bool Transform(Vec<3, double>& p) const override;
  bool Transform(Vec<2, double>& p) const override;
  bool Transform(double& x, double& y, double& z) const override;
  bool Transform(double& x, double& y) const override;
  // z times the height scale: source unit scale / target unit scale.
  virtual void scaleZ(double& z) const;

  double heightScale() const { return heightScale_; }

private:
  SRSTransform(std::unique_ptr<detail::SharedPj> transform, double heightScale);
  KEL_NO_EXPORT bool TransformXY(double& x, double& y) const;

  std::unique_ptr<detail::SharedPj> transform_;
  double heightScale_;
};

}  // namespace kel
