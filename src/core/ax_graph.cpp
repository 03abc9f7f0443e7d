#include "core/ax_graph.h"

#include <algorithm>

#include "core/json_value.h"

namespace glimmerstrand::core {
namespace {

using cypher::Node;
using cypher::Row;
using cypher::RowValue;
using cypher::ScalarValue;

// The embedded web player serves its pages from an internal origin; links
// read from it are rewritten to the public one an agent can open.
constexpr std::string_view internalPlayerOrigin = "https://xpui.app.spotify.com/";
constexpr std::string_view publicPlayerOrigin = "https://open.spotify.com/";

bool nonEmpty(const std::optional<std::string>& s) { return s && !s->empty(); }

std::string_view withoutAX(std::string_view text) { return text.starts_with("AX") ? text.substr(2) : text; }

ScalarValue optionalText(const std::optional<std::string>& s) { return s ? ScalarValue(*s) : ScalarValue(); }

std::optional<std::string> joinedText(const AxNode& n) {
  std::string out;
  for (const auto* field : {&n.title, &n.description, &n.value, &n.placeholder, &n.help}) {
    if (!nonEmpty(*field)) continue;
    if (!out.empty()) out += ' ';
    out += **field;
  }
  if (out.empty()) return std::nullopt;
  return out;
}

// The children of a node, by the index of positions.
template <typename Tables>
std::vector<const GraphNode*> childrenIn(const Tables& tables, const GraphNode& node) {
  std::vector<const GraphNode*> out;
  out.reserve(node.children.size());
  for (auto i : node.children)
    if (auto it = tables.byIndex.find(i); it != tables.byIndex.end()) out.push_back(&tables.nodes[it->second]);
  return out;
}

// The first text of a static text within three levels below a node.
template <typename Tables>
std::optional<std::string> descendantText(const Tables& tables, const GraphNode& node) {
  std::vector<const GraphNode*> level = childrenIn(tables, node);
  for (int depth = 0; depth < 3 && !level.empty(); ++depth) {
    std::vector<const GraphNode*> next;
    for (const auto* n : level) {
      const auto& a = n->node();
      if (a.role == "AXStaticText" && (nonEmpty(a.value) || nonEmpty(a.title))) return a.value ? a.value : a.title;
    }
    for (const auto* n : level) {
      auto kids = childrenIn(tables, *n);
      next.insert(next.end(), kids.begin(), kids.end());
    }
    level = std::move(next);
  }
  return std::nullopt;
}

// Rows and cells without a text of their own take their first descendant's.
template <typename Tables>
void nameRows(Tables& tables) {
  for (auto& n : tables.nodes) {
    const auto& node = n.node();
    if (node.role != "AXRow" && node.role != "AXCell") continue;
    if (nonEmpty(node.title) || nonEmpty(node.description) || nonEmpty(node.placeholder) || nonEmpty(node.value))
      continue;
    if (auto found = descendantText(tables, n); found && !found->empty()) {
      AxNode copy = n.node();
      copy.title = std::move(found);
      n.record = std::make_shared<const AxNode>(std::move(copy));
    }
  }
}

}  // namespace

const std::unordered_set<std::string>& controlRoles() {
  static const std::unordered_set<std::string> roles{
      "AXButton",      "AXLink",        "AXTextField",   "AXTextArea",    "AXSearchField",
      "AXComboBox",    "AXCheckBox",    "AXRadioButton", "AXPopUpButton", "AXMenuButton",
      "AXMenuItem",    "AXMenuBarItem", "AXTab",         "AXTabButton",   "AXDisclosureTriangle",
      "AXIncrementor", "AXSlider",      "AXCell",        "AXRow"};
  return roles;
}

const std::vector<std::string_view>& graphPropertyNames() {
  static const std::vector<std::string_view> names{
      "id",         "role",    "subrole",  "name",  "title",   "description", "value",   "placeholder",
      "identifier", "text",    "help",     "url",   "details", "enabled",     "focused", "selected",
      "expanded",   "checked", "shortcut", "depth", "x",       "y",           "width",   "height"};
  return names;
}

std::string labelOf(const AxNode& node) {
  std::string label(withoutAX(node.role.value_or("AXUnknown")));
  return node.menu == true ? "App" + label : label;
}

std::string idText(const AxNode& node) {
  return (node.menu == true ? "m" : "e") + std::to_string(node.uid.value_or(node.i));
}

std::vector<std::string> nodeText(const AxNode& node) {
  std::vector<std::string> texts;
  for (const auto* field : {&node.title, &node.description, &node.value, &node.placeholder})
    if (nonEmpty(*field)) texts.push_back(**field);
  return texts;
}

std::optional<std::string> nameOf(const AxNode& node) {
  if (node.title) return node.title;
  if (node.description) return node.description;
  if (node.placeholder) return node.placeholder;
  if (node.role == "AXStaticText") return node.value;
  return std::nullopt;
}

std::string rowLine(const AxNode& node) {
  std::string line = idText(node);
  line += ' ';
  line += labelOf(node);
  auto name = nameOf(node);
  if (name) {
    line += ' ';
    line += jsonString(*name);
  } else if (nonEmpty(node.subrole) && *node.subrole != "AXUnknown") {
    line += " (";
    line += withoutAX(*node.subrole);
    line += ')';
  }
  if (nonEmpty(node.value) && (!name || *name != *node.value)) {
    line += " = ";
    line += jsonString(*node.value);
  }
  if (node.enabled == false) line += " disabled";
  if (node.focused == true) line += " focused";
  if (node.selected == true) line += " selected";
  if (node.checked == true) line += " checked";
  return line;
}

AxGraph::AxGraph(AxSnapshot snapshot, const std::vector<AxNode>& menus)
    : snapshot_(std::move(snapshot)), tables_(buildTables(snapshot_.nodes, menus)) {}

AxGraph::AxGraph(AxSnapshot snapshot, const AxGraph& earlier)
    : snapshot_(std::move(snapshot)), tables_(earlier.tables_) {}

bool AxGraph::holdsSameNodes(const AxSnapshot& snapshot, const std::vector<AxNode>& menus) const {
  return snapshot.pid == snapshot_.pid && snapshot.nodes.shared() == snapshot_.nodes.shared() &&
         menus == tables_->menus;
}

std::shared_ptr<const AxGraph::Tables> AxGraph::buildTables(const NodeList& list, const std::vector<AxNode>& menus) {
  auto tables = std::make_shared<Tables>();
  tables->menus = menus;
  auto& nodes = tables->nodes;
  const auto offset = static_cast<std::int64_t>(list.size());
  nodes.reserve(list.size() + menus.size());
  const auto& shared = list.shared();
  for (const auto& n : *shared) nodes.push_back(GraphNode{std::shared_ptr<const AxNode>(shared, &n), {}});
  for (const auto& m : menus) {
    AxNode copy = m;
    copy.i = m.i + offset;
    copy.parent = m.parent >= 0 ? m.parent + offset : -1;
    copy.menu = true;
    nodes.push_back(GraphNode{std::make_shared<const AxNode>(std::move(copy)), {}});
  }
  tables->byIndex.reserve(nodes.size());
  tables->byId.reserve(nodes.size());
  for (std::size_t k = 0; k < nodes.size(); ++k) tables->byIndex[nodes[k].node().i] = k;
  for (std::size_t k = 0; k < nodes.size(); ++k) tables->byId[idText(nodes[k].node())] = k;
  for (auto& n : nodes)
    if (auto parent = tables->byIndex.find(n.node().parent); parent != tables->byIndex.end())
      nodes[parent->second].children.push_back(n.node().i);
  nameRows(*tables);
  for (auto& n : nodes) {
    const auto& url = n.node().url;
    if (nonEmpty(url) && url->starts_with(internalPlayerOrigin)) {
      AxNode copy = n.node();
      copy.url = std::string(publicPlayerOrigin) + url->substr(internalPlayerOrigin.size());
      n.record = std::make_shared<const AxNode>(std::move(copy));
    }
  }
  tables->labels.reserve(nodes.size());
  for (const auto& n : nodes) tables->labels.push_back(labelOf(n.node()));
  return tables;
}

const GraphNode* AxGraph::byIndex(std::int64_t i) const {
  auto it = tables_->byIndex.find(i);
  return it == tables_->byIndex.end() ? nullptr : &tables_->nodes[it->second];
}

const GraphNode* AxGraph::byId(std::string_view id) const {
  auto it = tables_->byId.find(std::string(id));
  return it == tables_->byId.end() ? nullptr : &tables_->nodes[it->second];
}

std::vector<const GraphNode*> AxGraph::children(const GraphNode& node) const { return childrenIn(*tables_, node); }

Node AxGraph::handle(const GraphNode& node) const {
  return Node{static_cast<std::uint64_t>(&node - tables_->nodes.data())};
}

std::vector<Node> AxGraph::nodes(std::optional<std::string_view> label) const {
  const auto& nodes = tables_->nodes;
  std::vector<Node> out;
  const bool all = !label || *label == "Element";
  if (all) out.reserve(nodes.size());
  for (std::size_t k = 0; k < nodes.size(); ++k) {
    bool take = all || (*label == "Control" ? controlRoles().count(nodes[k].node().role.value_or("")) > 0
                                            : tables_->labels[k] == *label);
    if (take) out.push_back(Node{k});
  }
  return out;
}

std::vector<Node> AxGraph::neighbors(Node node, std::span<const std::string> types) const {
  const auto& n = graphNode(node);
  std::vector<Node> out;
  if (std::find(types.begin(), types.end(), "CHILD") != types.end())
    for (auto* child : children(n)) out.push_back(handle(*child));
  if (std::find(types.begin(), types.end(), "PARENT") != types.end())
    if (auto parent = byIndex(n.node().parent)) out.push_back(handle(*parent));
  return out;
}

std::optional<std::string> AxGraph::inverseType(std::string_view type) const {
  if (type == "CHILD") return "PARENT";
  if (type == "PARENT") return "CHILD";
  return std::nullopt;
}

std::string AxGraph::labelName(Node node) const { return tables_->labels[node.handle]; }

bool AxGraph::hasLabel(Node node, std::string_view label) const {
  if (label == "Element") return true;
  if (label == "Control") return controlRoles().count(graphNode(node).node().role.value_or("")) > 0;
  return tables_->labels[node.handle] == label;
}

ScalarValue AxGraph::property(Node node, std::string_view name) const {
  const AxNode& n = graphNode(node).node();
  if (name == "id") return idText(n);
  if (name == "role") return tables_->labels[node.handle];
  if (name == "subrole") return n.subrole ? ScalarValue(std::string(withoutAX(*n.subrole))) : ScalarValue();
  if (name == "name") return optionalText(nameOf(n));
  if (name == "title") return optionalText(n.title);
  if (name == "description") return optionalText(n.description);
  if (name == "value") return optionalText(n.value);
  if (name == "placeholder") return optionalText(n.placeholder);
  if (name == "identifier") return optionalText(n.identifier);
  if (name == "help") return optionalText(n.help);
  if (name == "shortcut") return optionalText(n.shortcut);
  if (name == "url") return optionalText(n.url);
  if (name == "details") return optionalText(n.details);
  if (name == "text") return optionalText(joinedText(n));
  if (name == "enabled") return n.enabled.value_or(true);
  if (name == "selected") return n.selected.value_or(false);
  if (name == "checked") return n.checked.value_or(false);
  if (name == "focused") return n.focused.value_or(false);
  if (name == "expanded") return n.expanded ? ScalarValue(*n.expanded) : ScalarValue();
  if (name == "depth") return ScalarValue(n.depth);
  if (n.frame) {
    if (name == "x") return n.frame->x;
    if (name == "y") return n.frame->y;
    if (name == "width") return n.frame->width;
    if (name == "height") return n.frame->height;
  }
  return ScalarValue();
}

Row AxGraph::rowObject(Node node) const {
  const AxNode& n = graphNode(node).node();
  Row row;
  row.set("_label", tables_->labels[node.handle]);
  row.set("id", idText(n));
  auto name = nameOf(n);
  if (name) row.set("name", *name);
  if (n.description && n.description != name) row.set("description", *n.description);
  for (auto [key, field] : {std::pair{"value", &n.value},
                            {"placeholder", &n.placeholder},
                            {"identifier", &n.identifier},
                            {"help", &n.help},
                            {"shortcut", &n.shortcut},
                            {"url", &n.url},
                            {"details", &n.details}})
    if (*field) row.set(key, **field);
  if (n.enabled == false) row.set("enabled", false);
  if (n.focused == true) row.set("focused", true);
  if (n.selected == true) row.set("selected", true);
  if (n.expanded) row.set("expanded", *n.expanded);
  if (n.checked == true) row.set("checked", true);
  return row;
}

std::int64_t AxGraph::identity(Node node) const { return graphNode(node).node().i; }

}  // namespace glimmerstrand::core
