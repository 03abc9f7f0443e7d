// The daemon's procedures on real applications of a headless X11 desktop
// with a window manager, through glimmerstrand-native's line protocol: keys
// reach a calculator in front and behind another application, which stays in
// front; clicks, drags and the wheel land where they are sent on the GTK3
// widget factory.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "support/line_client.h"
#include "x11_desktop.h"

// Xlib's macros clash with GoogleTest's names: it comes last.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace glimmerstrand::testing {
namespace {

using core::JSONValue;

class X11DriverTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { desktop_ = startDesktop({"galculator", "mousepad", "gtk3-widget-factory"}, problem_); }
  static void TearDownTestSuite() {
    delete desktop_;
    desktop_ = nullptr;
  }
  void SetUp() override {
    ASSERT_NE(desktop_, nullptr) << "the desktop did not start: " << problem_;
    client_ = std::make_unique<LineClient>(GLIMMERSTRAND_NATIVE_BINARY,
                                           std::map<std::string, std::string>{{"GLIMMERSTRAND_PLATFORM", "linux"}});
  }

  /// The rows of the one statement, against the application named; throws
  /// when the statement fails.
  std::vector<JSONValue> rows(const std::string& app, const std::string& statement) {
    JSONValue params = JSONValue::Object{{"cypher", statement}};
    if (!app.empty()) params = JSONValue::Object{{"cypher", statement}, {"app", JSONValue::Object{{"name", app}}}};
    auto result = client_->call("cypher", params);
    const auto* results = result.find("results");
    if (!results || results->asArray()->empty()) throw std::runtime_error("no results: " + core::jsonText(result));
    const auto& first = results->asArray()->front();
    if (const auto* error = first.find("error")) throw std::runtime_error(statement + ": " + core::jsonText(*error));
    const auto* found = first.find("rows");
    return found && found->asArray() ? *found->asArray() : std::vector<JSONValue>{};
  }

  /// One column of the first row, as text; empty when there is none.
  std::string first(const std::string& app, const std::string& statement, const std::string& column) {
    auto found = rows(app, statement);
    if (found.empty()) return "";
    const auto* value = found.front().find(column);
    if (!value) return "";
    if (auto text = value->asString()) return *text;
    return core::jsonText(*value);
  }

  /// The application the window manager has in front, by name.
  std::string active() {
    for (const auto& app : rows("", "CALL ui.apps()"))
      if (const auto* on = app.find("active"); on && on->asBool() && *on->asBool())
        return *app.find("name")->asString();
    return "";
  }

  static TestDesktop* desktop_;
  static std::string problem_;
  std::unique_ptr<LineClient> client_;
};

TestDesktop* X11DriverTest::desktop_ = nullptr;
std::string X11DriverTest::problem_;

/// The colour of one pixel of the screen as 0xRRGGBB.
unsigned long screenColourAt(int x, int y) {
  ::Display* display = XOpenDisplay(nullptr);
  XImage* image = XGetImage(display, DefaultRootWindow(display), x, y, 1, 1, AllPlanes, ZPixmap);
  unsigned long pixel = image ? XGetPixel(image, 0, 0) & 0xffffff : 0;
  if (image) XDestroyImage(image);
  XCloseDisplay(display);
  return pixel;
}

TEST_F(X11DriverTest, CalculatorAddsByKeysInFrontAndBehindAnotherApplication) {
  struct Case {
    const char* name;
    const char* inFront;  // the application opened last
  };
  for (auto c : {Case{"in front", "galculator"}, Case{"behind the editor", "mousepad"}}) {
    SCOPED_TRACE(c.name);
    rows("", std::string("CALL ui.open(\"") + c.inFront + "\")");
    // An application already running keeps its place on open; its window is brought forward.
    rows(c.inFront, "CALL ui.window(0)");
    ASSERT_TRUE(eventually([&] { return active() == c.inFront; })) << active();
    rows("galculator", "CALL ui.key(\"escape\")");
    rows("galculator", "CALL ui.type(\"12+34=\")");
    EXPECT_TRUE(eventually([&] {
      return first("galculator", "MATCH (n:TextArea) WHERE n.value = '46' RETURN n.value", "n.value") == "46";
    }));
    EXPECT_EQ(active(), c.inFront) << "keys to the calculator leave the front alone";
  }
}

TEST_F(X11DriverTest, ClickDragAndWheelLandOnTheWidgetFactory) {
  const std::string app = "gtk3-widget-factory";
  rows("", "CALL ui.open(\"gtk3-widget-factory\")");
  rows(app, "CALL ui.window(0)");
  ASSERT_TRUE(eventually([&] { return active() == app; })) << active();

  // A click on a toggle button that is up presses it, and the agent's cursor
  // shows there: its arrow's body, in the first colour, just below the tip.
  auto found = rows(app,
                    "MATCH (n:CheckBox {name: 'togglebutton', value: '0'}) RETURN n.id, n.x, n.y, n.width, n.height "
                    "ORDER BY n.y LIMIT 1");
  ASSERT_EQ(found.size(), 1u);
  const std::string toggle = *found.front().find("n.id")->asString();
  auto number = [&](const char* key) { return *found.front().find(key)->asNumber(); };
  const int tipX = static_cast<int>(number("n.x") + number("n.width") / 2);
  const int tipY = static_cast<int>(number("n.y") + number("n.height") / 2);
  // Watched while the click runs: the reply may come after the cursor has faded.
  std::atomic<bool> shown = false, done = false;
  std::thread watcher([&] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!shown && !done && std::chrono::steady_clock::now() < deadline) {
      shown = screenColourAt(tipX + 3, tipY + 10) == 0x007AFF;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  rows(app, "CALL ui.click(\"" + toggle + "\")");
  eventually([&] { return shown.load(); }, std::chrono::milliseconds(500));
  done = true;
  watcher.join();
  EXPECT_TRUE(shown) << "the agent's cursor at the click";
  EXPECT_TRUE(
      eventually([&] { return first(app, "MATCH (n {id: '" + toggle + "'}) RETURN n.value", "n.value") == "1"; }));

  // Dragging the first horizontal slider's knob from its middle to the left lowers its value.
  std::optional<JSONValue> slider;
  // Sliders on hidden pages have no frame.
  for (auto& row : rows(app, "MATCH (n:Slider) RETURN n.id, n.value, n.x, n.y, n.width, n.height ORDER BY n.y"))
    if (!slider && row.find("n.width")->asNumber() &&
        *row.find("n.width")->asNumber() > *row.find("n.height")->asNumber())
      slider = row;
  ASSERT_TRUE(slider);
  const auto& s = *slider;
  const std::string sliderId = *s.find("n.id")->asString();
  const double before = std::stod(*s.find("n.value")->asString());
  const double midX = *s.find("n.x")->asNumber() + *s.find("n.width")->asNumber() / 2;
  const double midY = *s.find("n.y")->asNumber() + *s.find("n.height")->asNumber() / 2;
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
  // The vertical bar is the one shown, with a frame.
  const std::string bar = "MATCH (a {id: '" + area + "'})-[:CHILD]->(b:ScrollBar) WHERE b.y > 0 RETURN b.value";
  ASSERT_EQ(first(app, bar, "b.value"), "0");
  rows(app, "CALL ui.scroll(\"" + area + "\", \"down\", 2)");
  EXPECT_TRUE(eventually([&] {
    auto value = first(app, bar, "b.value");
    return !value.empty() && std::stod(value) > 0;
  }));
}

}  // namespace
}  // namespace glimmerstrand::testing
