// The windows of a wlroots desktop: listed, activated, minimised and closed
// through the foreign-toplevel protocol, whose handles carry an app id and a
// title but no pid. Pids come from sway's IPC where it runs, else from the
// applications of the accessibility bus whose executable or name matches the
// app id. sway's IPC also tells where each window stands, which places the
// frames that Wayland clients tell relative to their window.
//
// Thread-safety: any thread. The handles' events arrive on the client's event
// thread; one mutex, in the shared state, guards the toplevels, the hidden
// windows, the callbacks and the cached sway tree, and is never held across a
// request to sway or a callback. The geometry watch's thread keeps its last
// tree to itself.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/atspi_accessibility.h"
#include "platform/linux/window_placement.h"
#include "platform/linux/window_system.h"
#include "platform/run_loop.h"
#include "platform/wayland/sway_ipc.h"
#include "platform/wayland/wayland_client.h"

namespace glimmerstrand::platform::wayland_desktop {

/// A toplevel as the compositor tells it.
struct Toplevel {
  std::uint64_t id = 0;  // ours, for as long as the window lives
  std::string title;
  std::string appId;
  bool activated = false;
  bool minimized = false;
  std::int32_t pid = 0;  // 0 while unknown
};

/// A running application a toplevel may belong to.
struct PidCandidate {
  std::int32_t pid = 0;
  std::string executable;  // the file name of /proc/PID/exe
  std::string name;        // as the accessibility bus names it
};

/// A window's frame before and after: whether it moved or changed its size.
struct FrameChange {
  std::int32_t pid = 0;
  bool resized = false;
  bool operator==(const FrameChange&) const = default;
};
/// The windows whose frame changed from one of sway's trees to the next, by
/// window; a new window counts, one that left does not.
std::vector<FrameChange> frameChanges(const std::vector<SwayView>& before, const std::vector<SwayView>& after);

/// The pid of the application whose executable or name is the app id, in
/// any letter case, or the app id's last dotted part ("org.xfce.mousepad"
/// is mousepad's); 0 when none or several match.
std::int32_t pidForAppId(const std::string& appId, const std::vector<PidCandidate>& candidates);

class WaylandWindows final : public linux_desktop::WindowSystem, public linux_desktop::WindowPlacement {
 public:
  /// All three outlive this object.
  WaylandWindows(WaylandClient& client, RunLoop& mainLoop, linux_desktop::AtspiAccessibility& accessibility);
  ~WaylandWindows() override;
  WaylandWindows(const WaylandWindows&) = delete;
  WaylandWindows& operator=(const WaylandWindows&) = delete;

  /// Whether the compositor offers the foreign-toplevel protocol.
  bool listsWindows() const;
  /// Whether sway's IPC answers: pids and window places.
  bool knowsPlaces() const;
  /// Every toplevel, oldest first, with its pid where known.
  std::vector<Toplevel> toplevels();

  std::optional<std::int32_t> frontPid() override;
  bool watchActivation(std::function<void(std::int32_t pid)> callback) override;
  bool activate(std::int32_t pid) override;
  bool hide(std::int32_t pid) override;
  std::vector<linux_desktop::ShownWindow> shownWindows() override;
  bool unhide(std::int32_t pid) override;
  bool isHidden(std::int32_t pid) override;
  bool close(std::int32_t pid) override;
  std::optional<AxPoint> origin(std::int32_t pid, std::string_view title) override;
  /// From sway's window and workspace events: each one reads the tree again
  /// and tells the windows whose frame changed (a new window re-tiles the
  /// others). A thread of its own listens; it ends with this object.
  bool watchGeometry(std::function<void(std::int32_t pid, bool resized)> callback) override;

  /// The toplevel that has the keyboard focus, as last told.
  std::optional<std::uint64_t> activeToplevel();
  /// Gives the keyboard focus to a toplevel of `pid` now, in the order of
  /// this connection's requests: keys sent after it reach that window.
  /// The toplevel, or none when the process has none.
  std::optional<std::uint64_t> focus(std::int32_t pid);
  /// Gives the keyboard focus back to a toplevel, by id.
  void focusToplevel(std::uint64_t id);

  struct State;

 private:
  std::shared_ptr<State> s_;
};

}  // namespace glimmerstrand::platform::wayland_desktop
