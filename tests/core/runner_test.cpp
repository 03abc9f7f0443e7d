#include "core/runner.h"

#include <gtest/gtest.h>

#include "fake_driver.h"
#include "support/desktop_texts.h"

namespace glimmerstrand::core {
namespace {

using testing::FakeDriver;
using testing::ManualClock;
using testing::node;
using Lines = std::vector<std::string>;

const char* const firstRead = R"(axSnapshot {"fresh":true,"all":true,"maxAgeMs":1500})";
const char* const settle = R"(waitSettle {"pid":501,"since":10,"quietMs":60,"firstMs":150})";
const char* const freshRead = R"(axSnapshot {"pid":501,"fresh":true,"all":true,"timeoutMs":5000})";
const char* const counterCall = R"(axCounter {"pid":501})";

// A mail window: a "To" field, a "Send" button, a list of rows.
class RunnerTest : public ::testing::Test {
 protected:
  RunnerTest() {
    driver.nodes = {node(0, -1, "AXWindow", "Mail"), node(1, 0, "AXTextField", "To", "a"),
                    node(2, 0, "AXButton", "Send"), node(3, 0, "AXList")};
    for (int k = 0; k < 40; ++k) driver.nodes.push_back(node(4 + k, 3, "AXStaticText", std::nullopt, "r"));
  }

  CypherResult run(std::string_view script, bool readOnly = false) {
    return runner.run(script, std::nullopt, readOnly);
  }
  std::string json(const CypherResult& r) {
    auto copy = r;
    copy.elapsedMs = 0;
    return jsonText(resultJSON(copy));
  }
  std::string ref(std::int64_t i) {
    return R"({"pid":501,"generation":1,"i":)" + std::to_string(i) + R"(,"uid":)" + std::to_string(i + 100) + "}";
  }

