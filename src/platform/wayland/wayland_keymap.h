// The keyboard layout of our virtual keyboard, ours rather than the user's:
// a Wayland virtual keyboard sends key codes with a keymap of its own, so the
// names a person writes ("a", "return", "f5") and every character of a typed
// text map to keys we define. Named keys keep the evdev codes of a US
// keyboard; a character no key of that layout types goes on a spare key,
// which takes the character's keysym, and the keymap is sent again.
//
// A plain value, not thread-safe: the input device holds it under its lock.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace glimmerstrand::platform::wayland_desktop {

/// Modifier masks of the keymap: XKB's real modifiers, in their fixed order.
enum ModifierMask : std::uint32_t {
  shiftMask = 1u << 0,
  controlMask = 1u << 2,
  altMask = 1u << 3,    // Mod1
  superMask = 1u << 6,  // Mod4
};

/// How to type one character: a key, with or without shift.
struct KeyStroke {
  std::uint16_t code = 0;  // evdev code
  bool shift = false;
};

class WaylandKeymap {
 public:
  WaylandKeymap();

  /// Lower-case key names to evdev codes, aliases included.
  const std::unordered_map<std::string, std::uint16_t>& keyCodes() const { return names_; }
  /// The evdev code of the key that holds each modifier down.
  static std::uint16_t modifierKey(std::uint32_t mask);

  /// The key that types `c` (a Unicode code point). A character of no key
  /// takes a spare one, in turn, so that an application still reading the
  /// last few characters sees the keys they were typed with; `changed` tells
  /// that the keymap must be sent again before the key goes out.
  KeyStroke strokeFor(char32_t c, bool& changed);

  /// The keymap as XKB text, as the compositor compiles it.
  std::string text() const;

 private:
  struct Key {
    std::uint32_t lower = 0;  // keysym of the first level
    std::uint32_t upper = 0;  // of the second, 0 for none
  };
  std::map<std::uint16_t, Key> keys_;  // by evdev code: every key the keymap defines
  std::unordered_map<std::string, std::uint16_t> names_;
  std::unordered_map<std::uint32_t, KeyStroke> byKeysym_;  // what types each keysym now
  std::vector<std::uint16_t> spares_;
  std::size_t nextSpare_ = 0;
};

/// The keysym that types a code point: Latin-1 as itself, others as Unicode
/// keysyms.
std::uint32_t keysymOf(char32_t c);

}  // namespace glimmerstrand::platform::wayland_desktop
