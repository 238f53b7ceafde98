// Colour blending, progressions and the colour text form.
#include "kel/image/color.h"

#include <algorithm>
#include <cmath>

namespace kel {
namespace {

struct Hsva {
  double h, s, v, a;  // h in degrees [0, 360), the rest in 0..1
};

Hsva ToHsv(const Color4B& c) {
  const double r = c.r / 255.0, g = c.g / 255.0, b = c.b / 255.0;
  const double mx = std::max({r, g, b}), mn = std::min({r, g, b});
  const double delta = mx - mn;
  Hsva out{0.0, 0.0, mx, c.a / 255.0};
  if (delta == 0.0) return out;
  out.s = delta / mx;
  double h;
  if (r == mx) h = (g - b) / delta;
  else if (g == mx) h = (b - r) / delta + 2.0;
  else h = (r - g) / delta + 4.0;
  out.h = 60.0 * h;
  if (out.h < 0.0) out.h += 360.0;
  return out;
}

// R, G, B in 0..1 from HSV (alpha untouched by the caller).
void FromHsv(double hue, double s, double v, double rgb[3]) {
  if (!(s > 0.0)) {
    rgb[0] = rgb[1] = rgb[2] = v;
    return;
  }
  const double h = hue / 60.0;
  const double i = std::floor(h);
  const double f = h - i;
  const double p = v * (1.0 - s), q = v * (1.0 - f * s), t = v * (1.0 - (1.0 - f) * s);
  switch (static_cast<int>(i)) {
    case 0: rgb[0] = v, rgb[1] = t, rgb[2] = p; break;
    case 1: rgb[0] = q, rgb[1] = v, rgb[2] = p; break;
    case 2: rgb[0] = p, rgb[1] = v, rgb[2] = t; break;
    case 3: rgb[0] = p, rgb[1] = q, rgb[2] = v; break;
    case 4: rgb[0] = t, rgb[1] = p, rgb[2] = v; break;
    default: rgb[0] = v, rgb[1] = p, rgb[2] = q; break;
  }
}

std::uint8_t TruncByte(double unit) {
  const double v = unit * 255.0;
  if (!(v > 0.0)) return 0;
  return v >= 255.0 ? 255 : static_cast<std::uint8_t>(v);
}

std::uint8_t RoundByte(double v) {
  if (!(v > 0.0)) return 0;
  return v >= 255.0 ? 255 : static_cast<std::uint8_t>(std::lround(v));
}

int HexDigit(wchar_t c) {
  if (c >= L'0' && c <= L'9') return c - L'0';
  if (c >= L'a' && c <= L'f') return c - L'a' + 10;
  if (c >= L'A' && c <= L'F') return c - L'A' + 10;
  return -1;
}

bool HexPair(const std::wstring& text, std::size_t at, std::uint8_t& out) {
  const int hi = HexDigit(text[at]), lo = HexDigit(text[at + 1]);
  if (hi < 0 || lo < 0) return false;
  out = static_cast<std::uint8_t>(hi * 16 + lo);
  return true;
}

}  // namespace

Color4B ColorUtil::HSVBlending(const Color4B& a, const Color4B& b) {
  const Color4B none{};
  if (a == none) return b;
  if (b == none) return a;
  const Hsva x = ToHsv(a), y = ToHsv(b);
  double h = (x.h + y.h) / 2.0;
  if (h > 180.0) h = (360.0 - std::max(x.h, y.h) + std::min(x.h, y.h)) / 2.0;
  const double s = (x.s + y.s) / 2.0, v = (x.v + y.v) / 2.0;
  const double alpha = 1.0 - (1.0 - x.a) * (1.0 - y.a);
  double rgb[3];
  FromHsv(h, s, v, rgb);
  return Color4B{TruncByte(rgb[0]), TruncByte(rgb[1]), TruncByte(rgb[2]), TruncByte(alpha)};
}

void ColorUtil::CreateProgressionPalette(IEnumerate<Color4B>& sink, const Color4B& from, const Color4B& to,
                                         unsigned int count, EColorPaletteType type) {
  if (count == 0) return;
  if (count == 1) {
    sink.push(from);
    return;
  }
  const double steps = static_cast<double>(count - 1);
  if (type == PaletteRGBA) {
    const double f[4] = {double(from.r), double(from.g), double(from.b), double(from.a)};
    const double t[4] = {double(to.r), double(to.g), double(to.b), double(to.a)};
    for (unsigned i = 0; i < count; ++i) {
      std::uint8_t c[4];
      for (int k = 0; k < 4; ++k) c[k] = RoundByte(f[k] + (t[k] - f[k]) / steps * i);
      if (!sink.push(Color4B{c[0], c[1], c[2], c[3]})) return;
    }
    return;
  }
  const Hsva f = ToHsv(from), t = ToHsv(to);
  double hueStep = (t.h - f.h) / steps;
  if (type == PaletteHSVIncreasing && f.h > t.h) hueStep = (t.h - f.h + 360.0) / steps;
  if (type == PaletteHSVDecreasing && t.h > f.h) hueStep = -(f.h - t.h + 360.0) / steps;
  for (unsigned i = 0; i < count; ++i) {
    double h = std::fmod(f.h + hueStep * i, 360.0);
    if (h < 0.0) h += 360.0;
    const double s = f.s + (t.s - f.s) / steps * i;
    const double v = f.v + (t.v - f.v) / steps * i;
    const double a = f.a + (t.a - f.a) / steps * i;
    double rgb[3];
    FromHsv(h, s, v, rgb);
    if (!sink.push(Color4B{RoundByte(rgb[0] * 255.0), RoundByte(rgb[1] * 255.0), RoundByte(rgb[2] * 255.0),
                           RoundByte(a * 255.0)}))
      return;
  }
}

std::wstring StringUtils::Color2String(const Color4B& colour) {
  static constexpr wchar_t kDigits[] = L"0123456789ABCDEF";
  std::wstring out = L"xRRGGBBAA";
  const std::uint8_t bytes[4] = {colour.r, colour.g, colour.b, colour.a};
  for (int i = 0; i < 4; ++i) {
    out[1 + 2 * i] = kDigits[bytes[i] >> 4];
    out[2 + 2 * i] = kDigits[bytes[i] & 15];
  }
  return out;
}

bool StringUtils::String2Color(Color4B& out, const std::wstring& text) {
  if (text.size() != 7 && text.size() != 9) return false;
  if (text[0] != L'x' && text[0] != L'#') return false;
  Color4B c{0, 0, 0, 255};
  if (!HexPair(text, 1, c.r) || !HexPair(text, 3, c.g) || !HexPair(text, 5, c.b)) return false;
  if (text.size() == 9 && !HexPair(text, 7, c.a)) return false;
  out = c;
  return true;
}

bool StringUtils::IsColor(const std::wstring& text) {
  Color4B scratch;
  return String2Color(scratch, text);
}

}  // namespace kel
