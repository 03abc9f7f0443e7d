// sway's own IPC, for what the Wayland protocols leave out: which process
// shows a window (foreign-toplevel handles carry no pid) and where the
// window stands, which a client never learns. Other wlroots compositors
// lack it; the Wayland backend then does without.
//
// Plain functions; each request opens a connection of its own, so any
// thread may call them at once.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/ax_value.h"

namespace glimmerstrand::platform::wayland_desktop {

/// A window of sway's tree.
struct SwayView {
  std::int64_t id = 0;
  std::int32_t pid = 0;
  std::string appId;
  std::string title;
  AxRect frame;          // the window's content on the desktop, without borders
  AxPoint surface;       // where its surface's top-left corner stands (shadows drawn by the client included)
  bool focused = false;  // it has the keyboard focus
  bool visible = false;
  bool operator==(const SwayView&) const = default;
};

/// The windows of a GET_TREE reply, in the tree's order; none when the
/// text is no tree.
std::vector<SwayView> parseSwayTree(const std::string& json);

/// The IPC socket: $SWAYSOCK, else a sway-ipc socket of this user's in
/// $XDG_RUNTIME_DIR that answers.
std::optional<std::string> swaySocket();

/// One request of `type` (0 command, 4 get_tree, 7 get_version) and its
/// reply's text; none when sway does not answer within `limit`.
std::optional<std::string> swayRequest(const std::string& socket, std::uint32_t type, const std::string& payload,
                                       std::chrono::milliseconds limit);

/// A connection subscribed to the events named (a JSON list such as
/// ["window"]), or -1; the caller closes it.
int swaySubscribe(const std::string& socket, const std::string& events);
/// Waits for the next event on a subscribed connection and reads it whole;
/// false when the connection ends (shut down by another thread, or sway gone).
bool swayEvent(int connection);

/// "sway 1.7", from GET_VERSION; none when sway does not answer.
std::optional<std::string> swayVersion(const std::string& socket);

}  // namespace glimmerstrand::platform::wayland_desktop
