// The long-lived daemon of a user: state folder, lock file, socket probe,
// the gateway, signals, and the main run loop.
#pragma once

#include <filesystem>
#include <string>

#include "core/runner.h"
#include "native/mirror_operations.h"
#include "platform/run_loop.h"

namespace glimmerstrand::native {

/// $XDG_STATE_HOME/glimmerstrand, else ~/.local/state/glimmerstrand.
std::filesystem::path stateFolder();

/// Whether a daemon answers a ping on `path` within `timeoutMs`.
bool probeSocket(const std::string& path, int timeoutMs);

/// What the daemon serves with; made by the process entry before the mode is
/// chosen.
struct DaemonParts {
  core::CypherRunner& runner;
  MirrorHost& host;
  platform::RunLoop& mainLoop;
};

/// Starts the daemon and runs the main loop; returns only the exit status of
/// a failed start (1). A signal ends the process with status 0.
int runDaemon(DaemonParts parts);

}  // namespace glimmerstrand::native
