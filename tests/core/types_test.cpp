#include "kel/core/types.h"

#include <vector>

#include <gtest/gtest.h>

#include "kel/core/enumerate.h"

namespace kel {
namespace {

TEST(BBox, EmptyBoxTakesTheFirstPointAsBothCorners) {
  BBox<3, double> box;
  EXPECT_TRUE(box.isEmpty());
  EXPECT_EQ(box.min.x(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(box.max.z(), -std::numeric_limits<double>::infinity());
  box.extend(Vec3d(1, 2, 3));
  EXPECT_FALSE(box.isEmpty());
  EXPECT_EQ(box.min, Vec3d(1, 2, 3));
  EXPECT_EQ(box.max, Vec3d(1, 2, 3));
  box.extend(Vec3d(-1, 5, 0));
  EXPECT_EQ(box.min, Vec3d(-1, 2, 0));
  EXPECT_EQ(box.max, Vec3d(1, 5, 3));
  EXPECT_TRUE(box.contains(Vec3d(1, 5, 3)));
  EXPECT_FALSE(box.contains(Vec3d(1.01, 5, 3)));
}

TEST(BBox, IntegerBoxUsesTheTypeLimitsAsEmpty) {
  BBox<2, int> box;
  EXPECT_TRUE(box.isEmpty());
  box.extend(Vec<2, int>(-3, 4));
  box.extend(BBox<2, int>());  // an empty box adds nothing
  EXPECT_EQ(box.min, (Vec<2, int>(-3, 4)));
  EXPECT_EQ(box.max, (Vec<2, int>(-3, 4)));
}

TEST(Mat, IsColumnMajorAndDividesByW) {
  Mat4d m = Mat4d::Identity();
  m(0, 3) = 10;  // translation x lives at column 3, row 0
  EXPECT_EQ(m[12], 10);
  m(3, 3) = 2;   // w = 2 halves the result
  const Vec3d p = TransformPoint(m, Vec3d(2, 4, 6));
  EXPECT_EQ(p, Vec3d(6, 2, 3));
  Mat4d t = Mat4d::Identity();
  t(1, 3) = 5;
  EXPECT_EQ(TransformPoint(t * Mat4d::Identity(), Vec3d(0, 0, 0)), Vec3d(0, 5, 0));
}

TEST(Enumerate, PushBackAdapterCollectsEverything) {
  std::vector<int> out;
  EnumerateIntoPushBackContainer<std::vector<int>> sink(out);
  IEnumerate<int>& base = sink;
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(base.push(i));
  EXPECT_EQ(out, (std::vector<int>{0, 1, 2}));
}

TEST(DataArray, ConstViewStillWritesElements) {
  std::vector<int> values{1, 2, 3};
  const IDataArray<int> view = MakeDataArray(values);
  for (int& v : view) v *= 10;
  EXPECT_EQ(values, (std::vector<int>{10, 20, 30}));
  EXPECT_EQ(view.count, 3u);
}

}  // namespace
}  // namespace kel
