// `glimmerstrand desktop`: a headless desktop of this user's for agents and
// tests, made of an X server, a session bus, the accessibility bus, a window
// manager and applications. Everything it starts is recorded by pid in one
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

namespace glimmerstrand::client {

/// $GLIMMERSTRAND_DESKTOP_DIR, else a folder of this user's under
/// /run/user/UID or /tmp. Not taken from XDG_RUNTIME_DIR: the desktop's own
/// environment changes that, and `stop` after an eval must find the same folder.
std::filesystem::path desktopFolder(const Environment& environment);

/// What `desktop start` was asked for.
struct DesktopRequest {
  bool windowManager = true;
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

/// TERM to each recorded process, last started first, then KILL to those
/// still alive after a grace period. Returns what was recorded.
std::vector<DesktopProcess> stopDesktop(const std::filesystem::path& folder);

/// The environment of a desktop that runs in `folder`: its file exists and
/// its X server lives.
std::optional<std::map<std::string, std::string>> runningDesktopEnvironment(const std::filesystem::path& folder);

/// `export NAME='value'` lines, quoted for any shell's eval, and back.
std::string exportLines(const std::vector<std::pair<std::string, std::string>>& variables);
std::vector<std::pair<std::string, std::string>> parseExportLines(const std::string& text);

/// Before the client starts a daemon: when this process has no display
/// (neither DISPLAY nor WAYLAND_DISPLAY) and a desktop of ours runs, takes
/// that desktop's environment, which the daemon inherits. Returns whether it did.
bool adoptRunningDesktop();

/// The words after `glimmerstrand desktop`, already checked by the argument
/// parser; returns the exit status. Failures throw GlimmerstrandError.
int runDesktopCommand(const std::vector<std::string>& words);

}  // namespace glimmerstrand::client
