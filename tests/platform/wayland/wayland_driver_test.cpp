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
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <tuple>

#include "platform/linux/test_desktop.h"
#include "platform/select_platform.h"
#include "platform/wayland/sway_ipc.h"
#include "platform/wayland/wayland_platform.h"
#include "support/line_client.h"

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

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return condition();
}

class WaylandDriverTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    try {
      desktop_ = new TestDesktop({"galculator", "speedcrunch", "mousepad", "gtk3-widget-factory"}, false, "sway");
      // The widget factory is wider than a tile: it gets a screen of its own,
      // once sway shows its window, which may come after its tree.
      const auto factory = desktop_->pid("gtk3-widget-factory");
      if (!eventually([&] { return windowOf(factory).has_value(); })) throw std::runtime_error("no widget factory");
      output("swaymsg '[pid=" + std::to_string(factory) + "] move container to workspace 2' >/dev/null");
    } catch (const std::exception& e) {
      problem_ = e.what();
    }
  }
  static void TearDownTestSuite() {
    delete desktop_;
    desktop_ = nullptr;
  }
  void SetUp() override {
    ASSERT_NE(desktop_, nullptr) << "the desktop did not start: " << problem_;
    client_ = std::make_unique<LineClient>(GLIMMERSTRAND_NATIVE_BINARY,
                                           std::map<std::string, std::string>{{"GLIMMERSTRAND_PLATFORM", "wayland"}});
  }

  /// The rows of the one statement, against the application named; throws
  /// when the statement fails.
  std::vector<JSONValue> rows(const std::string& app, const std::string& statement) {
    JSONValue params = JSONValue::Object{{"cypher", statement}};
    if (!app.empty()) params = JSONValue::Object{{"cypher", statement}, {"app", JSONValue::Object{{"name", app}}}};
    auto result = client_->call("cypher", params);
    const auto* results = result.find("results");
    if (!results || results->asArray()->empty()) throw std::runtime_error("no results: " + core::jsonText(result));
    const auto& last = results->asArray()->back();
    if (const auto* error = last.find("error")) throw std::runtime_error(statement + ": " + core::jsonText(*error));
    const auto* found = last.find("rows");
    return found && found->asArray() ? *found->asArray() : std::vector<JSONValue>{};
  }

  std::string first(const std::string& app, const std::string& statement, const std::string& column) {
    auto found = rows(app, statement);
    if (found.empty()) return "";
    const auto* value = found.front().find(column);
    if (!value) return "";
    if (auto text = value->asString()) return *text;
    return core::jsonText(*value);
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

  static TestDesktop* desktop_;
  static std::string problem_;
  std::unique_ptr<LineClient> client_;
};

TestDesktop* WaylandDriverTest::desktop_ = nullptr;
std::string WaylandDriverTest::problem_;

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
  const std::string app = "gtk3-widget-factory";
  bringForward(app);
  auto found = rows(app,
                    "MATCH (n:CheckBox {name: 'togglebutton', value: '0'}) RETURN n.id, n.x, n.y, n.width, n.height "
                    "ORDER BY n.y LIMIT 1");
  ASSERT_EQ(found.size(), 1u);
  const std::string toggle = *found.front().find("n.id")->asString();
  const int tipX = static_cast<int>(number(found.front(), "n.x") + number(found.front(), "n.width") / 2);
  const int tipY = static_cast<int>(number(found.front(), "n.y") + number(found.front(), "n.height") / 2);
  // The agent's cursor's arrow, in the first colour, just below the tip:
  // watched while the click runs, as it fades after the reply.
  std::atomic<bool> shown = false, done = false;
  std::thread watcher([&] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!shown && !done && std::chrono::steady_clock::now() < deadline) {
      const auto pixel = grimPixels(tipX + 3, tipY + 10, 1, 1);
      shown = !pixel.empty() && pixel[0] == 0x007AFF;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  rows(app, "CALL ui.click(\"" + toggle + "\")");
  eventually([&] { return shown.load(); }, std::chrono::milliseconds(500));
  done = true;
  watcher.join();
  EXPECT_TRUE(shown) << "the agent's cursor at the click, below " << tipX << "," << tipY;
  EXPECT_TRUE(
      eventually([&] { return first(app, "MATCH (n {id: '" + toggle + "'}) RETURN n.value", "n.value") == "1"; }));

  // Dragging the first horizontal slider's knob from its middle to the left lowers its value.
  std::optional<JSONValue> slider;
  for (auto& row : rows(app, "MATCH (n:Slider) RETURN n.id, n.value, n.x, n.y, n.width, n.height ORDER BY n.y"))
    if (!slider && number(row, "n.width") > number(row, "n.height")) slider = row;
  ASSERT_TRUE(slider);
  const std::string sliderId = *slider->find("n.id")->asString();
  const double before = std::stod(*slider->find("n.value")->asString());
  const double midX = number(*slider, "n.x") + number(*slider, "n.width") / 2;
  const double midY = number(*slider, "n.y") + number(*slider, "n.height") / 2;
  rows(app, "CALL ui.drag(" + std::to_string(midX) + ", " + std::to_string(midY) + ", " + std::to_string(midX - 100) +
                ", " + std::to_string(midY) + ")");
  EXPECT_TRUE(eventually([&] {
    auto value = first(app, "MATCH (n {id: '" + sliderId + "'}) RETURN n.value", "n.value");
    return !value.empty() && std::stod(value) < before;
  })) << "from "
      << before;

  // The wheel over the text view scrolls it: its vertical scroll bar leaves the top.
  const auto area = first(app, "MATCH (a:ScrollArea)-[:CHILD]->(t:TextArea) RETURN a.id", "a.id");
  ASSERT_FALSE(area.empty());
  const std::string bar = "MATCH (a {id: '" + area + "'})-[:CHILD]->(b:ScrollBar) WHERE b.y > 0 RETURN b.value";
  ASSERT_EQ(first(app, bar, "b.value"), "0");
  rows(app, "CALL ui.scroll(\"" + area + "\", \"down\", 2)");
  EXPECT_TRUE(eventually([&] {
    auto value = first(app, bar, "b.value");
    return !value.empty() && std::stod(value) > 0;
  }));
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
  auto at = [](const platform::Pixels& p, int x, int y) {
    const auto* px = &p.rgba[static_cast<std::size_t>((y * p.width + x) * 4)];
    return std::uint32_t{px[0]} << 16 | std::uint32_t{px[1]} << 8 | px[2];
  };
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
        differing += at(*whole, x, y) != expected;
        if (x < width) differing += at(*own, x, y) != expected;
        if (x >= width) besideShown += at(*own, x, y) != 0;
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
