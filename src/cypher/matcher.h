// Pattern matching: a MATCH clause over a GraphAdapter to a list of variable
// bindings. A nested loop over candidates in the graph's order, with no
// planner and no indexes, so results come in a deterministic order and a
// repeated path gives a repeated binding. Stateless between calls; safe to
// call from any thread with an adapter that allows it.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "cypher/binding.h"
#include "cypher/graph_adapter.h"
#include "cypher/statement.h"

namespace glimmerstrand::cypher {

/// The most matching work one query may do: every node that a relationship
/// expansion reaches and every binding made counts one. Ranges over both
/// directions of a tree grow with the branching to the power of the hops;
/// past this the query fails and asks for a narrower pattern, instead of
/// exhausting memory.
inline constexpr std::int64_t kMatchBudget = 500'000;

/// The bindings of the pattern parts that pass `where`. Throws
/// BadRequestError (or whatever the adapter throws).
BindingList matchBindings(const PatternPart& pattern, const std::vector<PatternPart>& more,
                          const std::optional<WhereExpr>& where, const GraphAdapter& graph);

inline BindingList matchBindings(const MatchClause& match, const GraphAdapter& graph) {
  return matchBindings(match.pattern, match.more, match.where, graph);
}

}  // namespace glimmerstrand::cypher
