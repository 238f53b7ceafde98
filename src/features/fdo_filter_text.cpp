// The filter text reader: one recursive-descent pass over a grammar that
// treats conditions and value expressions alike, so "(a + 1) > 2" and
// "(a > 1) AND (b < 2)" need no backtracking; each parsed piece is checked
// for being a condition or a value where the grammar needs one.
#include <charconv>
#include <cmath>
#include <algorithm>
#include <cstring>
#include <cwchar>
#include <string>
#include <string_view>
#include <typeinfo>

#include "features/detail/filter_text.h"
#include "features/detail/geos_util.h"
#include "kel/core/log.h"
#include "kel/core/text.h"
#include "kel/features/fdo_filter.h"

namespace kel {

namespace features_detail {

namespace {
constexpr std::wstring_view kKeywords[] = {
    L"AND",      L"OR",         L"NOT",        L"IN",       L"NULL",     L"LIKE",
    L"TRUE",     L"FALSE",      L"GEOMFROMTEXT", L"CONTAINS", L"CROSSES", L"DISJOINT",
    L"EQUALS",   L"INSIDE",     L"INTERSECTS", L"OVERLAPS", L"TOUCHES",  L"WITHIN",
    L"COVEREDBY", L"ENVELOPEINTERSECTS", L"WITHINDISTANCE", L"BEYOND",
};

bool EqualsIgnoringAsciiCase(std::wstring_view a, std::wstring_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    wchar_t x = a[i], y = b[i];
    if (x >= L'a' && x <= L'z') x = static_cast<wchar_t>(x - 32);
    if (y >= L'a' && y <= L'z') y = static_cast<wchar_t>(y - 32);
    if (x != y) return false;
  }
  return true;
}
}  // namespace

bool IsKeyword(std::wstring_view word) {
  for (auto k : kKeywords)
    if (EqualsIgnoringAsciiCase(word, k)) return true;
  return false;
}

std::wstring QuoteIdentifier(const std::wstring& name) {
  bool bare = !name.empty() && IsIdentifierStart(name[0]) && !IsKeyword(name);
  for (std::size_t i = 1; bare && i < name.size(); ++i) bare = IsIdentifierPart(name[i]);
  if (bare) return name;
  std::wstring out = L"\"";
  for (wchar_t c : name) {
    if (c == L'"') out += L'"';
    out += c;
  }
  out += L'"';
  return out;
}

std::wstring QuoteString(const std::wstring& value) {
  std::wstring out = L"'";
  for (wchar_t c : value) {
    if (c == L'\'') out += L'\'';
    out += c;
  }
  out += L'\'';
  return out;
}

std::string FormatDoubleUtf8(double value) {
  char buf[64];
  const auto r = std::to_chars(buf, buf + sizeof buf, value);
  std::string s(buf, r.ptr);
  if (s.find_first_of(".e") == std::string::npos) s += ".0";
  return s;
}

std::wstring FormatDouble(double value) {
  const std::string s = FormatDoubleUtf8(value);
  return std::wstring(s.begin(), s.end());
}

GeosGeometryPtr ReadWkt(GEOSContextHandle_t ctx, const std::string& wkt) {
  int depth = 0;
  for (char c : wkt) {
    if (c == '(' && ++depth > kMaxWktDepth) return GeosGeometryPtr(nullptr, {ctx});
    if (c == ')') --depth;
  }
  GEOSWKTReader* reader = GEOSWKTReader_create_r(ctx);
  GEOSGeometry* g = GEOSWKTReader_read_r(ctx, reader, wkt.c_str());
  GEOSWKTReader_destroy_r(ctx, reader);
  return GeosGeometryPtr(g, {ctx});
}

}  // namespace features_detail

namespace {

using features_detail::IsIdentifierPart;
using features_detail::IsIdentifierStart;

enum class Tok { End, Identifier, QuotedIdentifier, String, Integer, Double, LParen, RParen, Comma, Op };

struct Token {
  Tok kind = Tok::End;
  std::size_t offset = 0;
  std::wstring text;  // identifier or string contents, number or operator spelling
};

// What a parse step produced: a condition or a value, and the height of the
// tree below it.
struct Piece {
  FdoFilterPtr filter;
  FdoExpressionPtr expr;
  std::size_t offset = 0;
  int height = 0;
  std::size_t end = 0;  // where a bare value stopped, for the error that it needs an operator
};

struct ParseFailure {
  std::size_t offset;
  std::wstring message;
};

class Reader {
public:
  explicit Reader(const std::wstring& text) : text_(text) { Advance(); }

