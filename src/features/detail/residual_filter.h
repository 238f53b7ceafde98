// The part of a filter a store cannot decide, tested on each feature it
// returns: geometry tests through GEOS, attribute conditions through GDAL's
// own SQL evaluator. Logic is three-valued as in SQL (a comparison with a
// null value, or a spatial test on a missing geometry, is unknown, and NOT
// unknown is unknown), so a condition gives the same answer here as in the
// store's WHERE.
#pragma once

#include <memory>
#include <vector>

#include <ogrsf_frmts.h>

#include "features/detail/gdal_util.h"
#include "features/detail/geos_util.h"
#include "kel/features/fdo_filter.h"
#include "kel/features/fdo_filter_parser.h"

namespace kel::features_detail {

class ResidualFilter {
public:
  ResidualFilter();
  ~ResidualFilter();
  ResidualFilter(const ResidualFilter&) = delete;
  ResidualFilter& operator=(const ResidualFilter&) = delete;

  // Prepares `filter` for features of `layer`; `shape` maps property names
  // to geometry fields. False with a logged error when a piece does not
  // compile.
  bool Compile(const FdoFilter& filter, OGRLayer& layer, const LayerShape& shape, const FdoQueryTarget& target);
  bool Matches(OGRFeature& feature);

private:
  enum class Tri { False, True, Unknown };
  struct Node;
  Tri Evaluate(const Node& node, OGRFeature& feature);
  std::unique_ptr<Node> Build(const FdoFilter& filter, OGRLayer& layer, const LayerShape& shape,
                              FdoFilterParser& ogrSql, bool& ok);

  GeosContext geos_;
  std::unique_ptr<Node> root_;
};

}  // namespace kel::features_detail
