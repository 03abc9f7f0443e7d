#include "core/element_resolution.h"

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "core/errors.h"
#include "core/procedures.h"
#include "core/runner.h"
#include "cypher/unicode_text.h"

namespace glimmerstrand::core {
namespace {

constexpr std::size_t controlAncestorDepth = 4;
constexpr std::size_t listedCandidates = 6;
constexpr double recallDistance = 40;

bool isIdText(std::string_view t) {
  if (t.size() < 2 || (t[0] != 'e' && t[0] != 'm')) return false;
  for (char c : t.substr(1))
    if (c < '0' || c > '9') return false;
  return true;
}

bool isControl(const std::optional<std::string>& role) { return controlRoles().count(role.value_or("")) > 0; }

const GraphNode* parentOf(const AxGraph& graph, const GraphNode& node) { return graph.byIndex(node.node().parent); }

std::optional<std::string> parentName(const AxGraph& graph, const GraphNode& node) {
  const GraphNode* parent = parentOf(graph, node);
  return parent ? nameOf(parent->node()) : std::nullopt;
}

bool hasControlAncestor(const AxGraph& graph, const GraphNode& node) {
  const GraphNode* at = parentOf(graph, node);
  for (std::size_t k = 0; at && k < controlAncestorDepth; ++k, at = parentOf(graph, *at))
    if (isControl(at->node().role)) return true;
  return false;
}

using Candidates = std::vector<const GraphNode*>;

// Keeps the candidates that pass, unless none would.
template <typename Test>
void narrow(Candidates& candidates, Test test) {
  Candidates kept;
  for (const auto* c : candidates)
    if (test(*c)) kept.push_back(c);
  if (!kept.empty()) candidates = std::move(kept);
}

std::string ambiguousMessage(std::string_view name, const Candidates& left) {
  std::string message = "「" + std::string(name) + "」という名前の要素が " + std::to_string(left.size()) +
                        " 個あります。ID で指してください: ";
  for (std::size_t k = 0; k < left.size() && k < listedCandidates; ++k) {
    if (k) message += ", ";
    message += rowLine(left[k]->node());
  }
  return message;
}

double distance(const AxNode& a, const Rect& from) {
  if (!a.frame) return std::numeric_limits<double>::infinity();
  return std::hypot(a.frame->x - from.x, a.frame->y - from.y);
}

}  // namespace

GraphNode resolveByName(const AxGraph& graph, std::string_view name) {
  Candidates candidates;
  for (const auto& n : graph.nodes())
    if (auto own = nameOf(n.node()); own && *own == name) candidates.push_back(&n);
  if (candidates.empty())
    throw GlimmerstrandError(
        codes::notFound,
        "「" + std::string(name) + "」という名前の要素がありません。ui.tree() か MATCH で探してください");
  const std::function<bool(const GraphNode&)> filters[] = {
      [](const GraphNode& n) { return isControl(n.node().role); },
      [&](const GraphNode& n) { return hasControlAncestor(graph, n); },
      [](const GraphNode& n) { return n.node().frame.has_value(); },
      [](const GraphNode& n) { return n.node().enabled != false; },
  };
  for (const auto& filter : filters) {
    narrow(candidates, filter);
    if (candidates.size() == 1) return *candidates.front();
  }
  throw GlimmerstrandError(codes::invalidArgument, ambiguousMessage(name, candidates));
}

std::optional<GraphNode> recallNode(const AxGraph& current, const GraphMemory& memory, std::string_view id) {
  const GraphNode* old = nullptr;
  std::shared_ptr<const AxGraph> oldGraph;
  for (auto& graph : memory.graphs(current.snapshot().pid)) {
    if ((old = graph->byId(id))) {
      oldGraph = std::move(graph);
      break;
    }
  }
  if (!old) return std::nullopt;

  const auto oldName = nameOf(old->node());
  Candidates candidates;
  for (const auto& n : current.nodes())
    if (n.node().role == old->node().role && nameOf(n.node()) == oldName && n.node().url == old->node().url)
      candidates.push_back(&n);
  if (candidates.size() >= 2) {
    const auto wantedParent = parentName(*oldGraph, *old);
    narrow(candidates, [&](const GraphNode& n) { return parentName(current, n) == wantedParent; });
  }
  if (candidates.size() == 1) return *candidates.front();
  if (candidates.empty() || !old->node().frame) return std::nullopt;

  // Siblings alike in every other way: the one that stayed where the old one was.
  const GraphNode* nearest = nullptr;
  double best = std::numeric_limits<double>::infinity();
  for (const auto* c : candidates) {
    double d = distance(c->node(), *old->node().frame);
    if (!nearest || d < best) {
      nearest = c;
      best = d;
    }
  }
  if (!nearest->node().frame || best > recallDistance) return std::nullopt;
  return *nearest;
}

GraphNode resolveNode(ScriptRun& run, std::string_view text) {
  run.ensureOpen();
  // White space and line breaks, as a person may paste them around an id.
  const std::string_view t = cypher::trimmedText(text);
  if (!isIdText(t)) {
    if (run.pending) {
      run.settlePending();
      run.ensureOpen();
    }
    return resolveByName(*run.graph, t);
  }
  if (const auto* known = run.graph->byId(t)) return *known;
  if (run.pending) {
    // The id may belong to what the pending writes brought up.
    run.settlePending();
    run.ensureOpen();
    if (const auto* settled = run.graph->byId(t)) return *settled;
  }
  if (auto recalled = recallNode(*run.graph, run.runner.memory(), t)) return *recalled;
  throw GlimmerstrandError(codes::notFound, std::string(text) +
                                                " は最新の写しにありません。ウィンドウやページが入れ替わると ID "
                                                "も変わります。ui.tree() か MATCH で探し直してください");
}

}  // namespace glimmerstrand::core
