// Element actions on the simulated desktop, through their line operations.
#include "native/element_actions.h"

#include <gtest/gtest.h>

#include "action_sim.h"

namespace glimmerstrand::native::testing {
namespace {

using platform::sim::appendEffect;
using platform::sim::hangEffect;
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

TEST(Press, ThatHangsAnswersAtTheFirstNotificationAndHoldsUpNoCaller) {
  ActionSim sim(desktop());
  auto slow = sim.ref(pid, "slow");
  auto ok = sim.ref(pid, "ok");
  const std::int64_t start = sim.clock.nowNs();
  slow.emplace_back("timeoutMs", 1000);
  auto result = sim.call("press", slow);
  EXPECT_EQ(core::optionalBool(result, "completed"), false);
  EXPECT_LT(sim.elapsedMs(start), 1000);
  EXPECT_LT(*core::optionalNumber(result, "elapsedMs"), 1000);
  // The next action on the same thread runs while the first press still hangs.
  EXPECT_EQ(core::optionalBool(sim.call("press", ok), "completed"), true);
  EXPECT_EQ(sim.text(pid, "status"), "slowpressed");
}

TEST(Press, WaitCompleteOrNoTimeAnswersWithoutCompletion) {
  ActionSim sim(desktop());
  auto stuck = sim.ref(pid, "stuck");
  stuck.emplace_back("waitComplete", true);
  stuck.emplace_back("timeoutMs", 1000);
  const std::int64_t start = sim.clock.nowNs();
  EXPECT_EQ(core::optionalBool(sim.call("press", stuck), "completed"), false);
  EXPECT_GE(sim.elapsedMs(start), 1000);
  EXPECT_LT(sim.elapsedMs(start), 1010);

  auto ok = sim.ref(pid, "ok");
  ok.emplace_back("timeoutMs", 0);
  EXPECT_EQ(core::optionalBool(sim.call("press", ok), "completed"), false);
  // The press went out all the same.
  sim.clock.runUntilIdle();
  EXPECT_EQ(sim.text(pid, "status"), "pressedstuck");
}

TEST(Press, PressesALabelsButtonOrFallsBackToSelectionThenFocusThenFails) {
  ActionSim sim(desktop());
  const std::tuple<const char*, const char*, const char*, const char*, platform::AxValue> cases[] = {
      {"okLabel", "press", "status", "AXValue", platform::AxValue("pressed")},  // a label presses its button
      {"rowLabel", "select", "row", "AXSelected", platform::AxValue(true)},
      {"focusable", "focus", nullptr, nullptr, platform::AxValue()},  // Focus tests where the focus goes
  };
  for (const auto& [key, method, changed, attribute, value] : cases) {
    SCOPED_TRACE(key);
    auto result = sim.call("press", sim.ref(pid, key));
    EXPECT_EQ(core::optionalString(result, "method"), method);
    EXPECT_EQ(core::optionalBool(result, "completed"), true);
    if (changed) {
      EXPECT_EQ(sim.desktop().attribute(pid, changed, attribute), value);
    }
  }
  auto failure = sim.failure("press", sim.ref(pid, "image"));
  EXPECT_EQ(failure.code(), "no_action");
  EXPECT_EQ(failure.message(), "この要素は押せません。actions=[\"AXShowMenu\"]");
}

TEST(Press, OfAnElementThatWentIsStale) {
  ActionSim sim(desktop());
  auto byUid = sim.ref(pid, "ok");
  auto copy = sim.snapshot(pid);
  std::int64_t index = -1;
  for (const auto& node : *copy.find("nodes")->asArray())
    if (core::optionalString(node, "identifier") == "ok") index = *core::optionalInt(node, "i");
  JSONValue::Object byIndex{{"pid", pid}, {"generation", *core::optionalInt(copy, "generation")}, {"i", index}};
  sim.desktop().removeElement(pid, "ok");
  sim.clock.runUntilIdle();
  EXPECT_EQ(sim.failure("press", byUid).code(), "stale");
  auto failure = sim.failure("press", byIndex);
  EXPECT_EQ(failure.code(), "stale");
  EXPECT_EQ(failure.message(), "押せませんでした: -25202");
  // Numbers no element or generation can have.
  EXPECT_EQ(sim.failure("press", {{"pid", pid}, {"uid", 1e300}}).code(), "stale");
  EXPECT_EQ(sim.failure("press", {{"pid", pid}, {"generation", -1e300}, {"i", 0}}).code(), "stale");
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
    SCOPED_TRACE(key);
    auto result = sim.call("focus", sim.ref(pid, key));
    EXPECT_EQ(core::optionalString(result, "method"), method);
    EXPECT_EQ(core::optionalBool(result, "moved"), moved);
  }
  EXPECT_EQ(sim.failure("focus", sim.ref(pid, "label")).message(), "フォーカスを当てられませんでした: -25205");
}

TEST(SetValue, ReadsBackWhatTheApplicationShows) {
  ActionSim sim(desktop());
  auto name = sim.ref(pid, "name");
  name.emplace_back("text", "Ada");
  EXPECT_EQ(core::optionalBool(sim.call("setValue", name), "applied"), true);
  EXPECT_EQ(sim.text(pid, "name"), "Ada");

  auto amount = sim.ref(pid, "amount");
  amount.emplace_back("text", "5");
  const std::int64_t start = sim.clock.nowNs();
  auto result = sim.call("setValue", amount);
  EXPECT_EQ(core::optionalBool(result, "applied"), false);
  EXPECT_EQ(sim.text(pid, "amount"), "5.00");
  EXPECT_GE(sim.elapsedMs(start), 180);  // ten reads, 20 ms apart

  auto label = sim.ref(pid, "label");
  label.emplace_back("text", "x");
  EXPECT_EQ(sim.failure("setValue", label).message(), "この要素の値は書き換えられません");
  EXPECT_EQ(sim.failure("setValue", sim.ref(pid, "name")).message(), "text が必要です");
}

TEST(SelectAll, SelectsTheCountedCharactersOrEveryUtf16Unit) {
  ActionSim sim(desktop());
  const std::pair<const char*, std::int64_t> selected[] = {{"greeting", 5}, {"counted", 7}};
  for (const auto& [key, length] : selected) {
    SCOPED_TRACE(key);
    EXPECT_EQ(core::optionalInt(sim.call("selectAll", sim.ref(pid, key)), "length"), length);
    EXPECT_EQ(sim.desktop().attribute(pid, key, "AXSelectedTextRange"),
              platform::AxValue(platform::AxRange{0, length}));
  }
  const std::tuple<const char*, const char*, const char*> failures[] = {
      {"label", "no_action", "文字を選べませんでした: -25205"},
      {"vast", "native", "選択範囲を作れませんでした"},  // no range holds that many
  };
  for (const auto& [key, code, message] : failures) {
    auto failure = sim.failure("selectAll", sim.ref(pid, key));
    EXPECT_EQ(failure.code(), code);
    EXPECT_EQ(failure.message(), message);
  }
}

TEST(ReadText, GathersEachVisibleTextOnceInReadingOrder) {
  ActionSim sim(desktop());
  auto window = sim.ref(pid, "window");
  EXPECT_EQ(core::optionalString(sim.call("readText", window), "text"), "Form\nOK\nSlow\nStuck\nRow\nhéllo\nTotal");
  auto shallow = window;
  shallow.emplace_back("deep", false);
  EXPECT_EQ(core::optionalString(sim.call("readText", shallow), "text"), "Form");
  auto cut = window;
  cut.emplace_back("maxChars", 6);
  auto result = sim.call("readText", cut);
  EXPECT_EQ(core::optionalString(result, "text"), "Form\nO");
  EXPECT_EQ(core::optionalBool(result, "truncated"), true);
}

TEST(Inspect, ShowsEachKindOfValueAsText) {
  ActionSim sim(desktop());
  auto& ax = sim.platform.accessibility();
  const std::string longText(250, 'x');
  const std::pair<platform::AxValue, std::string> cases[] = {
      {platform::AxValue(), "null"},
      {platform::AxValue(platform::AxError::noValue), "null"},
      {platform::AxValue("plain"), "plain"},
      {platform::AxValue(longText), std::string(200, 'x') + "…"},
      {platform::AxValue(2.5), "2.5"},
      {platform::AxValue(3), "3"},
      {platform::AxValue(platform::AxUrl{"https://example.com/"}), "https://example.com/"},
      {platform::AxValue(platform::AxList{1, 2, 3}), "[3 items]"},
      {platform::AxValue(platform::AxPoint{10.9, -3.7}), "(10, -3)"},
      {platform::AxValue(platform::AxSize{200.5, 40}), "200x40"},
      {platform::AxValue(platform::AxRect{1, 2, 3, 4}), "(1, 2) 3x4"},
      {platform::AxValue(platform::AxRange{4, 2}), "range 4+2"},
      {platform::AxValue(platform::AxOpaque{"<AXTextMarker 0x1>"}), ""},
      {platform::AxValue(platform::AxOpaque{std::string(130, 'o')}), std::string(120, 'o')},
      {platform::AxValue(sim.desktop().element(pid, "ok")), "element AXButton"},
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(inspectValueText(ax, value), text);

  auto result = sim.call("inspect", sim.ref(pid, "ok"));
  EXPECT_EQ(core::jsonText(*result.find("actions")), R"([{"name":"AXPress","description":"press"}])");
  bool sawTitle = false;
  for (const auto& attribute : *result.find("attributes")->asArray())
    if (core::optionalString(attribute, "name") == "AXTitle") {
      sawTitle = true;
      EXPECT_EQ(core::optionalString(attribute, "value"), "OK");
      EXPECT_EQ(core::optionalBool(attribute, "settable"), false);
    }
  EXPECT_TRUE(sawTitle);
}

TEST(ElementFrameAndShowMenu, AnswerOrSayWhyNot) {
  ActionSim sim(desktop());
  EXPECT_EQ(core::jsonText(sim.call("elementFrame", sim.ref(pid, "ok"))), R"({"x":10,"y":40,"width":80,"height":30})");
  EXPECT_TRUE(sim.call("showMenu", sim.ref(pid, "image")).find("notificationsBefore"));
  const std::tuple<const char*, const char*, const char*, const char*> failures[] = {
      {"elementFrame", "bare", "stale", "要素の位置を読めませんでした"},
      {"showMenu", "ok", "no_action", "メニューを開けませんでした: -25206"},
  };
  for (const auto& [operation, key, code, message] : failures) {
    auto failure = sim.failure(operation, sim.ref(pid, key));
    EXPECT_EQ(failure.code(), code);
    EXPECT_EQ(failure.message(), message);
  }
}

}  // namespace
}  // namespace glimmerstrand::native::testing
