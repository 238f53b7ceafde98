// Writing feature classes to a new GeoPackage file, for exports. The file
// appears whole or not at all: GDAL writes a temporary GeoPackage next to
// the target, and Commit() renames it over the target; a writer destroyed
// without Commit() (or a failed one) removes its temporary and leaves any
// old file alone. Temporaries of a killed process are named like
// AtomicFile's and removed by the next AtomicFile for the same target.
//
// Failures are logged errors and a false result. One thread at a time.
#pragma once

#include <memory>
#include <string>

#include "kel/export.h"
#include "kel/features/feature_class.h"
#include "kel/features/feature_source.h"

namespace kel {

class KEL_API GeoPackageWriter final {
public:
  // Null when the temporary cannot be created (a missing or read-only folder).
  static std::unique_ptr<GeoPackageWriter> Create(const std::wstring& path);
  ~GeoPackageWriter();
  GeoPackageWriter(const GeoPackageWriter&) = delete;
  GeoPackageWriter& operator=(const GeoPackageWriter&) = delete;

  // Adds a class: its identity becomes the id column, its attribute
  // properties the columns (types, widths and nullability kept), its
  // default geometry property the geometry column with its type and
  // coordinate system. Other geometry properties are not written. False
  // for a name already added or one GDAL refuses.
  bool AddClass(const FeatureClassDefinition& definition);
  // Appends a feature to a class added before. `feature.values` follow the
  // definition given to AddClass (a reader's features of that class fit);
  // the id is kept (two features with one id fail), the geometry may be
  // null. Dates and times are ISO 8601 text as readers give them.
  bool Write(const std::wstring& className, const Feature& feature);
  // Finishes the file and renames it over the target. False (target left
  // as it was) on any failure, or when called twice.
  bool Commit();

private:
  struct Impl;
  explicit GeoPackageWriter(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace kel