  FdoFilterPtr ReadFilter() {
    Piece p = Or(0);
    if (tok_.kind != Tok::End) Fail(tok_.offset, L"expected AND, OR or the end of the filter");
    return NeedFilter(p);
  }

private:
  // Brackets, NOT and minus recurse. The canonical text of a tree of height
  // h nests at most 2h + 1 deep ("NOT (", "-("), so every accepted tree's
  // text reads back.
  static constexpr int kMaxNesting = 2 * FdoFilterUtil::MaxDepth + 1;

  [[noreturn]] void Fail(std::size_t offset, const std::wstring& message) { throw ParseFailure{offset, message}; }

  // ---- tokens ----

  void Advance() {
    const std::size_t n = text_.size();
    while (pos_ < n && (text_[pos_] == L' ' || text_[pos_] == L'\t' || text_[pos_] == L'\r' || text_[pos_] == L'\n'))
      ++pos_;
    tok_ = Token{};
    tok_.offset = pos_;
    if (pos_ >= n) return;
    const wchar_t c = text_[pos_];
    if (IsIdentifierStart(c)) {
      const std::size_t start = pos_;
      while (pos_ < n && IsIdentifierPart(text_[pos_])) ++pos_;
      tok_.kind = Tok::Identifier;
      tok_.text = text_.substr(start, pos_ - start);
    } else if (c == L'"' || c == L'\'') {
      tok_.kind = c == L'"' ? Tok::QuotedIdentifier : Tok::String;
      ++pos_;
      for (;;) {
        if (pos_ >= n)
          Fail(tok_.offset, c == L'"' ? L"identifier has no closing double quote" : L"string has no closing quote");
        if (text_[pos_] == c) {
          if (pos_ + 1 < n && text_[pos_ + 1] == c) {
            tok_.text += c;
            pos_ += 2;
            continue;
          }
          ++pos_;
          break;
        }
        tok_.text += text_[pos_++];
      }
    } else if (c >= L'0' && c <= L'9') {
      ReadNumber();
    } else {
      tok_.kind = Tok::Op;
      switch (c) {
        case L'(': tok_.kind = Tok::LParen; break;
        case L')': tok_.kind = Tok::RParen; break;
        case L',': tok_.kind = Tok::Comma; break;
        case L'=': case L'+': case L'-': case L'*': case L'/': break;
        case L'<':
          if (pos_ + 1 < n && (text_[pos_ + 1] == L'=' || text_[pos_ + 1] == L'>')) {
            tok_.text = text_.substr(pos_, 2);
            pos_ += 2;
            return;
          }
          break;
        case L'>':
          if (pos_ + 1 < n && text_[pos_ + 1] == L'=') {
            tok_.text = L">=";
            pos_ += 2;
            return;
          }
          break;
        case L'!':
          if (pos_ + 1 < n && text_[pos_ + 1] == L'=') {
            tok_.text = L"<>";
            pos_ += 2;
            return;
          }
          Fail(pos_, L"unexpected character '!'");
        default: Fail(pos_, L"unexpected character");
      }
      tok_.text = std::wstring(1, c);
      ++pos_;
    }
  }

  void ReadNumber() {
    const std::size_t n = text_.size(), start = pos_;
    auto digits = [&] {
      const std::size_t from = pos_;
      while (pos_ < n && text_[pos_] >= L'0' && text_[pos_] <= L'9') ++pos_;
      return pos_ > from;
    };
    digits();
    tok_.kind = Tok::Integer;
    if (pos_ < n && text_[pos_] == L'.') {
      ++pos_;
      if (!digits()) Fail(pos_, L"expected a digit after the decimal point");
      tok_.kind = Tok::Double;
    }
    if (pos_ < n && (text_[pos_] == L'e' || text_[pos_] == L'E')) {
      ++pos_;
      if (pos_ < n && (text_[pos_] == L'+' || text_[pos_] == L'-')) ++pos_;
      if (!digits()) Fail(pos_, L"expected a digit in the exponent");
      tok_.kind = Tok::Double;
    }
    if (pos_ < n && IsIdentifierPart(text_[pos_])) Fail(pos_, L"unexpected letter after a number");
    tok_.text = text_.substr(start, pos_ - start);
  }

  // The current token is the bare word (any letter case).
  bool IsKeyword(const wchar_t* word) const {
    if (tok_.kind != Tok::Identifier || tok_.text.size() != std::wcslen(word)) return false;
    for (std::size_t i = 0; i < tok_.text.size(); ++i) {
      wchar_t x = tok_.text[i];
      if (x >= L'a' && x <= L'z') x = static_cast<wchar_t>(x - 32);
      if (x != word[i]) return false;
    }
    return true;
  }
  bool IsOp(const wchar_t* op) const { return tok_.kind == Tok::Op && tok_.text == op; }

