// Statement dispatch and the read grammar: MATCH clause, patterns, WHERE and
// the RETURN tail with its ORDER BY, SKIP and LIMIT.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <set>

#include "cypher/statement_parser.h"
#include "cypher/values.h"

namespace glimmerstrand::cypher {
namespace {

// Deeper WHERE trees are refused, so that neither the parser nor the
// evaluator can run out of stack on a hostile script.
constexpr int kMaxWhereDepth = 1000;
constexpr std::int64_t kOpenRangeEnd = 8;

double numberValue(const std::string& text) {
  double value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  // Out of range: the nearest double, an infinity or zero, as strtod gives.
  if (error != std::errc() || end != text.data() + text.size()) value = std::strtod(text.c_str(), nullptr);
  return value;
}

std::string asciiLower(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

std::optional<AggregateFunc> aggregateNamed(std::string_view lowerName) {
  for (auto f : {AggregateFunc::count, AggregateFunc::min, AggregateFunc::max, AggregateFunc::avg, AggregateFunc::sum})
    if (rawText(f) == lowerName) return f;
  return std::nullopt;
}

bool isComparisonPunct(const std::string& value, ComparisonOperator& op) {
  static const std::pair<std::string_view, ComparisonOperator> table[] = {
      {"=", ComparisonOperator::equal},        {"<>", ComparisonOperator::notEqual},
      {"<", ComparisonOperator::less},         {">", ComparisonOperator::greater},
      {"<=", ComparisonOperator::lessOrEqual}, {">=", ComparisonOperator::greaterOrEqual}};
  for (const auto& [text, candidate] : table) {
    if (text == value) {
      op = candidate;
      return true;
    }
  }
  return false;
}

std::optional<std::string> columnName(const ReturnItem& item) {
  if (auto v = std::get_if<ReturnItem::Variable>(&item.value)) return v->alias.value_or(v->variable);
  if (auto p = std::get_if<ReturnItem::Property>(&item.value))
    return p->alias.value_or(p->variable + "." + p->property);
  if (auto a = std::get_if<AggregateItem>(&item.value)) return a->alias;
  return std::nullopt;
}

OrderKey rewrittenKey(const OrderKey& key, const std::vector<ReturnItem>& returns) {
  for (const auto& item : returns) {
    const auto* aggregate = std::get_if<AggregateItem>(&item.value);
    const auto* property = std::get_if<ReturnItem::Property>(&item.value);
    if (auto v = std::get_if<OrderKey::Variable>(&key.value)) {
      if (aggregate && aggregate->alias == v->name) return OrderKey{*aggregate};
      if (property && columnName(item) == v->name) return OrderKey{*property};
    } else if (auto p = std::get_if<OrderKey::Property>(&key.value)) {
      if (property && property->alias && property->variable == p->variable && property->property == p->property)
        return OrderKey{*property};
    } else if (auto a = std::get_if<AggregateItem>(&key.value)) {
      if (aggregate && aggregate->function == a->function && aggregate->arg == a->arg) {
        AggregateItem renamed = *a;
        renamed.alias = aggregate->alias;
        return OrderKey{renamed};
      }
    }
  }
  return key;
}

}  // namespace

Statement StatementParser::parse() {
  if (cursor_.peekKeyword("CREATE")) return Statement{parseStandaloneCreate()};
  if (cursor_.peekKeyword("CALL")) return Statement{parseCall()};
  if (!cursor_.peekKeyword("MATCH")) cursor_.fail("Expected keyword \"MATCH\", \"CREATE\", or \"CALL\"");
  MatchClause match = parseMatchClause();
  if (cursor_.peekKeyword("RETURN")) return Statement{parseReturnTail(std::move(match))};
  if (cursor_.peekKeyword("SET")) return Statement{parseSet(std::move(match))};
  if (cursor_.peekKeyword("CREATE")) return Statement{parseAnchoredCreate(std::move(match))};
  if (cursor_.peekKeyword("COPY")) return Statement{parseCopy(std::move(match))};
  if (cursor_.peekKeyword("DELETE") || cursor_.peekKeyword("DETACH")) return Statement{parseDelete(std::move(match))};
  cursor_.fail("Expected RETURN, SET, CREATE, DELETE, or COPY after MATCH clause");
}

MatchClause StatementParser::parseMatchClause() {
  cursor_.expectKeyword("MATCH");
  MatchClause clause;
  clause.pattern = parsePatternPart();
  std::optional<Condition> where;
  while (true) {
    if (cursor_.takePunct(",")) {
      clause.more.push_back(parsePatternPart());
      continue;
    }
    if (cursor_.takeKeyword("WHERE")) {
      Condition next = parseOr();
      where = where ? joined(LogicalOperator::and_, std::move(*where), std::move(next)) : std::move(next);
    }
    if (cursor_.takeKeyword("MATCH")) {
      clause.more.push_back(parsePatternPart());
      continue;
    }
    break;
  }
  if (where) clause.where = std::move(where->expr);
  return clause;
}

PatternPart StatementParser::parsePatternPart() {
  PatternPart part;
  part.start = parseNodePattern();
  while (cursor_.peekPunct("-") || cursor_.peekPunct("<")) {
    PatternStep step;
    step.relationship = parseRelationship();
    step.node = parseNodePattern();
    part.chain.push_back(std::move(step));
  }
  return part;
}

NodePattern StatementParser::parseNodePattern() {
  cursor_.expectPunct("(");
  NodePattern node;
  if (cursor_.peekType(TokenType::identifier)) node.variable = cursor_.take().value;
  if (cursor_.takePunct(":")) {
    std::string label = cursor_.expectType(TokenType::identifier).value;
    while (cursor_.takePunct("|")) label += "|" + cursor_.expectType(TokenType::identifier).value;
    node.label = std::move(label);
  }
  if (cursor_.peekPunct("{")) node.properties = parseScalarMap();
  cursor_.expectPunct(")");
  return node;
}

RelationshipPattern StatementParser::parseRelationship() {
  RelationshipPattern relationship;
  if (cursor_.takePunct("<")) relationship.direction = RelationshipDirection::incoming;
  cursor_.expectPunct("-");
  cursor_.expectPunct("[");
  cursor_.expectPunct(":");
  relationship.types.push_back(cursor_.expectType(TokenType::identifier).value);
  while (cursor_.takePunct("|")) relationship.types.push_back(cursor_.expectType(TokenType::identifier).value);
  parseHops(relationship);
  cursor_.expectPunct("]");
  cursor_.expectPunct(relationship.direction == RelationshipDirection::incoming ? "-" : "->");
  return relationship;
}

void StatementParser::parseHops(RelationshipPattern& relationship) {
  if (!cursor_.takePunct("*")) return;
  auto openEnd = [&] { return cursor_.peekType(TokenType::number) ? parseInteger() : kOpenRangeEnd; };
  if (cursor_.peekType(TokenType::number)) {
    relationship.minHops = parseInteger();
    relationship.maxHops = cursor_.takePunct("..") ? openEnd() : relationship.minHops;
  } else {
    relationship.minHops = 1;
    relationship.maxHops = cursor_.takePunct("..") ? openEnd() : kOpenRangeEnd;
  }
  if (relationship.maxHops < relationship.minHops)
    cursor_.fail("Variable-length range max (" + std::to_string(relationship.maxHops) + ") is less than min (" +
                 std::to_string(relationship.minHops) + ")");
}

OrderedMap<ScalarValue> StatementParser::parseScalarMap() {
  cursor_.expectPunct("{");
  OrderedMap<ScalarValue> map;
  if (cursor_.takePunct("}")) return map;
  do {
    std::string key = cursor_.expectType(TokenType::identifier).value;
    cursor_.expectPunct(":");
    map.set(key, parseScalar());
  } while (cursor_.takePunct(","));
  cursor_.expectPunct("}");
  return map;
}

ScalarValue StatementParser::parseScalar() {
  if (cursor_.atEnd()) throw BadRequestError("Unexpected end of query");
  const Token& token = cursor_.take();
  switch (token.type) {
    case TokenType::boolean:
      return ScalarValue(token.value == "true");
    case TokenType::null:
      return ScalarValue();
    case TokenType::number:
      return ScalarValue(numberValue(token.value));
    case TokenType::string:
      return ScalarValue(token.value);
    default:
      cursor_.fail("Expected a scalar value but found \"" + token.value + "\"");
  }
}

std::int64_t StatementParser::parseInteger() {
  const Token& token = cursor_.expectType(TokenType::number);
  double value = numberValue(token.value);
  if (!std::isfinite(value) || value != std::floor(value))
    cursor_.fail("Expected an integer but found \"" + token.value + "\"");
  // 2^63 is exact as a double; anything at or beyond either end saturates.
  constexpr double kLimit = 9223372036854775808.0;
  if (value >= kLimit) return std::numeric_limits<std::int64_t>::max();
  if (value <= -kLimit) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(value);
}

std::int64_t StatementParser::parseNonNegative(std::string_view word) {
  std::int64_t value = parseInteger();
  if (value < 0) cursor_.fail(std::string(word) + " must be a non-negative integer");
  return value;
}

StatementParser::Condition StatementParser::joined(LogicalOperator op, Condition left, Condition right) const {
  int depth = std::max(left.depth, right.depth) + 1;
  if (depth > kMaxWhereDepth)
    cursor_.fail("WHERE expression nests deeper than " + std::to_string(kMaxWhereDepth) + " levels",
                 "Simplify the condition: drop redundant parentheses or NOT, or use IN [...] for many alternatives.");
  return Condition{WhereExpr{WhereExpr::Logical{op, std::move(left.expr), std::move(right.expr)}}, depth};
}

StatementParser::Condition StatementParser::parseOr() {
  Condition left = parseAnd();
  while (cursor_.takeKeyword("OR")) left = joined(LogicalOperator::or_, std::move(left), parseAnd());
  return left;
}

StatementParser::Condition StatementParser::parseAnd() {
  Condition left = parseNot();
  while (cursor_.takeKeyword("AND")) left = joined(LogicalOperator::and_, std::move(left), parseNot());
  return left;
}

StatementParser::Condition StatementParser::parseNot() {
  const bool isNot = cursor_.peekKeyword("NOT");
  if (!isNot && !cursor_.peekPunct("(")) return parsePredicate();
  if (nesting_ >= kMaxWhereDepth)
    cursor_.fail("WHERE expression nests deeper than " + std::to_string(kMaxWhereDepth) + " levels",
                 "Simplify the condition: drop redundant parentheses or NOT, or use IN [...] for many alternatives.");
  ++nesting_;
  cursor_.take();
  Condition result;
  if (isNot) {
    Condition inner = parseNot();
    result = Condition{WhereExpr{WhereExpr::Not{std::move(inner.expr)}}, inner.depth + 1};
  } else {
    result = parseOr();
    cursor_.expectPunct(")");
  }
  --nesting_;
  return result;
}

StatementParser::Condition StatementParser::parsePredicate() {
  std::string variable = cursor_.expectType(TokenType::identifier).value;
  if (cursor_.takePunct(":")) {
    std::string label = cursor_.expectType(TokenType::identifier).value;
    return Condition{WhereExpr{WhereExpr::Label{std::move(variable), std::move(label)}}};
  }
  cursor_.expectPunct(".");
  std::string property = cursor_.expectType(TokenType::identifier).value;
  ComparisonOperator op = parseOperator();
  ComparisonOperand right = op == ComparisonOperator::in ? parseListOperand() : ComparisonOperand{parseScalar()};
  return Condition{WhereExpr{ComparisonExpr{{std::move(variable), std::move(property)}, op, std::move(right)}}};
}

ComparisonOperator StatementParser::parseOperator() {
  if (cursor_.takeKeyword("CONTAINS")) return ComparisonOperator::contains;
  if (cursor_.takeKeyword("STARTS")) {
    cursor_.expectKeyword("WITH");
    return ComparisonOperator::startsWith;
  }
  if (cursor_.takeKeyword("ENDS")) {
    cursor_.expectKeyword("WITH");
    return ComparisonOperator::endsWith;
  }
  if (cursor_.takePunct("=~")) return ComparisonOperator::regex;
  if (cursor_.takeKeyword("IN")) return ComparisonOperator::in;
  if (cursor_.atEnd()) throw BadRequestError("Unexpected end of query");
  const Token& token = cursor_.take();
  ComparisonOperator op = ComparisonOperator::equal;
  if (token.type == TokenType::punct && isComparisonPunct(token.value, op)) return op;
  cursor_.fail("Expected a comparison operator but found \"" + token.value + "\"");
}

ComparisonOperand StatementParser::parseListOperand() {
  cursor_.expectPunct("[");
  ComparisonOperand::List list;
  if (!cursor_.takePunct("]")) {
    do list.push_back(parseScalar());
    while (cursor_.takePunct(","));
    cursor_.expectPunct("]");
  }
  return ComparisonOperand{std::move(list)};
}

Query StatementParser::parseReturnTail(MatchClause match) {
  cursor_.expectKeyword("RETURN");
  Query query;
  query.pattern = std::move(match.pattern);
  query.more = std::move(match.more);
  query.where = std::move(match.where);
  query.distinct = cursor_.takeKeyword("DISTINCT");
  query.returns = parseItems();
  auto has = [&](auto tag) {
    return std::any_of(query.returns.begin(), query.returns.end(),
                       [](const ReturnItem& item) { return std::holds_alternative<decltype(tag)>(item.value); });
  };
  if (has(AggregateItem{}) && has(ReturnItem::All{}))
    cursor_.fail("RETURN * cannot be combined with aggregate functions");
  if (cursor_.peekKeyword("ORDER")) {
    query.orderBy = parseOrderList();
    for (auto& item : query.orderBy) item.key = rewrittenKey(item.key, query.returns);
  }
  if (cursor_.takeKeyword("SKIP")) query.skip = parseNonNegative("SKIP");
  if (cursor_.takeKeyword("LIMIT")) query.limit = parseNonNegative("LIMIT");
  if (!cursor_.atEnd()) cursor_.fail("Unexpected token after RETURN clause");
  return query;
}

std::vector<ReturnItem> StatementParser::parseItems() {
  std::vector<ReturnItem> items;
  do {
    if (cursor_.takePunct("*")) {
      items.push_back(ReturnItem{ReturnItem::All{}});
    } else if (auto aggregate = tryAggregate()) {
      if (auto alias = parseAlias()) aggregate->alias = std::move(*alias);
      items.push_back(ReturnItem{std::move(*aggregate)});
    } else {
      std::string variable = cursor_.expectType(TokenType::identifier).value;
      if (cursor_.takePunct(".")) {
        std::string property = cursor_.expectType(TokenType::identifier).value;
        items.push_back(ReturnItem{ReturnItem::Property{std::move(variable), std::move(property), parseAlias()}});
      } else {
        items.push_back(ReturnItem{ReturnItem::Variable{std::move(variable), parseAlias()}});
      }
    }
  } while (cursor_.takePunct(","));
  std::set<std::string> seen;
  for (const auto& item : items) {
    auto name = columnName(item);
    if (name && !seen.insert(*name).second)
      cursor_.fail("Duplicate RETURN column \"" + *name + "\"", "Give each column a distinct name with AS.");
  }
  return items;
}

std::optional<AggregateItem> StatementParser::tryAggregate() {
  const Token* name = cursor_.peek();
  if (!name || name->type != TokenType::identifier || !cursor_.peekPunct("(", 1)) return std::nullopt;
  const std::string fn = asciiLower(name->value);
  auto function = aggregateNamed(fn);
  if (!function) return std::nullopt;
  cursor_.take();
  cursor_.take();
  AggregateItem item;
  item.function = *function;
  std::string written = "*";
  if (cursor_.takePunct("*")) {
    item.arg = AggregateArg{AggregateArg::Star{}};
  } else {
    std::string variable = cursor_.expectType(TokenType::identifier).value;
    if (cursor_.takePunct(".")) {
      std::string property = cursor_.expectType(TokenType::identifier).value;
      written = variable + "." + property;
      item.arg = AggregateArg{PropertyRef{std::move(variable), std::move(property)}};
    } else {
      written = variable;
      item.arg = AggregateArg{AggregateArg::Variable{std::move(variable)}};
    }
  }
  cursor_.expectPunct(")");
  if (*function != AggregateFunc::count && !std::holds_alternative<PropertyRef>(item.arg.value))
    cursor_.fail(fn + "() requires a property argument such as " + fn +
                 "(n.pitch); only count() accepts count(*) or count(var)");
  item.alias = fn + "(" + written + ")";
  return item;
}

std::optional<std::string> StatementParser::parseAlias() {
  if (!cursor_.takeKeyword("AS")) return std::nullopt;
  if (cursor_.peekType(TokenType::keyword)) return *cursor_.take().raw;
  return cursor_.expectType(TokenType::identifier).value;
}

std::vector<OrderItem> StatementParser::parseOrderList() {
  cursor_.expectKeyword("ORDER");
  cursor_.expectKeyword("BY");
  std::vector<OrderItem> items;
  do {
    OrderItem item;
    if (auto aggregate = tryAggregate()) {
      item.key = OrderKey{std::move(*aggregate)};
    } else {
      std::string variable = cursor_.expectType(TokenType::identifier).value;
      if (cursor_.takePunct(".")) {
        std::string property = cursor_.expectType(TokenType::identifier).value;
        item.key = OrderKey{OrderKey::Property{std::move(variable), std::move(property), std::nullopt}};
      } else {
        item.key = OrderKey{OrderKey::Variable{std::move(variable)}};
      }
    }
    if (cursor_.takeKeyword("DESC"))
      item.direction = OrderDirection::descending;
    else
      cursor_.takeKeyword("ASC");
    items.push_back(std::move(item));
  } while (cursor_.takePunct(","));
  return items;
}

}  // namespace glimmerstrand::cypher
