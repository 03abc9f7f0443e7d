// WHERE evaluation: two-valued logic over the properties and labels of a
// binding's nodes, with short-circuit AND and OR. Stateless apart from the
// shared RegexCache; safe to call from any thread.
#pragma once

#include "cypher/binding.h"
#include "cypher/graph_adapter.h"
#include "cypher/statement.h"

namespace glimmerstrand::cypher {

/// Whether the binding passes `expr`. Throws BadRequestError on an unknown
/// variable or a bad regular expression, when evaluation reaches them.
bool evaluateWhere(const WhereExpr& expr, const BindingVars& vars, const GraphAdapter& graph);

/// `left op right`, without conversion between kinds.
bool evaluateComparison(const ScalarValue& left, ComparisonOperator op, const ComparisonOperand& right);

}  // namespace glimmerstrand::cypher
