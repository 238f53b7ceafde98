// Facade and roof textures drawn procedurally per building style, and the
// per-tile texture atlas: the styles a tile uses, each texture in a square
// cell with a gutter of wrapped pixels (so mip levels and bilinear
// filtering never bleed a neighbour in), a mip chain, DXT1 for opaque
// atlases and DXT5 when a style has see-through glazing, saved as DDS.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "city/mesh.h"
#include "city/model.h"

namespace city {

// RGBA, size x size pixels, seamless in both directions.
std::shared_ptr<kel::IImage> FacadeTexture(const BuildingStyle& style, int size);
std::shared_ptr<kel::IImage> RoofTexture(const BuildingStyle& style, int size);

// Every style's textures at every cell size the build uses, drawn once and
// shared read-only by all tile workers.
class TextureLibrary {
public:
  // Cell sizes are powers of two from `smallest` to `largest`.
  TextureLibrary(int smallest, int largest);
  // Texture edge inside a cell of `cell` pixels (the rest is gutter).
  static int Gutter(int cell) { return cell >= 32 ? cell / 32 : 1; }
  const kel::IImage& facade(int style, int cell) const;
  const kel::IImage& roof(int style, int cell) const;

private:
  int smallest_, largest_;
  std::vector<std::shared_ptr<kel::IImage>> facades_, roofs_;  // [style * sizes + size index]
  std::size_t slot(int style, int cell) const;
};

// The layout of one tile's atlas: for each style used, a facade cell and a
// roof cell of `cell` pixels, in a grid whose sides are powers of two.
class AtlasLayout {
public:
  AtlasLayout(std::vector<int> styles, int cell);
  int width() const { return columns_ * cell_; }
  int height() const { return rows_ * cell_; }
  int cell() const { return cell_; }
  const std::vector<int>& styles() const { return styles_; }
  // Where a style's texture lies, as fractions of the atlas (gutter excluded).
  AtlasRect facade(int style) const { return rect(2 * indexOf(style)); }
  AtlasRect roof(int style) const { return rect(2 * indexOf(style) + 1); }
  // Pixel origin of cell i (gutter included).
  int cellX(int i) const { return (i % columns_) * cell_; }
  int cellY(int i) const { return (i / columns_) * cell_; }

private:
  int indexOf(int style) const;
  AtlasRect rect(int cellIndex) const;
  std::vector<int> styles_;
  int cell_, columns_ = 1, rows_ = 1;
};

struct EncodedAtlas {
  std::shared_ptr<kel::IImage> image;  // DXT1 or DXT5 with its mip chain
  double drawSeconds = 0;  // composing the atlas and its mip levels
  double dxtSeconds = 0;   // DXT encoding alone
};

// Composes the atlas from the library's textures, builds the mip chain down
// to 4 x 4 and encodes every level (DXT5 when any pixel is see-through).
EncodedAtlas EncodeAtlas(const AtlasLayout& layout, const TextureLibrary& library);

// atlasInfo.xml: the image's name, size, format and each style's facade and
// roof rectangle, in pixels and as fractions. Written atomically but not
// flushed: the build syncs the whole cache once at the end.
void WriteAtlasInfo(const std::wstring& path, const std::wstring& imageName, const AtlasLayout& layout,
                    const kel::IImage& image);

}  // namespace city
