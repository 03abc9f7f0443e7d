// The Linux desktop as a Platform: AT-SPI2 for accessibility, the GLib main
// loop as the main run loop. Made once at start by selectPlatform.
#pragma once

#include <memory>
#include <string>

#include "platform/platform.h"

namespace glimmerstrand::platform::linux_desktop {

/// The platform, or null with the reason in `problem` (no session bus, no
/// accessibility bus). Never aborts the process.
std::unique_ptr<Platform> makeLinuxPlatform(std::string& problem);

}  // namespace glimmerstrand::platform::linux_desktop
