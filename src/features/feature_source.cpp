#include "kel/features/feature_source.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <mutex>

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

// UTF-8 into `out`, reusing its buffer: ASCII (the common case) byte by
// byte, anything else through the library's converter.
void AssignUtf8(std::wstring& out, const char* text) {
  out.clear();
  for (const char* p = text; *p; ++p) {
    if (static_cast<unsigned char>(*p) >= 0x80) {
      out = Utf8String2WString(text);
      return;
    }
    out.push_back(static_cast<wchar_t>(*p));
  }
}

// Only ENVELOPEINTERSECTS may ask a GeoPackage's R-tree directly.
bool HasEnvelopeTest(const FdoFilter& f) {
  if (const auto* b = dynamic_cast<const FdoBinaryLogicalOperator*>(&f))
    return HasEnvelopeTest(*b->left()) || HasEnvelopeTest(*b->right());
  if (const auto* n = dynamic_cast<const FdoUnaryLogicalOperator*>(&f)) return HasEnvelopeTest(*n->operand());
  const auto* s = dynamic_cast<const FdoSpatialCondition*>(&f);
  return s && s->operation() == FdoSpatialOperation::EnvelopeIntersects;
}

bool IsSqlite(GDALDataset& ds) {
  const char* driver = ds.GetDriverName();
  return driver && (EQUAL(driver, "GPKG") || EQUAL(driver, "SQLite"));
}

// Connections for readers. Filters and read positions are layer state in
// GDAL, so each live reader has a connection of its own; a finished reader's
// connection waits here for the next one, which saves a reconnect per Select
// (tens of milliseconds for PostGIS).
class ConnectionPool {
public:
  explicit ConnectionPool(std::wstring connection) : connection_(std::move(connection)) {}

  DatasetPtr Take(GdalErrors& errors) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!idle_.empty()) {
        DatasetPtr ds = std::move(idle_.back());
        idle_.pop_back();
        return ds;
      }
    }
    return features_detail::OpenVector(connection_, false, errors);
  }
  void Give(DatasetPtr ds) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (idle_.size() < kKeep) idle_.push_back(std::move(ds));
  }

private:
  static constexpr std::size_t kKeep = 4;
  std::wstring connection_;
  std::mutex mutex_;
  std::vector<DatasetPtr> idle_;
};

// A connection taken from the pool; back it goes with its layer's filters
// cleared, unless a read failed on it.
class Lease {
public:
  Lease(std::shared_ptr<ConnectionPool> pool, DatasetPtr ds) : pool_(std::move(pool)), ds_(std::move(ds)) {}
  ~Lease() {
    if (!ds_) return;
    if (layer_) {
      layer_->SetAttributeFilter(nullptr);
      layer_->SetSpatialFilter(nullptr);
      layer_->ResetReading();
    }
    if (!broken_) pool_->Give(std::move(ds_));
  }
  Lease(Lease&&) = default;
  Lease& operator=(Lease&&) = delete;

  GDALDataset* get() const { return ds_.get(); }
  void use(OGRLayer* layer) { layer_ = layer; }
  void markBroken() { broken_ = true; }

private:
  std::shared_ptr<ConnectionPool> pool_;
  DatasetPtr ds_;
  OGRLayer* layer_ = nullptr;
  bool broken_ = false;
};

class OgrFeatureReader final : public FeatureReader {
public:
  OgrFeatureReader(Lease lease, OGRLayer* layer, LayerShape shape)
      : lease_(std::move(lease)), layer_(layer), shape_(std::move(shape)) {
    feature_.values.resize(shape_.definition.properties.size());
  }

  features_detail::ResidualFilter& residual() {
    hasResidual_ = true;
    return residual_;
  }

  bool ReadNext() override {
    if (done_) return false;
    // No error capture here: pushing a GDAL handler per feature costs an
    // allocation. The thread's last error tells a failed read from the end.
    CPLErrorReset();
    for (;;) {
      current_.reset(layer_->GetNextFeature());
      if (!current_) {
        done_ = true;
        if (CPLGetLastErrorType() >= CE_Failure) {
          KEL_LOG_ERROR(L"Reading class '" + shape_.definition.name + L"' failed: " +
                        Utf8String2WString(CPLGetLastErrorMsg()));
          lease_.markBroken();
          failed_ = true;
        }
        return false;
      }
      if (hasResidual_ && !residual_.Matches(*current_)) continue;
      Fill();
      return true;
    }
  }

