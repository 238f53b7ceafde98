// The one interface every coordinate transformation is applied through, and
// its two plain implementations: a 4x4 homogeneous matrix and an ordered
// chain. Every operation is const, reports success as a bool and never
// throws; a failure is only the false result (nothing is logged here).
// Elements are changed in place and never rolled back after a failure.
#pragma once

#include <memory>
#include <vector>

#include "kel/core/enumerate.h"
#include "kel/core/types.h"
#include "kel/export.h"

namespace kel {

class GeometryBuffer;

// Abstract; no data. There is no virtual destructor: hold implementations
// through std::shared_ptr of the concrete type or of ITransform const, whose
// deleter knows the concrete type. The protected destructor makes deleting
// through an ITransform pointer a compile error instead of a leak.
//
// The overloads are declared in their virtual-table order; derived classes
// append their own operations after the last one.
class KEL_API ITransform {
public:
  // Every point's stored x, y and z through Transform(x, y, z), in order,
  // until the first failure (later points stay untouched); then the bounds
  // are always recomputed. True when all succeeded (and for no points).
  virtual bool Transform(GeometryBuffer& g) const;
  // Each element through Transform(Vec&), in index order, until the first
  // failure; later elements stay untouched. True when all succeeded (and
  // for an empty array).
  virtual bool Transform(const IDataArray<Vec<3, double>>& points) const;
  virtual bool Transform(const IDataArray<Vec<2, double>>& points) const;
  // The hull of the transformed corners only: edges are not sampled, so a
  // box whose edges bulge under the transform is not covered. After a failed
  // corner the later corners enter the box untransformed; false then.
  virtual bool Transform(BBox<3, double>& box) const;
  virtual bool Transform(BBox<2, double>& box) const;
  virtual bool Transform(Vec<3, double>& p) const;
  virtual bool Transform(Vec<2, double>& p) const;
  virtual bool Transform(double& x, double& y, double& z) const = 0;
  virtual bool Transform(double& x, double& y) const = 0;

protected:
  ITransform() = default;
  ITransform(const ITransform&) = default;
  ITransform& operator=(const ITransform&) = default;
  ~ITransform() = default;
};

// A 4x4 homogeneous matrix, column by column (row r, column c at c*4 + r).
// The point is the column (x, y, z, 1); the result is divided by its w with
// no test for zero, so w = 0 gives non-finite output and still true.
class KEL_API MatrixTransform : public ITransform {
public:
  explicit MatrixTransform(const Mat<4, double>& m) : m_(m) {}
  MatrixTransform(const MatrixTransform&) = default;
  MatrixTransform& operator=(const MatrixTransform&) = default;
  ~MatrixTransform() = default;

  using ITransform::Transform;
  bool Transform(Vec<3, double>& p) const override;
  // Transforms (x, y, z) and writes back all three.
  bool Transform(double& x, double& y, double& z) const override;
  // Transforms (x, y, 0) and writes back x and y only.
  bool Transform(double& x, double& y) const override;
  virtual void getMatrix(Mat<4, double>& out) const;

private:
  Mat<4, double> m_;
};

// Members applied in the order they were added. Point operations stop at the
// first failing member (the point keeps what the earlier members made of it).
// Array walks are member-major: the first member over every element, then the
// next; the first failure returns false at once. Boxes and Vec<2> go through
// the base, so a box is the hull of its corners run through the whole chain.
// An empty chain changes nothing and succeeds. Copies share the members.
class KEL_API CompositeTransform : public ITransform {
public:
  CompositeTransform() = default;
  CompositeTransform(const CompositeTransform&) = default;
  CompositeTransform& operator=(const CompositeTransform&) = default;
  ~CompositeTransform() = default;

  // Appends `t` to the end of the chain; an empty pointer is the caller's
  // mistake (asserted).
  void add(const std::shared_ptr<const ITransform>& t);

  using ITransform::Transform;
  // Member-major too; a failure returns at once and leaves the bounds as
  // they were, success recomputes them (also for an empty chain).
  bool Transform(GeometryBuffer& g) const override;
  bool Transform(const IDataArray<Vec<3, double>>& points) const override;
  bool Transform(const IDataArray<Vec<2, double>>& points) const override;
  bool Transform(Vec<3, double>& p) const override;
  bool Transform(double& x, double& y, double& z) const override;
  bool Transform(double& x, double& y) const override;

private:
  std::vector<std::shared_ptr<const ITransform>> members_;
};

}  // namespace kel
