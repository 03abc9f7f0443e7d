#include "platform/sim/driven_clock.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace glimmerstrand::platform::sim {

namespace {

// Thrown out of a clock primitive in a worker when the clock is destroyed
// under it: unwinds the task so the worker can end. Not a std::exception, so
// that code which handles ordinary failures lets it pass.
struct ClockStopped {};

thread_local DrivenClock* currentClock = nullptr;
thread_local DrivenClock::Participant* currentParticipant = nullptr;

}  // namespace

struct DrivenClock::Participant {
  std::condition_variable turn;
  bool granted = false;
  Signal* waitingOn = nullptr;
  bool timedOut = false;
  TimerKey timer{-1, 0};
};

struct DrivenClock::Queue {
  std::string label;
  Participant worker;
  std::deque<std::function<void()>> tasks;
  bool idle = true;  // the worker waits for tasks: neither runnable nor timed
};

class DrivenClock::QueueHandle final : public SerialQueue {
 public:
  QueueHandle(DrivenClock& clock, std::shared_ptr<Queue> queue) : clock_(clock), queue_(std::move(queue)) {}
  void async(Task task) override {
    std::lock_guard guard(clock_.lock_);
    clock_.enqueue(queue_, std::move(task));
  }
  void asyncAfter(std::int64_t delayNs, Task task) override {
    std::lock_guard guard(clock_.lock_);
    clock_.arm(clock_.now_ + std::max<std::int64_t>(delayNs, 0), Timer{nullptr, queue_, std::move(task)});
  }

 private:
  DrivenClock& clock_;
  std::shared_ptr<Queue> queue_;
};

class DrivenClock::Loop final : public RunLoop {
 public:
  Loop(DrivenClock& clock, std::unique_ptr<SerialQueue> queue) : clock_(clock), queue_(std::move(queue)) {}
  void post(Task task) override { queue_->async(std::move(task)); }
  void postAfter(std::chrono::nanoseconds delay, Task task) override {
    queue_->asyncAfter(delay.count(), std::move(task));
  }
  // The loop's tasks run on its own worker; run() only lends the caller's
  // time to them, a millisecond at a time, until stop().
  void run() override {
    stopped_ = false;
    while (!stopped_) clock_.sleepNs(1'000'000);
  }
  void stop() override { stopped_ = true; }

 private:
  DrivenClock& clock_;
  std::unique_ptr<SerialQueue> queue_;
  std::atomic<bool> stopped_ = false;
};

DrivenClock::DrivenClock(std::int64_t startNs) : now_(startNs), driver_(std::make_unique<Participant>()) {
  currentClock = this;
  currentParticipant = driver_.get();
  mainLoop_ = std::make_unique<Loop>(*this, makeSerialQueue("main"));
}

DrivenClock::~DrivenClock() {
  {
    std::lock_guard guard(lock_);
    stopping_ = true;
    for (auto& queue : queues_) queue->worker.turn.notify_all();
  }
  for (auto& worker : workers_) worker.join();
  if (currentClock == this) {
    currentClock = nullptr;
    currentParticipant = nullptr;
  }
}

RunLoop& DrivenClock::mainLoop() { return *mainLoop_; }

DrivenClock::Participant& DrivenClock::current() {
  if (currentClock != this || !currentParticipant)
    throw std::logic_error("DrivenClock: called from a thread that is not one of its own");
  return *currentParticipant;
}

std::int64_t DrivenClock::nowNs() {
  std::lock_guard guard(lock_);
  return ++now_;
}

DrivenClock::TimerKey DrivenClock::arm(std::int64_t due, Timer timer) {
  TimerKey key{due, nextOrder_++};
  timers_.emplace(key, std::move(timer));
  return key;
}

void DrivenClock::enqueue(const std::shared_ptr<Queue>& queue, std::function<void()> task) {
  if (stopping_) return;
  queue->tasks.push_back(std::move(task));
  if (queue->idle) {
    queue->idle = false;
    runnable_.push_back(&queue->worker);
  }
}

void DrivenClock::sleepNs(std::int64_t ns) {
  std::unique_lock guard(lock_);
  Participant& self = current();
  self.timer = arm(now_ + std::max<std::int64_t>(ns, 0), Timer{&self, nullptr, {}});
  yieldTurn(guard, self);
}

