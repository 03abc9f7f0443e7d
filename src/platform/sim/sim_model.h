// What a simulated desktop is made of: displays and applications, each
// application a tree of elements with attributes, actions and the effects of
// those actions. Plain values, written by hand in tests (the builder functions
// below) or read from the JSON fixture format (fixture.h, documented in
// docs/sim-fixtures.md).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/ax_value.h"

namespace glimmerstrand::platform::sim {

struct ElementSpec;

/// One step of what an action does to the application, run in order.
struct Effect {
  enum class Kind {
    set,            // attribute := value
    append,         // text attribute += text
    toggle,         // 0 <-> 1, false <-> true
    add,            // elements become the last children of `key`
    remove,         // the element of `key` and its subtree go
    replaceWindow,  // the front window goes; elements[0] comes in its place
    hangMs,         // the action takes `ms` longer
    quit,           // the application quits
  };
  Kind kind = Kind::set;
  std::string key;  // the element acted on; empty: the element the action came to
  std::string attribute = "AXValue";
  AxValue value;
  std::string text;
  std::vector<ElementSpec> elements;
  std::int64_t ms = 0;
};

struct ElementSpec {
  std::string key;  // unique within its application; empty: none
  std::string role = "AXGroup";
  std::vector<std::pair<std::string, AxValue>> attributes;  // by AX name
  std::optional<AxRect> frame;
  std::vector<std::string> actions;
  std::vector<std::string> settable;
  std::vector<Effect> onPress;   // AXPress, a click
  std::vector<Effect> onReturn;  // the return key while focused, AXConfirm
  std::vector<Effect> onFocus;
  std::vector<Effect> onSetValue;           // after AXValue is set through accessibility: a field that reformats
  std::vector<std::string> failAttributes;  // read as error values (cannotComplete)
  bool gone = false;                        // listed by its parent, but dead: every call fails with invalidElement
  bool ticks = false;                       // its AXValue counts its own reads, a change nobody announces
  bool focused = false;                     // the application's focused element at start
  bool ignoresFocus = false;                // a set of AXFocused through accessibility succeeds and changes nothing
  std::vector<ElementSpec> children;

  // Builder: element("AXButton").withKey("seven").title("7").frame(...).
  ElementSpec& withKey(std::string k);
  ElementSpec& attribute(std::string name, AxValue value);
  ElementSpec& title(std::string text) { return attribute("AXTitle", std::move(text)); }
  ElementSpec& value(AxValue v) { return attribute("AXValue", std::move(v)); }
  ElementSpec& description(std::string text) { return attribute("AXDescription", std::move(text)); }
  ElementSpec& identifier(std::string text) { return attribute("AXIdentifier", std::move(text)); }
  ElementSpec& placeholder(std::string text) { return attribute("AXPlaceholderValue", std::move(text)); }
  ElementSpec& subrole(std::string text) { return attribute("AXSubrole", std::move(text)); }
  ElementSpec& withFrame(double x, double y, double width, double height);
  ElementSpec& withActions(std::vector<std::string> names);
  ElementSpec& withSettable(std::vector<std::string> names);
  ElementSpec& pressDoes(std::vector<Effect> effects);
  ElementSpec& returnDoes(std::vector<Effect> effects);
  ElementSpec& focusDoes(std::vector<Effect> effects);
  ElementSpec& setValueDoes(std::vector<Effect> effects);
  ElementSpec& failing(std::vector<std::string> names);
  ElementSpec& markGone();
  ElementSpec& markTicking();
  ElementSpec& markFocused();
  ElementSpec& markIgnoringFocus();
  ElementSpec& child(ElementSpec element);
};

ElementSpec element(std::string role);

Effect setEffect(std::string key, std::string attribute, AxValue value);
Effect appendEffect(std::string key, std::string text, std::string attribute = "AXValue");
Effect toggleEffect(std::string key, std::string attribute = "AXValue");
Effect addEffect(std::string parentKey, std::vector<ElementSpec> elements);
Effect removeEffect(std::string key);
Effect replaceWindowEffect(ElementSpec window);
Effect hangEffect(std::int64_t ms);
Effect quitEffect();

/// How far an application lets itself be brought to the front, from the
/// weakest means that works: the workspace's activate, setting AXFrontmost,
/// or reopening its bundle. A user's click always does.
enum class Activation { workspace, accessibility, reopen, never };

struct AppSpec {
  std::int32_t pid = 0;
  std::string bundleId;
  std::string name;
  std::map<std::string, std::string> names;  // display names by language
  std::string bundlePath;                    // default: /usr/share/applications/<bundleId>.desktop
  bool frontmost = false;
  bool running = true;  // false: installed only, for launch
  bool hidden = false;
  bool regular = true;
  bool frozen = false;                            // every call waits out its timeout and fails
  bool quitRefused = false;                       // a polite terminate is ignored
  bool manualAccessibilityRefused = false;        // setting AXManualAccessibility fails
  std::vector<std::string> refusedNotifications;  // addNotification answers notificationUnsupported
  std::vector<std::string> urlSchemes;            // opens these URLs ("https", "file", ...)
  Activation activation = Activation::workspace;
  std::int64_t launchMs = 0;         // a launch completes, and the application runs, this long after
  std::string launchError;           // a launch fails with this description
  std::int64_t quitMs = 0;           // a polite terminate takes effect this long after
  std::int32_t filePanelPid = 0;     // the process that draws its open and save panels
  std::vector<ElementSpec> windows;  // front to back
  std::optional<ElementSpec> menuBar;
  std::vector<ElementSpec> menus;  // context menus open at start: children of the application
  /// A polite terminate opens this window (after quitMs) instead of quitting:
  /// an editor's "save changes?" question.
  std::optional<ElementSpec> quitAsks;
};

struct DisplaySpec {
  std::int64_t id = 1;
  AxRect bounds{0, 0, 1440, 900};
  double scale = 2;
};

struct DesktopSpec {
  std::vector<DisplaySpec> displays;  // empty: one display of 1440 x 900 points
  std::vector<AppSpec> apps;
  /// Folders of installed applications, in search order; an application's
  /// bundle path lies in one of them unless its fixture says otherwise.
  std::vector<std::string> applicationDirectories{"/usr/share/applications", "/usr/local/share/applications"};
  bool trusted = true;  // the accessibility permission
  bool screenRecording = true;
};

}  // namespace glimmerstrand::platform::sim
