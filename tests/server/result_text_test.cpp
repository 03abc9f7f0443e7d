#include "server/result_text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace glimmerstrand::server {
namespace {

using core::CypherResult;
using core::StatementResult;
using cypher::Row;
using cypher::RowValue;

std::shared_ptr<StatementResult> statement(std::string kind, std::vector<Row> rows = {}) {
  auto result = std::make_shared<StatementResult>(std::move(kind));
  result->rows = std::move(rows);
  return result;
}

CypherResult resultOf(std::vector<std::shared_ptr<StatementResult>> statements, double elapsedMs = 34) {
  CypherResult result;
  result.app = "Calculator";
  result.generation = 12;
  result.results = std::move(statements);
  result.elapsedMs = elapsedMs;
  return result;
}

RowValue node(std::initializer_list<std::pair<std::string, RowValue>> fields) {
  return RowValue(RowValue::Map(fields));
}

struct TextCase {
  std::string name;
  CypherResult result;
  std::string text;
};

std::vector<TextCase> textCases() {
  std::vector<TextCase> cases;
  {
    auto press = statement("set");
    press->actions = {{"e41", "pressed", true, std::nullopt}, {"", "key return", false, "遅い"}};
    press->changes = std::vector<std::string>{};
    auto read = statement("read", {Row{{"b", node({{"_label", "Button"}, {"id", "e3"}, {"name", "7"}})}}});
    cases.push_back({"TwoStatementsAreNumbered", resultOf({press, read}),
                     "#1\nok e41 pressed\nfailed key return: 遅い\n(no visible change)\n#2\nb\ne3 Button \"7\"\n"
                     "(Calculator g12 34ms)"});
  }
  {
    auto result = resultOf({statement("set")});
    result.error = core::StatementError{1, "見つかりません"};
    result.errorCode = "not_found";
    cases.push_back({"OneFailingStatementIsNumbered", result,
                     "#1\nerror in #1: 見つかりません\nretry: read the window again (ui.tree or MATCH), then retry "
                     "with the new ids or a MATCH on names\n(Calculator g12 34ms)"});
  }
  {
    auto result = resultOf({statement("read")}, 7);
    result.app = "Safari";
    result.generation = 4;
    result.fresh = false;
    cases.push_back({"StaleClosingLine", result, "(no rows)\n(Safari g4 stale: call ui.refresh() 7ms)"});
  }
  {
    auto returned = statement("set");
    returned->returns = true;
    returned->total = 40;  // no rows: the total is not shown
    cases.push_back({"WriteWithReturnShowsNoRows", resultOf({returned, statement("call")}, 12.5),
                     "#1\n(no rows)\n#2\n(Calculator g12 13ms)"});
  }
  {
    auto waited = statement("call", {Row{{"id", "e1"}}});
    waited->timedOut = true;
    waited->notes = std::vector<std::string>{"nothing changed for 3 s; check the query"};
    cases.push_back({"TimedOutHasNoTable", resultOf({waited}, 12.4),
                     "note: nothing changed for 3 s; check the query\n(timed out)\n(Calculator g12 12ms)"});
  }
  {
    auto shot = statement("call");
    shot->images = std::vector<core::CypherImage>{{"jpeg", "", 460, 816, {1600.4, 30.5, 229.5, 408.2}}};
    shot->outline = std::vector<std::string>{"Window \"Calc\"", "  e3 Button \"7\""};
    cases.push_back({"ImageAndOutlineLines", resultOf({shot}),
                     "(image 460x816px jpeg of 230x408pt at 1600,31)\nWindow \"Calc\"\n  e3 Button \"7\"\n"
                     "(Calculator g12 34ms)"});
  }
  {
    auto cut = statement("read", {Row{{"b", "x"}, {"10", 1}, {"a", true}, {"2", RowValue()}}, Row{{"c", 1.5}}});
    cut->total = 250;
    cases.push_back({"ColumnsInDisplayOrderAndCutRows", resultOf({cut}),
                     "2\t10\tb\ta\tc\nnull\t1\tx\ttrue\tnull\nnull\tnull\tnull\tnull\t1.5\n"
                     "(2 of 250 rows; add LIMIT or SKIP)\n(Calculator g12 34ms)"});
  }
  return cases;
}

TEST(RenderResultText, GivesTheAgentsText) {
  for (const auto& c : textCases()) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(renderResultText(c.result), c.text);
  }
}

TEST(CellText, KeepsTheTableWhole) {
  struct Case {
    RowValue value;
    std::string text;
  };
  std::vector<Case> cases{
      {RowValue(), "null"},
      {RowValue(1e21), "1e+21"},
      {RowValue(std::numeric_limits<double>::quiet_NaN()), "null"},
      {RowValue("null"), "\"null\""},
      {RowValue("a\tb"), "\"a\\tb\""},
      {node({{"_label", "StaticText"}, {"id", "e3"}, {"name", "Total"}, {"value", "Total"}}),
       "e3 StaticText \"Total\""},
      {node({{"id", "e7"},
             {"_label", "TextField"},
             {"name", "Search"},
             {"description", "Find"},
             {"value", "abc"},
             {"placeholder", "Type here"},
             {"identifier", "search"},
             {"enabled", true},
             {"focused", true}}),
       "e7 TextField \"Search\" desc=\"Find\" = \"abc\" placeholder=\"Type here\" #search focused"},
      {node({{"_label", "TextField"}, {"id", "e8"}, {"placeholder", "Name"}, {"enabled", false}, {"focused", 1}}),
       "e8 TextField placeholder=\"Name\" disabled"},
      {node({{"b", 1}, {"10", node({{"z", 1}, {"3", RowValue::List{1, "x"}}})}}),
       "{\"10\":{\"3\":[1,\"x\"],\"z\":1},\"b\":1}"},
  };
  for (const auto& c : cases) EXPECT_EQ(cellText(&c.value), c.text);
  EXPECT_EQ(cellText(nullptr), "null");
}

TEST(OrderedKeys, IndexKeysFirstInNumericOrder) {
  EXPECT_EQ(orderedKeys({"07", "+7", "4294967295", "4294967294", "0", "x"}),
            (std::vector<std::string>{"0", "4294967294", "07", "+7", "4294967295", "x"}));
}

TEST(RoundHalfUp, HalvesGoAwayFromZero) {
  // 12.5 and 12.4 are covered by the closing lines above.
  std::vector<std::pair<double, std::string>> cases{{0.5, "1"},
                                                    {-2.5, "-3"},
                                                    {std::nan(""), "NaN"},
                                                    {-std::numeric_limits<double>::infinity(), "-Infinity"},
                                                    {0.49999999999999994, "0"}};
  for (const auto& [value, text] : cases) EXPECT_EQ(roundHalfUp(value), text) << value;
}

TEST(RetryHint, WhatARetryCannotFixIsNotRetried) {
  for (const char* code : {"permission", "no_desktop"}) {
    const std::string hint = retryHint(code, 1);
    for (const char* advice : {"retry once", "retry as is", "then retry", "retry with"})
      EXPECT_EQ(hint.find(advice), std::string::npos) << code << ": " << hint;
  }
}

}  // namespace
}  // namespace glimmerstrand::server
