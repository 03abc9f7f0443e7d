#include "native/input.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <unordered_map>

#include "core/errors.h"
#include "cypher/unicode_text.h"
#include "native/held_applications.h"
#include "native/text_case.h"

namespace glimmerstrand::native {

namespace {

using platform::AxPoint;
using platform::MouseButton;
using platform::PointerAction;
using platform::PointerEvent;

constexpr std::int64_t msNs = 1'000'000;
constexpr int maxScrollEvents = 400;
constexpr double pointsPerLine = 40;
// Pauses are counted in microseconds of 32 bits: longer ones are cut there.
constexpr double maxPauseMs = 4294967.295;

std::int64_t pauseNs(double ms) { return static_cast<std::int64_t>(std::clamp(ms, 0.0, maxPauseMs) * 1e6); }

// A number of the parameters made a 32-bit integer, dropping any fraction.
std::int32_t whole32(double value) {
  if (std::isnan(value)) return 0;
  return static_cast<std::int32_t>(std::clamp(std::trunc(value), double{std::numeric_limits<std::int32_t>::min()},
                                              double{std::numeric_limits<std::int32_t>::max()}));
}

const std::unordered_map<std::string, std::string>& typingKeyNames() {
  static const std::unordered_map<std::string, std::string> names{
      {" ", "space"}, {"\n", "return"}, {"\r", "return"}, {"\t", "tab"}};
  return names;
}

PointerEvent pointer(PointerAction action, AxPoint at, MouseButton button = MouseButton::left,
                     std::int64_t clickState = 1) {
  PointerEvent event;
  event.action = action;
  event.button = button;
  event.clickState = clickState;
  event.location = at;
  return event;
}

// An event that can't be made ends the operation where it stands: a button or
// modifier pressed before stays pressed.
constexpr const char* noEventMessage = "入力イベントを作れませんでした";

void post(platform::Input& input, const PointerEvent& event) {
  if (!input.postPointer(event, std::nullopt)) throw core::GlimmerstrandError("native", noEventMessage);
}

void post(platform::Input& input, const platform::KeyEvent& event, std::optional<std::int32_t> pid) {
  if (!input.postKey(event, pid)) throw core::GlimmerstrandError("native", noEventMessage);
}

void post(platform::Input& input, const platform::ScrollEvent& event) {
  if (!input.postScroll(event, std::nullopt)) throw core::GlimmerstrandError("native", noEventMessage);
}

// Between the first and the last key of a text typed for a process.
class KeyRun {
 public:
  KeyRun(platform::Input& input, std::optional<std::int32_t> pid) : input_(input), pid_(pid) {
    if (pid_) input_.beginKeys(*pid_);
  }
  ~KeyRun() {
    if (pid_) input_.endKeys();
  }
  KeyRun(const KeyRun&) = delete;
  KeyRun& operator=(const KeyRun&) = delete;