  const Feature& feature() const override { return feature_; }
  const FeatureClassDefinition& definition() const override { return shape_.definition; }
  bool failed() const override { return failed_; }

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
        case FeaturePropertyType::String: AssignUtf8(v.text, f.GetFieldAsString(field)); break;
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

  Lease lease_;
  OGRLayer* layer_;
  LayerShape shape_;
  features_detail::ResidualFilter residual_;
  bool hasResidual_ = false;
  bool failed_ = false;
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
  DatasetPtr dataset;  // for listing; readers use the pool
  std::shared_ptr<ConnectionPool> pool;
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
  impl->pool = std::make_shared<ConnectionPool>(connection);
  return std::shared_ptr<FeatureSource>(new FeatureSource(std::move(impl)));
}

const std::wstring& FeatureSource::connection() const { return impl_->connection; }

void FeatureSource::GetClasses(IEnumerate<FeatureClassDefinition>& sink) const {
  GdalErrors errors;
  for (int i = 0; i < impl_->dataset->GetLayerCount(); ++i) {
    OGRLayer* layer = impl_->dataset->GetLayer(i);
    if (!layer) continue;
    errors.clear();
    FeatureClassDefinition def = features_detail::DescribeLayer(*layer).definition;
    if (errors.any()) {
      KEL_LOG_ERROR(L"Class '" + def.name + L"' cannot be read: " + errors.text());
      continue;
    }
    if (!sink.push(def)) return;
  }
}

std::vector<FeatureClassDefinition> FeatureSource::GetClasses() const {
  std::vector<FeatureClassDefinition> out;
  EnumerateIntoPushBackContainer<std::vector<FeatureClassDefinition>> sink(out);
  GetClasses(sink);
  return out;
}

std::int64_t FeatureSource::ReadFeatures(const std::wstring& className, const FdoFilterPtr& filter,
                                         IEnumerate<Feature>& sink) const {
  FeatureReaderPtr reader = Select(className, filter);
  if (!reader) return -1;
  std::int64_t n = 0;
  while (reader->ReadNext()) {
    ++n;
    if (!sink.push(reader->feature())) return n;
  }
  return reader->failed() ? -1 : n;
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
  Lease lease(impl_->pool, impl_->pool->Take(errors));
  GDALDataset* ds = lease.get();
  if (!ds) {
    KEL_LOG_ERROR(L"Cannot open feature source " + Redacted(impl_->connection) + L": " + errors.text());
    return nullptr;
  }
  OGRLayer* layer = ds->GetLayerByName(WString2Utf8String(className).c_str());
  if (!layer) {
    KEL_LOG_ERROR(L"Feature class '" + className + L"' does not exist in " + Redacted(impl_->connection));
    return nullptr;
  }
  lease.use(layer);
  LayerShape shape = features_detail::DescribeLayer(*layer, false);
  if (errors.any()) {
    // A virtual layer over a table without its configured columns, say.
    KEL_LOG_ERROR(L"Class '" + className + L"' cannot be read: " + errors.text());
    return nullptr;
  }
  if (IsSqlite(*ds)) {
    // LIKE tells letter case apart in every other store; make SQLite agree.
    if (OGRLayer* r = ds->ExecuteSQL("PRAGMA case_sensitive_like = 1", nullptr, nullptr)) ds->ReleaseResultSet(r);
  }
  const FdoQueryTarget target =
      features_detail::QueryTarget(*ds, *layer, shape.definition, filter && HasEnvelopeTest(*filter));
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
    BBox<2, double> b = query.spatialFilterBox;
    if (target.dialect == FdoSqlDialect::Portable) {
      // Virtual layers write the box into SQL with 15 digits and compare
      // strictly: widen it a little (their features are tested afterwards).
      const double margin =
          1e-9 * std::max({1.0, std::abs(b.min.x()), std::abs(b.min.y()), std::abs(b.max.x()), std::abs(b.max.y())});
      b.min = b.min - Vec2d(margin, margin);
      b.max = b.max + Vec2d(margin, margin);
    }
    const int p = shape.definition.find(query.spatialFilterProperty);
    layer->SetSpatialFilterRect(shape.ogrIndex[p], b.min.x(), b.min.y(), b.max.x(), b.max.y());
  }
  auto reader = std::make_unique<OgrFeatureReader>(std::move(lease), layer, shape);
  if (query.residual && !reader->residual().Compile(*query.residual, *layer, shape, target)) {
    KEL_LOG_ERROR(L"Filter cannot run on class '" + className + L"': " + filter->ToText().substr(0, 200));
    return nullptr;
  }
  layer->ResetReading();
  return reader;
}

}  // namespace kel
