// Lease time that moves only when the test says so. Waiters block until the
// test advances the time or the coordinator wakes them; the test can wait
// until a given number of waits have begun, so it knows a call is blocked
// before it moves time on.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "server/app_coordinator.h"

namespace glimmerstrand::server::testing {

class DrivenLeaseClock final : public LeaseClock {
 public:
  Time now() override {
    std::lock_guard guard(lock_);
    return now_;
  }

  void waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& condition, Time deadline) override {
    {
      std::lock_guard guard(lock_);
      if (deadline <= now_) return;
      watched_ = {lock.mutex(), &condition};
      ++waitsBegun_;
      changed_.notify_all();
    }
    // Bounded only so that a broken test fails by its timeout instead of
    // hanging; the coordinator looks again either way.
    condition.wait_for(lock, std::chrono::seconds(30));
  }

  /// Moves time on and wakes every waiter to look again.
  void advance(std::chrono::duration<double> by) {
    std::pair<std::mutex*, std::condition_variable*> watched;
    {
      std::lock_guard guard(lock_);
      now_ += std::chrono::duration_cast<Time::duration>(by);
      watched = watched_;
    }
    if (watched.first) {
      std::lock_guard guard(*watched.first);
      watched.second->notify_all();
    }
  }

  /// Waits until `count` waits have begun in all; false after a generous limit.
  bool waitForWaits(int count) {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, std::chrono::seconds(10), [&] { return waitsBegun_ >= count; });
  }

  int waitsBegun() {
    std::lock_guard guard(lock_);
    return waitsBegun_;
  }

 private:
  std::mutex lock_;  // guards the fields below
  std::condition_variable changed_;
  Time now_ = Time(std::chrono::hours(1000));
  int waitsBegun_ = 0;
  std::pair<std::mutex*, std::condition_variable*> watched_{nullptr, nullptr};
};

}  // namespace glimmerstrand::server::testing
