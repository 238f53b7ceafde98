#include "kel/settings/object_info.h"

#include <gtest/gtest.h>

namespace kel {
namespace {

TEST(ObjectInfo, TravelsAsPropertyBagText) {
  ObjectInfo wall;
  wall.classId = 12;
  wall.featureId = 9007199254740993;  // past a double's exact integers
  wall.layerId = 3;
  wall.buildingPart = 2;
  wall.materialHint = L"brick\n#red>";
  EXPECT_TRUE(wall.isValid());
  ObjectInfo back;
  ASSERT_TRUE(ObjectInfo::Decode(wall.encode(), back));
  EXPECT_EQ(back, wall);

  const ObjectInfo none;
  EXPECT_FALSE(none.isValid());
  EXPECT_EQ(none.encode(), L"");
  ASSERT_TRUE(ObjectInfo::Decode(L"", back));
  EXPECT_EQ(back, none);
  EXPECT_EQ(back.layerId, InvalidLayerID);

  ObjectInfo untouched = wall;
  for (const wchar_t* bad : {L"class=twelve", L"feature=1\nno equals", L"layer=99999999999"})
    EXPECT_FALSE(ObjectInfo::Decode(bad, untouched));
  EXPECT_EQ(untouched, wall);
}

}  // namespace
}  // namespace kel
