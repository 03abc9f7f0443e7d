// Chooses the platform once, at start, from GLIMMERSTRAND_PLATFORM: "sim"
// (the simulated desktop, with applications from GLIMMERSTRAND_SIM_APPS or
// the built-in demo set), "linux", or a list such as "linux,sim" whose first
// available entry wins. Unset means "linux". When nothing is available the
// process still runs, and operations that need the platform fail with the
// reason given here.
#pragma once

#include <memory>
#include <string>

#include "platform/platform.h"

namespace glimmerstrand::platform {

struct PlatformChoice {
  std::unique_ptr<Platform> platform;  // null when none could be made
  std::string problem;                 // why not; empty when there is a platform
};

/// The arguments are the values of the two variables, or null when unset.
PlatformChoice selectPlatform(const char* platformNames, const char* simApps);

}  // namespace glimmerstrand::platform
