#include "city/textures.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "city/clock.h"

namespace city {
namespace {

// Thread CPU time: shares that hold on a busy machine.
struct Clock {
  using time_point = double;
  static double now() { return ThreadSeconds(); }
};
double Since(double t) { return ThreadSeconds() - t; }

std::uint32_t Hash(std::uint32_t x, std::uint32_t y, std::uint32_t seed) {
  std::uint32_t h = x * 0x8DA6B343u ^ y * 0xD8163841u ^ seed * 0xCB1AB31Fu;
  h ^= h >> 15;
  h *= 0x2C1B3C6Du;
  h ^= h >> 12;
  h *= 0x297A2D39u;
  return h ^ (h >> 15);
}

// Per-pixel grain of +-amount.
int Grain(int x, int y, int seed, int amount) {
  return int(Hash(std::uint32_t(x), std::uint32_t(y), std::uint32_t(seed)) % std::uint32_t(2 * amount + 1)) - amount;
}

std::uint8_t Clamp(int v) { return std::uint8_t(std::clamp(v, 0, 255)); }

void Put(kel::IImage& img, int x, int y, int r, int g, int b, int a) {
  std::uint8_t* p = img.lineData(std::uint64_t(y), 0) + 4 * x;
  p[0] = Clamp(r);
  p[1] = Clamp(g);
  p[2] = Clamp(b);
  p[3] = Clamp(a);
}

int SizesBetween(int smallest, int largest) {
  int n = 0;
  for (int s = smallest; s <= largest; s *= 2) ++n;
  return n;
}

std::wstring Fraction(float v) {
  wchar_t buf[32];
  std::swprintf(buf, 32, L"%.6f", double(v));
  return buf;
}

}  // namespace

const std::vector<BuildingStyle>& Styles() {
  // Row 0 of a facade texture is the bottom of a floor (v = 0).
  static const std::vector<BuildingStyle> styles = {
      {"plaster", {226, 214, 190}, {70, 85, 100}, {245, 245, 240}, {168, 72, 48}, 255, 2, 2, 6.0, 6.0, 6.0, 1},
      {"brick", {150, 70, 50}, {60, 70, 85}, {230, 225, 215}, {80, 80, 90}, 255, 2, 2, 6.0, 6.0, 6.0, 1},
      {"timber", {235, 225, 200}, {80, 90, 100}, {90, 60, 40}, {140, 60, 40}, 255, 2, 2, 5.0, 5.6, 6.0, 1},
      {"office", {170, 170, 165}, {50, 65, 80}, {120, 120, 120}, {150, 150, 145}, 255, 4, 2, 8.0, 7.0, 10.0, 0},
      {"glass", {90, 110, 125}, {110, 150, 180}, {60, 70, 80}, {130, 135, 140}, 150, 4, 2, 8.0, 7.0, 10.0, 2},
      {"industrial", {175, 180, 185}, {90, 100, 110}, {140, 140, 140}, {120, 125, 130}, 255, 2, 1, 12.0, 6.0, 12.0, 2},
      {"modern", {240, 240, 235}, {40, 50, 60}, {200, 200, 200}, {90, 130, 70}, 255, 3, 2, 7.5, 7.0, 8.0, 3},
      {"sandstone", {210, 190, 150}, {70, 75, 85}, {190, 170, 130}, {120, 110, 100}, 255, 3, 2, 7.5, 7.0, 8.0, 0},
  };
  return styles;
}

SurfaceStyle SurfaceOf(const BuildingStyle& s, const AtlasRect& facade, const AtlasRect& roof) {
  SurfaceStyle out;
  out.facade = facade;
  out.roof = roof;
  out.bayWidth = s.repeatWidth;
  out.floorHeight = s.repeatHeight;
  out.roofRepeat = s.roofRepeat;
  return out;
}

std::shared_ptr<kel::IImage> FacadeTexture(const BuildingStyle& s, int size) {
  auto img = kel::ImageUtil::CreateImage(std::uint64_t(size), std::uint64_t(size), kel::IImage::RGBA, 1);
  const double cw = double(size) / s.columns, ch = double(size) / s.rows;
  const int seed = int(s.wall[0]) * 7 + s.columns;
  const bool industrial = s.columns == 2 && s.rows == 1;
  for (int y = 0; y < size; ++y)
    for (int x = 0; x < size; ++x) {
      // Position inside the window bay, 0..1 each way.
      const double fx = std::fmod(x + 0.5, cw) / cw, fy = std::fmod(y + 0.5, ch) / ch;
      const double wx0 = s.windowAlpha < 255 ? 0.06 : 0.28, wx1 = 1 - wx0;
      const double wy0 = s.windowAlpha < 255 ? 0.12 : 0.3, wy1 = s.windowAlpha < 255 ? 0.94 : 0.82;
      const double frame = 0.045;
      const int g = Grain(x, y, seed, 6);
      if (fx > wx0 && fx < wx1 && fy > wy0 && fy < wy1) {
        const bool inFrame = fx < wx0 + frame || fx > wx1 - frame || fy < wy0 + frame || fy > wy1 - frame ||
                             std::fabs(fx - 0.5) < frame / 2;
        if (inFrame) {
          Put(*img, x, y, s.frame[0] + g, s.frame[1] + g, s.frame[2] + g, 255);
        } else {
          // Sky reflected: brighter towards the top of each pane.
          const int sky = int(40 * (fy - wy0) / (wy1 - wy0));
          Put(*img, x, y, s.window[0] + sky, s.window[1] + sky, s.window[2] + sky, s.windowAlpha);
        }
      } else {
        int shade = g;
        if (industrial) shade += (x % 6 < 3) ? 10 : -10;  // corrugated sheet
        if (fy < 0.04) shade -= 18;                          // floor band
        Put(*img, x, y, s.wall[0] + shade, s.wall[1] + shade, s.wall[2] + shade, 255);
      }
    }
  return img;
}

std::shared_ptr<kel::IImage> RoofTexture(const BuildingStyle& s, int size) {
  auto img = kel::ImageUtil::CreateImage(std::uint64_t(size), std::uint64_t(size), kel::IImage::RGBA, 1);
  const int seed = int(s.roof[0]) * 13 + s.roofPattern;
  const int rowsOfTiles = std::max(2, size / 8);
  for (int y = 0; y < size; ++y)
    for (int x = 0; x < size; ++x) {
      int shade = 0;
      switch (s.roofPattern) {
        case 1: {  // clay or slate tiles: rows, each tile darker at its lower edge
          const double f = std::fmod(double(y) * rowsOfTiles / size, 1.0);
          const int column = int(double(x) * rowsOfTiles / size + ((y * rowsOfTiles / size) % 2) * 0.5);
          shade = int(-30 * (1 - f)) + Grain(column, y * rowsOfTiles / size, seed, 8);
          if (std::fmod(double(x) * rowsOfTiles / size + ((y * rowsOfTiles / size) % 2) * 0.5, 1.0) < 0.08) shade -= 25;
          break;
        }
        case 2:  // standing seams
          shade = (x % std::max(4, size / 8) == 0) ? 30 : Grain(x, y, seed, 3);
          break;
        case 3:  // planted
          shade = Grain(x / 2, y / 2, seed, 22);
          break;
        default:  // gravel
          shade = Grain(x, y, seed, 16);
      }
      Put(*img, x, y, s.roof[0] + shade, s.roof[1] + shade, s.roof[2] + shade, 255);
    }
  return img;
}

TextureLibrary::TextureLibrary(int smallest, int largest) : smallest_(smallest), largest_(largest) {
  const int sizes = SizesBetween(smallest, largest);
  for (const BuildingStyle& s : Styles())
    for (int i = 0, cell = smallest; i < sizes; ++i, cell *= 2) {
      const int edge = cell - 2 * Gutter(cell);
      facades_.push_back(FacadeTexture(s, edge));
      roofs_.push_back(RoofTexture(s, edge));
    }
}

std::size_t TextureLibrary::slot(int style, int cell) const {
  int i = 0;
  for (int c = smallest_; c < cell && c < largest_; c *= 2) ++i;
  return std::size_t(style) * std::size_t(SizesBetween(smallest_, largest_)) + std::size_t(i);
}

const kel::IImage& TextureLibrary::facade(int style, int cell) const { return *facades_[slot(style, cell)]; }
const kel::IImage& TextureLibrary::roof(int style, int cell) const { return *roofs_[slot(style, cell)]; }

AtlasLayout::AtlasLayout(std::vector<int> styles, int cell) : styles_(std::move(styles)), cell_(cell) {
  std::sort(styles_.begin(), styles_.end());
  styles_.erase(std::unique(styles_.begin(), styles_.end()), styles_.end());
  const std::size_t cells = std::max<std::size_t>(2 * styles_.size(), 1);
  while (std::size_t(columns_) * std::size_t(rows_) < cells) (columns_ <= rows_ ? columns_ : rows_) *= 2;
}

int AtlasLayout::indexOf(int style) const {
  const auto it = std::lower_bound(styles_.begin(), styles_.end(), style);
  if (it == styles_.end() || *it != style) throw std::logic_error("style not in the atlas");
  return int(it - styles_.begin());
}

AtlasRect AtlasLayout::rect(int cellIndex) const {
  const int g = TextureLibrary::Gutter(cell_);
  const float w = float(width()), h = float(height());
  return {float(cellX(cellIndex) + g) / w, float(cellY(cellIndex) + g) / h, float(cell_ - 2 * g) / w,
          float(cell_ - 2 * g) / h};
}

EncodedAtlas EncodeAtlas(const AtlasLayout& layout, const TextureLibrary& library) {
  EncodedAtlas out;
  auto t0 = Clock::now();
  const int W = layout.width(), H = layout.height(), cell = layout.cell(), g = TextureLibrary::Gutter(cell);
  auto atlas = kel::ImageUtil::CreateImage(std::uint64_t(W), std::uint64_t(H), kel::IImage::RGBA, 1);
  // Unused cells opaque grey: a transparent hole would force DXT5 on every atlas.
  for (int y = 0; y < H; ++y) {
    std::uint8_t* row = atlas->lineData(std::uint64_t(y), 0);
    for (int x = 0; x < W; ++x) row[4 * x] = row[4 * x + 1] = row[4 * x + 2] = 128, row[4 * x + 3] = 255;
  }
  const int cells = int(layout.styles().size()) * 2;
  for (int i = 0; i < cells; ++i) {
    const int style = layout.styles()[std::size_t(i / 2)];
    const kel::IImage& tex = i % 2 ? library.roof(style, cell) : library.facade(style, cell);
    const int t = int(tex.width());
    const int x0 = layout.cellX(i), y0 = layout.cellY(i);
    for (int y = 0; y < cell; ++y) {
      // The gutter repeats the opposite edge: textures tile seamlessly. A
      // cell is the texture (t) with g pixels of gutter each side, so a row
      // is the texture's last g pixels, the whole row, its first g pixels.
      const int sy = ((y - g) % t + t) % t;
      const std::uint8_t* src = tex.lineData(std::uint64_t(sy), 0);
      std::uint8_t* dst = atlas->lineData(std::uint64_t(y0 + y), 0) + 4 * x0;
      std::memcpy(dst, src + 4 * (t - g), 4 * std::size_t(g));
      std::memcpy(dst + 4 * g, src, 4 * std::size_t(t));
      std::memcpy(dst + 4 * (g + t), src, 4 * std::size_t(g));
    }
  }
  const kel::IImage::Format format =
      kel::ImageUtil::ComputeAlphaHint(*atlas) == kel::ImageUtil::AlphaOpaque ? kel::IImage::DXT1 : kel::IImage::DXT5;
  std::vector<std::shared_ptr<kel::IImage>> levels;
  kel::ImageUtil::CreateMipmapSequence(levels, atlas, kel::IImage::RGBA, false, nullptr);
  // Levels below a 4 x 4 block have no room of their own in the image layout.
  std::size_t keep = 0;
  while (keep < levels.size() && levels[keep]->width() >= 4 && levels[keep]->height() >= 4) ++keep;
  levels.resize(std::max<std::size_t>(keep, 1));
  out.drawSeconds = Since(t0);

  t0 = Clock::now();
  auto image = kel::ImageUtil::CreateImage(std::uint64_t(W), std::uint64_t(H), format, levels.size());
  for (std::size_t l = 0; l < levels.size(); ++l) {
    auto dxt = kel::ImageUtil::CompressImage(levels[l], format);
    const std::uint64_t bytes = kel::IImage::SizeInBytes(dxt->width(), dxt->height(), format, 1);
    std::memcpy(image->lineData(0, l), dxt->lineData(0, 0), bytes);
  }
  out.dxtSeconds = Since(t0);
  out.image = image;
  return out;
}

void WriteAtlasInfo(const std::wstring& path, const std::wstring& imageName, const AtlasLayout& layout,
                    const kel::IImage& image) {
  const int g = TextureLibrary::Gutter(layout.cell());
  std::wstring xml = L"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  xml += L"<atlas image=\"" + imageName + L"\" width=\"" + std::to_wstring(image.width()) + L"\" height=\"" +
         std::to_wstring(image.height()) + L"\" format=\"" + (image.format() == kel::IImage::DXT5 ? L"DXT5" : L"DXT1") +
         L"\" mipLevels=\"" + std::to_wstring(image.mipLevels()) + L"\" cell=\"" + std::to_wstring(layout.cell()) +
         L"\" gutter=\"" + std::to_wstring(g) + L"\">\n";
  for (std::size_t i = 0; i < layout.styles().size(); ++i) {
    const int style = layout.styles()[i];
    for (int kind = 0; kind < 2; ++kind) {
      const AtlasRect r = kind ? layout.roof(style) : layout.facade(style);
      const int cellIndex = int(2 * i) + kind;
      xml += L"  <texture style=\"" + kel::Utf8String2WString(Styles()[std::size_t(style)].name) + L"\" kind=\"" +
             (kind ? L"roof" : L"facade") + L"\" x=\"" + std::to_wstring(layout.cellX(cellIndex) + g) + L"\" y=\"" +
             std::to_wstring(layout.cellY(cellIndex) + g) + L"\" size=\"" + std::to_wstring(layout.cell() - 2 * g) +
             L"\" u=\"" + Fraction(r.x) + L"\" v=\"" + Fraction(r.y) + L"\" du=\"" + Fraction(r.w) + L"\" dv=\"" +
             Fraction(r.h) + L"\"/>\n";
    }
  }
  xml += L"</atlas>\n";
  kel::AtomicFile file(path);
  file.write(kel::WString2Utf8String(xml));
  file.commit(kel::AtomicFile::Sync::Unsynced);
}

}  // namespace city
