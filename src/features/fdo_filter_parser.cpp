#include "kel/features/fdo_filter_parser.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <typeinfo>
#include <vector>

#include "features/detail/filter_text.h"
#include "features/detail/geos_util.h"
#include "kel/core/log.h"
#include "kel/core/text.h"

namespace kel {

namespace {

using features_detail::FormatDoubleUtf8;

bool EqualsIgnoringAsciiCase(const std::wstring& a, const std::wstring& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    wchar_t x = a[i], y = b[i];
    if (x >= L'A' && x <= L'Z') x = static_cast<wchar_t>(x + 32);
    if (y >= L'A' && y <= L'Z') y = static_cast<wchar_t>(y + 32);
    if (x != y) return false;
  }
  return true;
}

void FlattenAnd(const FdoFilterPtr& f, std::vector<FdoFilterPtr>& out) {
  if (const auto* b = dynamic_cast<const FdoBinaryLogicalOperator*>(f.get());
      b && b->operation() == FdoBinaryLogicalOperation::And) {
    FlattenAnd(b->left(), out);
    FlattenAnd(b->right(), out);
    return;
  }
  out.push_back(f);
}

bool HasGeometryTest(const FdoFilter& f) {
  if (const auto* b = dynamic_cast<const FdoBinaryLogicalOperator*>(&f))
    return HasGeometryTest(*b->left()) || HasGeometryTest(*b->right());
  if (const auto* n = dynamic_cast<const FdoUnaryLogicalOperator*>(&f)) return HasGeometryTest(*n->operand());
  return typeid(f) == typeid(FdoSpatialCondition) || typeid(f) == typeid(FdoDistanceCondition);
}

// The WKT's bounding box, and whether the geometry is that box (a
// rectangle, or a point); false for an empty geometry.
bool Envelope(const FdoGeometryValue& g, BBox<2, double>& box, bool* isBox = nullptr) {
  features_detail::GeosContext ctx;
  auto geom = features_detail::ReadWkt(ctx.get(), WString2Utf8String(g.wkt()));
  if (!geom || GEOSisEmpty_r(ctx.get(), geom.get()) != 0) return false;
  double x0, y0, x1, y1;
  if (!GEOSGeom_getXMin_r(ctx.get(), geom.get(), &x0) || !GEOSGeom_getYMin_r(ctx.get(), geom.get(), &y0) ||
      !GEOSGeom_getXMax_r(ctx.get(), geom.get(), &x1) || !GEOSGeom_getYMax_r(ctx.get(), geom.get(), &y1))
    return false;
  box = BBox<2, double>(Vec2d(x0, y0), Vec2d(x1, y1));
  if (isBox) {
    features_detail::GeosGeometryPtr envelope(GEOSEnvelope_r(ctx.get(), geom.get()), {ctx.get()});
    *isBox = envelope && GEOSEquals_r(ctx.get(), envelope.get(), geom.get()) == 1;
  }
  return true;
}

// Appends pieces one by one (g++ 12 warns falsely on chains of operator+).
template <typename... Pieces>
void Append(std::string& out, const Pieces&... pieces) {
  (out.append(pieces), ...);
}

double Area(const BBox<2, double>& b) { return (b.max.x() - b.min.x()) * (b.max.y() - b.min.y()); }

}  // namespace

int FeatureClassDefinition::find(const std::wstring& name) const {
  int found = -1;
  for (std::size_t i = 0; i < properties.size(); ++i) {
    if (properties[i].name == name) return static_cast<int>(i);
    if (EqualsIgnoringAsciiCase(properties[i].name, name)) {
      if (found >= 0) found = -2;
      else if (found == -1) found = static_cast<int>(i);
    }
  }
  return found < 0 ? -1 : found;
}

FdoFilterParser::FdoFilterParser(FdoQueryTarget target) : target_(std::move(target)) {}
FdoFilterParser::~FdoFilterParser() = default;

void FdoFilterParser::Fail(Failure f) {
  if (failure_ == Failure::None || f == Failure::Invalid) failure_ = f;
}

