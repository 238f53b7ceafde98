#include "kel/features/geopackage_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <map>

#include "features/detail/gdal_util.h"
#include "features/detail/ogr_geometry.h"
#include "kel/core/atomic_file.h"
#include "kel/core/log.h"
#include "kel/core/path.h"
#include "kel/core/text.h"

namespace kel {

using features_detail::DatasetPtr;
using features_detail::GdalErrors;

namespace {

std::atomic<unsigned> g_counter{0};

OGRwkbGeometryType OgrType(const FeaturePropertyDefinition& p) {
  OGRwkbGeometryType t = wkbUnknown;
  switch (p.geometryType) {
    case FeatureGeometryType::Point: t = wkbPoint; break;
    case FeatureGeometryType::LineString: t = wkbLineString; break;
    case FeatureGeometryType::Polygon: t = wkbPolygon; break;
    case FeatureGeometryType::MultiPoint: t = wkbMultiPoint; break;
    case FeatureGeometryType::MultiLineString: t = wkbMultiLineString; break;
    case FeatureGeometryType::MultiPolygon: t = wkbMultiPolygon; break;
    case FeatureGeometryType::MultiGeometry: t = wkbGeometryCollection; break;
    case FeatureGeometryType::Unknown: t = wkbUnknown; break;
  }
  return p.hasZ ? wkbSetZ(t) : t;
}

void FieldType(FeaturePropertyType type, OGRFieldDefn& f) {
  switch (type) {
    case FeaturePropertyType::Boolean:
      f.SetType(OFTInteger);
      f.SetSubType(OFSTBoolean);
      break;
    case FeaturePropertyType::Int32: f.SetType(OFTInteger); break;
    case FeaturePropertyType::Int64: f.SetType(OFTInteger64); break;
    case FeaturePropertyType::Double: f.SetType(OFTReal); break;
    case FeaturePropertyType::Date: f.SetType(OFTDate); break;
    case FeaturePropertyType::Time: f.SetType(OFTTime); break;
    case FeaturePropertyType::DateTime: f.SetType(OFTDateTime); break;
    case FeaturePropertyType::Binary: f.SetType(OFTBinary); break;
    default: f.SetType(OFTString); break;
  }
}

void RemoveWithCompanions(const std::string& path) {
  for (const char* suffix : {"", "-journal", "-wal", "-shm"}) std::remove((path + suffix).c_str());
}

// Flushes a finished file to disk, so the rename never exposes a file whose
// bytes are still only in the page cache.
bool SyncFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = ::fsync(fd) == 0;
  ::close(fd);
  return ok;
}

struct ClassSink {
  OGRLayer* layer = nullptr;
  FeatureClassDefinition definition;
  std::vector<int> fields;  // OGR field of each property, -1 for identity and geometries
  bool hasGeometry = false;
};

}  // namespace

struct GeoPackageWriter::Impl {
  std::string target;
  std::string temporary;
  DatasetPtr dataset;
  std::map<std::wstring, ClassSink> classes;
  bool done = false;

  ~Impl() {
    dataset.reset();
    if (!done && !temporary.empty()) RemoveWithCompanions(temporary);
  }
};

