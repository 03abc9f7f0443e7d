// Moves and resizes of top-level windows, from the X server's ConfigureNotify
// on the root window. Toolkits' own bounds events flood the accessibility bus
// (every widget reports), so window geometry comes from X instead.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace glimmerstrand::platform::linux_desktop {

class WindowGeometryWatch {
 public:
  enum class Change { moved, resized };
  /// Called on the watch's own thread, never with a lock of the watch held.
  using Callback = std::function<void(std::int32_t pid, Change change)>;

  /// Starts watching on a thread and an X connection of its own; null when
  /// no X server answers.
  static std::unique_ptr<WindowGeometryWatch> start(Callback callback);
  /// Stops the thread and closes its connection.
  ~WindowGeometryWatch();
  WindowGeometryWatch(const WindowGeometryWatch&) = delete;
  WindowGeometryWatch& operator=(const WindowGeometryWatch&) = delete;

  struct State;

 private:
  explicit WindowGeometryWatch(std::unique_ptr<State> state);
  std::unique_ptr<State> s_;
};

}  // namespace glimmerstrand::platform::linux_desktop
