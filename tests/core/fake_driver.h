// A recording UIDriver for tests of the runner and the procedures: it serves
// the application as the test scripts it, records every call with its
// arguments in order, and fails any operation with a code on request.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "core/clock.h"
#include "core/errors.h"
#include "core/ui_driver.h"

namespace glimmerstrand::core::testing {

/// Time that moves only when somebody sleeps.
class ManualClock final : public Clock {
 public:
  std::int64_t nowNs() override { return now; }
  void sleepMs(double ms) override {
    now += static_cast<std::int64_t>(ms * 1e6);
    slept.push_back(ms);
  }
  std::int64_t now = 1'000'000'000;
  std::vector<double> slept;
};

class FakeDriver final : public UIDriver {
 public:
  using Effect = std::function<void(FakeDriver&, const ElementRef&)>;

  // The application as the next snapshot shows it.
  AppInfo app{501, "com.example.calculator", "Calculator"};
  std::vector<AxNode> nodes;
  std::int64_t generation = 1;
  std::int64_t counter = 10;
  bool running = true;
  AppInfo front{501, "com.example.calculator", "Calculator"};
  bool locked = false;  // the screen

  // Scripted behaviour.
  std::map<std::string, std::string> failures;  // operation -> error code
  bool valueApplied = true;
  bool typedSeen = true;
  bool menuOpens = true;    // showMenu and a right click add a context menu to the window
  int lostRightClicks = 0;  // this many right clicks do nothing, as on a menu still closing
  Effect onPress, onFocus;
  std::function<void(FakeDriver&)> onSnapshot;  // runs before each snapshot is served
  /// The answer of waitSettle (default: changed and settled at once).
  std::function<SettleResult(FakeDriver&, const SettleOptions&)> onWaitSettle;
  /// What launch finds (default: `app`, running).
  std::function<AppInfo(FakeDriver&, const std::string&)> onLaunch;
  ReadTextResult readResult{"text", false};
  InspectResult inspection;
  std::optional<std::string> clipboardText;
  bool quitTerminates = true;
  std::vector<WindowInfo> windowList{WindowInfo{1, "Main", true, true, false}};
  bool urlNamesApp = true;  // openURL answers with `app`, or with no application
  std::vector<std::uint8_t> captureBytes{1, 2, 3};

  /// "operation args" for every call, in order.
  std::vector<std::string> calls;
  std::vector<std::string> callNames() const;

  AxSnapshot axSnapshot(const SnapshotOptions& options) override;
  std::pair<std::int64_t, std::int64_t> axCounter(const AppSelector& app) override;
  AxMenus axMenus(const AppSelector& app, std::optional<std::int64_t> maxAgeMs) override;
  PressResult press(const ElementRef& ref) override;
  void focus(const ElementRef& ref) override;
  SetValueResult setValue(const ElementRef& ref, const std::string& text) override;
  void selectAll(const ElementRef& ref) override;
  SettleResult waitSettle(const SettleOptions& options) override;
  void key(const std::string& keys, std::optional<std::int64_t> pid) override;
  bool type(const std::string& text, std::optional<std::int64_t> pid) override;
  void click(double x, double y, const ClickOptions& options) override;
  void move(double x, double y) override;
  void drag(double x1, double y1, double x2, double y2) override;
  void scroll(const ScrollDelta& delta) override;
  void axRefresh(const AppSelector& app) override;
  AppInfo frontmost() override;
  std::vector<RunningApp> apps() override;
  AppInfo launch(const std::string& nameOrBundleId) override;
  QuitResult quit(const AppSelector& app) override;
  AppInfo activate(const AppSelector& app) override;
  std::vector<WindowInfo> windows(const AppSelector& app) override;
  std::string raiseWindow(const AppSelector& app, const WindowSelector& window) override;
  ReadTextResult readText(const ElementRef& ref) override;
  InspectResult inspect(const ElementRef& ref) override;
  void showMenu(const ElementRef& ref) override;
  std::optional<std::string> clipboard() override;
  void setClipboard(const std::string& text) override;
  void copyImage(const std::vector<std::uint8_t>& png) override;
  std::optional<AppInfo> openURL(const std::string& url) override;
  Capture captureRegion(double x, double y, double width, double height, const CaptureOptions& options) override;
  bool screenLocked() override;

  /// The node with that uid in the scripted application.
  AxNode& byUid(std::int64_t uid);

 private:
  void openMenu();
  void record(const std::string& name, const std::string& args);
  std::mutex lock_;  // guards calls; the runner may call from several threads
};

/// A node with the fields most tests need.
AxNode node(std::int64_t i, std::int64_t parent, std::string role, std::optional<std::string> title = std::nullopt,
            std::optional<std::string> value = std::nullopt);

}  // namespace glimmerstrand::core::testing
