// The daemon's procedures on real applications of a headless sway, through
// glimmerstrand-native's line protocol, as the X11 driver tests run them:
// keys reach a GTK3 and a Qt calculator behind the editor, which stays in
// front; windows are listed where sway shows them and activated; clicks,
// drags and the wheel land on the GTK3 widget factory, with the agent's
// cursor drawn there; one application's screenshot; the clipboard both ways.
// What the desktop shows is checked outside Glimmerstrand: sway's own tree,
// grim's screenshots, wl-copy and wl-paste.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <tuple>

#include "platform/desktop_suite.h"
#include "platform/select_platform.h"
#include "platform/wayland/sway_ipc.h"
#include "platform/wayland/wayland_platform.h"
#include "platform/widget_factory_pointer.h"

namespace glimmerstrand::testing {
namespace {

using core::JSONValue;
using platform::wayland_desktop::SwayView;

/// What a command prints; empty when it fails.
std::string output(const std::string& command) {
  std::string text;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return text;
  std::array<char, 65536> buffer{};
  while (auto n = std::fread(buffer.data(), 1, buffer.size(), pipe)) text.append(buffer.data(), n);
  return ::pclose(pipe) == 0 ? text : std::string();
}

/// sway's windows, as its own IPC tells them.
std::vector<SwayView> swayWindows() {
  return platform::wayland_desktop::parseSwayTree(output("swaymsg -r -t get_tree"));
}

std::int32_t focusedPid() {
  for (const auto& view : swayWindows())
    if (view.focused) return view.pid;
  return 0;
}

std::optional<SwayView> windowOf(std::int32_t pid) {
  for (const auto& view : swayWindows())
    if (view.pid == pid) return view;
  return std::nullopt;
}

/// A region of the screen as grim copies it: rows of 0xRRGGBB.
std::vector<std::uint32_t> grimPixels(int x, int y, int width, int height) {
  const std::string ppm = output("grim -t ppm -g '" + std::to_string(x) + "," + std::to_string(y) + " " +
                                 std::to_string(width) + "x" + std::to_string(height) + "' -");
  // P6, width, height, the largest value, then the bytes.
  std::size_t at = 0;
  for (int fields = 0; fields < 4 && at != std::string::npos; ++fields) at = ppm.find_first_of(" \n", at + 1);
  std::vector<std::uint32_t> pixels;
  if (at == std::string::npos) return pixels;
  for (std::size_t k = at + 1; k + 2 < ppm.size(); k += 3)
    pixels.push_back(std::uint32_t(std::uint8_t(ppm[k])) << 16 | std::uint32_t(std::uint8_t(ppm[k + 1])) << 8 |
                     std::uint8_t(ppm[k + 2]));
  return pixels;
}

class WaylandDriverTest : public DesktopSuite {
 protected:
  static void SetUpTestSuite() {
    startSuite({"galculator", "speedcrunch", "mousepad", "gtk3-widget-factory"}, false, "sway");
    if (!desktop_) return;
    // The widget factory is wider than a tile: it gets a screen of its own,
    // once sway shows its window, which may come after its tree.
    const auto factory = desktop_->pid("gtk3-widget-factory");
    if (!eventually([&] { return windowOf(factory).has_value(); })) {
      problem_ = "no widget factory";
      endSuite();
      return;
    }
    output("swaymsg '[pid=" + std::to_string(factory) + "] move container to workspace 2' >/dev/null");
  }
  static void TearDownTestSuite() { endSuite(); }

  std::vector<JSONValue> rows(const std::string& app, const std::string& statement) {
    return cypherRows(*client_, app, statement);
  }
  std::string first(const std::string& app, const std::string& statement, const std::string& column) {
    return firstCell(*client_, app, statement, column);
  }

  double number(const JSONValue& row, const char* column) {
    const auto* value = row.find(column);
    return value && value->asNumber() ? *value->asNumber() : -1;
  }

  void bringForward(const std::string& app) {
    rows("", "CALL ui.open(\"" + app + "\")");
    rows(app, "CALL ui.window(0)");
    ASSERT_TRUE(eventually([&] { return focusedPid() == desktop_->pid(app); })) << app << " did not come forward";
  }

