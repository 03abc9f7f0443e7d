// Virtual time for deterministic tests and benchmarks.
//
// Every thread that runs under a driven clock holds a turn in its own time:
// the thread that made the clock (the driver), the worker of each queue it
// makes, and the worker of its main loop. Exactly one of them runs at a time;
// the others wait inside the clock (a sleep, a timed wait, or an idle queue).
// When none can run, virtual time jumps to the earliest timer. So a schedule
// of sleeps, debounces, deadlines and delayed tasks plays out the same way on
// every run, and takes no real time.
//
// REQUIRES of the code under test: no thread holds a lock across a sleep that
// another thread of the clock may take meanwhile (the mirror's rule anyway).
// Destroy the clock on the driver thread, after runUntilIdle(), so that no
// task is left half-way.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/clock.h"
#include "platform/run_loop.h"

namespace glimmerstrand::platform::sim {

class DrivenClock final : public Clock {
 public:
  /// The calling thread becomes the driver and holds the first turn. Time
  /// starts well above 0, as uptime does.
  explicit DrivenClock(std::int64_t startNs = 1'000'000'000'000);
  ~DrivenClock() override;
  DrivenClock(const DrivenClock&) = delete;
  DrivenClock& operator=(const DrivenClock&) = delete;

  /// Each reading moves time on by one nanosecond, as real time passes
  /// between any two looks at a clock: two events never share a time, and a
  /// walk that happens in no virtual time still ends after it began.
  std::int64_t nowNs() override;
  void sleepNs(std::int64_t ns) override;
  bool waitUntil(std::unique_lock<std::mutex>& lock, Signal& signal, std::int64_t deadlineNs) override;
  void notifyAll(Signal& signal) override;
  std::unique_ptr<SerialQueue> makeSerialQueue(std::string label) override;

  /// A run loop served by a thread of this clock: the main loop of a
  /// simulated desktop in tests.
  RunLoop& mainLoop();

  /// Lets everything due in the next `ns` run; time ends `ns` later.
  void advance(std::int64_t ns) { sleepNs(ns); }
  /// Lets the other threads run until none has anything left to do, now or
  /// later. Throws std::runtime_error when that would take more than
  /// `limitNs` of virtual time (a schedule that never settles).
  void runUntilIdle(std::int64_t limitNs = 3'600'000'000'000);

  struct Participant;
  struct Queue;

 private:
  class QueueHandle;
  class Loop;
  using TimerKey = std::pair<std::int64_t, std::uint64_t>;  // due, order of arming
  struct Timer {
    Participant* wake = nullptr;   // a sleeper or a timed waiter
    std::shared_ptr<Queue> queue;  // or a delayed task for this queue
    std::function<void()> task;
  };

  Participant& current();
  TimerKey arm(std::int64_t due, Timer timer);
  void enqueue(const std::shared_ptr<Queue>& queue, std::function<void()> task);
  /// With lock_ held by the running participant `self`: hands the turn on and
  /// waits until it comes back.
  void yieldTurn(std::unique_lock<std::mutex>& guard, Participant& self);
  void handOn();
  void fire(TimerKey key);
  void serve(std::shared_ptr<Queue> queue);

  std::mutex lock_;  // guards every field below and all Participant/Queue state
  std::int64_t now_;
  std::uint64_t nextOrder_ = 0;
  std::unique_ptr<Participant> driver_;
  std::deque<Participant*> runnable_;
  std::map<TimerKey, Timer> timers_;
  std::unordered_multimap<Signal*, Participant*> waiters_;
  Participant* idleWaiter_ = nullptr;  // the driver inside runUntilIdle
  std::int64_t idleLimitNs_ = 0;
  bool idleLimitPassed_ = false;
  bool stopping_ = false;
  std::vector<std::shared_ptr<Queue>> queues_;
  std::vector<std::thread> workers_;
  std::unique_ptr<Loop> mainLoop_;
};

}  // namespace glimmerstrand::platform::sim
