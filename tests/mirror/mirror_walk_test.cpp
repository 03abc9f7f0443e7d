// Full walks of a simulated application, the building of nodes, and the
// splicing of subtrees.
#include <gtest/gtest.h>

#include "mirror/mirror_sim.h"

namespace glimmerstrand::native {
namespace {

using platform::AxValue;
using platform::sim::AppSpec;
using platform::sim::DesktopSpec;
using namespace native::testing;

// A walk of application 1 with the mirror's limits unless given others.
struct Walker : MirrorSim {
  explicit Walker(AppSpec app) : MirrorSim(DesktopSpec{{}, {std::move(app)}}) {}
  WalkResult walk(std::int64_t maxDepth = 64, std::int64_t maxNodes = 10000) {
    auto& ax = platform.accessibility();
    return walkTree(ax, ax.applicationElement(1), "window", maxDepth, maxNodes);
  }
};

std::int64_t countRole(const WalkResult& walk, const std::string& role) {
  return std::count_if(walk.nodes.begin(), walk.nodes.end(), [&](const auto& n) { return n.role == role; });
}

TEST(MirrorWalk, CleanTextTrimsDropsMarksAndCutsAtTheLimit) {
  const std::string decomposed = "e\u0301";  // one character, two code points
  std::string manyDecomposed;
  for (int i = 0; i < 121; ++i) manyDecomposed += decomposed;
  std::string cutDecomposed;
  for (int i = 0; i < 120; ++i) cutDecomposed += decomposed;
  struct Case {
    AxValue in;
    std::optional<std::string> out;
  };
  const Case cases[] = {
      {"  Play \n", "Play"},
      {"\u200E \u2066\u3000", std::nullopt},
      {0.5, "0.5"},
      {true, std::nullopt},
      {std::string(120, 'a'), std::string(120, 'a')},
      {std::string(121, 'a'), std::string(120, 'a') + "…"},
      {manyDecomposed, cutDecomposed + "…"},
  };
  for (const auto& c : cases) EXPECT_EQ(cleanText(c.in, 120), c.out);
}

TEST(MirrorWalk, ShortcutTextNamesModifiersInOrder) {
  struct Case {
    AxValue key, modifiers;
    std::optional<std::string> out;
  };
  const Case cases[] = {
      {"n", AxValue(), "cmd+n"}, {"Q", 8, "q"},     {"K", 7, "ctrl+alt+shift+cmd+k"},
      {" ", 0, std::nullopt},    {"Ä", 0, "cmd+ä"},
  };
  for (const auto& c : cases) EXPECT_EQ(shortcutText(c.key, c.modifiers), c.out);
}

TEST(MirrorWalk, NodesKeepOnlyWhatTheKeyTableAllows) {
  std::vector<AxValue> values(20);
  values[0] = "AXCheckBox";
  values[2] = platform::AxError::cannotComplete;
  values[7] = platform::AxPoint{1, 2};
  values[8] = platform::AxSize{0, 0};
  values[9] = false;
  values[10] = false;
  values[12] = true;
  values[13] = false;
  values[16] = "✓";
  values[17] = platform::AxUrl{"https://example.com/" + std::string(400, 'x')};
  auto node = buildNode(values);
  EXPECT_EQ(node.role, "AXCheckBox");
  EXPECT_FALSE(node.title);
  EXPECT_EQ(node.frame, (core::Rect{1, 2, 0, 0}));  // a zero size is kept
  EXPECT_EQ(node.enabled, false);
  EXPECT_FALSE(node.focused);  // only true is stored
  EXPECT_EQ(node.selected, true);
  EXPECT_EQ(node.expanded, false);
  EXPECT_EQ(node.checked, true);
  EXPECT_EQ(node.url->size(), 300u);
  EXPECT_FALSE(isLabeled(node));
}

// A window whose scroll area shows rows 89 to 135 of a list scrolled far up:
// clip (0, 100, 400, 300), band from -200 to 700, rows 20 high from y -2000.
AppSpec listApp(int rows, int framedFrom, int framedTo) {
  auto list = keyed("AXList", "list", 0, -2000, 400, rows * 20.0);
  for (int i = 0; i < rows; ++i) {
    auto row = element("AXRow").withFrame(0, -2000 + i * 20.0, 400, 20);
    if (i < framedFrom || i > framedTo) row.failing({"AXPosition"});
    list.child(row);
  }
  auto scroll = keyed("AXScrollArea", "scroll", 0, 100, 400, 300).child(list);
  return appWith(1, {keyed("AXWindow", "window", 0, 0, 400, 1000).child(scroll)});
}

TEST(MirrorWalk, LongListsAreCutToTheVisibleBand) {
  struct Case {
    const char* name;
    int rows;
    int framedFrom, framedTo;  // rows outside report no frame
    std::int64_t expectRows;
    std::optional<std::int64_t> expectOffscreen;
    int expectFirst;
  };
  for (const auto& c : {Case{"500 rows are read whole", 500, 0, 500, 500, std::nullopt, 0},
                        Case{"501 rows are cut", 501, 0, 501, 47, 454, 89},
                        Case{"rows without a frame are outside", 501, 100, 125, 26, 475, 100},
                        Case{"no frame at all leaves every row out", 501, 600, 600, 0, 501, 0}}) {
    SCOPED_TRACE(c.name);
    Walker walker(listApp(c.rows, c.framedFrom, c.framedTo));
    auto walk = walker.walk();
    EXPECT_EQ(countRole(walk, "AXRow"), c.expectRows);
    auto list = std::find_if(walk.nodes.begin(), walk.nodes.end(), [](auto& n) { return n.identifier == "list"; });
    ASSERT_NE(list, walk.nodes.end());
    EXPECT_EQ(list->offscreen, c.expectOffscreen);
    if (c.expectRows > 0) {
      EXPECT_EQ(walk.nodes[static_cast<std::size_t>(list->i + 1)].frame->y, -2000 + c.expectFirst * 20.0);
    }
    EXPECT_FALSE(walk.truncated);
  }
}

// A window that holds its own menu bar, as GTK, Qt and LibreOffice windows
// do: "File" closed, "Edit" open.
AppSpec windowWithMenuBar() {
  auto menu = [](const char* item) { return element("AXMenu").child(element("AXMenuItem").title(item)); };
  auto bar = element("AXMenuBar")
                 .child(element("AXMenuBarItem").title("File").child(menu("Quit")))
                 .child(element("AXMenuBarItem").title("Edit").attribute("AXSelected", true).child(menu("Copy")));
  return appWith(1, {keyed("AXWindow", "window", 0, 0, 400, 300).child(bar)});
}

TEST(MirrorWalk, AWindowHoldsTheItemsOfOpenMenusOnly) {
  struct Case {
    const char* scope;
    std::vector<std::string> expectItems;
  };
  for (const auto& c : {Case{"window", {"Copy"}}, Case{"app", {"Quit", "Copy"}}}) {
    SCOPED_TRACE(c.scope);
    Walker walker(windowWithMenuBar());
    auto& ax = walker.platform.accessibility();
    auto walk = walkTree(ax, ax.applicationElement(1), c.scope, 64, 10000);
    std::vector<std::string> items;
    for (const auto& node : walk.nodes)
      if (node.role == "AXMenuItem") items.push_back(node.title.value_or(""));
    EXPECT_EQ(items, c.expectItems);
    EXPECT_EQ(countRole(walk, "AXMenuBarItem"), 2);
  }
}

ElementSpec chain(int depth) {
  auto node = element("AXGroup").withFrame(0, 0, 10, 10);
  for (int i = 0; i < depth; ++i) node = element("AXGroup").withFrame(0, 0, 10, 10).child(node);
  return node;
}

TEST(MirrorWalk, TheBudgetAndTheDepthLimitCutTheWalk) {
  // A window with 9 children: 10 nodes.
  auto wide = keyed("AXWindow", "window", 0, 0, 100, 100);
  for (int i = 0; i < 9; ++i) wide.child(element("AXButton").title("b"));
  struct Case {
    std::int64_t maxNodes;
    std::size_t expectNodes;
    bool expectTruncated;
  };
  for (const auto& c : {Case{10, 10, false}, Case{9, 9, true}}) {
    Walker walker(appWith(1, {wide}));
    auto walk = walker.walk(64, c.maxNodes);
    EXPECT_EQ(walk.nodes.size(), c.expectNodes);
    EXPECT_EQ(walk.truncated, c.expectTruncated);
    EXPECT_EQ(walk.overBudget, c.expectTruncated);
  }
  // Depths 0 to 64 are read; a child below 64 is left out, and says so.
  for (const auto& [levels, expectTruncated] : {std::pair{63, false}, std::pair{70, true}}) {
    SCOPED_TRACE(levels);
    Walker deep(appWith(1, {element("AXWindow").withFrame(0, 0, 10, 10).child(chain(levels))}));
    auto walk = deep.walk();
    ASSERT_EQ(walk.nodes.size(), 65u);
    EXPECT_EQ(walk.nodes.back().depth, 64);
    EXPECT_EQ(walk.truncated, expectTruncated);
    EXPECT_FALSE(walk.overBudget);
  }
}

// Tells how deep in walks each batch hint came: a backend keeps what it read
// of a whole application only between a walk's start and its end.
class BracketWatch final : public platform::AccessibilityWrapper {
 public:
  using AccessibilityWrapper::AccessibilityWrapper;
  void walkStarted() override { ++depth, ++started; }
  void walkEnded() override { --depth; }
  void prefetch(const std::vector<Element>& elements, const std::vector<std::string>& names) override {
    if (depth < 1) ++outside;
    target_.prefetch(elements, names);
  }
  int depth = 0, started = 0, outside = 0;
};

TEST(MirrorWalk, EveryWalkIsBracketedAndEndsItsBracketHoweverItEnds) {
  auto wide = keyed("AXWindow", "window", 0, 0, 100, 100);
  for (int i = 0; i < 9; ++i) wide.child(element("AXButton").title("b"));
  auto withMenu = appWith(1, {wide});
  withMenu.menus.push_back(element("AXMenu").child(element("AXMenuItem").title("Copy")));
  struct Case {
    const char* what;
    AppSpec app;
    std::int64_t maxNodes;
    bool subtree;  // a walk of the window alone, as a partial walk makes
  };
  const Case cases[] = {
      {"a window and its context menu", withMenu, 10000, false},
      {"a walk cut by its budget", appWith(1, {wide}), 4, false},
      {"a subtree", appWith(1, {wide}), 10000, true},
      {"an application without windows", appWith(1, {}), 10000, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Walker walker(c.app);
    BracketWatch ax(walker.platform.accessibility());
    const Element app = ax.applicationElement(1);
    const auto walk = c.subtree ? walkElement(ax, rootElement(ax, app, "window"), 1, 64, c.maxNodes)
                                : walkTree(ax, app, "window", 64, c.maxNodes);
    EXPECT_FALSE(walk.nodes.empty());
    EXPECT_GE(ax.started, 1);
    EXPECT_EQ(ax.depth, 0);
    EXPECT_EQ(ax.outside, 0);
  }
}

TEST(MirrorWalk, ColumnsAreLeavesAndGoneChildrenAreCounted) {
  auto window = keyed("AXWindow", "window", 0, 0, 100, 100)
                    .child(element("AXColumn").child(element("AXCell")))
                    .child(element("AXButton").markGone().child(element("AXStaticText")))
                    .child(element("AXRow").child(element("AXCell")));
  Walker walker(appWith(1, {window}));
  auto walk = walker.walk();
  EXPECT_EQ(countRole(walk, "AXColumn"), 1);
  EXPECT_EQ(countRole(walk, "AXCell"), 1);  // the row's, not the column's
  EXPECT_EQ(countRole(walk, "AXStaticText"), 0);
  EXPECT_EQ(walk.incomplete, 1);
}

TEST(MirrorWalk, ContextMenusFollowTheWindowAsRootsAndNoWindowMeansTheApplicationElement) {
  {
    auto app = appWith(1, {keyed("AXWindow", "window", 0, 0, 100, 100).child(element("AXButton").title("b"))});
    app.menus.push_back(element("AXMenu").child(element("AXMenuItem").title("Copy")).child(element("AXMenuItem")));
    Walker walker(app);
    auto walk = walker.walk();
    ASSERT_EQ(walk.nodes.size(), 5u);
    EXPECT_EQ(walk.nodes[2].role, "AXMenu");
    EXPECT_EQ(walk.nodes[2].parent, -1);
    EXPECT_EQ(walk.nodes[2].depth, 0);
    EXPECT_EQ(walk.nodes[3].parent, 2);
    EXPECT_TRUE(consistent(walk.nodes));
  }
  Walker bare(appWith(1, {}));  // one driven clock at a time
  auto walk = bare.walk();
  ASSERT_FALSE(walk.nodes.empty());
  EXPECT_EQ(walk.nodes[0].role, "AXApplication");
}

TEST(MirrorWalk, SubtreesAreRangesThatSpliceAndRenumber) {
  auto at = [](std::int64_t i, std::int64_t parent, std::int64_t depth) {
    core::AxNode node;
    node.i = i;
    node.parent = parent;
    node.depth = depth;
    return node;
  };
  std::vector<core::AxNode> nodes;
  for (std::int64_t depth : {0, 1, 2, 2, 1, 2}) nodes.push_back(at(0, -1, depth));
  // 2 lies inside 1's range; 9 and -1 lie outside the copy.
  auto ranges = subtreeRanges(nodes, {4, 1, 2, 9, -1});
  EXPECT_EQ(ranges, (std::vector<SubtreeRange>{{1, 4}, {4, 6}}));

  std::vector<Element> elements(nodes.size());
  WalkResult replacement;
  replacement.nodes = {at(0, -1, 1), at(1, 0, 2)};
  replacement.elements.resize(2);
  auto spliced = spliceSubtrees(nodes, elements, {{4, 6}}, {replacement});
  ASSERT_EQ(spliced.nodes.size(), 6u);
  renumberNodes(spliced.nodes);
  std::vector<std::int64_t> parents;
  for (const auto& node : spliced.nodes) parents.push_back(node.parent);
  EXPECT_EQ(parents, (std::vector<std::int64_t>{-1, 0, 1, 1, 0, 4}));
  EXPECT_TRUE(consistent(spliced.nodes));
}

}  // namespace
}  // namespace glimmerstrand::native
