// Moves and resizes of top-level windows, from the X server's ConfigureNotify
// on the root window. Toolkits' own bounds events flood the accessibility bus
// (every widget reports), so window geometry comes from X instead.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/linux/x11_root_events.h"
#include "platform/run_loop.h"

namespace glimmerstrand::platform::linux_desktop {

class WindowGeometryWatch {
 public:
  enum class Change { moved, resized };
  /// Called on the main run loop.
  using Callback = std::function<void(std::int32_t pid, Change change)>;

  /// Listens to the root window's events from now on.
  WindowGeometryWatch(RootWindowEvents& events, RunLoop& mainLoop, Callback callback);

  struct State;

 private:
  std::shared_ptr<State> s_;  // shared with the listener, which outlives no platform
};

}  // namespace glimmerstrand::platform::linux_desktop
