#include "city/input.h"

#include <cmath>
#include <cwchar>

namespace city {
namespace {

std::string Narrow(const std::wstring& s) { return kel::WString2Utf8String(s); }
std::wstring Wide(const std::string& s) { return kel::Utf8String2WString(s); }

int FindAttribute(const kel::FeatureClassDefinition& def, const std::string& given,
                  std::initializer_list<const wchar_t*> usual, const char* what) {
  if (!given.empty()) {
    const int i = def.find(Wide(given));
    if (i < 0) throw InputError("class '" + Narrow(def.name) + "' has no " + what + " attribute '" + given + "'");
    return i;
  }
  for (const wchar_t* name : usual)
    if (const int i = def.find(name); i >= 0 && def.properties[std::size_t(i)].type != kel::FeaturePropertyType::Geometry)
      return i;
  return -1;
}

double NumberOf(const kel::FeatureValue& v, kel::FeaturePropertyType type) {
  if (v.isNull) return NAN;
  switch (type) {
    case kel::FeaturePropertyType::Boolean:
    case kel::FeaturePropertyType::Int32:
    case kel::FeaturePropertyType::Int64: return double(v.integer);
    case kel::FeaturePropertyType::Double: return v.real;
    case kel::FeaturePropertyType::String: return LeadingNumber(v.text);
    default: return NAN;
  }
}

bool IsPolygonal(kel::FeatureGeometryType t) {
  return t == kel::FeatureGeometryType::Polygon || t == kel::FeatureGeometryType::MultiPolygon ||
         t == kel::FeatureGeometryType::Unknown || t == kel::FeatureGeometryType::MultiGeometry;
}

}  // namespace

double LeadingNumber(const std::wstring& text) {
  const wchar_t* s = text.c_str();
  while (*s == L' ' || *s == L'\t') ++s;
  wchar_t* end = nullptr;
  const double v = std::wcstod(s, &end);
  return end == s ? NAN : v;
}

LoadedInput ReadFootprints(const InputOptions& o, kel::Progress& progress) {
  auto source = kel::FeatureSource::Open(Wide(o.source));
  if (!source) throw InputError("cannot open " + o.source + " as a feature store");

  kel::FeatureClassDefinition def;
  if (!o.className.empty()) {
    if (!source->DescribeClass(Wide(o.className), def))
      throw InputError("no feature class '" + o.className + "' in " + o.source);
  } else {
    bool found = false;
    for (const auto& c : source->GetClasses()) {
      const int g = c.defaultGeometryProperty.empty() ? -1 : c.find(c.defaultGeometryProperty);
      if (g >= 0 && IsPolygonal(c.properties[std::size_t(g)].geometryType)) {
        def = c;
        found = true;
        break;
      }
    }
    if (!found) throw InputError("no class with polygon geometries in " + o.source + "; name one with --class");
  }
  if (def.defaultGeometryProperty.empty()) throw InputError("class '" + Narrow(def.name) + "' has no geometry");

  LoadedInput out;
  if (!o.srs.empty()) {
    out.srs = kel::SRSCoordSys::Create(Wide(o.srs));
    if (!out.srs) throw InputError("unknown coordinate system '" + o.srs + "'");
  } else {
    const auto& g = def.properties[std::size_t(def.find(def.defaultGeometryProperty))];
    if (g.coordinateSystem.empty())
      throw InputError("class '" + Narrow(def.name) + "' names no coordinate system; give one with --srs");
    out.srs = kel::SRSCoordSys::Create(g.coordinateSystem);
    if (!out.srs)
      throw InputError("the coordinate system of class '" + Narrow(def.name) +
                       "' is not one PROJ knows; give one with --srs");
  }

  kel::FdoFilterPtr filter;
  if (!o.filter.empty()) {
    kel::FdoParseError error;
    filter = kel::FdoFilterUtil::Parse(Wide(o.filter), &error);
    if (!filter)
      throw InputError("--filter does not parse at offset " + std::to_string(error.offset) + ": " +
                       Narrow(error.message));
  }

  const int height = FindAttribute(def, o.heightAttribute,
                                   {L"height", L"building:height", L"measuredHeight", L"bldg_height", L"hgt"}, "height");
  const int floors = FindAttribute(def, o.floorsAttribute,
                                   {L"floors", L"building:levels", L"levels", L"storeys", L"stories", L"num_floors"},
                                   "floor count");
  InputReport& report = out.report;
  report.className = def.name;
  if (height >= 0) report.heightAttribute = def.properties[std::size_t(height)].name;
  if (floors >= 0) report.floorsAttribute = def.properties[std::size_t(floors)].name;

  auto reader = source->Select(def.name, filter);
  if (!reader) throw InputError("cannot read class '" + Narrow(def.name) + "' of " + o.source + " (see the log)");
  while (reader->ReadNext()) {
    ++report.features;
    if (report.features % 1024 == 0 && !progress.updateValue(0)) break;
    const kel::Feature& f = reader->feature();
    if (!f.geometry || f.geometry->empty()) {
      ++report.noGeometry;
      continue;
    }
    const kel::GeometryBuffer& g = *f.geometry;
    SourceBuilding b;
    b.id = f.id;
    for (int k = 0; k < g.geometryCount(); ++k) {
      if (g.geometryElementType(k) != kel::FdoGeometryType_Polygon) continue;
      Polygon p;
      const int first = g.geometryFirstContour(k), n = g.geometryContourCount(k);
      for (int c = first; c < first + n; ++c) {
        Ring ring;
        for (int i = g.contourStart(c); i <= g.contourEnd(c); ++i) ring.emplace_back(g.x(i), g.y(i));
        p.rings.push_back(std::move(ring));
      }
      b.parts.push_back(std::move(p));
    }
    if (b.parts.empty()) {
      ++report.notPolygon;
      continue;
    }
    if (height >= 0) b.height = NumberOf(f.values[std::size_t(height)], def.properties[std::size_t(height)].type);
    if (floors >= 0) {
      const double n = NumberOf(f.values[std::size_t(floors)], def.properties[std::size_t(floors)].type);
      if (n >= 1 && n < 1000) b.floors = int(std::lround(n));
    }
    out.buildings.push_back(std::move(b));
  }
  if (progress.isInterrupted()) throw Interrupted();
  progress.updateDescription(L"read " + std::to_wstring(report.features) + L" features");
  return out;
}

}  // namespace city
