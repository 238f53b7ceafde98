#include "kel/srs/transform.h"

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "kel/geometry/geometry_buffer.h"

namespace kel {
namespace {

using Box2 = BBox<2, double>;
using Box3 = BBox<3, double>;

constexpr double kInf = std::numeric_limits<double>::infinity();

// Moves points by (dx, dy, dz) and refuses those with y at or above `failAtY`.
class Shift final : public ITransform {
public:
  explicit Shift(double dx, double dy = 0, double dz = 0, double failAtY = kInf)
      : dx_(dx), dy_(dy), dz_(dz), failAtY_(failAtY) {}
  using ITransform::Transform;
  bool Transform(double& x, double& y, double& z) const override {
    if (!Transform(x, y)) return false;
    z += dz_;
    return true;
  }
  bool Transform(double& x, double& y) const override {
    if (y >= failAtY_) return false;
    x += dx_;
    y += dy_;
    return true;
  }

private:
  double dx_, dy_, dz_, failAtY_;
};

Mat4d Rows(std::initializer_list<double> rowMajor) {
  Mat4d m;
  auto it = rowMajor.begin();
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) m(r, c) = *it++;
  return m;
}

TEST(MatrixTransform, AgreesWithHomogeneousProductOnRandomMatrices) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-3, 3);
  for (int i = 0; i < 200; ++i) {
    Mat4d m;
    for (double& e : m.m) e = u(rng);
    m(3, 3) += 10;  // keep w away from zero
    const MatrixTransform t(m);
    Vec3d p(u(rng), u(rng), u(rng));
    const Vec3d expect = TransformPoint(m, p);
    ASSERT_TRUE(t.Transform(p));
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(p[k], expect[k], 1e-12 * (1 + std::fabs(expect[k])));
    // The 2D form transforms (x, y, 0) and leaves nothing else behind.
    Vec2d q(expect.x(), expect.y());
    double x = q.x(), y = q.y();
    ASSERT_TRUE(t.Transform(q));
    ASSERT_TRUE(t.Transform(x, y));
    const Vec3d flat = TransformPoint(m, Vec3d(expect.x(), expect.y(), 0.0));
    EXPECT_NEAR(q.x(), flat.x(), 1e-12 * (1 + std::fabs(flat.x())));
    EXPECT_EQ(q, Vec2d(x, y));
    Mat4d back;
    t.getMatrix(back);
    EXPECT_EQ(back, m);
  }
}

TEST(MatrixTransform, ZeroWGivesNonFiniteOutputAndStillSucceeds) {
  // Bottom row (1, 0, 0, 0): w = x.
  const MatrixTransform t(Rows({1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0}));
  Vec3d p(0, 2, 3);
  EXPECT_TRUE(t.Transform(p));
  EXPECT_FALSE(std::isfinite(p.y()));
  Vec3d q(2, 4, 6);
  EXPECT_TRUE(t.Transform(q));
  EXPECT_EQ(q, Vec3d(1, 2, 3));
}

TEST(ITransform, BoxIsTheHullOfItsTransformedCornersOnly) {
  const double c = std::sqrt(0.5);
  const MatrixTransform rotate(Rows({c, -c, 0, 0, c, c, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}));
  BBox<2, double> box(Vec2d(0, 0), Vec2d(1, 1));
  EXPECT_TRUE(rotate.Transform(box));
  EXPECT_NEAR(box.min.x(), -c, 1e-15);
  EXPECT_NEAR(box.max.x(), c, 1e-15);
  EXPECT_NEAR(box.min.y(), 0, 1e-15);
  EXPECT_NEAR(box.max.y(), 2 * c, 1e-15);

  BBox<3, double> cube(Vec3d(0, 0, 0), Vec3d(1, 1, 2));
  EXPECT_TRUE(rotate.Transform(cube));
  EXPECT_NEAR(cube.max.y(), 2 * c, 1e-15);
  EXPECT_EQ(cube.min.z(), 0);
  EXPECT_EQ(cube.max.z(), 2);
}

TEST(ITransform, BoxAfterAFailedCornerTakesTheRestUntransformed) {
  // Corners go (min,min), (min,max), (max,min), (max,max); the second fails.
  const Shift shift(100, 0, 0, /*failAtY=*/5);
  BBox<2, double> box(Vec2d(0, 0), Vec2d(1, 10));
  EXPECT_FALSE(shift.Transform(box));
  EXPECT_EQ(box, Box2(Vec2d(0, 0), Vec2d(100, 10)));  // (100,0) and the raw three

  // In 3D z is innermost, so the first two corners share (min x, min y).
  BBox<3, double> cube(Vec3d(0, 0, 0), Vec3d(1, 10, 1));
  EXPECT_FALSE(shift.Transform(cube));
  EXPECT_EQ(cube, Box3(Vec3d(0, 0, 0), Vec3d(100, 10, 1)));
}

TEST(ITransform, ArrayWalkStopsTransformingAtTheFirstFailure) {
  const Shift shift(1, 0, 0, /*failAtY=*/5);
  std::vector<Vec2d> pts{{0, 0}, {0, 1}, {0, 7}, {0, 2}};
  EXPECT_FALSE(shift.Transform(MakeDataArray(pts)));
  EXPECT_EQ(pts, (std::vector<Vec2d>{{1, 0}, {1, 1}, {0, 7}, {0, 2}}));
  std::vector<Vec3d> pts3{{0, 0, 0}, {0, 9, 0}, {0, 1, 0}};
  EXPECT_FALSE(shift.Transform(MakeDataArray(pts3)));
  EXPECT_EQ(pts3, (std::vector<Vec3d>{{1, 0, 0}, {0, 9, 0}, {0, 1, 0}}));
  std::vector<Vec2d> none;
  EXPECT_TRUE(shift.Transform(MakeDataArray(none)));
}