bool DrivenClock::waitUntil(std::unique_lock<std::mutex>& lock, Signal& signal, std::int64_t deadlineNs) {
  std::unique_lock guard(lock_);
  Participant& self = current();
  if (deadlineNs <= now_) return false;
  self.waitingOn = &signal;
  self.timedOut = false;
  waiters_.emplace(&signal, &self);
  self.timer = arm(deadlineNs, Timer{&self, nullptr, {}});
  lock.unlock();
  yieldTurn(guard, self);
  bool notified = !self.timedOut;
  guard.unlock();
  lock.lock();
  return notified;
}

void DrivenClock::notifyAll(Signal& signal) {
  std::lock_guard guard(lock_);
  auto [first, last] = waiters_.equal_range(&signal);
  for (auto it = first; it != last; ++it) {
    Participant* waiter = it->second;
    timers_.erase(waiter->timer);
    waiter->waitingOn = nullptr;
    runnable_.push_back(waiter);
  }
  waiters_.erase(first, last);
}

std::unique_ptr<SerialQueue> DrivenClock::makeSerialQueue(std::string label) {
  auto queue = std::make_shared<Queue>();
  queue->label = std::move(label);
  {
    std::lock_guard guard(lock_);
    queues_.push_back(queue);
    workers_.emplace_back(&DrivenClock::serve, this, queue);
  }
  return std::make_unique<QueueHandle>(*this, queue);
}

void DrivenClock::runUntilIdle(std::int64_t limitNs) {
  std::unique_lock guard(lock_);
  Participant& self = current();
  idleWaiter_ = &self;
  idleLimitNs_ = now_ + limitNs;
  idleLimitPassed_ = false;
  yieldTurn(guard, self);
  if (idleLimitPassed_) {
    idleLimitPassed_ = false;
    throw std::runtime_error("DrivenClock: still busy after the time limit of runUntilIdle");
  }
}

void DrivenClock::yieldTurn(std::unique_lock<std::mutex>& guard, Participant& self) {
  handOn();
  self.turn.wait(guard, [&] { return self.granted || stopping_; });
  if (!self.granted) throw ClockStopped{};
  self.granted = false;
}

// Gives the turn to the first runnable participant; when there is none,
// moves time to the next timer and fires it. The idle waiter gets the turn
// when nothing at all is left, or when the next timer lies past its limit.
void DrivenClock::handOn() {
  for (;;) {
    if (!runnable_.empty()) {
      Participant* next = runnable_.front();
      runnable_.pop_front();
      next->granted = true;
      next->turn.notify_one();
      return;
    }
    if (idleWaiter_ && (timers_.empty() || timers_.begin()->first.first > idleLimitNs_)) {
      idleLimitPassed_ = !timers_.empty();
      runnable_.push_back(idleWaiter_);
      idleWaiter_ = nullptr;
      continue;
    }
    if (timers_.empty()) {
      std::fputs("DrivenClock: every thread waits and no timer is armed\n", stderr);
      std::abort();
    }
    fire(timers_.begin()->first);
  }
}

void DrivenClock::fire(TimerKey key) {
  auto node = timers_.extract(key);
  now_ = std::max(now_, key.first);
  Timer& timer = node.mapped();
  if (timer.wake) {
    Participant* sleeper = timer.wake;
    if (sleeper->waitingOn) {
      auto [first, last] = waiters_.equal_range(sleeper->waitingOn);
      for (auto it = first; it != last; ++it)
        if (it->second == sleeper) {
          waiters_.erase(it);
          break;
        }
      sleeper->waitingOn = nullptr;
      sleeper->timedOut = true;
    }
    runnable_.push_back(sleeper);
  } else {
    enqueue(timer.queue, std::move(timer.task));
  }
}

void DrivenClock::serve(std::shared_ptr<Queue> queue) {
  currentClock = this;
  currentParticipant = &queue->worker;
  std::unique_lock guard(lock_);
  try {
    for (;;) {
      queue->worker.turn.wait(guard, [&] { return queue->worker.granted || stopping_; });
      if (!queue->worker.granted) return;
      queue->worker.granted = false;
      while (!queue->tasks.empty()) {
        auto task = std::move(queue->tasks.front());
        queue->tasks.pop_front();
        guard.unlock();
        task();
        guard.lock();
      }
      queue->idle = true;
      handOn();
    }
  } catch (const ClockStopped&) {
  }
}

}  // namespace glimmerstrand::platform::sim
