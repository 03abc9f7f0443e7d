#include "core/clock.h"

#include <chrono>
#include <thread>

namespace glimmerstrand::core {
namespace {

class SystemClock final : public Clock {
 public:
  std::int64_t nowNs() override {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  void sleepMs(double ms) override {
    if (ms > 0) std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(ms));
  }
};

}  // namespace

Clock& Clock::system() {
  static SystemClock clock;
  return clock;
}

}  // namespace glimmerstrand::core
