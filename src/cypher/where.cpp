#include "cypher/where.h"

#include "cypher/regex_cache.h"
#include "cypher/unicode_text.h"
#include "cypher/values.h"

namespace glimmerstrand::cypher {
namespace {

bool ordered(const ScalarValue& left, ComparisonOperator op, const ScalarValue& right) {
  int order = 0;
  if (left.isString() && right.isString()) {
    order = compareCodeUnits(*left.asString(), *right.asString());
  } else if (left.isNumber() && right.isNumber()) {
    double l = *left.asNumber(), r = *right.asNumber();
    switch (op) {
      case ComparisonOperator::less:
        return l < r;
      case ComparisonOperator::greater:
        return l > r;
      case ComparisonOperator::lessOrEqual:
        return l <= r;
      default:
        return l >= r;
    }
  } else {
    return false;  // no order on bool or null, nor between kinds
  }
  switch (op) {
    case ComparisonOperator::less:
      return order < 0;
    case ComparisonOperator::greater:
      return order > 0;
    case ComparisonOperator::lessOrEqual:
      return order <= 0;
    default:
      return order >= 0;
  }
}

bool textTest(const ScalarValue& left, ComparisonOperator op, const ScalarValue& right) {
  const std::string* l = left.asString();
  const std::string* r = right.asString();
  if (!l || !r) return false;
  // On well-formed texts a byte run is a code-unit run, so byte tests serve.
  switch (op) {
    case ComparisonOperator::contains:
      return l->find(*r) != std::string::npos;
    case ComparisonOperator::startsWith:
      return l->starts_with(*r);
    default:
      return l->ends_with(*r);
  }
}

bool regexTest(const ScalarValue& left, const ScalarValue& right) {
  const std::string* pattern = right.asString();
  if (!pattern) throw BadRequestError("Operator \"=~\" requires a string pattern");
  const std::string* text = left.asString();
  if (!text) return false;
  return regexMatches(*RegexCache::shared().compile(*pattern), *text);
}

Node boundNode(const BindingVars& vars, const std::string& variable) {
  if (auto node = vars.find(variable)) return *node;
  throw BadRequestError("Unknown variable \"" + variable + "\" in WHERE",
                        "Use a variable that is bound in the MATCH pattern before referencing it in WHERE.");
}

}  // namespace

bool evaluateComparison(const ScalarValue& left, ComparisonOperator op, const ComparisonOperand& right) {
  if (const auto* list = right.asList()) {
    if (op != ComparisonOperator::in)
      throw BadRequestError("Operator \"" + std::string(rawText(op)) + "\" does not accept a list");
    for (const auto& element : *list)
      if (element == left) return true;
    return false;
  }
  const ScalarValue& r = *right.asScalar();
  switch (op) {
    case ComparisonOperator::equal:
    case ComparisonOperator::in:
      return left == r;
    case ComparisonOperator::notEqual:
      return !(left == r);
    case ComparisonOperator::less:
    case ComparisonOperator::greater:
    case ComparisonOperator::lessOrEqual:
    case ComparisonOperator::greaterOrEqual:
      return ordered(left, op, r);
    case ComparisonOperator::contains:
    case ComparisonOperator::startsWith:
    case ComparisonOperator::endsWith:
      return textTest(left, op, r);
    case ComparisonOperator::regex:
      return regexTest(left, r);
  }
  return false;
}

bool evaluateWhere(const WhereExpr& expr, const BindingVars& vars, const GraphAdapter& graph) {
  if (const auto* comparison = std::get_if<ComparisonExpr>(&expr.value)) {
    Node node = boundNode(vars, comparison->left.variable);
    return evaluateComparison(graph.property(node, comparison->left.property), comparison->op, comparison->right);
  }
  if (const auto* label = std::get_if<WhereExpr::Label>(&expr.value))
    return graph.hasLabel(boundNode(vars, label->variable), label->label);
  if (const auto* negation = std::get_if<WhereExpr::Not>(&expr.value))
    return !evaluateWhere(*negation->inner, vars, graph);
  const auto& logical = std::get<WhereExpr::Logical>(expr.value);
  bool left = evaluateWhere(*logical.left, vars, graph);
  if (logical.op == LogicalOperator::and_ && !left) return false;
  if (logical.op == LogicalOperator::or_ && left) return true;
  return evaluateWhere(*logical.right, vars, graph);
}

}  // namespace glimmerstrand::cypher
