// kel srs: coordinate systems (info, catalogue) and reprojecting points.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "commands.h"
#include "options.h"

namespace {

using kel::Utf8String2WString;
using kel::WString2Utf8String;

std::shared_ptr<kel::SRSCoordSys> System(const std::string& code) {
  auto s = kel::SRSCoordSys::Create(Utf8String2WString(code));
  if (!s) throw std::runtime_error("unknown coordinate system: " + code);
  return s;
}

struct InfoArgs {
  std::string code;
  bool wkt = false;
};

int RunInfo(const InfoArgs& a) {
  const auto s = System(a.code);
  const auto line = [](const char* label, const std::string& value) { std::printf("%-14s %s\n", label, value.c_str()); };
  line("code", s->GetCode().empty() ? "(none: PROJ knows no code for it)" : WString2Utf8String(s->GetCode()));
  line("description", WString2Utf8String(s->GetDescription()));
  line("units", WString2Utf8String(s->GetUnits()));
  std::printf("%-14s %.10g metres per unit%s\n", "unit scale", s->GetUnitScale(),
              s->IsGeographic() ? " (fixed for geographic systems)" : "");
  line("kind", s->IsGeographic() ? "geographic" : s->IsArbitrary() ? "non-earth (arbitrary)" : "projected");
  std::vector<const wchar_t*> categories;
  kel::EnumerateIntoPushBackContainer<std::vector<const wchar_t*>> sink(categories);
  s->GetCategories(sink);
  std::string joined;
  for (const wchar_t* c : categories) joined += (joined.empty() ? "" : ", ") + WString2Utf8String(c);
  line("categories", joined.empty() ? "(none)" : joined);
  const kel::BBox<2, double> area = s->GetBoundary();
  if (area.isEmpty()) {
    line("area of use", "(none)");
  } else {
    const int digits = s->GetPrecision(0);
    std::printf("%-14s %.*f, %.*f to %.*f, %.*f\n", "area of use", digits, area.min.x(), digits, area.min.y(),
                digits, area.max.x(), digits, area.max.y());
  }
  if (a.wkt) std::printf("%s\n", WString2Utf8String(s->GetWkt()).c_str());
  return 0;
}

int RunList(const std::string& category) {
  if (category.empty()) {
    std::vector<const wchar_t*> names;
    kel::EnumerateIntoPushBackContainer<std::vector<const wchar_t*>> sink(names);
    kel::SRSUtils::GetCategories(sink);
    for (const wchar_t* name : names) {
      std::vector<kel::SRSUtils::CoordSysInfo> entries;
      kel::EnumerateIntoPushBackContainer<std::vector<kel::SRSUtils::CoordSysInfo>> list(entries);
      kel::SRSUtils::GetCoordinateSystems(name, list);
      std::printf("%-44s %5zu\n", WString2Utf8String(name).c_str(), entries.size());
    }
    return 0;
  }
  std::vector<kel::SRSUtils::CoordSysInfo> entries;
  kel::EnumerateIntoPushBackContainer<std::vector<kel::SRSUtils::CoordSysInfo>> list(entries);
  kel::SRSUtils::GetCoordinateSystems(Utf8String2WString(category), list);
  if (entries.empty()) throw std::runtime_error("no such category: " + category + " (kel srs list shows them)");
  for (const auto& e : entries)
    std::printf("%-22s %-36s %s\n", WString2Utf8String(e.Code).c_str(), WString2Utf8String(e.Projection).c_str(),
                WString2Utf8String(e.Description).c_str());
  return 0;
}

struct TransformArgs {
  std::string from, to;
  std::vector<std::string> point;
  std::int64_t precision = -1;
};

// One line "x y [z]" (extra words after the numbers are kept, as cs2cs
// does); false when it does not start with two numbers.
bool ParsePoint(const std::string& line, double xyz[3], bool& hasZ, std::string& rest) {
  std::istringstream in(line);
  std::string words[3];
  int n = 0;
  while (n < 3 && in >> words[n]) {
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(words[n].c_str(), &end);
    if (end == words[n].c_str() || *end != '\0' || errno == ERANGE) break;
    xyz[n++] = v;
  }
  if (n < 2) return false;
  hasZ = n == 3;
  std::getline(in, rest);
  if (n < 3 && !words[n].empty()) rest = " " + words[n] + rest;
  return true;
}

int RunTransform(const TransformArgs& a) {
  if (a.point.size() == 1) throw tool::UsageError("give X and Y (and optionally Z), or none to read stdin");
  const auto from = System(a.from);
  const auto to = System(a.to);
  const auto t = kel::SRSTransform::Create(from, to);  // empty for one and the same system
  if (!t && from != to) throw std::runtime_error("cannot transform from " + a.from + " to " + a.to);
  const int digits = a.precision >= 0 ? static_cast<int>(a.precision) : to->GetPrecision(-4);
  const auto apply = [&](double xyz[3], bool hasZ) {
    if (!t) return true;
    return hasZ ? t->Transform(xyz[0], xyz[1], xyz[2]) : t->Transform(xyz[0], xyz[1]);
  };
  const auto print = [&](const double xyz[3], bool hasZ, const std::string& rest) {
    if (hasZ) std::printf("%.*f\t%.*f\t%.*f%s\n", digits, xyz[0], digits, xyz[1], digits, xyz[2], rest.c_str());
    else std::printf("%.*f\t%.*f%s\n", digits, xyz[0], digits, xyz[1], rest.c_str());
  };

  if (!a.point.empty()) {
    double xyz[3] = {0, 0, 0};
    for (std::size_t i = 0; i < a.point.size(); ++i) xyz[i] = tool::ParseDouble(a.point[i], i == 0 ? "X" : i == 1 ? "Y" : "Z");
    const bool hasZ = a.point.size() == 3;
    if (!apply(xyz, hasZ)) throw std::runtime_error("the point cannot be transformed");
    print(xyz, hasZ, "");
    return 0;
  }
  // Like cs2cs: blank and '#' lines pass through, a line that does not read
  // or transform prints "*\t*" and the run ends with exit code 1.
  long failed = 0, lineNumber = 0;
  std::string line;
  while (std::getline(std::cin, line)) {
    ++lineNumber;
    const auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') {
      std::printf("%s\n", line.c_str());
      continue;
    }
    double xyz[3] = {0, 0, 0};
    bool hasZ = false;
    std::string rest;
    if (!ParsePoint(line, xyz, hasZ, rest) || !apply(xyz, hasZ)) {
      std::printf("*\t*\n");
      ++failed;
      continue;
    }
    print(xyz, hasZ, rest);
  }
  std::fflush(stdout);
  if (failed > 0) {
    std::fprintf(stderr, "kel: %ld of %ld lines could not be read or transformed\n", failed, lineNumber);
    return 1;
  }
  return 0;
}

