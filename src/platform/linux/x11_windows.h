// The windows of an X11 desktop: the front from the window manager's
// _NET_ACTIVE_WINDOW, or without one from the input focus; activation,
// iconifying, mapping and polite closing through EWMH messages, or directly
// without a window manager. Activations are told from the root window's
// property changes, read on the main run loop.
//
// Thread-safety: any thread. One mutex guards the X connection, the windows
// hidden and the callbacks; it is never held while a callback runs.
#pragma once

#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "platform/linux/window_system.h"
#include "platform/linux/x11_connection.h"
#include "platform/linux/x11_root_events.h"
#include "platform/run_loop.h"

namespace glimmerstrand::platform::linux_desktop {

class X11Windows final : public WindowSystem {
 public:
  /// `rootEvents` (null without an X server) and `mainLoop` outlive this object.
  X11Windows(RunLoop& mainLoop, RootWindowEvents* rootEvents);
  ~X11Windows() override;

  std::optional<std::int32_t> frontPid() override;
  bool watchActivation(std::function<void(std::int32_t pid)> callback) override;
  bool activate(std::int32_t pid) override;
  bool hide(std::int32_t pid) override;
  bool unhide(std::int32_t pid) override;
  bool isHidden(std::int32_t pid) override;
  bool close(std::int32_t pid) override;
  std::vector<ShownWindow> shownWindows() override;

 private:
  void activeWindowChanged();

  RunLoop& mainLoop_;
  RootWindowEvents* rootEvents_;
  std::mutex lock_;
  XConnection* x_ = nullptr;
  std::map<std::int32_t, std::set<XWindowId>> hidden_;  // windows hidden here, by process
  std::vector<std::function<void(std::int32_t)>> callbacks_;
  bool watching_ = false;                      // set once, under lock_
  unsigned long activeWindowAtom_ = 0;         // set with watching_
  std::optional<std::int32_t> lastActivePid_;  // main run loop only: each activation is told once
};

}  // namespace glimmerstrand::platform::linux_desktop
