// The bindings a match produces. Every binding of one match holds the same
// variables in the same order (the order in which the pattern first names
// them), so the names are kept once for the whole list and each binding is a
// compact array of nodes. Plain values; safe to copy across threads.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cypher/graph_adapter.h"
#include "cypher/values.h"

namespace glimmerstrand::cypher {

/// One match: the node of each variable, parallel to the list's variable
/// names, and the node its pattern part has reached.
struct Binding {
  std::vector<Node> nodes;
  Node current;

  bool operator==(const Binding&) const = default;
};

/// A binding's variables: names in binding order with their nodes.
class BindingVars {
 public:
  BindingVars(std::span<const std::string> names, std::span<const Node> nodes) : names_(names), nodes_(nodes) {}

  std::size_t size() const { return nodes_.size(); }
  const std::string& name(std::size_t i) const { return names_[i]; }
  Node node(std::size_t i) const { return nodes_[i]; }

  /// The node bound to `name`, or none.
  std::optional<Node> find(std::string_view name) const {
    for (std::size_t i = 0; i < nodes_.size(); ++i)
      if (names_[i] == name) return nodes_[i];
    return std::nullopt;
  }

  /// The variables as an ordered map of names to nodes.
  OrderedMap<Node> toMap() const {
    OrderedMap<Node> map;
    for (std::size_t i = 0; i < nodes_.size(); ++i) map.set(names_[i], nodes_[i]);
    return map;
  }

 private:
  std::span<const std::string> names_;
  std::span<const Node> nodes_;
};

/// The bindings of a match, in match order; repeats are kept.
struct BindingList {
  /// Variable names in binding order; every binding holds all of them.
  std::vector<std::string> variables;
  std::vector<Binding> bindings;

  std::size_t size() const { return bindings.size(); }
  bool empty() const { return bindings.empty(); }
  BindingVars vars(std::size_t i) const { return BindingVars(variables, bindings[i].nodes); }
};

}  // namespace glimmerstrand::cypher
