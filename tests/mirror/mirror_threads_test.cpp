// The mirror on real threads and the system clock: readers on several
// threads while the application changes, and while one hangs. No timing is
// asserted; the outcome is the same however the threads interleave.
#include <gtest/gtest.h>

#include <condition_variable>
#include <thread>

#include "mirror/mirror_sim.h"

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
        if (!consistent(snapshot.nodes.vector())) ++inconsistent;
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
  EXPECT_EQ(std::count_if(last.nodes.begin(), last.nodes.end(), [](auto& n) { return n.title == "added"; }), 50);
}

// An application that stops answering until released: every call into it
// blocks, as calls into a hung application wait out their timeout. A
// watchdog releases it in the end, so that a test of a faulty mirror fails
// instead of hanging.
class HangingAccessibility final : public platform::AccessibilityWrapper {
 public:
  HangingAccessibility(platform::Accessibility& target, std::int32_t pid) : AccessibilityWrapper(target), pid_(pid) {}

  void hang() {
    std::lock_guard guard(lock_);
    hanging_ = true;
  }
  void release() {
    std::lock_guard guard(lock_);
    hanging_ = false;
    changed_.notify_all();
  }
  /// Waits until some call is held up; false after `limit`.
  bool waitForHeldCall(std::chrono::milliseconds limit) {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, limit, [&] { return held_ > 0; });
  }
  bool hanging() {
    std::lock_guard guard(lock_);
    return hanging_;
  }

  platform::AxResult<std::vector<platform::AxValue>> copyMultiple(const Element& element,
                                                                  const std::vector<std::string>& names) override {
    holdIfHung(element);
    return target_.copyMultiple(element, names);
  }
  platform::AxValue copy(const Element& element, std::string_view name) override {
    holdIfHung(element);
    return target_.copy(element, name);
  }
  platform::AxError set(const Element& element, std::string_view name, const platform::AxValue& value) override {
    holdIfHung(element);
    return target_.set(element, name, value);
  }
  platform::AxError addNotification(platform::Observer& observer, const Element& element,
                                    std::string_view notification) override {
    holdIfHung(element);
    return target_.addNotification(observer, element, notification);
  }

 private:
  void holdIfHung(const Element& element) {
    auto pid = target_.pidOf(element);
    if (!pid.ok() || pid.value != pid_) return;
    std::unique_lock guard(lock_);
    if (!hanging_) return;
    ++held_;
    changed_.notify_all();
    if (!changed_.wait_for(guard, std::chrono::seconds(10), [&] { return !hanging_; })) hanging_ = false;
    --held_;
  }

  const std::int32_t pid_;
  std::mutex lock_;  // guards the fields below
  std::condition_variable changed_;
  bool hanging_ = false;
  int held_ = 0;
};

// One application hangs while its mirror is made, and again while its copy
// is walked: reads of the other application, and plain reads of the hung one
// itself, all come back while it still hangs.
TEST(MirrorThreads, AHungApplicationHoldsUpNoReadOfAnother) {
  constexpr std::int32_t hungPid = 720;
  auto desktop = labDesktop();
  auto window = keyed("AXWindow", "window", 0, 0, 400, 300)
                    .title("Hung")
                    .child(keyed("AXStaticText", "status", 10, 10, 100, 20).value("idle"));
  // Enough to read that the mirror arms no delayed walks for a tree that shows
  // almost nothing: none may be left when the process ends.
  for (int k = 0; k < 5; ++k)
    window.child(element("AXButton").title("b" + std::to_string(k)).withFrame(10, 40 + k * 30.0, 50, 20));
  desktop.apps.push_back(appWith(hungPid, {window}));
  auto* platform = new platform::sim::SimPlatform(desktop);
  std::thread([platform] { platform->mainLoop().run(); }).detach();
  auto* ax = new HangingAccessibility(platform->accessibility(), hungPid);
  auto* mirrors = new Mirrors(MirrorEnvironment{*ax, platform->clock()}, platform->workspace());
  SnapshotRequest fresh;
  fresh.fresh = true;
  fresh.all = true;
  fresh.timeoutMs = 10'000;
  auto healthy = mirrors->mirror(labPid);
  ASSERT_GE(healthy->snapshot(fresh).generation, 1);

  // Made while the application hangs: nobody else waits for it.
  ax->hang();
  std::thread making([&] { mirrors->mirror(hungPid); });
  ASSERT_TRUE(ax->waitForHeldCall(std::chrono::seconds(10)));
  const auto since = healthy->notificationCount();
  platform->desktop().setAttribute(labPid, "status", "AXValue", "changed");
  healthy->waitSettle(since, 20, 10'000, 10'000);
  auto read = mirrors->mirror(labPid)->snapshot(fresh);
  EXPECT_TRUE(ax->hanging()) << "the read of the other application waited for the hung one";
  EXPECT_EQ(findNode(read, "status")->value, "changed");
  ax->release();
  making.join();

  // A copy of the hung application, then a change it is walked for, during
  // which it hangs again.
  auto hung = mirrors->mirror(hungPid);
  ASSERT_EQ(findNode(hung->snapshot(fresh), "status")->value, "idle");
  ax->hang();
  platform->desktop().setAttribute(hungPid, "status", "AXValue", "busy");
  ASSERT_TRUE(ax->waitForHeldCall(std::chrono::seconds(10)));
  SnapshotRequest plain;
  plain.all = true;
  auto last = hung->snapshot(plain);
  read = mirrors->mirror(labPid)->snapshot(fresh);
  EXPECT_TRUE(ax->hanging()) << "a plain read waited for the hung application";
  EXPECT_EQ(findNode(last, "status")->value, "idle");  // its last copy
  ax->release();

  // Once it answers, its copy catches up; and no walk is left running when
  // the test ends.
  auto seen = hung->notificationCount();
  while (hung->waitSettle(seen, 40, 250, 5000).changed) seen = hung->notificationCount();
  auto caughtUp = hung->snapshot(fresh);
  EXPECT_FALSE(caughtUp.dirty);
  EXPECT_EQ(findNode(caughtUp, "status")->value, "busy");
}

}  // namespace
}  // namespace glimmerstrand::native
