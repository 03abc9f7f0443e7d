// A headless desktop for one test or bench program: scripts/desktop.sh
// started with the applications a suite names, its environment taken into
// this process, and everything stopped by pid when the suite ends. The
// applications get settings of their own: an editor that finds the session
// of one stopped earlier asks to restore it instead of showing its window.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace glimmerstrand::testing {

class TestDesktop {
 public:
  /// Starts the desktop (with openbox when `windowManager`; a headless
  /// Wayland compositor instead of X11 when `compositor` names one, "sway")
  /// and the applications, each ready when its tree answers. Throws when it
  /// can't.
  TestDesktop(const std::vector<std::string>& applications, bool windowManager = false,
              const std::string& compositor = "");
  ~TestDesktop();
  TestDesktop(const TestDesktop&) = delete;
  TestDesktop& operator=(const TestDesktop&) = delete;

  /// The pid of an application started by name ("gtk3-widget-factory").
  std::int32_t pid(const std::string& application) const;
  /// Where the desktop keeps its logs, buses and the applications' settings.
  const std::string& folder() const { return folder_; }
  /// The desktop's environment, as the script printed it.
  const std::map<std::string, std::string>& environment() const { return environment_; }

 private:
  std::string folder_;
  std::map<std::string, std::string> environment_;
};

/// A suite's desktop (see TestDesktop), or null with the reason in
/// `problem`, so that each case can say why it cannot run.
TestDesktop* startDesktop(const std::vector<std::string>& applications, std::string& problem, bool windowManager = true,
                          const std::string& compositor = "");

/// Polls `condition` every 20 ms until it holds or `limit` passes.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = std::chrono::seconds(5));

/// The window that has the X input focus on the desktop of $DISPLAY.
unsigned long inputFocus();

}  // namespace glimmerstrand::testing
