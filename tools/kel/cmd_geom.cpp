// kel geom: geometry operations on WKT from the command line, point in
// polygon queries, and pictures of what an operation did.
//
// Every INPUT is WKT text or a file holding one WKT geometry per line (blank
// lines are skipped). Results are printed as WKT, one geometry per line.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "commands.h"
#include "options.h"
#include "png_writer.h"

namespace {

namespace fs = std::filesystem;
using kel::GeometryBuffer;
using Geometry = std::shared_ptr<GeometryBuffer>;

std::string Trim(const std::string& s) {
  const auto a = s.find_first_not_of(" \t\r\n");
  if (a == std::string::npos) return "";
  return s.substr(a, s.find_last_not_of(" \t\r\n") - a + 1);
}

std::vector<Geometry> ReadInput(const std::string& input) {
  std::vector<Geometry> out;
  std::error_code ec;
  if (!fs::is_regular_file(input, ec)) {
    // Text that is not WKT is a bad argument: one line from us, not the
    // library's log line as well.
    kel::Log::setSilent(true);
    Geometry g = GeometryBuffer::FromWKT(kel::Utf8String2WString(input));
    kel::Log::setSilent(false);
    if (!g) throw tool::UsageError("neither a file nor WKT: " + input.substr(0, 60));
    out.push_back(g);
    return out;
  }
  std::ifstream in(input);
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    line = Trim(line);
    if (line.empty()) continue;
    Geometry g = GeometryBuffer::FromWKT(kel::Utf8String2WString(line));
    if (!g)
      throw kel::wexception(L"line " + std::to_wstring(number) + L" of " + kel::Utf8String2WString(input) +
                            L" is not WKT");
    out.push_back(g);
  }
  if (out.empty()) throw kel::wexception(L"no geometry in " + kel::Utf8String2WString(input));
  return out;
}

// Every geometry of every input in one buffer (for the operand of subtract
// and the polygon of pip).
Geometry Combine(const std::vector<Geometry>& parts) {
  auto all = std::make_shared<GeometryBuffer>(0, kel::FdoDimensionality_XY, false);
  int single = -1;
  bool z = false;
  for (const Geometry& g : parts) {
    z = z || g->Is3D();
    for (int k = 0; k < g->geometryCount(); ++k) {
      const int t = g->geometryElementType(k);
      single = single == -1 || single == t ? t : 0;
      all->NewGeometry(t);
      for (int c = g->geometryFirstContour(k); c < g->geometryFirstContour(k) + g->geometryContourCount(k); ++c)
        GeometryBuffer::CopyLineBuffer(all.get(), g.get(), c);
    }
  }
  all->SetGeometryType(single > 0 ? kel::MultiGeometryType(single) : kel::FdoGeometryType_MultiGeometry);
  all->SetDimensionality(z ? kel::FdoDimensionality_XYZ : kel::FdoDimensionality_XY, false);
  return all;
}

int PrintWkt(const GeometryBuffer& g) {
  const std::wstring wkt = g.ToWKT();
  if (wkt.empty()) throw kel::wexception(L"the result cannot be written as WKT");
  std::printf("%s\n", kel::WString2Utf8String(wkt).c_str());
  return 0;
}

GeometryBuffer Empty() { return GeometryBuffer(0, kel::FdoDimensionality_XY, false); }

const char* TypeName(int type) {
  switch (type) {
    case kel::FdoGeometryType_Point: return "Point";
    case kel::FdoGeometryType_LineString: return "LineString";
    case kel::FdoGeometryType_Polygon: return "Polygon";
    case kel::FdoGeometryType_MultiPoint: return "MultiPoint";
    case kel::FdoGeometryType_MultiLineString: return "MultiLineString";
    case kel::FdoGeometryType_MultiPolygon: return "MultiPolygon";
    case kel::FdoGeometryType_MultiGeometry: return "MultiGeometry";
    default: return "None";
  }
}

// ---------------------------------------------------------------- commands

