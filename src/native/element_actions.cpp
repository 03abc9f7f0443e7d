#include "native/element_actions.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <unordered_set>

#include "core/errors.h"
#include "cypher/unicode_text.h"
#include "mirror/menu_cache.h"
#include "native/held_applications.h"
#include "native/menu_closing.h"

namespace glimmerstrand::native {

namespace {

using platform::AxError;
using platform::AxValue;

constexpr std::int64_t msNs = 1'000'000;
// Longer waits a caller may ask for are cut here, which no clock overflows.
constexpr std::int64_t maxWaitMs = 1'000'000'000'000;
constexpr int pressTargetLevels = 5;
constexpr int focusAncestors = 7;
// How long a focus set, and then a press, may take to show. Only a focus that
// never moves waits them out; a browser busy after a load needs the room.
constexpr std::int64_t focusShowsWithinMs = 400;
constexpr std::int64_t pressFocusShowsWithinMs = 600;
constexpr std::int64_t readTextMaxDepth = 64;
constexpr std::int64_t readTextMaxTaken = 20000;

std::string number(AxError error) { return std::to_string(static_cast<std::int32_t>(error)); }

// An action the platform refused: "stale" when the element itself has gone
// (a page reloaded under the copy), so the caller looks again instead of
// trying another way on an element that is no more.
core::GlimmerstrandError refused(AxError error, std::string_view code, std::string_view text) {
  return core::GlimmerstrandError(std::string(error == AxError::invalidElement ? core::codes::stale : code),
                                  std::string(text) + number(error));
}

double millisecondsSince(platform::Clock& clock, std::int64_t start) {
  return static_cast<double>(clock.nowNs() - start) / 1e6;
}

std::vector<std::string> actionsOf(platform::Accessibility& ax, const Element& element) {
  auto names = ax.actionNames(element);
  return names.ok() ? names.value : std::vector<std::string>{};
}

bool contains(const std::vector<std::string>& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

bool isSettable(platform::Accessibility& ax, const Element& element, std::string_view name) {
  auto settable = ax.isSettable(element, name);
  return settable.ok() && settable.value;
}

std::optional<Element> parentOf(platform::Accessibility& ax, const Element& element) {
  auto parent = ax.copy(element, "AXParent").as<Element>();
  if (!parent || parent->isNull()) return std::nullopt;
  return parent;
}

// What a press worker and its waiter share. The worker may go on after the
// waiter has left, so it is shared by reference count.
struct PressBox {
  std::mutex lock;  // guards finished and error
  platform::Signal done;
  bool finished = false;
  AxError error = AxError::success;
};

// Presses on a worker that is never joined, and waits in slices of 1 ms for
// the call, for a first notification (unless `waitComplete`), or for the
// deadline. True when the call completed in time.
bool pressOnWorker(MirrorEnvironment environment, AppMirror& mirror, const Element& target, std::int64_t before,
                   bool waitComplete, std::int64_t timeoutMs) {
  auto& clock = environment.clock;
  auto box = std::make_shared<PressBox>();
  auto worker = clock.makeSerialQueue("glimmerstrand.press");
  HeldApplications::shared().pressing(mirror.pid());
  worker->async([&ax = environment.accessibility, &clock, target, box] {
    AxError error = ax.perform(target, "AXPress");
    std::lock_guard guard(box->lock);
    box->error = error;
    box->finished = true;
    clock.notifyAll(box->done);
  });
  const std::int64_t deadline = clock.nowNs() + std::clamp<std::int64_t>(timeoutMs, 0, maxWaitMs) * msNs;
  for (;;) {
    std::optional<AxError> result;
    {
      std::unique_lock guard(box->lock);
      if (!box->finished) {
        const std::int64_t now = clock.nowNs();
        if (now >= deadline) return false;
        clock.waitUntil(guard, box->done, std::min(now + msNs, deadline));
      }
      if (box->finished) result = box->error;
    }
    if (result) {
      if (*result == AxError::success) return true;
      throw refused(*result, core::codes::native, "押せませんでした: ");
    }
    // The application is reacting: its effect shows through the mirror.
    if (!waitComplete && mirror.notificationCount() > before) return false;
  }
}

// Whether an element's value now reads as `text`: the same text, or for a
// slider or stepper, the number the text writes.
bool valueReads(const AxValue& value, const std::string& text) {
  if (auto s = value.get<std::string>()) return *s == text;
  auto n = value.get<double>();
  if (!n) return false;
  double written = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), written);
  return error == std::errc() && end == text.data() + text.size() && std::abs(*n - written) < 1e-9;
}

// Rounded toward zero.
std::string wholeNumber(double value) { return cypher::numberText(std::trunc(value)); }

}  // namespace

