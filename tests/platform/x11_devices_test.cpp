// The X11 devices on a headless desktop with a window manager and two real
// applications: keys and typing reach the application they are meant for,
// also behind another one, and what they did is read back through the
// accessibility tree.
#include <string>
#include <vector>

#include "platform/linux/x11_connection.h"
#include "x11_desktop.h"

namespace glimmerstrand::testing {
namespace {

using platform::AxList;
using platform::Element;
using platform::KeyEvent;
using platform::Platform;

class X11DevicesTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    desktop_ = new X11Desktop("devices", true, {"galculator", "mousepad"});
    std::string problem;
    if (desktop_->ok()) platform_ = platform::linux_desktop::makeLinuxPlatform(problem).release();
  }
  static void TearDownTestSuite() {
    delete platform_;
    platform_ = nullptr;
    delete desktop_;
    desktop_ = nullptr;
  }
  void SetUp() override {
    ASSERT_TRUE(desktop_->ok()) << "the desktop did not start; see " << desktop_->dir();
    ASSERT_NE(platform_, nullptr);
  }

  static Platform& platform() { return *platform_; }

  /// Every text an application shows: values, titles and descriptions.
  static std::vector<std::string> texts(std::int32_t pid) {
    std::vector<std::string> out;
    auto& ax = platform().accessibility();
    std::vector<Element> pending{ax.applicationElement(pid)};
    while (!pending.empty()) {
      Element e = pending.back();
      pending.pop_back();
      for (const char* name : {"AXValue", "AXTitle", "AXDescription"})
        if (auto text = ax.copy(e, name).as<std::string>(); text && !text->empty()) out.push_back(*text);
      if (auto children = ax.copy(e, "AXChildren").as<AxList>())
        for (const auto& child : *children)
          if (auto c = child.as<Element>()) pending.push_back(*c);
    }
    return out;
  }
  static bool shows(std::int32_t pid, const std::string& text) {
    for (const auto& t : texts(pid))
      if (t == text) return true;
    return false;
  }
  static bool showsPart(std::int32_t pid, const std::string& text) {
    for (const auto& t : texts(pid))
      if (t.find(text) != std::string::npos) return true;
    return false;
  }

  /// Types `text` as the shared typing logic does: a press and a release
  /// for each character, with the table's key where it has one.
  static void type(const std::u16string& text, std::optional<std::int32_t> pid) {
    auto& input = platform().input();
    for (char16_t c : text) {
      std::string name(1, static_cast<char>(c));
      auto code = c < 0x80 ? input.keyCodes().find(name) : input.keyCodes().end();
      std::uint16_t keyCode = code != input.keyCodes().end() ? code->second : 0;
      ASSERT_TRUE(input.postKey(KeyEvent{keyCode, true, 0, std::u16string(1, c)}, pid));
      ASSERT_TRUE(input.postKey(KeyEvent{keyCode, false, 0, std::u16string(1, c)}, pid));
    }
  }
  static void press(const std::string& key, std::optional<std::int32_t> pid) {
    auto& input = platform().input();
    std::uint16_t code = input.keyCodes().at(key);
    ASSERT_TRUE(input.postKey(KeyEvent{code, true, 0, {}}, pid));
    ASSERT_TRUE(input.postKey(KeyEvent{code, false, 0, {}}, pid));
  }
  static void shortcut(const std::string& modifier, const std::string& key, std::optional<std::int32_t> pid) {
    auto& input = platform().input();
    auto m = input.modifierKeys().at(modifier);
    std::uint16_t code = input.keyCodes().at(key);
    ASSERT_TRUE(input.postKey(KeyEvent{m.keyCode, true, m.flag, {}}, pid));
    ASSERT_TRUE(input.postKey(KeyEvent{code, true, m.flag, {}}, pid));
    ASSERT_TRUE(input.postKey(KeyEvent{code, false, m.flag, {}}, pid));
    ASSERT_TRUE(input.postKey(KeyEvent{m.keyCode, false, 0, {}}, pid));
  }

  /// The process whose window the window manager calls active.
  static std::optional<std::int32_t> activePid() {
    auto* x = platform::linux_desktop::openX11();
    std::optional<std::int32_t> pid;
    if (auto window = platform::linux_desktop::activeWindow(x)) pid = platform::linux_desktop::pidOfWindow(x, *window);
    platform::linux_desktop::closeX11(x);
    return pid;
  }

  static X11Desktop* desktop_;
  static Platform* platform_;
};

X11Desktop* X11DevicesTest::desktop_ = nullptr;
Platform* X11DevicesTest::platform_ = nullptr;

TEST_F(X11DevicesTest, KeyTableNamesEveryKeyAndModifier) {
  auto& input = platform().input();
  for (const char* name :
       {"a",    "z",   "0",      "9",        "return", "enter", "tab", "space", "delete", "escape", "forwarddelete",
        "home", "end", "pageup", "pagedown", "left",   "right", "up",  "down",  "f1",     "f12",    "=",
        "/"})
    EXPECT_NE(input.keyCodes().count(name), 0u) << name;
  EXPECT_EQ(input.keyCodes().at("enter"), input.keyCodes().at("return"));
  EXPECT_NE(input.keyCodes().at("a"), input.keyCodes().at("b"));
  // The primary shortcut modifier is Control.
  EXPECT_EQ(input.modifierKeys().at("cmd").keyCode, input.modifierKeys().at("ctrl").keyCode);
  EXPECT_NE(input.modifierKeys().at("shift").keyCode, input.modifierKeys().at("alt").keyCode);
}

TEST_F(X11DevicesTest, KeysToAnApplicationBehindAnotherReachItAndLeaveTheFrontAlone) {
  const auto calculator = desktop_->pid("galculator");
  const auto editor = desktop_->pid("mousepad");
  ASSERT_TRUE(eventually([&] { return activePid() == editor; })) << "mousepad, started last, is in front";
  press("escape", calculator);
  type(u"12+34=", calculator);
  EXPECT_TRUE(eventually([&] { return shows(calculator, "46"); }));
  EXPECT_EQ(activePid(), editor);
}

TEST_F(X11DevicesTest, TypingReachesTheFrontApplicationWithCharactersNoKeyTypes) {
  const auto editor = desktop_->pid("mousepad");
  ASSERT_TRUE(eventually([&] { return activePid() == editor; }));
  shortcut("cmd", "a", std::nullopt);
  type(u"Hello, World! caf\u00e9 \u65e5\u672c", std::nullopt);
  EXPECT_TRUE(eventually([&] { return showsPart(editor, "Hello, World! caf\u00e9 \u65e5\u672c"); }));
  // cmd+a then typing replaces the whole document.
  shortcut("cmd", "a", std::nullopt);
  type(u"replaced", std::nullopt);
  EXPECT_TRUE(eventually([&] { return showsPart(editor, "replaced") && !showsPart(editor, "Hello"); }));
}

TEST_F(X11DevicesTest, PointerGoesWhereItIsSentAndWarps) {
  auto& input = platform().input();
  input.warpPointer({321, 123});
  EXPECT_TRUE(eventually([&] {
    auto at = input.pointerLocation();
    return at.x == 321 && at.y == 123;
  }));
  ASSERT_TRUE(input.postPointer({platform::PointerAction::moved, platform::MouseButton::left, 1, {40, 50}, 0}, {}));
  EXPECT_TRUE(eventually([&] {
    auto at = input.pointerLocation();
    return at.x == 40 && at.y == 50;
  }));
}

}  // namespace
}  // namespace glimmerstrand::testing