 private:
  platform::Input& input_;
  std::optional<std::int32_t> pid_;
};

int sign(std::int64_t n) { return (n > 0) - (n < 0); }

bool hasFilePanel(platform::Accessibility& ax, std::int32_t pid) {
  Element app = ax.applicationElement(pid);
  auto window = ax.copy(app, "AXFocusedWindow").as<Element>();
  if (!window || window->isNull()) window = ax.copy(app, "AXMainWindow").as<Element>();
  if (!window || window->isNull()) return false;
  auto identifier = ax.copy(*window, "AXIdentifier").as<std::string>();
  return identifier == "open-panel" || identifier == "save-panel";
}

}  // namespace

std::vector<platform::KeyEvent> keyComboEvents(platform::Input& input, std::string_view keys) {
  const std::string lowered = lowerText(keys);
  std::vector<std::string> pieces;
  for (std::size_t start = 0; start <= lowered.size();) {
    std::size_t plus = std::min(lowered.find('+', start), lowered.size());
    if (plus > start) pieces.push_back(lowered.substr(start, plus - start));
    start = plus + 1;
  }
  const auto& codes = input.keyCodes();
  if (pieces.empty() || !codes.count(pieces.back()))
    throw core::GlimmerstrandError("invalid_argument", "未知のキーです: " + lowered);
  const auto& modifiers = input.modifierKeys();
  std::vector<platform::ModifierKey> held;
  std::uint64_t allFlags = 0;
  for (std::size_t n = 0; n + 1 < pieces.size(); ++n) {
    auto modifier = modifiers.find(pieces[n]);
    if (modifier == modifiers.end())
      throw core::GlimmerstrandError("invalid_argument", "未知の修飾キーです: " + pieces[n]);
    held.push_back(modifier->second);
    allFlags |= modifier->second.flag;
  }
  std::vector<platform::KeyEvent> events;
  std::uint64_t running = 0;
  for (const auto& modifier : held) {
    running |= modifier.flag;
    events.push_back({modifier.keyCode, true, running, {}});
  }
  const std::uint16_t code = codes.at(pieces.back());
  events.push_back({code, true, allFlags, {}});
  events.push_back({code, false, allFlags, {}});
  for (auto modifier = held.rbegin(); modifier != held.rend(); ++modifier) {
    running &= ~modifier->flag;
    events.push_back({modifier->keyCode, false, running, {}});
  }
  return events;
}

std::vector<platform::KeyEvent> typingEvents(platform::Input& input, std::string_view text) {
  const auto& codes = input.keyCodes();
  std::vector<platform::KeyEvent> events;
  for (const auto& grapheme : cypher::splitGraphemes(text)) {
    auto named = typingKeyNames().find(grapheme);
    const std::string name = named != typingKeyNames().end() ? named->second : lowerText(grapheme);
    auto code = codes.find(name);
    // The text carries the character whatever the layout; a key outside the
    // table goes out with code 0.
    const std::uint16_t keyCode = code != codes.end() ? code->second : 0;
    const std::u16string units = cypher::utf16(grapheme);
    events.push_back({keyCode, true, 0, units});
    events.push_back({keyCode, false, 0, units});
  }
  return events;
}

std::int32_t keyTarget(platform::Platform& platform, std::int32_t pid) {
  auto& ax = platform.accessibility();
  HeldApplications::shared().refuseKeysWhileHeld(ax, pid);
  if (!hasFilePanel(ax, pid)) return pid;
  return platform.workspace().filePanelProcess(pid).value_or(pid);
}

TypingWatch watchFocusedText(platform::Accessibility& ax, std::int32_t pid) {
  TypingWatch watch{pid, std::nullopt, std::nullopt};
  auto focused = ax.copy(ax.applicationElement(pid), "AXFocusedUIElement").as<Element>();
  if (!focused || focused->isNull()) return watch;
  watch.element = *focused;
  watch.value = ax.copy(*focused, "AXValue").as<std::string>();
  return watch;
}

bool textSeen(MirrorEnvironment environment, std::string_view text, const TypingWatch& before) {
  auto& clock = environment.clock;
  const auto n = static_cast<std::int64_t>(cypher::graphemeCount(text));
  const std::string needle(cypher::trimmedText(text));
  if (!before.element || !before.value) {
    // Keys sent to a window in the background give its field the focus only
    // while they are sent: look for that field now.
    const std::int64_t deadline = clock.nowNs() + std::min<std::int64_t>(2 * n + 30, 300) * msNs;
    while (clock.nowNs() < deadline) {
      clock.sleepNs(20 * msNs);
      if (!before.pid || needle.empty()) continue;
      auto after = watchFocusedText(environment.accessibility, before.pid);
      if (after.value && after.value->find(needle) != std::string::npos) return true;
    }
    return false;
  }
  const std::int64_t deadline = clock.nowNs() + std::min<std::int64_t>(300 + 20 * n, 3000) * msNs;
  std::optional<std::string> last = before.value;
  std::int64_t lastChange = clock.nowNs();
  while (clock.nowNs() < deadline) {
    clock.sleepNs(10 * msNs);
    auto value = environment.accessibility.copy(*before.element, "AXValue").as<std::string>();
    const std::int64_t now = clock.nowNs();
    if (!needle.empty() && value && value->find(needle) != std::string::npos && value != before.value) return true;
    if (value != last) {
      last = value;
      lastChange = now;
    } else if (value != before.value && now - lastChange >= 80 * msNs) {
      // The value changed and has stood still, though it need not hold the text.
      return true;
    }
  }
  return false;
}

std::int32_t processId(double pid) {
  if (!(pid >= std::numeric_limits<std::int32_t>::min() && pid <= std::numeric_limits<std::int32_t>::max()))
    throw core::GlimmerstrandError(core::codes::invalidArgument, "pid が範囲外です: " + cypher::numberText(pid));
  return static_cast<std::int32_t>(pid);
}

void move(platform::Platform& platform, AxPoint to) { post(platform.input(), pointer(PointerAction::moved, to)); }

std::int64_t click(platform::Platform& platform, const ClickRequest& request) {
  const AxPoint at = request.at;
  const std::int64_t count = std::max<std::int64_t>(request.count, 1);
  const std::int64_t holdNs = pauseNs(request.holdMs);
  auto& input = platform.input();
  post(input, pointer(PointerAction::moved, at));
  for (std::int64_t n = 1; n <= count; ++n) {
    post(input, pointer(PointerAction::down, at, request.button, n));
    if (holdNs > 0) platform.clock().sleepNs(holdNs);
    post(input, pointer(PointerAction::up, at, request.button, n));
  }
  return count;
}

void drag(platform::Platform& platform, AxPoint from, AxPoint to, std::int64_t stepsAsked) {
  const std::int64_t steps = std::max<std::int64_t>(stepsAsked, 2);
  auto& input = platform.input();
  auto& clock = platform.clock();
  post(input, pointer(PointerAction::moved, from));
  post(input, pointer(PointerAction::down, from));
  clock.sleepNs(60 * msNs);
  for (std::int64_t n = 1; n <= steps; ++n) {
    const double share = static_cast<double>(n) / static_cast<double>(steps);
    // The last step lies on the end itself, which the sum need not hit exactly.
    const AxPoint at = n == steps ? to : AxPoint{from.x + (to.x - from.x) * share, from.y + (to.y - from.y) * share};
    post(input, pointer(PointerAction::dragged, at));
    clock.sleepNs(16 * msNs);
  }
  clock.sleepNs(60 * msNs);
  post(input, pointer(PointerAction::up, to));
}

ScrollReport scroll(platform::Platform& platform, const ScrollRequest& request) {
  const std::int32_t dx = whole32(request.dx);
  const std::int32_t dy = whole32(request.dy);
  auto& input = platform.input();
  auto& clock = platform.clock();
  const AxPoint home = input.pointerLocation();
  if (request.at) {
    input.warpPointer(*request.at);
    clock.sleepNs(15 * msNs);
  }
  auto yLines = static_cast<std::int64_t>(std::round(dy / pointsPerLine));
  auto xLines = static_cast<std::int64_t>(std::round(dx / pointsPerLine));
  // One event goes out even with nothing to scroll, and at most 400 lines.
  for (int n = 0; n < maxScrollEvents; ++n) {
    const int sy = sign(yLines), sx = sign(xLines);
    post(input, platform::ScrollEvent{sy, sx, 0});
    yLines -= sy;
    xLines -= sx;
    clock.sleepNs(6 * msNs);
    if (yLines == 0 && xLines == 0) break;
  }
  if (request.at) {
    clock.sleepNs(30 * msNs);
    input.warpPointer(home);
  }
  return ScrollReport{dx, dy};
}

std::string key(platform::Platform& platform, std::string_view keys, std::optional<std::int32_t> pid) {
  auto events = keyComboEvents(platform.input(), keys);
  std::optional<std::int32_t> target;
  if (pid) target = keyTarget(platform, *pid);
  for (const auto& event : events) post(platform.input(), event, target);
  return lowerText(keys);
}

TypeReport type(platform::Platform& platform, std::string_view text, std::optional<std::int32_t> pid,
                double intervalMs) {
  const std::int64_t intervalNs = pauseNs(intervalMs);
  auto& ax = platform.accessibility();
  std::optional<std::int32_t> target;
  TypingWatch before;
  if (pid) {
    target = keyTarget(platform, *pid);
    // What the application itself shows, even when its keys go to a panel.
    before = watchFocusedText(ax, *pid);
  }
  auto events = typingEvents(platform.input(), text);
  {
    // One text is one run of keys: a window in the background keeps the
    // focus from its first key to its last.
    KeyRun run(platform.input(), target);
    for (std::size_t n = 0; n < events.size(); ++n) {
      post(platform.input(), events[n], target);
      if (n % 2 == 1 && intervalNs > 0) platform.clock().sleepNs(intervalNs);
    }
  }
  const bool seen = pid ? textSeen({ax, platform.clock()}, text, before) : true;
  return TypeReport{static_cast<std::int64_t>(cypher::graphemeCount(text)), seen};
}

}  // namespace glimmerstrand::native
