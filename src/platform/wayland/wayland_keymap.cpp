#include "platform/wayland/wayland_keymap.h"

#include <linux/input-event-codes.h>

#include <cstdio>

namespace glimmerstrand::platform::wayland_desktop {

namespace {

// XKB keycodes are evdev codes plus 8, and stop at 255 for X clients.
constexpr std::uint16_t xkbOffset = 8;
constexpr std::uint16_t highestCode = 255 - xkbOffset;
// Spare keys start above every key of a keyboard's main block.
constexpr std::uint16_t firstSpare = 130;

struct Printable {
  std::uint16_t code;
  char lower, upper;
};

// The printable keys of a US keyboard, with their shifted characters.
constexpr Printable printable[] = {
    {KEY_1, '1', '!'},          {KEY_2, '2', '@'},         {KEY_3, '3', '#'},           {KEY_4, '4', '$'},
    {KEY_5, '5', '%'},          {KEY_6, '6', '^'},         {KEY_7, '7', '&'},           {KEY_8, '8', '*'},
    {KEY_9, '9', '('},          {KEY_0, '0', ')'},         {KEY_MINUS, '-', '_'},       {KEY_EQUAL, '=', '+'},
    {KEY_Q, 'q', 'Q'},          {KEY_W, 'w', 'W'},         {KEY_E, 'e', 'E'},           {KEY_R, 'r', 'R'},
    {KEY_T, 't', 'T'},          {KEY_Y, 'y', 'Y'},         {KEY_U, 'u', 'U'},           {KEY_I, 'i', 'I'},
    {KEY_O, 'o', 'O'},          {KEY_P, 'p', 'P'},         {KEY_LEFTBRACE, '[', '{'},   {KEY_RIGHTBRACE, ']', '}'},
    {KEY_A, 'a', 'A'},          {KEY_S, 's', 'S'},         {KEY_D, 'd', 'D'},           {KEY_F, 'f', 'F'},
    {KEY_G, 'g', 'G'},          {KEY_H, 'h', 'H'},         {KEY_J, 'j', 'J'},           {KEY_K, 'k', 'K'},
    {KEY_L, 'l', 'L'},          {KEY_SEMICOLON, ';', ':'}, {KEY_APOSTROPHE, '\'', '"'}, {KEY_GRAVE, '`', '~'},
    {KEY_BACKSLASH, '\\', '|'}, {KEY_Z, 'z', 'Z'},         {KEY_X, 'x', 'X'},           {KEY_C, 'c', 'C'},
    {KEY_V, 'v', 'V'},          {KEY_B, 'b', 'B'},         {KEY_N, 'n', 'N'},           {KEY_M, 'm', 'M'},
    {KEY_COMMA, ',', '<'},      {KEY_DOT, '.', '>'},       {KEY_SLASH, '/', '?'},       {KEY_SPACE, ' ', 0},
};

struct Named {
  const char* name;
  std::uint16_t code;
  std::uint32_t keysym;
};

// Keys that type no character, by the names a person writes. Enter is the
// main return key; delete and backspace both delete backward.
constexpr Named named[] = {
    {"return", KEY_ENTER, 0xff0d},
    {"enter", KEY_ENTER, 0xff0d},
    {"tab", KEY_TAB, 0xff09},
    {"space", KEY_SPACE, 0x20},
    {"delete", KEY_BACKSPACE, 0xff08},
    {"backspace", KEY_BACKSPACE, 0xff08},
    {"escape", KEY_ESC, 0xff1b},
    {"esc", KEY_ESC, 0xff1b},
    {"forwarddelete", KEY_DELETE, 0xffff},
    {"home", KEY_HOME, 0xff50},
    {"end", KEY_END, 0xff57},
    {"pageup", KEY_PAGEUP, 0xff55},
    {"pagedown", KEY_PAGEDOWN, 0xff56},
    {"left", KEY_LEFT, 0xff51},
    {"right", KEY_RIGHT, 0xff53},
    {"down", KEY_DOWN, 0xff54},
    {"up", KEY_UP, 0xff52},
};

constexpr std::uint16_t functionKeys[] = {KEY_F1, KEY_F2, KEY_F3, KEY_F4,  KEY_F5,  KEY_F6,
                                          KEY_F7, KEY_F8, KEY_F9, KEY_F10, KEY_F11, KEY_F12};

struct Modifier {
  std::uint32_t mask;
  std::uint16_t code;
  std::uint32_t keysym;
  const char* xkbName;
};

constexpr Modifier modifiers[] = {
    {shiftMask, KEY_LEFTSHIFT, 0xffe1, "Shift"},
    {controlMask, KEY_LEFTCTRL, 0xffe3, "Control"},
    {altMask, KEY_LEFTALT, 0xffe9, "Mod1"},
    {superMask, KEY_LEFTMETA, 0xffeb, "Mod4"},
};

std::string hex(std::uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
}

bool isLetter(char c) { return c >= 'a' && c <= 'z'; }

}  // namespace

std::uint32_t keysymOf(char32_t c) {
  if ((c >= 0x20 && c < 0x7f) || (c >= 0xa0 && c <= 0xff)) return c;
  return 0x01000000u | c;
}

WaylandKeymap::WaylandKeymap() {
  for (const auto& p : printable) {
    keys_[p.code] = Key{static_cast<unsigned char>(p.lower), static_cast<unsigned char>(p.upper)};
    byKeysym_[static_cast<unsigned char>(p.lower)] = KeyStroke{p.code, false};
    if (p.upper) byKeysym_[static_cast<unsigned char>(p.upper)] = KeyStroke{p.code, true};
    if (p.lower != ' ') names_[std::string(1, p.lower)] = p.code;
  }
  for (const auto& n : named) {
    keys_[n.code] = Key{n.keysym, 0};
    names_[n.name] = n.code;
  }
  for (std::size_t k = 0; k < std::size(functionKeys); ++k) {
    keys_[functionKeys[k]] = Key{static_cast<std::uint32_t>(0xffbe + k), 0};
    names_["f" + std::to_string(k + 1)] = functionKeys[k];
  }
  for (const auto& m : modifiers) keys_[m.code] = Key{m.keysym, 0};
  for (std::uint16_t code = firstSpare; code <= highestCode; ++code)
    if (!keys_.count(code)) spares_.push_back(code);
}

std::uint16_t WaylandKeymap::modifierKey(std::uint32_t mask) {
  for (const auto& m : modifiers)
    if (m.mask == mask) return m.code;
  return 0;
}

KeyStroke WaylandKeymap::strokeFor(char32_t c, bool& changed) {
  changed = false;
  const std::uint32_t keysym = keysymOf(c);
  if (auto known = byKeysym_.find(keysym); known != byKeysym_.end()) return known->second;
  const std::uint16_t code = spares_[nextSpare_++ % spares_.size()];
  // The spare's last character no longer types.
  if (auto old = keys_.find(code); old != keys_.end()) byKeysym_.erase(old->second.lower);
  keys_[code] = Key{keysym, 0};
  byKeysym_[keysym] = KeyStroke{code, false};
  changed = true;
  return byKeysym_[keysym];
}

std::string WaylandKeymap::text() const {
  std::string keycodes, symbols;
  for (const auto& [code, key] : keys_) {
    const std::string name = "<I" + std::to_string(code + xkbOffset) + ">";
    keycodes += "    " + name + " = " + std::to_string(code + xkbOffset) + ";\n";
    std::string type = "ONE_LEVEL";
    std::string levels = hex(key.lower);
    if (key.upper) {
      type = key.lower < 0x80 && isLetter(static_cast<char>(key.lower)) ? "ALPHABETIC" : "TWO_LEVEL";
      levels += ", " + hex(key.upper);
    }
    symbols += "    key " + name + " { type = \"" + type + "\", [ " + levels + " ] };\n";
  }
  for (const auto& m : modifiers)
    symbols += "    modifier_map " + std::string(m.xkbName) + " { <I" + std::to_string(m.code + xkbOffset) + "> };\n";
  return "xkb_keymap {\n"
         "  xkb_keycodes \"glimmerstrand\" {\n"
         "    minimum = 8;\n"
         "    maximum = 255;\n" +
         keycodes +
         "  };\n"
         "  xkb_types \"glimmerstrand\" {\n"
         "    type \"ONE_LEVEL\" { modifiers = none; level_name[Level1] = \"Any\"; };\n"
         "    type \"TWO_LEVEL\" { modifiers = Shift; map[Shift] = Level2; level_name[Level1] = \"Base\"; "
         "level_name[Level2] = \"Shift\"; };\n"
         "    type \"ALPHABETIC\" { modifiers = Shift+Lock; map[Shift] = Level2; map[Lock] = Level2; "
         "level_name[Level1] = \"Base\"; level_name[Level2] = \"Caps\"; };\n"
         "  };\n"
         "  xkb_compatibility \"glimmerstrand\" {\n"
         "    interpret Any + AnyOf(all) { action = SetMods(modifiers = modMapMods, clearLocks); };\n"
         "  };\n"
         "  xkb_symbols \"glimmerstrand\" {\n" +
         symbols +
         "  };\n"
         "};\n";
}

}  // namespace glimmerstrand::platform::wayland_desktop
