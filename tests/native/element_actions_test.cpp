// Element actions on the simulated desktop, through their line operations.
#include "native/element_actions.h"

#include <gtest/gtest.h>

#include "action_sim.h"

namespace glimmerstrand::native::testing {
namespace {

using platform::sim::appendEffect;
using platform::sim::hangEffect;
using platform::sim::removeEffect;
using platform::sim::setEffect;

constexpr std::int32_t pid = 501;

platform::sim::DesktopSpec desktop() {
  auto window = keyed("AXWindow", "window").title("Form").withFrame(0, 0, 600, 400);
  window.child(keyed("AXStaticText", "status").value("").withFrame(10, 10, 200, 20));
  window.child(keyed("AXButton", "ok")
                   .title("OK")
                   .withFrame(10, 40, 80, 30)
                   .pressDoes({appendEffect("status", "pressed")})
                   .child(keyed("AXStaticText", "okLabel").value("OK").withFrame(12, 42, 40, 20)));
  // Posts a change at once, then keeps the caller of the press waiting.
  window.child(keyed("AXButton", "slow")
                   .title("Slow")
                   .withFrame(100, 40, 80, 30)
                   .pressDoes({appendEffect("status", "slow"), hangEffect(60'000)}));
  window.child(keyed("AXButton", "stuck")
                   .title("Stuck")
                   .withFrame(190, 40, 80, 30)
                   .pressDoes({hangEffect(60'000), appendEffect("status", "stuck")}));
  window.child(keyed("AXRow", "row")
                   .withSettable({"AXSelected"})
                   .withFrame(10, 80, 300, 20)
                   .child(keyed("AXStaticText", "rowLabel").value("Row").withFrame(12, 80, 100, 20)));
  window.child(keyed("AXGroup", "focusable").withSettable({"AXFocused"}).withFrame(10, 110, 50, 20));
  window.child(keyed("AXTextField", "field").withSettable({"AXFocused", "AXValue"}).withFrame(70, 110, 50, 20));
  window.child(keyed("AXImage", "image").withActions({"AXShowMenu"}).withFrame(70, 110, 20, 20));
  auto aloof = keyed("AXGroup", "aloof").withSettable({"AXFocused"}).withFrame(100, 110, 20, 20);
  aloof.ignoresFocus = true;
  window.child(aloof);
  auto link = keyed("AXLink", "link")
                  .withSettable({"AXFocused"})
                  .withFrame(130, 110, 20, 20)
                  .pressDoes({setEffect("link", "AXFocused", true)});
  link.ignoresFocus = true;
  window.child(link);
  window.child(
      keyed("AXTextField", "name").value("").withSettable({"AXValue", "AXFocused"}).withFrame(10, 140, 200, 20));
  auto amount = keyed("AXTextField", "amount").value("").withSettable({"AXValue"}).withFrame(10, 170, 200, 20);
  amount.onSetValue = {appendEffect("", ".00")};  // the application formats what it is given
  window.child(amount);
  window.child(keyed("AXTextField", "greeting").value("héllo").withFrame(10, 200, 200, 20));
  window.child(keyed("AXStaticText", "label").value("Total").withFrame(10, 230, 100, 20));
  window.child(keyed("AXGroup", "bare"));
  window.child(keyed("AXTextField", "counted").attribute("AXNumberOfCharacters", 7));
  window.child(keyed("AXTextField", "vast").attribute("AXNumberOfCharacters", 1e30));
  platform::sim::DesktopSpec spec;
  spec.apps.push_back(appWith(pid, "Form", {window}));
  return spec;
}

// A reference's parameters are read leniently, and in the order the checks
// come: permission, the pid's copy, then what is missing.
TEST(ReferenceParameters, FailInTheOrderTheirChecksCome) {
  ActionSim sim(desktop());
  const auto field = sim.ref(pid, "field");
  EXPECT_EQ(sim.failed("readText", {}), "invalid_argument: pid が必要です");
  EXPECT_EQ(sim.failed("readText", {{"pid", "501"}, {"uid", 1}}), "invalid_argument: pid が必要です");
  EXPECT_EQ(sim.failed("readText", {{"pid", 999}, {"uid", 1}}), "stale: pid 999 の写しがありません");
  EXPECT_EQ(sim.failed("readText", {{"pid", 4294967296.0}, {"uid", 1}}), "stale: pid 4294967296 の写しがありません");
  EXPECT_EQ(sim.failed("readText", {{"pid", 999}}), "stale: pid 999 の写しがありません");
  EXPECT_EQ(sim.failed("readText", {{"pid", pid}}), "invalid_argument: generation が必要です");
  EXPECT_EQ(sim.failed("readText", {{"pid", pid}, {"menu", true}}),
            "invalid_argument: メニューの項目には uid が必要です");
  EXPECT_EQ(sim.failed("setValue", {{"pid", 999}, {"uid", 1}}), "stale: pid 999 の写しがありません");
  EXPECT_EQ(sim.failed("setValue", field), "invalid_argument: text が必要です");
  EXPECT_EQ(core::optionalString(sim.call("readText", {{"pid", pid}, {"generation", 1}, {"i", 0}}), "text")
                ->rfind("Form\nOK", 0),
            0u);
  sim.desktop().setTrusted(false);
  EXPECT_EQ(sim.failed("readText", {}).rfind("permission: ", 0), 0u);
}

TEST(Press, ThatHangsAnswersAtTheFirstNotificationAndHoldsUpNoCaller) {
  ActionSim sim(desktop());
  auto slow = sim.ref(pid, "slow", {{"timeoutMs", 1000}});
  auto ok = sim.ref(pid, "ok");
  const std::int64_t start = sim.clock.nowNs();
  EXPECT_EQ(core::optionalBool(sim.call("press", slow), "completed"), false);
  EXPECT_LT(sim.elapsedMs(start), 1000);
  // The next action on the same thread runs while the first press still hangs.
  EXPECT_EQ(core::optionalBool(sim.call("press", ok), "completed"), true);
  EXPECT_EQ(sim.text(pid, "status"), "slowpressed");
}

TEST(Press, WaitCompleteGivesUpAtTheTimeout) {
  ActionSim sim(desktop());
  auto stuck = sim.ref(pid, "stuck", {{"waitComplete", true}, {"timeoutMs", 1000}});
  const std::int64_t start = sim.clock.nowNs();
  EXPECT_EQ(core::optionalBool(sim.call("press", stuck), "completed"), false);
  EXPECT_GE(sim.elapsedMs(start), 1000);
  sim.clock.runUntilIdle();
  EXPECT_EQ(sim.text(pid, "status"), "stuck");  // the press went out all the same
}

TEST(Press, PressesALabelsButtonOrFallsBackToSelectionThenAFieldsFocusThenFails) {
  ActionSim sim(desktop());
  const std::pair<const char*, const char*> cases[] = {
      {"okLabel", "press"}, {"rowLabel", "select"}, {"field", "focus"}};
  for (const auto& [key, method] : cases) {
    auto result = sim.call("press", sim.ref(pid, key));
    EXPECT_EQ(core::optionalString(result, "method"), method) << key;
    EXPECT_EQ(core::optionalBool(result, "completed"), true) << key;
  }
  EXPECT_EQ(sim.text(pid, "status"), "pressed");  // a label presses its button
  EXPECT_EQ(sim.desktop().attribute(pid, "row", "AXSelected"), platform::AxValue(true));
  EXPECT_EQ(sim.failed("press", sim.ref(pid, "image")), "no_action: この要素は押せません。actions=[\"AXShowMenu\"]");
  // Focus is no press for what takes no text: the press fails rather than
  // report a check box toggled that never was.
  EXPECT_EQ(sim.failed("press", sim.ref(pid, "focusable")), "no_action: この要素は押せません。actions=[]");
}

// An element that went while its reference was still good (a page reloaded
// under the copy): every action on it answers "stale", so that the caller
// looks again rather than trying another way, such as keys, on what is gone.
TEST(Actions, OnAnElementThatWentAreStale) {
  ActionSim sim(desktop());
  auto copy = sim.snapshot(pid);
  auto byIndex = [&](const std::string& identifier) {
    std::int64_t index = -1;
    for (const auto& node : *copy.find("nodes")->asArray())
      if (core::optionalString(node, "identifier") == identifier) index = *core::optionalInt(node, "i");
    return JSONValue::Object{{"pid", pid}, {"generation", *core::optionalInt(copy, "generation")}, {"i", index}};
  };
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"press", "ok", "押せませんでした: -25202"},
      {"focus", "field", "フォーカスを当てられませんでした: -25202"},
      {"setValue", "name", "値を書き換えられませんでした: -25202"},
      {"selectAll", "counted", "文字を選べませんでした: -25202"},
      {"showMenu", "image", "メニューを開けませんでした: -25202"},
  };
  auto byUid = sim.ref(pid, "ok");
  for (const auto& [operation, identifier, message] : cases) sim.desktop().removeElement(pid, identifier);
  sim.clock.runUntilIdle();
  for (const auto& [operation, identifier, message] : cases) {
    auto params = byIndex(identifier);
    if (std::string(operation) == "setValue") params.emplace_back("text", "Ada");
    EXPECT_EQ(sim.failed(operation, params), std::string("stale: ") + message) << operation << " " << identifier;
  }
  EXPECT_EQ(sim.failure("press", byUid).code(), "stale");
  EXPECT_EQ(sim.failure("press", {{"pid", pid}, {"uid", 1e300}}).code(), "stale");  // no element has it
  const auto mirrors = sim.host.mirrors().all().size();
  EXPECT_EQ(sim.failure("press", {{"pid", 1e12}, {"uid", 1}, {"menu", true}}).code(), "stale");
  EXPECT_EQ(sim.host.mirrors().all().size(), mirrors);
}

TEST(Focus, ReportsWhetherTheFocusMoved) {
  ActionSim sim(desktop());
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"name", "focus", true},    // takes the focus
      {"aloof", "focus", false},  // accepts the request and ignores it
      {"link", "press", true},    // takes the focus only when pressed
  };
  for (const auto& [key, method, moved] : cases) {
    auto result = sim.call("focus", sim.ref(pid, key));
    EXPECT_EQ(core::optionalString(result, "method"), method) << key;
    EXPECT_EQ(core::optionalBool(result, "moved"), moved) << key;
  }
  EXPECT_EQ(sim.failure("focus", sim.ref(pid, "label")).message(), "フォーカスを当てられませんでした: -25205");
}

TEST(SetValue, ReadsBackWhatTheApplicationShows) {
  ActionSim sim(desktop());
  EXPECT_EQ(core::optionalBool(sim.call("setValue", sim.ref(pid, "name", {{"text", "Ada"}})), "applied"), true);
  EXPECT_EQ(sim.text(pid, "name"), "Ada");

  const std::int64_t start = sim.clock.nowNs();
  EXPECT_EQ(core::optionalBool(sim.call("setValue", sim.ref(pid, "amount", {{"text", "5"}})), "applied"), false);
  EXPECT_EQ(sim.text(pid, "amount"), "5.00");
  EXPECT_GE(sim.elapsedMs(start), 180);  // ten reads, 20 ms apart
  EXPECT_EQ(sim.failure("setValue", sim.ref(pid, "label", {{"text", "x"}})).message(),
            "この要素の値は書き換えられません");
}

TEST(SelectAll, SelectsTheCountedCharactersOrEveryUtf16Unit) {
  ActionSim sim(desktop());
  for (const auto& [key, length] : {std::pair{"greeting", 5}, std::pair{"counted", 7}}) {
    EXPECT_EQ(core::optionalInt(sim.call("selectAll", sim.ref(pid, key)), "length"), length) << key;
    EXPECT_EQ(sim.desktop().attribute(pid, key, "AXSelectedTextRange"),
              platform::AxValue(platform::AxRange{0, length}));
  }
  EXPECT_EQ(sim.failed("selectAll", sim.ref(pid, "label")), "no_action: 文字を選べませんでした: -25205");
  EXPECT_EQ(sim.failed("selectAll", sim.ref(pid, "vast")), "native: 選択範囲を作れませんでした");  // too many
}

TEST(ReadText, GathersEachVisibleTextOnceInReadingOrder) {
  ActionSim sim(desktop());
  EXPECT_EQ(core::optionalString(sim.call("readText", sim.ref(pid, "window")), "text"),
            "Form\nOK\nSlow\nStuck\nRow\nhéllo\nTotal");
  EXPECT_EQ(core::optionalString(sim.call("readText", sim.ref(pid, "window", {{"deep", false}})), "text"), "Form");
  auto result = sim.call("readText", sim.ref(pid, "window", {{"maxChars", 6}}));
  EXPECT_EQ(core::optionalString(result, "text"), "Form\nO");
  EXPECT_EQ(core::optionalBool(result, "truncated"), true);
}

TEST(Inspect, ShowsEachKindOfValueAsText) {
  ActionSim sim(desktop());
  auto& ax = sim.platform.accessibility();
  const std::pair<platform::AxValue, std::string> cases[] = {
      {platform::AxValue(platform::AxError::noValue), "null"},
      {platform::AxValue(std::string(250, 'x')), std::string(200, 'x') + "…"},
      {platform::AxValue(2.5), "2.5"},
      {platform::AxValue(platform::AxList{1, 2, 3}), "[3 items]"},
      {platform::AxValue(platform::AxPoint{10.9, -3.7}), "(10, -3)"},
      {platform::AxValue(platform::AxRect{1, 2, 3, 4}), "(1, 2) 3x4"},
      {platform::AxValue(platform::AxRange{4, 2}), "range 4+2"},
      {platform::AxValue(platform::AxOpaque{"<AXTextMarker 0x1>"}), ""},
      {platform::AxValue(sim.desktop().element(pid, "ok")), "element AXButton"},
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(inspectValueText(ax, value), text);
  auto result = sim.call("inspect", sim.ref(pid, "ok"));
  EXPECT_EQ(core::jsonText(*result.find("actions")), R"([{"name":"AXPress","description":"press"}])");
}

TEST(ElementFrameAndShowMenu, AnswerOrSayWhyNot) {
  ActionSim sim(desktop());
  EXPECT_EQ(core::jsonText(sim.call("elementFrame", sim.ref(pid, "ok"))), R"({"x":10,"y":40,"width":80,"height":30})");
  EXPECT_TRUE(sim.call("showMenu", sim.ref(pid, "image")).find("notificationsBefore"));
  EXPECT_EQ(sim.failed("elementFrame", sim.ref(pid, "bare")), "stale: 要素の位置を読めませんでした");
  EXPECT_EQ(sim.failed("showMenu", sim.ref(pid, "ok")), "no_action: メニューを開けませんでした: -25206");
}

// A context menu that stays open when an item is picked through
// accessibility, as GTK 3 leaves one when the item sits in a submenu that was
// never shown; one item closes it itself, one opens a submenu.
platform::sim::DesktopSpec withContextMenu() {
  auto spec = desktop();
  spec.apps[0].menus.push_back(
      keyed("AXMenu", "context")
          .withFrame(300, 100, 120, 90)
          .child(keyed("AXMenuItem", "copy")
                     .title("Copy")
                     .withFrame(300, 100, 120, 30)
                     .pressDoes({appendEffect("status", "copied")}))
          .child(keyed("AXMenuItem", "cut")
                     .title("Cut")
                     .withFrame(300, 130, 120, 30)
                     .pressDoes({appendEffect("status", "cut"), removeEffect("context")}))
          .child(keyed("AXMenuItem", "convert")
                     .title("Convert")
                     .withFrame(300, 160, 120, 30)
                     .pressDoes({appendEffect("status", "convert")})
                     .child(keyed("AXMenuItem", "upper").title("Upper").pressDoes({appendEffect("status", "upper")}))));
  return spec;
}

TEST(Press, OfAMenuItemClosesTheMenusItLeftOpenAsAClickWould) {
  const std::tuple<const char*, const char*, std::int64_t, bool> cases[] = {
      {"copy", "copied", 1, false},     // left open: one escape closes it
      {"upper", "upper", 1, false},     // an item of a submenu never shown, the case of GTK
      {"cut", "cut", 0, false},         // closed by its own press: no key goes out
      {"convert", "convert", 0, true},  // opens a submenu: the menu stays for it
      {"ok", "pressed", 0, true},       // not a menu item: a menu open elsewhere is left alone
  };
  for (const auto& [key, status, escapes, stillOpen] : cases) {
    ActionSim sim(withContextMenu());
    sim.desktop().clearPosted();
    auto result = sim.call("press", sim.ref(pid, key));
    EXPECT_EQ(sim.text(pid, "status"), status) << key;
    EXPECT_EQ(core::optionalInt(result, "menusClosed").value_or(0), escapes) << key;
    EXPECT_EQ(sim.desktop().posted().size(), static_cast<std::size_t>(2 * escapes)) << key;  // down and up
    EXPECT_EQ(!sim.desktop().element(pid, "context").isNull(), stillOpen) << key;
  }
}

}  // namespace
}  // namespace glimmerstrand::native::testing
