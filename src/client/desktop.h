// `glimmerstrand desktop`: a headless desktop of this user's for agents and
// tests, made of an X server and a window manager (or a Wayland compositor,
// desktop_compositor.h), a session bus, the accessibility bus and
// applications. Everything it starts is recorded by pid in one
// folder, so that `stop` ends exactly that and nothing else. Not thread-safe:
// the client calls it from its one thread.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/daemon_process.h"
#include "platform/headless_desktop.h"

namespace glimmerstrand::client {

/// The desktop's folder (platform/headless_desktop.h).
std::filesystem::path desktopFolder(const Environment& environment);

/// What `desktop start` was asked for.
struct DesktopRequest {
  bool windowManager = true;
  std::string compositor;                 // a Wayland compositor to run instead of an X server ("sway"); empty for X11
  std::vector<std::string> applications;  // each a command with optional arguments: "python3 form.py 20"
};

/// One recorded process of a desktop.
struct DesktopProcess {
  pid_t pid = 0;
  std::string name;
  bool running = false;
};

/// Starts the desktop and each application, which is ready when its tree
/// answers on the accessibility bus; returns the environment as lines of
/// `export NAME='value'`. On any failure it stops what it started and throws
/// GlimmerstrandError naming the part that failed and its log.
std::string startDesktop(const std::filesystem::path& folder, const DesktopRequest& request);

/// The processes recorded in `folder`, in start order; none when no desktop
/// was started there.
std::optional<std::vector<DesktopProcess>> desktopProcesses(const std::filesystem::path& folder);

/// TERM to each recorded process, last started first, and before them to
/// what they or the daemon started on the desktop (the processes that carry
/// its mark, platform/headless_desktop.h), then KILL to those still alive
/// after a grace period. Returns the processes, in start order, the
/// unrecorded ones last.
std::vector<DesktopProcess> stopDesktop(const std::filesystem::path& folder);

// How other processes find a running desktop, its export lines, and the
// adoption of its environment before the client starts a daemon: shared with
// the daemon, which looks for the desktop itself too.
using platform::adoptRunningDesktop;
using platform::exportLines;
using platform::parseExportLines;
using platform::runningDesktopEnvironment;

/// The words after `glimmerstrand desktop`, already checked by the argument
/// parser; returns the exit status. Failures throw GlimmerstrandError.
int runDesktopCommand(const std::vector<std::string>& words);

}  // namespace glimmerstrand::client
