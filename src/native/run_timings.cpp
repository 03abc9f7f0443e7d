#include "native/run_timings.h"

#include <chrono>

namespace glimmerstrand::native {

namespace {

std::int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

RunTimings& threadRunTimings() {
  thread_local RunTimings timings;
  return timings;
}

TimedWait::TimedWait(double RunTimings::*figure) : figure_(figure), startedNs_(nowNs()) {}

TimedWait::~TimedWait() { threadRunTimings().*figure_ += static_cast<double>(nowNs() - startedNs_) / 1e6; }

namespace {

class WaitingClock final : public core::Clock {
 public:
  std::int64_t nowNs() override { return core::Clock::system().nowNs(); }
  void sleepMs(double ms) override {
    TimedWait timed(&RunTimings::applicationMs);
    core::Clock::system().sleepMs(ms);
  }
};

}  // namespace

core::Clock& waitingClock() {
  static WaitingClock clock;
  return clock;
}

}  // namespace glimmerstrand::native
