// Time, and the waits and queues that depend on it. Everything in the mirror
// that sleeps, waits with a deadline or runs later goes through one Clock, so
// that a test can put a driven clock in its place and get the same schedule on
// every run, in virtual time (see sim/driven_clock.h). The system clock is the
// monotonic uptime of the machine.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace glimmerstrand::platform {

/// A condition to wait on through a Clock. Waits and wake-ups go through the
/// clock, so that a driven clock knows who may run. Owned by whoever owns the
/// lock it is used with.
class Signal {
 public:
  Signal() = default;
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;

 private:
  friend class SystemClock;
  std::condition_variable condition_;
};

/// A serial queue: tasks run one at a time, in the order they were queued.
/// Destroying the handle while a task runs is safe: queued tasks still run.
class SerialQueue {
 public:
  using Task = std::function<void()>;
  virtual ~SerialQueue() = default;
  /// Queues the task and returns at once. Callable from any thread.
  virtual void async(Task task) = 0;
  /// Queues the task once `delayNs` has passed on the clock that made the
  /// queue. Callable from any thread.
  virtual void asyncAfter(std::int64_t delayNs, Task task) = 0;
};

class Clock {
 public:
  virtual ~Clock() = default;

  /// Monotonic nanoseconds; never 0 and never going back.
  virtual std::int64_t nowNs() = 0;
  /// Blocks the calling thread for `ns`. REQUIRES: the caller holds no lock
  /// another thread of this clock may take while it sleeps.
  virtual void sleepNs(std::int64_t ns) = 0;
  /// Releases `lock`, waits for notifyAll on `signal` or for `deadlineNs`,
  /// and takes `lock` again. False when the deadline had passed; true
  /// otherwise, which may be a spurious wake-up, so callers re-check their
  /// condition. REQUIRES: `lock` is held and is the lock `signal` guards.
  virtual bool waitUntil(std::unique_lock<std::mutex>& lock, Signal& signal, std::int64_t deadlineNs) = 0;
  /// Wakes every thread waiting on `signal`. Callable with or without the
  /// signal's lock held.
  virtual void notifyAll(Signal& signal) = 0;
  /// A new serial queue whose tasks run on a thread of this clock's making.
  virtual std::unique_ptr<SerialQueue> makeSerialQueue(std::string label) = 0;
};

/// The machine's monotonic clock, real threads and real sleeps.
class SystemClock final : public Clock {
 public:
  std::int64_t nowNs() override;
  void sleepNs(std::int64_t ns) override;
  bool waitUntil(std::unique_lock<std::mutex>& lock, Signal& signal, std::int64_t deadlineNs) override;
  void notifyAll(Signal& signal) override;
  std::unique_ptr<SerialQueue> makeSerialQueue(std::string label) override;
};

/// The process-wide system clock.
SystemClock& systemClock();

}  // namespace glimmerstrand::platform
