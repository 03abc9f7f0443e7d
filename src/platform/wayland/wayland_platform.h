// The Linux desktop of a Wayland session on a wlroots compositor as a
// Platform: the AT-SPI accessibility and the workspace of the Linux backend,
// shared with X11, and our own Wayland client for input, windows, the
// clipboard, capture and the cursor. Made once at start by selectPlatform.
#pragma once

#include <memory>
#include <string>

#include "platform/platform.h"

namespace glimmerstrand::platform::wayland_desktop {

/// The platform, or null with the reason in `problem`: no compositor at
/// $WAYLAND_DISPLAY, one that speaks none of the wlroots protocols, or no
/// accessibility bus. Never aborts the process.
std::unique_ptr<Platform> makeWaylandPlatform(std::string& problem);

}  // namespace glimmerstrand::platform::wayland_desktop
