// Synthesised input on the simulated desktop. Key codes and modifier bits are
// the simulated desktop's own facts; it uses the virtual key codes and event
// flags of the desktop the system was first written for, so that tables and
// traces read the same on every backend.
#include <algorithm>

#include "platform/sim/sim_state.h"

namespace glimmerstrand::platform::sim {

namespace {

constexpr std::uint64_t commandFlag = 1u << 20;
constexpr std::uint64_t controlFlag = 1u << 18;

const std::unordered_map<std::string, std::uint16_t>& keyTable() {
  static const std::unordered_map<std::string, std::uint16_t> table{
      // Letters.
      {"a", 0},
      {"s", 1},
      {"d", 2},
      {"f", 3},
      {"h", 4},
      {"g", 5},
      {"z", 6},
      {"x", 7},
      {"c", 8},
      {"v", 9},
      {"b", 11},
      {"q", 12},
      {"w", 13},
      {"e", 14},
      {"r", 15},
      {"y", 16},
      {"t", 17},
      {"o", 31},
      {"u", 32},
      {"i", 34},
      {"p", 35},
      {"l", 37},
      {"j", 38},
      {"k", 40},
      {"n", 45},
      {"m", 46},
      // Digits.
      {"1", 18},
      {"2", 19},
      {"3", 20},
      {"4", 21},
      {"6", 22},
      {"5", 23},
      {"9", 25},
      {"7", 26},
      {"8", 28},
      {"0", 29},
      // Punctuation.
      {"=", 24},
      {"-", 27},
      {"]", 30},
      {"[", 33},
      {"'", 39},
      {";", 41},
      {"\\", 42},
      {",", 43},
      {"/", 44},
      {".", 47},
      {"`", 50},
      // Named keys; enter is the main return key, delete and backspace both delete backward.
      {"return", 36},
      {"enter", 36},
      {"tab", 48},
      {"space", 49},
      {"delete", 51},
      {"backspace", 51},
      {"escape", 53},
      {"esc", 53},
      {"forwarddelete", 117},
      {"home", 115},
      {"end", 119},
      {"pageup", 116},
      {"pagedown", 121},
      {"left", 123},
      {"right", 124},
      {"down", 125},
      {"up", 126},
      // Function keys.
      {"f1", 122},
      {"f2", 120},
      {"f3", 99},
      {"f4", 118},
      {"f5", 96},
      {"f6", 97},
      {"f7", 98},
      {"f8", 100},
      {"f9", 101},
      {"f10", 109},
      {"f11", 103},
      {"f12", 111},
  };
  return table;
}

const std::unordered_map<std::string, ModifierKey>& modifierTable() {
  static const std::unordered_map<std::string, ModifierKey> table{
      {"cmd", {commandFlag, 55}},     {"command", {commandFlag, 55}}, {"shift", {1u << 17, 56}},
      {"alt", {1u << 19, 58}},        {"option", {1u << 19, 58}},     {"ctrl", {controlFlag, 59}},
      {"control", {controlFlag, 59}}, {"fn", {1u << 23, 63}},
  };
  return table;
}

void appendUTF8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

std::string utf8(const std::u16string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000)
      c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
    appendUTF8(out, c);
  }
  return out;
}

// The text without its last code point.
std::string withoutLast(std::string text) {
  while (!text.empty()) {
    bool lead = (static_cast<unsigned char>(text.back()) & 0xC0) != 0x80;
    text.pop_back();
    if (lead) break;
  }
  return text;
}

class SimInput final : public Input {
 public:
  explicit SimInput(SimDesktop::State& state) : s_(state) {}

  // A left click presses what has AXPress and focuses what takes text,
  // bringing its application to the front unless posted to one process.
  bool postPointer(const PointerEvent& event, std::optional<std::int32_t> pid) override {
    FollowUp work;
    std::vector<FollowUp> followUps;
    {
      std::lock_guard guard(s_.lock);
      s_.posted.push_back(Posted{event, pid});
      s_.pointer = event.location;
      if (event.action != PointerAction::up || event.button != MouseButton::left) return true;
      Node* node = s_.hit(event.location.x, event.location.y, pid.value_or(0));
      if (!node) return true;
      App& app = *s_.runningApp(node->pid);
      if (!pid) s_.activate(app);
      const auto& actions = node->actions;
      if (std::find(actions.begin(), actions.end(), "AXPress") != actions.end()) {
        work = FollowUp{node->pid, node->id, node->onPress};
      } else if (s_.editable(*node) || node->settable.count("AXFocused")) {
        s_.focusNode(app, node, followUps);
      }
    }
    s_.runEffects(work);
    for (const auto& next : followUps) s_.runEffects(next);
    return true;
  }

  // Typing goes into the focused element when it takes text; return runs its
  // onReturn effects, delete removes the last character, and escape closes a
  // context menu.
  bool postKey(const KeyEvent& event, std::optional<std::int32_t> pid) override {
    FollowUp work;
    std::vector<FollowUp> followUps;
    {
      std::lock_guard guard(s_.lock);
      s_.posted.push_back(Posted{event, pid});
      if (!event.down) return true;
      App* app = s_.runningApp(pid.value_or(s_.frontmost));
      // An open menu takes the keys: escape closes the innermost one.
      if (app && !app->menus.empty() && event.keyCode == keyTable().at("escape")) {
        s_.removeNode(*app, app->menus.back());
        return true;
      }
      Node* focused = app ? s_.node(app->focused) : nullptr;
      if (!focused) return true;
      // A text area takes a return as a new line; other elements confirm.
      if (event.keyCode == keyTable().at("return") && !(focused->role == "AXTextArea" && focused->onReturn.empty())) {
        work = FollowUp{focused->pid, focused->id, focused->onReturn};
      } else if (s_.editable(*focused)) {
        std::string text = currentText(*focused);
        if (event.keyCode == keyTable().at("delete")) {
          s_.setAttribute(*app, *focused, "AXValue", withoutLast(text), followUps);
        } else if (!event.text.empty() && !(event.flags & (commandFlag | controlFlag))) {
          s_.setAttribute(*app, *focused, "AXValue", text + utf8(event.text), followUps);
        }
      }
    }
    s_.runEffects(work);
    for (const auto& next : followUps) s_.runEffects(next);
    return true;
  }

  // The simulated applications have no scroll positions yet: a scroll event
  // is recorded and moves nothing.
  bool postScroll(const ScrollEvent& event, std::optional<std::int32_t> pid) override {
    std::lock_guard guard(s_.lock);
    s_.posted.push_back(Posted{event, pid});
    return true;
  }

  AxPoint pointerLocation() override {
    std::lock_guard guard(s_.lock);
    return s_.pointer;
  }

  void warpPointer(AxPoint location) override {
    std::lock_guard guard(s_.lock);
    s_.pointer = location;
  }

  const std::unordered_map<std::string, std::uint16_t>& keyCodes() override { return keyTable(); }
  const std::unordered_map<std::string, ModifierKey>& modifierKeys() override { return modifierTable(); }

 private:
  static std::string currentText(const Node& node) {
    auto it = node.attributes.find("AXValue");
    if (it == node.attributes.end()) return "";
    auto text = it->second.get<std::string>();
    return text ? *text : "";
  }

  SimDesktop::State& s_;
};

}  // namespace

std::unique_ptr<Input> makeInput(SimDesktop::State& state) { return std::make_unique<SimInput>(state); }

}  // namespace glimmerstrand::platform::sim
