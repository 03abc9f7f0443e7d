// Which desktop the process serves, chosen once at start-up, and the texts
// that differ between desktops. The simulated desktop stands for a Mac and
// shows the Mac's texts; the Linux desktop names its own applications,
// settings and tools. Each such text is one `DesktopText`, written as a pair
// where it is defined, so that both versions are read side by side.
//
// The choice is one process-wide value: set it before any text is read;
// reading it is safe from any thread.
#pragma once

#include <string>

namespace glimmerstrand::core {

enum class Desktop { mac, linuxDesktop };

/// The desktop whose texts and manners the process shows; `mac` until set.
Desktop currentDesktop();
/// Called by the process entry once the platform is chosen (and by tests).
void setCurrentDesktop(Desktop desktop);

/// One text in a version for each desktop.
struct DesktopText {
  std::string mac;
  std::string linuxDesktop;

  const std::string& in(Desktop desktop) const { return desktop == Desktop::linuxDesktop ? linuxDesktop : mac; }
  /// The version of the current desktop.
  const std::string& operator()() const { return in(currentDesktop()); }
};

}  // namespace glimmerstrand::core
