// Where one run's time goes: waiting for applications (their actions, their
// settling, fresh walks of their trees) against the daemon's own work
// (parsing, the graph, the change report). Kept per thread, because a run's
// driver calls all happen on the thread that runs it.
#pragma once

#include <cstdint>

#include "core/clock.h"

namespace glimmerstrand::native {

struct RunTimings {
  double settleMs = 0;       // waiting for an application to settle after an action
  double applicationMs = 0;  // actions, input, and reads that wait for an application
  double actionMs = 0;       // of that, the actions and input alone
};

/// The running thread's figures; a run resets them when it starts.
RunTimings& threadRunTimings();

/// Adds the time from its making to its end to one figure of the thread's.
class TimedWait {
 public:
  explicit TimedWait(double RunTimings::*figure);
  ~TimedWait();
  TimedWait(const TimedWait&) = delete;
  TimedWait& operator=(const TimedWait&) = delete;

 private:
  double RunTimings::*figure_;
  std::int64_t startedNs_;
};

/// The process's steady clock, whose sleeps count as waiting: the runner
/// sleeps only while it polls an application or lets time pass on request.
core::Clock& waitingClock();

}  // namespace glimmerstrand::native
