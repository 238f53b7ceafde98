#include "kel/features/feature_source.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "features/detail/filter_text.h"
#include "features/detail/gdal_util.h"
#include "features/detail/ogr_geometry.h"
#include "features/detail/residual_filter.h"
#include "kel/core/log.h"
#include "kel/core/text.h"
#include "kel/features/fdo_filter_parser.h"

namespace kel {

using features_detail::DatasetPtr;
using features_detail::GdalErrors;
using features_detail::LayerShape;
using features_detail::OgrFeaturePtr;

namespace {

// Connection strings may carry passwords; logs get them masked.
std::wstring Redacted(const std::wstring& connection) {
  std::wstring s = connection;
  for (const std::wstring key : {L"password=", L"PWD="}) {
    for (std::size_t at = s.find(key); at != std::wstring::npos; at = s.find(key, at + 1)) {
      const std::size_t from = at + key.size();
      const std::size_t to = s.find_first_of(L" ;", from);
      s.replace(from, (to == std::wstring::npos ? s.size() : to) - from, L"***");
    }
  }
  if (s.rfind(L"ODBC:", 0) == 0) {
    const std::size_t slash = s.find(L'/'), at = s.find(L'@');
    if (slash != std::wstring::npos && at != std::wstring::npos && slash < at) s.replace(slash + 1, at - slash - 1, L"***");
  }
  return s;
}

std::wstring Pad(int value, int width) {
  std::wstring s = std::to_wstring(value);
  if (static_cast<int>(s.size()) < width) s.insert(0, static_cast<std::size_t>(width) - s.size(), L'0');
  return s;
}

// Date and time fields as ISO 8601 text.
std::wstring IsoText(OGRFeature& f, int field, FeaturePropertyType type) {
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, tz = 0;
  float sec = 0;
  f.GetFieldAsDateTime(field, &y, &mo, &d, &h, &mi, &sec, &tz);
  std::wstring date = Pad(y, 4) + L'-' + Pad(mo, 2) + L'-' + Pad(d, 2);
  const int wholeSeconds = static_cast<int>(sec);
  const int millis = static_cast<int>(std::lround((sec - static_cast<float>(wholeSeconds)) * 1000.0f));
  std::wstring time = Pad(h, 2) + L':' + Pad(mi, 2) + L':' + Pad(wholeSeconds, 2);
  if (millis > 0) time += L'.' + Pad(std::min(millis, 999), 3);
  if (type == FeaturePropertyType::Date) return date;
  if (type == FeaturePropertyType::Time) return time;
  std::wstring zone;
  if (tz == 100) {
    zone = L"Z";
  } else if (tz > 1) {
    const int minutes = (tz - 100) * 15;
    zone = (minutes < 0 ? L"-" : L"+") + Pad(std::abs(minutes) / 60, 2) + L':' + Pad(std::abs(minutes) % 60, 2);
  }
  return date + L'T' + time + zone;
}

bool IsSqlite(GDALDataset& ds) {
  const char* driver = ds.GetDriverName();
  return driver && (EQUAL(driver, "GPKG") || EQUAL(driver, "SQLite"));
}

class OgrFeatureReader final : public FeatureReader {
public:
  OgrFeatureReader(DatasetPtr dataset, OGRLayer* layer, LayerShape shape)
      : dataset_(std::move(dataset)), layer_(layer), shape_(std::move(shape)) {
    feature_.values.resize(shape_.definition.properties.size());
  }

  features_detail::ResidualFilter& residual() {
    hasResidual_ = true;
    return residual_;
  }

  bool ReadNext() override {
    if (done_) return false;
    GdalErrors errors;
    for (;;) {
      current_.reset(layer_->GetNextFeature());
      if (!current_) {
        done_ = true;
        if (errors.any())
          KEL_LOG_ERROR(L"Reading class '" + shape_.definition.name + L"' failed: " + errors.text());
        return false;
      }
      if (hasResidual_ && !residual_.Matches(*current_)) continue;
      Fill();
      return true;
    }
  }

