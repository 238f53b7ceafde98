#include "kel/features/fdo_filter.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kel/geometry/geometry_buffer.h"
#include "support/log_capture.h"

namespace kel {
namespace {

std::wstring Canonical(const std::wstring& text) {
  FdoParseError error;
  auto f = FdoFilterUtil::Parse(text, &error);
  if (!f) return L"<error at " + std::to_wstring(error.offset) + L": " + error.message + L">";
  return f->ToText();
}

TEST(FdoFilterText, ParsesToTheCanonicalText) {
  const struct {
    const wchar_t* text;
    const wchar_t* canonical;
  } cases[] = {
      {L"FeatId IN (1, 2, 3)", L"FeatId IN (1, 2, 3)"},
      {L"featid in(1,-2,3.5,'x',true)", L"featid IN (1, -2, 3.5, 'x', TRUE)"},
      {L"FeatId IN ()", L"FeatId IN ()"},
      {L"(FeatId >= 5) AND (FeatId <= 10)", L"(FeatId >= 5) AND (FeatId <= 10)"},
      // AND binds tighter than OR, NOT tighter than both; chains are left-deep.
      {L"a = 1 OR b = 2 AND c = 3", L"(a = 1) OR ((b = 2) AND (c = 3))"},
      {L"a = 1 AND b = 2 AND c = 3", L"((a = 1) AND (b = 2)) AND (c = 3)"},
      {L"NOT a = 1 AND b = 2", L"(NOT (a = 1)) AND (b = 2)"},
      {L"not not (a = 1)", L"NOT (NOT (a = 1))"},
      {L"(((a = 1)))", L"a = 1"},
      {L"a != 1", L"a <> 1"},
      {L"a<>1 or a<1 or a<=1 or a>1 or a>=1", L"((((a <> 1) OR (a < 1)) OR (a <= 1)) OR (a > 1)) OR (a >= 1)"},
      {L"Name LIKE 'Ma%'", L"Name LIKE 'Ma%'"},
      {L"Name NULL", L"Name NULL"},
      {L"5 < Height", L"5 < Height"},
      // Arithmetic: usual precedence, canonical text brackets nested operations.
      {L"Height * 2 + 1 > Floors - 3 / 4", L"(Height * 2) + 1 > Floors - (3 / 4)"},
      {L"(a + b) * c = 1", L"(a + b) * c = 1"},
      {L"a - -5 = -(b)", L"a - -5 = -(b)"},
      {L"-a = --5", L"-(a) = -(-5)"},
      {L"-(5) = 1", L"-(5) = 1"},
      // Identifiers that cannot stand bare are quoted, inner quotes doubled.
      {L"\"AND\" = 1", L"\"AND\" = 1"},
      {L"\"and\" = 1", L"\"and\" = 1"},
      {L"\"a b\" = 1", L"\"a b\" = 1"},
      {L"\"say \"\"hi\"\"\" = 1", L"\"say \"\"hi\"\"\" = 1"},
      {L"\"plain\" = 1", L"plain = 1"},
      {L"\"\" = 1", L"\"\" = 1"},
      {L"\"1st\" = 1", L"\"1st\" = 1"},
      {L"Straße = 'Ölweg'", L"Straße = 'Ölweg'"},
      {L"s = 'it''s'", L"s = 'it''s'"},
      {L"s = ''", L"s = ''"},
      {L"s = 'line\nbreak'", L"s = 'line\nbreak'"},
      // Numbers: integers stay integers, doubles keep a point or an exponent.
      {L"n = 9223372036854775807", L"n = 9223372036854775807"},
      {L"n = -9223372036854775808", L"n = -9223372036854775808"},
      {L"n = 5.0", L"n = 5.0"},
      {L"n = 1e3", L"n = 1000.0"},
      {L"n = 1.5E-300", L"n = 1.5e-300"},
      {L"n = 1e300", L"n = 1e+300"},
      {L"n = -0.0", L"n = -0.0"},
      {L"n = 0.1", L"n = 0.1"},
      {L"b = true OR b = False", L"(b = TRUE) OR (b = FALSE)"},
      {L"Geometry ENVELOPEINTERSECTS GeomFromText('POLYGON ((0 0, 1 0, 1 1, 0 1, 0 0))')",
       L"Geometry ENVELOPEINTERSECTS GeomFromText('POLYGON ((0 0, 1 0, 1 1, 0 1, 0 0))')"},
      {L"geom intersects geomfromtext('POINT(1 2)')", L"geom INTERSECTS GeomFromText('POINT(1 2)')"},
      {L"g COVEREDBY GeomFromText('POINT (1 2)') and g within GeomFromText('POINT (1 2)')",
       L"(g COVEREDBY GeomFromText('POINT (1 2)')) AND (g WITHIN GeomFromText('POINT (1 2)'))"},
      {L"g WITHINDISTANCE GeomFromText('POINT (1 2)') 10", L"g WITHINDISTANCE GeomFromText('POINT (1 2)') 10.0"},
      {L"g BEYOND GeomFromText('POINT (1 2)') 2.5", L"g BEYOND GeomFromText('POINT (1 2)') 2.5"},
      {L" \t\r\n a = 1 \n", L"a = 1"},
  };
  for (const auto& c : cases) EXPECT_EQ(Canonical(c.text), c.canonical) << c.text;
}

TEST(FdoFilterText, RefusesBadTextWithThePosition) {
  test::LogCapture log;
  const struct {
    const wchar_t* text;
    std::size_t offset;
    const wchar_t* message;
  } cases[] = {
      {L"", 0, L"unexpected end of the filter"},
      {L"a = ", 4, L"unexpected end of the filter"},
      {L"a = 1 b = 2", 6, L"expected AND, OR or the end of the filter"},
      {L"FeatId IN (1, 2", 15, L"expected ',' or ')' in the IN list"},
      {L"FeatId IN (1 2)", 13, L"expected ',' or ')' in the IN list"},
      {L"FeatId IN (a)", 11, L"expected a value (a number, a string, TRUE or FALSE)"},
      {L"FeatId IN 1", 10, L"expected '(' after IN"},
      {L"a + 1 IN (1)", 0, L"expected a property name before the operator"},
      {L"s = 'open", 4, L"string has no closing quote"},
      {L"\"open = 1", 0, L"identifier has no closing double quote"},
      {L"a = 1 AND b", 11, L"expected a comparison, IN, NULL or a spatial operator after the value"},
      {L"a", 1, L"expected a comparison, IN, NULL or a spatial operator after the value"},
      {L"(a = 1) = 2", 0, L"expected a value, not a condition"},
      {L"a = (b = 1)", 4, L"expected a value, not a condition"},
      {L"a = 1 AND 2", 11, L"expected a comparison, IN, NULL or a spatial operator after the value"},
      {L"NOT 5", 5, L"expected a comparison, IN, NULL or a spatial operator after the value"},
      {L"(a = 1", 6, L"expected ')'"},
      {L"a = 1)", 5, L"expected AND, OR or the end of the filter"},
      {L"AND = 1", 0, L"'AND' is a keyword; put the name in double quotes"},
      {L"a = 1.", 6, L"expected a digit after the decimal point"},
      {L"a = 1e", 6, L"expected a digit in the exponent"},
      {L"a = 12abc", 6, L"unexpected letter after a number"},
      {L"a = 9223372036854775808", 4, L"integer does not fit in 64 bits"},
      {L"a = -9223372036854775809", 4, L"integer does not fit in 64 bits"},
      {L"a = 1e999", 4, L"number is out of range"},
      {L"a ! 1", 2, L"unexpected character '!'"},
      {L"a = 1 ; DROP TABLE t", 6, L"unexpected character"},
      {L"g INTERSECTS 'POINT (1 2)'", 13, L"expected GeomFromText('...')"},
      {L"g INTERSECTS GeomFromText('POINT (1 2')", 26, L"the WKT text does not parse"},
      {L"g INTERSECTS GeomFromText(POINT)", 26, L"expected the WKT text in single quotes"},
      {L"a + 1 INTERSECTS GeomFromText('POINT (1 2)')", 0, L"expected a property name before the operator"},
      {L"a = GeomFromText('POINT (1 2)')", 4, L"a geometry can only be compared by a spatial operator"},
      {L"GeomFromText('POINT (1 2)') + 1 = 2", 0, L"a geometry cannot take part in arithmetic"},
      {L"g WITHINDISTANCE GeomFromText('POINT (1 2)')", 44, L"expected a distance"},
      {L"g WITHINDISTANCE GeomFromText('POINT (1 2)') -1", 45, L"expected a distance"},
  };
  for (const auto& c : cases) {
    FdoParseError error;
    EXPECT_EQ(FdoFilterUtil::Parse(c.text, &error), nullptr) << c.text;
    EXPECT_EQ(error.offset, c.offset) << c.text;
    EXPECT_EQ(error.message, c.message) << c.text;
  }
  // A caller that takes the error gets no log line; one that does not, does.
  EXPECT_TRUE(log.events().empty());
  EXPECT_EQ(FdoFilterUtil::Parse(L"FeatId IN (1, 2"), nullptr);
  EXPECT_TRUE(log.contains("Filter does not parse at offset 15: expected ',' or ')' in the IN list"));
}

TEST(FdoFilterText, RefusesNestingBeyondTheLimits) {
  test::LogCapture log;
  // Brackets, NOT and minus recurse in the reader; long AND chains make deep
  // trees that every later walk recurses over. Both stop with an error.
  const std::wstring deepBrackets = std::wstring(5000, L'(') + L"a = 1" + std::wstring(5000, L')');
  const std::wstring deepNot = [] {
    std::wstring s;
    for (int i = 0; i < 5000; ++i) s += L"NOT ";
    return s + L"a = 1";
  }();
  const std::wstring deepMinus = L"a = " + std::wstring(5000, L'-') + L"b";
  std::wstring longChain = L"a = 0";
  for (int i = 1; i <= FdoFilterUtil::MaxDepth + 1; ++i) longChain += L" AND a = " + std::to_wstring(i);
  for (const std::wstring& text : {deepBrackets, deepNot, deepMinus, longChain}) {
    FdoParseError error;
    EXPECT_EQ(FdoFilterUtil::Parse(text, &error), nullptr);
    EXPECT_EQ(error.message, L"filter is nested too deeply");
  }
  // Just below the limits still parses, and so does its canonical text,
  // which brackets every minus and NOT and so nests twice as deep.
  std::wstring chain = L"a = 0";
  for (int i = 1; i < FdoFilterUtil::MaxDepth; ++i) chain += L" OR a = " + std::to_wstring(i);
  const std::wstring minus = L"a = " + std::wstring(FdoFilterUtil::MaxDepth - 1, L'-') + L"b";
  for (const std::wstring& text : {chain, minus}) {
    auto f = FdoFilterUtil::Parse(text);
    ASSERT_NE(f, nullptr);
    EXPECT_NE(FdoFilterUtil::Parse(f->ToText()), nullptr);
  }
}

// ---- fixed-seed random trees: text round trip ----

class RandomTrees {
public:
  explicit RandomTrees(unsigned seed) : rng_(seed) {}

