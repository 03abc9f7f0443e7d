// Write target resolution: the distinct nodes a write acts on. The write
// itself belongs to the runner. Stateless; safe from any thread with an
// adapter that allows it.
#pragma once

#include <string_view>
#include <vector>

#include "cypher/graph_adapter.h"
#include "cypher/statement.h"

namespace glimmerstrand::cypher {

/// The nodes bound to `variable` over the bindings of `match`, each once, in
/// order of first appearance. Empty, and no error, when nothing matches.
/// Throws BadRequestError when a binding lacks the variable.
std::vector<Node> resolveTargets(const MatchClause& match, std::string_view variable, const GraphAdapter& graph);

}  // namespace glimmerstrand::cypher