  const Feature& feature() const override { return feature_; }
  const FeatureClassDefinition& definition() const override { return shape_.definition; }

private:
  void Fill() {
    OGRFeature& f = *current_;
    feature_.id = f.GetFID();
    const auto& props = shape_.definition.properties;
    for (std::size_t i = 0; i < props.size(); ++i) {
      FeatureValue& v = feature_.values[i];
      const int field = shape_.ogrIndex[i];
      const FeaturePropertyType type = props[i].type;
      v.isNull = field < 0 || type == FeaturePropertyType::Geometry || !f.IsFieldSetAndNotNull(field);
      if (v.isNull) continue;
      switch (type) {
        case FeaturePropertyType::Boolean:
        case FeaturePropertyType::Int32:
        case FeaturePropertyType::Int64: v.integer = f.GetFieldAsInteger64(field); break;
        case FeaturePropertyType::Double: v.real = f.GetFieldAsDouble(field); break;
        case FeaturePropertyType::String: v.text = Utf8String2WString(f.GetFieldAsString(field)); break;
        case FeaturePropertyType::Date:
        case FeaturePropertyType::Time:
        case FeaturePropertyType::DateTime: v.text = IsoText(f, field, type); break;
        case FeaturePropertyType::Binary: {
          int n = 0;
          const GByte* bytes = f.GetFieldAsBinary(field, &n);
          v.bytes.assign(bytes, bytes + n);
          break;
        }
        case FeaturePropertyType::Geometry: break;
      }
    }
    const OGRGeometry* g = shape_.defaultGeometryField >= 0 ? f.GetGeomFieldRef(shape_.defaultGeometryField) : nullptr;
    if (!g) {
      feature_.geometry.reset();
      return;
    }
    // Reuse the buffer unless the caller kept the last one.
    if (!feature_.geometry || feature_.geometry.use_count() > 1)
      feature_.geometry = std::make_shared<GeometryBuffer>(0, FdoDimensionality_XY, false);
    if (!features_detail::ToGeometryBuffer(*g, *feature_.geometry)) {
      KEL_LOG_WARN(L"Feature " + std::to_wstring(feature_.id) + L" of class '" + shape_.definition.name +
                   L"' has a geometry of an unsupported kind; it is read without one");
      feature_.geometry.reset();
    }
  }

