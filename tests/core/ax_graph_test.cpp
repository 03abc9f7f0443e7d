#include "core/ax_graph.h"

#include <gtest/gtest.h>

#include "cypher/parser.h"
#include "cypher/projection.h"
#include "fake_driver.h"

namespace glimmerstrand::core {
namespace {

using testing::node;

AxSnapshot snapshotOf(std::vector<AxNode> nodes) {
  AxSnapshot s;
  s.app = AppInfo{7, "b", "App"};
  s.pid = 7;
  s.nodes = NodeList(std::move(nodes));
  return s;
}

std::string rowsOf(const AxGraph& graph, const std::string& query) {
  auto statement = cypher::parseStatement(query);
  std::string out;
  for (const auto& row : cypher::executeQuery(*statement.asRead(), graph)) out += jsonText(jsonValue(row)) + "\n";
  return out;
}

TEST(AxGraphIds, UidOrIndexAndMenuOffset) {
  AxNode noUid = node(3, -1, "AXWindow");
  noUid.uid.reset();
  std::vector<AxNode> nodes{noUid};
  for (int k = 1; k < 10; ++k) nodes.push_back(node(k + 10, 3, "AXButton"));
  AxNode menuRoot = node(0, -1, "AXMenuBar");
  menuRoot.uid.reset();
  AxNode menuItem = node(1, 0, "AXMenuBarItem", "File");
  menuItem.uid = 7;
  AxGraph graph(snapshotOf(nodes), {menuRoot, menuItem});
  EXPECT_EQ(idText(graph.nodes()[0].node()), "e3");
  EXPECT_EQ(idText(graph.nodes()[1].node()), "e111");
  ASSERT_NE(graph.byId("m10"), nullptr) << "a menu node without uid takes its shifted index";
  EXPECT_EQ(graph.byId("m10")->node().parent, -1);
  EXPECT_EQ(graph.byId("m7")->node().parent, 10);
  EXPECT_EQ(labelOf(graph.byId("m7")->node()), "AppMenuBarItem");
  EXPECT_EQ(graph.children(*graph.byId("m10")).size(), 1u);
  EXPECT_EQ(graph.snapshot().nodes.size(), 10u) << "the snapshot keeps only its own nodes";
}

TEST(AxGraphTables, OnlyTheVeryNodeListAndItsMenusShareTables) {
  const std::vector<AxNode> nodes{node(0, -1, "AXWindow", "Mail"), node(1, 0, "AXButton", "Send")};
  const std::vector<AxNode> menus{node(0, -1, "AXMenuBar")};
  const AxSnapshot first = snapshotOf(nodes);
  const AxGraph earlier(first, menus);

  AxSnapshot later = first;  // the same list, newer figures
  later.dirty = true;
  later.notifications = 42;
  AxSnapshot copied = first;  // equal nodes, but read anew
  copied.nodes = NodeList(nodes);
  AxSnapshot otherProcess = first;
  otherProcess.pid = 8;
  struct Case {
    const char* what;
    const AxSnapshot& snapshot;
    std::vector<AxNode> menus;
    bool same;
  };
  for (const auto& c :
       {Case{"same list and menus", later, menus, true}, Case{"equal nodes in another list", copied, menus, false},
        Case{"other menus", later, {}, false}, Case{"another process", otherProcess, menus, false}})
    EXPECT_EQ(earlier.holdsSameNodes(c.snapshot, c.menus), c.same) << c.what;

  const AxGraph reused(later, earlier);
  EXPECT_EQ(&reused.nodes(), &earlier.nodes());
  EXPECT_TRUE(reused.snapshot().dirty) << "the figures are the newer snapshot's";
  EXPECT_EQ(reused.snapshot().notifications, 42);
  EXPECT_EQ(rowsOf(reused, "MATCH (b:Button) RETURN b.name"), rowsOf(earlier, "MATCH (b:Button) RETURN b.name"));
}

TEST(AxGraphRows, RowsTakeTextFromUpToThreeLevelsDown) {
  auto deep = [](int levels) {
    std::vector<AxNode> nodes{node(0, -1, "AXTable"), node(1, 0, "AXRow")};
    for (int k = 0; k < levels - 1; ++k) nodes.push_back(node(2 + k, 1 + k, "AXGroup"));
    AxNode text = node(1 + levels, levels, "AXStaticText", std::nullopt, "Inbox");
    nodes.push_back(text);
    return AxGraph(snapshotOf(nodes), {});
  };
  auto near = deep(2);
  EXPECT_EQ(nameOf(near.byId("e101")->node()), "Inbox");
  EXPECT_EQ(rowLine(near.byId("e101")->node()), "e101 Row \"Inbox\"");
  auto far = deep(4);
  EXPECT_EQ(nameOf(far.byId("e101")->node()), std::nullopt);
}

TEST(AxGraphRowLine, Examples) {
  AxNode close = node(5, -1, "AXButton");
  close.uid.reset();
  close.subrole = "AXCloseButton";
  AxNode item = node(3, -1, "AXMenuItem", "Copy");
  item.menu = true;
  item.enabled = false;
  item.uid.reset();
  AxNode unknownRole = node(2, -1, "AXGroup");
  unknownRole.role.reset();
  const std::pair<AxNode, std::string> cases[] = {
      {close, "e5 Button (CloseButton)"},
      {item, R"(m3 AppMenuItem "Copy" disabled)"},
      {unknownRole, "e102 Unknown"},
  };
  for (const auto& [n, line] : cases) EXPECT_EQ(rowLine(n), line);
}

TEST(AxGraphQueries, LabelsPropertiesAndRowObjects) {
  AxNode window = node(0, -1, "AXWindow", "Main");
  AxNode button = node(1, 0, "AXButton");
  button.description = "Play";
  button.frame = Rect{10, 20, 30, 40};
  AxNode bare = node(2, 0, "AXGroup");
  bare.role.reset();
  AxNode link = node(3, 0, "AXLink", "Song");
  link.url = "https://xpui.app.spotify.com/track/1";
  AxGraph graph(snapshotOf({window, button, bare, link}), {});
  EXPECT_EQ(rowsOf(graph, "MATCH (b:Button) RETURN b"), R"({"b":{"_label":"Button","id":"e101","name":"Play"}})"
                                                        "\n");
  EXPECT_EQ(rowsOf(graph, "MATCH (n:Unknown) RETURN n.id, n.x, n.enabled, n.expanded"),
            R"({"n.id":"e102","n.x":null,"n.enabled":true,"n.expanded":null})"
            "\n");
  EXPECT_EQ(rowsOf(graph, "MATCH (w:Window)-[:CHILD]->(c:Control) RETURN c.id, c.x, c.text"),
            R"({"c.id":"e101","c.x":10,"c.text":"Play"})"
            "\n"
            R"({"c.id":"e103","c.x":null,"c.text":"Song"})"
            "\n");
  EXPECT_EQ(rowsOf(graph, "MATCH (l:Link) RETURN l.url"), R"({"l.url":"https://open.spotify.com/track/1"})"
                                                          "\n");
}

}  // namespace
}  // namespace glimmerstrand::core
