// Colour helpers for styling: blending in HSV, progressions between two
// colours, and the settings text form "xRRGGBBAA" / "#RRGGBB[AA]". Pure
// functions: no allocation beyond the returned strings, no logging, no throw;
// safe from any thread. Malformed text is rejected with false, never UB.
#pragma once

#include <string>

#include "kel/core/enumerate.h"
#include "kel/core/types.h"
#include "kel/export.h"
#include "kel/settings/string_utils.h"  // StringUtils: the colour text functions

namespace kel {

class KEL_API ColorUtil final {
public:
  ColorUtil() = delete;

  enum EColorPaletteType : int {
    PaletteRGBA = 0,          // straight RGBA interpolation
    PaletteHSVIncreasing = 1, // HSV; hue always travels upwards (through 360 -> 0 if needed)
    PaletteHSVDecreasing = 2, // HSV; hue always travels downwards (through 0 -> 360 if needed)
    // Any other value: HSV, hue interpolated directly from `from` to `to`.
  };

  // Mean of two colours in HSV; the all-zero colour counts as "no colour"
  // and yields the other one. Hues whose mean exceeds 180 get half the short
  // arc (not its midpoint), which is the established result.
  static Color4B HSVBlending(const Color4B& a, const Color4B& b);

  // Sends `count` colours from `from` to `to` (both included) to `sink`,
  // stopping early if the sink returns false. count 0 sends nothing; count 1
  // sends `from`. Components are rounded to the nearest byte and clamped.
  static void CreateProgressionPalette(IEnumerate<Color4B>& sink, const Color4B& from, const Color4B& to,
                                       unsigned int count, EColorPaletteType type);
};

}  // namespace kel
