// GDAL plumbing for the features area: registration, error capture, owned
// datasets and features, and what a layer looks like as a feature class.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include "kel/features/fdo_filter_parser.h"
#include "kel/features/feature_class.h"

namespace kel::features_detail {

// Registers GDAL's drivers once per process.
void EnsureGdal();

// Collects GDAL's errors on this thread while alive, instead of GDAL's
// default of printing them to standard error.
class GdalErrors {
public:
  GdalErrors();
  ~GdalErrors();
  GdalErrors(const GdalErrors&) = delete;
  GdalErrors& operator=(const GdalErrors&) = delete;

  bool any() const { return !messages_.empty(); }
  // The collected messages joined by "; ", or `fallback` when there are none.
  std::wstring text(const wchar_t* fallback = L"no detail from GDAL") const;
  void clear() { messages_.clear(); }

private:
  static void CPL_STDCALL Handler(CPLErr level, CPLErrorNum number, const char* message);
  std::vector<std::string> messages_;
};

struct DatasetCloser {
  void operator()(GDALDataset* d) const { GDALClose(GDALDataset::ToHandle(d)); }
};
using DatasetPtr = std::unique_ptr<GDALDataset, DatasetCloser>;

struct FeatureDeleter {
  void operator()(OGRFeature* f) const { OGRFeature::DestroyFeature(f); }
};
using OgrFeaturePtr = std::unique_ptr<OGRFeature, FeatureDeleter>;

// Null (errors in `errors`) when the store does not open as vector data.
DatasetPtr OpenVector(const std::wstring& connection, bool update, GdalErrors& errors);

// The layer as a feature class, and where each property lives in the
// layer's feature definition: field index for attributes, geometry field
// index for geometries, -1 for the identity.
struct LayerShape {
  FeatureClassDefinition definition;
  std::vector<int> ogrIndex;
  int defaultGeometryField = -1;
};
// Coordinate systems cost a PROJ database lookup each (milliseconds), so
// readers, which never report them, leave them out.
LayerShape DescribeLayer(OGRLayer& layer, bool withCoordinateSystems = true);

// How filters reach this store: dialect, identity column, and (when
// `wantSpatialIndex`: looking it up costs a query) the spatial index.
FdoQueryTarget QueryTarget(GDALDataset& dataset, OGRLayer& layer, const FeatureClassDefinition& definition,
                           bool wantSpatialIndex = true);

}  // namespace kel::features_detail