  void Expect(Tok kind, const wchar_t* what) {
    if (tok_.kind != kind) Fail(tok_.offset, std::wstring(L"expected ") + what);
    Advance();
  }

  // ---- checks ----

  FdoFilterPtr NeedFilter(const Piece& p) {
    if (!p.filter) Fail(p.end, L"expected a comparison, IN, NULL or a spatial operator after the value");
    return p.filter;
  }
  FdoExpressionPtr NeedValue(const Piece& p) {
    if (!p.expr) Fail(p.offset, L"expected a value, not a condition");
    return p.expr;
  }
  const std::wstring& NeedProperty(const Piece& p) {
    const auto* id = p.expr ? dynamic_cast<const FdoIdentifier*>(p.expr.get()) : nullptr;
    if (!id) Fail(p.offset, L"expected a property name before the operator");
    return id->name();
  }
  int Taller(const Piece& a, const Piece& b, std::size_t offset) {
    const int h = std::max(a.height, b.height) + 1;
    if (h > FdoFilterUtil::MaxDepth) Fail(offset, L"filter is nested too deeply");
    return h;
  }
  void Enter(int nesting) {
    if (nesting > kMaxNesting) Fail(tok_.offset, L"filter is nested too deeply");
  }

  // ---- grammar ----

  Piece Or(int nesting) {
    Piece left = And(nesting);
    while (IsKeyword(L"OR")) {
      const std::size_t at = tok_.offset;
      Advance();
      Piece right = And(nesting);
      Piece p{FdoBinaryLogicalOperator::Create(NeedFilter(left), FdoBinaryLogicalOperation::Or, NeedFilter(right)),
              nullptr, left.offset, Taller(left, right, at)};
      left = std::move(p);
    }
    return left;
  }

  Piece And(int nesting) {
    Piece left = Not(nesting);
    while (IsKeyword(L"AND")) {
      const std::size_t at = tok_.offset;
      Advance();
      Piece right = Not(nesting);
      Piece p{FdoBinaryLogicalOperator::Create(NeedFilter(left), FdoBinaryLogicalOperation::And, NeedFilter(right)),
              nullptr, left.offset, Taller(left, right, at)};
      left = std::move(p);
    }
    return left;
  }

  Piece Not(int nesting) {
    if (!IsKeyword(L"NOT")) return Predicate(nesting);
    const std::size_t at = tok_.offset;
    Enter(nesting + 1);
    Advance();
    Piece operand = Not(nesting + 1);
    return {FdoUnaryLogicalOperator::CreateNot(NeedFilter(operand)), nullptr, at, Taller(operand, operand, at)};
  }