TEST(CompositeTransform, AppliesMembersInOrderAndWalksArraysMemberMajor) {
  CompositeTransform chain;
  chain.add(std::make_shared<MatrixTransform>(Rows({2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 1})));
  chain.add(std::make_shared<Shift>(1, 1, 1, /*failAtY=*/9));
  Vec3d p(1, 2, 3);
  EXPECT_TRUE(chain.Transform(p));
  EXPECT_EQ(p, Vec3d(3, 5, 7));  // scale first, then shift

  // The second member fails on the second point (y doubled to 10): the
  // whole array has been scaled, only the first point shifted.
  std::vector<Vec2d> pts{{1, 1}, {1, 5}, {1, 2}};
  EXPECT_FALSE(chain.Transform(MakeDataArray(pts)));
  EXPECT_EQ(pts, (std::vector<Vec2d>{{3, 3}, {2, 10}, {2, 4}}));

  // A failing point keeps what the members before the failure made of it.
  double x = 1, y = 5;
  EXPECT_FALSE(chain.Transform(x, y));
  EXPECT_EQ(Vec2d(x, y), Vec2d(2, 10));

  // Boxes go corner by corner through the whole chain.
  BBox<2, double> box(Vec2d(0, 0), Vec2d(1, 1));
  EXPECT_TRUE(chain.Transform(box));
  EXPECT_EQ(box, Box2(Vec2d(1, 1), Vec2d(3, 3)));
}

TEST(CompositeTransform, EmptyChainChangesNothingAndSucceeds) {
  const CompositeTransform empty;
  Vec3d p(1, 2, 3);
  Vec2d q(4, 5);
  double x = 6, y = 7, z = 8;
  BBox<2, double> box(Vec2d(0, 0), Vec2d(1, 1));
  std::vector<Vec3d> pts{{1, 1, 1}};
  EXPECT_TRUE(empty.Transform(p) && empty.Transform(q) && empty.Transform(x, y, z) && empty.Transform(x, y) &&
              empty.Transform(box) && empty.Transform(MakeDataArray(pts)));
  EXPECT_EQ(p, Vec3d(1, 2, 3));
  EXPECT_EQ(q, Vec2d(4, 5));
  EXPECT_EQ(Vec3d(x, y, z), Vec3d(6, 7, 8));
  EXPECT_EQ(box, Box2(Vec2d(0, 0), Vec2d(1, 1)));
  EXPECT_EQ(pts[0], Vec3d(1, 1, 1));
}

// A polyline of three points, z = 0, 1, 2, with its bounds computed.
GeometryBuffer Line(double y0, double y1, double y2) {
  GeometryBuffer g(3, FdoDimensionality_XYZ, false);
  g.MoveTo(0, y0, 0);
  g.LineTo(1, y1, 1);
  g.LineTo(2, y2, 2);
  g.RecomputeBBox();
  return g;
}

TEST(ITransform, GeometryWalkStopsAtTheFirstFailureButRecomputesTheBounds) {
  const Shift shift(10, 0, 100, /*failAtY=*/5);
  GeometryBuffer g = Line(0, 7, 1);
  EXPECT_FALSE(shift.Transform(g));
  EXPECT_EQ(g.GetPoint(0), Vec3d(10, 0, 100));
  EXPECT_EQ(g.GetPoint(1), Vec3d(1, 7, 1));
  EXPECT_EQ(g.GetPoint(2), Vec3d(2, 1, 2));
  EXPECT_EQ(g.GetBBox3d(), Box3(Vec3d(1, 0, 1), Vec3d(10, 7, 100)));
  GeometryBuffer empty(0, FdoDimensionality_XY, false);
  EXPECT_TRUE(shift.Transform(empty));
}

TEST(CompositeTransform, GeometryFailingInTheSecondMemberKeepsTheFirstAndTheOldBounds) {
  CompositeTransform chain;
  chain.add(std::make_shared<Shift>(0, 2, 0));
  chain.add(std::make_shared<Shift>(5, 0, 0, /*failAtY=*/4));
  GeometryBuffer g = Line(0, 1, 2);  // the third point reaches y = 4 after the first member
  const Box3 before = g.GetBBox3d();
  EXPECT_FALSE(chain.Transform(g));
  EXPECT_EQ(g.GetPoint(0), Vec3d(5, 2, 0));
  EXPECT_EQ(g.GetPoint(1), Vec3d(6, 3, 1));
  EXPECT_EQ(g.GetPoint(2), Vec3d(2, 4, 2));
  EXPECT_EQ(g.GetBBox3d(), before);

  // Success, and the empty chain, recompute the bounds.
  GeometryBuffer h = Line(0, 1, 2);
  h.SetPoint(0, Vec3d(-50, 0, 0));  // SetPoint leaves the bounds stale
  EXPECT_TRUE(CompositeTransform().Transform(h));
  EXPECT_EQ(h.GetBBox3d().min.x(), -50);
  GeometryBuffer k = Line(0, 1, 1.5);
  EXPECT_TRUE(chain.Transform(k));
  EXPECT_EQ(k.GetBBox3d(), Box3(Vec3d(5, 2, 0), Vec3d(7, 3.5, 2)));
}

}  // namespace
}  // namespace kel
