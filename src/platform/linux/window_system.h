// The windows of a desktop as the workspace needs them: which process is in
// front, and a process's windows brought forward, hidden, shown again and
// closed. X11 and Wayland each have one; the rest of the workspace (the
// applications of the accessibility bus, launching, `.desktop` entries) is
// the same on both.
//
// Thread-safety: any thread; implementations guard their own state.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace glimmerstrand::platform::linux_desktop {

/// A window a person can see now.
struct ShownWindow {
  std::uint64_t id = 0;  // the window system's, for as long as the window lives
  std::int32_t pid = 0;  // 0 where the window system cannot tell
  std::string title;
};

class WindowSystem {
 public:
  virtual ~WindowSystem() = default;
  /// The process whose window is in front; absent when the window system
  /// cannot tell (the workspace then asks the applications themselves).
  virtual std::optional<std::int32_t> frontPid() = 0;
  /// From now on `callback` runs on the main run loop each time another
  /// process comes to the front, once for each; false when the window system
  /// cannot tell, and nothing was registered.
  virtual bool watchActivation(std::function<void(std::int32_t pid)> callback) = 0;
  /// Brings the process's window forward. False when it has none.
  virtual bool activate(std::int32_t pid) = 0;
  virtual bool hide(std::int32_t pid) = 0;
  /// Shows again what hide() hid; true when nothing was hidden.
  virtual bool unhide(std::int32_t pid) = 0;
  /// Whether hide() hid the process's windows and they were not shown since.
  virtual bool isHidden(std::int32_t pid) = 0;
  /// Asks every window of the process to close, as a person would; true
  /// when a request went out.
  virtual bool close(std::int32_t pid) = 0;
  /// Every window shown now, bottom first where the order is known.
  virtual std::vector<ShownWindow> shownWindows() = 0;
};

}  // namespace glimmerstrand::platform::linux_desktop