bool FdoFilterParser::ToSql(const FdoFilter& filter, std::string& sql) {
  sql_.clear();
  failure_ = Failure::None;
  positive_ = true;
  collect_ = false;
  filter.Process(*this);
  if (failure_ != Failure::None) return false;
  sql = std::move(sql_);
  return true;
}

bool FdoFilterParser::Parse(const FdoFilterPtr& filter, FdoQuery& out) {
  out = FdoQuery{};
  if (!filter) return true;
  std::vector<FdoFilterPtr> conjuncts;
  FlattenAnd(filter, conjuncts);

  FdoQueryTarget residualTarget = target_;
  residualTarget.dialect = FdoSqlDialect::OgrSql;
  residualTarget.identityColumn.clear();
  FdoFilterParser residualSql(residualTarget);

  std::vector<std::string> where;
  std::vector<FdoFilterPtr> residual;
  bool haveBox = false;
  BBox<2, double> bestBox;
  std::wstring bestProperty;
  // The conjunct behind the box, when the store's spatial filter answers it
  // exactly (no per-feature test needed); null otherwise.
  FdoFilterPtr bestDecided;
  std::vector<std::string> indexParts;

  // Attribute pieces of a condition the store will not see must still be
  // writable in GDAL's SQL, which tests them per feature.
  auto checkResidual = [&](const FdoFilter& f, auto&& self) -> bool {
    if (const auto* b = dynamic_cast<const FdoBinaryLogicalOperator*>(&f))
      return self(*b->left(), self) && self(*b->right(), self);
    if (const auto* n = dynamic_cast<const FdoUnaryLogicalOperator*>(&f)) return self(*n->operand(), self);
    const std::wstring* property = nullptr;
    if (const auto* s = dynamic_cast<const FdoSpatialCondition*>(&f)) property = &s->propertyName();
    if (const auto* d = dynamic_cast<const FdoDistanceCondition*>(&f)) property = &d->propertyName();
    if (property) {
      const int i = target_.definition.find(*property);
      if (i < 0 || target_.definition.properties[i].type != FeaturePropertyType::Geometry) {
        KEL_LOG_ERROR(L"Property '" + *property + L"' is not a geometry of class '" + target_.definition.name + L"'");
        return false;
      }
      return true;
    }
    std::string ignored;
    if (residualSql.ToSql(f, ignored)) return true;
    if (residualSql.failure_ == Failure::Inexpressible)
      KEL_LOG_ERROR(L"Filter condition cannot be written safely for this store: " + f.ToText().substr(0, 200));
    return false;
  };

  for (const FdoFilterPtr& c : conjuncts) {
    if (!HasGeometryTest(*c)) {
      std::string sql;
      if (ToSql(*c, sql)) {
        where.push_back(std::move(sql));
        continue;
      }
      if (failure_ == Failure::Invalid) return false;
      if (!checkResidual(*c, checkResidual)) return false;
      residual.push_back(c);
      continue;
    }
    if (!checkResidual(*c, checkResidual)) return false;
    residual.push_back(c);

    // A lone geometry test at the top level bounds every match: use its box.
    BBox<2, double> box;
    std::wstring property;
    bool decided = false;
    if (const auto* s = dynamic_cast<const FdoSpatialCondition*>(c.get())) {
      bool isBox = false;
      if (s->operation() == FdoSpatialOperation::Disjoint || !Envelope(*s->geometry(), box, &isBox)) continue;
      const auto& def = target_.definition.properties[target_.definition.find(s->propertyName())];
      property = def.name;
      const bool exactIsEnvelope = def.geometryType == FeatureGeometryType::Point;
      // With a box for a geometry the store's own test is ours: a box test
      // for points or where the store tests boxes (ENVELOPEINTERSECTS), a
      // shape test where it tests shapes (INTERSECTS). Behind ODBC the box
      // may be rounded on its way into SQL, so the per-feature test stays.
      const bool envelopeOp = s->operation() == FdoSpatialOperation::EnvelopeIntersects;
      if (isBox && target_.dialect != FdoSqlDialect::Portable &&
          (envelopeOp || s->operation() == FdoSpatialOperation::Intersects))
        decided = exactIsEnvelope || (envelopeOp == target_.spatialFilterTestsEnvelopesOnly);
      if (envelopeOp) {
        if (!target_.spatialFilterTestsEnvelopesOnly && !exactIsEnvelope) {
          // The store's spatial filter would drop features whose box meets
          // the geometry while their shape does not; ask the R-tree instead.
          if (!target_.spatialIndexTable.empty() && property == target_.definition.defaultGeometryProperty &&
              !target_.identityColumn.empty()) {
            std::string id, table;
            if (QuoteTo(target_.identityColumn, id) && QuoteTo(target_.spatialIndexTable, table))
              indexParts.push_back(id + " IN (SELECT id FROM " + table + " WHERE minx <= " +
                                   FormatDoubleUtf8(box.max.x()) + " AND maxx >= " + FormatDoubleUtf8(box.min.x()) +
                                   " AND miny <= " + FormatDoubleUtf8(box.max.y()) +
                                   " AND maxy >= " + FormatDoubleUtf8(box.min.y()) + ")");
          }
          continue;
        }
      }
    } else if (const auto* d = dynamic_cast<const FdoDistanceCondition*>(c.get())) {
      if (d->operation() == FdoDistanceOperation::Beyond || !Envelope(*d->geometry(), box)) continue;
      property = target_.definition.properties[target_.definition.find(d->propertyName())].name;
      box.min = box.min - Vec2d(d->distance(), d->distance());
      box.max = box.max + Vec2d(d->distance(), d->distance());
    } else {
      continue;
    }
    if (!haveBox || Area(box) < Area(bestBox)) {
      haveBox = true;
      bestBox = box;
      bestProperty = property;
      bestDecided = decided ? c : nullptr;
    }
  }
  if (bestDecided) residual.erase(std::find(residual.begin(), residual.end(), bestDecided));

  for (auto& part : indexParts) where.push_back(std::move(part));
  for (std::size_t i = 0; i < where.size(); ++i) {
    if (where.size() == 1) out.where = where[i];
    else Append(out.where, i ? " AND (" : "(", where[i], ")");
  }
  out.hasSpatialFilter = haveBox;
  out.spatialFilterBox = bestBox;
  out.spatialFilterProperty = bestProperty;
  for (const FdoFilterPtr& r : residual)
    out.residual = out.residual ? FdoBinaryLogicalOperator::Create(out.residual, FdoBinaryLogicalOperation::And, r) : r;
  return true;
}

