// What a model object is: its feature class, the feature it was built from,
// its layer, the part of a building it forms and a hint for its material.
// Carried as property-bag text in SFF attributes. Plain value type.
#pragma once

#include <cstdint>
#include <string>

#include "kel/export.h"

namespace kel {

using LayerID = std::int32_t;
using FeatureID = std::int64_t;
using ClassID = std::int32_t;

inline constexpr LayerID InvalidLayerID = -1;
inline constexpr FeatureID InvalidFeatureID = -1;
inline constexpr ClassID InvalidClassID = -1;

struct KEL_API ObjectInfo {
  ClassID classId = InvalidClassID;
  FeatureID featureId = InvalidFeatureID;
  LayerID layerId = InvalidLayerID;
  std::int32_t buildingPart = 0;  // the application's numbering; 0 means none
  std::wstring materialHint;

  // An object belongs to a feature of a class.
  bool isValid() const { return classId != InvalidClassID && featureId != InvalidFeatureID; }

  // Property-bag text with the keys "class", "feature", "layer", "part" and
  // "material"; invalid ids, a zero building part and an empty hint are left out.
  std::wstring encode() const;
  // Reads that text; missing keys keep their invalid defaults. False (out
  // untouched) for text that is no bag or a key that does not parse.
  static bool Decode(const std::wstring& text, ObjectInfo& out);

  friend bool operator==(const ObjectInfo&, const ObjectInfo&) = default;
};

}  // namespace kel
