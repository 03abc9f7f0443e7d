#include "procedure_fixture.h"
#include "support/desktop_texts.h"

namespace glimmerstrand::core {
namespace {

using cypher::Row;
using namespace testing;

const std::string refreshCall = R"(axRefresh {"pid":501})";
const std::string pollSettle = R"(waitSettle {"pid":501,"since":10,"quietMs":30,"firstMs":1500,"timeoutMs":1500})";

TEST_F(ProcedureTest, WaitSleepsThenReadsTheWindowAgain) {
  const std::pair<const char*, std::vector<double>> cases[] = {
      {"2", {2000}}, {"10", {5000}}, {"11", {11}}, {"0.5", {500}}, {"-5", {}}, {"'3'", {3000}},
  };
  for (const auto& [arg, slept] : cases) {
    run("CALL ui.wait(" + std::string(arg) + ")");
    EXPECT_EQ(clock.slept, slept) << arg;
    EXPECT_EQ(calls(), (Lines{refreshCall, freshRead})) << arg;
  }
  run(R"(CALL ui.press("e102"); CALL ui.wait(1))");
  EXPECT_EQ(calls(), (Lines{counterCall, "press " + ref(2), settleCall, freshRead, refreshCall, freshRead}));
}

class WaitForTest : public ProcedureTest {
 protected:
  WaitForTest() {
    // Waits take the time they are given, and see no notification.
    driver.onWaitSettle = [this](FakeDriver&, const SettleOptions& o) {
      clock.sleepMs(static_cast<double>(*o.timeoutMs));
      if (onWait) onWait();
      return SettleResult{false, true, 0, 0};
    };
  }
  // The run and the time it took.
  std::pair<StatementResultRef, double> waitFor(const std::string& args) {
    const auto start = clock.now;
    auto r = run("CALL ui.wait_for(" + args + ")");
    return {r.results.at(0), static_cast<double>(clock.now - start) / 1e6};
  }
  std::function<void()> onWait;
};

TEST_F(WaitForTest, AMatchThatComesLater) {
  int waits = 0;
  onWait = [&] {
    if (++waits == 2) driver.nodes.push_back(node(40, 0, "AXButton", "Done"));
  };
  auto [result, ms] = waitFor(R"("MATCH (b:Button) WHERE b.name CONTAINS 'Do' RETURN b.id")");
  EXPECT_EQ(result->rows, (std::vector<Row>{{{"b.id", "e140"}}}));
  EXPECT_EQ(ms, 3000);
  EXPECT_EQ(calls(), (Lines{counterCall, pollSettle, refreshCall, freshRead, counterCall, pollSettle, refreshCall,
                            freshRead, counterCall}));
}

TEST_F(WaitForTest, AStillTreeEndsAfterThreeSeconds) {
  auto [result, ms] = waitFor(R"("MATCH (b:Button {name:'Done'}) RETURN b", 10000)");
  EXPECT_EQ(ms, 3000);
  EXPECT_EQ(result->notes, Lines{"nothing changed for 3 s; check the query"});
  EXPECT_EQ(result->timedOut, std::nullopt);
  EXPECT_TRUE(result->rows.empty());
}

TEST_F(WaitForTest, TheBudgetEndsTheWait) {
  int added = 0;
  onWait = [&] { driver.nodes.push_back(node(100 + added++, 0, "AXStaticText", "tick")); };
  const std::pair<const char*, double> cases[] = {{"1000", 1000}, {"20000", 10000}, {"-1", 0}};
  for (const auto& [budget, expected] : cases) {
    auto [result, ms] = waitFor(R"("MATCH (b:Button {name:'Done'}) RETURN b", )" + std::string(budget));
    EXPECT_EQ(result->timedOut, true) << budget;
    EXPECT_EQ(result->notes, std::nullopt) << "a moving tree keeps the wait alive";
    EXPECT_EQ(ms, expected) << budget;
  }
}

TEST_F(WaitForTest, OnlyReadsCanBeWaitedFor) {
  EXPECT_EQ(
      failure(R"x(CALL ui.wait_for("CALL ui.apps()"))x"),
      (std::pair<std::string, std::string>{"invalid_argument", "ui.wait_for には MATCH ... RETURN を渡してください"}));
}

TEST_F(ProcedureTest, OpenPointsTheRestOfTheScriptAtTheApplication) {
  driver.onLaunch = [](FakeDriver& d, const std::string&) {
    d.app = AppInfo{777, "com.example.notes", "Notes"};
    d.nodes = {node(0, -1, "AXWindow", "Notes"), node(1, 0, "AXButton", "New")};
    for (int k = 0; k < 5; ++k) d.nodes.push_back(node(2 + k, 0, "AXStaticText", "note"));
    return d.app;
  };
  auto r = run(R"(CALL ui.open("Notes"); MATCH (b:Button) RETURN b.name)");
  const std::string notesRead = R"(axSnapshot {"pid":777,"fresh":true,"all":true,"timeoutMs":5000})";
  EXPECT_EQ(calls(), (Lines{"launch \"Notes\"", notesRead, notesRead}));
  EXPECT_EQ(clock.slept, std::vector<double>{250}) << "one look to see that the window stopped growing";
  EXPECT_EQ(r.results[0]->rows, (std::vector<Row>{{{"app", "Notes"}, {"pid", 777}, {"elements", 7}}}));
  EXPECT_EQ(r.results[0]->actions[0].action, "open \"Notes\"");
  EXPECT_EQ(r.results[1]->rows, (std::vector<Row>{{{"b.name", "New"}}}));
  EXPECT_EQ(r.app, "Notes");
}

TEST_F(ProcedureTest, OpenWaitsForTextThenForASteadyTree) {
  const auto all = driver.nodes;
  const auto first = [&](std::size_t n) { return std::vector<AxNode>(all.begin(), all.begin() + n); };
  int reads = 0;
  driver.onSnapshot = [&](FakeDriver& d) {
    // After the first read of the run, the window draws its content slowly.
    ++reads;
    d.nodes = reads == 1 ? all : reads < 4 ? first(2) : reads < 5 ? first(all.size() - 1) : all;
  };
  run(R"(CALL ui.open("Calculator"))");
  EXPECT_EQ(clock.slept, (std::vector<double>{250, 250, 250, 250})) << "two sparse, then one that still grew";

  reads = 0;  // never draws anything after the first read
  driver.onSnapshot = [&](FakeDriver& d) { d.nodes = ++reads > 1 ? first(2) : all; };
  run(R"(CALL ui.open("Calculator"))");
  EXPECT_EQ(clock.slept, std::vector<double>(40, 250)) << "gives up at the 10 s deadline";
}

TEST_F(ProcedureTest, OpenAfterTheApplicationClosedStartsAgain) {
  driver.onPress = [](FakeDriver& d, const ElementRef&) { d.running = false; };
  auto r = run(R"(CALL ui.press("e102"); CALL ui.open("Calculator"); MATCH (b:Button) RETURN b.name)");
  EXPECT_EQ(r.results[0]->changes, Lines{"(Calculator closed)"});
  EXPECT_FALSE(r.error.has_value());
  EXPECT_EQ(r.results[2]->rows, (std::vector<Row>{{{"b.name", "Send"}}}));
}

TEST_F(ProcedureTest, OpenURLUsesTheApplicationThatTookIt) {
  auto r = run(R"(CALL ui.open_url("https://example.com/a"))");
  EXPECT_EQ(calls(), (Lines{R"(openURL "https://example.com/a")", freshRead}));
  EXPECT_EQ(clock.slept, std::vector<double>{300});
  EXPECT_EQ(r.results[0]->rows, (std::vector<Row>{{{"app", "Calculator"}, {"pid", 501}}}));
  EXPECT_EQ(r.results[0]->actions[0].action, R"(open_url "https://example.com/a")");
  driver.urlNamesApp = false;
  run(R"(CALL ui.open_url("/tmp/a.txt"))");
  EXPECT_EQ(calls(), (Lines{R"(openURL "/tmp/a.txt")", "frontmost", freshRead}));
}

TEST_F(ProcedureTest, NamesAreRequiredAndTheExampleIsAnAppOfTheDesktop) {
  const std::tuple<Desktop, const char*, std::string> cases[] = {
      {Desktop::mac, "CALL ui.open()", "ui.open にはアプリの名前を渡してください。例: ui.open(\"Spotify\")"},
      {Desktop::mac, R"(CALL ui.quit(""))", "ui.quit にはアプリの名前を渡してください。例: ui.quit(\"Spotify\")"},
      {Desktop::mac, R"(CALL ui.open_url(""))",
       "ui.open_url には URL を渡してください。例: ui.open_url(\"https://example.com\")"},
      {Desktop::linuxDesktop, "CALL ui.open()",
       "ui.open にはアプリの名前を渡してください。例: ui.open(\"Calculator\")"},
      {Desktop::linuxDesktop, R"(CALL ui.quit(""))",
       "ui.quit にはアプリの名前を渡してください。例: ui.quit(\"Calculator\")"},
  };
  for (const auto& [desktop, script, message] : cases) {
    glimmerstrand::testing::DesktopScope scope(desktop);
    EXPECT_EQ(failure(script).second, message) << script;
  }
}

TEST_F(ProcedureTest, AnApplicationThatDoesNotQuitIsNoFailure) {
  driver.quitTerminates = false;
  auto r = run(R"(CALL ui.quit("Calculator"); MATCH (b:Button) RETURN b.name)");
  EXPECT_EQ(calls(), Lines{R"(quit {"name":"Calculator"})"});
  EXPECT_EQ(r.results[0]->actions,
            (std::vector<ActionRecord>{{"", "quit \"Calculator\"", false,
                                        "終了しませんでした。保存を確かめるダイアログが出ているかもしれません"}}));
  EXPECT_EQ(r.results[1]->rows.size(), 1u);
}

TEST_F(ProcedureTest, Windows) {
  driver.windowList.push_back(WindowInfo{2, "Inbox", false, false, true});
  EXPECT_EQ(run("CALL ui.windows()").results[0]->rows,
            (std::vector<Row>{{{"index", 1}, {"title", "Main"}, {"main", true}, {"minimized", false}},
                              {{"index", 2}, {"title", "Inbox"}, {"main", false}, {"minimized", true}}}));
  EXPECT_EQ(calls(), Lines{R"(windows {"pid":501})"});

  const std::tuple<const char*, std::string, std::string> cases[] = {
      {"2", "index=2", "window \"Inbox\""},
      {"'2'", "title=\"2\"", "window \"2\""},
  };
  for (const auto& [arg, selector, action] : cases) {
    auto r = run("CALL ui.window(" + std::string(arg) + ")");
    EXPECT_EQ(calls(), (Lines{R"(raiseWindow {"pid":501} )" + selector, refreshCall, freshRead})) << arg;
    EXPECT_EQ(r.results[0]->actions[0].action, action);
  }
}

}  // namespace
}  // namespace glimmerstrand::core
