// The platform's UIDriver: every operation calls the typed native function
// that the line operation of the same name adapts, so a statement and a line
// client see the same behaviour by construction, and a statement's road to
// the platform carries typed values only. Snapshots come straight from the
// mirror as shared node lists, cached per selector, so an unchanged
// application costs one lock and no copy.
//
// Callable from several threads. `lock_` guards `snapshots_` only and is
// never held across a call into the native layer. Operations that act on the
// user's screen run synchronously on the serial input queue, among line
// clients' input; element actions on an application whose mirror gets no
// answer are refused before they reach that queue.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "core/ui_driver.h"
#include "native/capture_operations.h"
#include "native/dispatch_queue.h"
#include "native/mirror_operations.h"
#include "native/run_timings.h"

namespace glimmerstrand::native {

class AgentCursor;

class InProcessDriver final : public core::UIDriver {
 public:
  /// `cursor` may be null: no pulses then.
  InProcessDriver(Queues& queues, MirrorHost& host, Capturer& capturer, AgentCursor* cursor);

  core::AxSnapshot axSnapshot(const core::SnapshotOptions& options) override;
  std::pair<std::int64_t, std::int64_t> axCounter(const core::AppSelector& app) override;
  core::AxMenus axMenus(const core::AppSelector& app, std::optional<std::int64_t> maxAgeMs) override;
  core::PressResult press(const core::ElementRef& ref) override;
  void focus(const core::ElementRef& ref) override;
  core::SetValueResult setValue(const core::ElementRef& ref, const std::string& text) override;
  void selectAll(const core::ElementRef& ref) override;
  core::SettleResult waitSettle(const core::SettleOptions& options) override;
  void key(const std::string& keys, std::optional<std::int64_t> pid) override;
  bool type(const std::string& text, std::optional<std::int64_t> pid) override;
  void click(double x, double y, const core::ClickOptions& options) override;
  void move(double x, double y) override;
  void drag(double x1, double y1, double x2, double y2) override;
  void scroll(const core::ScrollDelta& delta) override;
  void axRefresh(const core::AppSelector& app) override;
  core::AppInfo frontmost() override;
  std::vector<core::RunningApp> apps() override;
  core::AppInfo launch(const std::string& nameOrBundleId) override;
  core::QuitResult quit(const core::AppSelector& app) override;
  core::AppInfo activate(const core::AppSelector& app) override;
  std::vector<core::WindowInfo> windows(const core::AppSelector& app) override;
  std::string raiseWindow(const core::AppSelector& app, const core::WindowSelector& window) override;
  core::ReadTextResult readText(const core::ElementRef& ref) override;
  core::InspectResult inspect(const core::ElementRef& ref) override;
  void showMenu(const core::ElementRef& ref) override;
  std::optional<std::string> clipboard() override;
  void setClipboard(const std::string& text) override;
  void copyImage(const std::vector<std::uint8_t>& png) override;
  std::optional<core::AppInfo> openURL(const std::string& url) override;
  core::Capture captureRegion(double x, double y, double width, double height,
                              const core::CaptureOptions& options) override;
  /// The platform's own answer, not a guess from the application in front.
  bool screenLocked() override;

 private:
  /// Runs `work` on the caller's thread, its time counted as the
  /// application's (or the settling's) in the run's timings.
  template <typename Work>
  auto here(Work&& work, double RunTimings::*figure = &RunTimings::applicationMs) -> decltype(work());
  /// Runs `work` on the serial input queue and waits for it, the same.
  template <typename Work>
  auto onInput(Work&& work) -> decltype(work());
  /// The middle of the element's frame in a cached snapshot, for the pulse.
  std::optional<core::Point> elementPoint(const core::ElementRef& ref);
  void pulseAt(std::optional<core::Point> point, bool click);
  /// RPC "timeout" when the element's application is known not to answer:
  /// an action on it would hold the shared input queue for as long as its
  /// calls wait, and so every other application's input too.
  void requireAnswering(const core::ElementRef& ref);
  void pulseAtElement(const core::ElementRef& ref, bool click) { pulseAt(elementPoint(ref), click); }

  Queues& queues_;
  MirrorHost& host_;
  Capturer& capturer_;
  AgentCursor* cursor_;

  // The last copy handed out for a selector, and the mirror it came from.
  struct CachedSnapshot {
    core::AxSnapshot snapshot;
    std::weak_ptr<AppMirror> mirror;
  };
  std::mutex lock_;  // guards snapshots_
  std::unordered_map<std::string, CachedSnapshot> snapshots_;
};

}  // namespace glimmerstrand::native