// ---- SQL text ----

void FdoFilterParser::Quote(const std::wstring& name) {
  if (!QuoteTo(name, sql_)) Fail(Failure::Inexpressible);
}

bool FdoFilterParser::QuoteTo(const std::wstring& name, std::string& out) const {
  if (name.find(L'\0') != std::wstring::npos) return false;
  const std::string utf8 = WString2Utf8String(name);
  switch (target_.dialect) {
    case FdoSqlDialect::Sqlite:
    case FdoSqlDialect::PostgreSql:
      out += '"';
      for (char c : utf8) {
        if (c == '"') out += '"';
        out += c;
      }
      out += '"';
      return true;
    case FdoSqlDialect::OgrSql:
      // GDAL's reader takes \" for a quote inside a name; a name ending in a
      // backslash would swallow the closing quote.
      if (!utf8.empty() && utf8.back() == '\\') return false;
      out += '"';
      for (char c : utf8) {
        if (c == '"') out += '\\';
        out += c;
      }
      out += '"';
      return true;
    case FdoSqlDialect::Portable:
      if (utf8.find_first_of("\"\\") != std::string::npos) return false;
      Append(out, "\"", utf8, "\"");
      return true;
  }
  return false;
}

void FdoFilterParser::String(const std::wstring& value) {
  if (value.find(L'\0') != std::wstring::npos) return Fail(Failure::Inexpressible);
  const std::string utf8 = WString2Utf8String(value);
  switch (target_.dialect) {
    case FdoSqlDialect::Sqlite:
    case FdoSqlDialect::PostgreSql:
    case FdoSqlDialect::Portable:
      if (target_.dialect == FdoSqlDialect::Portable && utf8.find('\\') != std::string::npos)
        return Fail(Failure::Inexpressible);
      sql_ += '\'';
      for (char c : utf8) {
        if (c == '\'') sql_ += '\'';
        if (c == '\\' && target_.backslashEscapes) sql_ += '\\';
        sql_ += c;
      }
      sql_ += '\'';
      return;
    case FdoSqlDialect::OgrSql: {
      // GDAL's reader takes \' for a quote (also after a backslash, so "\\'"
      // is a backslash and a quote); only trailing backslashes, which would
      // swallow the closing quote, need another spelling: SUBSTR of a
      // literal where they are followed by a letter.
      std::size_t body = utf8.size();
      while (body > 0 && utf8[body - 1] == '\\') --body;
      const std::size_t trailing = utf8.size() - body;
      std::string literal = "'";
      for (std::size_t i = 0; i < body; ++i) {
        if (utf8[i] == '\'') literal += '\\';
        literal += utf8[i];
      }
      literal += '\'';
      if (trailing == 0) {
        sql_ += literal;
        return;
      }
      std::string tail;
      Append(tail, "SUBSTR('", std::string(trailing, '\\'), "x', 1, ", std::to_string(trailing), ")");
      if (body == 0) sql_ += tail;
      else Append(sql_, "CONCAT(", literal, ", ", tail, ")");
      return;
    }
  }
}

