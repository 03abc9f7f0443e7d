#include "core/change_report.h"

#include <gtest/gtest.h>

#include "fake_driver.h"

namespace glimmerstrand::core {
namespace {

using testing::node;
using Lines = std::vector<std::string>;

AxNode with(AxNode n, std::function<void(AxNode&)> change) {
  change(n);
  return n;
}

struct ChangeCase {
  const char* name;
  std::vector<AxNode> before, after;
  Lines expected;
};

TEST(ChangeLines, Table) {
  const AxNode window = node(0, -1, "AXWindow", "Main");
  const AxNode play = node(1, 0, "AXButton", "Play");
  const AxNode field = node(2, 0, "AXTextField", "To", "a");
  const AxNode row = node(3, 0, "AXRow", "Inbox", "3");
  // A dialog as a sheet of the window, its elements one level further down.
  const AxNode sheet = with(node(11, 0, "AXSheet", "Save As"), [](AxNode& n) { n.depth = 1; });
  const AxNode sheetField = with(node(12, 11, "AXTextField", "Name"), [](AxNode& n) { n.depth = 2; });
  const AxNode sheetSave = with(node(13, 11, "AXButton", "Save"), [](AxNode& n) { n.depth = 2; });
  const AxNode menuBar = with(node(21, 0, "AXMenuBar"), [](AxNode& n) { n.depth = 1; });
  const AxNode editMenu = with(node(22, 21, "AXMenuBarItem", "Edit"), [](AxNode& n) { n.depth = 2; });
  const AxNode undo = with(node(23, 22, "AXMenuItem", "Undo"), [](AxNode& n) { n.depth = 3; });
  const ChangeCase cases[] = {
      {"renamed",
       {window, play},
       {window, with(play, [](AxNode& n) { n.title = "Pause"; })},
       {R"(~ e101 Button "Pause" (was "Play"))"}},
      {"value changed",
       {window, field},
       {window, with(field, [](AxNode& n) { n.value = "b"; })},
       {R"(~ e102 TextField "To" = "b" (was "a"))"}},
      {"gained focus",
       {window, play},
       {window, with(play, [](AxNode& n) { n.focused = true; })},
       {R"(~ e101 Button "Play" focused)"}},
      {"re-created with the same value", {window, row}, {window, with(row, [](AxNode& n) { n.uid = 900; })}, {}},
      {"re-created with a new value",
       {window, row},
       {window, with(row, [](AxNode& n) { n.uid = 900, n.value = "4"; })},
       {R"(~ e900 Row "Inbox" = "4" (was "3"))"}},
      {"two new rows for one removed",
       {window, row},
       {window, with(row, [](AxNode& n) { n.uid = 900; }), with(row, [](AxNode& n) { n.uid = 901, n.i = 4; })},
       {R"(+ e901 Row "Inbox" = "3")"}},
      {"new group without text", {window}, {window, node(5, 0, "AXGroup")}, {}},
      {"added and removed",
       {window, play},
       {window, node(6, 0, "AXButton", "Next")},
       {R"(+ e106 Button "Next")", R"(- Button "Play")"}},
      {"window replaced",
       {window, play},
       {node(9, -1, "AXWindow", "Settings"), node(10, 9, "AXButton", "OK")},
       {R"(- Window "Main" closed (2 elements))", R"(+ e109 Window "Settings" (2 elements))"}},
      {"sheet opened",
       {window, play},
       {window, play, sheet, sheetField, sheetSave},
       {R"(+ e111 Sheet "Save As" (3 elements))"}},
      {"sheet closed",
       {window, play, sheet, sheetField, sheetSave},
       {window, play},
       {R"(- Sheet "Save As" closed (3 elements))"}},
      {"sheet closed as the window changed",
       {window, play, sheet, sheetField, sheetSave},
       {window, with(play, [](AxNode& n) { n.title = "Pause"; })},
       {R"(~ e101 Button "Pause" (was "Play"))", R"(- Sheet "Save As" closed (3 elements))"}},
      {"items of a closed menu of the menu bar",
       {window, menuBar, editMenu, undo},
       {window, menuBar, with(editMenu, [](AxNode& n) { n.selected = false; }),
        with(undo, [](AxNode& n) { n.enabled = false; }),
        with(node(24, 22, "AXMenuItem", "Revert"), [](AxNode& n) { n.depth = 3; })},
       {}},
      {"a menu that opens",
       {window, menuBar, editMenu, undo},
       {window, menuBar, with(editMenu, [](AxNode& n) { n.selected = true; }), undo},
       {R"(~ e122 MenuBarItem "Edit" selected)"}},
      {"items of an open one",
       {window, menuBar, with(editMenu, [](AxNode& n) { n.selected = true; }), undo},
       {window, menuBar, with(editMenu, [](AxNode& n) { n.selected = true; }),
        with(undo, [](AxNode& n) { n.enabled = false; })},
       {R"(~ e123 MenuItem "Undo" disabled)"}},
      {"field inside a sheet that stays",
       {window, sheet, sheetField},
       {window, sheet, with(sheetField, [](AxNode& n) { n.value = "note.txt"; })},
       {R"(~ e112 TextField "Name" = "note.txt" (was null))"}},
  };
  for (const auto& c : cases) EXPECT_EQ(changeLines(NodeList(c.before), NodeList(c.after), 30), c.expected) << c.name;
}

std::vector<AxNode> buttons(int count, const char* prefix) {
  std::vector<AxNode> nodes{node(0, -1, "AXWindow", "Main")};
  for (int k = 1; k <= count; ++k) nodes.push_back(node(k, 0, "AXButton", prefix + std::to_string(k)));
  return nodes;
}

TEST(ChangeLines, OverflowAfterTheLimit) {
  auto before = buttons(31, "a"), after = buttons(31, "b");
  auto lines = changeLines(NodeList(before), NodeList(after), 30);
  ASSERT_EQ(lines.size(), 31u);
  EXPECT_EQ(lines.back(), "… 1 more changes");
  before.pop_back(), after.pop_back();
  EXPECT_EQ(changeLines(NodeList(before), NodeList(after), 30).size(), 30u);
}

Outline outlineOf(std::vector<AxNode> nodes, const char* rootId = nullptr, std::size_t max = 80) {
  AxSnapshot s;
  s.pid = 1;
  s.nodes = NodeList(std::move(nodes));
  AxGraph graph(s, {});
  return outlineLines(graph, rootId ? graph.byId(rootId) : nullptr, max);
}

TEST(Outline, HidesRepeatsAndBareGroupsAndCutsChildren) {
  std::vector<AxNode> nodes{node(0, -1, "AXWindow", "Main"), node(1, 0, "AXGroup"), node(2, 1, "AXButton", "Play"),
                            node(3, 2, "AXStaticText", std::nullopt, "Pl"), node(4, 1, "AXLink")};
  nodes[4].url = "https://example.com/";
  nodes[0].offscreen = 12;
  EXPECT_EQ(outlineOf(nodes).lines,
            (Lines{R"(e100 Window "Main")", R"(  e102 Button "Play")", R"(  e104 Link -> https://example.com/)",
                   "  … 12 more items off screen; ui.scroll to reach them"}));
  auto many = buttons(7, "b");
  many[0].uid = 12;
  EXPECT_EQ(outlineOf(many).lines.back(), R"(  … 1 more items; ui.tree("e12"))");
  EXPECT_EQ(outlineOf(many, "e12").lines.size(), 8u) << "an explicit root shows all its children";
}

TEST(ChangedPart, DeepestNodeWithSeventyPercentOfTheNewNodes) {
  std::vector<AxNode> nodes{node(0, -1, "AXWindow"), node(1, 0, "AXGroup"), node(2, 1, "AXList"),
                            node(3, 2, "AXRow"),     node(4, 2, "AXRow"),   node(5, 0, "AXButton")};
  AxSnapshot s;
  s.nodes = NodeList(nodes);
  AxGraph graph(s, {});
  EXPECT_EQ(changedPart(graph, {"e103", "e104"}), graph.byId("e102"));
  EXPECT_EQ(changedPart(graph, {"e103", "e104", "e105"}), graph.byId("e100")) << "2 of 3 is under the share";
  EXPECT_EQ(changedPart(graph, {}), nullptr);
}

}  // namespace
}  // namespace glimmerstrand::core
