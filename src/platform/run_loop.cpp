#include "platform/run_loop.h"

namespace glimmerstrand::platform {

void TaskRunLoop::post(Task task) { postAfter(std::chrono::nanoseconds(0), std::move(task)); }

void TaskRunLoop::postAfter(std::chrono::nanoseconds delay, Task task) {
  {
    std::lock_guard guard(lock_);
    tasks_.push(Timed{Clock::now() + delay, nextOrder_++, std::move(task)});
  }
  wake_.notify_one();
}

void TaskRunLoop::run() {
  std::unique_lock guard(lock_);
  stopped_ = false;
  while (!stopped_) {
    if (tasks_.empty()) {
      wake_.wait(guard);
      continue;
    }
    auto due = tasks_.top().due;
    if (due > Clock::now()) {
      wake_.wait_until(guard, due);
      continue;
    }
    Task task = std::move(const_cast<Timed&>(tasks_.top()).task);
    tasks_.pop();
    guard.unlock();
    task();
    guard.lock();
  }
}

void TaskRunLoop::stop() {
  {
    std::lock_guard guard(lock_);
    stopped_ = true;
  }
  wake_.notify_all();
}

}  // namespace glimmerstrand::platform