void FdoFilterParser::Attribute(const std::wstring& name) {
  const int i = target_.definition.find(name);
  if (i < 0) {
    KEL_LOG_ERROR(L"Property '" + name + L"' does not exist in class '" + target_.definition.name + L"'");
    return Fail(Failure::Invalid);
  }
  const FeaturePropertyDefinition& p = target_.definition.properties[i];
  if (p.type == FeaturePropertyType::Geometry) {
    KEL_LOG_ERROR(L"Property '" + name + L"' is a geometry; test it with a spatial condition");
    return Fail(Failure::Invalid);
  }
  if (p.name == target_.definition.identityProperty) {
    if (!target_.identityColumn.empty()) return Quote(target_.identityColumn);
    if (target_.dialect != FdoSqlDialect::OgrSql) return Fail(Failure::Inexpressible);
    sql_ += "FID";
    return;
  }
  const std::size_t mark = sql_.size();
  Quote(p.name);
  if (collect_ && sql_.size() > mark) {
    std::string column = sql_.substr(mark);
    if (std::find(nullable_.begin(), nullable_.end(), column) == nullable_.end()) nullable_.push_back(std::move(column));
  }
}

// GDAL's SQL is two-valued: a comparison with a null is false, and NOT of
// it true. Where the text may meet it (OgrSql, Portable) every condition is
// written as "definitely true" (or, under an odd number of NOTs, "definitely
// false") with its properties checked for null, which gives SQL's
// three-valued answers in any engine; NOT then only flips which form is
// written, so the text stays linear in the filter's size.
bool FdoFilterParser::TwoValued() const {
  return target_.dialect == FdoSqlDialect::OgrSql || target_.dialect == FdoSqlDialect::Portable;
}

void FdoFilterParser::ProcessBinaryLogicalOperator(const FdoBinaryLogicalOperator& node) {
  // A chain of one operator is written flat, "(a) OR (b) OR (c)": SQLite's
  // parser overflows at about a hundred nested brackets.
  std::vector<const FdoFilter*> terms;
  auto collect = [&](const FdoFilter& f, auto&& self) -> void {
    const auto* b = dynamic_cast<const FdoBinaryLogicalOperator*>(&f);
    if (b && b->operation() == node.operation()) {
      self(*b->left(), self);
      self(*b->right(), self);
    } else {
      terms.push_back(&f);
    }
  };
  collect(node, collect);
  // De Morgan under a flipped polarity.
  const bool isAnd = (node.operation() == FdoBinaryLogicalOperation::And) == positive_;
  for (std::size_t i = 0; i < terms.size(); ++i) {
    sql_ += i == 0 ? "(" : (isAnd ? ") AND (" : ") OR (");
    terms[i]->Process(*this);
  }
  sql_ += ')';
}

void FdoFilterParser::ProcessUnaryLogicalOperator(const FdoUnaryLogicalOperator& node) {
  if (TwoValued()) {
    positive_ = !positive_;
    node.operand()->Process(*this);
    positive_ = !positive_;
    return;
  }
  sql_ += "NOT (";
  node.operand()->Process(*this);
  sql_ += ')';
}

