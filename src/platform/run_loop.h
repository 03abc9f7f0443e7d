// The main thread's loop. Observers, activation notices and the cursor overlay
// run their callbacks on it; a backend may plug in its own loop (the Linux
// backend drives a GLib main loop) behind the same interface.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <queue>
#include <vector>

namespace glimmerstrand::platform {

class RunLoop {
 public:
  using Task = std::function<void()>;
  virtual ~RunLoop() = default;

  /// Queues a task to run on the loop's thread. Callable from any thread.
  virtual void post(Task task) = 0;
  /// Queues a task to run once `delay` has passed. Callable from any thread.
  virtual void postAfter(std::chrono::nanoseconds delay, Task task) = 0;
  /// Runs tasks on the calling thread until stop(); the process's main thread
  /// calls it and never returns from it.
  virtual void run() = 0;
  /// Makes run() return after the task in progress. Callable from any thread.
  virtual void stop() = 0;
};

/// A run loop of our own: a timed task queue behind one mutex.
class TaskRunLoop final : public RunLoop {
 public:
  void post(Task task) override;
  void postAfter(std::chrono::nanoseconds delay, Task task) override;
  void run() override;
  void stop() override;

 private:
  using Clock = std::chrono::steady_clock;
  struct Timed {
    Clock::time_point due;
    std::uint64_t order;  // keeps tasks with equal due times in posting order
    Task task;
    bool operator>(const Timed& other) const { return due != other.due ? due > other.due : order > other.order; }
  };

  std::mutex lock_;  // guards everything below
  std::condition_variable wake_;
  std::priority_queue<Timed, std::vector<Timed>, std::greater<>> tasks_;
  std::uint64_t nextOrder_ = 0;
  bool stopped_ = false;
};

}  // namespace glimmerstrand::platform
