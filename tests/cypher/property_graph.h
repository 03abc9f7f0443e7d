// A small in-memory property graph behind GraphAdapter, so that the language
// is tested apart from accessibility trees. Nodes carry labels and
// properties; relationships are typed and directed; inverse types are
// declared per graph. Not thread-safe while it is built; read-only after.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cypher/graph_adapter.h"
#include "cypher/values.h"

namespace glimmerstrand::cypher::testing {

class PropertyGraph : public GraphAdapter {
 public:
  /// Adds a node and returns its index. Its first label is its primary one.
  std::size_t add(std::vector<std::string> labels, OrderedMap<ScalarValue> properties = {}) {
    nodes_.push_back(NodeData{std::move(labels), std::move(properties), {}});
    return nodes_.size() - 1;
  }

  /// A directed relationship of `type` from `from` to `to`.
  void relate(std::size_t from, std::string_view type, std::size_t to) {
    nodes_[from].out.emplace_back(std::string(type), to);
  }

  /// CHILD from parent to child and PARENT back, the tree of a UI.
  void child(std::size_t parent, std::size_t child) {
    relate(parent, "CHILD", child);
    relate(child, "PARENT", parent);
  }

  void declareInverse(std::string a, std::string b) {
    inverses_[a] = b;
    inverses_[b] = a;
  }

  /// Makes `property` throw for this name, as a failing graph would.
  void failOnProperty(std::string name) { failingProperty_ = std::move(name); }

  std::size_t size() const { return nodes_.size(); }
  static Node handle(std::size_t index) { return Node{index}; }
  static std::size_t index(Node node) { return static_cast<std::size_t>(node.handle); }

  /// A count that several reading threads may raise; a copy of the graph
  /// starts from the count as it stood.
  struct Count {
    std::atomic<int> value = 0;
    Count() = default;
    Count(const Count& other) : value(other.value.load()) {}
    Count& operator=(const Count& other) {
      value = other.value.load();
      return *this;
    }
    operator int() const { return value; }
  };
  /// How often `nodes` was asked with no label, and with one.
  mutable Count unlabelledScans;
  mutable Count labelledScans;

  std::vector<Node> nodes(std::optional<std::string_view> label) const override {
    ++(label ? labelledScans : unlabelledScans).value;
    std::vector<Node> found;
    for (std::size_t i = 0; i < nodes_.size(); ++i)
      if (!label || hasLabel(handle(i), *label)) found.push_back(handle(i));
    return found;
  }

  std::vector<Node> neighbors(Node node, std::span<const std::string> types) const override {
    std::vector<Node> found;
    for (const auto& [type, to] : nodes_[index(node)].out)
      for (const auto& wanted : types)
        if (type == wanted) {
          found.push_back(handle(to));
          break;
        }
    return found;
  }

  std::optional<std::string> inverseType(std::string_view type) const override {
    auto at = inverses_.find(std::string(type));
    if (at == inverses_.end()) return std::nullopt;
    return at->second;
  }

  std::string labelName(Node node) const override {
    const auto& labels = nodes_[index(node)].labels;
    return labels.empty() ? "" : labels.front();
  }

  bool hasLabel(Node node, std::string_view label) const override {
    for (const auto& l : nodes_[index(node)].labels)
      if (l == label) return true;
    return false;
  }

  ScalarValue property(Node node, std::string_view name) const override {
    if (failingProperty_ && name == *failingProperty_)
      throw BadRequestError("property " + std::string(name) + " failed");
    const ScalarValue* value = nodes_[index(node)].properties.get(name);
    return value ? *value : ScalarValue();
  }

  /// The primary label under "_label", then every property in order.
  Row rowObject(Node node) const override {
    Row row;
    row.set("_label", RowValue(labelName(node)));
    nodes_[index(node)].properties.forEach(
        [&](const std::string& key, const ScalarValue& value) { row.set(key, RowValue(value)); });
    return row;
  }

  /// Deliberately not the handle, so that code mixing the two shows up.
  std::int64_t identity(Node node) const override { return 1000 + static_cast<std::int64_t>(index(node)); }

 private:
  struct NodeData {
    std::vector<std::string> labels;
    OrderedMap<ScalarValue> properties;
    std::vector<std::pair<std::string, std::size_t>> out;
  };

  std::vector<NodeData> nodes_;
  std::map<std::string, std::string> inverses_;
  std::optional<std::string> failingProperty_;
};

}  // namespace glimmerstrand::cypher::testing
