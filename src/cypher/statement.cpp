#include "cypher/statement.h"

namespace glimmerstrand::cypher {

std::string_view rawText(ComparisonOperator op) {
  switch (op) {
    case ComparisonOperator::equal:
      return "=";
    case ComparisonOperator::notEqual:
      return "<>";
    case ComparisonOperator::less:
      return "<";
    case ComparisonOperator::greater:
      return ">";
    case ComparisonOperator::lessOrEqual:
      return "<=";
    case ComparisonOperator::greaterOrEqual:
      return ">=";
    case ComparisonOperator::contains:
      return "CONTAINS";
    case ComparisonOperator::startsWith:
      return "STARTS_WITH";
    case ComparisonOperator::endsWith:
      return "ENDS_WITH";
    case ComparisonOperator::regex:
      return "REGEX";
    case ComparisonOperator::in:
      return "IN";
  }
  return "";
}

std::string_view rawText(LogicalOperator op) { return op == LogicalOperator::and_ ? "AND" : "OR"; }

std::string_view rawText(AggregateFunc func) {
  switch (func) {
    case AggregateFunc::count:
      return "count";
    case AggregateFunc::min:
      return "min";
    case AggregateFunc::max:
      return "max";
    case AggregateFunc::avg:
      return "avg";
    case AggregateFunc::sum:
      return "sum";
  }
  return "";
}

std::string_view rawText(OrderDirection direction) { return direction == OrderDirection::ascending ? "ASC" : "DESC"; }

std::string_view Statement::kindName() const {
  static constexpr std::string_view names[] = {"read", "set", "create", "delete", "copy", "call"};
  return names[value.index()];
}

std::set<std::string> boundVariables(const MatchClause& match) {
  std::set<std::string> names;
  auto addPart = [&](const PatternPart& part) {
    if (part.start.variable) names.insert(*part.start.variable);
    for (const auto& step : part.chain)
      if (step.node.variable) names.insert(*step.node.variable);
  };
  addPart(match.pattern);
  for (const auto& part : match.more) addPart(part);
  return names;
}

}  // namespace glimmerstrand::cypher