GeoPackageWriter::GeoPackageWriter(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

GeoPackageWriter::~GeoPackageWriter() = default;

std::unique_ptr<GeoPackageWriter> GeoPackageWriter::Create(const std::wstring& path) {
  features_detail::EnsureGdal();
  auto impl = std::make_unique<Impl>();
  impl->target = File::NativePath(path);
  // AtomicFile's naming, so its leftover sweep also clears a killed export.
  impl->temporary = AtomicFile::TemporaryPrefix(impl->target) + std::to_string(::getpid()) + "-" +
                    std::to_string(g_counter++) + ".gpkg";
  GdalErrors errors;
  GDALDriver* driver = GetGDALDriverManager()->GetDriverByName("GPKG");
  if (driver) impl->dataset.reset(driver->Create(impl->temporary.c_str(), 0, 0, 0, GDT_Unknown, nullptr));
  if (!impl->dataset || impl->dataset->StartTransaction() != OGRERR_NONE) {
    KEL_LOG_ERROR(L"Cannot create GeoPackage " + path + L": " + errors.text());
    return nullptr;
  }
  return std::unique_ptr<GeoPackageWriter>(new GeoPackageWriter(std::move(impl)));
}

bool GeoPackageWriter::AddClass(const FeatureClassDefinition& definition) {
  if (!impl_->dataset || impl_->done) return false;
  if (definition.name.empty() || impl_->classes.count(definition.name)) {
    KEL_LOG_ERROR(L"Cannot add class '" + definition.name + L"' to " + Utf8String2WString(impl_->target) +
                  L": it has no name or is there already");
    return false;
  }
  GdalErrors errors;
  ClassSink sink;
  sink.definition = definition;
  const int geometry = definition.defaultGeometryProperty.empty() ? -1 : definition.find(definition.defaultGeometryProperty);
  OGRwkbGeometryType type = wkbNone;
  OGRSpatialReference srs;
  OGRSpatialReference* srsPointer = nullptr;
  std::vector<std::string> options;
  if (geometry >= 0) {
    const FeaturePropertyDefinition& g = definition.properties[static_cast<std::size_t>(geometry)];
    type = OgrType(g);
    options.push_back("GEOMETRY_NAME=" + WString2Utf8String(g.name));
    if (!g.coordinateSystem.empty()) {
      srs.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
      if (srs.SetFromUserInput(WString2Utf8String(g.coordinateSystem).c_str()) == OGRERR_NONE) srsPointer = &srs;
    }
    sink.hasGeometry = true;
  }
  if (!definition.identityProperty.empty()) options.push_back("FID=" + WString2Utf8String(definition.identityProperty));
  std::vector<const char*> optionPointers;
  for (const auto& o : options) optionPointers.push_back(o.c_str());
  optionPointers.push_back(nullptr);
  sink.layer = impl_->dataset->CreateLayer(WString2Utf8String(definition.name).c_str(), srsPointer, type,
                                            const_cast<char**>(optionPointers.data()));
  if (!sink.layer) {
    KEL_LOG_ERROR(L"Cannot add class '" + definition.name + L"': " + errors.text());
    return false;
  }
  for (std::size_t i = 0; i < definition.properties.size(); ++i) {
    const FeaturePropertyDefinition& p = definition.properties[i];
    sink.fields.push_back(-1);
    if (p.type == FeaturePropertyType::Geometry || p.name == definition.identityProperty) continue;
    OGRFieldDefn field(WString2Utf8String(p.name).c_str(), OFTString);
    FieldType(p.type, field);
    if (p.length > 0 && (p.type == FeaturePropertyType::String || p.type == FeaturePropertyType::Binary))
      field.SetWidth(p.length);
    field.SetNullable(p.nullable);
    if (sink.layer->CreateField(&field) != OGRERR_NONE) {
      KEL_LOG_ERROR(L"Cannot add property '" + p.name + L"' to class '" + definition.name + L"': " + errors.text());
      return false;
    }
    sink.fields.back() = sink.layer->GetLayerDefn()->GetFieldCount() - 1;
  }
  impl_->classes.emplace(definition.name, std::move(sink));
  return true;
}

bool GeoPackageWriter::Write(const std::wstring& className, const Feature& feature) {
  if (impl_->done || !impl_->dataset) return false;
  const auto it = impl_->classes.find(className);
  if (it == impl_->classes.end()) {
    KEL_LOG_ERROR(L"Cannot write to class '" + className + L"': it was not added");
    return false;
  }
  ClassSink& sink = it->second;
  GdalErrors errors;
  features_detail::OgrFeaturePtr f(OGRFeature::CreateFeature(sink.layer->GetLayerDefn()));
  f->SetFID(feature.id);
  const auto& props = sink.definition.properties;
  for (std::size_t i = 0; i < props.size() && i < feature.values.size(); ++i) {
    const int field = sink.fields[i];
    if (field < 0) continue;
    const FeatureValue& v = feature.values[i];
    if (v.isNull) {
      f->SetFieldNull(field);
      continue;
    }
    switch (props[i].type) {
      case FeaturePropertyType::Boolean:
      case FeaturePropertyType::Int32:
      case FeaturePropertyType::Int64: f->SetField(field, static_cast<GIntBig>(v.integer)); break;
      case FeaturePropertyType::Double: f->SetField(field, v.real); break;
      case FeaturePropertyType::Binary:
        f->SetField(field, static_cast<int>(v.bytes.size()), v.bytes.data());
        break;
      default: f->SetField(field, WString2Utf8String(v.text).c_str()); break;
    }
  }
  if (sink.hasGeometry && feature.geometry && !feature.geometry->empty()) {
    std::unique_ptr<OGRGeometry> g = features_detail::ToOgrGeometry(*feature.geometry);
    if (!g || f->SetGeometryDirectly(g.release()) != OGRERR_NONE) {
      KEL_LOG_ERROR(L"Feature " + std::to_wstring(feature.id) + L" of class '" + className +
                    L"' has a geometry a GeoPackage cannot hold");
      return false;
    }
  }
  if (sink.layer->CreateFeature(f.get()) != OGRERR_NONE) {
    KEL_LOG_ERROR(L"Cannot write feature " + std::to_wstring(feature.id) + L" of class '" + className + L"': " +
                  errors.text());
    return false;
  }
  return true;
}

bool GeoPackageWriter::Commit() {
  if (impl_->done || !impl_->dataset) {
    KEL_LOG_ERROR(L"GeoPackage " + Utf8String2WString(impl_->target) + L" was already finished");
    return false;
  }
  GdalErrors errors;
  bool ok = impl_->dataset->CommitTransaction() == OGRERR_NONE;
  impl_->dataset.reset();  // closes the file
  ok = ok && !errors.any() && SyncFile(impl_->temporary);
  if (ok && std::rename(impl_->temporary.c_str(), impl_->target.c_str()) != 0) ok = false;
  if (!ok) {
    KEL_LOG_ERROR(L"Cannot finish GeoPackage " + Utf8String2WString(impl_->target) + L": " +
                  errors.text(L"the file could not be synced or renamed"));
    RemoveWithCompanions(impl_->temporary);
  }
  impl_->done = true;
  return ok;
}

}  // namespace kel
