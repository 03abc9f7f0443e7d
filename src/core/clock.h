// The runner's clock: monotonic time and sleeping, replaceable so that tests
// of waits and deadlines run in milliseconds and never flake.
#pragma once

#include <cstdint>

namespace glimmerstrand::core {

class Clock {
 public:
  virtual ~Clock() = default;
  /// Monotonic time in nanoseconds. Callable from any thread.
  virtual std::int64_t nowNs() = 0;
  /// Blocks the calling thread for `ms` milliseconds.
  virtual void sleepMs(double ms) = 0;

  /// The steady clock of the process.
  static Clock& system();
};

}  // namespace glimmerstrand::core