Element pressTarget(platform::Accessibility& ax, const Element& element) {
  Element current = element;
  for (int turn = 0; turn < pressTargetLevels; ++turn) {
    if (contains(actionsOf(ax, current), "AXPress") || isSettable(ax, current, "AXSelected")) return current;
    auto parent = parentOf(ax, current);
    if (!parent) break;
    current = *parent;
  }
  return element;
}

bool waitFocusInside(MirrorEnvironment environment, const Element& app, const Element& target, std::int64_t ms) {
  auto& ax = environment.accessibility;
  auto& clock = environment.clock;
  const std::int64_t start = clock.nowNs();
  for (;;) {
    if (auto focused = ax.copy(app, "AXFocusedUIElement").as<Element>(); focused && !focused->isNull()) {
      std::optional<Element> current = *focused;
      for (int level = 0; current && level <= focusAncestors; ++level) {
        if (*current == target) return true;
        current = parentOf(ax, *current);
      }
    }
    clock.sleepNs(15 * msNs);
    if (clock.nowNs() - start >= ms * msNs) return false;
  }
}

core::ReadTextResult readElementText(platform::Accessibility& ax, const Element& element, bool deep,
                                     std::int64_t maxChars) {
  struct Entry {
    Element element;
    std::int64_t depth;
  };
  static const std::vector<std::string> textAttributes{"AXTitle", "AXValue", "AXDescription"};
  std::vector<Entry> stack{{element, 0}};
  std::unordered_set<Element, platform::ElementHash> seen;
  std::vector<std::string> parts;
  std::int64_t count = 0;
  for (std::int64_t taken = 0; !stack.empty() && count < maxChars && taken < readTextMaxTaken; ++taken) {
    Entry entry = std::move(stack.back());
    stack.pop_back();
    if (!seen.insert(entry.element).second) continue;
    auto values = ax.copyMultiple(entry.element, textAttributes);
    for (const auto& value : values.ok() ? values.value : std::vector<AxValue>{}) {
      auto text = value.get<std::string>();
      if (!text) continue;
      std::string part(cypher::trimmedText(*text));
      if (part.empty() || (!parts.empty() && parts.back() == part)) continue;
      count += static_cast<std::int64_t>(cypher::graphemeCount(part));
      parts.push_back(std::move(part));
      break;
    }
    if (!deep || entry.depth >= readTextMaxDepth) continue;
    if (auto children = ax.copy(entry.element, "AXChildren").as<platform::AxList>())
      for (auto child = children->rbegin(); child != children->rend(); ++child)
        if (auto childElement = child->get<Element>()) stack.push_back({*childElement, entry.depth + 1});
  }
  std::string joined;
  for (const auto& part : parts) {
    if (!joined.empty()) joined += '\n';
    joined += part;
  }
  const auto limit = static_cast<std::size_t>(std::max<std::int64_t>(maxChars, 0));
  const bool longer = cypher::graphemeCount(joined) > limit;
  return core::ReadTextResult{longer ? cypher::graphemePrefix(joined, limit) : joined, longer || count >= maxChars};
}

