#include "platform/sim/sim_desktop.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/sim/driven_clock.h"
#include "platform/sim/fixture.h"

namespace glimmerstrand::platform::sim {
namespace {

constexpr std::int64_t ms = 1'000'000;

// Readings of a driven clock move it on by a nanosecond each.
void expectElapsed(std::int64_t actual, std::int64_t expected) { EXPECT_NEAR(actual, expected, 10) << actual; }

const char* const calculatorFixture = R"({
  "displays": [{"id": 1, "x": 0, "y": 0, "width": 1440, "height": 900, "scale": 2}],
  "apps": [{ "pid": 501, "bundleId": "com.example.calculator", "name": "Calculator",
             "names": {"ja": "計算機", "en": "Calculator"}, "frontmost": true,
             "refusedNotifications": ["AXLoadComplete"],
             "windows": [{ "role": "AXWindow", "title": "Calculator", "frame": [100, 100, 240, 320],
                 "children": [
                   {"key": "display", "role": "AXStaticText", "value": "0", "frame": [110, 110, 220, 40]},
                   {"key": "seven", "role": "AXButton", "title": "7", "frame": [110, 160, 50, 40],
                    "onPress": [{"append": {"key": "display", "attribute": "AXValue", "text": "7"}}]},
                   {"key": "slow", "role": "AXButton", "title": "Slow", "frame": [170, 160, 50, 40],
                    "onPress": [{"hangMs": 800}, {"set": {"key": "display", "value": "done"}}]},
                   {"key": "field", "role": "AXTextField", "placeholder": "Search", "frame": [110, 220, 220, 30],
                    "settable": ["value", "focused"], "onReturn": [{"set": {"key": "display", "value": "found"}}]},
                   {"key": "dead", "role": "AXButton", "gone": true},
                   {"key": "odd", "role": "AXButton", "title": "Odd", "failAttributes": ["description"]} ]}] },
           { "pid": 502, "bundleId": "com.example.other", "name": "Other", "quitRefused": true,
             "windows": [{"role": "AXWindow", "title": "Other", "frame": [500, 100, 200, 200]}] }]})";

// A desktop on a driven clock, with an observer of every notification of
// application 501.
struct Desktop {
  DrivenClock clock;
  SimDesktop desktop{parseFixture(calculatorFixture), clock, clock.mainLoop()};
  Accessibility& ax = desktop.accessibility();
  std::vector<std::pair<std::string, Element>> seen;  // written on the main loop, read after runUntilIdle

  void observeAll() {
    auto observer = ax.createObserver(
        501, [this](const Element& element, const std::string& name) { seen.emplace_back(name, element); });
    ASSERT_TRUE(observer.ok());
    keep = observer.value;
    for (auto name : {"AXValueChanged", "AXFocusedUIElementChanged", "AXCreated", "AXUIElementDestroyed",
                      "AXWindowCreated", "AXFocusedWindowChanged"})
      ASSERT_EQ(ax.addNotification(*keep, ax.applicationElement(501), name), AxError::success);
  }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const auto& [name, element] : seen) out.push_back(name);
    return out;
  }
  ~Desktop() { clock.runUntilIdle(); }

  std::shared_ptr<Observer> keep;
};

TEST(SimDesktop, SeparateReadsOfOneElementAreEqualAndOthersAreNot) {
  Desktop d;
  auto app = d.ax.applicationElement(501);
  auto window = d.ax.copy(app, "AXFocusedWindow").as<Element>();
  ASSERT_TRUE(window);
  auto children = d.ax.copy(*window, "AXChildren").as<AxList>();
  ASSERT_TRUE(children);
  Element first = *children->front().get<Element>();
  EXPECT_EQ(first, d.desktop.element(501, "display"));
  EXPECT_EQ(first.hash(), d.desktop.element(501, "display").hash());
  EXPECT_FALSE(first == d.desktop.element(501, "seven"));
  EXPECT_EQ(d.ax.applicationElement(501), app);
  EXPECT_FALSE(d.ax.applicationElement(502) == app);
  EXPECT_EQ(*d.ax.copy(*window, "AXParent").as<Element>(), app);
}

