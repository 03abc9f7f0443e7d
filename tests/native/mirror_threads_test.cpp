// The mirror on real threads and the system clock: readers on several
// threads while the application changes. No timing is asserted; the outcome
// is the same however the threads interleave.
#include <gtest/gtest.h>

#include <thread>

#include "mirror_sim.h"

namespace glimmerstrand::native {
namespace {

using namespace native::testing;

TEST(MirrorThreads, ReadersOnManyThreadsSeeWholeCopiesAndTheLastChange) {
  // Made for the life of the process, as in the daemon: walks and timers of
  // the mirror may still run after the test.
  auto* platform = new platform::sim::SimPlatform(labDesktop());
  std::thread([platform] { platform->mainLoop().run(); }).detach();
  auto* mirrors = new Mirrors(MirrorEnvironment{platform->accessibility(), platform->clock()}, platform->workspace());
  auto mirror = mirrors->mirror(labPid);

  std::atomic<bool> done = false;
  std::atomic<int> inconsistent = 0;
  std::vector<std::thread> readers;
  for (int r = 0; r < 4; ++r)
    readers.emplace_back([&, r] {
      SnapshotRequest request;
      request.all = true;
      request.fresh = r % 2 == 0;
      while (!done) {
        auto snapshot = mirror->snapshot(request);
        if (!consistent(*snapshot.nodes)) ++inconsistent;
      }
    });
  for (int k = 1; k <= 50; ++k) {
    platform->desktop().setAttribute(labPid, "status", "AXValue", "step " + std::to_string(k));
    platform->desktop().addElements(labPid, "list", {element("AXRow").title("added")});
  }
  done = true;
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(inconsistent, 0);

  // Wait until the notification count stops, then read fresh.
  auto since = mirror->notificationCount();
  while (mirror->waitSettle(since, 40, 250, 5000).changed) since = mirror->notificationCount();
  SnapshotRequest fresh;
  fresh.fresh = true;
  fresh.all = true;
  fresh.timeoutMs = 10'000;
  auto last = mirror->snapshot(fresh);
  EXPECT_FALSE(last.dirty);
  EXPECT_EQ(findNode(last, "status")->value, "step 50");
  EXPECT_EQ(std::count_if(last.nodes->begin(), last.nodes->end(), [](auto& n) { return n.title == "added"; }), 50);
}

}  // namespace
}  // namespace glimmerstrand::native
