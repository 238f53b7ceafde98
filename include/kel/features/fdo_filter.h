// Feature filters: a small immutable tree of conditions (comparison, IN, NULL,
// spatial, distance) joined by AND, OR and NOT, with the text form of the
// feature-filter grammar, for example
//   FeatId IN (1, 2, 3)
//   (FeatId >= 5) AND (FeatId <= 10)
//   Geometry ENVELOPEINTERSECTS GeomFromText('POLYGON ((0 0, 1 0, 1 1, 0 1, 0 0))')
// ToText() writes the canonical text and FdoFilterUtil::Parse reads it back
// into an equal tree. Nodes are shared by pointer and never change after
// creation, so trees may be shared between threads.
//
// Nothing here touches a data store: FdoFilterParser (fdo_filter_parser.h)
// turns a tree into a query, FeatureSource (feature_source.h) runs it.
// Creation functions log an error and return null for values the text form
// cannot carry (non-finite numbers, empty boxes, WKT that does not parse).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "kel/core/enumerate.h"
#include "kel/core/types.h"
#include "kel/export.h"

namespace kel {

class GeometryBuffer;
class FdoExpression;
class FdoFilter;
class FdoExpressionVisitor;
class FdoFilterVisitor;
using FdoExpressionPtr = std::shared_ptr<const FdoExpression>;
using FdoFilterPtr = std::shared_ptr<const FdoFilter>;

// ---- Expressions --------------------------------------------------------

class KEL_API FdoExpression {
public:
  virtual ~FdoExpression();
  virtual void Process(FdoExpressionVisitor& visitor) const = 0;
  // Structural equality: same node kinds, operators, names and values.
  virtual bool equals(const FdoExpression& other) const = 0;
  std::wstring ToText() const;
};

// A property of the feature class, by name.
class KEL_API FdoIdentifier final : public FdoExpression {
public:
  explicit FdoIdentifier(std::wstring name) : name_(std::move(name)) {}
  static std::shared_ptr<const FdoIdentifier> Create(const std::wstring& name);
  void Process(FdoExpressionVisitor& visitor) const override;
  bool equals(const FdoExpression& other) const override;
  const std::wstring& name() const { return name_; }

private:
  std::wstring name_;
};

// A literal: boolean, 64-bit integer, finite double or string.
class KEL_API FdoDataValue final : public FdoExpression {
public:
  using Value = std::variant<bool, std::int64_t, double, std::wstring>;
  explicit FdoDataValue(Value value) : value_(std::move(value)) {}
  static std::shared_ptr<const FdoDataValue> Create(bool value);
  static std::shared_ptr<const FdoDataValue> Create(std::int64_t value);
  // Null (and a logged error) for NaN and infinities, which have no text form.
  static std::shared_ptr<const FdoDataValue> Create(double value);
  static std::shared_ptr<const FdoDataValue> Create(const std::wstring& value);
  void Process(FdoExpressionVisitor& visitor) const override;
  bool equals(const FdoExpression& other) const override;
  const Value& value() const { return value_; }

private:
  Value value_;
};

// GeomFromText('...'): a geometry kept as the WKT it was given, checked to
// parse when created.
class KEL_API FdoGeometryValue final : public FdoExpression {
public:
  explicit FdoGeometryValue(std::wstring wkt) : wkt_(std::move(wkt)) {}
  // Null and a logged error when the WKT does not parse.
  static std::shared_ptr<const FdoGeometryValue> Create(const std::wstring& wkt);
  // The box as a closed counter-clockwise ring starting at min; null and a
  // logged error for an empty or non-finite box.
  static std::shared_ptr<const FdoGeometryValue> CreateBox(const BBox<2, double>& box);
  void Process(FdoExpressionVisitor& visitor) const override;
  bool equals(const FdoExpression& other) const override;
  const std::wstring& wkt() const { return wkt_; }

private:
  std::wstring wkt_;
};

// -operand
class KEL_API FdoUnaryExpression final : public FdoExpression {
public:
  explicit FdoUnaryExpression(FdoExpressionPtr operand) : operand_(std::move(operand)) {}
  static std::shared_ptr<const FdoUnaryExpression> CreateNegate(FdoExpressionPtr operand);
  void Process(FdoExpressionVisitor& visitor) const override;
  bool equals(const FdoExpression& other) const override;
  const FdoExpressionPtr& operand() const { return operand_; }

private:
  FdoExpressionPtr operand_;
};

enum class FdoArithmeticOperation { Add, Subtract, Multiply, Divide };

class KEL_API FdoBinaryExpression final : public FdoExpression {
public:
  FdoBinaryExpression(FdoExpressionPtr left, FdoArithmeticOperation op, FdoExpressionPtr right)
      : left_(std::move(left)), right_(std::move(right)), op_(op) {}
  static std::shared_ptr<const FdoBinaryExpression> Create(FdoExpressionPtr left, FdoArithmeticOperation op,
                                                           FdoExpressionPtr right);
  void Process(FdoExpressionVisitor& visitor) const override;
  bool equals(const FdoExpression& other) const override;
  const FdoExpressionPtr& left() const { return left_; }
  const FdoExpressionPtr& right() const { return right_; }
  FdoArithmeticOperation operation() const { return op_; }

private:
  FdoExpressionPtr left_;
  FdoExpressionPtr right_;
  FdoArithmeticOperation op_;
};

class FdoExpressionVisitor {
public:
  virtual ~FdoExpressionVisitor() = default;
  virtual void ProcessIdentifier(const FdoIdentifier& node) = 0;
  virtual void ProcessDataValue(const FdoDataValue& node) = 0;
  virtual void ProcessGeometryValue(const FdoGeometryValue& node) = 0;
  virtual void ProcessUnaryExpression(const FdoUnaryExpression& node) = 0;
  virtual void ProcessBinaryExpression(const FdoBinaryExpression& node) = 0;
};

// ---- Filters ------------------------------------------------------------

class KEL_API FdoFilter {
public:
  virtual ~FdoFilter();
  virtual void Process(FdoFilterVisitor& visitor) const = 0;
  virtual bool equals(const FdoFilter& other) const = 0;
  // The canonical text; FdoFilterUtil::Parse of it gives an equal tree.
  std::wstring ToText() const;
};

enum class FdoBinaryLogicalOperation { And, Or };

class KEL_API FdoBinaryLogicalOperator final : public FdoFilter {
public:
  FdoBinaryLogicalOperator(FdoFilterPtr left, FdoBinaryLogicalOperation op, FdoFilterPtr right)
      : left_(std::move(left)), right_(std::move(right)), op_(op) {}
  static std::shared_ptr<const FdoBinaryLogicalOperator> Create(FdoFilterPtr left, FdoBinaryLogicalOperation op,
                                                                FdoFilterPtr right);
  void Process(FdoFilterVisitor& visitor) const override;
  bool equals(const FdoFilter& other) const override;
  const FdoFilterPtr& left() const { return left_; }
  const FdoFilterPtr& right() const { return right_; }
  FdoBinaryLogicalOperation operation() const { return op_; }

private:
  FdoFilterPtr left_;
  FdoFilterPtr right_;
  FdoBinaryLogicalOperation op_;
};

// NOT operand
class KEL_API FdoUnaryLogicalOperator final : public FdoFilter {
public:
  explicit FdoUnaryLogicalOperator(FdoFilterPtr operand) : operand_(std::move(operand)) {}
  static std::shared_ptr<const FdoUnaryLogicalOperator> CreateNot(FdoFilterPtr operand);
  void Process(FdoFilterVisitor& visitor) const override;
  bool equals(const FdoFilter& other) const override;
  const FdoFilterPtr& operand() const { return operand_; }

private:
  FdoFilterPtr operand_;
};

enum class FdoComparisonOperation { EqualTo, NotEqualTo, GreaterThan, GreaterThanOrEqualTo, LessThan, LessThanOrEqualTo, Like };

class KEL_API FdoComparisonCondition final : public FdoFilter {
public:
  FdoComparisonCondition(FdoExpressionPtr left, FdoComparisonOperation op, FdoExpressionPtr right)
      : left_(std::move(left)), right_(std::move(right)), op_(op) {}
  static std::shared_ptr<const FdoComparisonCondition> Create(FdoExpressionPtr left, FdoComparisonOperation op,
                                                              FdoExpressionPtr right);
  void Process(FdoFilterVisitor& visitor) const override;
  bool equals(const FdoFilter& other) const override;
  const FdoExpressionPtr& left() const { return left_; }
  const FdoExpressionPtr& right() const { return right_; }
  FdoComparisonOperation operation() const { return op_; }

private:
  FdoExpressionPtr left_;
  FdoExpressionPtr right_;
  FdoComparisonOperation op_;
};

// property IN (value, ...). An empty list matches no feature.
class KEL_API FdoInCondition final : public FdoFilter {
public:
  FdoInCondition(std::wstring property, std::vector<std::shared_ptr<const FdoDataValue>> values)
      : property_(std::move(property)), values_(std::move(values)) {}
  static std::shared_ptr<const FdoInCondition> Create(const std::wstring& property,
                                                      std::vector<std::shared_ptr<const FdoDataValue>> values);
  void Process(FdoFilterVisitor& visitor) const override;
  bool equals(const FdoFilter& other) const override;
  const std::wstring& propertyName() const { return property_; }
  const std::vector<std::shared_ptr<const FdoDataValue>>& values() const { return values_; }

private:
  std::wstring property_;
  std::vector<std::shared_ptr<const FdoDataValue>> values_;
};

// property NULL: the property has no value.
class KEL_API FdoNullCondition final : public FdoFilter {
public:
  explicit FdoNullCondition(std::wstring property) : property_(std::move(property)) {}
  static std::shared_ptr<const FdoNullCondition> Create(const std::wstring& property);
  void Process(FdoFilterVisitor& visitor) const override;
  bool equals(const FdoFilter& other) const override;
  const std::wstring& propertyName() const { return property_; }

private:
  std::wstring property_;
};

// How the feature's geometry (left) relates to the filter's geometry (right).
enum class FdoSpatialOperation {
  Contains,            // the feature contains the geometry
  Crosses,
  Disjoint,
  Equals,              // topologically equal
  Inside,              // the feature lies in the geometry's interior, off its boundary
  Intersects,
  Overlaps,
  Touches,
  Within,              // the feature lies within the geometry (may touch its boundary)
  CoveredBy,
  EnvelopeIntersects,  // the feature's bounding box intersects the geometry
};

class KEL_API FdoSpatialCondition final : public FdoFilter {
public:
  FdoSpatialCondition(std::wstring property, FdoSpatialOperation op, std::shared_ptr<const FdoGeometryValue> geometry)
      : property_(std::move(property)), geometry_(std::move(geometry)), op_(op) {}
  static std::shared_ptr<const FdoSpatialCondition> Create(const std::wstring& property, FdoSpatialOperation op,
                                                           std::shared_ptr<const FdoGeometryValue> geometry);
  void Process(FdoFilterVisitor& visitor) const override;
  bool equals(const FdoFilter& other) const override;
  const std::wstring& propertyName() const { return property_; }
  FdoSpatialOperation operation() const { return op_; }
  const std::shared_ptr<const FdoGeometryValue>& geometry() const { return geometry_; }

private:
  std::wstring property_;
  std::shared_ptr<const FdoGeometryValue> geometry_;
  FdoSpatialOperation op_;
};

enum class FdoDistanceOperation { WithinDistance, Beyond };

// property WITHINDISTANCE GeomFromText('...') distance: planar distance in
// the store's units, inclusive for WithinDistance, exclusive for Beyond.
class KEL_API FdoDistanceCondition final : public FdoFilter {
public:
  FdoDistanceCondition(std::wstring property, FdoDistanceOperation op,
                       std::shared_ptr<const FdoGeometryValue> geometry, double distance)
      : property_(std::move(property)), geometry_(std::move(geometry)), distance_(distance), op_(op) {}
  // Null and a logged error for a negative or non-finite distance.
  static std::shared_ptr<const FdoDistanceCondition> Create(const std::wstring& property, FdoDistanceOperation op,
                                                            std::shared_ptr<const FdoGeometryValue> geometry,
                                                            double distance);
  void Process(FdoFilterVisitor& visitor) const override;
  bool equals(const FdoFilter& other) const override;
  const std::wstring& propertyName() const { return property_; }
  FdoDistanceOperation operation() const { return op_; }
  const std::shared_ptr<const FdoGeometryValue>& geometry() const { return geometry_; }
  double distance() const { return distance_; }

private:
  std::wstring property_;
  std::shared_ptr<const FdoGeometryValue> geometry_;
  double distance_;
  FdoDistanceOperation op_;
};

class FdoFilterVisitor {
public:
  virtual ~FdoFilterVisitor() = default;
  virtual void ProcessBinaryLogicalOperator(const FdoBinaryLogicalOperator& node) = 0;
  virtual void ProcessUnaryLogicalOperator(const FdoUnaryLogicalOperator& node) = 0;
  virtual void ProcessComparisonCondition(const FdoComparisonCondition& node) = 0;
  virtual void ProcessInCondition(const FdoInCondition& node) = 0;
  virtual void ProcessNullCondition(const FdoNullCondition& node) = 0;
  virtual void ProcessSpatialCondition(const FdoSpatialCondition& node) = 0;
  virtual void ProcessDistanceCondition(const FdoDistanceCondition& node) = 0;
};

// Where a filter text stops parsing: the offset (0-based, in characters) of
// the first character that does not fit, and what was expected there.
struct FdoParseError {
  std::size_t offset = 0;
  std::wstring message;
};

// The filters the application asks for most, and the text parser.
class KEL_API FdoFilterUtil final {
public:
  FdoFilterUtil() = delete;

