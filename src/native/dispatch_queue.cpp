#include "native/dispatch_queue.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <future>
#include <mutex>
#include <thread>

namespace glimmerstrand::native {

struct DispatchQueue::State {
  State(std::string label, Kind kind)
      : label(std::move(label)), kind(kind), maxWorkers(kind == Kind::serial ? 1 : 64) {}

  const std::string label;
  const Kind kind;
  // Ceiling on parallel workers; beyond it tasks wait their turn.
  const std::size_t maxWorkers;

  std::mutex lock;  // guards the fields below
  std::condition_variable ready;
  std::deque<Task> tasks;
  std::size_t workers = 0;
  std::size_t idle = 0;
};

namespace {

// An idle worker of a concurrent queue leaves after this long without work.
constexpr auto idleLifetime = std::chrono::seconds(10);

void work(std::shared_ptr<DispatchQueue::State> state) {
  std::unique_lock guard(state->lock);
  for (;;) {
    if (state->tasks.empty()) {
      ++state->idle;
      bool woke = state->ready.wait_for(guard, idleLifetime, [&] { return !state->tasks.empty(); });
      --state->idle;
      if (!woke) {
        --state->workers;
        return;
      }
    }
    auto task = std::move(state->tasks.front());
    state->tasks.pop_front();
    guard.unlock();
    task();
    guard.lock();
  }
}

}  // namespace

DispatchQueue::DispatchQueue(std::string label, Kind kind) : state_(std::make_shared<State>(std::move(label), kind)) {}

DispatchQueue::~DispatchQueue() = default;

const std::string& DispatchQueue::label() const { return state_->label; }

void DispatchQueue::async(Task task) {
  bool spawn = false;
  {
    std::lock_guard guard(state_->lock);
    state_->tasks.push_back(std::move(task));
    if (state_->idle < state_->tasks.size() && state_->workers < state_->maxWorkers) {
      ++state_->workers;
      spawn = true;
    }
  }
  if (spawn) std::thread(work, state_).detach();
  state_->ready.notify_one();
}

void DispatchQueue::sync(const Task& task) {
  std::promise<void> done;
  auto finished = done.get_future();
  async([&] {
    try {
      task();
      done.set_value();
    } catch (...) {
      done.set_exception(std::current_exception());
    }
  });
  finished.get();
}

}  // namespace glimmerstrand::native
