#include "platform/wayland/wayland_input.h"

#include <linux/input-event-codes.h>
#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>

#include <algorithm>
#include <cmath>

#include "virtual-keyboard-unstable-v1-client.h"
#include "wlr-virtual-pointer-unstable-v1-client.h"

namespace glimmerstrand::platform::wayland_desktop {

namespace {

constexpr std::uint32_t keymapFormatXkbV1 = 1;
constexpr std::uint32_t keyReleased = 0, keyPressed = 1;
constexpr std::uint32_t buttonReleased = 0, buttonPressed = 1;
// One wheel notch, as a mouse's wheel reports it.
constexpr double notch = 15;

struct ModifierName {
  const char* name;
  std::uint32_t mask;
};

// Control is the primary shortcut modifier, so cmd and ctrl press the same
// key, as on X11. fn has no key: it holds nothing down.
constexpr ModifierName modifierNames[] = {
    {"cmd", controlMask}, {"command", controlMask}, {"ctrl", controlMask}, {"control", controlMask},
    {"shift", shiftMask}, {"alt", altMask},         {"option", altMask},   {"fn", 0},
};

std::uint32_t buttonOf(MouseButton button) {
  switch (button) {
    case MouseButton::left:
      return BTN_LEFT;
    case MouseButton::center:
      return BTN_MIDDLE;
    case MouseButton::right:
      return BTN_RIGHT;
  }
  return BTN_LEFT;
}

// The box that absolute pointer positions span: every output together.
AxRect layoutOf(const std::vector<Output>& outputs) {
  if (outputs.empty()) return {0, 0, 1, 1};
  double left = outputs.front().bounds.x, top = outputs.front().bounds.y, right = left, bottom = top;
  for (const auto& o : outputs) {
    left = std::min(left, o.bounds.x);
    top = std::min(top, o.bounds.y);
    right = std::max(right, o.bounds.x + o.bounds.width);
    bottom = std::max(bottom, o.bounds.y + o.bounds.height);
  }
  return {left, top, std::max(right - left, 1.0), std::max(bottom - top, 1.0)};
}

}  // namespace

WaylandInput::WaylandInput(WaylandClient& client, WaylandWindows& windows) : client_(client), windows_(windows) {
  for (const auto& m : modifierNames) modifiers_[m.name] = ModifierKey{m.mask, WaylandKeymap::modifierKey(m.mask)};
  const Globals& g = client.globals();
  if (!g.seat) return;
  std::lock_guard guard(lock_);
  auto wire = client.wire();
  if (g.keyboards) {
    keyboard_ = zwp_virtual_keyboard_manager_v1_create_virtual_keyboard(g.keyboards, g.seat);
    sendKeymap();
  }
  if (g.pointers) pointer_ = zwlr_virtual_pointer_manager_v1_create_virtual_pointer(g.pointers, g.seat);
  client.flush();
  const auto outputs = client.outputs();
  if (!outputs.empty())
    location_ = {outputs.front().bounds.x + outputs.front().bounds.width / 2,
                 outputs.front().bounds.y + outputs.front().bounds.height / 2};
}

WaylandInput::~WaylandInput() {
  auto wire = client_.wire();
  if (keyboard_) zwp_virtual_keyboard_v1_destroy(keyboard_);
  if (pointer_) zwlr_virtual_pointer_v1_destroy(pointer_);
  client_.flush();
}

// REQUIRES: lock_ and wire() held.
void WaylandInput::sendKeymap() {
  const std::string text = keymap_.text();
  const int fd = ::memfd_create("glimmerstrand-keymap", MFD_CLOEXEC);
  if (fd < 0) return;
  // The compositor maps it with its terminating zero.
  if (::write(fd, text.c_str(), text.size() + 1) == static_cast<ssize_t>(text.size() + 1))
    zwp_virtual_keyboard_v1_keymap(keyboard_, keymapFormatXkbV1, fd, static_cast<std::uint32_t>(text.size() + 1));
  ::close(fd);
}

// REQUIRES: lock_ and wire() held.
void WaylandInput::sendKey(std::uint16_t code, bool down) {
  if (down)
    held_.insert(code);
  else
    held_.erase(code);
  zwp_virtual_keyboard_v1_key(keyboard_, eventTime(), code, down ? keyPressed : keyReleased);
}

// REQUIRES: lock_ and wire() held.
void WaylandInput::sendModifiers(std::uint32_t depressed) {
  if (depressed == depressed_) return;
  depressed_ = depressed;
  zwp_virtual_keyboard_v1_modifiers(keyboard_, depressed, 0, 0, 0);
}

// REQUIRES: lock_ and wire() held.
void WaylandInput::typeCodePoint(char32_t c) {
  bool changed = false;
  const KeyStroke stroke = keymap_.strokeFor(c, changed);
  if (changed) sendKeymap();
  const std::uint32_t before = depressed_;
  if (stroke.shift) {
    sendModifiers(before | shiftMask);
    sendKey(KEY_LEFTSHIFT, true);
  }
  sendKey(stroke.code, true);
  sendKey(stroke.code, false);
  if (stroke.shift) {
    sendKey(KEY_LEFTSHIFT, false);
    sendModifiers(before);
  }
}

bool WaylandInput::postKey(const KeyEvent& event, std::optional<std::int32_t> pid) {
  if (!keyboard_) return false;
  const std::u32string text = codePoints(event.text);
  const auto flags = static_cast<std::uint32_t>(event.flags);
  const bool shortcut = flags & (controlMask | altMask);
  // Characters typed as themselves, whatever key the table gave; control
  // characters go by their key.
  const bool typed = !text.empty() && !shortcut && text[0] >= 0x20;
  if (typed && !event.down) return true;
  std::lock_guard guard(lock_);
  // Focus first: the keys then go out after it, in order.
  if (pid)
    borrowFocus(*pid);
  else if (borrowed_ && held_.empty())
    giveFocusBack();
  auto wire = client_.wire();
  if (typed) {
    for (char32_t c : text) typeCodePoint(c);
  } else if (event.keyCode != 0) {
    sendModifiers(flags & (shiftMask | controlMask | altMask | superMask));
    sendKey(event.keyCode, event.down);
  }
  client_.flush();
  wire.unlock();
  if (mayGiveFocusBack()) giveFocusBack();
  return true;
}

void WaylandInput::beginKeys(std::int32_t pid) {
  std::lock_guard guard(lock_);
  if (!keyboard_) return;
  borrowFocus(pid);
  typing_ = true;
}

void WaylandInput::endKeys() {
  std::lock_guard guard(lock_);
  typing_ = false;
  if (mayGiveFocusBack()) giveFocusBack();
}

// REQUIRES: lock_ held. Gives the focus to the process's window; nothing
// happens when it has it already.
void WaylandInput::borrowFocus(std::int32_t pid) {
  // The release of a key pressed for the same process keeps the window it went to.
  if (borrowed_ && borrowed_->pid == pid) return;
  if (borrowed_) giveFocusBack();
  if (windows_.frontPid() == pid) return;
  const auto previous = windows_.activeToplevel();
  if (!windows_.focus(pid)) return;
  borrowed_ = Borrowed{previous, pid};
}

// REQUIRES: lock_ held.
void WaylandInput::giveFocusBack() {
  if (!borrowed_) return;
  if (borrowed_->previous) windows_.focusToplevel(*borrowed_->previous);
  borrowed_.reset();
}

// REQUIRES: lock_ and wire() held.
void WaylandInput::moveTo(AxPoint location) {
  const AxRect layout = layoutOf(client_.outputs());
  const double x = std::clamp(location.x - layout.x, 0.0, layout.width - 1);
  const double y = std::clamp(location.y - layout.y, 0.0, layout.height - 1);
  zwlr_virtual_pointer_v1_motion_absolute(
      pointer_, eventTime(), static_cast<std::uint32_t>(std::lround(x)), static_cast<std::uint32_t>(std::lround(y)),
      static_cast<std::uint32_t>(layout.width), static_cast<std::uint32_t>(layout.height));
  zwlr_virtual_pointer_v1_frame(pointer_);
  location_ = location;
}

bool WaylandInput::postPointer(const PointerEvent& event, std::optional<std::int32_t>) {
  if (!pointer_) return false;
  std::lock_guard guard(lock_);
  auto wire = client_.wire();
  // The button goes where the pointer is: every event first puts it there.
  moveTo(event.location);
  // Double clicks are the application's reading of two quick clicks.
  if (event.action == PointerAction::down || event.action == PointerAction::up) {
    zwlr_virtual_pointer_v1_button(pointer_, eventTime(), buttonOf(event.button),
                                   event.action == PointerAction::down ? buttonPressed : buttonReleased);
    zwlr_virtual_pointer_v1_frame(pointer_);
  }
  client_.flush();
  return true;
}

bool WaylandInput::postScroll(const ScrollEvent& event, std::optional<std::int32_t>) {
  if (!pointer_) return false;
  std::lock_guard guard(lock_);
  auto wire = client_.wire();
  // One notch a line; lines up are negative on Wayland's axis.
  auto notches = [this](std::int32_t lines, std::uint32_t axis) {
    for (std::int32_t n = 0; n < std::abs(lines); ++n) {
      const std::int32_t step = lines > 0 ? -1 : 1;
      zwlr_virtual_pointer_v1_axis_source(pointer_, WL_POINTER_AXIS_SOURCE_WHEEL);
      zwlr_virtual_pointer_v1_axis_discrete(pointer_, eventTime(), axis, wl_fixed_from_double(step * notch), step);
      zwlr_virtual_pointer_v1_frame(pointer_);
    }
  };
  notches(event.verticalLines, WL_POINTER_AXIS_VERTICAL_SCROLL);
  notches(event.horizontalLines, WL_POINTER_AXIS_HORIZONTAL_SCROLL);
  client_.flush();
  return true;
}

AxPoint WaylandInput::pointerLocation() {
  std::lock_guard guard(lock_);
  return location_;
}

void WaylandInput::warpPointer(AxPoint location) {
  if (!pointer_) return;
  std::lock_guard guard(lock_);
  auto wire = client_.wire();
  moveTo(location);
  client_.flush();
}

}  // namespace glimmerstrand::platform::wayland_desktop