struct OneInput {
  std::string input;
  double amount = 0;
  std::vector<double> box;
  bool mitre = false;
};

int RunInfo(const OneInput& a) {
  for (const Geometry& g : ReadInput(a.input)) {
    double area = 0, length = 0;
    for (int c = 0; c < g->contourCount(); ++c) {
      double twice = 0;
      for (int i = g->contourStart(c); i <= g->contourEnd(c); ++i) {
        const int j = i == g->contourEnd(c) ? g->contourStart(c) : i + 1;
        twice += g->x(i) * g->y(j) - g->x(j) * g->y(i);
        if (i < g->contourEnd(c)) length += std::hypot(g->x(i + 1) - g->x(i), g->y(i + 1) - g->y(i));
      }
      area += 0.5 * twice;
    }
    const auto b = g->GetBBox3d();
    std::printf("%s%s: geometries %d, contours %d, points %d\n", TypeName(g->geometryType()), g->Is3D() ? " Z" : "",
                g->geometryCount(), g->contourCount(), g->pointCount());
    if (g->pointCount() > 0)
      std::printf("  bounds (%.10g, %.10g, %.10g) - (%.10g, %.10g, %.10g)\n", b.min.x(), b.min.y(), b.min.z(),
                  b.max.x(), b.max.y(), b.max.z());
    std::printf("  contour length %.10g, signed ring area %.10g\n", length, area);
  }
  return 0;
}

int RunSimplify(const OneInput& a) {
  if (!(a.amount >= 0)) throw tool::UsageError("TOLERANCE must be 0 or more");
  for (const Geometry& g : ReadInput(a.input)) {
    GeometryBuffer out = Empty();
    g->Generalize(&out, a.amount);
    PrintWkt(out);
  }
  return 0;
}

int RunDensify(const OneInput& a) {
  if (!(a.amount > 0)) throw tool::UsageError("LENGTH must be more than 0");
  for (const Geometry& g : ReadInput(a.input)) {
    GeometryBuffer out = Empty();
    if (!g->Tessellate(&out, a.amount)) throw kel::wexception(L"densify failed (too many points?)");
    PrintWkt(out);
  }
  return 0;
}

int RunBuffer(const OneInput& a) {
  for (const Geometry& g : ReadInput(a.input)) {
    GeometryBuffer out = Empty();
    if (a.mitre) {
      GeometryBuffer::OffsetPolygon(&out, g.get(), a.amount);
    } else if (!GeometryBuffer::BufferGeometry(&out, g.get(), a.amount)) {
      throw kel::wexception(L"buffer failed");
    }
    PrintWkt(out);
  }
  return 0;
}

int RunClip(const OneInput& a) {
  const kel::BBox<2, double> box({std::min(a.box[0], a.box[2]), std::min(a.box[1], a.box[3])},
                                 {std::max(a.box[0], a.box[2]), std::max(a.box[1], a.box[3])});
  for (const Geometry& g : ReadInput(a.input)) {
    bool polygons = g->geometryCount() > 0;
    for (int k = 0; k < g->geometryCount(); ++k)
      polygons = polygons && g->geometryElementType(k) == kel::FdoGeometryType_Polygon;
    if (polygons) {
      Geometry out = GeometryBuffer::ClipPoly(g, box);
      if (!out) throw kel::wexception(L"clip failed");
      PrintWkt(*out);
    } else {
      GeometryBuffer out = Empty();
      if (!g->ClipPolyline(&out, box)) throw kel::wexception(L"clip failed");
      PrintWkt(out);
    }
  }
  return 0;
}

struct TwoInputs {
  std::string a, b;
};

int RunSubtract(const TwoInputs& args) {
  const Geometry b = Combine(ReadInput(args.b));
  for (const Geometry& g : ReadInput(args.a)) {
    GeometryBuffer out = Empty();
    if (!GeometryBuffer::SubtractGeometry(&out, g.get(), b.get())) throw kel::wexception(L"subtract failed");
    PrintWkt(out);
  }
  return 0;
}

