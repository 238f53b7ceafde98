#include "kel/settings/object_info.h"

#include "kel/settings/property_bag.h"

namespace kel {

std::wstring ObjectInfo::encode() const {
  PropertyBag bag;
  if (classId != InvalidClassID) bag.SetValue(L"class", static_cast<int>(classId));
  if (featureId != InvalidFeatureID) bag.SetValue(L"feature", static_cast<std::int64_t>(featureId));
  if (layerId != InvalidLayerID) bag.SetValue(L"layer", static_cast<int>(layerId));
  if (buildingPart != 0) bag.SetValue(L"part", static_cast<int>(buildingPart));
  if (!materialHint.empty()) bag.SetValue(L"material", materialHint);
  return PropertyBag::Encode(bag);
}

bool ObjectInfo::Decode(const std::wstring& text, ObjectInfo& out) {
  PropertyBag bag;
  if (!PropertyBag::Decode(text, bag)) return false;
  ObjectInfo info;
  int classId = InvalidClassID, layerId = InvalidLayerID, part = 0;
  std::int64_t featureId = InvalidFeatureID;
  if ((bag.Contains(L"class") && !bag.GetValue(L"class", classId)) ||
      (bag.Contains(L"feature") && !bag.GetValue(L"feature", featureId)) ||
      (bag.Contains(L"layer") && !bag.GetValue(L"layer", layerId)) ||
      (bag.Contains(L"part") && !bag.GetValue(L"part", part)))
    return false;
  info.classId = classId;
  info.featureId = featureId;
  info.layerId = layerId;
  info.buildingPart = part;
  bag.GetValue(L"material", info.materialHint);
  out = info;
  return true;
}

}  // namespace kel
