// Chooses the platform at start, from GLIMMERSTRAND_PLATFORM: "sim" (the
// simulated desktop, with applications from GLIMMERSTRAND_SIM_APPS or the
// built-in demo set), "linux" (the session's desktop: Wayland on a wlroots
// compositor where WAYLAND_DISPLAY is set, else X11), "wayland" or "x11" (only
// that one), or a list such as "linux,sim" whose first available entry wins.
// Unset means "linux". When nothing is available the
// process still runs, and operations that need the platform fail with the
// reason given here.
//
// A Linux desktop needs a display. A process without one takes the
// environment of a headless desktop of ours when one runs
// (headless_desktop.h); without either it asks no bus, and says how to start
// a desktop.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "platform/platform.h"

namespace glimmerstrand::platform {

struct PlatformChoice {
  std::unique_ptr<Platform> platform;  // null when none could be made
  std::string problem;                 // why not; empty when there is a platform
};

/// The arguments are the values of the two variables, or null when unset.
PlatformChoice selectPlatform(const char* platformNames, const char* simApps);

/// The platform of a process that may start before its desktop: chosen at
/// start by selectPlatform, and, when none could be made and the list names
/// linux, looked for again when asked, at most once a second, so that a
/// desktop that comes later (`glimmerstrand desktop start`, or the user's
/// login) serves the process without a restart.
///
/// Thread-safe. `lock_` guards the bookkeeping of attempts and the problem;
/// an attempt itself (bus calls with their own time limits) runs outside it,
/// on the thread that asked, and others asking meanwhile get the last
/// problem at once. A platform, once made, stays for the life of the process.
class PlatformSource {
 public:
  PlatformSource(const char* platformNames, const char* simApps);
  PlatformSource(const PlatformSource&) = delete;
  PlatformSource& operator=(const PlatformSource&) = delete;

  /// The platform, or null with why not in `problem`.
  Platform* find(std::string& problem);
  /// "sim" or "linux": the platform's name, or while there is none, that of
  /// the desktop that may come. It decides the texts the process shows.
  std::string desktopName() const;
  /// The main thread's loop: the platform's, or while there is none, one that
  /// a Linux platform made later shares (both serve GLib's default context).
  RunLoop& mainLoop() { return *mainLoop_; }

 private:
  using Clock = std::chrono::steady_clock;

  std::string firstName_;
  bool looksAgain_ = false;
  int kindLater_ = 0;  // the session kind of the Linux entry looked for later
  std::unique_ptr<Platform> atStart_;
  std::unique_ptr<RunLoop> waitingLoop_;  // the main loop while there is no platform
  RunLoop* mainLoop_ = nullptr;
  std::atomic<Platform*> platform_{nullptr};

  std::mutex lock_;
  std::unique_ptr<Platform> later_;  // guarded by lock_
  std::string problem_;              // guarded by lock_
  Clock::time_point nextAttempt_;    // guarded by lock_
  bool attempting_ = false;          // guarded by lock_
};

}  // namespace glimmerstrand::platform
