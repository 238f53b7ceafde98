#include "features/detail/residual_filter.h"

#include <typeinfo>

#include "kel/core/log.h"
#include "kel/core/text.h"

namespace kel::features_detail {

struct ResidualFilter::Node {
  enum class Kind { And, Or, Not, Attribute, Spatial, Distance } kind = Kind::And;
  std::unique_ptr<Node> left, right;
  // Attribute: the condition and its negation, so that "neither holds" is
  // the unknown of SQL's null logic.
  std::unique_ptr<OGRFeatureQuery> holds, fails;
  // Spatial and Distance:
  int geometryField = -1;
  FdoSpatialOperation spatial = FdoSpatialOperation::Intersects;
  FdoDistanceOperation distanceOp = FdoDistanceOperation::WithinDistance;
  double distance = 0;
  GeosGeometryPtr geometry{nullptr, {nullptr}};
  GeosPreparedPtr prepared{nullptr, {nullptr}};
  bool isBox = false;  // the geometry is an axis-aligned rectangle: box tests need no GEOS
  OGREnvelope box;
};

namespace {

bool HasGeometryTest(const FdoFilter& f) {
  if (const auto* b = dynamic_cast<const FdoBinaryLogicalOperator*>(&f))
    return HasGeometryTest(*b->left()) || HasGeometryTest(*b->right());
  if (const auto* n = dynamic_cast<const FdoUnaryLogicalOperator*>(&f)) return HasGeometryTest(*n->operand());
  return typeid(f) == typeid(FdoSpatialCondition) || typeid(f) == typeid(FdoDistanceCondition);
}

bool Meets(const OGREnvelope& a, const OGREnvelope& b) {
  return a.MinX <= b.MaxX && b.MinX <= a.MaxX && a.MinY <= b.MaxY && b.MinY <= a.MaxY;
}

}  // namespace

ResidualFilter::ResidualFilter() = default;
ResidualFilter::~ResidualFilter() = default;

bool ResidualFilter::Compile(const FdoFilter& filter, OGRLayer& layer, const LayerShape& shape,
                             const FdoQueryTarget& target) {
  FdoQueryTarget ogr = target;
  ogr.dialect = FdoSqlDialect::OgrSql;
  ogr.identityColumn.clear();
  FdoFilterParser ogrSql(ogr);
  bool ok = true;
  root_ = Build(filter, layer, shape, ogrSql, ok);
  return ok;
}

std::unique_ptr<ResidualFilter::Node> ResidualFilter::Build(const FdoFilter& filter, OGRLayer& layer,
                                                            const LayerShape& shape, FdoFilterParser& ogrSql,
                                                            bool& ok) {
  auto node = std::make_unique<Node>();
  GEOSContextHandle_t ctx = geos_.get();
  if (!HasGeometryTest(filter)) {
    node->kind = Node::Kind::Attribute;
    // GDAL's evaluator is two-valued; the text the parser writes for it says
    // "definitely true", and for the NOT of it "definitely false".
    const FdoUnaryLogicalOperator negated(FdoFilterPtr(FdoFilterPtr(), &filter));
    std::string holds, fails;
    if (!ogrSql.ToSql(filter, holds) || !ogrSql.ToSql(negated, fails)) {
      ok = false;
      return node;
    }
    node->holds = std::make_unique<OGRFeatureQuery>();
    node->fails = std::make_unique<OGRFeatureQuery>();
    GdalErrors errors;
    if (node->holds->Compile(&layer, holds.c_str()) != OGRERR_NONE ||
        node->fails->Compile(&layer, fails.c_str()) != OGRERR_NONE) {
      KEL_LOG_ERROR(L"Filter condition does not compile for class " + shape.definition.name + L": " + errors.text());
      ok = false;
    }
    return node;
  }
  if (const auto* b = dynamic_cast<const FdoBinaryLogicalOperator*>(&filter)) {
    node->kind = b->operation() == FdoBinaryLogicalOperation::And ? Node::Kind::And : Node::Kind::Or;
    node->left = Build(*b->left(), layer, shape, ogrSql, ok);
    node->right = Build(*b->right(), layer, shape, ogrSql, ok);
    return node;
  }
  if (const auto* n = dynamic_cast<const FdoUnaryLogicalOperator*>(&filter)) {
    node->kind = Node::Kind::Not;
    node->left = Build(*n->operand(), layer, shape, ogrSql, ok);
    return node;
  }
  const FdoGeometryValue* value = nullptr;
  const std::wstring* property = nullptr;
  if (const auto* s = dynamic_cast<const FdoSpatialCondition*>(&filter)) {
    node->kind = Node::Kind::Spatial;
    node->spatial = s->operation();
    value = s->geometry().get();
    property = &s->propertyName();
  } else if (const auto* d = dynamic_cast<const FdoDistanceCondition*>(&filter)) {
    node->kind = Node::Kind::Distance;
    node->distanceOp = d->operation();
    node->distance = d->distance();
    value = d->geometry().get();
    property = &d->propertyName();
  }
  const int p = shape.definition.find(*property);
  if (p < 0 || shape.definition.properties[p].type != FeaturePropertyType::Geometry) {
    KEL_LOG_ERROR(L"Property '" + *property + L"' is not a geometry of class '" + shape.definition.name + L"'");
    ok = false;
    return node;
  }
  node->geometryField = shape.ogrIndex[p];
  node->geometry = ReadWkt(ctx, WString2Utf8String(value->wkt()));
  if (!node->geometry) {
    KEL_LOG_ERROR(L"Not a valid WKT geometry: " + value->wkt().substr(0, 200));
    ok = false;
    return node;
  }
  node->prepared = GeosPreparedPtr(GEOSPrepare_r(ctx, node->geometry.get()), {ctx});
  if (GEOSisEmpty_r(ctx, node->geometry.get()) == 0) {
    GeosGeometryPtr envelope(GEOSEnvelope_r(ctx, node->geometry.get()), {ctx});
    node->isBox = envelope && GEOSEquals_r(ctx, envelope.get(), node->geometry.get()) == 1;
    GEOSGeom_getXMin_r(ctx, node->geometry.get(), &node->box.MinX);
    GEOSGeom_getYMin_r(ctx, node->geometry.get(), &node->box.MinY);
    GEOSGeom_getXMax_r(ctx, node->geometry.get(), &node->box.MaxX);
    GEOSGeom_getYMax_r(ctx, node->geometry.get(), &node->box.MaxY);
  }
  return node;
}

bool ResidualFilter::Matches(OGRFeature& feature) { return !root_ || Evaluate(*root_, feature) == Tri::True; }

ResidualFilter::Tri ResidualFilter::Evaluate(const Node& node, OGRFeature& feature) {
  switch (node.kind) {
    case Node::Kind::And: {
      const Tri a = Evaluate(*node.left, feature);
      if (a == Tri::False) return Tri::False;
      const Tri b = Evaluate(*node.right, feature);
      if (b == Tri::False) return Tri::False;
      return a == Tri::True && b == Tri::True ? Tri::True : Tri::Unknown;
    }
    case Node::Kind::Or: {
      const Tri a = Evaluate(*node.left, feature);
      if (a == Tri::True) return Tri::True;
      const Tri b = Evaluate(*node.right, feature);
      if (b == Tri::True) return Tri::True;
      return a == Tri::False && b == Tri::False ? Tri::False : Tri::Unknown;
    }
    case Node::Kind::Not: {
      const Tri a = Evaluate(*node.left, feature);
      return a == Tri::Unknown ? a : (a == Tri::True ? Tri::False : Tri::True);
    }
    case Node::Kind::Attribute:
      if (node.holds->Evaluate(&feature)) return Tri::True;
      if (node.fails->Evaluate(&feature)) return Tri::False;
      return Tri::Unknown;
    case Node::Kind::Spatial:
    case Node::Kind::Distance: break;
  }

  const OGRGeometry* g = feature.GetGeomFieldRef(node.geometryField);
  if (!g) return Tri::Unknown;
  GEOSContextHandle_t ctx = geos_.get();
  auto result = [](char r) { return r == 1 ? Tri::True : (r == 0 ? Tri::False : Tri::Unknown); };

  if (node.kind == Node::Kind::Spatial && node.spatial == FdoSpatialOperation::EnvelopeIntersects) {
    if (g->IsEmpty()) return Tri::False;
    OGREnvelope env;
    g->getEnvelope(&env);
    if (node.isBox) return Meets(env, node.box) ? Tri::True : Tri::False;
    if (!Meets(env, node.box)) return Tri::False;
    GeosGeometryPtr shape(g->exportToGEOS(ctx), {ctx});
    if (!shape) return Tri::Unknown;
    GeosGeometryPtr envelope(GEOSEnvelope_r(ctx, shape.get()), {ctx});
    return envelope ? result(GEOSPreparedIntersects_r(ctx, node.prepared.get(), envelope.get())) : Tri::Unknown;
  }

  GeosGeometryPtr shape(g->exportToGEOS(ctx), {ctx});
  if (!shape) return Tri::Unknown;
  const GEOSPreparedGeometry* filter = node.prepared.get();
  GEOSGeometry* f = shape.get();
  if (node.kind == Node::Kind::Distance) {
    const char within = GEOSPreparedDistanceWithin_r(ctx, filter, f, node.distance);
    if (within == 2) return Tri::Unknown;
    return (within == 1) == (node.distanceOp == FdoDistanceOperation::WithinDistance) ? Tri::True : Tri::False;
  }
  // The prepared geometry is the filter's, so directed tests are turned
  // around: "feature contains filter" is "filter within feature".
  switch (node.spatial) {
    case FdoSpatialOperation::Contains: return result(GEOSPreparedWithin_r(ctx, filter, f));
    case FdoSpatialOperation::Crosses: return result(GEOSPreparedCrosses_r(ctx, filter, f));
    case FdoSpatialOperation::Disjoint: return result(GEOSPreparedDisjoint_r(ctx, filter, f));
    case FdoSpatialOperation::Equals: return result(GEOSEquals_r(ctx, f, node.geometry.get()));
    case FdoSpatialOperation::Inside:
      // Interiors meet; the feature's interior and boundary stay off the
      // filter's boundary and exterior.
      return result(GEOSRelatePattern_r(ctx, f, node.geometry.get(), "TFF*FF***"));
    case FdoSpatialOperation::Intersects: return result(GEOSPreparedIntersects_r(ctx, filter, f));
    case FdoSpatialOperation::Overlaps: return result(GEOSPreparedOverlaps_r(ctx, filter, f));
    case FdoSpatialOperation::Touches: return result(GEOSPreparedTouches_r(ctx, filter, f));
    case FdoSpatialOperation::Within: return result(GEOSPreparedContains_r(ctx, filter, f));
    case FdoSpatialOperation::CoveredBy: return result(GEOSPreparedCovers_r(ctx, filter, f));
    case FdoSpatialOperation::EnvelopeIntersects: break;
  }
  return Tri::Unknown;
}

}  // namespace kel::features_detail
