// The driver's snapshots on the simulated desktop: cached per selector, and
// read again in full when the cache speaks of another application.
#include "native/in_process_driver.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "action_sim.h"
#include "core/errors.h"

namespace glimmerstrand::native::testing {
namespace {

// The selector without an application names whichever is in front: after the
// front changes, a cached copy of the same generation belongs to the other
// application and must not stand in for this one.
TEST(InProcessDriver, TheFrontApplicationsCopyIsReadAgainWhenTheFrontChanges) {
  auto first = appWith(600, "First", {keyed("AXWindow", "one").title("One").withFrame(0, 0, 300, 200)});
  first.frontmost = true;
  auto second = appWith(601, "Second", {keyed("AXWindow", "two").title("Two").withFrame(0, 0, 300, 200)});
  ActionSim sim(platform::sim::DesktopSpec{{}, {first, second}});
  Queues queues;
  InProcessDriver driver(queues, sim.host, sim.capturer, nullptr);
  sim.host.mirrors().mirror(600);
  sim.host.mirrors().mirror(601);
  sim.clock.runUntilIdle();

  const core::SnapshotOptions front{};
  auto before = driver.axSnapshot(front);
  ASSERT_EQ(before.pid, 600);
  sim.call("activate", {{"pid", 601}});
  sim.clock.runUntilIdle();
  auto after = driver.axSnapshot(front);
  EXPECT_EQ(after.pid, 601);
  ASSERT_EQ(after.generation, before.generation) << "the case needs copies of the same generation";
  ASSERT_FALSE(after.nodes.empty());
  EXPECT_EQ(after.nodes[0].title, "Two");
  // And back: each read names its own application's nodes.
  sim.call("activate", {{"pid", 600}});
  sim.clock.runUntilIdle();
  EXPECT_EQ(driver.axSnapshot(front).nodes[0].title, "One");
}

// An element action on an application that does not answer would hold the
// shared input queue while its calls wait: it is refused at once, and the
// application is tried again by the next read.
TEST(InProcessDriver, ActionsOnAnApplicationThatDoesNotAnswerAreRefusedAtOnce) {
  auto spec = appWith(600, "Stuck",
                      {
                          keyed("AXWindow", "window")
                              .title("Stuck")
                              .withFrame(0, 0, 300, 200)
                              .child(keyed("AXButton", "go", 10, 10, 50, 30).title("Go").pressDoes({})),
                      });
  ActionSim sim(platform::sim::DesktopSpec{{}, {spec}});
  Queues queues;
  InProcessDriver driver(queues, sim.host, sim.capturer, nullptr);
  core::SnapshotOptions fresh;
  fresh.app.pid = 600;
  fresh.fresh = true;
  fresh.all = true;
  auto copy = driver.axSnapshot(fresh);
  const auto go = std::find_if(copy.nodes.begin(), copy.nodes.end(), [](auto& n) { return n.title == "Go"; });
  ASSERT_NE(go, copy.nodes.end());
  core::ElementRef ref;
  ref.pid = 600;
  ref.uid = go->uid;

  sim.desktop().setFrozen(600, true);
  EXPECT_TRUE(driver.axSnapshot(fresh).dirty);
  const auto asked = sim.clock.nowNs();
  try {
    driver.press(ref);
    ADD_FAILURE() << "a press went to an application that does not answer";
  } catch (const core::GlimmerstrandError& e) {
    EXPECT_EQ(e.code(), "timeout");
  }
  EXPECT_THROW(driver.setValue(ref, "x"), core::GlimmerstrandError);
  EXPECT_LT(sim.clock.nowNs() - asked, ms) << "the refusal waited for the application";

  sim.desktop().setFrozen(600, false);
  EXPECT_FALSE(driver.axSnapshot(fresh).dirty);
  EXPECT_TRUE(sim.host.mirrors().existing(600)->answering());
}

}  // namespace
}  // namespace glimmerstrand::native::testing
