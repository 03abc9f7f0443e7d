#include "platform/sim/driven_clock.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace glimmerstrand::platform::sim {
namespace {

constexpr std::int64_t ms = 1'000'000;

// Readings of a driven clock move it on by a nanosecond each: durations
// measured by the test are exact to within a few of those.
void expectElapsed(std::int64_t actual, std::int64_t expected) { EXPECT_NEAR(actual, expected, 10) << actual; }

TEST(DrivenClock, SleepsOnTwoQueuesWakeInTimeOrderAndMainLoopTasksRunOnItsThread) {
  DrivenClock clock;
  const auto start = clock.nowNs();
  auto slow = clock.makeSerialQueue("slow");
  auto quick = clock.makeSerialQueue("quick");
  std::vector<std::string> order;  // written by one thread at a time: the clock's turn
  slow->async([&] {
    clock.sleepNs(30 * ms);
    order.push_back("slow");
  });
  quick->async([&] {
    clock.sleepNs(10 * ms);
    order.push_back("quick");
  });
  std::thread::id mainRanOn;
  clock.mainLoop().post([&] { mainRanOn = std::this_thread::get_id(); });
  clock.runUntilIdle();
  EXPECT_EQ(order, (std::vector<std::string>{"quick", "slow"}));
  expectElapsed(clock.nowNs() - start, 30 * ms);
  EXPECT_NE(mainRanOn, std::thread::id());
  EXPECT_NE(mainRanOn, std::this_thread::get_id());
}

TEST(DrivenClock, TimedWaitEndsAtItsDeadlineOrAtANotification) {
  struct Case {
    const char* name;
    bool notify;
    bool expectNotified;
    std::int64_t expectWaitedNs;
  };
  for (const auto& c : {Case{"notified", true, true, 5 * ms}, Case{"timed out", false, false, 20 * ms}}) {
    SCOPED_TRACE(c.name);
    DrivenClock clock;
    std::mutex lock;
    Signal signal;
    auto other = clock.makeSerialQueue("other");
    if (c.notify)
      other->async([&] {
        clock.sleepNs(5 * ms);
        clock.notifyAll(signal);
      });
    const auto start = clock.nowNs();
    std::unique_lock guard(lock);
    bool notified = clock.waitUntil(guard, signal, start + 20 * ms);
    EXPECT_TRUE(guard.owns_lock());
    guard.unlock();
    EXPECT_EQ(notified, c.expectNotified);
    expectElapsed(clock.nowNs() - start, c.expectWaitedNs);
    clock.runUntilIdle();
  }
}

TEST(DrivenClock, AScheduleThatNeverSettlesIsReported) {
  DrivenClock clock;
  auto queue = clock.makeSerialQueue("ticker");
  std::function<void()> tick = [&] { queue->asyncAfter(1000 * ms, tick); };
  queue->async(tick);
  EXPECT_THROW(clock.runUntilIdle(10'000 * ms), std::runtime_error);
}

}  // namespace
}  // namespace glimmerstrand::platform::sim
