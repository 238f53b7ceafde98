#include "kel/features/fdo_filter.h"

#include <charconv>
#include <cmath>
#include <cwctype>
#include <string>
#include <typeinfo>

#include "features/detail/filter_text.h"
#include "features/detail/geos_util.h"
#include "kel/core/log.h"
#include "kel/core/text.h"
#include "kel/geometry/geometry_buffer.h"

namespace kel {

using features_detail::FormatDouble;

namespace {

// Same dynamic type, then the caller compares the fields.
template <typename T, typename Base>
const T* SameKind(const Base& other) {
  return typeid(other) == typeid(T) ? static_cast<const T*>(&other) : nullptr;
}

bool Same(const FdoExpressionPtr& a, const FdoExpressionPtr& b) {
  if (!a || !b) return a == b;
  return a->equals(*b);
}

bool Same(const FdoFilterPtr& a, const FdoFilterPtr& b) {
  if (!a || !b) return a == b;
  return a->equals(*b);
}

// Writes the canonical text. Operands of AND, OR and NOT are always in
// parentheses and so are binary operands of arithmetic, so the tree's shape
// comes back exactly from the text without precedence rules.
class TextWriter final : public FdoFilterVisitor, public FdoExpressionVisitor {
public:
  std::wstring out;

  void ProcessBinaryLogicalOperator(const FdoBinaryLogicalOperator& node) override {
    out += L'(';
    Filter(node.left());
    out += node.operation() == FdoBinaryLogicalOperation::And ? L") AND (" : L") OR (";
    Filter(node.right());
    out += L')';
  }
  void ProcessUnaryLogicalOperator(const FdoUnaryLogicalOperator& node) override {
    out += L"NOT (";
    Filter(node.operand());
    out += L')';
  }
  void ProcessComparisonCondition(const FdoComparisonCondition& node) override {
    Expression(node.left());
    out += L' ';
    out += FdoFilterUtil::ToString(node.operation());
    out += L' ';
    Expression(node.right());
  }
  void ProcessInCondition(const FdoInCondition& node) override {
    out += features_detail::QuoteIdentifier(node.propertyName());
    out += L" IN (";
    bool first = true;
    for (const auto& v : node.values()) {
      if (!first) out += L", ";
      first = false;
      Expression(v);
    }
    out += L')';
  }
  void ProcessNullCondition(const FdoNullCondition& node) override {
    out += features_detail::QuoteIdentifier(node.propertyName());
    out += L" NULL";
  }
  void ProcessSpatialCondition(const FdoSpatialCondition& node) override {
    out += features_detail::QuoteIdentifier(node.propertyName());
    out += L' ';
    out += FdoFilterUtil::ToString(node.operation());
    out += L' ';
    Expression(node.geometry());
  }
  void ProcessDistanceCondition(const FdoDistanceCondition& node) override {
    out += features_detail::QuoteIdentifier(node.propertyName());
    out += L' ';
    out += FdoFilterUtil::ToString(node.operation());
    out += L' ';
    Expression(node.geometry());
    out += L' ';
    out += FormatDouble(node.distance());
  }

  void ProcessIdentifier(const FdoIdentifier& node) override { out += features_detail::QuoteIdentifier(node.name()); }
  void ProcessDataValue(const FdoDataValue& node) override {
    const auto& v = node.value();
    if (const bool* b = std::get_if<bool>(&v)) out += *b ? L"TRUE" : L"FALSE";
    else if (const auto* i = std::get_if<std::int64_t>(&v)) out += std::to_wstring(*i);
    else if (const double* d = std::get_if<double>(&v)) out += FormatDouble(*d);
    else out += features_detail::QuoteString(std::get<std::wstring>(v));
  }
  void ProcessGeometryValue(const FdoGeometryValue& node) override {
    out += L"GeomFromText(";
    out += features_detail::QuoteString(node.wkt());
    out += L')';
  }
  void ProcessUnaryExpression(const FdoUnaryExpression& node) override {
    // Always "-(x)": "-5" would read back as the literal -5.
    out += L"-(";
    Expression(node.operand());
    out += L')';
  }
  void ProcessBinaryExpression(const FdoBinaryExpression& node) override {
    Operand(node.left());
    switch (node.operation()) {
      case FdoArithmeticOperation::Add: out += L" + "; break;
      case FdoArithmeticOperation::Subtract: out += L" - "; break;
      case FdoArithmeticOperation::Multiply: out += L" * "; break;
      case FdoArithmeticOperation::Divide: out += L" / "; break;
    }
    Operand(node.right());
  }

