// Toolkits that keep their trees nearly empty until an assistive technology
// shows itself, and the call by which one does. Chromium, and every
// application built on it, shows its window and none of its pages until a
// client asks one of its objects for its attributes or its relations, as a
// screen reader does; then it builds the trees of its pages at once. Nothing
// in the session reaches one already running: it reads org.a11y.Status and
// the desktop's settings at start only, and one started while accessibility
// was off never joins the bus. Internal to the Linux backend.
#pragma once

#include <string>
#include <string_view>

#include "platform/linux/gdbus_call.h"

namespace glimmerstrand::platform::linux_desktop {

/// Whether applications of `toolkit` (as `toolkitName` names it) build their
/// trees only for a client that shows itself.
bool waitsForAssistiveClient(std::string_view toolkit);

/// Shows the application on `bus` a client: a call an assistive technology
/// makes anyway, on the application's own object, so that it changes nothing
/// but what the application chooses to expose. Success once it answered.
AxError showAssistiveClient(GDBusConnection* connection, const std::string& bus, int timeoutMs);

}  // namespace glimmerstrand::platform::linux_desktop
