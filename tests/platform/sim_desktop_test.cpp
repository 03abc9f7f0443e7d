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
  "apps": [{ "pid": 501, "bundleId": "com.example.calculator", "name": "Calculator", "frontmost": true,
             "refusedNotifications": ["AXLoadComplete"],
             "windows": [{ "role": "AXWindow", "title": "Calculator", "frame": [100, 100, 240, 320],
                 "children": [
                   {"key": "display", "role": "AXStaticText", "value": "0", "frame": [110, 110, 220, 40]},
                   {"key": "seven", "role": "AXButton", "title": "7", "frame": [110, 160, 50, 40],
                    "onPress": [{"append": {"key": "display", "attribute": "AXValue", "text": "7"}}]},
                   {"key": "slow", "role": "AXButton", "title": "Slow", "frame": [170, 160, 50, 40],
                    "onPress": [{"hangMs": 800}, {"set": {"key": "display", "value": "done"}}]},
                   {"key": "dead", "role": "AXButton", "gone": true} ]}] }]})";

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
    for (auto name : {"AXValueChanged", "AXUIElementDestroyed", "AXWindowCreated", "AXFocusedWindowChanged"})
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
  EXPECT_EQ(d.ax.copyMultiple(d.desktop.element(501, "dead"), {"AXRole"}).error, AxError::invalidElement);
  auto app = d.ax.applicationElement(501);
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

}  // namespace
}  // namespace glimmerstrand::platform::sim
