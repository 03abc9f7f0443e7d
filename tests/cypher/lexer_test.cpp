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

struct LexCase {
  const char* name;
  std::string text;
  std::string tokens;
};

class Lexer : public ::testing::TestWithParam<LexCase> {};

TEST_P(Lexer, Tokens) { EXPECT_EQ(tokensText(GetParam().text), GetParam().tokens); }

INSTANTIATE_TEST_SUITE_P(
    Cypher, Lexer,
    ::testing::Values(
        LexCase{"Empty", "", ""}, LexCase{"OnlyTheFourWhitespaces", " \t\r\n", ""},
        LexCase{"MinusBeforeDigitIsPartOfNumber", "n.x<-5", "I(n)@0 P(.)@1 I(x)@2 P(<)@3 N(-5)@4"},
        LexCase{"IncomingArrowSplits", "(a)<-[:R]-(b)",
                "P(()@0 I(a)@1 P())@2 P(<)@3 P(-)@4 P([)@5 P(:)@6 I(R)@7 P(])@8 P(-)@9 P(()@10 I(b)@11 P())@12"},
        LexCase{"NoMinusToken", "a-1", "I(a)@0 N(-1)@1"},
        LexCase{"MinusAloneBeforeMinusNumber", "--1", "P(-)@0 N(-1)@1"},
        LexCase{"TrailingDotIsPunct", "1.", "N(1)@0 P(.)@1"}, LexCase{"LeadingDotIsPunct", ".5", "P(.)@0 N(5)@1"},
        LexCase{"RangeBetweenNumbers", "1..2", "N(1)@0 P(..)@1 N(2)@3"}, LexCase{"Decimal", "-12.50", "N(-12.50)@0"},
        LexCase{"TwoUnitPunctuation", "-> .. >= <= <> =~", "P(->)@0 P(..)@3 P(>=)@6 P(<=)@9 P(<>)@12 P(=~)@15"},
        LexCase{"BangIsNoToken", "n.x != 1", "error: Unexpected character \"!\" at position 4"},
        LexCase{"BacktickIsNoToken", "`a`", "error: Unexpected character \"`\" at position 0"},
        LexCase{"FormFeedIsNoWhitespace", "a\fb", "error: Unexpected character \"\f\" at position 1"},
        LexCase{"NoBreakSpaceIsNoWhitespace", "a\u00a0b", "error: Unexpected character \"\u00a0\" at position 1"},
        LexCase{"BackslashAtEndIsUnterminated", "x \"a\\", "error: Unterminated string literal at position 2"},
        LexCase{"UnterminatedCountsUnits", "'é' \"abc", "error: Unterminated string literal at position 4"},
        LexCase{"EscapesTakeTheNextUnitLiterally", R"("a\"b" 'c\\d' "e\nf")", R"(S(a"b)@0 S(c\d)@7 S(enf)@14)"},
        LexCase{"OtherQuoteIsText", R"('say "hi"' "it's")", R"(S(say "hi")@0 S(it's)@11)"},
        LexCase{"LineBreakInsideString", "'a\nb'", "S(a\nb)@0"},
        LexCase{"KeywordsInAnyCase", "Match mAtCh MATCH", "K(MATCH|Match)@0 K(MATCH|mAtCh)@6 K(MATCH|MATCH)@12"},
        LexCase{"LiteralsInAnyCase", "TRUE True false Null", "B(true)@0 B(true)@5 B(false)@10 Z(null)@16"},
        LexCase{"FullUpperCasingMakesKeywords", "ſet", "K(SET|ſet)@0"},
        LexCase{"KeywordIsNeverIdentifier", "order desc As", "K(ORDER|order)@0 K(DESC|desc)@6 K(AS|As)@11"},
        LexCase{"UnicodeWords", "名前 _x1 ǅa x²٣ straße", "I(名前)@0 I(_x1)@3 I(ǅa)@7 I(x²٣)@10 I(straße)@14"},
        LexCase{"NonAsciiDigitStartsNothing", "٣", "error: Unexpected character \"٣\" at position 0"},
        LexCase{"EmojiInStringCountsTwoUnits", "'😀' x", "S(😀)@0 I(x)@5"},
        LexCase{"EmojiOutsideStringFailsOnFirstUnit", "x 😀", "error: Unexpected character \"\uFFFD\" at position 2"},
        LexCase{"EmojiCannotContinueWord", "ab😀", "error: Unexpected character \"\uFFFD\" at position 2"},
        LexCase{"IllFormedUtf8ReadsAsReplacement", "a \xff", "error: Unexpected character \"\uFFFD\" at position 2"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace glimmerstrand::cypher