  FdoFilterPtr Filter(int depth) {
    const int kind = Pick(depth > 0 ? 9 : 6);
    switch (kind) {
      case 0: return FdoComparisonCondition::Create(Expression(2), static_cast<FdoComparisonOperation>(Pick(7)),
                                                    Expression(2));
      case 1: {
        std::vector<std::shared_ptr<const FdoDataValue>> values;
        for (int i = Pick(4); i > 0; --i) values.push_back(Value());
        return FdoInCondition::Create(Name(), std::move(values));
      }
      case 2: return FdoNullCondition::Create(Name());
      case 3: return FdoSpatialCondition::Create(Name(), static_cast<FdoSpatialOperation>(Pick(11)), Geometry());
      case 4:
        return FdoDistanceCondition::Create(Name(), static_cast<FdoDistanceOperation>(Pick(2)), Geometry(),
                                            Pick(2) ? std::abs(Double()) : static_cast<double>(Pick(100)));
      case 5: return FdoComparisonCondition::Create(FdoIdentifier::Create(Name()), FdoComparisonOperation::Like,
                                                    FdoDataValue::Create(String()));
      case 6: return FdoUnaryLogicalOperator::CreateNot(Filter(depth - 1));
      default:
        return FdoBinaryLogicalOperator::Create(Filter(depth - 1), static_cast<FdoBinaryLogicalOperation>(Pick(2)),
                                                Filter(depth - 1));
    }
  }

private:
  int Pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }

