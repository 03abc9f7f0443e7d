#include "cypher/targets.h"

#include <unordered_set>

#include "cypher/matcher.h"

namespace glimmerstrand::cypher {

std::vector<Node> resolveTargets(const MatchClause& match, std::string_view variable, const GraphAdapter& graph) {
  BindingList list = matchBindings(match, graph);
  std::vector<Node> targets;
  std::unordered_set<std::int64_t> seen;
  for (std::size_t i = 0; i < list.size(); ++i) {
    auto node = list.vars(i).find(variable);
    if (!node)
      throw BadRequestError("Unknown variable \"" + std::string(variable) + "\" in write target resolution",
                            "Use a variable that is bound in the MATCH pattern.");
    if (seen.insert(graph.identity(*node)).second) targets.push_back(*node);
  }
  return targets;
}

}  // namespace glimmerstrand::cypher