struct PipArgs {
  std::string polygon, x, y;
};

int RunPip(const PipArgs& a) {
  if (a.x.empty() != a.y.empty()) throw tool::UsageError("give both X and Y, or neither to read points from stdin");
  const kel::PointInPolygonChecker checker(Combine(ReadInput(a.polygon)));
  if (!a.x.empty()) {
    const double x = tool::ParseDouble(a.x, "X"), y = tool::ParseDouble(a.y, "Y");
    std::printf("%s\n", checker.PointInPolygon(kel::Vec2d(x, y)) ? "inside" : "outside");
    return 0;
  }
  std::string line;
  for (int number = 1; std::getline(std::cin, line); ++number) {
    if (Trim(line).empty()) continue;
    std::istringstream words(line);
    double x = 0, y = 0;
    std::string rest;
    if (!(words >> x >> y) || (words >> rest))
      throw kel::wexception(L"stdin line " + std::to_wstring(number) + L" is not \"X Y\"");
    std::printf("%s\n", checker.PointInPolygon(kel::Vec2d(x, y)) ? "inside" : "outside");
  }
  return 0;
}

// ---------------------------------------------------------------- render

struct Canvas {
  int size;
  std::vector<std::uint8_t> rgba;
  double x0, y0, scale;  // world to pixels: px = (x - x0) * scale, py = size - (y - y0) * scale

  void Blend(int px, int py, const std::uint8_t c[3], double alpha) {
    if (px < 0 || py < 0 || px >= size || py >= size) return;
    std::uint8_t* p = &rgba[(std::size_t(py) * std::size_t(size) + std::size_t(px)) * 4];
    for (int k = 0; k < 3; ++k) p[k] = std::uint8_t(std::lround(p[k] * (1 - alpha) + c[k] * alpha));
  }
  double Px(double x) const { return (x - x0) * scale; }
  double Py(double y) const { return size - (y - y0) * scale; }

  void Line(double ax, double ay, double bx, double by, const std::uint8_t c[3]) {
    ax = Px(ax), ay = Py(ay), bx = Px(bx), by = Py(by);
    const int steps = int(std::clamp(std::ceil(std::max(std::abs(bx - ax), std::abs(by - ay))), 1.0, 8.0 * size));
    for (int s = 0; s <= steps; ++s) {
      const double t = double(s) / steps;
      Blend(int(std::floor(ax + (bx - ax) * t)), int(std::floor(ay + (by - ay) * t)), c, 1.0);
    }
  }

  // Even-odd fill of one geometry's contours, pixel centres only.
  void Fill(const GeometryBuffer& g, int geometry, const std::uint8_t c[3]) {
    std::vector<std::vector<double>> rows(static_cast<std::size_t>(size));
    const int c0 = g.geometryFirstContour(geometry);
    for (int k = c0; k < c0 + g.geometryContourCount(geometry); ++k)
      for (int i = g.contourStart(k); i <= g.contourEnd(k); ++i) {
        const int j = i == g.contourEnd(k) ? g.contourStart(k) : i + 1;
        const double ya = Py(g.y(i)), yb = Py(g.y(j));
        const int r0 = std::max(0, int(std::ceil(std::min(ya, yb) - 0.5)));
        const int r1 = std::min(size - 1, int(std::ceil(std::max(ya, yb) - 0.5)) - 1);
        for (int r = r0; r <= r1; ++r) {
          const double yc = r + 0.5;
          rows[std::size_t(r)].push_back(Px(g.x(i)) + (Px(g.x(j)) - Px(g.x(i))) * (yc - ya) / (yb - ya));
        }
      }
    for (int r = 0; r < size; ++r) {
      std::vector<double>& xs = rows[std::size_t(r)];
      std::sort(xs.begin(), xs.end());
      for (std::size_t k = 0; k + 1 < xs.size(); k += 2)
        for (int px = std::max(0, int(std::ceil(xs[k] - 0.5))); px <= std::min(size - 1, int(std::ceil(xs[k + 1] - 0.5)) - 1); ++px)
          Blend(px, r, c, 0.35);
    }
  }
};

