// The one seam between the statement runner and the platform. The runner,
// the writes and the procedures know nothing of accessibility, events or
// windows: they call these operations and nothing else. Every operation may
// throw; callers tell failures apart only by their code.
//
// A driver is shared by all runs of the process and must accept calls from
// several threads at once.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/records.h"

namespace glimmerstrand::core {

class UIDriver {
 public:
  virtual ~UIDriver() = default;

  /// Throws "not_found" when the selected application is not running.
  virtual AxSnapshot axSnapshot(const SnapshotOptions& options) = 0;
  /// (pid, notification counter): the counter waitSettle compares with.
  virtual std::pair<std::int64_t, std::int64_t> axCounter(const AppSelector& app) = 0;
  virtual AxMenus axMenus(const AppSelector& app, std::optional<std::int64_t> maxAgeMs) = 0;
  virtual PressResult press(const ElementRef& ref) = 0;
  /// Throws "focus_not_moved" when focus did not reach the element.
  virtual void focus(const ElementRef& ref) = 0;
  /// applied false, or "no_action", when the element does not take a value.
  virtual SetValueResult setValue(const ElementRef& ref, const std::string& text) = 0;
  virtual void selectAll(const ElementRef& ref) = 0;
  virtual SettleResult waitSettle(const SettleOptions& options) = 0;
  /// Keys such as "return" or "cmd+a", to that process without raising it.
  virtual void key(const std::string& keys, std::optional<std::int64_t> pid) = 0;
  /// True when the text was seen in the tree afterwards.
  virtual bool type(const std::string& text, std::optional<std::int64_t> pid) = 0;
  virtual void click(double x, double y, const ClickOptions& options) = 0;
  virtual void move(double x, double y) = 0;
  virtual void drag(double x1, double y1, double x2, double y2) = 0;
  virtual void scroll(const ScrollDelta& delta) = 0;
  /// Asks for a new walk now and returns without waiting for it.
  virtual void axRefresh(const AppSelector& app) = 0;
  virtual AppInfo frontmost() = 0;
  virtual std::vector<RunningApp> apps() = 0;
  /// The running application of that name or bundle id, started if need be.
  virtual AppInfo launch(const std::string& nameOrBundleId) = 0;
  virtual QuitResult quit(const AppSelector& app) = 0;
  virtual AppInfo activate(const AppSelector& app) = 0;
  virtual std::vector<WindowInfo> windows(const AppSelector& app) = 0;
  /// The title of the raised window.
  virtual std::string raiseWindow(const AppSelector& app, const WindowSelector& window) = 0;
  virtual ReadTextResult readText(const ElementRef& ref) = 0;
  virtual InspectResult inspect(const ElementRef& ref) = 0;
  /// Throws "no_action" when the element has no context menu action.
  virtual void showMenu(const ElementRef& ref) = 0;
  virtual std::optional<std::string> clipboard() = 0;
  virtual void setClipboard(const std::string& text) = 0;
  virtual void copyImage(const std::vector<std::uint8_t>& png) = 0;
  /// The application that took the URL, when known.
  virtual std::optional<AppInfo> openURL(const std::string& url) = 0;
  virtual Capture captureRegion(double x, double y, double width, double height, const CaptureOptions& options) = 0;
  /// Whether the user's screen is locked: input then reaches the lock screen,
  /// not the application.
  virtual bool screenLocked() = 0;
};

}  // namespace glimmerstrand::core
