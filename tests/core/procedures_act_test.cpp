#include "procedure_fixture.h"

namespace glimmerstrand::core {
namespace {

using namespace testing;

struct ActCase {
  const char* script;
  Lines calls;  // after the first snapshot, before the closing settle
  ActionRecord action;
};

ActionRecord done(std::string id, std::string action) { return ActionRecord{id, action, true, std::nullopt}; }

TEST_F(ProcedureTest, ActingProceduresReachTheDriverInOrder) {
  const std::string l = frontCalls[0], a = frontCalls[1], f = frontCalls[2];
  const ActCase cases[] = {
      {R"(CALL ui.press("e102"))", {counterCall, "press " + ref(2)}, done("e102", "pressed")},
      {R"(CALL ui.focus("To"))", {counterCall, "focus " + ref(1)}, done("e101", "focused")},
      {R"(CALL ui.set_value("e101", 7))", {counterCall, "setValue " + ref(1) + " \"7\""}, done("e101", "value=7")},
      {R"(CALL ui.key("Return"))", {counterCall, "key \"Return\" 501"}, done("", "key \"Return\"")},
      {"CALL ui.click(100.4, 200.6)",
       {l, a, f, counterCall, "click 100.4,200.6 left 1"},
       done("", "click left 100,201")},
      {R"(CALL ui.click("e102", "double"))",
       {l, a, f, counterCall, "click 340,20 left 2"},
       done("e102", "click double 340,20")},
      {R"(CALL ui.hover("e102"))", {l, a, f, counterCall, "move 340,20"}, done("e102", "hover 340,20")},
      {R"(CALL ui.drag("e102", "e101"))", {l, a, f, counterCall, "drag 340,20 110,20"}, done("", "drag e102 -> e101")},
      {R"(CALL ui.menu("e102"))", {counterCall, "showMenu " + ref(2)}, done("e102", "menu")},
      // The list runs past its scroll area: the wheel goes to the middle of the visible part.
      {R"(CALL ui.scroll("e104", "down", 3))",
       {counterCall, "scroll dx=- dy=-720 at 200,250", R"(axRefresh {"pid":501})"},
       done("e104", "scroll down 3")},
  };
  for (const auto& c : cases) {
    auto r = run(c.script);
    Lines expected = c.calls;
    expected.insert(expected.end(), {settleCall, freshRead});
    EXPECT_EQ(calls(), expected) << c.script;
    ASSERT_EQ(r.results.size(), 1u) << c.script;
    EXPECT_EQ(r.results[0]->kind, "call");
    EXPECT_EQ(r.results[0]->actions, std::vector<ActionRecord>{c.action}) << c.script;
  }
}

TEST_F(ProcedureTest, ScrollPagesAndDirections) {
  driver.nodes.push_back(framed(node(40, 0, "AXGroup"), {0, 50, 300, 500}));
  const std::tuple<const char*, std::string, std::string> cases[] = {
      {R"(CALL ui.scroll("e140", "down", 3))", "dx=- dy=-1200 at 150,300", "scroll down 3"},
      {R"(CALL ui.scroll("e140", null, 100))", "dx=- dy=-8000 at 150,300", "scroll down 100"},
      {R"(CALL ui.scroll("e140", "left", "2.4"))", "dx=480 dy=- at 150,300", "scroll left 2.4"},
      {R"(CALL ui.scroll("e102", "right"))", "dx=-64 dy=- at 340,20", "scroll right 1"},
  };
  for (const auto& [script, scroll, action] : cases) {
    auto r = run(script);
    EXPECT_EQ(calls().at(1), "scroll " + scroll) << script;
    EXPECT_EQ(r.results[0]->actions.at(0).action, action);
    EXPECT_EQ(clock.slept, std::vector<double>{250});
  }
  EXPECT_EQ(failure(R"(CALL ui.scroll("e140", "sideways"))").second,
            "向きは up、down、left、right のどれかにしてください: sideways");
  EXPECT_EQ(failure(R"(CALL ui.scroll("e105"))").second, "e105 は位置がわからないので、スクロールできません");
}

TEST_F(ProcedureTest, SelectAllKeysGoToTheFocusedField) {
  const std::string focus = "focus " + ref(1);
  const std::pair<const char*, Lines> cases[] = {
      {R"(CALL ui.focus("e101"); CALL ui.key("cmd+a"))", {counterCall, focus, focus, "selectAll " + ref(1)}},
      {R"(CALL ui.focus("e101"); CALL ui.key("Cmd+B"))", {counterCall, focus, focus, "key \"Cmd+B\" 501"}},
      {R"(CALL ui.key("cmd+a"))", {counterCall, "key \"cmd+a\" 501"}},
  };
  for (const auto& [script, expected] : cases) {
    run(script);
    Lines all = expected;
    all.insert(all.end(), {settleCall, freshRead});
    EXPECT_EQ(calls(), all) << script;
  }
}

TEST_F(ProcedureTest, FailedKeysShowTheirActionAndTheWriteIsStillReported) {
  driver.failures["type"] = "permission";
  auto r = run(R"(CALL ui.key("a"); CALL ui.type("b"))");
  EXPECT_EQ(r.error->statement, 2);
  ASSERT_EQ(r.results.size(), 2u);
  EXPECT_EQ(r.results[1]->actions, (std::vector<ActionRecord>{{"", "type \"b\"", false, "type failed"}}));
  EXPECT_EQ(r.results[1]->changes, Lines{}) << "the settle at the end reports on the last write";
}

TEST_F(ProcedureTest, TypingTheDriverDidNotSeeIsNotedOnlyWhenNothingChanged) {
  driver.typedSeen = false;
  // A calculator: the keys land nowhere the driver can watch, but its display changes.
  auto display = [](FakeDriver& d) {
    for (const auto& call : d.calls)
      if (call.starts_with("type ")) d.byUid(101).value = "46";
  };
  const Lines note{std::string(typedNote)};
  const std::tuple<const char*, bool, std::optional<Lines>> cases[] = {
      {R"(CALL ui.type("12+34="))", false, note},
      {R"(CALL ui.type("12+34="))", true, std::nullopt},
      {R"(CALL ui.type(""))", false, std::nullopt},
      {R"(CALL ui.type("a"); CALL ui.key("return"))", false, note},
      {R"(MATCH (f:TextField) SET f.value = "x")", false, note},
      {R"(MATCH (f:TextField) SET f.value = "x")", true, std::nullopt},
  };
  for (const auto& [script, changes, notes] : cases) {
    driver.valueApplied = false;
    driver.onSnapshot = changes ? std::function<void(FakeDriver&)>(display) : nullptr;
    driver.byUid(101).value = "a";
    auto r = run(script);
    EXPECT_EQ(r.results.front()->notes, notes) << script << (changes ? " (the tree changed)" : "");
  }
  // With the tree still, the note is there before the read that follows.
  driver.onSnapshot = nullptr;
  auto r = run(R"(CALL ui.type("abc"); MATCH (f:TextField) RETURN f.value)");
  EXPECT_EQ(r.results.front()->notes, note);
}

TEST_F(ProcedureTest, AWrongButtonFailsAfterThePointerWasPrepared) {
  auto r = run(R"(MATCH (b:Button) RETURN b.id; CALL ui.click(1, 2, "middle"))");
  EXPECT_EQ(r.error->message, "ボタンは left、right、double のどれかにしてください: middle");
  EXPECT_EQ(calls(), (Lines{frontCalls[0], frontCalls[1], frontCalls[2], counterCall, settleCall, freshRead}));
}

TEST_F(ProcedureTest, AMenuWithoutItsActionIsOpenedByARightClick) {
  driver.failures["showMenu"] = "no_action";
  auto r = run(R"(CALL ui.menu("Send"))");
  EXPECT_EQ(calls(), (Lines{counterCall, "showMenu " + ref(2), frontCalls[0], frontCalls[1], frontCalls[2],
                            "click 340,20 right 1", settleCall, freshRead}));
  EXPECT_EQ(r.results[0]->actions, std::vector<ActionRecord>{done("e102", "menu by right click")});

  // A right click that nothing followed is made once more.
  driver.nodes.pop_back();
  driver.lostRightClicks = 1;
  auto again = run(R"(CALL ui.menu("Send"))").results.at(0);
  const Lines made = calls();
  EXPECT_EQ(std::count(made.begin(), made.end(), "click 340,20 right 1"), 2);
  EXPECT_EQ(again->notes, std::nullopt);
  ASSERT_TRUE(again->changes);
  EXPECT_NE(again->changes->at(0).find("Context"), std::string::npos);

  driver.failures["showMenu"] = "stale";
  EXPECT_EQ(failure(R"(CALL ui.menu("Send"))").first, "stale");
  EXPECT_EQ(calls(), (Lines{counterCall, "showMenu " + ref(2)}));
}

TEST_F(ProcedureTest, AMenuThatShowsLateIsWaitedForAndOneThatNeverShowsIsNoted) {
  driver.menuOpens = false;
  int settles = 0;
  driver.onWaitSettle = [&](FakeDriver& d, const SettleOptions&) {
    clock.now += 400'000'000;
    if (++settles == 3) d.nodes.push_back(node(static_cast<std::int64_t>(d.nodes.size()), 0, "AXMenu", "Context"));
    return SettleResult{true, true, 1, 400};
  };
  auto late = run(R"(CALL ui.menu("e102"))").results.at(0);
  EXPECT_EQ(late->notes, std::nullopt);
  ASSERT_TRUE(late->changes);
  EXPECT_EQ(late->changes->size(), 1u);
  EXPECT_EQ(late->changes->at(0).substr(0, 2), "+ ");

  driver.nodes.pop_back();
  auto never = run(R"(CALL ui.menu("e102"))").results.at(0);
  EXPECT_EQ(never->notes, std::vector<std::string>{"no menu showed within 1.5 s"});
  EXPECT_EQ(never->changes, std::vector<std::string>{});

  // The menu closed a moment ago is still in the copy: the report waits for
  // the one this call opens.
  driver.nodes.push_back(node(static_cast<std::int64_t>(driver.nodes.size()), 0, "AXMenu", "Closed a moment ago"));
  settles = 0;
  auto next = run(R"(CALL ui.menu("e102"))").results.at(0);
  EXPECT_EQ(next->notes, std::nullopt);
  ASSERT_TRUE(next->changes);
  ASSERT_EQ(next->changes->size(), 1u);
  EXPECT_NE(next->changes->at(0).find("Context"), std::string::npos) << next->changes->at(0);
}

}  // namespace
}  // namespace glimmerstrand::core
