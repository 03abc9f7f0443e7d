#include <chrono>
#include <deque>
#include <thread>

#include "platform/clock.h"
#include "platform/run_loop.h"

namespace glimmerstrand::platform {

namespace {

using Steady = std::chrono::steady_clock;

// A serial queue on a worker thread that exists only while there is work: it
// starts with the first task of a burst and ends when the queue runs dry, so
// six idle mirrors cost no threads. The state is shared with the worker, so
// the handle may go while a task runs (an evicted mirror's last walk).
class ThreadSerialQueue final : public SerialQueue {
 public:
  explicit ThreadSerialQueue(std::string label) : state_(std::make_shared<State>()) {
    state_->label = std::move(label);
  }

  void async(Task task) override { enqueue(state_, std::move(task)); }

  void asyncAfter(std::int64_t delayNs, Task task) override {
    timerLoop().postAfter(std::chrono::nanoseconds(delayNs),
                          [state = state_, task = std::move(task)]() mutable { enqueue(state, std::move(task)); });
  }

 private:
  struct State {
    std::string label;
    std::mutex lock;  // guards tasks and running
    std::deque<Task> tasks;
    bool running = false;
  };

  static void enqueue(const std::shared_ptr<State>& state, Task task) {
    {
      std::lock_guard guard(state->lock);
      state->tasks.push_back(std::move(task));
      if (state->running) return;
      state->running = true;
    }
    std::thread(drain, state).detach();
  }

  static void drain(std::shared_ptr<State> state) {
    std::unique_lock guard(state->lock);
    while (!state->tasks.empty()) {
      Task task = std::move(state->tasks.front());
      state->tasks.pop_front();
      guard.unlock();
      task();
      guard.lock();
    }
    state->running = false;
  }

  // Delayed tasks of every queue wait on one timer thread, which only moves
  // them onto their queue when they are due.
  static TaskRunLoop& timerLoop() {
    static TaskRunLoop* loop = [] {
      auto* created = new TaskRunLoop;  // lives for the process, like its thread
      std::thread([created] { created->run(); }).detach();
      return created;
    }();
    return *loop;
  }

  std::shared_ptr<State> state_;
};

}  // namespace

std::int64_t SystemClock::nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Steady::now().time_since_epoch()).count() + 1;
}

void SystemClock::sleepNs(std::int64_t ns) {
  if (ns > 0) std::this_thread::sleep_for(std::chrono::nanoseconds(ns));
}

bool SystemClock::waitUntil(std::unique_lock<std::mutex>& lock, Signal& signal, std::int64_t deadlineNs) {
  auto deadline = Steady::time_point(std::chrono::nanoseconds(deadlineNs - 1));
  return signal.condition_.wait_until(lock, deadline) == std::cv_status::no_timeout;
}

void SystemClock::notifyAll(Signal& signal) { signal.condition_.notify_all(); }

std::unique_ptr<SerialQueue> SystemClock::makeSerialQueue(std::string label) {
  return std::make_unique<ThreadSerialQueue>(std::move(label));
}

SystemClock& systemClock() {
  static SystemClock clock;
  return clock;
}

}  // namespace glimmerstrand::platform