  std::unique_ptr<LineClient> client_ = lineClient("wayland");
};

TEST_F(WaylandDriverTest, KeysReachGtkAndQtCalculatorsBehindTheEditorWhichStaysInFront) {
  struct Case {
    const char* app;
    const char* keys;  // statements that type an expression
    const char* seen;  // a statement whose first row shows the result
    const char* result;
  };
  const Case cases[] = {
      {"galculator", "CALL ui.key(\"escape\"); CALL ui.type(\"12+34=\")",
       "MATCH (n:TextArea) WHERE n.value = '46' RETURN n.value AS shown", "46"},
      {"speedcrunch", "CALL ui.type(\"(12+34)*2\"); CALL ui.key(\"return\")",
       "MATCH (e) WHERE e.text CONTAINS '92' RETURN e.text AS shown LIMIT 1", "92"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.app);
    bringForward("mousepad");
    rows(c.app, c.keys);
    EXPECT_TRUE(eventually([&] { return first(c.app, c.seen, "shown").find(c.result) != std::string::npos; }));
    EXPECT_EQ(focusedPid(), desktop_->pid("mousepad")) << "keys to the calculator leave the editor in front";
  }
}

TEST_F(WaylandDriverTest, WindowsAreListedWhereSwayShowsThemAndActivated) {
  for (const char* app : {"galculator", "speedcrunch", "mousepad"}) {
    SCOPED_TRACE(app);
    const auto shown = windowOf(desktop_->pid(app));
    ASSERT_TRUE(shown);
    // Frames in desktop points, though the toolkit tells them relative to its window.
    const auto window = rows(app, "MATCH (w:Window) RETURN w.x, w.y, w.width, w.height LIMIT 1");
    ASSERT_EQ(window.size(), 1u);
    EXPECT_NEAR(number(window[0], "w.x"), shown->surface.x, 1);
    EXPECT_NEAR(number(window[0], "w.y"), shown->surface.y, 1);
    EXPECT_GT(number(window[0], "w.width"), 0);
    const auto listed = rows(app, "CALL ui.windows()");
    ASSERT_FALSE(listed.empty());
    rows(app, "CALL ui.window(0)");
    EXPECT_TRUE(eventually([&] { return focusedPid() == desktop_->pid(app); })) << "activated";
    EXPECT_TRUE(eventually([&] {
      for (const auto& row : rows("", "CALL ui.apps()"))
        if (const auto* on = row.find("active"); on && on->asBool() && *on->asBool())
          return *row.find("pid")->asNumber() == desktop_->pid(app);
      return false;
    })) << "the front as the daemon tells it";
  }
}

TEST_F(WaylandDriverTest, FramesFollowAWindowThatSwayMoves) {
  const auto pid = desktop_->pid("speedcrunch");
  const std::string window = "MATCH (w:Window) RETURN w.x, w.y LIMIT 1";
  ASSERT_EQ(rows("speedcrunch", window).size(), 1u);
  // Out of its tile to a place of its own, then back.
  for (auto [where, x, y] :
       {std::tuple{"floating enable, move position 500 300", 500, 300}, std::tuple{"floating disable", -1, -1}}) {
    SCOPED_TRACE(where);
    output("swaymsg '[pid=" + std::to_string(pid) + "] " + where + "' >/dev/null");
    ASSERT_TRUE(eventually([&] {
      const auto shown = windowOf(pid);
      return shown && (x < 0 || (shown->frame.x == x && shown->frame.y == y));
    }));
    const auto shown = *windowOf(pid);
    EXPECT_TRUE(eventually([&] {
      const auto row = rows("speedcrunch", window);
      return !row.empty() && number(row[0], "w.x") == shown.surface.x && number(row[0], "w.y") == shown.surface.y;
    })) << "the copy's frame at "
        << shown.surface.x << "," << shown.surface.y;
  }
}

TEST_F(WaylandDriverTest, ClickDragAndWheelLandOnTheWidgetFactory) {
  bringForward("gtk3-widget-factory");
  expectPointerLandsOnTheWidgetFactory(*client_, [](int x, int y) {
    const auto pixel = grimPixels(x, y, 1, 1);
    return pixel.empty() ? 0u : pixel[0];
  });
}

TEST_F(WaylandDriverTest, AScreenshotOfOneApplicationShowsItsWindowAndNothingBeside) {
  bringForward("galculator");
  std::string problem;
  auto desktop = platform::wayland_desktop::makeWaylandPlatform(problem);
  ASSERT_TRUE(desktop) << problem;
  const auto shown = windowOf(desktop_->pid("galculator"));
  ASSERT_TRUE(shown);
  // The window and a band of the desktop beside it to the right.
  const platform::AxRect window = shown->frame;
  const int width = static_cast<int>(window.width), height = static_cast<int>(window.height);
  const platform::AxRect region{window.x, window.y, window.width + 40, window.height};
  // The window may still repaint after it came forward (focus redraws its widgets), so the three
  // captures are compared until they agree once; a capture that is wrong stays wrong and fails.
  int differing = 0, besideShown = 0;
  eventually([&] {
    const auto own = desktop->screen().capture(region, 1, desktop_->pid("galculator"));
    const auto whole = desktop->screen().capture(region, 1, std::nullopt);
    if (!own || !whole || own->width != width + 40) {
      differing = -1;
      return false;
    }
    const auto seen = grimPixels(static_cast<int>(window.x), static_cast<int>(window.y), width + 40, height);
    if (seen.size() != static_cast<std::size_t>((width + 40) * height)) {
      differing = -2;
      return false;
    }
    differing = besideShown = 0;
    for (int y = 0; y < height; y += 7)
      for (int x = 0; x < width + 40; x += 5) {
        const auto expected = seen[static_cast<std::size_t>(y * (width + 40) + x)];
        differing += pixelAt(*whole, x, y) != expected;
        if (x < width) differing += pixelAt(*own, x, y) != expected;
        if (x >= width) besideShown += pixelAt(*own, x, y) != 0;
      }
    return differing == 0 && besideShown == 0;
  });
  EXPECT_EQ(differing, 0) << "the pixels grim sees";
  EXPECT_EQ(besideShown, 0) << "nothing of the desktop beside the window";
  // The daemon's own screenshot of the application: an image of its window's size.
  auto result = client_->call("cypher", JSONValue::Object{{"cypher", "CALL ui.screenshot()"},
                                                          {"app", JSONValue::Object{{"name", "galculator"}}}});
  const auto* images = result.find("results")->asArray()->back().find("images");
  ASSERT_TRUE(images && images->asArray() && !images->asArray()->empty()) << core::jsonText(result);
  EXPECT_GE(*images->asArray()->front().find("width")->asNumber(), window.width * 0.9);
}

TEST_F(WaylandDriverTest, TheClipboardGoesBothWays) {
  struct Case {
    const char* name;
    const char* text;
    bool ours;  // set by the agent and read by another client, or the other way round
  };
  for (auto c :
       {Case{"to another client", "from the agent ✓", true}, Case{"from another client", "from wl-copy ✓", false}}) {
    SCOPED_TRACE(c.name);
    if (c.ours) {
      rows("", std::string("CALL ui.set_clipboard('") + c.text + "')");
      EXPECT_EQ(output("wl-paste --no-newline"), c.text);
    } else {
      ASSERT_EQ(std::system((std::string("wl-copy '") + c.text + "'").c_str()), 0);
      EXPECT_TRUE(eventually([&] { return first("", "CALL ui.clipboard()", "text") == c.text; }));
    }
  }
  // The copy wl-copy left serving the clipboard ends when it is replaced.
  rows("", "CALL ui.set_clipboard('done')");
}

TEST_F(WaylandDriverTest, ThePlatformFollowsTheSessionOrWhatItIsToldToTake) {
  const std::string display = desktop_->environment().at("WAYLAND_DISPLAY");
  struct Case {
    const char* names;
    const char* waylandDisplay;  // null: unset
    const char* x11Display;
    const char* type;     // the session taken; null: none
    const char* problem;  // a part of why not
  };
  const Case cases[] = {
      {"linux", display.c_str(), nullptr, "wayland", nullptr},
      {"wayland", display.c_str(), nullptr, "wayland", nullptr},
      {"x11", display.c_str(), nullptr, nullptr, "DISPLAY"},
      {"wayland", "/nonexistent/wayland-9", nullptr, nullptr, "WAYLAND_DISPLAY"},
      {"linux", "/nonexistent/wayland-9", nullptr, nullptr, "WAYLAND_DISPLAY"},
      {"x11,sim", display.c_str(), nullptr, "sim", nullptr},
  };
  auto put = [](const char* name, const char* value) {
    if (value)
      ::setenv(name, value, 1);
    else
      ::unsetenv(name);
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.names) + " with WAYLAND_DISPLAY " + (c.waylandDisplay ? c.waylandDisplay : "unset"));
    put("WAYLAND_DISPLAY", c.waylandDisplay);
    put("DISPLAY", c.x11Display);
    auto choice = platform::selectPlatform(c.names, nullptr);
    if (c.type) {
      ASSERT_TRUE(choice.platform) << choice.problem;
      EXPECT_EQ(choice.platform->sessionFacts().type, c.type);
    } else {
      EXPECT_FALSE(choice.platform);
      EXPECT_NE(choice.problem.find(c.problem), std::string::npos) << choice.problem;
    }
  }
  put("WAYLAND_DISPLAY", display.c_str());
}

TEST_F(WaylandDriverTest, TheDoctorNamesTheSessionAndWhatWorksInIt) {
  const std::string client = GLIMMERSTRAND_CLIENT_BINARY;
  const std::string doctor = output(client + " --json doctor 2>/dev/null");
  output(client + " stop >/dev/null 2>&1");
  const auto reply = core::parseJSON(doctor);
  const auto* session = reply.find("result") ? reply.find("result")->find("session") : nullptr;
  ASSERT_TRUE(session) << doctor;
  EXPECT_EQ(*session->find("type")->asString(), "wayland");
  EXPECT_EQ(*session->find("compositor")->asString(), "sway 1.7");
  // Everything works on sway.
  for (const char* facility :
       {"accessibility", "keyboard", "pointer", "windows", "windowPlaces", "clipboard", "capture", "cursor"}) {
    const auto* works = session->find("works")->find(facility);
    ASSERT_TRUE(works) << facility;
    EXPECT_TRUE(works->asBool() && *works->asBool()) << facility << ": " << core::jsonText(*works);
  }
}

}  // namespace
}  // namespace glimmerstrand::testing
