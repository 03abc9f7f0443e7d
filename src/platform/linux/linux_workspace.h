// The running applications of the Linux desktop, as the accessibility bus
// knows them (every application that exposes a tree, with its pid, name and
// executable), their windows on X11 (the front, activation, hiding, polite
// closing) and the installed applications of the XDG data folders'
// `.desktop` entries. Callable from any thread: one mutex guards the X
// connection, the windows this workspace hid and the activation callbacks;
// it is never held across a call on the accessibility bus or into a callback.
// With a window manager, activations come from its _NET_ACTIVE_WINDOW, read
// from the root window's events on the main run loop; without one, from the
// applications' own window activation events.
#pragma once

#include <memory>
#include <mutex>
#include <set>

#include "platform/linux/atspi_accessibility.h"
#include "platform/linux/x11_connection.h"
#include "platform/linux/x11_root_events.h"
#include "platform/run_loop.h"
#include "platform/workspace.h"

namespace glimmerstrand::platform::linux_desktop {

class LinuxWorkspace final : public Workspace {
 public:
  LinuxWorkspace(AtspiAccessibility& accessibility, RunLoop& mainLoop, RootWindowEvents* rootEvents);
  ~LinuxWorkspace() override;

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
  std::optional<std::int32_t> frontPid();
  std::set<XWindowId> windowIds();
  /// The application a launch led to: the launched process or one it
  /// started, else, once the launcher has ended, the owner of a window that
  /// was not there before it (a running copy that took the launch over).
  std::optional<RunningApplication> launchedApplication(std::int32_t launcher, const std::set<XWindowId>& before);
  bool watchActiveWindow();
  void activeWindowChanged();
  using ActivationCallback = std::function<void(const RunningApplication&)>;

  AtspiAccessibility& ax_;
  RunLoop& mainLoop_;
  std::mutex lock_;
  XConnection* x_ = nullptr;
  std::map<std::int32_t, std::set<XWindowId>> hidden_;  // windows this workspace hid, by process
  std::vector<ActivationCallback> activationCallbacks_;
  RootWindowEvents* rootEvents_;               // null without an X server
  bool watching_ = false;                      // set once, under lock_
  unsigned long activeWindowAtom_ = 0;         // set with watching_
  std::optional<std::int32_t> lastActivePid_;  // main run loop only: each activation is told once
};

}  // namespace glimmerstrand::platform::linux_desktop
