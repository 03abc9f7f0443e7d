#include "cypher/matcher.h"

#include <algorithm>

#include "cypher/where.h"

namespace glimmerstrand::cypher {
namespace {

class Matcher {
 public:
  explicit Matcher(const GraphAdapter& graph) : graph_(graph) {}

  BindingList run(const PatternPart& pattern, const std::vector<PatternPart>& more,
                  const std::optional<WhereExpr>& where) {
    std::vector<Binding> bindings = firstPart(pattern);
    expandChain(bindings, pattern);
    for (const auto& part : more) {
      bindings = joinPart(bindings, part);
      expandChain(bindings, part);
    }
    if (where) {
      std::erase_if(bindings, [&](const Binding& binding) {
        return !evaluateWhere(*where, BindingVars(variables_, binding.nodes), graph_);
      });
    }
    return BindingList{std::move(variables_), std::move(bindings)};
  }

 private:
  // The slot of a variable bound by an earlier node pattern, or none. Slots
  // are handed out in the order the pattern first names variables, and every
  // binding of a list holds the same ones.
  std::optional<std::size_t> slotOf(const std::string& variable) const {
    auto at = std::find(variables_.begin(), variables_.end(), variable);
    if (at == variables_.end()) return std::nullopt;
    return static_cast<std::size_t>(at - variables_.begin());
  }

  void charge(std::size_t work) {
    if (static_cast<std::int64_t>(work) > budget_)
      throw BadRequestError(
          "パターンの照合が上限の " + std::to_string(kMatchBudget) + " 件を超えました。MATCH の条件を絞ってください",
          "Narrow the pattern: give the start node a label or property, follow fewer relationship "
          "types, or lower the hop range (e.g. *1..3).");
    budget_ -= static_cast<std::int64_t>(work);
  }

  std::vector<Node> candidates(const NodePattern& pattern) const {
    // Alternatives are asked for as all nodes and sorted out by hasLabel.
    if (!pattern.label || pattern.label->find('|') != std::string::npos) return graph_.nodes(std::nullopt);
    return graph_.nodes(*pattern.label);
  }

  bool nodeMatches(Node node, const NodePattern& pattern) const {
    if (pattern.label) {
      bool any = false;
      std::string_view rest = *pattern.label;
      while (!any) {
        auto bar = rest.find('|');
        any = graph_.hasLabel(node, rest.substr(0, bar));
        if (bar == std::string_view::npos) break;
        rest.remove_prefix(bar + 1);
      }
      if (!any) return false;
    }
    bool same = true;
    pattern.properties.forEach([&](const std::string& key, const ScalarValue& wanted) {
      same = same && graph_.property(node, key) == wanted;
    });
    return same;
  }

  std::vector<Binding> firstPart(const PatternPart& part) {
    if (part.start.variable) variables_.push_back(*part.start.variable);
    std::vector<Binding> bindings;
    for (Node node : candidates(part.start)) {
      if (!nodeMatches(node, part.start)) continue;
      charge(1);
      Binding binding{{}, node};
      if (part.start.variable) binding.nodes.push_back(node);
      bindings.push_back(std::move(binding));
    }
    return bindings;
  }

  std::vector<Binding> joinPart(const std::vector<Binding>& bindings, const PatternPart& part) {
    std::optional<std::size_t> bound = part.start.variable ? slotOf(*part.start.variable) : std::nullopt;
    const bool binds = part.start.variable && !bound;
    if (binds) variables_.push_back(*part.start.variable);
    std::vector<Binding> joined;
    for (const auto& binding : bindings) {
      std::vector<Node> nodes = bound ? std::vector<Node>{binding.nodes[*bound]} : candidates(part.start);
      for (Node node : nodes) {
        if (!nodeMatches(node, part.start)) continue;
        charge(1);
        Binding copy{binding.nodes, node};
        if (binds) copy.nodes.push_back(node);
        joined.push_back(std::move(copy));
      }
    }
    return joined;
  }

  void expandChain(std::vector<Binding>& bindings, const PatternPart& part) {
    for (const auto& step : part.chain) {
      std::optional<std::size_t> bound = step.node.variable ? slotOf(*step.node.variable) : std::nullopt;
      const bool binds = step.node.variable && !bound;
      if (binds) variables_.push_back(*step.node.variable);
      if (bindings.empty()) continue;
      const std::vector<std::string> types = followedTypes(step.relationship);
      std::vector<Binding> next;
      for (const auto& binding : bindings) {
        for (Node reached : expandRelationship(binding.current, types, step.relationship)) {
          if (!nodeMatches(reached, step.node)) continue;
          if (bound && graph_.identity(binding.nodes[*bound]) != graph_.identity(reached)) continue;
          charge(1);
          Binding copy{binding.nodes, reached};
          if (binds) copy.nodes.push_back(reached);
          next.push_back(std::move(copy));
        }
      }
      bindings = std::move(next);
    }
  }

  // The types to follow, turned around for an incoming relationship. Asked
  // only once a binding reaches the step, so a pattern that matches nothing
  // never fails here.
  std::vector<std::string> followedTypes(const RelationshipPattern& relationship) const {
    if (relationship.direction == RelationshipDirection::outgoing) return relationship.types;
    std::vector<std::string> types;
    for (const auto& type : relationship.types) {
      auto inverse = graph_.inverseType(type);
      if (!inverse || inverse->empty())
        throw BadRequestError("Relationship \"" + type + "\" cannot be followed backwards; write it as -[:" + type +
                              "]->");
      types.push_back(std::move(*inverse));
    }
    return types;
  }

  // Nodes level by level, once per path: no visited set, hops counted from 1.
  std::vector<Node> expandRelationship(Node start, const std::vector<std::string>& types,
                                       const RelationshipPattern& relationship) {
    std::vector<Node> results;
    if (relationship.maxHops < 1) return results;
    std::vector<Node> frontier{start};
    std::vector<Node> next;
    for (std::int64_t depth = 1; depth <= relationship.maxHops; ++depth) {
      next.clear();
      for (Node node : frontier) {
        std::vector<Node> neighbors = graph_.neighbors(node, types);
        charge(neighbors.size());
        next.insert(next.end(), neighbors.begin(), neighbors.end());
      }
      if (depth >= relationship.minHops) results.insert(results.end(), next.begin(), next.end());
      if (next.empty()) break;
      std::swap(frontier, next);
    }
    return results;
  }

  const GraphAdapter& graph_;
  std::int64_t budget_ = kMatchBudget;
  std::vector<std::string> variables_;
};

}  // namespace

BindingList matchBindings(const PatternPart& pattern, const std::vector<PatternPart>& more,
                          const std::optional<WhereExpr>& where, const GraphAdapter& graph) {
  return Matcher(graph).run(pattern, more, where);
}

}  // namespace glimmerstrand::cypher