  std::wstring Name() {
    static const wchar_t* const kNames[] = {L"FeatId", L"Name", L"and", L"NULL", L"a b", L"say \"hi\"", L"",
                                            L"1st", L"Straße", L"x'); DROP TABLE t; --", L"_", L"g\\", L"\"",
                                            L"GeomFromText", L"tab\there"};
    return kNames[Pick(static_cast<int>(std::size(kNames)))];
  }
  std::wstring String() {
    std::wstring s;
    static const wchar_t kChars[] = L"ab' \"\\%_\n\x00e9\x4e2d;-";
    for (int i = Pick(8); i > 0; --i) s += kChars[Pick(static_cast<int>(std::size(kChars)) - 1)];
    return s;
  }
  double Double() {
    // Random bit patterns cover subnormals, huge values and -0.0.
    for (;;) {
      const std::uint64_t bits = std::uniform_int_distribution<std::uint64_t>()(rng_);
      double d;
      std::memcpy(&d, &bits, sizeof d);
      if (std::isfinite(d)) return Pick(8) == 0 ? -0.0 : d;
    }
  }
  std::int64_t Integer() {
    switch (Pick(4)) {
      case 0: return std::numeric_limits<std::int64_t>::min();
      case 1: return std::numeric_limits<std::int64_t>::max();
      case 2: return Pick(21) - 10;
      default: return static_cast<std::int64_t>(std::uniform_int_distribution<std::uint64_t>()(rng_));
    }
  }
  std::shared_ptr<const FdoDataValue> Value() {
    switch (Pick(4)) {
      case 0: return FdoDataValue::Create(Pick(2) == 1);
      case 1: return FdoDataValue::Create(Integer());
      case 2: return FdoDataValue::Create(Double());
      default: return FdoDataValue::Create(String());
    }
  }
  FdoExpressionPtr Expression(int depth) {
    switch (Pick(depth > 0 ? 5 : 2)) {
      case 0: return FdoIdentifier::Create(Name());
      case 1: return Value();
      case 2: return FdoUnaryExpression::CreateNegate(Expression(depth - 1));
      default:
        return FdoBinaryExpression::Create(Expression(depth - 1), static_cast<FdoArithmeticOperation>(Pick(4)),
                                           Expression(depth - 1));
    }
  }
  std::shared_ptr<const FdoGeometryValue> Geometry() {
    static const wchar_t* const kWkt[] = {L"POINT (1 2)", L"POLYGON ((0 0, 1 0, 1 1, 0 0))",
                                          L"LINESTRING Z (0 0 1, 5 5 2)", L"MULTIPOINT ((0 0), (1 1))",
                                          L"GEOMETRYCOLLECTION EMPTY"};
    if (Pick(3) == 0) {
      BBox<2, double> box;
      box.extend(Vec2d(Double(), Double()));
      box.extend(Vec2d(Double(), Double()));
      return FdoGeometryValue::CreateBox(box);
    }
    return FdoGeometryValue::Create(kWkt[Pick(static_cast<int>(std::size(kWkt)))]);
  }