  void Filter(const FdoFilterPtr& f) {
    if (f) f->Process(*this);
  }
  void Expression(const FdoExpressionPtr& e) {
    if (e) e->Process(*this);
  }

private:
  void Operand(const FdoExpressionPtr& e) {
    const bool wrap = e && typeid(*e) == typeid(FdoBinaryExpression);
    if (wrap) out += L'(';
    Expression(e);
    if (wrap) out += L')';
  }
};

bool Missing(const void* p, const wchar_t* what) {
  if (p) return false;
  KEL_LOG_ERROR(std::wstring(L"Cannot create a filter without ") + what);
  return true;
}

}  // namespace

// ---- Expressions ----

FdoExpression::~FdoExpression() = default;

std::wstring FdoExpression::ToText() const {
  TextWriter w;
  Process(w);
  return std::move(w.out);
}

std::shared_ptr<const FdoIdentifier> FdoIdentifier::Create(const std::wstring& name) {
  return std::make_shared<const FdoIdentifier>(name);
}
void FdoIdentifier::Process(FdoExpressionVisitor& visitor) const { visitor.ProcessIdentifier(*this); }
bool FdoIdentifier::equals(const FdoExpression& other) const {
  const auto* o = SameKind<FdoIdentifier>(other);
  return o && o->name_ == name_;
}

std::shared_ptr<const FdoDataValue> FdoDataValue::Create(bool value) {
  return std::make_shared<const FdoDataValue>(Value(value));
}
std::shared_ptr<const FdoDataValue> FdoDataValue::Create(std::int64_t value) {
  return std::make_shared<const FdoDataValue>(Value(value));
}
std::shared_ptr<const FdoDataValue> FdoDataValue::Create(double value) {
  if (!std::isfinite(value)) {
    KEL_LOG_ERROR(L"A filter value must be a finite number");
    return nullptr;
  }
  return std::make_shared<const FdoDataValue>(Value(value));
}
std::shared_ptr<const FdoDataValue> FdoDataValue::Create(const std::wstring& value) {
  return std::make_shared<const FdoDataValue>(Value(value));
}
void FdoDataValue::Process(FdoExpressionVisitor& visitor) const { visitor.ProcessDataValue(*this); }
bool FdoDataValue::equals(const FdoExpression& other) const {
  const auto* o = SameKind<FdoDataValue>(other);
  if (!o || o->value_.index() != value_.index()) return false;
  if (const double* d = std::get_if<double>(&value_)) {
    const double e = std::get<double>(o->value_);
    // 0.0 and -0.0 have different texts, so they are different values.
    return *d == e && std::signbit(*d) == std::signbit(e);
  }
  return o->value_ == value_;
}

std::shared_ptr<const FdoGeometryValue> FdoGeometryValue::Create(const std::wstring& wkt) {
  features_detail::GeosContext ctx;
  if (!features_detail::ReadWkt(ctx.get(), WString2Utf8String(wkt))) {
    KEL_LOG_ERROR(L"Not a valid WKT geometry: " + wkt.substr(0, 200));
    return nullptr;
  }
  return std::make_shared<const FdoGeometryValue>(wkt);
}

std::shared_ptr<const FdoGeometryValue> FdoGeometryValue::CreateBox(const BBox<2, double>& box) {
  if (box.isEmpty()) {
    KEL_LOG_ERROR(L"A filter box must not be empty");
    return nullptr;
  }
  for (int i = 0; i < 2; ++i)
    if (!std::isfinite(box.min[i]) || !std::isfinite(box.max[i])) {
      KEL_LOG_ERROR(L"A filter box must have finite corners");
      return nullptr;
    }
  const std::wstring x0 = FormatDouble(box.min.x()), y0 = FormatDouble(box.min.y());
  const std::wstring x1 = FormatDouble(box.max.x()), y1 = FormatDouble(box.max.y());
  return std::make_shared<const FdoGeometryValue>(L"POLYGON ((" + x0 + L' ' + y0 + L", " + x1 + L' ' + y0 + L", " +
                                                  x1 + L' ' + y1 + L", " + x0 + L' ' + y1 + L", " + x0 + L' ' +
                                                  y0 + L"))");
}
void FdoGeometryValue::Process(FdoExpressionVisitor& visitor) const { visitor.ProcessGeometryValue(*this); }
bool FdoGeometryValue::equals(const FdoExpression& other) const {
  const auto* o = SameKind<FdoGeometryValue>(other);
  return o && o->wkt_ == wkt_;
}

std::shared_ptr<const FdoUnaryExpression> FdoUnaryExpression::CreateNegate(FdoExpressionPtr operand) {
  if (Missing(operand.get(), L"an operand")) return nullptr;
  return std::make_shared<const FdoUnaryExpression>(std::move(operand));
}
void FdoUnaryExpression::Process(FdoExpressionVisitor& visitor) const { visitor.ProcessUnaryExpression(*this); }
bool FdoUnaryExpression::equals(const FdoExpression& other) const {
  const auto* o = SameKind<FdoUnaryExpression>(other);
  return o && Same(o->operand_, operand_);
}

std::shared_ptr<const FdoBinaryExpression> FdoBinaryExpression::Create(FdoExpressionPtr left,
                                                                       FdoArithmeticOperation op,
                                                                       FdoExpressionPtr right) {
  if (Missing(left.get(), L"a left operand") || Missing(right.get(), L"a right operand")) return nullptr;
  return std::make_shared<const FdoBinaryExpression>(std::move(left), op, std::move(right));
}
void FdoBinaryExpression::Process(FdoExpressionVisitor& visitor) const { visitor.ProcessBinaryExpression(*this); }
bool FdoBinaryExpression::equals(const FdoExpression& other) const {
  const auto* o = SameKind<FdoBinaryExpression>(other);
  return o && o->op_ == op_ && Same(o->left_, left_) && Same(o->right_, right_);
}

// ---- Filters ----

FdoFilter::~FdoFilter() = default;

std::wstring FdoFilter::ToText() const {
  TextWriter w;
  Process(w);
  return std::move(w.out);
}

std::shared_ptr<const FdoBinaryLogicalOperator> FdoBinaryLogicalOperator::Create(FdoFilterPtr left,
                                                                                 FdoBinaryLogicalOperation op,
                                                                                 FdoFilterPtr right) {
  if (Missing(left.get(), L"a left operand") || Missing(right.get(), L"a right operand")) return nullptr;
  return std::make_shared<const FdoBinaryLogicalOperator>(std::move(left), op, std::move(right));
}
void FdoBinaryLogicalOperator::Process(FdoFilterVisitor& visitor) const {
  visitor.ProcessBinaryLogicalOperator(*this);
}
bool FdoBinaryLogicalOperator::equals(const FdoFilter& other) const {
  const auto* o = SameKind<FdoBinaryLogicalOperator>(other);
  return o && o->op_ == op_ && Same(o->left_, left_) && Same(o->right_, right_);
}

std::shared_ptr<const FdoUnaryLogicalOperator> FdoUnaryLogicalOperator::CreateNot(FdoFilterPtr operand) {
  if (Missing(operand.get(), L"an operand")) return nullptr;
  return std::make_shared<const FdoUnaryLogicalOperator>(std::move(operand));
}
void FdoUnaryLogicalOperator::Process(FdoFilterVisitor& visitor) const { visitor.ProcessUnaryLogicalOperator(*this); }
bool FdoUnaryLogicalOperator::equals(const FdoFilter& other) const {
  const auto* o = SameKind<FdoUnaryLogicalOperator>(other);
  return o && Same(o->operand_, operand_);
}

std::shared_ptr<const FdoComparisonCondition> FdoComparisonCondition::Create(FdoExpressionPtr left,
                                                                             FdoComparisonOperation op,
                                                                             FdoExpressionPtr right) {
  if (Missing(left.get(), L"a left operand") || Missing(right.get(), L"a right operand")) return nullptr;
  if (typeid(*left) == typeid(FdoGeometryValue) || typeid(*right) == typeid(FdoGeometryValue)) {
    KEL_LOG_ERROR(L"A geometry can only be compared by a spatial condition");
    return nullptr;
  }
  return std::make_shared<const FdoComparisonCondition>(std::move(left), op, std::move(right));
}
void FdoComparisonCondition::Process(FdoFilterVisitor& visitor) const { visitor.ProcessComparisonCondition(*this); }
bool FdoComparisonCondition::equals(const FdoFilter& other) const {
  const auto* o = SameKind<FdoComparisonCondition>(other);
  return o && o->op_ == op_ && Same(o->left_, left_) && Same(o->right_, right_);
}

std::shared_ptr<const FdoInCondition> FdoInCondition::Create(const std::wstring& property,
                                                             std::vector<std::shared_ptr<const FdoDataValue>> values) {
  for (const auto& v : values)
    if (Missing(v.get(), L"a value in the IN list")) return nullptr;
  return std::make_shared<const FdoInCondition>(property, std::move(values));
}
void FdoInCondition::Process(FdoFilterVisitor& visitor) const { visitor.ProcessInCondition(*this); }
bool FdoInCondition::equals(const FdoFilter& other) const {
  const auto* o = SameKind<FdoInCondition>(other);
  if (!o || o->property_ != property_ || o->values_.size() != values_.size()) return false;
  for (std::size_t i = 0; i < values_.size(); ++i)
    if (!values_[i]->equals(*o->values_[i])) return false;
  return true;
}

std::shared_ptr<const FdoNullCondition> FdoNullCondition::Create(const std::wstring& property) {
  return std::make_shared<const FdoNullCondition>(property);
}
void FdoNullCondition::Process(FdoFilterVisitor& visitor) const { visitor.ProcessNullCondition(*this); }
bool FdoNullCondition::equals(const FdoFilter& other) const {
  const auto* o = SameKind<FdoNullCondition>(other);
  return o && o->property_ == property_;
}

std::shared_ptr<const FdoSpatialCondition> FdoSpatialCondition::Create(
    const std::wstring& property, FdoSpatialOperation op, std::shared_ptr<const FdoGeometryValue> geometry) {
  if (Missing(geometry.get(), L"a geometry")) return nullptr;
  return std::make_shared<const FdoSpatialCondition>(property, op, std::move(geometry));
}
void FdoSpatialCondition::Process(FdoFilterVisitor& visitor) const { visitor.ProcessSpatialCondition(*this); }
bool FdoSpatialCondition::equals(const FdoFilter& other) const {
  const auto* o = SameKind<FdoSpatialCondition>(other);
  return o && o->op_ == op_ && o->property_ == property_ && o->geometry_->equals(*geometry_);
}

std::shared_ptr<const FdoDistanceCondition> FdoDistanceCondition::Create(
    const std::wstring& property, FdoDistanceOperation op, std::shared_ptr<const FdoGeometryValue> geometry,
    double distance) {
  if (Missing(geometry.get(), L"a geometry")) return nullptr;
  if (!std::isfinite(distance) || distance < 0) {
    KEL_LOG_ERROR(L"A filter distance must be finite and not negative");
    return nullptr;
  }
  return std::make_shared<const FdoDistanceCondition>(property, op, std::move(geometry), distance);
}
void FdoDistanceCondition::Process(FdoFilterVisitor& visitor) const { visitor.ProcessDistanceCondition(*this); }
bool FdoDistanceCondition::equals(const FdoFilter& other) const {
  const auto* o = SameKind<FdoDistanceCondition>(other);
  return o && o->op_ == op_ && o->property_ == property_ && o->geometry_->equals(*geometry_) &&
         o->distance_ == distance_ && std::signbit(o->distance_) == std::signbit(distance_);
}

// ---- Common filters ----

FdoFilterPtr FdoFilterUtil::CreateFdoIdInFilter(const std::wstring& property, IEnumeration<std::int64_t>& ids) {
  std::vector<std::shared_ptr<const FdoDataValue>> values;
  std::int64_t id = 0;
  while (ids.next(id)) values.push_back(FdoDataValue::Create(id));
  return FdoInCondition::Create(property, std::move(values));
}

FdoFilterPtr FdoFilterUtil::CreateFdoIdRangeFilter(const std::wstring& property, std::int64_t from,
                                                   std::int64_t to) {
  auto id = FdoIdentifier::Create(property);
  return FdoBinaryLogicalOperator::Create(
      FdoComparisonCondition::Create(id, FdoComparisonOperation::GreaterThanOrEqualTo, FdoDataValue::Create(from)),
      FdoBinaryLogicalOperation::And,
      FdoComparisonCondition::Create(id, FdoComparisonOperation::LessThanOrEqualTo, FdoDataValue::Create(to)));
}

FdoFilterPtr FdoFilterUtil::CreateFdoSpatialExtentFilter(const std::wstring& geometryProperty,
                                                         const BBox<2, double>& box) {
  auto geometry = FdoGeometryValue::CreateBox(box);
  if (!geometry) return nullptr;
  return FdoSpatialCondition::Create(geometryProperty, FdoSpatialOperation::EnvelopeIntersects, std::move(geometry));
}

FdoFilterPtr FdoFilterUtil::CreateFdoSpatialGeometryFilter(const std::wstring& geometryProperty,
                                                           const GeometryBuffer& geometry,
                                                           FdoSpatialOperation operation) {
  const std::wstring wkt = geometry.empty() ? std::wstring() : geometry.ToWKT();
  if (wkt.empty()) {
    KEL_LOG_ERROR(L"A spatial filter needs a geometry with a WKT form");
    return nullptr;
  }
  auto value = FdoGeometryValue::Create(wkt);
  if (!value) return nullptr;
  return FdoSpatialCondition::Create(geometryProperty, operation, std::move(value));
}

const wchar_t* FdoFilterUtil::ToString(FdoSpatialOperation op) {
  switch (op) {
    case FdoSpatialOperation::Contains: return L"CONTAINS";
    case FdoSpatialOperation::Crosses: return L"CROSSES";
    case FdoSpatialOperation::Disjoint: return L"DISJOINT";
    case FdoSpatialOperation::Equals: return L"EQUALS";
    case FdoSpatialOperation::Inside: return L"INSIDE";
    case FdoSpatialOperation::Intersects: return L"INTERSECTS";
    case FdoSpatialOperation::Overlaps: return L"OVERLAPS";
    case FdoSpatialOperation::Touches: return L"TOUCHES";
    case FdoSpatialOperation::Within: return L"WITHIN";
    case FdoSpatialOperation::CoveredBy: return L"COVEREDBY";
    case FdoSpatialOperation::EnvelopeIntersects: return L"ENVELOPEINTERSECTS";
  }
  return L"";
}

const wchar_t* FdoFilterUtil::ToString(FdoComparisonOperation op) {
  switch (op) {
    case FdoComparisonOperation::EqualTo: return L"=";
    case FdoComparisonOperation::NotEqualTo: return L"<>";
    case FdoComparisonOperation::GreaterThan: return L">";
    case FdoComparisonOperation::GreaterThanOrEqualTo: return L">=";
    case FdoComparisonOperation::LessThan: return L"<";
    case FdoComparisonOperation::LessThanOrEqualTo: return L"<=";
    case FdoComparisonOperation::Like: return L"LIKE";
  }
  return L"";
}

const wchar_t* FdoFilterUtil::ToString(FdoDistanceOperation op) {
  return op == FdoDistanceOperation::WithinDistance ? L"WITHINDISTANCE" : L"BEYOND";
}

}  // namespace kel
