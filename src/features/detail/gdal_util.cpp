#include "features/detail/gdal_util.h"

#include <mutex>

#include "kel/core/text.h"

namespace kel::features_detail {

void EnsureGdal() {
  static std::once_flag once;
  std::call_once(once, [] { GDALAllRegister(); });
}

GdalErrors::GdalErrors() { CPLPushErrorHandlerEx(&GdalErrors::Handler, this); }
GdalErrors::~GdalErrors() { CPLPopErrorHandler(); }

void CPL_STDCALL GdalErrors::Handler(CPLErr level, CPLErrorNum, const char* message) {
  if (level < CE_Failure) return;  // debug output, warnings
  auto* self = static_cast<GdalErrors*>(CPLGetErrorHandlerUserData());
  if (self && self->messages_.size() < 8) self->messages_.emplace_back(message ? message : "");
}

std::wstring GdalErrors::text(const wchar_t* fallback) const {
  if (messages_.empty()) return fallback;
  std::string joined;
  for (const auto& m : messages_) {
    if (!joined.empty()) joined += "; ";
    joined += m;
  }
  return Utf8String2WString(joined);
}

DatasetPtr OpenVector(const std::wstring& connection, bool update, GdalErrors& errors) {
  EnsureGdal();
  (void)errors;
  const unsigned flags = GDAL_OF_VECTOR | GDAL_OF_VERBOSE_ERROR | (update ? GDAL_OF_UPDATE : GDAL_OF_READONLY);
  return DatasetPtr(GDALDataset::FromHandle(
      GDALOpenEx(WString2Utf8String(connection).c_str(), flags, nullptr, nullptr, nullptr)));
}

namespace {

FeatureGeometryType GeometryTypeOf(OGRwkbGeometryType t) {
  switch (wkbFlatten(t)) {
    case wkbPoint: return FeatureGeometryType::Point;
    case wkbLineString: return FeatureGeometryType::LineString;
    case wkbPolygon: return FeatureGeometryType::Polygon;
    case wkbMultiPoint: return FeatureGeometryType::MultiPoint;
    case wkbMultiLineString: return FeatureGeometryType::MultiLineString;
    case wkbMultiPolygon: return FeatureGeometryType::MultiPolygon;
    case wkbGeometryCollection: return FeatureGeometryType::MultiGeometry;
    default: return FeatureGeometryType::Unknown;
  }
}

FeaturePropertyType PropertyTypeOf(const OGRFieldDefn& f) {
  switch (f.GetType()) {
    case OFTInteger: return f.GetSubType() == OFSTBoolean ? FeaturePropertyType::Boolean : FeaturePropertyType::Int32;
    case OFTInteger64: return FeaturePropertyType::Int64;
    case OFTReal: return FeaturePropertyType::Double;
    case OFTDate: return FeaturePropertyType::Date;
    case OFTTime: return FeaturePropertyType::Time;
    case OFTDateTime: return FeaturePropertyType::DateTime;
    case OFTBinary: return FeaturePropertyType::Binary;
    default: return FeaturePropertyType::String;  // strings and lists (as their text)
  }
}

}  // namespace

LayerShape DescribeLayer(OGRLayer& layer, bool withCoordinateSystems) {
  LayerShape shape;
  FeatureClassDefinition& def = shape.definition;
  OGRFeatureDefn* defn = layer.GetLayerDefn();
  def.name = Utf8String2WString(layer.GetName());
  const std::string fidColumn = layer.GetFIDColumn() ? layer.GetFIDColumn() : "";
  def.identityProperty = fidColumn.empty() ? L"FID" : Utf8String2WString(fidColumn);

  FeaturePropertyDefinition id;
  id.name = def.identityProperty;
  id.type = FeaturePropertyType::Int64;
  id.nullable = false;
  def.properties.push_back(id);
  shape.ogrIndex.push_back(-1);

  for (int i = 0; i < defn->GetFieldCount(); ++i) {
    const OGRFieldDefn& f = *defn->GetFieldDefn(i);
    // Virtual layers also list their id column as a field: it is the identity.
    if (!fidColumn.empty() && fidColumn == f.GetNameRef()) continue;
    FeaturePropertyDefinition p;
    p.name = Utf8String2WString(f.GetNameRef());
    p.type = PropertyTypeOf(f);
    p.nullable = f.IsNullable() != 0;
    p.length = f.GetType() == OFTString || f.GetType() == OFTBinary ? f.GetWidth() : 0;
    def.properties.push_back(p);
    shape.ogrIndex.push_back(i);
  }
  for (int i = 0; i < defn->GetGeomFieldCount(); ++i) {
    const OGRGeomFieldDefn& g = *defn->GetGeomFieldDefn(i);
    FeaturePropertyDefinition p;
    p.name = g.GetNameRef()[0] ? Utf8String2WString(g.GetNameRef()) : L"Geometry";
    p.type = FeaturePropertyType::Geometry;
    p.nullable = g.IsNullable() != 0;
    p.geometryType = GeometryTypeOf(g.GetType());
    p.hasZ = wkbHasZ(g.GetType()) != 0;
    if (const OGRSpatialReference* srs = withCoordinateSystems ? g.GetSpatialRef() : nullptr) {
      char* wkt = nullptr;
      if (srs->exportToWkt(&wkt) == OGRERR_NONE && wkt) p.coordinateSystem = Utf8String2WString(wkt);
      CPLFree(wkt);
    }
    if (i == 0) {
      def.defaultGeometryProperty = p.name;
      shape.defaultGeometryField = 0;
    }
    def.properties.push_back(p);
    shape.ogrIndex.push_back(i);
  }
  return shape;
}

FdoQueryTarget QueryTarget(GDALDataset& dataset, OGRLayer& layer, const FeatureClassDefinition& definition,
                           bool wantSpatialIndex) {
  FdoQueryTarget t;
  t.definition = definition;
  const std::string driver = dataset.GetDriverName() ? dataset.GetDriverName() : "";
  const std::string fid = layer.GetFIDColumn() ? layer.GetFIDColumn() : "";
  if (driver == "GPKG" || driver == "SQLite") {
    t.dialect = FdoSqlDialect::Sqlite;
    t.identityColumn = Utf8String2WString(fid);
    const char* geom = layer.GetGeometryColumn();
    if (wantSpatialIndex && driver == "GPKG" && geom && geom[0] && layer.TestCapability(OLCFastSpatialFilter))
      t.spatialIndexTable = Utf8String2WString(std::string("rtree_") + layer.GetName() + "_" + geom);
  } else if (driver == "PostgreSQL") {
    t.dialect = FdoSqlDialect::PostgreSql;
    t.identityColumn = Utf8String2WString(fid);
    // PostGIS answers a spatial filter with "&&", a pure box test.
    t.spatialFilterTestsEnvelopesOnly = true;
    if (OGRLayer* r = dataset.ExecuteSQL("SHOW standard_conforming_strings", nullptr, nullptr)) {
      OgrFeaturePtr f(r->GetNextFeature());
      t.backslashEscapes = f && EQUAL(f->GetFieldAsString(0), "off");
      f.reset();
      dataset.ReleaseResultSet(r);
    }
  } else if (driver == "ODBC" || driver == "OGR_VRT") {
    t.dialect = FdoSqlDialect::Portable;
    t.identityColumn = Utf8String2WString(fid);
  } else {
    t.dialect = FdoSqlDialect::OgrSql;
  }
  return t;
}

}  // namespace kel::features_detail
