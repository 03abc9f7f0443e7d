// The running and installed applications: which runs, which is in front,
// activation, hiding, polite termination, launching, and opening URLs.
// Callable from any thread; activation callbacks arrive on the main run loop.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace glimmerstrand::platform {

struct RunningApplication {
  std::int32_t pid = 0;
  std::string bundleId;    // empty when the application has none
  std::string name;        // its localised display name; may be empty
  std::string bundlePath;  // the installed bundle or executable; may be empty
  bool regular = true;     // shows in the dock / task list
  bool hidden = false;
  bool terminated = false;
  bool finishedLaunching = true;
  bool operator==(const RunningApplication&) const = default;
};

struct InstalledApplication {
  std::string bundleId;
  std::string path;
  std::map<std::string, std::string> names;  // display name by language ("en", "ja", ...)
  bool operator==(const InstalledApplication&) const = default;
};

/// What to launch: an installed application by bundle id or by path.
struct LaunchRequest {
  std::string bundleId;
  std::string path;
  bool activates = true;
};

/// What a launch or an open brought: the application that took it, or why
/// it failed (a description for a person). Both may be absent: done, with no
/// application known.
struct OpenOutcome {
  std::optional<RunningApplication> app;
  std::optional<std::string> error;
};
/// Called once when a launch or an open has finished, on any thread, possibly
/// before the call that started it returns; possibly never.
using OpenCompletion = std::function<void(const OpenOutcome&)>;

class Workspace {
 public:
  virtual ~Workspace() = default;

  /// Every running application, in a stable order (the order they started).
  virtual std::vector<RunningApplication> runningApplications() = 0;
  /// The running application with this pid; absent when none runs.
  virtual std::optional<RunningApplication> application(std::int32_t pid) = 0;
  virtual std::optional<RunningApplication> frontmost() = 0;
  /// `callback` runs on the main run loop each time an application comes to
  /// the front. Registrations last as long as the workspace.
  virtual void observeActivation(std::function<void(const RunningApplication&)> callback) = 0;

  /// Brings the application to the front. False when it does not run.
  virtual bool activate(std::int32_t pid) = 0;
  virtual bool hide(std::int32_t pid) = 0;
  virtual bool unhide(std::int32_t pid) = 0;
  /// Asks the application to quit, as a user would. True when the request
  /// was delivered; the application may still refuse.
  virtual bool terminate(std::int32_t pid) = 0;
  /// Starts an installed application, or finds it running; with `activates`
  /// it comes to the front. Returns at once; `done` reports the outcome.
  virtual void launch(const LaunchRequest& request, OpenCompletion done) = 0;
  /// Opens a URL (or a file URL) with its default application. Returns at
  /// once; `done` reports the outcome.
  virtual void openURL(const std::string& url, bool activates, OpenCompletion done) = 0;
  /// The bundle path of the default application for a URL.
  virtual std::optional<std::string> applicationForURL(const std::string& url) = 0;
  /// Every installed application, running or not, in a stable order.
  virtual std::vector<InstalledApplication> installedApplications() = 0;
  /// The folders that hold installed applications, in the order a search by
  /// name goes through them.
  virtual std::vector<std::string> applicationDirectories() = 0;
  /// The process that draws the open and save panels of `pid`, where the
  /// platform runs them in a process of their own; absent otherwise.
  virtual std::optional<std::int32_t> filePanelProcess(std::int32_t pid) = 0;
  /// The process of a window whose title holds `text`, case aside: one
  /// process may show many documents under names of their own, as
  /// LibreOffice does ("Budget.ods - LibreOffice Calc"). Absent where the
  /// platform has no such list.
  virtual std::optional<std::int32_t> windowOwner(const std::string& text) {
    (void)text;
    return std::nullopt;
  }
};

}  // namespace glimmerstrand::platform
