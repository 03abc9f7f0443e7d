// Notifications and the walks they schedule, on a driven clock.
#include <gtest/gtest.h>

#include <functional>

#include "mirror/mirror_sim.h"

namespace glimmerstrand::native {
namespace {

using namespace native::testing;
using platform::sim::SimDesktop;

TEST(MirrorSchedule, AValueChangeRefreshesOneElementAndKeepsItsUid) {
  MirrorSim sim(labDesktop());
  auto mirror = sim.settled(labPid);
  auto before = sim.plain(*mirror);
  const core::AxNode status = *findNode(before, "status");
  const auto reads = sim.ax.multipleReads.load();

  sim.desktop().setAttribute(labPid, "status", "AXValue", "busy");
  sim.deliver();
  auto plain = sim.plain(*mirror);  // at once, with what is there
  EXPECT_EQ(findNode(plain, "status")->value, "idle");
  EXPECT_TRUE(plain.dirty);
  // A fresh read waits for a walk begun after the notification.
  auto after = sim.fresh(*mirror);
  EXPECT_EQ(after.generation, before.generation + 1);
  EXPECT_EQ(after.lastWalk, "partial");
  EXPECT_EQ(after.partialNodes, 1);
  EXPECT_EQ(sim.ax.multipleReads - reads, 1);  // one 19-attribute read, nothing else
  EXPECT_FALSE(after.dirty);
  const core::AxNode* refreshed = findNode(after, "status");
  ASSERT_TRUE(refreshed);
  EXPECT_EQ(refreshed->value, "busy");
  EXPECT_EQ(refreshed->uid, status.uid);

  // The trailing walk looks at the element's parent again, and the late look
  // at the whole window.
  sim.clock.runUntilIdle();
  auto settled = sim.plain(*mirror);
  EXPECT_EQ(settled.partialWalks, after.partialWalks + 1);
  EXPECT_EQ(settled.partialNodes, 2);  // the footer and its status
  EXPECT_EQ(settled.fullWalks, after.fullWalks + 1);
  EXPECT_EQ(findNode(settled, "status")->uid, status.uid);
}

TEST(MirrorSchedule, ARefreshedListKeepsTheCountOfRowsLeftOffScreen) {
  auto list = keyed("AXList", "list", 0, -2000, 400, 600 * 20.0);
  for (int i = 0; i < 600; ++i) list.child(element("AXRow").withFrame(0, -2000 + i * 20.0, 400, 20));
  auto scroll = keyed("AXScrollArea", "scroll", 0, 100, 400, 300).child(list);
  MirrorSim sim(
      platform::sim::DesktopSpec{{}, {appWith(labPid, {keyed("AXWindow", "window", 0, 0, 400, 1000).child(scroll)})}});
  auto mirror = sim.settled(labPid);
  const auto offscreen = findNode(sim.plain(*mirror), "list")->offscreen;
  ASSERT_TRUE(offscreen);

  sim.desktop().setAttribute(labPid, "list", "AXTitle", "Inbox");
  sim.deliver();
  auto after = sim.fresh(*mirror);
  EXPECT_EQ(after.lastWalk, "partial");
  EXPECT_EQ(findNode(after, "list")->title, "Inbox");
  EXPECT_EQ(findNode(after, "list")->offscreen, offscreen);
}

TEST(MirrorSchedule, ACreatedSubtreeIsWalkedAlone) {
  MirrorSim sim(labDesktop());
  auto mirror = sim.settled(labPid);
  auto before = sim.plain(*mirror);
  sim.desktop().addElements(
      labPid, "list",
      {keyed("AXRow", "row11", 0, 270, 800, 20).child(keyed("AXStaticText", "new", 0, 270, 800, 20).value("Row 11"))});
  sim.deliver();
  auto after = sim.fresh(*mirror);
  EXPECT_EQ(after.lastWalk, "partial");
  EXPECT_EQ(after.partialNodes, 1 + 11 * 2);  // the list's subtree, nothing else
  ASSERT_EQ(after.nodes.size(), before.nodes.size() + 2);
  ASSERT_TRUE(findNode(after, "new"));
  EXPECT_TRUE(findNode(after, "new")->uid);
  auto oldUids = uidsByIdentifier(before);
  auto newUids = uidsByIdentifier(after);
  for (const auto& [identifier, uid] : oldUids) EXPECT_EQ(newUids[identifier], uid) << identifier;
  EXPECT_TRUE(consistent(after.nodes.vector()));
}

TEST(MirrorSchedule, MoreThan128PendingTargetsGiveAFullWalk) {
  struct Case {
    int targets;
    const char* expectWalk;
  };
  for (const auto& c : {Case{128, "partial"}, Case{129, "full"}}) {
    SCOPED_TRACE(c.targets);
    MirrorSim sim(labDesktop());
    auto mirror = sim.settled(labPid);
    for (int i = 0; i < c.targets; ++i)
      sim.desktop().postNotification(labPid, "b" + std::to_string(i), "AXValueChanged");
    sim.deliver();
    auto after = sim.fresh(*mirror);
    EXPECT_EQ(after.notifications, c.targets);
    EXPECT_EQ(after.lastWalk, std::string(c.expectWalk));
  }
}

TEST(MirrorSchedule, WhatANotificationMarksDecidesTheWalk) {
  struct Case {
    const char* name;
    std::function<void(SimDesktop&)> change;
    const char* expectWalk;
  };
  const Case cases[] = {
      {"anything about the application element",
       [](SimDesktop& d) { d.postNotification(labPid, "", "AXValueChanged"); }, "full"},
      {"a move",
       [](SimDesktop& d) {
         d.setAttribute(labPid, "go", "AXPosition", platform::AxPoint{20, 5});
       },
       "full"},
      {"a destroyed row", [](SimDesktop& d) { d.removeElement(labPid, "row3"); }, "partial"},
      {"a row made and dropped before it was read",
       [](SimDesktop& d) {
         d.addElements(labPid, "list", {keyed("AXRow", "passing", 0, 270, 800, 20)});
         d.removeElement(labPid, "passing");
       },
       "partial"},
      {"a context menu", [](SimDesktop& d) { d.addElements(labPid, "", {element("AXMenu")}); }, "full"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    MirrorSim sim(labDesktop());
    auto mirror = sim.settled(labPid);
    c.change(sim.desktop());
    sim.deliver();
    auto after = sim.fresh(*mirror);
    EXPECT_EQ(after.lastWalk, std::string(c.expectWalk));
    EXPECT_FALSE(after.dirty);
    EXPECT_TRUE(consistent(after.nodes.vector()));
  }
}

TEST(MirrorSchedule, TheFocusedFlagMovesWithTheFocus) {
  MirrorSim sim(labDesktop());
  auto mirror = sim.settled(labPid);
  sim.desktop().focus(labPid, "field");
  sim.deliver();
  EXPECT_EQ(findNode(sim.fresh(*mirror), "field")->focused, true);
  sim.clock.runUntilIdle();
  sim.desktop().focus(labPid, "go");
  sim.deliver();
  auto after = sim.fresh(*mirror);
  EXPECT_EQ(after.lastWalk, "partial");
  EXPECT_EQ(findNode(after, "go")->focused, true);
  EXPECT_FALSE(findNode(after, "field")->focused);  // the old one was read again too
}

TEST(MirrorSchedule, TrailingWalksStopAtFourOrWhenNothingChangesAndOneLateLookFollows) {
  struct Case {
    const char* name;
    bool ticking, notified;
    std::int64_t expectFullWalks;  // the first, the notified one, the trailing ones and the late look
  };
  for (const auto& c :
       {Case{"quiet application", false, true, 1 + 1 + 1 + 1}, Case{"changes on every walk", true, true, 1 + 1 + 4},
        Case{"no notification seen", true, false, 1}}) {
    SCOPED_TRACE(c.name);
    MirrorSim sim(labDesktop(c.ticking));
    auto mirror = sim.settled(labPid);
    if (c.notified) sim.desktop().postNotification(labPid, "", "AXMainWindowChanged");
    sim.clock.runUntilIdle();
    auto after = sim.plain(*mirror);
    EXPECT_EQ(after.fullWalks, c.expectFullWalks);
    EXPECT_FALSE(after.dirty);
  }
}

TEST(MirrorSchedule, UidsFollowElementsNotPlaces) {
  MirrorSim sim(labDesktop());
  auto mirror = sim.settled(labPid);
  const auto original = findNode(sim.plain(*mirror), "go")->uid;
  sim.desktop().setAttribute(labPid, "go", "AXPosition", platform::AxPoint{400, 5});
  sim.deliver();
  auto moved = sim.fresh(*mirror);
  EXPECT_EQ(findNode(moved, "go")->frame->x, 400);
  EXPECT_EQ(findNode(moved, "go")->uid, original);
  sim.clock.runUntilIdle();

  sim.desktop().removeElement(labPid, "go");
  sim.desktop().addElements(labPid, "tools", {keyed("AXButton", "go", 10, 5, 60, 30).title("Go")});
  sim.deliver();
  auto recreated = sim.fresh(*mirror);
  ASSERT_TRUE(findNode(recreated, "go"));
  EXPECT_NE(findNode(recreated, "go")->uid, original);
}

TEST(MirrorSchedule, AnEmptyLookingTreeAsksForTheEnhancedInterfaceFiveTimesAtMostOncePerSecond) {
  // Ten nodes, four of them named.
  auto window = element("AXWindow").withFrame(0, 0, 100, 100);
  for (int i = 0; i < 4; ++i) window.child(element("AXButton").title("b").withFrame(0, 0, 10, 10));
  for (int i = 0; i < 5; ++i) window.child(element("AXGroup").withFrame(0, 0, 10, 10));
  MirrorSim sim(platform::sim::DesktopSpec{{}, {appWith(710, {window})}});
  sim.settled(710);
  auto times = sim.ax.setTimes("AXEnhancedUserInterface");
  ASSERT_EQ(times.size(), 5u);
  for (std::size_t k = 1; k < times.size(); ++k) EXPECT_GT(times[k] - times[k - 1], 1000 * ms);
}

TEST(MirrorSchedule, AnUnreadableElementIsRetriedThreeTimesThenLeftAlone) {
  auto window = keyed("AXWindow", "window", 0, 0, 100, 100).title("w").child(element("AXButton").markGone());
  for (int i = 0; i < 5; ++i) window.child(keyed("AXButton", "ok" + std::to_string(i), 0, 0, 10, 10).title("ok"));
  MirrorSim sim(platform::sim::DesktopSpec{{}, {appWith(720, {window})}});
  auto mirror = sim.settled(720);
  auto snapshot = sim.plain(*mirror);
  EXPECT_EQ(snapshot.fullWalks, 1 + 3 + 1);  // the first walk, three retries, one trailing walk
  EXPECT_TRUE(findNode(snapshot, "ok0"));
}

// A write's road: the settle waits out the application's quiet, and the fresh
// read after it takes one look at once rather than after the trailing delay
// and the pacing gap; an application still moving keeps the read waiting for
// the trailing walks. One late look at the whole window follows either way.
TEST(MirrorSchedule, AFreshReadAfterASettleEndsWithOneLookUnlessTheApplicationStillMoves) {
  struct Case {
    const char* name;
    bool ticking;
    std::int64_t partialWalksByTheRead;  // the notified walk, the read's look, and the trailing ones
    bool atTheFloor;                     // within 5 ms of the 60 ms quiet
  };
  for (const auto& c : {Case{"quiet application", false, 2, true}, Case{"still moving", true, 2 + 3, false}}) {
    SCOPED_TRACE(c.name);
    MirrorSim sim(labDesktop(c.ticking));
    auto mirror = sim.settled(labPid);
    const auto before = sim.plain(*mirror);
    sim.clock.advance(5000 * ms);  // past the pacing gap: the notified walk comes early, inside the quiet
    const std::int64_t changedAt = sim.clock.nowNs();
    const std::int64_t since = mirror->notificationCount();
    sim.desktop().setAttribute(labPid, "status", "AXValue", "busy");
    sim.deliver();
    EXPECT_TRUE(mirror->waitSettle(since, 60, 150, 2000).settled);
    const auto after = sim.fresh(*mirror);
    EXPECT_EQ(findNode(after, "status")->value, "busy");
    EXPECT_FALSE(after.dirty);
    EXPECT_EQ(after.partialWalks - before.partialWalks, c.partialWalksByTheRead);
    EXPECT_EQ((sim.clock.nowNs() - changedAt) / ms <= 60 + 5, c.atTheFloor);

    sim.clock.runUntilIdle();
    const auto settled = sim.plain(*mirror);
    EXPECT_EQ(settled.fullWalks - before.fullWalks, 1) << "the late look";
    EXPECT_FALSE(settled.dirty);
  }
}

}  // namespace
}  // namespace glimmerstrand::native
