// The Wayland compositor of a headless desktop (`glimmerstrand desktop start
// --wayland sway`): its configuration (no bar, no wallpaper, no Xwayland,
// click to focus), its environment (wlroots' headless backend with the
// software renderer, no input devices), the user it runs as, and when it is
// ready. sway refuses to run as root, so a desktop started by root runs it
// under an unprivileged user of its own, in a runtime folder of that user's
// inside the desktop's folder, which root's applications and daemon reach.
// Plain functions; the caller starts the process.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace glimmerstrand::client {

/// Whom a process runs as.
struct Credentials {
  uid_t uid = 0;
  gid_t gid = 0;
};

/// How to start the compositor.
struct CompositorPlan {
  std::string name;                                // "sway", as the desktop records it
  std::vector<std::string> command;                // the words to run
  std::map<std::string, std::string> environment;  // its whole environment
  std::optional<Credentials> runAs;                // when this process is root
  std::filesystem::path runtime;                   // its XDG_RUNTIME_DIR, where its sockets appear
};

/// The compositors `desktop start --wayland` knows.
bool knownCompositor(const std::string& name);

/// Writes the configuration into `folder` and plans the start; throws
/// GlimmerstrandError when the compositor is unknown or its user can't be had.
CompositorPlan planCompositor(const std::string& name, const std::filesystem::path& folder);

/// Removes the compositor's runtime folder of the desktop in `folder`, once
/// it has stopped.
void removeCompositorFolder(const std::filesystem::path& folder);

/// Once the compositor listens: the variables that lead applications to it
/// (WAYLAND_DISPLAY and SWAYSOCK, as absolute paths), in order; none before.
std::optional<std::vector<std::pair<std::string, std::string>>> compositorSockets(const CompositorPlan& plan);

/// What toolkits need to run as Wayland clients.
const std::vector<std::pair<std::string, std::string>>& waylandToolkitSettings();

/// The sway configuration of a headless desktop: `width` by `height`.
std::string swayConfiguration(int width, int height);

}  // namespace glimmerstrand::client