std::string inspectValueText(platform::Accessibility& ax, const AxValue& value) {
  struct Text {
    platform::Accessibility& ax;
    std::string operator()(std::monostate) const { return "null"; }
    std::string operator()(AxError) const { return "null"; }
    std::string operator()(bool b) const { return b ? "1" : "0"; }
    std::string operator()(double d) const { return cypher::numberText(d); }
    std::string operator()(const std::string& s) const {
      return cypher::graphemeCount(s) > 200 ? cypher::graphemePrefix(s, 200) + "…" : s;
    }
    std::string operator()(const platform::AxUrl& url) const { return url.text; }
    std::string operator()(const platform::AxPoint& p) const {
      return "(" + wholeNumber(p.x) + ", " + wholeNumber(p.y) + ")";
    }
    std::string operator()(const platform::AxSize& s) const {
      return wholeNumber(s.width) + "x" + wholeNumber(s.height);
    }
    std::string operator()(const platform::AxRect& r) const {
      return "(" + wholeNumber(r.x) + ", " + wholeNumber(r.y) + ") " + wholeNumber(r.width) + "x" +
             wholeNumber(r.height);
    }
    std::string operator()(const platform::AxRange& r) const {
      return "range " + std::to_string(r.location) + "+" + std::to_string(r.length);
    }
    std::string operator()(const Element& element) const {
      auto role = ax.copy(element, "AXRole").as<std::string>();
      return "element " + role.value_or("");
    }
    std::string operator()(const platform::AxList& list) const { return "[" + std::to_string(list.size()) + " items]"; }
    std::string operator()(const platform::AxOpaque& opaque) const {
      if (opaque.description.find("TextMarker") != std::string::npos) return "";
      return cypher::graphemePrefix(opaque.description, 120);
    }
  };
  return std::visit(Text{ax}, value.value);
}

PressReport press(platform::Platform& platform, const ResolvedElement& target, const PressOptions& options) {
  auto& clock = platform.clock();
  auto& ax = platform.accessibility();
  const std::int64_t start = clock.nowNs();
  const auto& mirror = target.mirror;
  const Element pressed = pressTarget(ax, target.element);
  const std::int64_t before = mirror->notificationCount();
  auto names = ax.actionNames(pressed);
  // The element went between the copy and now.
  if (names.error == AxError::invalidElement)
    throw core::GlimmerstrandError(core::codes::stale, "押せませんでした: " + number(names.error));
  const auto actions = names.ok() ? names.value : std::vector<std::string>{};

  PressReport report;
  report.completed = true;
  if (contains(actions, "AXPress")) {
    report.method = "press";
    // The menus open when an item of theirs is picked close with the pick.
    const auto menus = isLeafMenuItem(ax, pressed) ? openMenus(ax, mirror->pid()) : std::vector<Element>{};
    report.completed = pressOnWorker({ax, clock}, *mirror, pressed, before, options.waitComplete, options.timeoutMs);
    report.menusClosed = closeMenusLeftOpen(platform, mirror->pid(), menus);
  } else if (isSettable(ax, pressed, "AXSelected")) {
    report.method = "select";
    if (auto error = ax.set(pressed, "AXSelected", true); error != AxError::success)
      throw refused(error, core::codes::noAction, "選べませんでした: ");
  } else if (isSettable(ax, pressed, "AXFocused") && isSettable(ax, pressed, "AXValue")) {
    // Pressing a field puts the focus in it; focusing anything else would
    // report a press that never happened, as for a check box whose toolkit
    // names its action in words no table knows.
    report.method = "focus";
    if (auto error = ax.set(pressed, "AXFocused", true); error != AxError::success)
      throw refused(error, core::codes::native, "フォーカスを当てられませんでした: ");
  } else {
    core::JSONValue::Array listed(actions.begin(), actions.end());
    throw core::GlimmerstrandError(core::codes::noAction, "この要素は押せません。actions=" + core::jsonText(listed));
  }
  report.notificationsBefore = before;
  report.elapsedMs = millisecondsSince(clock, start);
  return report;
}

FocusReport focus(platform::Platform& platform, const ResolvedElement& target) {
  auto& ax = platform.accessibility();
  const auto& [mirror, element] = target;
  const std::int64_t before = mirror->notificationCount();
  if (auto error = ax.set(element, "AXFocused", true); error != AxError::success)
    throw refused(error, core::codes::noAction, "フォーカスを当てられませんでした: ");
  // The same bound on the application's answers as the mirror's own element.
  Element app = ax.applicationElement(mirror->pid());
  ax.setMessagingTimeout(app, 0.3);
  const MirrorEnvironment environment{ax, platform.clock()};
  std::string method = "focus";
  // A focus that was there before any focus event was heard never moves: the
  // element's own state tells.
  bool moved = ax.copy(element, "AXFocused").as<bool>().value_or(false) ||
               waitFocusInside(environment, app, element, focusShowsWithinMs);
  // Some controls take the focus only when pressed.
  if (!moved && contains(actionsOf(ax, element), "AXPress") && ax.perform(element, "AXPress") == AxError::success) {
    method = "press";
    moved = waitFocusInside(environment, app, element, pressFocusShowsWithinMs);
  }
  return FocusReport{before, method, moved};
}

