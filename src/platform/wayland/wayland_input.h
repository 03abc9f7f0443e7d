// Synthesised input on a wlroots desktop: keys through a virtual keyboard
// with a keymap of our own (wayland_keymap.h), pointer moves, buttons and
// wheels through a virtual pointer. Wayland sends keys only to the window
// with the focus, so keys for one process give the focus to its window for as
// long as a key is held, or a text is typed, then give it back to the window that had it: all on
// one connection, in order, so the compositor never sends a key elsewhere.
// Wayland has no warping and tells no client where the pointer is: the
// pointer is where our last event put it.
//
// Thread-safety: any thread; one mutex guards the keymap, the keys held, the
// focus borrowed and the pointer's place for a whole operation, and is taken
// before the client's wire() (never the other way round). It is never held
// across a call into an application: requests only go to the compositor.
#pragma once

#include <mutex>
#include <optional>
#include <set>

#include "platform/input.h"
#include "platform/wayland/wayland_client.h"
#include "platform/wayland/wayland_keymap.h"
#include "platform/wayland/wayland_windows.h"

struct zwp_virtual_keyboard_v1;
struct zwlr_virtual_pointer_v1;

namespace glimmerstrand::platform::wayland_desktop {

class WaylandInput final : public Input {
 public:
  /// Both outlive this object.
  WaylandInput(WaylandClient& client, WaylandWindows& windows);
  ~WaylandInput() override;

  /// Whether the compositor gave us a keyboard and a pointer.
  bool hasKeyboard() const { return keyboard_ != nullptr; }
  bool hasPointer() const { return pointer_ != nullptr; }

  bool postPointer(const PointerEvent& event, std::optional<std::int32_t> pid) override;
  bool postKey(const KeyEvent& event, std::optional<std::int32_t> pid) override;
  bool postScroll(const ScrollEvent& event, std::optional<std::int32_t> pid) override;
  void beginKeys(std::int32_t pid) override;
  void endKeys() override;
  AxPoint pointerLocation() override;
  void warpPointer(AxPoint location) override;
  const std::unordered_map<std::string, std::uint16_t>& keyCodes() override { return keymap_.keyCodes(); }
  const std::unordered_map<std::string, ModifierKey>& modifierKeys() override { return modifiers_; }

 private:
  /// The focus taken from a window while keys go to a process's window.
  struct Borrowed {
    std::optional<std::uint64_t> previous;
    std::int32_t pid = 0;
  };

  // REQUIRES: lock_ held; the senders also the client's wire().
  void sendKeymap();
  void sendKey(std::uint16_t code, bool down);
  void sendModifiers(std::uint32_t depressed);
  void typeCodePoint(char32_t c);
  void moveTo(AxPoint location);
  void borrowFocus(std::int32_t pid);
  void giveFocusBack();
  bool mayGiveFocusBack() const { return borrowed_ && held_.empty() && !typing_; }

  WaylandClient& client_;
  WaylandWindows& windows_;
  zwp_virtual_keyboard_v1* keyboard_ = nullptr;
  zwlr_virtual_pointer_v1* pointer_ = nullptr;
  std::unordered_map<std::string, ModifierKey> modifiers_;

  std::mutex lock_;
  WaylandKeymap keymap_;
  std::set<std::uint16_t> held_;  // keys pressed and not yet released
  std::uint32_t depressed_ = 0;   // modifiers told to the compositor
  std::optional<Borrowed> borrowed_;
  bool typing_ = false;  // between beginKeys and endKeys: the focus stays lent
  AxPoint location_;
};

}  // namespace glimmerstrand::platform::wayland_desktop
