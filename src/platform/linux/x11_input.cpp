#include "platform/linux/x11_input.h"

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <cmath>

namespace glimmerstrand::platform::linux_desktop {

namespace {

// Key names a person may write, aliases included, to the keysyms they press.
const std::vector<std::pair<std::string, KeySym>>& keyNames() {
  static const std::vector<std::pair<std::string, KeySym>> table = [] {
    std::vector<std::pair<std::string, KeySym>> t;
    for (char c = 'a'; c <= 'z'; ++c) t.emplace_back(std::string(1, c), XK_a + (c - 'a'));
    for (char c = '0'; c <= '9'; ++c) t.emplace_back(std::string(1, c), XK_0 + (c - '0'));
    const std::pair<const char*, KeySym> named[] = {
        {"=", XK_equal},
        {"-", XK_minus},
        {"]", XK_bracketright},
        {"[", XK_bracketleft},
        {"'", XK_apostrophe},
        {";", XK_semicolon},
        {"\\", XK_backslash},
        {",", XK_comma},
        {"/", XK_slash},
        {".", XK_period},
        {"`", XK_grave},
        // Enter is the main return key; delete and backspace both delete backward.
        {"return", XK_Return},
        {"enter", XK_Return},
        {"tab", XK_Tab},
        {"space", XK_space},
        {"delete", XK_BackSpace},
        {"backspace", XK_BackSpace},
        {"escape", XK_Escape},
        {"esc", XK_Escape},
        {"forwarddelete", XK_Delete},
        {"home", XK_Home},
        {"end", XK_End},
        {"pageup", XK_Prior},
        {"pagedown", XK_Next},
        {"left", XK_Left},
        {"right", XK_Right},
        {"down", XK_Down},
        {"up", XK_Up},
    };
    for (const auto& [name, sym] : named) t.emplace_back(name, sym);
    for (int n = 1; n <= 12; ++n) t.emplace_back("f" + std::to_string(n), XK_F1 + (n - 1));
    return t;
  }();
  return table;
}

struct ModifierName {
  const char* name;
  std::uint64_t mask;
  KeySym key;
};

// Control is the primary shortcut modifier, so cmd and ctrl press the same
// key. fn has no key on X11: it holds nothing down.
constexpr ModifierName modifierNames[] = {
    {"cmd", ControlMask, XK_Control_L},  {"command", ControlMask, XK_Control_L},
    {"ctrl", ControlMask, XK_Control_L}, {"control", ControlMask, XK_Control_L},
    {"shift", ShiftMask, XK_Shift_L},    {"alt", Mod1Mask, XK_Alt_L},
    {"option", Mod1Mask, XK_Alt_L},      {"fn", 0, NoSymbol},
};

KeySym keysymOf(char32_t c) {
  if ((c >= 0x20 && c < 0x7F) || (c >= 0xA0 && c <= 0xFF)) return c;
  return 0x01000000 | c;
}

unsigned buttonOf(MouseButton button) {
  switch (button) {
    case MouseButton::left:
      return 1;
    case MouseButton::center:
      return 2;
    case MouseButton::right:
      return 3;
  }
  return 1;
}

}  // namespace

X11Input::X11Input() : x_(openX11()) {
  if (!x_) return;
  int event, error, major, minor;
  xtest_ = XTestQueryExtension(x_, &event, &error, &major, &minor);
  for (const auto& [name, sym] : keyNames())
    if (KeyCode code = XKeysymToKeycode(x_, sym)) keys_[name] = code;
  for (const auto& m : modifierNames)
    modifiers_[m.name] =
        ModifierKey{m.mask, static_cast<std::uint16_t>(m.key == NoSymbol ? 0 : XKeysymToKeycode(x_, m.key))};
  int low = 0, high = 0;
  XDisplayKeycodes(x_, &low, &high);
  int perCode = 0;
  KeySym* map = XGetKeyboardMapping(x_, static_cast<KeyCode>(low), high - low + 1, &perCode);
  if (map) {
    for (int code = low; code <= high; ++code) {
      bool empty = true;
      for (int n = 0; n < perCode; ++n) empty = empty && map[(code - low) * perCode + n] == NoSymbol;
      if (empty) spares_.push_back(static_cast<unsigned>(code));
    }
    XFree(map);
  }
}

X11Input::~X11Input() {
  if (!x_) return;
  // The spare keys go back to typing nothing.
  for (const auto& [sym, code] : remapped_) {
    KeySym none = NoSymbol;
    XChangeKeyboardMapping(x_, static_cast<int>(code), 1, &none, 1);
  }
  closeX11(x_);
}

bool X11Input::postPointer(const PointerEvent& event, std::optional<std::int32_t>) {
  std::lock_guard guard(lock_);
  if (!x_ || !xtest_) return false;
  const int x = static_cast<int>(std::lround(event.location.x));
  const int y = static_cast<int>(std::lround(event.location.y));
  // The button goes where the pointer is: every event first puts it there.
  XTestFakeMotionEvent(x_, -1, x, y, CurrentTime);
  // Double clicks are the application's reading of two quick clicks; the
  // click state has nothing to say on X11.
  if (event.action == PointerAction::down || event.action == PointerAction::up)
    XTestFakeButtonEvent(x_, buttonOf(event.button), event.action == PointerAction::down, CurrentTime);
  XFlush(x_);
  return true;
}

bool X11Input::postScroll(const ScrollEvent& event, std::optional<std::int32_t>) {
  std::lock_guard guard(lock_);
  if (!x_ || !xtest_) return false;
  // Wheels are buttons: 4 up, 5 down, 6 left, 7 right, one click a line.
  auto clicks = [this](std::int32_t lines, unsigned positive, unsigned negative) {
    for (std::int32_t n = 0; n < std::abs(lines); ++n) {
      unsigned button = lines > 0 ? positive : negative;
      XTestFakeButtonEvent(x_, button, True, CurrentTime);
      XTestFakeButtonEvent(x_, button, False, CurrentTime);
    }
  };
  clicks(event.verticalLines, 4, 5);
  clicks(event.horizontalLines, 6, 7);
  XFlush(x_);
  return true;
}

bool X11Input::postKey(const KeyEvent& event, std::optional<std::int32_t> pid) {
  std::lock_guard guard(lock_);
  if (!x_ || !xtest_) return false;
  const std::u32string text = codePoints(event.text);
  const bool shortcut = event.flags & (ControlMask | Mod1Mask);
  // Characters typed as themselves, whatever key the table gave: the layout
  // decides which key and level type them, and the press types the whole
  // character. Control characters go by their key.
  const bool typed = !text.empty() && !shortcut && text[0] >= 0x20;
  if (typed && !event.down) return true;
  if (pid)
    borrowFocus(*pid);
  else if (borrowed_ && held_.empty())
    giveFocusBack();
  bool ok = true;
  if (typed) {
    if (event.down)
      for (char32_t c : text) ok = typeCodePoint(c) && ok;
  } else if (event.keyCode != 0) {
    ok = sendKey(event.keyCode, event.down);
  }
  if (mayGiveFocusBack()) giveFocusBack();
  XFlush(x_);
  return ok;
}

void X11Input::beginKeys(std::int32_t pid) {
  std::lock_guard guard(lock_);
  if (!x_) return;
  borrowFocus(pid);
  typing_ = true;
  XFlush(x_);
}

void X11Input::endKeys() {
  std::lock_guard guard(lock_);
  typing_ = false;
  if (!x_) return;
  if (mayGiveFocusBack()) giveFocusBack();
  XFlush(x_);
}

// REQUIRES: lock_ held.
bool X11Input::sendKey(unsigned keycode, bool down) {
  if (down)
    held_.insert(keycode);
  else
    held_.erase(keycode);
  return XTestFakeKeyEvent(x_, keycode, down, CurrentTime);
}

// REQUIRES: lock_ held.
unsigned X11Input::keycodeFor(unsigned long keysym, bool& shift) {
  shift = false;
  if (KeyCode code = XKeysymToKeycode(x_, keysym)) {
    if (XkbKeycodeToKeysym(x_, code, 0, 0) == keysym) return code;
    if (XkbKeycodeToKeysym(x_, code, 0, 1) == keysym) {
      shift = true;
      return code;
    }
  }
  if (auto known = remapped_.find(keysym); known != remapped_.end()) return known->second;
  if (spares_.empty()) return 0;
  // Spare keys are taken in turn, so that an application still reading the
  // last few characters sees the mapping they were typed with.
  unsigned code = spares_[nextSpare_++ % spares_.size()];
  std::erase_if(remapped_, [code](const auto& entry) { return entry.second == code; });
  KeySym both[2] = {keysym, keysym};
  XChangeKeyboardMapping(x_, static_cast<int>(code), 2, both, 1);
  XSync(x_, False);
  remapped_[keysym] = code;
  return code;
}

// REQUIRES: lock_ held.
bool X11Input::typeCodePoint(char32_t c) {
  bool shift = false;
  unsigned code = keycodeFor(keysymOf(c), shift);
  if (!code) return false;
  unsigned shiftCode = modifiers_.at("shift").keyCode;
  if (shift) XTestFakeKeyEvent(x_, shiftCode, True, CurrentTime);
  XTestFakeKeyEvent(x_, code, True, CurrentTime);
  XTestFakeKeyEvent(x_, code, False, CurrentTime);
  if (shift) XTestFakeKeyEvent(x_, shiftCode, False, CurrentTime);
  return true;
}

// REQUIRES: lock_ held. Focuses the process's window without raising it;
// nothing happens when it already has the focus.
void X11Input::borrowFocus(std::int32_t pid) {
  // The release of a key pressed for the same process keeps the window it went to.
  if (borrowed_ && borrowed_->pid == pid) return;
  auto window = topWindowOf(x_, pid);
  if (!window) return;
  if (borrowed_ && borrowed_->target == window->window) return;
  if (borrowed_) giveFocusBack();
  ::Window focus = 0;
  int revert = RevertToParent;
  XGetInputFocus(x_, &focus, &revert);
  if (pidOfWindow(x_, focus) == pid) return;
  borrowed_ = Borrowed{focus, revert, window->window, pid};
  XSetInputFocus(x_, window->window, RevertToParent, CurrentTime);
}

// REQUIRES: lock_ held.
void X11Input::giveFocusBack() {
  if (!borrowed_) return;
  XSetInputFocus(x_, borrowed_->previous, borrowed_->revertTo, CurrentTime);
  borrowed_.reset();
}

AxPoint X11Input::pointerLocation() {
  std::lock_guard guard(lock_);
  if (!x_) return {};
  ::Window root, child;
  int rootX = 0, rootY = 0, winX, winY;
  unsigned mask;
  XQueryPointer(x_, DefaultRootWindow(x_), &root, &child, &rootX, &rootY, &winX, &winY, &mask);
  return AxPoint{double(rootX), double(rootY)};
}

void X11Input::warpPointer(AxPoint location) {
  std::lock_guard guard(lock_);
  if (!x_) return;
  XWarpPointer(x_, None, DefaultRootWindow(x_), 0, 0, 0, 0, static_cast<int>(std::lround(location.x)),
               static_cast<int>(std::lround(location.y)));
  XFlush(x_);
}

}  // namespace glimmerstrand::platform::linux_desktop