  Piece Predicate(int nesting) {
    Piece left = Additive(nesting);
    const std::size_t at = tok_.offset;
    FdoComparisonOperation cmp{};
    bool isComparison = true;
    if (IsOp(L"=")) cmp = FdoComparisonOperation::EqualTo;
    else if (IsOp(L"<>")) cmp = FdoComparisonOperation::NotEqualTo;
    else if (IsOp(L">")) cmp = FdoComparisonOperation::GreaterThan;
    else if (IsOp(L">=")) cmp = FdoComparisonOperation::GreaterThanOrEqualTo;
    else if (IsOp(L"<")) cmp = FdoComparisonOperation::LessThan;
    else if (IsOp(L"<=")) cmp = FdoComparisonOperation::LessThanOrEqualTo;
    else if (IsKeyword(L"LIKE")) cmp = FdoComparisonOperation::Like;
    else isComparison = false;

    if (isComparison) {
      auto lhs = NeedValue(left);
      if (dynamic_cast<const FdoGeometryValue*>(lhs.get()))
        Fail(left.offset, L"a geometry can only be compared by a spatial operator");
      Advance();
      Piece right = Additive(nesting);
      auto rhs = NeedValue(right);
      if (dynamic_cast<const FdoGeometryValue*>(rhs.get()))
        Fail(right.offset, L"a geometry can only be compared by a spatial operator");
      return {FdoComparisonCondition::Create(lhs, cmp, rhs), nullptr, left.offset, Taller(left, right, at)};
    }
    if (IsKeyword(L"IN")) {
      const std::wstring property = NeedProperty(left);
      Advance();
      Expect(Tok::LParen, L"'(' after IN");
      std::vector<std::shared_ptr<const FdoDataValue>> values;
      if (tok_.kind != Tok::RParen) {
        for (;;) {
          values.push_back(Literal());
          if (tok_.kind == Tok::RParen) break;
          Expect(Tok::Comma, L"',' or ')' in the IN list");
        }
      }
      Advance();
      return {FdoInCondition::Create(property, std::move(values)), nullptr, left.offset, left.height + 1};
    }
    if (IsKeyword(L"NULL")) {
      const std::wstring property = NeedProperty(left);
      Advance();
      return {FdoNullCondition::Create(property), nullptr, left.offset, left.height + 1};
    }
    static constexpr FdoSpatialOperation kSpatial[] = {
        FdoSpatialOperation::Contains,   FdoSpatialOperation::Crosses,  FdoSpatialOperation::Disjoint,
        FdoSpatialOperation::Equals,     FdoSpatialOperation::Inside,   FdoSpatialOperation::Intersects,
        FdoSpatialOperation::Overlaps,   FdoSpatialOperation::Touches,  FdoSpatialOperation::Within,
        FdoSpatialOperation::CoveredBy,  FdoSpatialOperation::EnvelopeIntersects};
    for (FdoSpatialOperation op : kSpatial) {
      if (!IsKeyword(FdoFilterUtil::ToString(op))) continue;
      const std::wstring property = NeedProperty(left);
      Advance();
      auto geometry = Geometry();
      return {FdoSpatialCondition::Create(property, op, geometry), nullptr, left.offset, left.height + 1};
    }
    for (FdoDistanceOperation op : {FdoDistanceOperation::WithinDistance, FdoDistanceOperation::Beyond}) {
      if (!IsKeyword(FdoFilterUtil::ToString(op))) continue;
      const std::wstring property = NeedProperty(left);
      Advance();
      auto geometry = Geometry();
      const std::size_t distanceAt = tok_.offset;
      if (tok_.kind != Tok::Integer && tok_.kind != Tok::Double) Fail(distanceAt, L"expected a distance");
      const double distance = ToDouble(tok_.text, distanceAt);
      Advance();
      return {FdoDistanceCondition::Create(property, op, geometry, distance), nullptr, left.offset, left.height + 1};
    }
    // A bare value is fine inside brackets, "(a + 1) * 2"; whoever needs a
    // condition reports it at `end`.
    left.end = at;
    return left;
  }

  Piece Additive(int nesting) {
    Piece left = Multiplicative(nesting);
    while (IsOp(L"+") || IsOp(L"-")) {
      const std::size_t at = tok_.offset;
      const auto op = tok_.text == L"+" ? FdoArithmeticOperation::Add : FdoArithmeticOperation::Subtract;
      Advance();
      Piece right = Multiplicative(nesting);
      Piece p{nullptr, FdoBinaryExpression::Create(Arithmetic(left), op, Arithmetic(right)), left.offset,
              Taller(left, right, at)};
      left = std::move(p);
    }
    return left;
  }

  Piece Multiplicative(int nesting) {
    Piece left = Unary(nesting);
    while (IsOp(L"*") || IsOp(L"/")) {
      const std::size_t at = tok_.offset;
      const auto op = tok_.text == L"*" ? FdoArithmeticOperation::Multiply : FdoArithmeticOperation::Divide;
      Advance();
      Piece right = Unary(nesting);
      Piece p{nullptr, FdoBinaryExpression::Create(Arithmetic(left), op, Arithmetic(right)), left.offset,
              Taller(left, right, at)};
      left = std::move(p);
    }
    return left;
  }

  FdoExpressionPtr Arithmetic(const Piece& p) {
    auto e = NeedValue(p);
    if (dynamic_cast<const FdoGeometryValue*>(e.get())) Fail(p.offset, L"a geometry cannot take part in arithmetic");
    return e;
  }

  Piece Unary(int nesting) {
    if (!IsOp(L"-")) return Primary(nesting);
    const std::size_t at = tok_.offset;
    Advance();
    // A minus right before a number is part of the literal: "-5" is the value
    // -5, so every integer including the most negative one has a text form.
    if (tok_.kind == Tok::Integer || tok_.kind == Tok::Double) {
      Piece p{nullptr, Number(true, at), at, 0};
      Advance();
      return p;
    }
    Enter(nesting + 1);
    Piece operand = Unary(nesting + 1);
    return {nullptr, FdoUnaryExpression::CreateNegate(Arithmetic(operand)), at, Taller(operand, operand, at)};
  }

