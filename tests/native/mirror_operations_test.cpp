// The mirror's line operations, called as the line host calls them, on the
// demo desktop and a driven clock.
#include <gtest/gtest.h>

#include "action_sim.h"
#include "platform/sim/demo_apps.h"

namespace glimmerstrand::native {
namespace {

using core::JSONValue;
using platform::sim::demoCalculatorPid;

// Every operation is registered; these tests call the mirror's.
struct Operations : testing::ActionSim {
  Operations() : ActionSim(platform::sim::demoDesktop()) {}
};

TEST(MirrorOperations, AxSnapshotIfGenerationDropsNodesOrGivesTheCachedOnes) {
  Operations ops;
  auto full = ops.call("axSnapshot", {{"name", "calculator"}});
  EXPECT_EQ(core::optionalInt(full, "pid"), demoCalculatorPid);
  EXPECT_EQ(core::optionalString(*full.find("app"), "name"), "Calculator");
  auto same = ops.call("axSnapshot", {{"ifGeneration", *core::optionalInt(full, "generation")}});
  EXPECT_FALSE(same.find("nodes"));
  auto older = ops.call("axSnapshot", {{"ifGeneration", *core::optionalInt(full, "generation") - 1}});
  EXPECT_EQ(*older.find("nodes"), *full.find("nodes"));  // the cached text, the same nodes
}

TEST(MirrorOperations, CounterSettleAndRefreshFollowTheSameMirror) {
  Operations ops;
  ops.call("axSnapshot");
  auto counter = ops.call("axCounter", {{"pid", demoCalculatorPid}});
  EXPECT_EQ(core::optionalInt(counter, "notifications"), 0);
  ops.platform.desktop().perform(demoCalculatorPid, "seven", "AXPress");
  auto settle = ops.call("waitSettle", {{"pid", demoCalculatorPid}, {"since", 0}});
  EXPECT_EQ(core::optionalBool(settle, "changed"), true);
  EXPECT_EQ(core::optionalBool(settle, "settled"), true);
  EXPECT_EQ(core::optionalInt(settle, "notifications"), 1);
  EXPECT_EQ(core::optionalInt(ops.call("axRefresh", {{"pid", demoCalculatorPid}}), "pid"), demoCalculatorPid);
}

TEST(MirrorOperations, AxTreeWalksWithoutAMirrorAndHonoursItsLimits) {
  Operations ops;
  auto tree = ops.call("axTree", {{"pid", platform::sim::demoListPid}, {"maxNodes", 10}});
  EXPECT_EQ(tree.find("nodes")->asArray()->size(), 10u);
  EXPECT_EQ(core::optionalBool(tree, "truncated"), true);
  for (const auto& node : *tree.find("nodes")->asArray()) EXPECT_FALSE(node.find("uid"));
  EXPECT_FALSE(ops.host.mirrors().existing(platform::sim::demoListPid));
  auto bar = ops.call("axTree", {{"name", "Calculator"}, {"scope", "menubar"}});
  EXPECT_EQ(core::optionalString(bar.find("nodes")->asArray()->front(), "role"), "AXMenuBar");
}

TEST(MirrorOperations, ElementAtNamesTheApplicationAndRoleUnderAPoint) {
  Operations ops;
  auto hit = ops.call("elementAt", {{"x", 120}, {"y", 170}});
  EXPECT_EQ(core::optionalInt(hit, "pid"), demoCalculatorPid);
  EXPECT_EQ(core::optionalString(hit, "role"), "AXButton");
  EXPECT_TRUE(ops.host.mirrors().existing(demoCalculatorPid));
  EXPECT_EQ(core::optionalString(ops.call("frontmost"), "name"), "Calculator");
}

TEST(MirrorOperations, FailuresCarryTheirCodeAndMessage) {
  Operations ops;
  EXPECT_EQ(ops.failed("elementAt", {{"x", 1}, {"y", 1}}), "not_found: その位置に要素がありません");
  EXPECT_EQ(ops.failed("waitSettle", {{"pid", demoCalculatorPid}}), "invalid_argument: 写しのある pid が必要です");
  EXPECT_EQ(ops.failed("axSnapshot", {{"name", "Nothing"}}), "not_found: アプリが見つかりません");
  ops.platform.desktop().setTrusted(false);
  for (auto name : {"axSnapshot", "axTree", "axRefresh", "axCounter", "elementAt"})
    EXPECT_EQ(ops.failed(name, {{"x", 1}, {"y", 1}}), "permission: " + permissionMessage()) << name;
}

TEST(MirrorOperations, WithoutAPlatformEveryOperationSaysWhy) {
  MirrorHost host(nullptr, "no platform here");
  OperationTable table;
  addMirrorOperations(table, host);
  for (auto name : {"axTree", "axSnapshot", "axRefresh", "axCounter", "waitSettle", "elementAt", "frontmost"}) {
    try {
      (*table.find(name))(JSONValue::Object{{"pid", 1}, {"x", 1}, {"y", 1}});
      ADD_FAILURE() << name;
    } catch (const core::GlimmerstrandError& e) {
      EXPECT_EQ(e.code(), "no_desktop") << name;
      EXPECT_EQ(e.message(), "no platform here");
    }
  }
}

TEST(MirrorOperations, ADesktopThatComesLaterServesTheNextOperation) {
  platform::sim::DrivenClock clock;
  platform::sim::SimPlatform desktop(platform::sim::demoDesktop(), clock, clock.mainLoop());
  bool arrived = false;
  int looks = 0;
  MirrorHost host([&](std::string& problem) -> platform::Platform* {
    ++looks;
    problem = "no desktop yet";
    return arrived ? &desktop : nullptr;
  });
  host.startObserving();  // asked before there is anything to watch
  OperationTable table;
  addMirrorOperations(table, host);
  const auto frontmost = [&] { return (*table.find("frontmost"))(JSONValue::Object{}); };
  try {
    frontmost();
    ADD_FAILURE() << "no failure without a desktop";
  } catch (const core::GlimmerstrandError& e) {
    EXPECT_EQ(e.code() + ": " + e.message(), "no_desktop: no desktop yet");
  }

  arrived = true;
  EXPECT_EQ(core::optionalString(std::get<JSONValue>(frontmost()), "name"), "Calculator");
  EXPECT_TRUE(host.mirrors().existing(demoCalculatorPid)) << "the watch asked for before starts with the desktop";
  const int looksWhenFound = looks;
  frontmost();
  EXPECT_EQ(looks, looksWhenFound) << "a desktop found is kept";
  clock.runUntilIdle();
}

}  // namespace
}  // namespace glimmerstrand::native