  std::mt19937_64 rng_;
};

TEST(FdoFilterText, RandomTreesComeBackFromTheirText) {
  RandomTrees trees(20240601);
  for (int i = 0; i < 2000; ++i) {
    FdoFilterPtr tree = trees.Filter(4);
    ASSERT_NE(tree, nullptr);
    const std::wstring text = tree->ToText();
    FdoParseError error;
    FdoFilterPtr back = FdoFilterUtil::Parse(text, &error);
    ASSERT_NE(back, nullptr) << "offset " << error.offset << ": " << std::string(error.message.begin(), error.message.end());
    EXPECT_TRUE(back->equals(*tree)) << i;
    EXPECT_EQ(back->ToText(), text) << i;
  }
}

TEST(FdoFilter, EqualityTellsValuesApart) {
  auto v = [](auto x) -> FdoExpressionPtr { return FdoDataValue::Create(x); };
  EXPECT_FALSE(v(std::int64_t{5})->equals(*v(5.0)));
  EXPECT_FALSE(v(0.0)->equals(*v(-0.0)));
  EXPECT_FALSE(v(std::wstring(L"1"))->equals(*v(std::int64_t{1})));
  EXPECT_FALSE(v(true)->equals(*v(std::int64_t{1})));
  EXPECT_TRUE(v(2.5)->equals(*v(2.5)));
  auto id = FdoIdentifier::Create(L"a");
  auto lt = FdoComparisonCondition::Create(id, FdoComparisonOperation::LessThan, v(std::int64_t{1}));
  auto le = FdoComparisonCondition::Create(id, FdoComparisonOperation::LessThanOrEqualTo, v(std::int64_t{1}));
  EXPECT_FALSE(lt->equals(*le));
  EXPECT_FALSE(FdoBinaryLogicalOperator::Create(lt, FdoBinaryLogicalOperation::And, le)
                   ->equals(*FdoBinaryLogicalOperator::Create(le, FdoBinaryLogicalOperation::And, lt)));
}

class IdList final : public IEnumeration<std::int64_t> {
public:
  explicit IdList(std::vector<std::int64_t> ids) : ids_(std::move(ids)) {}
  bool next(std::int64_t& value) override {
    if (at_ >= ids_.size()) return false;
    value = ids_[at_++];
    return true;
  }
  void reset() override { at_ = 0; }

private:
  std::vector<std::int64_t> ids_;
  std::size_t at_ = 0;
};

TEST(FdoFilterUtil, CommonFiltersHaveTheirTextForms) {
  IdList ids({1, 2, 3});
  EXPECT_EQ(FdoFilterUtil::CreateFdoIdInFilter(L"FeatId", ids)->ToText(), L"FeatId IN (1, 2, 3)");
  IdList none({});
  EXPECT_EQ(FdoFilterUtil::CreateFdoIdInFilter(L"FeatId", none)->ToText(), L"FeatId IN ()");
  EXPECT_EQ(FdoFilterUtil::CreateFdoIdRangeFilter(L"FeatId", 5, 10)->ToText(), L"(FeatId >= 5) AND (FeatId <= 10)");
  EXPECT_EQ(FdoFilterUtil::CreateFdoSpatialExtentFilter(L"Geometry", BBox<2, double>(Vec2d(0, -1.5), Vec2d(2, 3)))
                ->ToText(),
            L"Geometry ENVELOPEINTERSECTS GeomFromText('POLYGON ((0.0 -1.5, 2.0 -1.5, 2.0 3.0, 0.0 3.0, 0.0 -1.5))')");
  EXPECT_EQ(FdoFilterUtil::CreateFdoSpatialGeometryFilter(L"geom", GeometryBuffer(BBox<2, double>(Vec2d(0, 0), Vec2d(2, 3))),
                                                         FdoSpatialOperation::Within)
                ->ToText(),
            L"geom WITHIN GeomFromText('POLYGON ((0 0, 2 0, 2 3, 0 3, 0 0))')");
  // A degenerate box is a point: still a valid extent.
  EXPECT_NE(FdoFilterUtil::CreateFdoSpatialExtentFilter(L"g", BBox<2, double>(Vec2d(1, 1), Vec2d(1, 1))), nullptr);
}

TEST(FdoFilterUtil, RefusesValuesWithoutATextForm) {
  test::LogCapture log;
  const double inf = std::numeric_limits<double>::infinity(), nan = std::nan("");
  EXPECT_EQ(FdoFilterUtil::CreateFdoSpatialExtentFilter(L"g", BBox<2, double>()), nullptr);
  EXPECT_EQ(FdoFilterUtil::CreateFdoSpatialExtentFilter(L"g", BBox<2, double>(Vec2d(0, 0), Vec2d(inf, 1))), nullptr);
  EXPECT_EQ(FdoFilterUtil::CreateFdoSpatialExtentFilter(L"g", BBox<2, double>(Vec2d(nan, 0), Vec2d(1, 1))), nullptr);
  EXPECT_EQ(FdoDataValue::Create(nan), nullptr);
  EXPECT_EQ(FdoFilterUtil::CreateFdoSpatialGeometryFilter(L"g", GeometryBuffer(0, FdoDimensionality_XY, false),
                                                         FdoSpatialOperation::Intersects),
            nullptr);
  EXPECT_EQ(FdoGeometryValue::Create(L"POLYGON ((0 0, 1 1"), nullptr);
  EXPECT_EQ(FdoGeometryValue::Create(std::wstring(100, L'(')), nullptr);
  EXPECT_EQ(FdoDistanceCondition::Create(L"g", FdoDistanceOperation::Beyond, FdoGeometryValue::Create(L"POINT (0 0)"),
                                         -1.0),
            nullptr);
  EXPECT_EQ(FdoBinaryLogicalOperator::Create(nullptr, FdoBinaryLogicalOperation::And, nullptr), nullptr);
  EXPECT_TRUE(log.contains("A filter box must not be empty"));
  EXPECT_TRUE(log.contains("Not a valid WKT geometry: POLYGON ((0 0, 1 1"));
}

}  // namespace
}  // namespace kel
