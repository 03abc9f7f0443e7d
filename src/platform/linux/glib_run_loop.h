// The main run loop as a GLib main loop on the process's default main
// context, so that D-Bus signal callbacks and our own tasks share one thread.
#pragma once

#include <memory>

#include "platform/run_loop.h"

namespace glimmerstrand::platform::linux_desktop {

class GlibRunLoop final : public RunLoop {
 public:
  GlibRunLoop();
  ~GlibRunLoop() override;
  void post(Task task) override;
  void postAfter(std::chrono::nanoseconds delay, Task task) override;
  void run() override;
  void stop() override;

 private:
  struct Loop;
  std::unique_ptr<Loop> loop_;
};

}  // namespace glimmerstrand::platform::linux_desktop
