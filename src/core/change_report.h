// What a write did: a short list of change lines, or, when a view was
// replaced, one line and an indented outline of what is there now. The same
// outline, with a larger budget, is what ui.tree shows.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "core/ax_graph.h"

namespace glimmerstrand::core {

class ScriptRun;
struct Pending;

inline constexpr std::size_t maxChangeLines = 30;
inline constexpr std::size_t maxReportOutlineLines = 80;
inline constexpr std::size_t outlineChildren = 6;
inline constexpr double changedShare = 0.7;

/// `~` changes, then `+` additions, then `-` removals; at most `limit` of them
/// and a closing "… N more changes".
std::vector<std::string> changeLines(const NodeList& before, const NodeList& after, std::size_t limit);

/// Fills `changes` and `outline` of the pending result and makes `after` the
/// run's graph.
void changeReport(ScriptRun& run, const Pending& pending, AxSnapshot after);

/// The deepest node holding at least 70% of the new nodes; absent when none.
const GraphNode* changedPart(const AxGraph& graph, const std::unordered_set<std::string>& newIds);

struct Outline {
  std::vector<std::string> lines;  // at most the cap
  std::size_t total = 0;           // all lines the outline would have
};

/// The outline of one part (expanded) or of every root.
Outline outlineLines(const AxGraph& graph, const GraphNode* root, std::size_t maxLines);

/// The recursion of an outline, writing into `outline`.
void renderOutline(const GraphNode& node, std::size_t depth, const std::vector<std::string>& inherited, bool expand,
                   Outline& outline, std::size_t maxLines, const AxGraph& graph);

}  // namespace glimmerstrand::core
