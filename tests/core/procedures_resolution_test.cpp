#include <cmath>

#include "core/element_resolution.h"
#include "core/procedures.h"
#include "procedure_fixture.h"

namespace glimmerstrand::core {
namespace {

using cypher::ScalarValue;
using namespace testing;

const std::string staleTail =
    " は最新の写しにありません。ウィンドウやページが入れ替わると ID も変わります。ui.tree() か MATCH "
    "で探し直してください";

TEST(ProcedureArguments, TextsAndNumbersOfLooseLiterals) {
  const ScalarValue null, yes(true), twelve(12.5), text(" 12 ");
  EXPECT_EQ(textOf(nullptr), "undefined");
  EXPECT_EQ(textOf(&null), "null");
  EXPECT_EQ(textOf(&yes), "true");
  EXPECT_EQ(textOf(&twelve), "12.5");
  EXPECT_EQ(textOr(&text, "left"), " 12 ");

  const double inf = INFINITY;
  const std::pair<ScalarValue, double> numbers[] = {
      {nullptr, 0},        {true, 1},   {" 12 ", 12},       {"\n", 0},
      {"-Infinity", -inf}, {".5", 0.5}, {"-2.5E-1", -0.25}, {"\u30003\u3000", 3},
  };
  for (const auto& [value, expected] : numbers) EXPECT_EQ(numberOf(&value), expected) << value.text();
  for (const char* notANumber : {"abc", "1e", "0x10", "infinity"}) {
    const ScalarValue value(notANumber);
    EXPECT_TRUE(std::isnan(numberOf(&value))) << notANumber;
  }
  EXPECT_TRUE(std::isnan(numberOf(nullptr)));
}

TEST_F(ProcedureTest, AnUnknownProcedureListsAllNames) {
  auto [code, message] = failure("CALL ui.nothing()");
  EXPECT_EQ(code, "invalid_argument");
  EXPECT_EQ(message,
            "未知の手続きです: ui.nothing。使えるのは ui.press、ui.focus、ui.set_value、ui.key、ui.type、ui.wait、"
            "ui.wait_for、ui.apps、ui.quit、ui.refresh、ui.read、ui.scroll、ui.screenshot、ui.copy_screenshot、"
            "ui.tree、ui.inspect、ui.click、ui.hover、ui.drag、ui.menu、ui.windows、ui.window、ui.clipboard、"
            "ui.set_clipboard、ui.open_url、ui.open です");
}

TEST_F(ProcedureTest, IdsAndNames) {
  EXPECT_EQ(run(R"(CALL ui.press(" e102 "))").results[0]->actions[0].id, "e102");
  EXPECT_EQ(run(R"(CALL ui.press("Send"))").results[0]->actions[0].id, "e102");
  const std::pair<const char*, std::string> failures[] = {
      {R"(CALL ui.press("e999 "))", "e999 " + staleTail},
      {R"(CALL ui.press("m3"))", "m3" + staleTail},
      {R"(CALL ui.press("E102"))", "「E102」という名前の要素がありません。ui.tree() か MATCH で探してください"},
      {"CALL ui.click(10)", "「10」という名前の要素がありません。ui.tree() か MATCH で探してください"},
      {R"(CALL ui.click("e105"))", "e105 は位置がわからないので、ポインタで操作できません"},
  };
  for (const auto& [script, message] : failures) EXPECT_EQ(failure(script).second, message) << script;
}

TEST_F(ProcedureTest, OnlyAnUnknownIdOrANameWaitsForPendingWrites) {
  driver.onPress = [](FakeDriver& d, const ElementRef& ref) {
    if (ref.i == 2) d.nodes.push_back(framed(node(40, 0, "AXButton", "New"), {0, 0, 5, 5}));
  };
  run(R"(CALL ui.press("e102"); CALL ui.press("e101"))");
  EXPECT_EQ(calls(), (Lines{counterCall, "press " + ref(2), "press " + ref(1), settleCall, freshRead}));
  driver.nodes.resize(35);
  run(R"(CALL ui.press("e102"); CALL ui.press("e140"))");
  EXPECT_EQ(calls(), (Lines{counterCall, "press " + ref(2), settleCall, freshRead, counterCall, "press " + ref(40),
                            settleCall, freshRead}));
  driver.nodes.resize(35);
  run(R"(CALL ui.press("e102"); CALL ui.press("Send"))");
  EXPECT_EQ(calls(), (Lines{counterCall, "press " + ref(2), settleCall, freshRead, counterCall, "press " + ref(2),
                            settleCall, freshRead}));
}

// Reads the window once, re-renders it with new uids, and presses the old id.
class RecallTest : public ProcedureTest {
 protected:
  void rerender(std::function<void(AxNode&)> change) {
    run("MATCH (b:Button) RETURN b.id");
    for (auto& n : driver.nodes)
      if (n.i >= 40) change(n);
  }
};

TEST_F(RecallTest, ARerenderedElementIsFoundByRoleNameAndUrl) {
  driver.nodes.push_back(framed(node(40, 0, "AXLink", "Docs"), {5, 5, 5, 5}));
  driver.nodes.back().url = "https://example.com/docs";
  rerender([](AxNode& n) { n.uid = 240; });
  run(R"(CALL ui.press("e140"))");
  EXPECT_EQ(calls()[1], "press " + ref(40, 240));
  // Another link is not the same element.
  rerender([](AxNode& n) { n.uid = 340, n.url = "https://example.com/other"; });
  EXPECT_EQ(failure(R"(CALL ui.press("e240"))").second, "e240" + staleTail);
}

TEST_F(RecallTest, TwinsUnderOneParentAreToldApartByPositionUpToFortyPoints) {
  for (double shift : {40.0, 41.0}) {
    driver.nodes.resize(35);
    driver.nodes.push_back(node(40, 0, "AXGroup", "Row"));
    driver.nodes.push_back(framed(node(41, 40, "AXButton", "Reply"), {0, 0, 10, 10}));
    driver.nodes.push_back(framed(node(42, 40, "AXButton", "Reply"), {0, 100, 10, 10}));
    rerender([&](AxNode& n) {
      *n.uid += 100 + static_cast<std::int64_t>(shift);
      if (n.i == 41) n.frame->y = shift;
    });
    if (shift == 40) {
      run(R"(CALL ui.press("e141"))");
      EXPECT_EQ(calls()[1], "press " + ref(41, 281));
    } else {
      EXPECT_EQ(failure(R"(CALL ui.press("e141"))").second, "e141" + staleTail);
    }
  }
}

TEST(ResolveByName, FiltersNarrowInTurnAndAmbiguityListsSixRows) {
  auto graphOf = [](std::vector<AxNode> nodes) {
    AxSnapshot s;
    s.pid = 1;
    s.nodes = NodeList(std::move(nodes));
    return AxGraph(s, {});
  };
  auto disabled = [](AxNode n) {
    n.enabled = false;
    return n;
  };
  const Rect r{0, 0, 1, 1};
  const std::pair<std::vector<AxNode>, std::int64_t> cases[] = {
      // a control role wins over text
      {{node(0, -1, "AXStaticText", "Play"), node(1, -1, "AXButton", "Play")}, 1},
      // text inside a control wins over text outside one
      {{node(0, -1, "AXStaticText", "Play"), node(1, -1, "AXButton"), node(2, 1, "AXStaticText", "Play")}, 2},
      // a node with a frame wins
      {{node(0, -1, "AXButton", "Play"), framed(node(1, -1, "AXButton", "Play"), r)}, 1},
      // the enabled one wins
      {{disabled(node(0, -1, "AXButton", "Play")), node(1, -1, "AXButton", "Play")}, 1},
      // filters that would leave nothing are skipped
      {{node(0, -1, "AXStaticText", "Play"), framed(node(1, -1, "AXStaticText", "Play"), r)}, 1},
  };
  for (const auto& [nodes, expected] : cases) EXPECT_EQ(resolveByName(graphOf(nodes), "Play").node().i, expected);

  std::vector<AxNode> eight;
  for (int k = 0; k < 8; ++k) eight.push_back(node(k, -1, "AXButton", "Play"));
  try {
    resolveByName(graphOf(eight), "Play");
    ADD_FAILURE();
  } catch (const GlimmerstrandError& e) {
    EXPECT_EQ(e.code(), "invalid_argument");
    EXPECT_EQ(e.message(),
              "「Play」という名前の要素が 8 個あります。ID で指してください: e100 Button \"Play\", e101 Button "
              "\"Play\", e102 Button \"Play\", e103 Button \"Play\", e104 Button \"Play\", e105 Button \"Play\"");
  }
}

}  // namespace
}  // namespace glimmerstrand::core
