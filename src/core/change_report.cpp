#include "core/change_report.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <unordered_map>

#include "core/json_value.h"
#include "core/runner.h"

namespace glimmerstrand::core {
namespace {

const std::unordered_set<std::string>& structuralRoles() {
  static const std::unordered_set<std::string> roles{"AXWindow", "AXWebArea", "AXTable", "AXOutline",
                                                     "AXList",   "AXMenu",    "AXSheet", "AXDialog"};
  return roles;
}

const std::unordered_set<std::string>& containerRoles() {
  static const std::unordered_set<std::string> roles{"AXRow", "AXCell", "AXColumn"};
  return roles;
}

bool nonEmpty(const std::optional<std::string>& s) { return s && !s->empty(); }

// Nodes that carry some text, by id in first-seen order; a repeated id keeps
// its place and takes the later node.
struct NamedNodes {
  std::vector<std::string> order;
  std::unordered_map<std::string, const AxNode*> byId;

  explicit NamedNodes(const NodeList& nodes) {
    byId.reserve(nodes.size());
    for (const auto& n : nodes) {
      if (!nonEmpty(n.title) && !nonEmpty(n.description) && !nonEmpty(n.value) && !nonEmpty(n.placeholder)) continue;
      auto id = idText(n);
      auto [it, inserted] = byId.try_emplace(id, &n);
      if (inserted)
        order.push_back(std::move(id));
      else
        it->second = &n;
    }
  }
};

std::string withoutLeadingId(std::string line) {
  // Removes a leading "e<digits> ".
  if (line.size() < 3 || line[0] != 'e') return line;
  std::size_t k = 1;
  while (k < line.size() && line[k] >= '0' && line[k] <= '9') ++k;
  if (k > 1 && k < line.size() && line[k] == ' ') line.erase(0, k + 1);
  return line;
}

std::optional<std::string> shortName(const AxNode& n) {
  if (n.title) return n.title;
  if (n.description) return n.description;
  return n.placeholder;
}

std::string kindKey(const AxNode& n) {
  std::string key = labelOf(n);
  key.push_back('\0');
  key += shortName(n).value_or("");
  return key;
}

std::string quotedOrNull(const std::optional<std::string>& s) { return s ? jsonString(*s) : "null"; }

std::string wasText(const AxNode& old, const AxNode& now) {
  auto oldName = shortName(old), newName = shortName(now);
  if (oldName != newName) return " (was " + quotedOrNull(oldName) + ")";
  if (old.value != now.value) return " (was " + quotedOrNull(old.value) + ")";
  return "";
}

std::vector<std::string> replacedRoot(const NodeList& before, const NodeList& after) {
  const AxNode* root = nullptr;
  for (const auto& n : before)
    if (n.parent < 0) {
      root = &n;
      break;
    }
  if (!root) return {};
  const auto rootId = idText(*root);
  for (const auto& n : after)
    if (idText(n) == rootId) return {};
  std::vector<std::string> lines{"- " + withoutLeadingId(rowLine(*root)) + " closed (" + std::to_string(before.size()) +
                                 " elements)"};
  for (const auto& n : after)
    if (n.parent < 0) {
      lines.push_back("+ " + rowLine(n) + " (" + std::to_string(after.size()) + " elements)");
      break;
    }
  return lines;
}

bool isSheet(const AxNode& n) { return n.role == "AXSheet"; }

// A list without the sheets that the other list lacks, and a line for each
// of them: a dialog that opened or closed is one line, not one per element.
struct SheetsAside {
  std::optional<NodeList> rest;  // absent when no sheet was set aside
  std::vector<std::string> lines;
};

SheetsAside setSheetsAside(const NodeList& nodes, const NodeList& other, bool opened) {
  SheetsAside aside;
  std::unordered_set<std::string> otherIds;
  bool any = false;
  for (const auto& n : nodes) any = any || isSheet(n);
  if (!any) return aside;
  otherIds.reserve(other.size());
  for (const auto& n : other) otherIds.insert(idText(n));
  std::vector<AxNode> rest;
  rest.reserve(nodes.size());
  for (std::size_t k = 0; k < nodes.size();) {
    const AxNode& n = nodes[k];
    if (!isSheet(n) || otherIds.count(idText(n))) {
      rest.push_back(n);
      ++k;
      continue;
    }
    std::size_t end = k + 1;
    while (end < nodes.size() && nodes[end].depth > n.depth) ++end;
    const auto count = " (" + std::to_string(end - k) + " elements)";
    aside.lines.push_back(opened ? "+ " + rowLine(n) + count : "- " + withoutLeadingId(rowLine(n)) + " closed" + count);
    k = end;
  }
  if (!aside.lines.empty()) aside.rest = NodeList(std::move(rest));
  return aside;
}

// The menu bar's menus that stand open, by id.
std::unordered_set<std::string> openMenus(const NodeList& nodes) {
  std::unordered_set<std::string> open;
  for (const auto& n : nodes)
    if (n.role == "AXMenuBarItem" && n.selected == true) open.insert(idText(n));
  return open;
}

// The list without what the menu bar's menus hold, except those open before
// and after: a menu that opens or closes says so on its own line
// ("~ MenuBarItem "Edit" selected"), not with every item it holds.
NodeList withoutMenuContents(const NodeList& nodes, const std::unordered_set<std::string>& openBoth) {
  auto closedMenu = [&](const AxNode& n) { return n.role == "AXMenuBarItem" && !openBoth.count(idText(n)); };
  if (std::none_of(nodes.begin(), nodes.end(), closedMenu)) return nodes;
  std::vector<AxNode> rest;
  rest.reserve(nodes.size());
  for (std::size_t k = 0; k < nodes.size(); ++k) {
    rest.push_back(nodes[k]);
    if (!closedMenu(nodes[k])) continue;
    const auto depth = nodes[k].depth;
    while (k + 1 < nodes.size() && nodes[k + 1].depth > depth) ++k;
  }
  return NodeList(std::move(rest));
}

}  // namespace

std::vector<std::string> changeLines(const NodeList& before, const NodeList& after, std::size_t limit) {
  if (auto lines = replacedRoot(before, after); !lines.empty()) return lines;
  const SheetsAside closed = setSheetsAside(before, after, false);
  const SheetsAside opened = setSheetsAside(after, before, true);
  auto openBoth = openMenus(before);
  std::erase_if(openBoth, [now = openMenus(after)](const std::string& id) { return !now.count(id); });
  const NodeList oldNodes = withoutMenuContents(closed.rest.value_or(before), openBoth);
  const NodeList newNodes = withoutMenuContents(opened.rest.value_or(after), openBoth);
  NamedNodes old(oldNodes), now(newNodes);

  std::vector<std::string> changed, added, removed;
  std::vector<const AxNode*> appeared;
  for (const auto& id : now.order) {
    const AxNode* n = now.byId[id];
    auto was = old.byId.find(id);
    if (was == old.byId.end()) {
      appeared.push_back(n);
      continue;
    }
    if (*n == *was->second) continue;  // most nodes are untouched: skip building their lines
    auto line = rowLine(*n);
    if (line != rowLine(*was->second)) changed.push_back("~ " + line + wasText(*was->second, *n));
  }
  // Gone nodes by kind and name, keys in first-seen order.
  std::vector<std::string> goneKeys;
  std::unordered_map<std::string, std::deque<const AxNode*>> gone;
  for (const auto& id : old.order) {
    if (now.byId.count(id)) continue;
    const AxNode* n = old.byId[id];
    auto key = kindKey(*n);
    auto [it, inserted] = gone.try_emplace(key);
    if (inserted) goneKeys.push_back(key);
    it->second.push_back(n);
  }
  for (const AxNode* n : appeared) {
    auto it = gone.find(kindKey(*n));
    if (it == gone.end() || it->second.empty()) {
      added.push_back("+ " + rowLine(*n));
      continue;
    }
    const AxNode* was = it->second.front();
    it->second.pop_front();
    // The same element re-created under a new id reads as one change or none.
    if (was->value != n->value) changed.push_back("~ " + rowLine(*n) + wasText(*was, *n));
  }
  for (const auto& key : goneKeys)
    for (const AxNode* n : gone[key]) removed.push_back("- " + withoutLeadingId(rowLine(*n)));
  added.insert(added.end(), opened.lines.begin(), opened.lines.end());
  removed.insert(removed.end(), closed.lines.begin(), closed.lines.end());

  std::vector<std::string> lines = std::move(changed);
  lines.insert(lines.end(), added.begin(), added.end());
  lines.insert(lines.end(), removed.begin(), removed.end());
  if (lines.size() > limit) {
    const auto left = lines.size() - limit;
    lines.resize(limit);
    lines.push_back("… " + std::to_string(left) + " more changes");
  }
  return lines;
}

const GraphNode* changedPart(const AxGraph& graph, const std::unordered_set<std::string>& newIds) {
  std::unordered_map<std::int64_t, std::size_t> counts;
  for (const auto& n : graph.nodes()) {
    if (!newIds.count(idText(n.node()))) continue;
    // Follow parents; a cycle in a broken tree stops at a node seen twice.
    std::unordered_set<std::int64_t> seen;
    for (const GraphNode* at = &n; at && seen.insert(at->node().i).second; at = graph.byIndex(at->node().parent))
      ++counts[at->node().i];
  }
  const GraphNode* root = nullptr;
  for (const auto& n : graph.nodes())
    if (n.node().parent < 0) {
      root = &n;
      break;
    }
  if (!root || !counts[root->node().i]) return nullptr;
  const double total = static_cast<double>(counts[root->node().i]);
  const GraphNode* current = root;
  for (bool deeper = true; deeper;) {
    deeper = false;
    for (const GraphNode* child : graph.children(*current)) {
      auto c = counts.find(child->node().i);
      if (c != counts.end() && static_cast<double>(c->second) >= changedShare * total) {
        current = child;
        deeper = true;
        break;
      }
    }
  }
  return current;
}

namespace {

void writeLine(Outline& outline, std::size_t maxLines, std::string line) {
  ++outline.total;
  if (outline.lines.size() < maxLines) outline.lines.push_back(std::move(line));
}

bool containedIn(const std::string& text, const std::vector<std::string>& inherited) {
  for (const auto& entry : inherited)
    if (entry.find(text) != std::string::npos) return true;
  return false;
}

}  // namespace

void renderOutline(const GraphNode& node, std::size_t depth, const std::vector<std::string>& inherited, bool expand,
                   Outline& outline, std::size_t maxLines, const AxGraph& graph) {
  const AxNode& n = node.node();
  const auto texts = nodeText(n);
  const std::string role = n.role.value_or("");
  const bool isControl = controlRoles().count(role) && !containerRoles().count(role);

  bool shown = true;
  if (texts.empty() && !n.details) {
    shown = isControl || expand || structuralRoles().count(role);
  } else if (!isControl && !texts.empty()) {
    bool anyNew = false;
    for (const auto& t : texts) anyNew = anyNew || !containedIn(t, inherited);
    shown = anyNew || expand;
  }

  auto kids = graph.children(node);
  if (!shown) {
    auto extended = inherited;
    extended.insert(extended.end(), texts.begin(), texts.end());
    for (auto* child : kids) renderOutline(*child, depth, extended, false, outline, maxLines, graph);
    return;
  }

  std::string line(2 * depth, ' ');
  line += rowLine(n);
  std::vector<std::string> extras;
  if (role == "AXLink" && nonEmpty(n.url)) extras.push_back("-> " + *n.url);
  if (nonEmpty(n.details)) extras.push_back("[" + *n.details + "]");
  for (const auto& extra : extras) line += " " + extra;
  writeLine(outline, maxLines, std::move(line));

  const std::string indent(2 * (depth + 1), ' ');
  const std::size_t shownKids = expand ? kids.size() : std::min(kids.size(), outlineChildren);
  for (std::size_t k = 0; k < shownKids; ++k)
    renderOutline(*kids[k], depth + 1, texts, false, outline, maxLines, graph);
  if (shownKids < kids.size())
    writeLine(outline, maxLines,
              indent + "… " + std::to_string(kids.size() - shownKids) + " more items; ui.tree(\"" + idText(n) + "\")");
  if (n.offscreen && *n.offscreen != 0)
    writeLine(outline, maxLines,
              indent + "… " + std::to_string(*n.offscreen) + " more items off screen; ui.scroll to reach them");
}

Outline outlineLines(const AxGraph& graph, const GraphNode* root, std::size_t maxLines) {
  Outline outline;
  if (root) {
    renderOutline(*root, 0, {}, true, outline, maxLines, graph);
    return outline;
  }
  for (const auto& n : graph.nodes())
    if (n.node().parent < 0) renderOutline(n, 0, {}, false, outline, maxLines, graph);
  return outline;
}

void changeReport(ScriptRun& run, const Pending& pending, AxSnapshot after) {
  auto lines = changeLines(pending.before.nodes, after.nodes, maxChangeLines);
  run.rebuildGraph(std::move(after), 0);
  auto& result = *pending.result;
  if (lines.empty()) {
    result.changes = std::vector<std::string>{};
    return;
  }
  const bool overflow = lines.back().starts_with("… ");
  const bool replaced = lines.front().find(" closed (") != std::string::npos;
  const auto& graph = *run.graph;
  std::unordered_set<std::string> beforeIds;
  beforeIds.reserve(pending.before.nodes.size());
  for (const auto& n : pending.before.nodes) beforeIds.insert(idText(n));
  // A dialog that opened is what the agent acts on next: its outline follows.
  const GraphNode* sheet = nullptr;
  for (const auto& n : graph.nodes())
    if (!sheet && isSheet(n.node()) && !beforeIds.count(idText(n.node()))) sheet = &n;
  if (!overflow && !(replaced && lines.size() == 2) && !sheet) {
    result.changes = std::move(lines);
    return;
  }
  const bool keepFirst = replaced && lines.size() == 2;

  std::unordered_set<std::string> newIds;
  for (const auto& n : graph.snapshot().nodes)
    if (auto id = idText(n); !beforeIds.count(id)) newIds.insert(std::move(id));
  const GraphNode* part = sheet ? sheet : changedPart(graph, newIds);
  if (part && part->node().parent < 0) part = nullptr;

  Outline outline;
  if (part) {
    renderOutline(*part, 0, {}, true, outline, maxReportOutlineLines, graph);
  } else {
    for (const auto& n : graph.nodes())
      if (n.node().parent < 0) renderOutline(n, 0, {}, false, outline, maxReportOutlineLines, graph);
  }
  if (keepFirst)
    result.changes = std::vector<std::string>{lines.front()};
  else if (sheet && !overflow)
    result.changes = std::move(lines);
  else if (part)
    result.changes =
        std::vector<std::string>{"(the view changed inside " + idText(part->node()) + "; outline of that part below)"};
  else
    result.changes = std::vector<std::string>{"(the view changed; outline below)"};
  if (outline.total > outline.lines.size())
    outline.lines.push_back("… " + std::to_string(outline.total - outline.lines.size()) +
                            " more lines; call ui.tree(\"eX\") on a part");
  result.outline = std::move(outline.lines);
}

}  // namespace glimmerstrand::core
