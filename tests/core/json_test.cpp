#include "core/json_value.h"

#include <gtest/gtest.h>

#include <limits>

#include "core/errors.h"

namespace glimmerstrand::core {
namespace {

TEST(JsonString, EscapesOnlyWhatJsonNeeds) {
  const std::pair<std::string, std::string> cases[] = {
      {"a\tb\"c\\次へ", R"("a\tb\"c\\次へ")"},
      {"\x1f", R"("\u001f")"},
      {"\b\f\n\r", R"("\b\f\n\r")"},
      {"a/b\x7f", "\"a/b\x7f\""},
  };
  for (const auto& [text, json] : cases) EXPECT_EQ(jsonString(text), json);
}

TEST(JsonText, IsCompactOrderedAndPrintsNumbersAsTheLanguageDoes) {
  const double inf = std::numeric_limits<double>::infinity();
  const std::pair<JSONValue, std::string> cases[] = {
      {JSONValue::Object{{"b", 1}, {"a", 2}}, R"({"b":1,"a":2})"},
      {JSONValue::Object{{"a", 1}, {"a", 2}}, R"({"a":1,"a":2})"},
      {JSONValue(inf), "null"},
      {JSONValue(1e21), "1e+21"},
      {JSONValue::Array{true, nullptr, "x", JSONValue::Array{}}, R"([true,null,"x",[]])"},
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(jsonText(value), text);
}

TEST(ParseJson, KeepsOrderAndDuplicatesAndRefusesGarbage) {
  auto v = parseJSON(R"({"b":{"y":1,"x":[1,2.5,"s"]},"a":null,"b":true})");
  EXPECT_EQ(jsonText(v), R"({"b":{"y":1,"x":[1,2.5,"s"]},"a":null,"b":true})");
  for (const char* bad : {"", "[1,]", "nul", "\"\xff\"", "1 2"})
    EXPECT_THROW(parseJSON(bad), GlimmerstrandError) << bad;
  std::string deep(100000, '[');
  EXPECT_THROW(parseJSON(deep + std::string(100000, ']')), GlimmerstrandError) << "deep nesting is refused";
}

// A request that follows the grammar but is refused by the parser still
// shows its id; a text that breaks the grammar shows none.
TEST(ParseJson, TheIdOfARefusedTextCanStillBeRead) {
  const std::string deep = std::string(600, '[') + std::string(600, ']');
  struct Case {
    std::string text;
    std::optional<std::string> id;  // as JSON text
  };
  const std::vector<Case> cases{
      {R"({"id":1,"method":"ping","params":{"a":"\ud800"}})", "1"},
      {R"({"id":2,"method":"ping","params":{"a":1e400}})", "2"},
      {R"({"params":)" + deep + R"(, "id" : {"k":[3]} })", R"({"k":[3]})"},
      {R"({"\u0069d":"x","a":-1e999})", R"("x")"},
      {R"({"id":1e400,"a":1})", std::nullopt},                   // the id itself is refused
      {R"({"a":)" + deep + "}", std::nullopt},                   // no id
      {R"({"id":1,"a":)" + deep.substr(1) + "}", std::nullopt},  // brackets don't match
      {R"({"id":1,"method":"ping")", std::nullopt},              // cut short
      {R"({"id":1,"a":01})", std::nullopt},                      // not a JSON number
      {R"({"id":1,"a":"\x"})", std::nullopt},                    // not a JSON escape
      {R"([{"id":1},1e400])", std::nullopt},                     // the id of a nested object
      {R"({"id":1,"a":1e400} x)", std::nullopt},                 // text after the value
  };
  for (const auto& c : cases) {
    EXPECT_THROW(parseJSON(c.text), GlimmerstrandError) << c.text;
    auto id = keyOfRefusedText(c.text, "id");
    EXPECT_EQ(id ? std::optional(jsonText(*id)) : std::nullopt, c.id) << c.text;
  }
}

TEST(LenientReaders, TreatWrongTypesAsAbsentAndMixBoolsWithNumbers) {
  auto params = parseJSON(R"({"s":"t","n":2,"b":true,"z":0,"o":{}})");
  EXPECT_EQ(optionalString(params, "s"), "t");
  EXPECT_EQ(optionalString(params, "n"), std::nullopt);
  EXPECT_EQ(optionalNumber(params, "b"), 1.0);
  EXPECT_EQ(optionalBool(params, "n"), true);
  EXPECT_EQ(optionalInt(params, "o"), std::nullopt);
}

TEST(Errors, CodeAndMessageOfEachKind) {
  GlimmerstrandError g("not_found", "x");
  EXPECT_EQ(errorCode(g), "not_found");
  EXPECT_TRUE(hasCode(g, codes::notFound));
  cypher::BadRequestError b("だめ", std::string("hint"));
  EXPECT_EQ(errorCode(b), "invalid_argument");
  EXPECT_EQ(errorMessage(b), "だめ");
}

}  // namespace
}  // namespace glimmerstrand::core