TEST(SimDesktop, MultipleReadPutsErrorValuesInPlaceAndFailsOnlyForAGoneElement) {
  Desktop d;
  auto odd = d.ax.copyMultiple(d.desktop.element(501, "odd"), {"AXRole", "AXDescription", "AXNoSuchThing", "AXTitle"});
  ASSERT_TRUE(odd.ok());
  ASSERT_EQ(odd.value.size(), 4u);
  EXPECT_EQ(odd.value[0], AxValue("AXButton"));
  EXPECT_EQ(odd.value[1], AxValue(AxError::cannotComplete));
  EXPECT_TRUE(odd.value[2].isError());
  EXPECT_EQ(odd.value[3], AxValue("Odd"));
  auto dead = d.ax.copyMultiple(d.desktop.element(501, "dead"), {"AXRole"});
  EXPECT_EQ(dead.error, AxError::invalidElement);
  EXPECT_TRUE(dead.value.empty());
}

TEST(SimDesktop, PressRunsEffectsAndNotifiesOnTheMainLoop) {
  Desktop d;
  d.observeAll();
  EXPECT_EQ(d.ax.perform(d.desktop.element(501, "seven"), "AXPress"), AxError::success);
  EXPECT_EQ(d.desktop.attribute(501, "display", "AXValue"), AxValue("07"));
  EXPECT_TRUE(d.seen.empty());  // not before the main loop runs
  d.clock.runUntilIdle();
  ASSERT_EQ(d.names(), std::vector<std::string>{"AXValueChanged"});
  EXPECT_EQ(d.seen[0].second, d.desktop.element(501, "display"));
  EXPECT_EQ(d.ax.perform(d.desktop.element(501, "display"), "AXPress"), AxError::actionUnsupported);
  auto app = d.ax.applicationElement(501);
  EXPECT_EQ(d.ax.addNotification(*d.keep, app, "AXValueChanged"), AxError::notificationAlreadyRegistered);
  EXPECT_EQ(d.ax.addNotification(*d.keep, app, "AXLoadComplete"), AxError::notificationUnsupported);  // refused
}

TEST(SimDesktop, AHangingPressTakesItsTimeAndAFrozenApplicationItsTimeout) {
  Desktop d;
  auto start = d.clock.nowNs();
  EXPECT_EQ(d.ax.perform(d.desktop.element(501, "slow"), "AXPress"), AxError::success);
  expectElapsed(d.clock.nowNs() - start, 800 * ms);
  EXPECT_EQ(d.desktop.attribute(501, "display", "AXValue"), AxValue("done"));

  auto app = d.ax.applicationElement(501);
  ASSERT_EQ(d.ax.setMessagingTimeout(app, 0.3), AxError::success);
  d.desktop.setFrozen(501, true);
  start = d.clock.nowNs();
  EXPECT_EQ(d.ax.copyMultiple(app, {"AXRole"}).error, AxError::cannotComplete);
  expectElapsed(d.clock.nowNs() - start, 300 * ms);
  start = d.clock.nowNs();
  EXPECT_TRUE(d.ax.copy(d.desktop.element(501, "display"), "AXValue").isError());
  expectElapsed(d.clock.nowNs() - start, 6000 * ms);  // elements read from it keep the default
}

TEST(SimDesktop, TypingFillsTheFocusedFieldAndReturnRunsItsEffects) {
  Desktop d;
  d.observeAll();
  d.desktop.focus(501, "field");
  auto& input = d.desktop.input();
  for (char16_t c : std::u16string(u"hé")) input.postKey(KeyEvent{0, true, 0, std::u16string(1, c)}, std::nullopt);
  EXPECT_EQ(d.desktop.attribute(501, "field", "AXValue"), AxValue("hé"));
  input.postKey(KeyEvent{input.keyCodes().at("delete"), true, 0, {}}, std::nullopt);
  EXPECT_EQ(d.desktop.attribute(501, "field", "AXValue"), AxValue("h"));
  input.postKey(KeyEvent{input.keyCodes().at("return"), true, 0, {}}, std::nullopt);
  EXPECT_EQ(d.desktop.attribute(501, "display", "AXValue"), AxValue("found"));
  d.clock.runUntilIdle();
  EXPECT_EQ(d.names(), (std::vector<std::string>{"AXFocusedUIElementChanged", "AXValueChanged", "AXValueChanged",
                                                 "AXValueChanged", "AXValueChanged"}));
}

