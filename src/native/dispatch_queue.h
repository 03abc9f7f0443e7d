// Work queues of the line host and the driver: a serial queue runs its tasks
// one at a time in arrival order on one worker; a concurrent queue runs them in
// parallel, starting a worker whenever none is idle, so that a slow task (a
// launch, a hanging press) never holds up the tasks behind it.
//
// Workers are detached and never joined: the process ends with _exit while
// they run. A queue's state is shared with its workers, so destroying the
// queue object while tasks run is safe; the tasks still finish.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace glimmerstrand::native {

class DispatchQueue {
 public:
  using Task = std::function<void()>;
  enum class Kind { serial, concurrent };

  DispatchQueue(std::string label, Kind kind);
  ~DispatchQueue();
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  const std::string& label() const;

  /// Queues the task and returns at once.
  void async(Task task);
  /// Runs the task on the queue and waits for it; its exception, if any, is
  /// rethrown here. REQUIRES: not called from a task of this serial queue.
  void sync(const Task& task);

  struct State;

 private:
  std::shared_ptr<State> state_;
};

/// The queues every operation runs on; made before the mode is chosen,
/// because the driver runs its input through `input` in both modes.
struct Queues {
  DispatchQueue input{"glimmerstrand.input", DispatchQueue::Kind::serial};
  DispatchQueue work{"glimmerstrand.work", DispatchQueue::Kind::concurrent};
};

}  // namespace glimmerstrand::native