struct UtmArgs {
  std::vector<double> box;
  std::string code;
};

int RunUtm(const UtmArgs& a) {
  const auto s = System(a.code);
  const kel::BBox<2, double> box({a.box[0], a.box[1]}, {a.box[2], a.box[3]});
  const auto utm = s->GetBestFittingUTM84Projection(box);
  if (!utm) throw std::runtime_error("the box's centre is outside the UTM zones 1-60");
  std::printf("%s\t%s\n", WString2Utf8String(utm->GetCode()).c_str(), WString2Utf8String(utm->GetDescription()).c_str());
  return 0;
}

}  // namespace

void AddSrsCommands(CLI::App& app) {
  CLI::App* group = tool::AddGroup(app, "srs", "coordinate systems and reprojection (PROJ)");
  const std::string codes =
      "CODE is a library code (LL84, UTM84-32N, LL83, UTM83-17, LL27, UTM27-10,\n"
      "WGS84.PseudoMercator, NERTH), AUTH:CODE (EPSG:25832, ESRI:102100), a bare\n"
      "EPSG number, WKT, PROJJSON or a PROJ string.";

  auto info = std::make_shared<InfoArgs>();
  CLI::App* cmd = tool::AddCommand(*group, "info", "code, description, units and area of a coordinate system",
                                   "Prints what the library knows of a coordinate system; --wkt adds its WKT2.\n" + codes,
                                   [info] { return RunInfo(*info); });
  cmd->add_option("CODE", info->code, "the coordinate system")->required();
  cmd->add_flag("--wkt", info->wkt, "print the system's WKT2 (2019) too");

  auto category = std::make_shared<std::string>();
  cmd = tool::AddCommand(*group, "list", "the catalogue's categories, or the systems of one",
                         "Without CATEGORY: every category with its number of systems. With one\n"
                         "(quote it: kel srs list \"UTM, WGS84\"): code, projection and description\n"
                         "of each system in it.",
                         [category] { return RunList(*category); });
  cmd->add_option("CATEGORY", *category, "a category name from 'kel srs list'");

  auto transform = std::make_shared<TransformArgs>();
  cmd = tool::AddCommand(*group, "transform", "reproject a point, or lines 'x y [z]' from stdin",
                         "Easting or longitude first, always. With X Y [Z] prints the one point;\n"
                         "without, reads 'x y [z]' lines from stdin and writes one line each, like\n"
                         "cs2cs: blank and '#' lines pass through, anything after the numbers is kept,\n"
                         "a line that does not read or transform prints '*\t*' (exit code 1 at the\n"
                         "end). Heights are only converted between units. Decimals default to a\n"
                         "tenth of a millimetre in the target's units.\n" +
                             codes,
                         [transform] { return RunTransform(*transform); });
  cmd->add_option("FROM", transform->from, "source coordinate system")->required();
  cmd->add_option("TO", transform->to, "target coordinate system")->required();
  cmd->add_option("POINT", transform->point, "X Y [Z]: one point (omit to read stdin)")
      ->expected(0, 3)
      ->type_name("X Y [Z]");
  tool::AddInt(*cmd, "--precision", transform->precision, 0, 17, "decimals to print");

  auto utm = std::make_shared<UtmArgs>();
  cmd = tool::AddCommand(*group, "utm", "the best-fitting WGS84 UTM zone for a box",
                         "The zone of the box's centre taken to longitude/latitude: 'UTM84-<zone><N|S>'\n"
                         "(latitude 0 counts as south). A system that cannot reach LL84 is taken at\n"
                         "(0, 0). " + codes,
                         [utm] { return RunUtm(*utm); });
  tool::AddNumbers(*cmd, "--box", utm->box, 4, "box X0,Y0,X1,Y1 in the system's coordinates")
      ->required()
      ->type_name("X0,Y0,X1,Y1");
  cmd->add_option("--srs", utm->code, "the box's coordinate system")->required();
}