TEST(SimDesktop, AClickPressesWhatIsUnderThePointer) {
  Desktop d;
  auto hit = d.ax.elementAt(120, 170);
  ASSERT_TRUE(hit.ok());
  EXPECT_EQ(hit.value, d.desktop.element(501, "seven"));
  EXPECT_EQ(d.ax.pidOf(hit.value).value, 501);
  EXPECT_EQ(d.ax.elementAt(5, 5).error, AxError::noValue);
  auto& input = d.desktop.input();
  for (auto action : {PointerAction::down, PointerAction::up})
    input.postPointer(PointerEvent{action, MouseButton::left, 1, {120, 170}, 0}, std::nullopt);
  EXPECT_EQ(d.desktop.attribute(501, "display", "AXValue"), AxValue("07"));
  EXPECT_EQ(input.pointerLocation(), (AxPoint{120, 170}));
}

TEST(SimDesktop, ChangesToTheTreeNotifyAndLeaveDeadHandles) {
  Desktop d;
  d.observeAll();
  Element oldWindow = *d.ax.copy(d.ax.applicationElement(501), "AXFocusedWindow").as<Element>();
  d.desktop.addElements(501, "", {element("AXWindow").withKey("second").title("Second").withFrame(0, 0, 50, 50)});
  d.desktop.removeElement(501, "seven");
  d.desktop.replaceWindow(501, element("AXWindow").title("Fresh"));
  d.clock.runUntilIdle();
  EXPECT_EQ(d.names(), (std::vector<std::string>{"AXWindowCreated", "AXFocusedWindowChanged", "AXUIElementDestroyed",
                                                 "AXUIElementDestroyed", "AXWindowCreated", "AXFocusedWindowChanged"}));
  EXPECT_EQ(d.ax.copy(oldWindow, "AXTitle"), AxValue("Calculator"));  // behind the new window, still alive
  EXPECT_EQ(d.ax.copy(d.seen[2].second, "AXRole"), AxValue(AxError::invalidElement));
  auto windows = d.ax.copy(d.ax.applicationElement(501), "AXWindows").as<AxList>();
  ASSERT_TRUE(windows);
  EXPECT_EQ(windows->size(), 2u);
}

TEST(SimDesktop, CaptureDrawsElementsOverTheBackground) {
  Desktop d;
  auto pixels = d.desktop.screen().capture(AxRect{100, 100, 240, 320}, 2, std::nullopt);
  ASSERT_TRUE(pixels);
  EXPECT_EQ(pixels->width, 480);
  EXPECT_EQ(pixels->height, 640);
  auto at = [&](double x, double y) {
    auto* p = &pixels->rgba[static_cast<std::size_t>((((y - 100) * 2) * 480 + (x - 100) * 2) * 4)];
    return std::vector<int>{p[0], p[1], p[2], p[3]};
  };
  EXPECT_NE(at(120, 170), at(105, 105));  // a button against its window
  EXPECT_EQ(at(120, 170)[3], 255);
}

TEST(Fixture, ProblemsNameTheirPlace) {
  struct Case {
    const char* json;
    const char* place;
  };
  for (const auto& c :
       {Case{"[]", "top level"}, Case{R"({"apps": [{"pid": 0}]})", "apps[0].pid"},
        Case{R"({"apps": [{"pid": 1, "windows": [{"frame": [1, 2]}]}]})", "apps[0].windows[0].frame"},
        Case{R"({"apps": [{"pid": 1, "windows": [{"onPress": [{"explode": {}}]}]}]})", "apps[0].windows[0].onPress[0]"},
        Case{R"({"apps": [{"pid": 1}, {"pid": 1}]})", "apps[1].pid"}, Case{"{", "not JSON"},
        Case{R"({"apps": [{"pid": 1, "activation": "sometimes"}]})", "apps[0].activation"}}) {
    SCOPED_TRACE(c.json);
    try {
      parseFixture(c.json);
      ADD_FAILURE() << "accepted";
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find(c.place), std::string::npos) << e.what();
    }
  }
}

}  // namespace
}  // namespace glimmerstrand::platform::sim
