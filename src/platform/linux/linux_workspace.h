// The running applications of the Linux desktop, as the accessibility bus
// knows them (every application that exposes a tree, with its pid, name and
// executable), their windows through the desktop's window system (X11 or
// Wayland: the front, activation, hiding, polite closing) and the installed
// applications of the XDG data folders' `.desktop` entries. Callable from
// any thread; the workspace keeps no state of its own beyond what its parts
// guard. Activations come from the window system where it tells them, else
// from the applications' own window activation events.
#pragma once

#include <cstdint>
#include <optional>
#include <set>

#include "platform/linux/atspi_accessibility.h"
#include "platform/linux/window_system.h"
#include "platform/workspace.h"

namespace glimmerstrand::platform::linux_desktop {

class LinuxWorkspace final : public Workspace {
 public:
  /// Both outlive the workspace.
  LinuxWorkspace(AtspiAccessibility& accessibility, WindowSystem& windows);

  std::vector<RunningApplication> runningApplications() override;
  std::optional<RunningApplication> application(std::int32_t pid) override;
  std::optional<std::int32_t> windowOwner(const std::string& text) override;
  std::optional<RunningApplication> frontmost() override;
  void observeActivation(std::function<void(const RunningApplication&)> callback) override;
  bool activate(std::int32_t pid) override;
  bool hide(std::int32_t pid) override;
  bool unhide(std::int32_t pid) override;
  bool terminate(std::int32_t pid) override;
  void launch(const LaunchRequest& request, OpenCompletion done) override;
  void openURL(const std::string& url, bool activates, OpenCompletion done) override;
  std::optional<std::string> applicationForURL(const std::string& url) override;
  std::vector<InstalledApplication> installedApplications() override;
  std::vector<std::string> applicationDirectories() override;
  std::optional<std::int32_t> filePanelProcess(std::int32_t pid) override;

 private:
  RunningApplication recordOf(const BusApplication& app);
  std::set<std::uint64_t> windowIds();
  /// The application a launch led to: the launched process or one it
  /// started, else, once the launcher has ended (or with none, when the
  /// application was asked over D-Bus to start), the owner of a window that
  /// was not there before it (a running copy that took the launch over).
  std::optional<RunningApplication> launchedApplication(std::optional<std::int32_t> launcher,
                                                        const std::set<std::uint64_t>& before);

  AtspiAccessibility& ax_;
  WindowSystem& windows_;
};

}  // namespace glimmerstrand::platform::linux_desktop