struct RenderArgs {
  std::vector<std::string> paths;  // inputs, then the picture
  std::int64_t size = 800;
};

int RunRender(const RenderArgs& a) {
  if (a.paths.size() < 2) throw tool::UsageError("need at least one INPUT and OUT.png");
  const std::string out = a.paths.back();
  if (fs::path(out).extension() != ".png") throw tool::UsageError("the picture's name must end in .png: " + out);
  std::vector<std::vector<Geometry>> inputs;
  kel::BBox<2, double> all;
  for (std::size_t i = 0; i + 1 < a.paths.size(); ++i) {
    inputs.push_back(ReadInput(a.paths[i]));
    for (const Geometry& g : inputs.back())
      if (g->pointCount() > 0) all.extend(g->GetBBox2d());
  }
  if (all.isEmpty()) throw kel::wexception(L"nothing to draw");
  Canvas canvas{int(a.size), std::vector<std::uint8_t>(std::size_t(a.size) * std::size_t(a.size) * 4, 255), 0, 0, 1};
  const double span = std::max({all.max.x() - all.min.x(), all.max.y() - all.min.y(), 1e-12});
  canvas.scale = 0.9 * double(a.size) / span;
  canvas.x0 = 0.5 * (all.min.x() + all.max.x()) - 0.5 * a.size / canvas.scale;
  canvas.y0 = 0.5 * (all.min.y() + all.max.y()) - 0.5 * a.size / canvas.scale;
  static const std::uint8_t palette[][3] = {{31, 119, 180}, {214, 39, 40}, {44, 160, 44}, {255, 127, 14},
                                            {148, 103, 189}, {140, 86, 75}, {227, 119, 194}, {23, 190, 207}};
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    const std::uint8_t* c = palette[i % 8];
    for (const Geometry& g : inputs[i])
      for (int k = 0; k < g->geometryCount(); ++k) {
        const bool polygon = g->geometryElementType(k) == kel::FdoGeometryType_Polygon;
        if (polygon) canvas.Fill(*g, k, c);
        for (int cn = g->geometryFirstContour(k); cn < g->geometryFirstContour(k) + g->geometryContourCount(k); ++cn) {
          const int s = g->contourStart(cn), e = g->contourEnd(cn);
          if (s == e) {  // a point: a small square
            for (int dy = -2; dy <= 2; ++dy)
              for (int dx = -2; dx <= 2; ++dx)
                canvas.Blend(int(canvas.Px(g->x(s))) + dx, int(canvas.Py(g->y(s))) + dy, c, 1.0);
            continue;
          }
          for (int p = s; p < e; ++p) canvas.Line(g->x(p), g->y(p), g->x(p + 1), g->y(p + 1), c);
          if (polygon) canvas.Line(g->x(e), g->y(e), g->x(s), g->y(s), c);
        }
      }
  }
  const auto n = std::uint32_t(a.size);
  const std::vector<std::uint8_t> png = cli::EncodePng(canvas.rgba.data(), n, n, std::size_t(n) * 4, 4);
  kel::AtomicFile file(out);
  file.write(png.data(), png.size());
  file.commit();
  std::printf("wrote %s: %u x %u, %zu inputs, world (%.10g, %.10g) - (%.10g, %.10g)\n", out.c_str(), n, n,
              inputs.size(), all.min.x(), all.min.y(), all.max.x(), all.max.y());
  return 0;
}

}  // namespace

