// Displays and capture on a wlroots desktop: displays are the compositor's
// outputs; pixels come through the screencopy protocol, a region of one
// output into a shared-memory buffer of ours. One application's windows
// alone are its windows' rectangles (from sway's IPC) cut out of the
// region; what lies on top of them shows, as Wayland copies only what the
// screen shows. Screen recording asks no permission here: a compositor that
// offers screencopy lets any of its clients copy.
//
// Thread-safety: any thread; each capture runs on an event queue of its own,
// on the calling thread, and keeps no state.
#pragma once

#include "platform/screen.h"
#include "platform/wayland/wayland_client.h"

namespace glimmerstrand::platform::wayland_desktop {

class WaylandScreen final : public Screen {
 public:
  /// `client` outlives this object.
  explicit WaylandScreen(WaylandClient& client);

  /// Whether the compositor offers screencopy.
  bool canCapture() const;

  std::vector<Display> displays() override;
  bool hasCapturePermission() override { return canCapture(); }
  bool requestCapturePermission() override { return canCapture(); }
  std::optional<Pixels> capture(const AxRect& region, double scale, std::optional<std::int32_t> pid) override;

 private:
  WaylandClient& client_;
};

/// Pixels of a shared-memory buffer in one of the formats compositors copy
/// into (wl_shm's ARGB8888, XRGB8888, ABGR8888, XBGR8888), as top-down RGBA;
/// none for another format.
std::optional<Pixels> rgbaOf(const std::uint8_t* data, std::uint32_t format, std::int64_t width, std::int64_t height,
                             std::int64_t stride, bool upsideDown);

}  // namespace glimmerstrand::platform::wayland_desktop
