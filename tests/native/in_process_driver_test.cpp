// The driver's snapshots on the simulated desktop: cached per selector, and
// read again in full when the cache speaks of another application.
#include "native/in_process_driver.h"

#include <gtest/gtest.h>

#include "action_sim.h"

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
  InProcessDriver driver(sim.table, queues, sim.host, nullptr);
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

}  // namespace
}  // namespace glimmerstrand::native::testing
