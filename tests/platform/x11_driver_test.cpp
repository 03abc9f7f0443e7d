// The daemon's procedures on real applications of a headless X11 desktop
// with a window manager, through glimmerstrand-native's line protocol: keys
// reach a calculator in front and behind another application, which stays in
// front; clicks, drags and the wheel land where they are sent on the GTK3
// widget factory.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/desktop_suite.h"
#include "platform/widget_factory_pointer.h"

// Xlib's macros clash with GoogleTest's names: it comes last.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace glimmerstrand::testing {
namespace {

using core::JSONValue;

class X11DriverTest : public DesktopSuite {
 protected:
  static void SetUpTestSuite() { startSuite({"galculator", "mousepad", "gtk3-widget-factory"}); }
  static void TearDownTestSuite() { endSuite(); }

  std::vector<JSONValue> rows(const std::string& app, const std::string& statement) {
    return cypherRows(*client_, app, statement);
  }

  /// The application the window manager has in front, by name.
  std::string active() {
    for (const auto& app : rows("", "CALL ui.apps()"))
      if (const auto* on = app.find("active"); on && on->asBool() && *on->asBool())
        return *app.find("name")->asString();
    return "";
  }

  std::unique_ptr<LineClient> client_ = lineClient();
};

/// The colour of one pixel of the screen as 0xRRGGBB.
std::uint32_t screenColourAt(int x, int y) {
  ::Display* display = XOpenDisplay(nullptr);
  XImage* image = XGetImage(display, DefaultRootWindow(display), x, y, 1, 1, AllPlanes, ZPixmap);
  std::uint32_t pixel = image ? XGetPixel(image, 0, 0) & 0xffffff : 0;
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
      return firstCell(*client_, "galculator", "MATCH (n:TextArea) WHERE n.value = '46' RETURN n.value", "n.value") ==
             "46";
    }));
    EXPECT_EQ(active(), c.inFront) << "keys to the calculator leave the front alone";
  }
}

TEST_F(X11DriverTest, ClickDragAndWheelLandOnTheWidgetFactory) {
  rows("", "CALL ui.open(\"gtk3-widget-factory\")");
  rows("gtk3-widget-factory", "CALL ui.window(0)");
  ASSERT_TRUE(eventually([&] { return active() == "gtk3-widget-factory"; })) << active();
  expectPointerLandsOnTheWidgetFactory(*client_, screenColourAt);
}

}  // namespace
}  // namespace glimmerstrand::testing