  FakeDriver driver;
  GraphMemory memory;
  ManualClock clock;
  CypherRunner runner{driver, memory, clock};
};

TEST_F(RunnerTest, RefusalsComeBeforeAnyDriverCall) {
  const std::tuple<const char*, bool, const char*> cases[] = {
      {R"(CALL ui.key("a"))", true, "query は読み取りだけを受け付けます。操作するときは do を使ってください"},
      {"MATCH (n) RETURN n; MATCH (n) DELETE n", false, "delete は使えません。MATCH、SET、CALL を使ってください"},
  };
  for (const auto& [script, readOnly, message] : cases) {
    try {
      run(script, readOnly);
      ADD_FAILURE() << script;
    } catch (const GlimmerstrandError& e) {
      EXPECT_EQ(e.code(), "invalid_argument");
      EXPECT_EQ(e.message(), message);
    }
  }
  EXPECT_TRUE(driver.calls.empty());
}

TEST_F(RunnerTest, ReadsAreCappedAtAHundredRowsWithoutALimit) {
  for (int k = 0; k < 110; ++k) driver.nodes.push_back(node(44 + k, 3, "AXStaticText", std::nullopt, "x"));
  auto capped = run("MATCH (t:StaticText) RETURN t.id", true);
  EXPECT_EQ(capped.results[0]->rows.size(), 100u);
  EXPECT_EQ(capped.results[0]->total, 150);
  auto limited = run("MATCH (t:StaticText) RETURN t.id LIMIT 150", true);
  EXPECT_EQ(limited.results[0]->rows.size(), 150u);
  EXPECT_EQ(limited.results[0]->total, std::nullopt);
  auto exact = run("MATCH (t:StaticText) RETURN t.id LIMIT 100");
  EXPECT_EQ(exact.results[0]->total, std::nullopt);
  EXPECT_EQ(driver.calls, (Lines{firstRead, firstRead, firstRead}));
}

TEST_F(RunnerTest, ResultJsonHasItsKeysInOrder) {
  auto r = run(R"(MATCH (b:Button) RETURN b.name)");
  EXPECT_EQ(json(r), R"({"fresh":true,"app":"Calculator","pid":501,"generation":1,"results":[{"kind":"read",)"
                     R"("rows":[{"b.name":"Send"}],"actions":[]}],"elapsedMs":0})");
}

TEST_F(RunnerTest, ASecondStatementThatFailsKeepsTheFirstResult) {
  auto r = run(R"(MATCH (b:Button) RETURN b.name; MATCH (b:Button) SET b.pressed = false)");
  ASSERT_EQ(r.results.size(), 2u) << "the failed write shows as a partial result";
  EXPECT_EQ(r.error->statement, 2);
  EXPECT_EQ(r.errorCode, "invalid_argument");
  EXPECT_EQ(r.results[0]->rows.size(), 1u);
  const auto& failed = r.results[1]->actions.at(0);
  EXPECT_EQ(failed.id, "e102");
  EXPECT_EQ(failed.action, "pressed");
  EXPECT_FALSE(failed.ok);
  EXPECT_EQ(*failed.error,
            "pressed は書き換えられません。使えるのは SET b.pressed = true presses; rows and text that cannot be "
            "pressed select the nearest row、SET r.selected = true selects a row、SET f.focused = true focuses、SET "
            "f.value = \"text\" replaces the value of a text field です");
  EXPECT_EQ(driver.callNames(), (Lines{"axSnapshot", "axCounter", "waitSettle", "axSnapshot"}))
      << "no press for a value that is not true; the settle still runs";
}

TEST_F(RunnerTest, AFirstStatementThatFailsWithNothingToShowThrows) {
  EXPECT_THROW(run("MATCH (b:Ghost) SET b.pressed = true"), GlimmerstrandError);
  EXPECT_THROW(run("MATCH (b:Button) RETURN c"), cypher::BadRequestError);
  // A failed action is something to show: it comes back as a partial result.
  auto r = run("MATCH (b:Button) SET b.pressed = 1");
  EXPECT_EQ(r.error->statement, 1);
  ASSERT_EQ(r.results.size(), 1u);
  EXPECT_FALSE(r.results[0]->actions.at(0).ok);
}

TEST_F(RunnerTest, WritesShareOneSettleAndTheReadSeesTheNewGraph) {
  driver.onFocus = [](FakeDriver& d, const ElementRef&) { d.byUid(101).focused = true; };
  auto r = run(R"(MATCH (f:TextField {name:"To"}) SET f.focused = true;
                  MATCH (f:TextField) SET f.value = "abc";
                  MATCH (f:TextField) RETURN f.focused)");
  EXPECT_EQ(driver.calls, (Lines{firstRead, counterCall, "focus " + ref(1), settle, freshRead,
                                 "axCounter {\"pid\":501}", "setValue " + ref(1) + " \"abc\"", settle, freshRead}));
  ASSERT_EQ(r.results.size(), 3u);
  EXPECT_EQ(r.results[0]->changes, (Lines{R"(~ e101 TextField "To" = "a" focused)"}));
  EXPECT_EQ(r.results[1]->actions[0].action, R"(value="abc")");
  EXPECT_EQ(r.results[2]->rows[0], (cypher::Row{{"f.focused", true}}));
}

TEST_F(RunnerTest, ADialogThatOpensReadsAsOneLineAndItsOutline) {
  auto sheetNode = [](std::int64_t i, std::int64_t parent, const char* role, const char* title, std::int64_t depth) {
    AxNode n = node(i, parent, role, title);
    n.depth = depth;
    return n;
  };
  driver.onPress = [&](FakeDriver& d, const ElementRef&) {
    d.nodes.push_back(sheetNode(50, 0, "AXSheet", "Send now?", 1));
    d.nodes.push_back(sheetNode(51, 50, "AXButton", "Cancel", 2));
    d.nodes.push_back(sheetNode(52, 50, "AXButton", "Send", 2));
  };
  auto opened = run(R"(MATCH (b:Button {name:"Send"}) SET b.pressed = true)");
  EXPECT_EQ(opened.results[0]->changes, (Lines{R"(+ e150 Sheet "Send now?" (3 elements))"}));
  EXPECT_EQ(opened.results[0]->outline,
            (Lines{R"(e150 Sheet "Send now?")", R"(  e151 Button "Cancel")", R"(  e152 Button "Send")"}));

  driver.onPress = [](FakeDriver& d, const ElementRef&) { d.nodes.resize(d.nodes.size() - 3); };
  auto closed = run(R"(CALL ui.press("e151"))");
  EXPECT_EQ(closed.results[0]->changes, (Lines{R"(- Sheet "Send now?" closed (3 elements))"}));
  EXPECT_FALSE(closed.results[0]->outline) << "the window it closed over was there all along";
}

TEST_F(RunnerTest, AValueTheFieldRefusesGoesByKeys) {
  driver.valueApplied = false;
  driver.typedSeen = false;
  driver.failures["selectAll"] = "no_action";
  auto r = run(R"(MATCH (f:TextField) SET f.value = [1, "a"])");
  EXPECT_EQ(driver.calls, (Lines{firstRead, counterCall, "setValue " + ref(1) + " \"1,a\"", "focus " + ref(1),
                                 "selectAll " + ref(1), "key \"cmd+a\" 501", "type \"1,a\" 501", settle, freshRead}));
  EXPECT_EQ(r.results[0]->actions[0].action, R"(value=[1,"a"] by keys)");
  EXPECT_EQ(r.results[0]->notes, (Lines{std::string(typedNote)}));
  EXPECT_EQ(r.results[0]->changes, Lines{}) << "a settle that saw nothing says so with an empty list";
}

// A whole date goes into a date field's parts in the field's order; parts
// that refuse the value take keys without a select-all, which in a browser
// reaches past the part.
TEST_F(RunnerTest, AWholeDateGoesIntoTheFieldsPartsInTheirOrder) {
  const auto field = static_cast<std::int64_t>(driver.nodes.size());
  auto add = [&](const char* role, const char* title, std::int64_t depth) {
    AxNode n = node(static_cast<std::int64_t>(driver.nodes.size()), field, role, title);
    n.depth = depth;
    driver.nodes.push_back(n);
  };
  add("AXDateField", "Arrival", 1);
  add("AXIncrementor", "Month Arrival", 2);
  add("AXIncrementor", "Day Arrival", 2);
  add("AXIncrementor", "Year Arrival", 2);
  driver.nodes[static_cast<std::size_t>(field)].parent = 0;
  auto r = run(R"(MATCH (d:DateField) SET d.value = "2027-01-05")");
  EXPECT_EQ(r.results[0]->actions[0].action, R"(value="2027-01-05" by its parts)");
  EXPECT_EQ(driver.calls, (Lines{firstRead, counterCall, "setValue " + ref(field + 1) + R"( "01")",
                                 "setValue " + ref(field + 2) + R"( "05")", "setValue " + ref(field + 3) + R"( "2027")",
                                 settle, freshRead}));

  driver.calls.clear();
  driver.valueApplied = false;
  auto keys = run(R"(MATCH (d:DateField) SET d.value = "2027-01-05")");
  EXPECT_EQ(keys.results[0]->actions[0].action, R"(value="2027-01-05" by its parts, by keys)");
  const Lines made = driver.calls;
  EXPECT_EQ(std::count_if(made.begin(), made.end(), [](const std::string& c) { return c.rfind("selectAll", 0) == 0; }),
            0);
  EXPECT_NE(std::find(made.begin(), made.end(), R"(type "2027" 501)"), made.end());

  // Anything but a whole date is the field's own value.
  driver.valueApplied = true;
  driver.calls.clear();
  auto text = run(R"(MATCH (d:DateField) SET d.value = "next Friday")");
  EXPECT_EQ(text.results[0]->actions[0].action, R"(value="next Friday")");
}

// A date with its time, and a time alone, go into their field's parts: in 12
// hours, the hour as the field shows it and the half of the day by its letter
// (Firefox's AM/PM part is a text field, and its time field a group).
TEST_F(RunnerTest, ADateAndTimeGoIntoTheirPartsAsTheFieldShowsThem) {
  struct Case {
    const char* role;
    std::vector<std::pair<const char*, const char*>> parts;  // role and title of each part, in order
    const char* value;
    std::vector<const char*> typed;
  };
  const Case cases[] = {
      {"AXDateField",
       {{"AXIncrementor", "Month Meeting"},
        {"AXIncrementor", "Day Meeting"},
        {"AXIncrementor", "Year Meeting"},
        {"AXIncrementor", "Hours Meeting"},
        {"AXIncrementor", "Minutes Meeting"},
        {"AXTextField", "AM/PM Meeting"}},
       "2027-01-05T15:07",
       {"01", "05", "2027", "03", "07", "P"}},
      {"AXGroup",
       {{"AXIncrementor", "Hours"}, {"AXIncrementor", "Minutes"}, {"AXIncrementor", "AM/PM"}},
       "00:30",
       {"12", "30", "A"}},
      // A 24-hour locale shows no AM/PM part.
      {"AXDateField", {{"AXIncrementor", "Hours"}, {"AXIncrementor", "Minutes"}}, "15:07", {"15", "07"}},
  };
  const auto shared = driver.nodes;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    driver.nodes = shared;
    const auto field = static_cast<std::int64_t>(driver.nodes.size());
    driver.nodes.push_back(node(field, 0, c.role, "When"));
    driver.nodes.back().depth = 1;
    for (const auto& [role, title] : c.parts) {
      driver.nodes.push_back(node(static_cast<std::int64_t>(driver.nodes.size()), field, role, title));
      driver.nodes.back().depth = 2;
    }
    driver.calls.clear();
    auto r = run(std::string("MATCH (d {name: 'When'}) SET d.value = '") + c.value + "'");
    EXPECT_EQ(r.results[0]->actions[0].action, std::string("value=\"") + c.value + "\" by its parts");
    Lines expected{firstRead, counterCall};
    for (std::size_t k = 0; k < c.typed.size(); ++k)
      expected.push_back("setValue " + ref(field + 1 + static_cast<std::int64_t>(k)) + " \"" + c.typed[k] + "\"");
    expected.insert(expected.end(), {settle, freshRead});
    EXPECT_EQ(driver.calls, expected);
  }
}

// The page was replaced between the MATCH and the act: the driver answers
// "stale" and the statement fails with it, once, as the agent is to look
// again. Nothing goes by keys to whatever holds the focus now.
TEST_F(RunnerTest, AWriteWhoseElementWentFailsStaleWithoutKeys) {
  const auto field = static_cast<std::int64_t>(driver.nodes.size());
  driver.nodes.push_back(node(field, 0, "AXDateField", "Arrival"));
  driver.nodes.back().depth = 1;
  for (const char* part : {"Month", "Day", "Year"}) {
    driver.nodes.push_back(node(static_cast<std::int64_t>(driver.nodes.size()), field, "AXIncrementor", part));
    driver.nodes.back().depth = 2;
  }
  struct Case {
    const char* script;
    std::string operation;  // the act that finds the element gone
    std::string action;
    std::string sent;  // the end of that call: the date's first part, not the field
  };
  const Case cases[] = {
      {R"(MATCH (f:TextField) SET f.value = "Ada")", "setValue", R"(value="Ada")", R"( "Ada")"},
      {R"(MATCH (d:DateField) SET d.value = "2027-01-05")", "setValue", R"(value="2027-01-05")",
       ref(field + 1) + R"( "01")"},
      {R"(MATCH (f:TextField) SET f.focused = true)", "focus", "focused", ref(1)},
      {R"(MATCH (b:Button) SET b.pressed = true)", "press", "pressed", ref(2)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script);
    driver.calls.clear();
    driver.failures = {{c.operation, "stale"}};
    auto r = run(c.script);
    EXPECT_EQ(r.errorCode, "stale");
    EXPECT_EQ(r.error->message, c.operation + " failed") << "the driver's own words";
    ASSERT_EQ(r.results.size(), 1u);
    ASSERT_EQ(r.results[0]->actions.size(), 1u);
    EXPECT_EQ(r.results[0]->actions[0].action, c.action);
    EXPECT_FALSE(r.results[0]->actions[0].ok);
    const auto names = driver.callNames();
    EXPECT_EQ(std::count(names.begin(), names.end(), c.operation), 1) << "tried once";
    EXPECT_NE(std::find_if(driver.calls.begin(), driver.calls.end(),
                           [&](const std::string& call) { return call.ends_with(c.sent); }),
              driver.calls.end());
    for (const char* keys : {"type", "key", "selectAll"})
      EXPECT_EQ(std::count(names.begin(), names.end(), keys), 0) << keys;
  }
}

TEST_F(RunnerTest, TargetLimitIsTen) {
  for (int k = 0; k < 10; ++k) driver.nodes.push_back(node(50 + k, 0, "AXCheckBox", "c" + std::to_string(k)));
  EXPECT_EQ(run("MATCH (c:CheckBox) SET c.pressed = true").results[0]->actions.size(), 10u);
  driver.nodes.push_back(node(60, 0, "AXCheckBox", "c10"));
  driver.calls.clear();
  try {
    run("MATCH (c:CheckBox) SET c.pressed = true");
    ADD_FAILURE();
  } catch (const GlimmerstrandError& e) {
    EXPECT_EQ(e.message(), "11 個の要素が当てはまりました。10 個以下になるよう、MATCH の条件を絞ってください");
  }
  EXPECT_EQ(driver.callNames(), Lines{"axSnapshot"});
}

TEST_F(RunnerTest, SetWithReturnReadsTheWrittenNodesAfterTheSettle) {
  driver.onPress = [](FakeDriver& d, const ElementRef&) { d.byUid(102).title = "Sent"; };
  auto r = run(R"(MATCH (b:Button {name:"Send"}) SET b.pressed = true RETURN b.name)");
  EXPECT_EQ(r.results[0]->rows, (std::vector<cypher::Row>{{{"b.name", "Sent"}}}));
  EXPECT_EQ(r.results[0]->returns, true);
  EXPECT_EQ(r.results[0]->changes, (Lines{R"(~ e102 Button "Sent" (was "Send"))"}));
  // Returning another variable keeps the MATCH, which no longer finds the renamed button.
  driver.byUid(102).title = "Send";
  auto other = run(R"(MATCH (w:Window)-[:CHILD]->(b:Button {name:"Send"}) SET b.pressed = true RETURN w.name)");
  EXPECT_TRUE(other.results[0]->rows.empty());
}

TEST_F(RunnerTest, AnApplicationThatClosesDuringAWrite) {
  driver.onPress = [](FakeDriver& d, const ElementRef&) { d.running = false; };
  auto r = run(R"(MATCH (b:Button) SET b.pressed = true; MATCH (b:Button) RETURN b)");
  EXPECT_EQ(r.results[0]->changes, (Lines{"(Calculator closed)"}));
  EXPECT_EQ(r.error->statement, 2);
  EXPECT_EQ(r.error->message, "Calculator は終了しています。ui.open で開き直してください");
  EXPECT_EQ(r.errorCode, "not_found");
}

TEST_F(RunnerTest, OnlyAnOpeningScriptStartsWithNothingInFront) {
  // Nothing can be read until the launch: a desktop with no application in front.
  driver.running = false;
  driver.onLaunch = [](FakeDriver& d, const std::string&) {
    d.running = true;
    return d.app;
  };
  auto opened = runner.run(R"(CALL ui.open("Calculator"); MATCH (b:Button) RETURN b.name)", std::nullopt, false);
  EXPECT_EQ(opened.results[1]->rows, (std::vector<cypher::Row>{{{"b.name", "Send"}}}));
  EXPECT_EQ(opened.app, "Calculator");

  driver.running = false;
  EXPECT_THROW(run("MATCH (b:Button) RETURN b.name"), GlimmerstrandError);
}

TEST_F(RunnerTest, ASparseBackgroundApplicationIsBroughtForward) {
  driver.nodes.resize(29);
  driver.front = AppInfo{1, "com.other", "Other"};
  int reads = 0;
  driver.onSnapshot = [&](FakeDriver& d) {
    if (++reads == 3)
      for (int k = 0; k < 5; ++k) d.nodes.push_back(node(100 + k, 0, "AXButton", "more"));
  };
  auto r = run(R"(MATCH (b:Button {name:"Send"}) RETURN b.name)");
  EXPECT_EQ(driver.callNames(),
            (Lines{"axSnapshot", "frontmost", "screenLocked", "activate", "frontmost", "axSnapshot", "axSnapshot"}));
  EXPECT_EQ(clock.slept, (std::vector<double>{250, 250}));
  EXPECT_EQ(r.results[0]->notes,
            (Lines{"Calculator showed almost nothing in the background, so it was brought to the front"}));
}

TEST_F(RunnerTest, OnlySparseWindowedPagesWithoutWebAreasAreBroughtForward) {
  const std::pair<std::function<void(std::vector<AxNode>&)>, bool> cases[] = {
      {[](auto& n) { n.resize(30); }, false},
      {[](auto& n) { n.resize(5), n.push_back(node(9, 0, "AXWebArea")); }, false},
      {[](auto& n) { n.resize(5), n[0].role = "AXGroup"; }, false},
      {[](auto& n) { n.resize(29); }, true},
  };
  for (const auto& [shape, forward] : cases) {
    FakeDriver fresh;
    fresh.nodes = driver.nodes;
    shape(fresh.nodes);
    fresh.front = AppInfo{1, "com.other", "Other"};
    CypherRunner r(fresh, memory, clock);
    r.run("MATCH (n) RETURN count(*)", std::nullopt, true);
    EXPECT_EQ(fresh.callNames().size() > 1, forward) << fresh.nodes.size();
  }
}

TEST_F(RunnerTest, OnTheLinuxDesktopASparseApplicationStaysWhereItIs) {
  // An AT-SPI tree is whole in the background: a small one is not brought forward.
  glimmerstrand::testing::DesktopScope linuxDesktop(Desktop::linuxDesktop);
  driver.nodes.resize(5);
  driver.front = AppInfo{1, "com.other", "Other"};
  auto r = run("MATCH (n) RETURN count(*)", true);
  EXPECT_EQ(driver.callNames(), Lines{"axSnapshot"});
  EXPECT_FALSE(r.results[0]->notes);
}

// The lock is the driver's answer, asked before anything is brought forward;
// the application in front says nothing about it.
TEST(FrontOrFail, ALockedScreenTakesNoInputWhateverIsInFront) {
  const std::optional<AppSelector> selectors[] = {std::nullopt, AppSelector{501, {}, {}},
                                                  AppSelector{{}, {}, std::string("Calculator")}};
  for (const auto& selector : selectors) {
    FakeDriver driver;
    ManualClock clock;
    driver.locked = true;
    try {
      frontOrFail(driver, clock, selector);
      ADD_FAILURE() << "no failure";
    } catch (const GlimmerstrandError& e) {
      EXPECT_EQ(e.code(), "permission");
      EXPECT_EQ(e.message(), "画面がロックされているので、キー入力を送りませんでした");
    }
    EXPECT_EQ(driver.callNames(), Lines{"screenLocked"});

    driver.locked = false;
    driver.calls.clear();
    driver.front = AppInfo{88, "com.apple.loginwindow", "loginwindow"};
    EXPECT_EQ(frontOrFail(driver, clock, selector), selector ? 501 : 88) << "an unlocked screen takes input";
  }
}

TEST(MenuScripts, OnlyScriptsNamingTheMenuBarReadIt) {
  const std::pair<const char*, bool> cases[] = {
      {R"(CALL ui.press("m12"))", true},      {R"(CALL ui.press("e12"))", false},
      {"MATCH (a:  AppMenu) RETURN a", true}, {"MATCH (a:AppMenuItems) RETURN a", false},
      {R"(CALL ui.press("m12a"))", false},
  };
  for (auto [script, reads] : cases) EXPECT_EQ(scriptReadsMenus(script), reads) << script;
}

TEST(GraphMemory, KeepsFourGraphsOfEightProcesses) {
  GraphMemory memory;
  auto graphOf = [](std::int64_t pid) {
    AxSnapshot s;
    s.pid = pid;
    return std::make_shared<const AxGraph>(s, std::vector<AxNode>{});
  };
  auto first = graphOf(1);
  for (int k = 0; k < 3; ++k) memory.remember(first);
  EXPECT_EQ(memory.graphs(1).size(), 1u);
  for (int k = 0; k < 4; ++k) memory.remember(graphOf(1));
  EXPECT_EQ(memory.graphs(1).size(), 4u);
  EXPECT_NE(memory.graphs(1).back(), first) << "the fifth graph drops the first";
  for (int pid = 2; pid <= 9; ++pid) memory.remember(graphOf(pid));
  EXPECT_TRUE(memory.graphs(1).empty()) << "the ninth process drops the oldest";
  EXPECT_EQ(memory.graphs(9).size(), 1u);
}

}  // namespace
}  // namespace glimmerstrand::core
