// How a written text such as "e12" or "次へ" becomes an element. This is
// where the system forgives: an id that a re-render replaced is looked for
// again by kind, name and place before the statement gives up.
#pragma once

#include <optional>
#include <string_view>

#include "core/ax_graph.h"
#include "core/graph_memory.h"

namespace glimmerstrand::core {

class ScriptRun;

/// An id ("e12", "m3") or a name, trimmed. A known id is taken at once; an
/// unknown one waits for pending writes, then is recalled from earlier
/// graphs; a name always waits for pending writes first. Throws "not_found"
/// when nothing fits, "invalid_argument" when a name stays ambiguous. The
/// node is a copy, so it outlives a later settle.
GraphNode resolveNode(ScriptRun& run, std::string_view text);

/// The one node named `name`, narrowed by four filters in turn (control
/// role, control ancestor, frame, enabled), each skipped when it would leave
/// nothing.
GraphNode resolveByName(const AxGraph& graph, std::string_view name);

/// The node of `current` that an id of an earlier graph of the same process
/// most likely became: same role, name and link, told apart by the old
/// parent's name and then by position (within 40 points).
std::optional<GraphNode> recallNode(const AxGraph& current, const GraphMemory& memory, std::string_view id);

}  // namespace glimmerstrand::core