  Piece Primary(int nesting) {
    const std::size_t at = tok_.offset;
    switch (tok_.kind) {
      case Tok::LParen: {
        Enter(nesting + 1);
        Advance();
        Piece inner = Or(nesting + 1);
        Expect(Tok::RParen, L"')'");
        inner.offset = at;
        return inner;
      }
      case Tok::QuotedIdentifier: {
        Piece p{nullptr, FdoIdentifier::Create(tok_.text), at, 0};
        Advance();
        return p;
      }
      case Tok::Identifier: {
        if (IsKeyword(L"GEOMFROMTEXT")) return {nullptr, Geometry(), at, 0};
        if (IsKeyword(L"TRUE") || IsKeyword(L"FALSE")) return {nullptr, Literal(), at, 0};
        if (features_detail::IsKeyword(tok_.text))
          Fail(at, L"'" + tok_.text + L"' is a keyword; put the name in double quotes");
        Piece p{nullptr, FdoIdentifier::Create(tok_.text), at, 0};
        Advance();
        return p;
      }
      case Tok::String:
      case Tok::Integer:
      case Tok::Double: return {nullptr, Literal(), at, 0};
      case Tok::End: Fail(at, L"unexpected end of the filter");
      default: Fail(at, L"expected a property name, a value or '('");
    }
  }

  // A literal as an IN list takes it: a string, TRUE, FALSE or a number with
  // an optional minus.
  std::shared_ptr<const FdoDataValue> Literal() {
    const std::size_t at = tok_.offset;
    std::shared_ptr<const FdoDataValue> v;
    bool negative = false;
    if (IsOp(L"-")) {
      negative = true;
      Advance();
      if (tok_.kind != Tok::Integer && tok_.kind != Tok::Double) Fail(tok_.offset, L"expected a number after '-'");
    }
    if (tok_.kind == Tok::String && !negative) v = FdoDataValue::Create(tok_.text);
    else if (tok_.kind == Tok::Integer || tok_.kind == Tok::Double) v = Number(negative, at);
    else if (IsKeyword(L"TRUE")) v = FdoDataValue::Create(true);
    else if (IsKeyword(L"FALSE")) v = FdoDataValue::Create(false);
    else Fail(at, L"expected a value (a number, a string, TRUE or FALSE)");
    Advance();
    return v;
  }

  // The current number token as a literal.
  std::shared_ptr<const FdoDataValue> Number(bool negative, std::size_t at) {
    std::string digits;
    digits.reserve(tok_.text.size() + 1);
    if (negative) digits.push_back('-');
    for (wchar_t c : tok_.text) digits.push_back(static_cast<char>(c));
    if (tok_.kind == Tok::Integer) {
      std::int64_t v = 0;
      const auto r = std::from_chars(digits.data(), digits.data() + digits.size(), v);
      if (r.ec != std::errc() || r.ptr != digits.data() + digits.size())
        Fail(at, L"integer does not fit in 64 bits");
      return FdoDataValue::Create(v);
    }
    return FdoDataValue::Create(ToDouble(std::wstring(digits.begin(), digits.end()), at));
  }

  double ToDouble(const std::wstring& text, std::size_t at) {
    const std::string s(text.begin(), text.end());
    double v = 0;
    const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
    if (r.ec != std::errc() || r.ptr != s.data() + s.size() || !std::isfinite(v))
      Fail(at, L"number is out of range");
    return v;
  }

  std::shared_ptr<const FdoGeometryValue> Geometry() {
    if (!IsKeyword(L"GEOMFROMTEXT")) Fail(tok_.offset, L"expected GeomFromText('...')");
    Advance();
    Expect(Tok::LParen, L"'(' after GeomFromText");
    if (tok_.kind != Tok::String) Fail(tok_.offset, L"expected the WKT text in single quotes");
    const std::size_t at = tok_.offset;
    const std::wstring wkt = tok_.text;
    Advance();
    Expect(Tok::RParen, L"')' after the WKT text");
    features_detail::GeosContext ctx;
    if (!features_detail::ReadWkt(ctx.get(), WString2Utf8String(wkt))) Fail(at, L"the WKT text does not parse");
    return std::make_shared<const FdoGeometryValue>(wkt);
  }

  const std::wstring& text_;
  std::size_t pos_ = 0;
  Token tok_;
};

}  // namespace

FdoFilterPtr FdoFilterUtil::Parse(const std::wstring& text, FdoParseError* error) {
  try {
    Reader reader(text);
    FdoFilterPtr f = reader.ReadFilter();
    if (error) *error = FdoParseError{};
    return f;
  } catch (const ParseFailure& failure) {
    if (error) *error = FdoParseError{failure.offset, failure.message};
    else KEL_LOG_ERROR(L"Filter does not parse at offset " + std::to_wstring(failure.offset) + L": " + failure.message);
    return nullptr;
  }
}

}  // namespace kel