SetValueReport setValue(platform::Platform& platform, const ResolvedElement& target, const std::string& text) {
  auto& clock = platform.clock();
  auto& ax = platform.accessibility();
  const std::int64_t start = clock.nowNs();
  const auto& [mirror, element] = target;
  const std::int64_t before = mirror->notificationCount();
  const auto settable = ax.isSettable(element, "AXValue");
  if (settable.error == AxError::invalidElement)
    throw refused(settable.error, core::codes::noAction, "値を書き換えられませんでした: ");
  if (!settable.ok() || !settable.value)
    throw core::GlimmerstrandError(core::codes::noAction, "この要素の値は書き換えられません");
  if (auto error = ax.set(element, "AXValue", text); error == AxError::illegalArgument)
    throw core::GlimmerstrandError(core::codes::invalidArgument,
                                   "No option here is named " + core::jsonString(text) +
                                       ". Press the element to open its options, then read them.");
  else if (error != AxError::success)
    throw refused(error, core::codes::noAction, "値を書き換えられませんでした: ");
  // An application may take the write and show something else: not a failure.
  bool applied = false;
  for (int read = 0; read < 10 && !applied; ++read) {
    if (read > 0) clock.sleepNs(20 * msNs);
    applied = valueReads(ax.copy(element, "AXValue"), text);
  }
  SetValueReport report;
  report.applied = applied;
  report.notificationsBefore = before;
  report.elapsedMs = millisecondsSince(clock, start);
  return report;
}

std::int64_t selectAll(platform::Platform& platform, const ResolvedElement& target) {
  auto& ax = platform.accessibility();
  const auto& element = target.element;
  std::int64_t length = 0;
  if (auto count = ax.copy(element, "AXNumberOfCharacters").as<double>()) {
    // A count that no range can hold (not finite, beyond 64 bits) makes none.
    auto counted = core::integerOf(*count);
    if (!counted) throw core::GlimmerstrandError(core::codes::native, "選択範囲を作れませんでした");
    length = *counted;
  } else if (auto value = ax.copy(element, "AXValue").as<std::string>()) {
    length = static_cast<std::int64_t>(cypher::utf16Length(*value));
  }
  if (auto error = ax.set(element, "AXSelectedTextRange", platform::AxRange{0, length}); error != AxError::success)
    throw refused(error, core::codes::noAction, "文字を選べませんでした: ");
  return length;
}

core::ReadTextResult readText(platform::Platform& platform, const ResolvedElement& target, bool deep,
                              std::int64_t maxChars) {
  return readElementText(platform.accessibility(), target.element, deep, maxChars);
}

core::InspectResult inspect(platform::Platform& platform, const ResolvedElement& target) {
  auto& ax = platform.accessibility();
  const auto& element = target.element;
  core::InspectResult result;
  for (const auto& name : actionsOf(ax, element)) {
    auto description = ax.actionDescription(element, name);
    result.actions.push_back({name, description.ok() ? description.value : ""});
  }
  auto names = ax.attributeNames(element);
  for (const auto& name : names.ok() ? names.value : std::vector<std::string>{})
    result.attributes.push_back({name, inspectValueText(ax, ax.copy(element, name)), isSettable(ax, element, name)});
  return result;
}

core::Rect elementFrame(platform::Platform& platform, const ResolvedElement& target) {
  auto& ax = platform.accessibility();
  auto position = ax.copy(target.element, "AXPosition").as<platform::AxPoint>();
  auto size = ax.copy(target.element, "AXSize").as<platform::AxSize>();
  if (!position || !size) throw core::GlimmerstrandError(core::codes::stale, "要素の位置を読めませんでした");
  return core::Rect{position->x, position->y, size->width, size->height};
}

std::int64_t showMenu(platform::Platform& platform, const ResolvedElement& target) {
  auto& ax = platform.accessibility();
  const std::int64_t before = target.mirror->notificationCount();
  if (auto error = ax.perform(target.element, "AXShowMenu"); error != AxError::success)
    throw refused(error, core::codes::noAction, "メニューを開けませんでした: ");
  return before;
}

}  // namespace glimmerstrand::native
