// Tokens of scripts, in a compact form: K(VALUE|raw) keyword, I identifier,
// N number, S string, B boolean, Z null, P punctuation; "@n" is the UTF-16
// start.
#include <gtest/gtest.h>

#include "cypher/lexer.h"
#include "cypher/values.h"

namespace glimmerstrand::cypher {
namespace {

std::string tokensText(const std::string& text) {
  std::string out;
  try {
    for (const auto& t : tokenize(text)) {
      static const char* kinds = "KINSBZP";
      out += out.empty() ? "" : " ";
      out += kinds[static_cast<int>(t.type)];
      out += "(" + t.value + (t.raw ? "|" + *t.raw : "") + ")@" + std::to_string(t.start);
    }
  } catch (const BadRequestError& e) {
    EXPECT_FALSE(e.hint().has_value()) << "lexical errors carry no hint";
    return "error: " + e.message();
  }
  return out;
}

TEST(CypherLexer, Tokens) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {" \t\r\n", ""},  // the only four whitespaces
      // A minus before a digit is part of the number; there is no minus token there.
      {"n.x<-5", "I(n)@0 P(.)@1 I(x)@2 P(<)@3 N(-5)@4"},
      {"a-1 --1", "I(a)@0 N(-1)@1 P(-)@4 N(-1)@5"},
      {"(a)<-[:R]-(b)",
       "P(()@0 I(a)@1 P())@2 P(<)@3 P(-)@4 P([)@5 P(:)@6 I(R)@7 P(])@8 P(-)@9 P(()@10 I(b)@11 P())@12"},
      {"-> .. >= <= <> =~", "P(->)@0 P(..)@3 P(>=)@6 P(<=)@9 P(<>)@12 P(=~)@15"},
      {"`a`", "error: Unexpected character \"`\" at position 0"},
      {"'é' \"abc", "error: Unterminated string literal at position 4"},  // positions count UTF-16 units
      {R"("a\"b" 'c\\d' "e\nf")", R"(S(a"b)@0 S(c\d)@7 S(enf)@14)"},      // an escape takes the next unit literally
      {"Match mAtCh order desc As", "K(MATCH|Match)@0 K(MATCH|mAtCh)@6 K(ORDER|order)@12 K(DESC|desc)@18 K(AS|As)@23"},
      {"ſet", "K(SET|ſet)@0"},  // full upper casing makes keywords
      {"名前 _x1 ǅa x²٣ straße", "I(名前)@0 I(_x1)@3 I(ǅa)@7 I(x²٣)@10 I(straße)@14"},
      {"٣", "error: Unexpected character \"٣\" at position 0"},
      {"'😀' x", "S(😀)@0 I(x)@5"},
      // Outside strings a supplementary character fails on its first unit.
      {"x 😀", "error: Unexpected character \"\uFFFD\" at position 2"},
      {"a \xff", "error: Unexpected character \"\uFFFD\" at position 2"},
  };
  for (const auto& [text, tokens] : cases) EXPECT_EQ(tokensText(text), tokens) << text;
}

}  // namespace
}  // namespace glimmerstrand::cypher