void AddGeomCommands(CLI::App& app) {
  CLI::App* group = tool::AddGroup(app, "geom", "geometry operations on WKT, point in polygon, pictures");
  const std::string inputHelp = "WKT text, or a file with one WKT geometry per line";

  auto info = std::make_shared<OneInput>();
  CLI::App* cmd = tool::AddCommand(*group, "info", "type, counts, bounds, length and area of each geometry",
                                   "Prints one summary per geometry: type, geometries, contours and points, the 3D\n"
                                   "bounds, the length of all contours and the signed area of all rings.",
                                   [info] { return RunInfo(*info); });
  cmd->add_option("INPUT", info->input, inputHelp)->required();

  auto simplify = std::make_shared<OneInput>();
  cmd = tool::AddCommand(*group, "simplify", "Douglas-Peucker generalisation",
                         "Keeps each contour's ends and every point farther than TOLERANCE (in 3D) from\n"
                         "the segment between the points kept around it.",
                         [simplify] { return RunSimplify(*simplify); });
  tool::AddNumber(*cmd, "TOLERANCE", simplify->amount, "largest distance a dropped point may have")->required();
  cmd->add_option("INPUT", simplify->input, inputHelp)->required();

  auto densify = std::make_shared<OneInput>();
  cmd = tool::AddCommand(*group, "densify", "split segments longer than LENGTH",
                         "Splits every segment into equal pieces no longer than LENGTH (3D), keeping\n"
                         "every input point.",
                         [densify] { return RunDensify(*densify); });
  tool::AddNumber(*cmd, "LENGTH", densify->amount, "longest segment wanted")->required();
  cmd->add_option("INPUT", densify->input, inputHelp)->required();

  auto buffer = std::make_shared<OneInput>();
  cmd = tool::AddCommand(*group, "buffer", "grow or shrink by a distance",
                         "Round buffer of any geometry (GEOS, 8 segments per quarter circle); a negative\n"
                         "DISTANCE shrinks polygons. With --mitre polygons keep sharp corners instead.",
                         [buffer] { return RunBuffer(*buffer); });
  tool::AddNumber(*cmd, "DISTANCE", buffer->amount, "buffer distance")->required();
  cmd->add_option("INPUT", buffer->input, inputHelp)->required();
  cmd->add_flag("--mitre", buffer->mitre, "mitred corners (polygon offset)");

  auto clip = std::make_shared<OneInput>();
  cmd = tool::AddCommand(*group, "clip", "the parts inside a box",
                         "Polygons are clipped as areas, everything else as lines.",
                         [clip] { return RunClip(*clip); });
  tool::AddNumbers(*cmd, "--box", clip->box, 4, "box X0,Y0,X1,Y1")->required()->type_name("X0,Y0,X1,Y1");
  cmd->add_option("INPUT", clip->input, inputHelp)->required();

  auto subtract = std::make_shared<TwoInputs>();
  cmd = tool::AddCommand(*group, "subtract", "A minus B",
                         "Prints each geometry of A less everything in B.",
                         [subtract] { return RunSubtract(*subtract); });
  cmd->add_option("A", subtract->a, inputHelp)->required();
  cmd->add_option("B", subtract->b, inputHelp)->required();

  auto pip = std::make_shared<PipArgs>();
  cmd = tool::AddCommand(*group, "pip", "is a point inside the polygon?",
                         "Answers \"inside\" or \"outside\" for the point X Y, or, without X and Y, for each\n"
                         "\"X Y\" line on standard input. The rule is even-odd over every ring of every\n"
                         "geometry in POLYGON; large polygons are answered through the paged edge index.",
                         [pip] { return RunPip(*pip); });
  cmd->add_option("POLYGON", pip->polygon, inputHelp)->required();
  cmd->add_option("X", pip->x, "x of the point (optional)");
  cmd->add_option("Y", pip->y, "y of the point (optional)");

  auto render = std::make_shared<RenderArgs>();
  cmd = tool::AddCommand(*group, "render", "draw geometries to a PNG",
                         "Draws every INPUT in its own colour: polygons filled (even-odd) and outlined,\n"
                         "lines as lines, points as small squares; y points up. The picture is written\n"
                         "whole or not at all.",
                         [render] { return RunRender(*render); });
  cmd->add_option("INPUT... OUT.png", render->paths, "inputs, then the picture to write")->required()->expected(2, -1);
  tool::AddInt(*cmd, "--size", render->size, 16, 8192, "picture width and height in pixels (default 800)");
}
