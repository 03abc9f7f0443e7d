// Synthesised keyboard and pointer input: move, click, drag, scroll, key and
// type. Key codes and modifier bits come from the backend's tables; what to
// press in which order is decided here: "cmd+shift+4" presses command, shift,
// then 4, and releases in reverse; typing sends one key per grapheme with the
// grapheme as the key's text, so any script types the same way.
//
// Keys may go to one process by pid, without bringing it to the front. An
// application whose open or save panel has the focus may have that panel
// drawn by another process (a backend fact); its keys go there. As a posted
// key gives no feedback, `type` with a pid watches the focused element's
// value to say whether the text arrived (textSeen).
//
// All of these run on the serial input queue, so events of two operations
// never interleave; their pauses are sleeps of the platform's clock.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mirror/app_mirror.h"
#include "platform/input.h"
#include "platform/platform.h"
#include "platform/workspace.h"

namespace glimmerstrand::native {

/// The key events of a combination such as "cmd+shift+4", in posting order.
/// Fails "invalid_argument" for an unknown key or modifier, before any
/// event is made.
std::vector<platform::KeyEvent> keyComboEvents(platform::Input& input, std::string_view keys);

/// A down and an up event per grapheme of `text`, with flags 0 and the
/// grapheme's UTF-16 units as the key's text.
std::vector<platform::KeyEvent> typingEvents(platform::Input& input, std::string_view text);

/// The process that takes keys meant for `pid`: `pid`, or the process that
/// draws its open or save panel while one has the focus. Throws "no_action"
/// while `pid` is held inside a press (held_applications.h).
std::int32_t keyTarget(platform::Platform& platform, std::int32_t pid);

/// What a process shows before typing: its focused element and that
/// element's text.
struct TypingWatch {
  std::int32_t pid = 0;
  std::optional<Element> element;
  std::optional<std::string> value;
};
TypingWatch watchFocusedText(platform::Accessibility& ax, std::int32_t pid);

/// Whether typed `text` landed in the watched element, waiting at most
/// 0.3 s + 20 ms a grapheme (3 s at most).
bool textSeen(MirrorEnvironment environment, std::string_view text, const TypingWatch& before);

/// A pid as 32 bits, any fraction dropped; fails "invalid_argument" beyond them.
std::int32_t processId(double pid);

void move(platform::Platform& platform, platform::AxPoint to);

struct ClickRequest {
  platform::AxPoint at;
  platform::MouseButton button = platform::MouseButton::left;
  std::int64_t count = 1;  // 1 at least
  double holdMs = 0;       // between each press and its release
};
/// The number of clicks made.
std::int64_t click(platform::Platform& platform, const ClickRequest& request);

/// Presses at `from`, moves in `steps` steps (2 at least), releases at `to`.
void drag(platform::Platform& platform, platform::AxPoint from, platform::AxPoint to, std::int64_t steps = 12);

struct ScrollRequest {
  double dx = 0;
  double dy = 0;
  /// Where the pointer scrolls, put back afterwards; where it is when absent.
  std::optional<platform::AxPoint> at;
};
/// The whole points scrolled, as 32-bit integers.
struct ScrollReport {
  std::int64_t dx = 0;
  std::int64_t dy = 0;
};
ScrollReport scroll(platform::Platform& platform, const ScrollRequest& request);

/// Presses a combination such as "cmd+shift+4", to `pid` when given; the
/// combination as pressed, lower-cased.
std::string key(platform::Platform& platform, std::string_view keys, std::optional<std::int32_t> pid);

struct TypeReport {
  std::int64_t length = 0;  // graphemes
  bool seen = true;         // the text reached the focused element; true without a pid
};
TypeReport type(platform::Platform& platform, std::string_view text, std::optional<std::int32_t> pid,
                double intervalMs = 4.0);

}  // namespace glimmerstrand::native