void FdoFilterParser::Condition(const std::function<void()>& write) {
  if (!TwoValued()) return write();
  nullable_.clear();
  collect_ = true;
  sql_ += positive_ ? "(" : "NOT (";
  write();
  sql_ += ')';
  collect_ = false;
  for (const std::string& column : nullable_) {
    sql_ += " AND ";
    sql_ += column;
    sql_ += " IS NOT NULL";
  }
}

void FdoFilterParser::ProcessComparisonCondition(const FdoComparisonCondition& node) {
  if (node.operation() == FdoComparisonOperation::Like && target_.dialect == FdoSqlDialect::Portable)
    return Fail(Failure::Inexpressible);  // case rules differ between engines; GDAL's SQL decides
  Condition([&] {
    node.left()->Process(*this);
    sql_ += ' ';
    sql_ += WString2Utf8String(FdoFilterUtil::ToString(node.operation()));
    sql_ += ' ';
    node.right()->Process(*this);
  });
}

void FdoFilterParser::ProcessInCondition(const FdoInCondition& node) {
  if (node.values().empty()) {
    // Matches nothing (not even nulls); the name is still checked so a typo
    // is reported.
    const std::size_t mark = sql_.size();
    Attribute(node.propertyName());
    sql_.resize(mark);
    sql_ += positive_ ? "0 = 1" : "1 = 1";
    return;
  }
  Condition([&] {
    Attribute(node.propertyName());
    sql_ += " IN (";
    for (std::size_t i = 0; i < node.values().size(); ++i) {
      if (i) sql_ += ", ";
      node.values()[i]->Process(*this);
    }
    sql_ += ')';
  });
}

void FdoFilterParser::ProcessNullCondition(const FdoNullCondition& node) {
  Attribute(node.propertyName());
  sql_ += positive_ ? " IS NULL" : " IS NOT NULL";
}

void FdoFilterParser::ProcessSpatialCondition(const FdoSpatialCondition&) { Fail(Failure::Inexpressible); }
void FdoFilterParser::ProcessDistanceCondition(const FdoDistanceCondition&) { Fail(Failure::Inexpressible); }

void FdoFilterParser::ProcessIdentifier(const FdoIdentifier& node) { Attribute(node.name()); }

void FdoFilterParser::ProcessDataValue(const FdoDataValue& node) {
  const auto& v = node.value();
  if (const bool* b = std::get_if<bool>(&v)) {
    if (target_.dialect == FdoSqlDialect::PostgreSql) sql_ += *b ? "TRUE" : "FALSE";
    else sql_ += *b ? "1" : "0";
  } else if (const auto* i = std::get_if<std::int64_t>(&v)) {
    // Negative numbers in brackets: "a - -5" must never become "a--5", a comment.
    if (*i < 0) Append(sql_, "(", std::to_string(*i), ")");
    else sql_ += std::to_string(*i);
  } else if (const double* d = std::get_if<double>(&v)) {
    const std::string s = FormatDoubleUtf8(*d);
    if (s[0] == '-') Append(sql_, "(", s, ")");
    else sql_ += s;
  } else {
    String(std::get<std::wstring>(v));
  }
}

void FdoFilterParser::ProcessGeometryValue(const FdoGeometryValue&) {
  KEL_LOG_ERROR(L"A geometry can only be compared by a spatial condition");
  Fail(Failure::Invalid);
}

void FdoFilterParser::ProcessUnaryExpression(const FdoUnaryExpression& node) {
  sql_ += "(-(";
  node.operand()->Process(*this);
  sql_ += "))";
}

void FdoFilterParser::ProcessBinaryExpression(const FdoBinaryExpression& node) {
  sql_ += '(';
  node.left()->Process(*this);
  switch (node.operation()) {
    case FdoArithmeticOperation::Add: sql_ += " + "; break;
    case FdoArithmeticOperation::Subtract: sql_ += " - "; break;
    case FdoArithmeticOperation::Multiply: sql_ += " * "; break;
    case FdoArithmeticOperation::Divide: sql_ += " / "; break;
  }
  node.right()->Process(*this);
  sql_ += ')';
}

}  // namespace kel
