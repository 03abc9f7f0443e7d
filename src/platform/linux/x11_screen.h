// Displays and capture on X11: displays from XRandR, pixels through MIT-SHM
// (XGetImage where shared memory is missing), and one process's windows
// alone through XComposite, which keeps a window's own pixels even where
// another covers it. Screen recording needs no permission on X11.
//
// Thread-safety: any thread; one mutex guards the connection and the set of
// windows already redirected.
#pragma once

#include <mutex>
#include <set>

#include "platform/linux/x11_connection.h"
#include "platform/screen.h"

namespace glimmerstrand::platform::linux_desktop {

class X11Screen final : public Screen {
 public:
  X11Screen();
  ~X11Screen() override;

  std::vector<Display> displays() override;
  bool hasCapturePermission() override { return true; }
  bool requestCapturePermission() override { return true; }
  std::optional<Pixels> capture(const AxRect& region, double scale, std::optional<std::int32_t> pid) override;

 private:
  std::mutex lock_;
  XConnection* x_ = nullptr;
  bool shm_ = false;
  std::set<XWindowId> redirected_;  // windows whose contents the server keeps off screen
};

}  // namespace glimmerstrand::platform::linux_desktop
