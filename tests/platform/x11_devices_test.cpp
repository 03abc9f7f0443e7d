// The X11 devices on a headless desktop with a window manager and two real
// applications: keys and typing reach the application they are meant for,
// also behind another one, and what they did is read back through the
// accessibility tree.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "platform/desktop_suite.h"
#include "platform/linux/x11_connection.h"
#include "x11_desktop.h"

// Xlib's macros (None, Status) clash with GoogleTest's names: it comes last.
#include <X11/Xatom.h>
#include <X11/Xlib.h>

namespace glimmerstrand::testing {
namespace {

using platform::AxList;
using platform::Element;
using platform::KeyEvent;
using platform::Platform;

class X11DevicesTest : public DesktopSuite {
 protected:
  static void SetUpTestSuite() {
    startSuite({"galculator", "mousepad"});
    startPlatform(false);
  }
  static void TearDownTestSuite() { endSuite(); }

  static Platform& platform() { return *platform_; }

  /// Visits an application's elements depth first until `visit` says done.
  static void walk(std::int32_t pid, const std::function<bool(const Element&)>& visit) {
    auto& ax = platform().accessibility();
    std::vector<Element> pending{ax.applicationElement(pid)};
    while (!pending.empty()) {
      Element e = pending.back();
      pending.pop_back();
      if (visit(e)) return;
      if (auto children = ax.copy(e, "AXChildren").as<AxList>())
        for (const auto& child : *children)
          if (auto c = child.as<Element>()) pending.push_back(*c);
    }
  }
  /// Every text an application shows: values, titles and descriptions.
  static std::vector<std::string> texts(std::int32_t pid) {
    std::vector<std::string> out;
    walk(pid, [&](const Element& e) {
      for (const char* name : {"AXValue", "AXTitle", "AXDescription"})
        if (auto text = platform().accessibility().copy(e, name).as<std::string>(); text && !text->empty())
          out.push_back(*text);
      return false;
    });
    return out;
  }
  static bool shows(std::int32_t pid, const std::string& text) {
    const auto shown = texts(pid);
    return std::find(shown.begin(), shown.end(), text) != shown.end();
  }
  /// The text of the first text area of an application.
  static std::string documentText(std::int32_t pid) {
    std::optional<std::string> text;
    walk(pid, [&](const Element& e) {
      auto& ax = platform().accessibility();
      if (ax.copy(e, "AXRole").as<std::string>() == "AXTextArea")
        text = ax.copy(e, "AXValue").as<std::string>().value_or("");
      return text.has_value();
    });
    return text.value_or("");
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

  static void editorTakesKeys(std::int32_t editor) {
    // An editor just started takes keys a moment after its window is active:
    // a probe character is typed until the document shows one.
    EXPECT_TRUE(eventually([&] {
      type(u"q", std::nullopt);
      return documentText(editor).find('q') != std::string::npos;
    })) << ::testing::PrintToString(texts(editor));
  }

  /// Brings `pid` to the front and waits until the window manager says so:
  /// where the tests start matters, not which window the manager focused last.
  static bool inFront(std::int32_t pid) {
    platform().workspace().activate(pid);
    return eventually([&] { return activePid() == pid; });
  }

  /// The process whose window the window manager calls active.
  static std::optional<std::int32_t> activePid() {
    auto* x = platform::linux_desktop::openX11();
    std::optional<std::int32_t> pid;
    if (auto window = platform::linux_desktop::activeWindow(x)) pid = platform::linux_desktop::pidOfWindow(x, *window);
    platform::linux_desktop::closeX11(x);
    return pid;
  }
};

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
  ASSERT_TRUE(inFront(editor));
  press("escape", calculator);
  type(u"12+34=", calculator);
  EXPECT_TRUE(eventually([&] { return shows(calculator, "46"); }));
  EXPECT_EQ(activePid(), editor);
}

// A field may end an entry when its window loses the focus (a browser's date
// part keeps only the last digit): a text's keys keep the focus they borrow
// from the first key to the last.
TEST_F(X11DevicesTest, ATextTypedBehindKeepsTheFocusUntilItsLastKey) {
  const auto calculator = desktop_->pid("galculator");
  const auto editor = desktop_->pid("mousepad");
  ASSERT_TRUE(inFront(editor));
  auto focusedPid = [] {
    auto* x = platform::linux_desktop::openX11();
    auto client = platform::linux_desktop::focusedClient(x);
    platform::linux_desktop::closeX11(x);
    return client ? client->pid : 0;
  };
  // The window manager tells the focus a moment after the server has it.
  auto focusGoesTo = [&](std::int32_t pid) { return eventually([&] { return focusedPid() == pid; }); };
  auto& input = platform().input();
  press("escape", calculator);
  EXPECT_TRUE(focusGoesTo(editor)) << "a key alone gives the focus back";
  input.beginKeys(calculator);
  type(u"5*6", calculator);
  EXPECT_TRUE(focusGoesTo(calculator)) << "between the keys of one text";
  type(u"=", calculator);
  input.endKeys();
  EXPECT_TRUE(focusGoesTo(editor));
  EXPECT_TRUE(eventually([&] { return shows(calculator, "30"); }));
}

TEST_F(X11DevicesTest, TypingReachesTheFrontApplicationWithCharactersNoKeyTypes) {
  const auto editor = desktop_->pid("mousepad");
  ASSERT_TRUE(inFront(editor));
  editorTakesKeys(editor);
  shortcut("cmd", "a", std::nullopt);
  type(u"Hello, World! caf\u00e9 \u65e5\u672c", std::nullopt);
  EXPECT_TRUE(eventually([&] { return documentText(editor) == "Hello, World! caf\u00e9 \u65e5\u672c"; }))
      << documentText(editor);
  // cmd+a then typing replaces the whole document.
  shortcut("cmd", "a", std::nullopt);
  type(u"replaced", std::nullopt);
  EXPECT_TRUE(eventually([&] { return documentText(editor) == "replaced"; })) << documentText(editor);
}

TEST_F(X11DevicesTest, ClipboardCarriesTextBothWaysWithAGtkApplication) {
  const auto editor = desktop_->pid("mousepad");
  ASSERT_TRUE(inFront(editor));
  editorTakesKeys(editor);
  auto& board = platform().pasteboard();
  // Large enough to go in pieces.
  const std::string large = std::string(150000, 'x') + " end";
  const auto before = board.changeCount();
  ASSERT_TRUE(board.writeText(large));
  EXPECT_GT(board.changeCount(), before);
  EXPECT_EQ(board.readText(), large);
  shortcut("cmd", "a", std::nullopt);
  shortcut("cmd", "v", std::nullopt);
  EXPECT_TRUE(eventually([&] { return documentText(editor) == large; })) << documentText(editor).size();

  shortcut("cmd", "a", std::nullopt);
  type(u"copied by mousepad", std::nullopt);
  ASSERT_TRUE(eventually([&] { return documentText(editor) == "copied by mousepad"; }));
  const auto owned = board.changeCount();
  shortcut("cmd", "a", std::nullopt);
  shortcut("cmd", "c", std::nullopt);
  EXPECT_TRUE(eventually([&] { return board.readText() == "copied by mousepad"; }));
  EXPECT_GT(board.changeCount(), owned);
  board.clear();
  EXPECT_EQ(board.readText(), std::nullopt);
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

TEST_F(X11DevicesTest, DisplaysComeFromTheServer) {
  auto displays = platform().screen().displays();
  ASSERT_EQ(displays.size(), 1u);
  EXPECT_EQ(displays[0].bounds, (platform::AxRect{0, 0, 1280, 800}));
  EXPECT_TRUE(displays[0].main);
  EXPECT_TRUE(platform().screen().hasCapturePermission());
}

TEST_F(X11DevicesTest, CaptureShowsTheTopWindowOrOneProcessAloneUnderAnother) {
  {
    ColourWindow own(300, 200, 0xff0000, true);
    ColourWindow cover(350, 250, 0x00ff00, false);
    auto& screen = platform().screen();
    // The region starts on the own window's uncovered corner and runs under the cover.
    const platform::AxRect region{300, 200, 100, 100};
    std::optional<platform::Pixels> desktop;
    ASSERT_TRUE(eventually([&] {
      desktop = screen.capture(region, 1, std::nullopt);
      return desktop && pixelAt(*desktop, 10, 10) == 0xff0000 && pixelAt(*desktop, 80, 80) == 0x00ff00;
    }));
    EXPECT_EQ(desktop->width, 100);
    EXPECT_EQ(desktop->height, 100);
    std::optional<platform::Pixels> alone;
    ASSERT_TRUE(eventually([&] {
      alone = screen.capture(region, 1, ::getpid());
      return alone && pixelAt(*alone, 10, 10) == 0xff0000 && pixelAt(*alone, 80, 80) == 0xff0000;
    })) << "the covered part shows the process's own pixels";
    // Twice the pixels at scale 2.
    auto doubled = screen.capture(region, 2, std::nullopt);
    ASSERT_TRUE(doubled);
    EXPECT_EQ(doubled->width, 200);
    EXPECT_EQ(pixelAt(*doubled, 190, 190), 0x00ff00u);
  }
}

TEST_F(X11DevicesTest, ActivationMovesTheFrontAndBack) {
  auto& workspace = platform().workspace();
  const auto calculator = desktop_->pid("galculator");
  const auto editor = desktop_->pid("mousepad");
  ASSERT_TRUE(inFront(editor));
  EXPECT_EQ(workspace.frontmost().value_or(platform::RunningApplication{}).pid, editor);
  ASSERT_TRUE(workspace.activate(calculator));
  EXPECT_TRUE(
      eventually([&] { return workspace.frontmost().value_or(platform::RunningApplication{}).pid == calculator; }));
  ASSERT_TRUE(workspace.activate(editor));
  EXPECT_TRUE(eventually([&] { return workspace.frontmost().value_or(platform::RunningApplication{}).pid == editor; }));
}

TEST_F(X11DevicesTest, AnApplicationFoundByItsJapaneseNameLaunchesAndQuitsPolitely) {
  const std::string folder = desktop_->folder() + "/data";
  std::filesystem::create_directories(folder + "/applications");
  {
    std::ofstream entry(folder + "/applications/glimmer-test-calculator.desktop");
    entry << "[Desktop Entry]\nType=Application\nName=Test Calculator\nName[ja]=\u30c6\u30b9\u30c8\u96fb\u5353\n"
             "Exec=galculator %U\n";
  }
  ::setenv("XDG_DATA_DIRS", (folder + ":/usr/share").c_str(), 1);
  auto& workspace = platform().workspace();
  std::optional<platform::InstalledApplication> found;
  for (const auto& app : workspace.installedApplications())
    if (app.names.count("ja") && app.names.at("ja") == "\u30c6\u30b9\u30c8\u96fb\u5353") found = app;
  ASSERT_TRUE(found);
  EXPECT_EQ(found->bundleId, "glimmer-test-calculator");
  EXPECT_EQ(found->names.at("en"), "Test Calculator");

  std::mutex lock;
  std::optional<platform::OpenOutcome> outcome;
  workspace.launch({"", found->path, false}, [&](const platform::OpenOutcome& o) {
    std::lock_guard guard(lock);
    outcome = o;
  });
  ASSERT_TRUE(eventually(
      [&] {
        std::lock_guard guard(lock);
        return outcome.has_value();
      },
      std::chrono::seconds(20)));
  ASSERT_TRUE(outcome->app) << outcome->error.value_or("no application");
  const auto pid = outcome->app->pid;
  // The application does not hold the daemon's log, nor write into it.
  for (const char* stream : {"1", "2"})
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/fd/" + stream), "/dev/null") << stream;
  EXPECT_NE(pid, desktop_->pid("galculator"));
  ASSERT_TRUE(eventually([&] { return workspace.terminate(pid); }));
  EXPECT_TRUE(eventually([&] { return ::kill(pid, 0) != 0; }));
}

}  // namespace
}  // namespace glimmerstrand::testing
