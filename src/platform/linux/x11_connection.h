// Connections to the X server and the facts about its windows that several
// devices share: which top-level window belongs to which process, and where
// it is. Each device opens a connection of its own and guards it with its own
// lock; nothing here keeps state beyond the process-wide setup done once.
// Xlib's types stay out of this header.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/ax_value.h"

struct _XDisplay;

namespace glimmerstrand::platform::linux_desktop {

using XConnection = ::_XDisplay;
using XWindowId = unsigned long;

/// Opens a connection of its own to the server of $DISPLAY. The first call
/// makes Xlib thread-safe and replaces its default error handler, which would
/// end the process when a window vanishes between two requests. Null when no
/// server answers.
XConnection* openX11();
void closeX11(XConnection* connection);

/// A top-level window of an application: the client window itself (inside
/// the window manager's frame when there is one).
struct ClientWindow {
  XWindowId window = 0;
  std::int32_t pid = 0;  // from _NET_WM_PID; 0 when it has none
  bool viewable = false;
  AxRect frame;  // in desktop points, without decorations
  std::string title;
};

/// Every window that names its process, mapped or not, bottom of the stack
/// first: the root's children, or the client windows inside the window
/// manager's frames.
std::vector<ClientWindow> clientWindows(XConnection* connection);
/// The process whose top-level window holds `window`; absent when none names one.
std::optional<std::int32_t> pidOfWindow(XConnection* connection, XWindowId window);
/// The window that has the keyboard focus, climbed up to its client window.
std::optional<ClientWindow> focusedClient(XConnection* connection);
/// Whether a window manager that keeps EWMH properties runs.
bool hasWindowManager(XConnection* connection);
/// The window the window manager calls active; absent without one.
std::optional<XWindowId> activeWindow(XConnection* connection);
/// The topmost viewable client window of `pid`.
std::optional<ClientWindow> topWindowOf(XConnection* connection, std::int32_t pid);

}  // namespace glimmerstrand::platform::linux_desktop
