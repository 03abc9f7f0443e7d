// Snapshots, settling and element references, on a driven clock.
#include <gtest/gtest.h>

#include "core/errors.h"
#include "mirror/mirror_sim.h"

namespace glimmerstrand::native {
namespace {

using namespace native::testing;

TEST(MirrorSnapshot, AFreshReadAlsoWaitsForAPendingTrailingWalkUnlessGivenAnAge) {
  struct Case {
    const char* name;
    std::optional<std::int64_t> maxAgeMs;
    std::int64_t expectMoreGenerations;
  };
  for (const auto& c : {Case{"without maxAgeMs", std::nullopt, 1}, Case{"with maxAgeMs", 60'000, 0}}) {
    SCOPED_TRACE(c.name);
    MirrorSim sim(labDesktop());
    auto mirror = sim.settled(labPid);
    sim.desktop().setAttribute(labPid, "status", "AXValue", "busy");
    sim.deliver();
    auto first = sim.fresh(*mirror);  // leaves a trailing walk pending
    auto second = sim.fresh(*mirror, c.maxAgeMs);
    EXPECT_EQ(second.generation - first.generation, c.expectMoreGenerations);
    EXPECT_FALSE(second.dirty);
  }
}

TEST(MirrorSnapshot, AFrozenApplicationShowsDirtyAndNeverFails) {
  MirrorSim sim(labDesktop());
  auto mirror = sim.settled(labPid);
  sim.desktop().setAttribute(labPid, "status", "AXValue", "busy");
  sim.deliver();
  sim.desktop().setFrozen(labPid, true);
  SnapshotRequest request;
  request.fresh = true;
  request.all = true;
  request.timeoutMs = 200;
  MirrorSnapshot stale;
  ASSERT_NO_THROW(stale = mirror->snapshot(request));
  EXPECT_TRUE(stale.dirty);
  EXPECT_EQ(stale.generation, 1);
  EXPECT_EQ(findNode(stale, "status")->value, "idle");  // the last copy, not an empty one
  // The walks that get no answer change nothing: reads keep the last copy,
  // dirty, and a fresh one waits no longer than one such walk.
  sim.clock.runUntilIdle();
  auto after = sim.plain(*mirror);
  EXPECT_EQ(after.generation, 1);
  EXPECT_TRUE(after.dirty);
  EXPECT_EQ(findNode(after, "status")->value, "idle");
  request.timeoutMs = 5000;
  const auto asked = sim.clock.nowNs();
  after = mirror->snapshot(request);
  EXPECT_LT(sim.clock.nowNs() - asked, 2000 * ms) << "a fresh read waited out its whole time for a hung application";
  EXPECT_TRUE(after.dirty);
  EXPECT_EQ(findNode(after, "status")->value, "idle");
  // Once it answers again, the next read's walk brings the copy up to date.
  sim.desktop().setFrozen(labPid, false);
  EXPECT_TRUE(sim.plain(*mirror).dirty);
  auto back = sim.fresh(*mirror);
  EXPECT_FALSE(back.dirty);
  EXPECT_EQ(findNode(back, "status")->value, "busy");
}

TEST(MirrorSnapshot, TheFirstReadOfAnApplicationThatNeverAnswersTimesOutEmpty) {
  MirrorSim sim(platform::sim::DesktopSpec{{}, {appWith(730, {keyed("AXWindow", "window", 0, 0, 10, 10)})}});
  auto mirror = sim.mirrors.mirror(730);  // registered; its first walk not yet begun
  sim.desktop().setFrozen(730, true);
  SnapshotRequest request;
  request.timeoutMs = 500;
  auto snapshot = mirror->snapshot(request);
  EXPECT_EQ(snapshot.generation, 0);
  EXPECT_TRUE(snapshot.dirty);
  ASSERT_FALSE(snapshot.unchanged);
  EXPECT_TRUE(snapshot.nodes.empty());
}

TEST(MirrorSnapshot, CopiesShareOneListAndTheLabeledOneFollowsTheWalks) {
  MirrorSim sim(labDesktop());
  auto mirror = sim.settled(labPid);
  auto labeled = mirror->snapshot(SnapshotRequest{});
  ASSERT_FALSE(labeled.nodes.empty());
  // Without `all`, the labeled nodes only; their indices still count all.
  auto all = sim.plain(*mirror);
  EXPECT_LT(labeled.nodes.size(), all.nodes.size());
  for (const auto& node : labeled.nodes.vector()) EXPECT_EQ(all.nodes[static_cast<std::size_t>(node.i)], node);
  EXPECT_EQ(all.nodes.shared().get(), sim.plain(*mirror).nodes.shared().get());
  EXPECT_EQ(labeled.nodes.shared().get(), mirror->snapshot(SnapshotRequest{}).nodes.shared().get());
  EXPECT_EQ(findNode(labeled, "status")->value, "idle");

  sim.desktop().setAttribute(labPid, "status", "AXValue", "busy");
  sim.deliver();
  sim.fresh(*mirror);
  EXPECT_EQ(findNode(mirror->snapshot(SnapshotRequest{}), "status")->value, "busy");
}

TEST(Mirrors, TheSeventhApplicationEvictsTheLeastRecentlyUsed) {
  platform::sim::DesktopSpec spec;
  for (int pid = 1; pid <= 7; ++pid)
    spec.apps.push_back(appWith(pid, {keyed("AXWindow", "w", 0, 0, 10, 10).title("w" + std::to_string(pid))}));
  MirrorSim sim(spec);
  for (int pid = 1; pid <= 6; ++pid) {
    sim.settled(pid);
    sim.clock.advance(1 * ms);
  }
  sim.plain(*sim.mirrors.mirror(1));  // 2 is now the oldest
  sim.settled(7);
  EXPECT_FALSE(sim.mirrors.existing(2));
  EXPECT_TRUE(sim.mirrors.existing(1));
  EXPECT_THROW(resolveElement(sim.mirrors, core::ElementRef{2, 0, 0, 1, std::nullopt}, {}), core::GlimmerstrandError);
  SnapshotRequest noWait;
  noWait.timeoutMs = 0;
  EXPECT_EQ(sim.mirrors.mirror(2)->snapshot(noWait).generation, 0);  // starts again
}

TEST(Mirrors, ElementReferencesResolveOrSayWhyNot) {
  MirrorSim sim(labDesktop());
  auto mirror = sim.settled(labPid);
  auto snapshot = sim.plain(*mirror);
  const core::AxNode go = *findNode(snapshot, "go");
  sim.desktop().removeElement(labPid, "row1");
  sim.deliver();
  sim.fresh(*mirror);
  const auto goneUid = *findNode(snapshot, "row1")->uid;

  auto resolve = [&](const core::ElementRef& ref) { return resolveElement(sim.mirrors, ref, {}).element; };
  auto failed = [&](const core::ElementRef& ref) -> std::string {
    try {
      resolve(ref);
    } catch (const core::GlimmerstrandError& e) {
      return e.code() + ": " + e.message();
    }
    return "resolved";
  };
  const auto byUid = [](std::int64_t pid, std::int64_t uid) { return core::ElementRef{pid, 0, 0, uid, std::nullopt}; };
  const auto byIndex = [](std::int64_t pid, std::int64_t generation, std::int64_t i) {
    return core::ElementRef{pid, generation, i, std::nullopt, std::nullopt};
  };
  EXPECT_EQ(resolve(byUid(labPid, *go.uid)), sim.desktop().element(labPid, "go"));
  EXPECT_EQ(resolve(byIndex(labPid, 1, go.i)), sim.desktop().element(labPid, "go"));
  EXPECT_EQ(failed(byUid(999, 1)), "stale: pid 999 の写しがありません");
  EXPECT_EQ(failed(byUid(std::int64_t{1} << 40, 1)), "stale: pid 1099511627776 の写しがありません");
  EXPECT_EQ(failed(byUid(labPid, goneUid)).rfind("stale: ", 0), 0u);
  EXPECT_EQ(failed(byIndex(labPid, 1, 9999)), "invalid_argument: 要素の番号が範囲外です: 9999");
  EXPECT_EQ(failed(byIndex(labPid, 77, 0)), "stale: 世代 77 の写しはもう残っていません");
  EXPECT_EQ(failed(core::ElementRef{labPid, 0, 0, std::nullopt, true}),
            "invalid_argument: メニューの項目には uid が必要です");
  EXPECT_EQ(failed(core::ElementRef{labPid, 0, 0, 1, true}), "native: メニューの写しがありません");
}

TEST(Mirrors, OldGenerationsStayForTenSecondsBeyondTheNewestThree) {
  MirrorSim sim(labDesktop());
  auto mirror = sim.settled(labPid);
  for (int k = 0; k < 4; ++k) {
    mirror->requestUrgentWalk();
    sim.clock.runUntilIdle();
  }
  const auto newest = sim.plain(*mirror).generation;
  ASSERT_GE(newest, 5);
  EXPECT_NO_THROW(mirror->elementForIndex(1, 0));  // old, but younger than ten seconds
  sim.clock.advance(11'000 * ms);
  mirror->requestUrgentWalk();
  sim.clock.runUntilIdle();
  EXPECT_THROW(mirror->elementForIndex(1, 0), core::GlimmerstrandError);
  EXPECT_NO_THROW(mirror->elementForIndex(newest, 0));  // among the newest three
}

TEST(MirrorSettle, WaitSettleWatchesTheNotificationCountAndPageLoads) {
  using Posts = std::vector<std::pair<std::string, int>>;  // a notification, then a pause in ms
  const Posts stream(200, {"AXValueChanged", 20});
  struct Case {
    const char* name;
    Posts posts;
    bool expectChanged, expectSettled;
    double expectWaitedMs;
  };
  const Case cases[] = {
      {"nothing happens", {}, false, true, 250},
      {"one change", {{"AXValueChanged", 20}}, true, true, 40},
      {"a steady stream", stream, true, false, 1500},
      // Quiet while the page loads is not settled: the report waits for the page.
      {"a page that loads for 800 ms",
       {{"AXElementBusyChanged", 20}, {"AXValueChanged", 780}, {"AXLoadComplete", 0}},
       true,
       true,
       840},
      {"a load that never ends is waited for no longer than a load may take",
       {{"AXElementBusyChanged", 0}},
       true,
       true,
       static_cast<double>(AppMirror::maxLoadMs)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    MirrorSim sim(labDesktop());
    auto mirror = sim.settled(labPid);
    auto since = mirror->notificationCount();
    auto poster = sim.clock.makeSerialQueue("poster");
    poster->async([&] {
      for (const auto& [notification, pauseMs] : c.posts) {
        sim.desktop().postNotification(labPid, "status", notification);
        sim.clock.sleepNs(pauseMs * ms);
      }
    });
    auto result = mirror->waitSettle(since, 40, 250, 1500);
    EXPECT_EQ(result.changed, c.expectChanged);
    EXPECT_EQ(result.settled, c.expectSettled);
    EXPECT_NEAR(result.waitedMs, c.expectWaitedMs, 0.001);
    EXPECT_EQ(result.notifications, mirror->notificationCount() - since);
    sim.clock.runUntilIdle();
  }
}

}  // namespace
}  // namespace glimmerstrand::native
