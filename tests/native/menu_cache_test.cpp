// The menu cache: walks, ages, identities that survive, eviction, and menu
// items pressed by their m-ids.
#include "mirror/menu_cache.h"

#include <gtest/gtest.h>

#include <map>

#include "action_sim.h"

namespace glimmerstrand::native::testing {
namespace {

using platform::sim::appendEffect;

ElementSpec menuBar() {
  auto edit = keyed("AXMenu", "editMenu");
  edit.child(keyed("AXMenuItem", "clear").title("Clear").pressDoes({appendEffect("status", "cleared")}));
  edit.child(keyed("AXMenuItem", "copy").title("Copy").withActions({"AXPress"}));
  return keyed("AXMenuBar", "bar").child(keyed("AXMenuBarItem", "edit").title("Edit").child(edit));
}

platform::sim::DesktopSpec desktop(int apps) {
  platform::sim::DesktopSpec spec;
  for (int n = 0; n < apps; ++n) {
    auto app = appWith(501 + n, "app" + std::to_string(n),
                       {keyed("AXWindow", "window").child(keyed("AXStaticText", "status").value(""))});
    app.menuBar = menuBar();
    spec.apps.push_back(app);
  }
  return spec;
}

std::map<std::string, std::int64_t> menuUids(const JSONValue& menus) {
  std::map<std::string, std::int64_t> uids;
  for (const auto& node : *menus.find("nodes")->asArray())
    if (auto identifier = core::optionalString(node, "identifier")) uids[*identifier] = *core::optionalInt(node, "uid");
  return uids;
}

TEST(AxMenus, AnEntryYoungerThanMaxAgeIsNotWalkedAgainAndItemsArePressedByUid) {
  ActionSim sim(desktop(1));
  auto first = sim.call("axMenus", {{"pid", 501}});
  EXPECT_EQ(core::jsonText(*first.find("app")), R"({"pid":501,"bundleId":"com.example.app0","name":"app0"})");
  sim.desktop().addElements(501, "editMenu", {keyed("AXMenuItem", "paste").title("Paste")});
  sim.clock.advance(1000 * ms);
  auto second = sim.call("axMenus", {{"pid", 501}});
  EXPECT_NEAR(*core::optionalNumber(second, "ageMs"), 1000, 0.01);
  EXPECT_EQ(menuUids(second), menuUids(first));  // the new item is not seen yet

  auto third = sim.call("axMenus", {{"pid", 501}, {"maxAgeMs", -5}});
  EXPECT_NEAR(*core::optionalNumber(third, "ageMs"), 0, 0.01);  // walked now
  auto before = menuUids(first), after = menuUids(third);
  ASSERT_TRUE(after.count("paste"));
  for (const auto& [identifier, uid] : before) EXPECT_EQ(after[identifier], uid) << identifier;

  // An item is pressed by its uid.
  EXPECT_EQ(core::optionalBool(sim.call("press", {{"pid", 501}, {"uid", after["clear"]}, {"menu", true}}), "completed"),
            true);
  EXPECT_EQ(sim.text(501, "status"), "cleared");
}

TEST(AxMenus, ASeventhApplicationEvictsTheOldestEntry) {
  ActionSim sim(desktop(7));
  std::int64_t firstClear = 0;
  for (int n = 0; n < 7; ++n) {
    auto uids = menuUids(sim.call("axMenus", {{"pid", 501 + n}}));
    if (n == 0) firstClear = uids["clear"];
    sim.clock.advance(10 * ms);
  }
  EXPECT_EQ(sim.failed("press", {{"pid", 501}, {"uid", firstClear}, {"menu", true}}),
            "stale: メニューの項目 m" + std::to_string(firstClear) + " は、最新のメニューの写しにありません");
}

TEST(AxMenus, AMenuReferenceWithoutAnEntryIsStaleButMakesTheMirror) {
  ActionSim sim(desktop(1));
  EXPECT_EQ(sim.failure("press", {{"pid", 501}, {"uid", 1}, {"menu", true}}).code(), "stale");
  EXPECT_TRUE(sim.host.mirrors().existing(501));
}

}  // namespace
}  // namespace glimmerstrand::native::testing