  DatasetPtr dataset_;
  OGRLayer* layer_;
  LayerShape shape_;
  features_detail::ResidualFilter residual_;
  bool hasResidual_ = false;
  OgrFeaturePtr current_;
  Feature feature_;
  bool done_ = false;
};

}  // namespace

FeatureReader::~FeatureReader() = default;

PropertyBag FeatureReader::attributes() const {
  PropertyBag out;
  const auto& props = definition().properties;
  const auto& values = feature().values;
  for (std::size_t i = 0; i < props.size() && i < values.size(); ++i) {
    const FeatureValue& v = values[i];
    if (v.isNull || props[i].name == definition().identityProperty) continue;
    std::wstring text;
    switch (props[i].type) {
      case FeaturePropertyType::Boolean: text = v.integer ? L"true" : L"false"; break;
      case FeaturePropertyType::Int32:
      case FeaturePropertyType::Int64: text = std::to_wstring(v.integer); break;
      case FeaturePropertyType::Double:
        text = std::isfinite(v.real) ? features_detail::FormatDouble(v.real) : std::to_wstring(v.real);
        break;
      case FeaturePropertyType::Binary:
        for (std::uint8_t b : v.bytes) {
          static const wchar_t kHex[] = L"0123456789ABCDEF";
          text += kHex[b >> 4];
          text += kHex[b & 15];
        }
        break;
      case FeaturePropertyType::Geometry: continue;
      default: text = v.text; break;
    }
    out.SetValue(props[i].name, text);
  }
  return out;
}

struct FeatureSource::Impl {
  std::wstring connection;
  DatasetPtr dataset;
};

FeatureSource::FeatureSource(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
FeatureSource::~FeatureSource() = default;

std::shared_ptr<FeatureSource> FeatureSource::Open(const std::wstring& connection) {
  GdalErrors errors;
  DatasetPtr ds = features_detail::OpenVector(connection, false, errors);
  if (!ds) {
    KEL_LOG_ERROR(L"Cannot open feature source " + Redacted(connection) + L": " + errors.text());
    return nullptr;
  }
  auto impl = std::make_unique<Impl>();
  impl->connection = connection;
  impl->dataset = std::move(ds);
  return std::shared_ptr<FeatureSource>(new FeatureSource(std::move(impl)));
}

const std::wstring& FeatureSource::connection() const { return impl_->connection; }

std::vector<FeatureClassDefinition> FeatureSource::GetClasses() const {
  GdalErrors errors;
  std::vector<FeatureClassDefinition> out;
  for (int i = 0; i < impl_->dataset->GetLayerCount(); ++i) {
    OGRLayer* layer = impl_->dataset->GetLayer(i);
    if (!layer) continue;
    errors.clear();
    FeatureClassDefinition def = features_detail::DescribeLayer(*layer).definition;
    if (errors.any()) {
      KEL_LOG_ERROR(L"Class '" + def.name + L"' cannot be read: " + errors.text());
      continue;
    }
    out.push_back(std::move(def));
  }
  return out;
}

bool FeatureSource::DescribeClass(const std::wstring& className, FeatureClassDefinition& out) const {
  GdalErrors errors;
  OGRLayer* layer = impl_->dataset->GetLayerByName(WString2Utf8String(className).c_str());
  if (!layer) return false;
  out = features_detail::DescribeLayer(*layer).definition;
  return true;
}

std::int64_t FeatureSource::GetFeatureCount(const std::wstring& className) const {
  GdalErrors errors;
  OGRLayer* layer = impl_->dataset->GetLayerByName(WString2Utf8String(className).c_str());
  if (!layer) return -1;
  const GIntBig n = layer->GetFeatureCount(FALSE);
  return n < 0 ? -1 : static_cast<std::int64_t>(n);
}

FeatureReaderPtr FeatureSource::Select(const std::wstring& className, const FdoFilterPtr& filter) const {
  GdalErrors errors;
  // A connection per reader: filters and read positions are layer state in
  // GDAL, so readers sharing one would disturb each other.
  DatasetPtr ds = features_detail::OpenVector(impl_->connection, false, errors);
  if (!ds) {
    KEL_LOG_ERROR(L"Cannot open feature source " + Redacted(impl_->connection) + L": " + errors.text());
    return nullptr;
  }
  OGRLayer* layer = ds->GetLayerByName(WString2Utf8String(className).c_str());
  if (!layer) {
    KEL_LOG_ERROR(L"Feature class '" + className + L"' does not exist in " + Redacted(impl_->connection));
    return nullptr;
  }
  LayerShape shape = features_detail::DescribeLayer(*layer);
  if (errors.any()) {
    // A virtual layer over a table without its configured columns, say.
    KEL_LOG_ERROR(L"Class '" + className + L"' cannot be read: " + errors.text());
    return nullptr;
  }
  if (IsSqlite(*ds)) {
    // LIKE tells letter case apart in every other store; make SQLite agree.
    if (OGRLayer* r = ds->ExecuteSQL("PRAGMA case_sensitive_like = 1", nullptr, nullptr)) ds->ReleaseResultSet(r);
  }
  const FdoQueryTarget target = features_detail::QueryTarget(*ds, *layer, shape.definition);
  FdoQuery query;
  FdoFilterParser parser(target);
  if (!parser.Parse(filter, query)) {
    KEL_LOG_ERROR(L"Filter cannot run on class '" + className + L"': " + filter->ToText().substr(0, 200));
    return nullptr;
  }
  errors.clear();
  if (!query.where.empty() && layer->SetAttributeFilter(query.where.c_str()) != OGRERR_NONE) {
    KEL_LOG_ERROR(L"Class '" + className + L"' refuses the filter " + Utf8String2WString(query.where) + L": " +
                  errors.text());
    return nullptr;
  }
  if (query.hasSpatialFilter) {
    // Widen a little: some stores round the box when they write it into SQL
    // or compare strictly; the exact test runs afterwards anyway.
    const BBox<2, double>& b = query.spatialFilterBox;
    const double margin =
        1e-9 * std::max({1.0, std::abs(b.min.x()), std::abs(b.min.y()), std::abs(b.max.x()), std::abs(b.max.y())});
    const int p = shape.definition.find(query.spatialFilterProperty);
    layer->SetSpatialFilterRect(shape.ogrIndex[p], b.min.x() - margin, b.min.y() - margin, b.max.x() + margin,
                                b.max.y() + margin);
  }
  auto reader = std::make_unique<OgrFeatureReader>(std::move(ds), layer, shape);
  if (query.residual && !reader->residual().Compile(*query.residual, *layer, shape, target)) {
    KEL_LOG_ERROR(L"Filter cannot run on class '" + className + L"': " + filter->ToText().substr(0, 200));
    return nullptr;
  }
  layer->ResetReading();
  return reader;
}

}  // namespace kel
