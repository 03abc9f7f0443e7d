// Synthesised input on X11 through XTest. Key codes are X keycodes, found
// from keysyms when the connection opens; modifier flags are X modifier
// masks, with Control as the primary shortcut modifier. Keys for one process
// go to its window without raising it: its window takes the focus for as
// long as a key is held, or a text is typed, then the focus goes back. Characters no key types
// are typed through spare keycodes remapped to their keysyms.
//
// Thread-safety: any thread; one mutex guards the connection and the focus
// borrowed for a process, and is never held across a call into an
// application (X requests only go to the server).
#pragma once

#include <map>
#include <mutex>
#include <set>

#include "platform/input.h"
#include "platform/linux/x11_connection.h"

namespace glimmerstrand::platform::linux_desktop {

class X11Input final : public Input {
 public:
  X11Input();
  ~X11Input() override;

  bool postPointer(const PointerEvent& event, std::optional<std::int32_t> pid) override;
  bool postKey(const KeyEvent& event, std::optional<std::int32_t> pid) override;
  bool postScroll(const ScrollEvent& event, std::optional<std::int32_t> pid) override;
  void beginKeys(std::int32_t pid) override;
  void endKeys() override;
  AxPoint pointerLocation() override;
  void warpPointer(AxPoint location) override;
  const std::unordered_map<std::string, std::uint16_t>& keyCodes() override { return keys_; }
  const std::unordered_map<std::string, ModifierKey>& modifierKeys() override { return modifiers_; }

 private:
  /// The focus taken from someone while keys go to a process's window.
  struct Borrowed {
    XWindowId previous = 0;
    int revertTo = 0;
    XWindowId target = 0;
    std::int32_t pid = 0;
  };

  // REQUIRES: lock_ held.
  bool sendKey(unsigned keycode, bool down);
  bool typeCodePoint(char32_t c);
  unsigned keycodeFor(unsigned long keysym, bool& shift);
  void borrowFocus(std::int32_t pid);
  void giveFocusBack();
  bool mayGiveFocusBack() const { return borrowed_ && held_.empty() && !typing_; }

  std::mutex lock_;
  XConnection* x_ = nullptr;
  bool xtest_ = false;
  std::unordered_map<std::string, std::uint16_t> keys_;
  std::unordered_map<std::string, ModifierKey> modifiers_;
  std::vector<unsigned> spares_;                // keycodes with no keysym, for characters no key types
  std::map<unsigned long, unsigned> remapped_;  // keysym to the spare keycode that types it now
  std::size_t nextSpare_ = 0;
  std::set<unsigned> held_;  // keycodes pressed and not yet released
  bool typing_ = false;      // between beginKeys and endKeys: the focus stays lent
  std::optional<Borrowed> borrowed_;
};

}  // namespace glimmerstrand::platform::linux_desktop
