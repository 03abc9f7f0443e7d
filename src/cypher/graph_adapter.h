// The one seam through which the statement language sees a graph. The
// language knows nothing of what a node is: the matcher, WHERE, projection and
// write targets go through these eight operations only.
//
// Thread-safety: the language calls an adapter from the one thread that runs
// the query, and only through const operations; an adapter that is never
// changed after construction may be shared by concurrent queries.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cypher/values.h"

namespace glimmerstrand::cypher {

/// The adapter's handle of a node: one opaque word that the adapter chooses
/// (typically an index into its own node list). Cheap to copy; meaningful
/// only to the adapter that made it. Handle equality is not node identity:
/// the language compares nodes through `GraphAdapter::identity` alone.
struct Node {
  std::uint64_t handle = 0;

  friend bool operator==(Node, Node) = default;
};

/// A graph as the language sees it. The operations are listed in slot order.
/// "May throw" operations may raise any exception (typically BadRequestError);
/// it stops the whole query and reaches the caller unchanged.
class GraphAdapter {
 public:
  virtual ~GraphAdapter() = default;

  /// All nodes carrying `label`, in the graph's order; with no label, every
  /// node. May throw.
  virtual std::vector<Node> nodes(std::optional<std::string_view> label) const = 0;

  /// The nodes one hop away from `node` along any of `types`, in the graph's
  /// order, repeats allowed. An unknown type has no neighbours. May throw.
  virtual std::vector<Node> neighbors(Node node, std::span<const std::string> types) const = 0;

  /// The type that runs the other way, or none (an empty text counts as none).
  virtual std::optional<std::string> inverseType(std::string_view type) const = 0;

  /// The node's primary label. The matcher never calls it.
  virtual std::string labelName(Node node) const = 0;

  /// Whether the node carries `label` (one label, never alternatives).
  virtual bool hasLabel(Node node, std::string_view label) const = 0;

  /// The property's value; a property the node lacks is null. May throw.
  virtual ScalarValue property(Node node, std::string_view name) const = 0;

  /// The node as it appears in a result row. May throw.
  virtual Row rowObject(Node node) const = 0;

  /// Equal for the same node and different for different nodes.
  virtual std::int64_t identity(Node node) const = 0;
};

}  // namespace glimmerstrand::cypher
