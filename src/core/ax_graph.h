// A snapshot as the graph the statement language matches against: labels,
// ids (e12, m12), properties, CHILD and PARENT, and the one-line form of a
// node. Built once per snapshot and never changed, so one graph may be read
// by several threads. The tables a graph derives from its nodes are shared
// with later graphs of the same node list, so reading an unchanged
// application again costs no rebuilding.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/records.h"
#include "cypher/graph_adapter.h"

namespace glimmerstrand::core {

/// One node of a graph. It shares the snapshot's record, so a graph costs no
/// copy of 10,000 nodes; only nodes the graph fixes up (menu nodes, named
/// rows, rewritten links) hold a copy of their own.
struct GraphNode {
  std::shared_ptr<const AxNode> record;
  std::vector<std::int64_t> children;  // `i` of each child, in node order

  const AxNode& node() const { return *record; }
};

/// Roles that count as controls: the label `Control`, outlines and element
/// resolution share this table.
const std::unordered_set<std::string>& controlRoles();

/// Every property a node has in a query, in the order the instructions list
/// them; anything else reads as null.
const std::vector<std::string_view>& graphPropertyNames();

/// The label of a node: its role without "AX" ("AXUnknown" when absent), with
/// "App" in front for menu bar nodes.
std::string labelOf(const AxNode& node);
/// "m" or "e", then `uid` when present, else `i`.
std::string idText(const AxNode& node);
/// The non-empty ones of title, description, value, placeholder.
std::vector<std::string> nodeText(const AxNode& node);
/// title, else description, else placeholder, else value of a static text.
std::optional<std::string> nameOf(const AxNode& node);
/// `e12 Button "Play"`, `e7 TextField "Search" = "abc" focused`.
std::string rowLine(const AxNode& node);

class AxGraph final : public cypher::GraphAdapter {
 public:
  AxGraph(AxSnapshot snapshot, const std::vector<AxNode>& menus);
  /// A graph of `snapshot` that shares the tables of `earlier`, which must
  /// hold the same node list and menus (`holdsSameNodes`).
  AxGraph(AxSnapshot snapshot, const AxGraph& earlier);

  /// Whether `snapshot` holds this graph's very node list, and `menus` are
  /// its menus: then the two graphs differ only in the snapshot's figures.
  bool holdsSameNodes(const AxSnapshot& snapshot, const std::vector<AxNode>& menus) const;

  const AxSnapshot& snapshot() const { return snapshot_; }
  const std::vector<GraphNode>& nodes() const { return tables_->nodes; }
  const GraphNode* byIndex(std::int64_t i) const;
  const GraphNode* byId(std::string_view id) const;
  /// The children of a node, through byIndex.
  std::vector<const GraphNode*> children(const GraphNode& node) const;

  /// The language's handle of a node of this graph, and back.
  cypher::Node handle(const GraphNode& node) const;
  const GraphNode& graphNode(cypher::Node node) const { return tables_->nodes[node.handle]; }

  // GraphAdapter
  std::vector<cypher::Node> nodes(std::optional<std::string_view> label) const override;
  std::vector<cypher::Node> neighbors(cypher::Node node, std::span<const std::string> types) const override;
  std::optional<std::string> inverseType(std::string_view type) const override;
  std::string labelName(cypher::Node node) const override;
  bool hasLabel(cypher::Node node, std::string_view label) const override;
  cypher::ScalarValue property(cypher::Node node, std::string_view name) const override;
  cypher::Row rowObject(cypher::Node node) const override;
  std::int64_t identity(cypher::Node node) const override;

 private:
  /// What a graph derives from its nodes and menus alone.
  struct Tables {
    std::vector<AxNode> menus;  // as given, to recognise them again
    std::vector<GraphNode> nodes;
    std::vector<std::string> labels;  // label of each node, computed once
    std::unordered_map<std::int64_t, std::size_t> byIndex;
    std::unordered_map<std::string, std::size_t> byId;
  };
  static std::shared_ptr<const Tables> buildTables(const NodeList& nodes, const std::vector<AxNode>& menus);

  AxSnapshot snapshot_;
  std::shared_ptr<const Tables> tables_;
};

}  // namespace glimmerstrand::core
