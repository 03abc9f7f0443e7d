// The shape of a tree as an application's cache tells it, without a desktop:
// which children the items give, and what a read-ahead takes from them.
#include <gtest/gtest.h>

#include <atspi/atspi-constants.h>

#include "platform/linux/atspi_reader.h"

namespace glimmerstrand::platform::linux_desktop {
namespace {

const std::string bus = ":1.7";

CachedItem item(std::string parent, std::int32_t index, std::int32_t childCount,
                std::uint32_t role = ATSPI_ROLE_PANEL) {
  CachedItem c;
  c.parent = std::move(parent);
  c.indexInParent = index;
  c.childCount = childCount;
  c.role = role;
  return c;
}

std::vector<std::string> paths(const std::vector<ObjectRef>& refs) {
  std::vector<std::string> out;
  for (const auto& ref : refs) {
    EXPECT_EQ(ref.bus, bus);
    out.push_back(ref.path);
  }
  return out;
}

TEST(AtspiCache, ChildrenAreToldOnlyWhereTheItemsFillEveryPlace) {
  struct Case {
    const char* what;
    CachedItems items;
    std::string parent;
    std::optional<std::vector<std::string>> expect;  // none: the cache does not tell
  };
  const Case cases[] = {
      {"children stand in the order of their indices",
       {{"/p", item("", -1, 3)}, {"/c", item("/p", 2, 0)}, {"/a", item("/p", 0, 0)}, {"/b", item("/p", 1, 0)}},
       "/p",
       std::vector<std::string>{"/a", "/b", "/c"}},
      {"a place left empty: the rows a list manages are not among the items",
       {{"/p", item("", -1, 3)}, {"/a", item("/p", 0, 0)}, {"/c", item("/p", 2, 0)}},
       "/p",
       std::nullopt},
      {"a place taken twice",
       {{"/p", item("", -1, 2)}, {"/a", item("/p", 0, 0)}, {"/b", item("/p", 0, 0)}},
       "/p",
       std::nullopt},
      {"an index beyond the count",
       {{"/p", item("", -1, 1)}, {"/a", item("/p", 0, 0)}, {"/b", item("/p", 1, 0)}},
       "/p",
       std::nullopt},
      {"an item that tells no index", {{"/p", item("", -1, 1)}, {"/a", item("/p", -1, 0)}}, "/p", std::nullopt},
      {"a count of none is a leaf", {{"/p", item("", -1, 0)}}, "/p", std::vector<std::string>{}},
      {"an unknown count tells nothing", {{"/p", item("", -1, -1)}, {"/a", item("/p", 0, 0)}}, "/p", std::nullopt},
      {"a parent that is not among the items", {{"/a", item("/gone", 0, 0)}}, "/gone", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const CachedTree tree = cachedTree(bus, c.items);
    EXPECT_EQ(tree.items.size(), c.items.size());
    auto found = tree.children.find(c.parent);
    if (!c.expect) {
      EXPECT_EQ(found, tree.children.end());
      continue;
    }
    ASSERT_NE(found, tree.children.end());
    EXPECT_EQ(paths(found->second), *c.expect);
  }
}

// /root has /a and /b; /a has /a1 and /a2, /a2 has /deep; /b is a closed
// menu with /b1; /m's children are not among the items.
CachedTree sample() {
  return cachedTree(bus, {{"/root", item("", -1, 3)},
                          {"/a", item("/root", 0, 2)},
                          {"/b", item("/root", 1, 1, ATSPI_ROLE_MENU)},
                          {"/m", item("/root", 2, 2)},
                          {"/a1", item("/a", 0, 0)},
                          {"/a2", item("/a", 1, 1)},
                          {"/deep", item("/a2", 0, 0)},
                          {"/b1", item("/b", 0, 0)}});
}

TEST(AtspiCache, DescendantsAreBreadthFirstWithinBudgetLevelsAndTheRule) {
  const auto all = [](const CachedItem&) { return true; };
  const auto noMenus = [](const CachedItem& c) { return c.role != ATSPI_ROLE_MENU; };
  struct Case {
    const char* what;
    std::vector<std::string> roots;
    std::size_t budget, levels;
    std::function<bool(const CachedItem&)> enters;
    std::vector<std::string> expect;
  };
  const Case cases[] = {
      {"everything the items tell, level by level",
       {"/root"},
       100,
       64,
       all,
       {"/a", "/b", "/m", "/a1", "/a2", "/b1", "/deep"}},
      {"not below what the rule leaves", {"/root"}, 100, 64, noMenus, {"/a", "/b", "/m", "/a1", "/a2", "/deep"}},
      {"no deeper than the levels", {"/root"}, 100, 2, all, {"/a", "/b", "/m", "/a1", "/a2", "/b1"}},
      {"no more than the budget", {"/root"}, 4, 64, all, {"/a", "/b", "/m", "/a1"}},
      {"several roots, each below its own", {"/a2", "/b"}, 100, 64, all, {"/deep", "/b1"}},
      {"a root the items do not know has nothing below", {"/elsewhere"}, 100, 64, all, {}},
      {"nor has one whose children they leave out", {"/m"}, 100, 64, all, {}},
  };
  const CachedTree tree = sample();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<ObjectRef> roots;
    for (const auto& root : c.roots) roots.push_back(ObjectRef{bus, root});
    EXPECT_EQ(paths(cachedDescendants(tree, roots, c.budget, c.levels, c.enters)), c.expect);
  }
}

}  // namespace
}  // namespace glimmerstrand::platform::linux_desktop
