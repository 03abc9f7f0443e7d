#include "core/base64.h"
#include "core/procedure_handlers.h"
#include "procedure_fixture.h"

namespace glimmerstrand::core {
namespace {

using cypher::Row;
using namespace testing;

TEST_F(ProcedureTest, ReadAndInspectShowRows) {
  driver.readResult = ReadTextResult{"long text", true};
  auto read = run(R"(CALL ui.read("e102"))").results[0];
  EXPECT_EQ(calls(), Lines{"readText " + ref(2)}) << "reads join no write and wait for none";
  EXPECT_EQ(read->rows, (std::vector<Row>{{{"id", "e102"}, {"text", "long text"}, {"truncated", true}}}));
  EXPECT_EQ(read->returns, true);

  driver.inspection = InspectResult{{{"AXPress", "press"}},
                                    {{"AXTitle", "Send", false},
                                     {"AXHelp", "", false},
                                     {"AXValue", "null", false},
                                     {"AXDescription", "\"\"", false},
                                     {"AXFocused", "", true}}};
  auto inspected = run(R"(CALL ui.inspect("Send"))").results[0];
  EXPECT_EQ(inspected->rows,
            (std::vector<Row>{{{"kind", "action"}, {"name", "AXPress"}, {"value", "press"}, {"settable", nullptr}},
                              {{"kind", "attribute"}, {"name", "AXTitle"}, {"value", "Send"}, {"settable", false}},
                              {{"kind", "attribute"}, {"name", "AXFocused"}, {"value", ""}, {"settable", true}}}));
}

TEST_F(ProcedureTest, TreeLineBudgets) {
  driver.nodes.push_back(node(40, 0, "AXGroup", "Many"));
  for (int k = 0; k < 1100; ++k) driver.nodes.push_back(node(41 + k, 40, "AXButton", "b" + std::to_string(k)));
  // (arguments, outline lines shown); the group shows 1101 lines in all.
  const std::pair<const char*, std::size_t> cases[] = {
      {R"("e140")", 200},
      {R"("e140", 5)", 20},
      {R"("e140", 5000)", 1000},
      {R"("e140", "25.7")", 25},
  };
  for (const auto& [args, shown] : cases) {
    auto outline = *run("CALL ui.tree(" + std::string(args) + ")").results[0]->outline;
    ASSERT_EQ(outline.size(), shown + 1) << args;
    EXPECT_EQ(outline[0], R"(e140 Group "Many")");
    EXPECT_EQ(outline.back(),
              "… " + std::to_string(1101 - shown) + " more lines; call ui.tree(\"eX\") on a part, or query with MATCH");
  }
}

TEST_F(ProcedureTest, TreeOfAStaleIdShowsTheWholeWindowAndTheFocus) {
  driver.byUid(101).focused = true;
  auto outline = *run(R"(CALL ui.tree("e999"))").results[0]->outline;
  EXPECT_EQ(outline.front(), "(e999 was not found; ids change when a window is replaced; whole outline below)");
  EXPECT_EQ(outline[1], R"(e100 Window "Mail")");
  EXPECT_EQ(outline.back(), R"(focused: e101 TextField "To" = "a" focused)");
}

TEST_F(ProcedureTest, CapturesOfTheWindowOrAnElement) {
  driver.captureBytes = {'f', 'o', 'o', 'b'};
  auto r = run(R"(CALL ui.press("e102"); CALL ui.screenshot())");
  EXPECT_EQ(calls(), (Lines{counterCall, "press " + ref(2), settleCall, freshRead,
                            "captureRegion 0,0 800,600 1568 jpeg 0.8 pid=501"}));
  EXPECT_EQ(r.results[1]->images, (std::vector<CypherImage>{{"jpeg", "Zm9vYg==", 2, 2, Rect{0, 0, 800, 600}}}));

  auto copied = run(R"(CALL ui.copy_screenshot("e102"))");
  EXPECT_EQ(calls(), (Lines{"captureRegion 300,10 80,20 2560 png 1 pid=501", "copyImage 4"}));
  EXPECT_EQ(copied.results[0]->actions,
            (std::vector<ActionRecord>{{"e102", "copy_screenshot 2x2px png", true, std::nullopt}}));

  driver.nodes[0].frame.reset();
  EXPECT_EQ(failure("CALL ui.screenshot()"),
            (std::pair<std::string, std::string>{"no_action", "撮る範囲がわかりません。要素の ID を渡してください"}));
}

TEST(Base64, StandardAlphabetAndPadding) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"f", "Zg=="},
      {"foo", "Zm9v"},
      {"\xff\xfe\xfd", "//79"},
  };
  for (const auto& [bytes, text] : cases) {
    EXPECT_EQ(base64Text({bytes.begin(), bytes.end()}), text);
    EXPECT_EQ(base64Bytes(text), (std::vector<std::uint8_t>{bytes.begin(), bytes.end()}));
  }
  // Padding may be left out; what is not base64 is refused, not skipped.
  EXPECT_EQ(base64Bytes("Zg"), (std::vector<std::uint8_t>{'f'}));
  for (const char* broken : {"Zm$v", "Zm9v\n", " Zm9v", "Z", "Zm9vZ", "Z=g="})
    EXPECT_EQ(base64Bytes(broken), std::nullopt) << broken;
}

TEST_F(ProcedureTest, Clipboard) {
  EXPECT_EQ(run("CALL ui.clipboard()").results[0]->rows, (std::vector<Row>{{{"text", nullptr}}}));
  const std::string forty(40, 'a');
  const std::pair<std::string, std::string> cases[] = {
      {forty, forty},
      {forty + "b", forty + "…"},
      {forty.substr(1) + "😀b", forty.substr(1) + "\uFFFD…"},
      {forty.substr(2) + "😀b", forty.substr(2) + "😀…"},
  };
  for (const auto& [text, shown] : cases) {
    auto r = run(R"(CALL ui.set_clipboard(")" + text + R"("))");
    EXPECT_EQ(r.results[0]->actions[0].action, "set_clipboard " + jsonString(shown));
    EXPECT_EQ(driver.clipboardText, text);
  }
  EXPECT_EQ(run("CALL ui.clipboard()").results[0]->rows, (std::vector<Row>{{{"text", forty.substr(2) + "😀b"}}}));
}

}  // namespace
}  // namespace glimmerstrand::core
