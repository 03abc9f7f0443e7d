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

TEST(DrivenClock, TimedWaitEndsAtANotificationOrAtItsDeadline) {
  DrivenClock clock;
  std::mutex lock;
  Signal signal;
  auto other = clock.makeSerialQueue("other");
  other->async([&] {
    clock.sleepNs(5 * ms);
    clock.notifyAll(signal);
  });
  std::unique_lock guard(lock);
  auto start = clock.nowNs();
  EXPECT_TRUE(clock.waitUntil(guard, signal, start + 20 * ms));
  expectElapsed(clock.nowNs() - start, 5 * ms);
  start = clock.nowNs();
  EXPECT_FALSE(clock.waitUntil(guard, signal, start + 20 * ms));
  EXPECT_TRUE(guard.owns_lock());
  expectElapsed(clock.nowNs() - start, 20 * ms);
  guard.unlock();
  clock.runUntilIdle();
}

}  // namespace
}  // namespace glimmerstrand::platform::sim