  // property IN (ids...), the ids taken from the enumeration's current
  // position to its end, in order. No ids: a filter that matches nothing.
  static FdoFilterPtr CreateFdoIdInFilter(const std::wstring& property, IEnumeration<std::int64_t>& ids);
  // (property >= from) AND (property <= to); from > to matches nothing.
  static FdoFilterPtr CreateFdoIdRangeFilter(const std::wstring& property, std::int64_t from, std::int64_t to);
  // geometryProperty ENVELOPEINTERSECTS the box: features whose bounding box
  // touches the box (edges count). Null for an empty or non-finite box.
  static FdoFilterPtr CreateFdoSpatialExtentFilter(const std::wstring& geometryProperty, const BBox<2, double>& box);
  // geometryProperty <operation> the geometry, kept as its WKT. Null (and a
  // logged error) when the geometry has no WKT (empty, or refused by GEOS).
  static FdoFilterPtr CreateFdoSpatialGeometryFilter(const std::wstring& geometryProperty,
                                                     const GeometryBuffer& geometry, FdoSpatialOperation operation);

  // Reads the text form. On failure returns null and fills `error`, or,
  // when the caller gives none, logs "Filter does not parse at offset N:
  // ..." instead. Trees
  // taller than MaxDepth (a chain of 100 ORs is that tall) and brackets
  // nested deeper than twice that are refused, so hostile text cannot
  // exhaust the stack of the reader or of later walks over the tree.
  static FdoFilterPtr Parse(const std::wstring& text, FdoParseError* error = nullptr);
  static constexpr int MaxDepth = 100;

  // Keywords and operator names as the text form writes them.
  static const wchar_t* ToString(FdoSpatialOperation op);
  static const wchar_t* ToString(FdoComparisonOperation op);
  static const wchar_t* ToString(FdoDistanceOperation op);
};

}  // namespace kel
