// A complete, deterministic desktop in the process: applications with
// accessibility trees, notifications for every change, actions with effects,
// focus and typing, windows, a pasteboard, displays and a screen that draws
// each element as a filled rectangle, and the faults a real desktop shows
// (gone elements, hanging presses, frozen applications, refused
// notifications, applications that refuse to quit).
//
// Thread-safe: one lock guards the whole desktop, and is never held while a
// call sleeps (a hang, a frozen application). Notifications and activation
// callbacks are posted to the main run loop given at construction.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/accessibility.h"
#include "platform/clock.h"
#include "platform/input.h"
#include "platform/overlay_painter.h"
#include "platform/pasteboard.h"
#include "platform/run_loop.h"
#include "platform/screen.h"
#include "platform/session.h"
#include "platform/sim/sim_model.h"
#include "platform/workspace.h"

namespace glimmerstrand::platform::sim {

/// An input event as it was posted, with the process it was posted to
/// (absent: the whole session).
struct Posted {
  std::variant<PointerEvent, KeyEvent, ScrollEvent> event;
  std::optional<std::int32_t> pid;
};

class SimDesktop {
 public:
  SimDesktop(const DesktopSpec& spec, Clock& clock, RunLoop& mainLoop);
  ~SimDesktop();
  SimDesktop(const SimDesktop&) = delete;
  SimDesktop& operator=(const SimDesktop&) = delete;

  Accessibility& accessibility();
  Workspace& workspace();
  Input& input();
  Pasteboard& pasteboard();
  Screen& screen();
  Session& session();
  OverlayPainter& overlay();

  // Changes a test makes to an application, as the application itself would:
  // each posts the notifications a real one posts. `key` names an element of
  // the application (its fixture key). Unknown pids and keys are ignored.
  void setAttribute(std::int32_t pid, const std::string& key, const std::string& name, const AxValue& value);
  void appendText(std::int32_t pid, const std::string& key, const std::string& text);
  void addElements(std::int32_t pid, const std::string& parentKey, const std::vector<ElementSpec>& elements);
  void removeElement(std::int32_t pid, const std::string& key);
  /// The front window goes and `window` comes in its place, with new identities.
  void replaceWindow(std::int32_t pid, const ElementSpec& window);
  void focus(std::int32_t pid, const std::string& key);
  /// Runs an element's action with its effects, like Accessibility::perform.
  AxError perform(std::int32_t pid, const std::string& key, const std::string& action);
  /// Posts a notification without changing anything; key "" is the
  /// application element.
  void postNotification(std::int32_t pid, const std::string& key, const std::string& notification);
  /// Every call to a frozen application waits out its messaging timeout and
  /// fails with cannotComplete.
  void setFrozen(std::int32_t pid, bool frozen);
  void addApp(const AppSpec& app);
  void setTrusted(bool trusted);
  void setScreenLocked(bool locked);

  // Looking at the desktop from outside, without going through the seam.
  /// The element of `key`; null when there is none.
  Element element(std::int32_t pid, const std::string& key);
  /// An attribute of `key` as the application holds it; absent when unknown.
  std::optional<AxValue> attribute(std::int32_t pid, const std::string& key, const std::string& name);
  /// URLs given to Workspace::openURL, in order.
  std::vector<std::string> openedURLs();
  /// Input events posted through Input, in order, since the start or the
  /// last clearPosted.
  std::vector<Posted> posted();
  void clearPosted();

  struct State;  // everything behind the lock; see sim_state.h

 private:
  std::unique_ptr<State> state_;
  std::unique_ptr<Accessibility> accessibility_;
  std::unique_ptr<Workspace> workspace_;
  std::unique_ptr<Input> input_;
  std::unique_ptr<Pasteboard> pasteboard_;
  std::unique_ptr<Screen> screen_;
  std::unique_ptr<Session> session_;
  std::unique_ptr<OverlayPainter> overlay_;
};

}  // namespace glimmerstrand::platform::sim
