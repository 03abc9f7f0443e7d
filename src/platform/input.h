// Synthesised input: pointer, keys and scroll wheels. Key codes and modifier
// bits are platform facts and live in the backend's tables; what to press in
// which order (parsing "cmd+shift+4", typing grapheme by grapheme) is shared
// logic above the seam. Events are posted in call order; callable from any
// thread, though the driver serialises input on one queue.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/ax_value.h"

namespace glimmerstrand::platform {

enum class MouseButton { left, right, center };
enum class PointerAction { moved, down, up, dragged };

struct PointerEvent {
  PointerAction action = PointerAction::moved;
  MouseButton button = MouseButton::left;
  std::int64_t clickState = 1;  // 2 on the second click of a double click
  AxPoint location;             // desktop points
  std::uint64_t flags = 0;      // modifier bits of the backend's table
};

struct KeyEvent {
  std::uint16_t keyCode = 0;  // the backend's code, from keyCodes()
  bool down = true;
  std::uint64_t flags = 0;
  std::u16string text;  // what the key types, when it types something
};

/// A key's text as code points, a surrogate pair taken as one: backends that
/// type by keysym or keymap work with whole characters.
inline std::u32string codePoints(const std::u16string& text) {
  std::u32string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000)
      c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
    out += c;
  }
  return out;
}

/// A modifier: its flag bit and the key that holds it down.
struct ModifierKey {
  std::uint64_t flag = 0;
  std::uint16_t keyCode = 0;
};

struct ScrollEvent {
  std::int32_t verticalLines = 0;  // positive scrolls up
  std::int32_t horizontalLines = 0;
  std::uint64_t flags = 0;
};

class Input {
 public:
  virtual ~Input() = default;

  /// Posts to the whole session (`pid` absent: where the pointer or the focus
  /// is) or to one process, which need not be in front. False when the
  /// backend could not make the event, and nothing went out; a process that
  /// has gone is no failure, as posting gives no feedback.
  virtual bool postPointer(const PointerEvent& event, std::optional<std::int32_t> pid) = 0;
  virtual bool postKey(const KeyEvent& event, std::optional<std::int32_t> pid) = 0;
  /// Keeps the keys posted for `pid` until `endKeys` one run of typing: a
  /// process in the background holds what lets it take keys (the focus, where
  /// keys go by the focus) from the first key to the last, as it would while a
  /// person types. A field that ends an entry when its window loses the focus
  /// (a browser's date part) then sees the whole text. Nothing by default.
  virtual void beginKeys(std::int32_t /*pid*/) {}
  virtual void endKeys() {}
  /// At the current pointer location.
  virtual bool postScroll(const ScrollEvent& event, std::optional<std::int32_t> pid) = 0;

  virtual AxPoint pointerLocation() = 0;
  /// Moves the pointer without an event.
  virtual void warpPointer(AxPoint location) = 0;

  /// Lower-case key names ("a", "return", "enter", "f5", "left", ...) to the
  /// backend's codes; every name a person may write, aliases included.
  virtual const std::unordered_map<std::string, std::uint16_t>& keyCodes() = 0;
  /// Lower-case modifier names ("cmd", "command", "shift", "alt", "option",
  /// "ctrl", "control", "fn") to their flag bits and key codes.
  virtual const std::unordered_map<std::string, ModifierKey>& modifierKeys() = 0;
};

}  // namespace glimmerstrand::platform
