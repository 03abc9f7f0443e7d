// The edges where ICU's conversions and break rules decide what callers see:
// ill-formed UTF-8, lone surrogates, and graphemes made of several code points.
#include "cypher/unicode_text.h"

#include <gtest/gtest.h>

namespace glimmerstrand::cypher {
namespace {

const std::string replacement = "\uFFFD";

TEST(UnicodeText, IllFormedBytesBecomeOneReplacementPerMaximalSubpart) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain", "plain"},
      {"caf\xC3\xA9", "caf\xC3\xA9"},
      {std::string("a\0b", 3), std::string("a\0b", 3)},
      {"\xFF", replacement},
      {"a\xC3", "a" + replacement},                                                 // cut short at the end
      {"\xE3\x81", replacement},                                                    // a prefix of a three-byte sequence
      {"\xE3\x81z", replacement + "z"},                                             // ... followed by ASCII
      {"\xC0\xAF", replacement + replacement},                                      // overlong: no valid prefix
      {"\xED\xA0\x80", replacement + replacement + replacement},                    // an encoded surrogate
      {"\xF4\x90\x80\x80", replacement + replacement + replacement + replacement},  // beyond U+10FFFF
      {"\x80\x80", replacement + replacement},                                      // stray continuations
      {"\xF0\x9F\x98", replacement},                                                // an emoji cut short
  };
  for (const auto& [bytes, text] : cases) {
    EXPECT_EQ(validUtf8(bytes), text) << bytes;
    EXPECT_EQ(isValidUtf8(bytes), bytes == text) << bytes;
  }
}

TEST(UnicodeText, LoneSurrogatesBecomeReplacementInUtf8) {
  const std::pair<std::u16string, std::string> cases[] = {
      {u"ab", "ab"},
      {u"\U0001F600", "\U0001F600"},
      {std::u16string(1, 0xD83D), replacement},                     // a lead alone
      {std::u16string(1, 0xDE00) + u"x", replacement + "x"},        // a trail alone
      {std::u16string{0xDE00, 0xD83D}, replacement + replacement},  // the halves in the wrong order
      {u"a" + std::u16string(1, 0xD83D) + u"b", "a" + replacement + "b"},
  };
  for (const auto& [units, text] : cases) EXPECT_EQ(utf8(units), text);
}

TEST(UnicodeText, Utf16CountsAndOrdersByCodeUnits) {
  EXPECT_EQ(utf16("a\U0001F600\u00E9"), (std::u16string{u'a', 0xD83D, 0xDE00, 0xE9}));
  EXPECT_EQ(utf16("\xFF"
                  "a"),
            u"\uFFFDa");
  EXPECT_EQ(utf16Length("a\U0001F600\u00E9"), 4u);
  EXPECT_EQ(utf16Length(""), 0u);
  // U+FF5E is one unit above the lead surrogate of U+1F600, whatever the code points say.
  EXPECT_LT(compareCodeUnits("\U0001F600", "\uFF5E"), 0);
  EXPECT_LT(compareCodeUnits("\U0001F600", "\U0001F601"), 0);
  EXPECT_LT(compareCodeUnits("ab", "abc"), 0);
  EXPECT_EQ(compareCodeUnits("\u00E9", "\u00E9"), 0);
  EXPECT_GT(compareCodeUnits("\u00E9b", "\u00E9a"), 0);
  EXPECT_EQ(encodeUtf8(0x1F600), "\U0001F600");
  EXPECT_EQ(decodeAt("x\u00E9", 1).value, 0xE9u);
  EXPECT_EQ(decodeAt("x\U0001F600", 1).bytes, 4u);
}

TEST(UnicodeText, GraphemesKeepClustersWhole) {
  const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467";  // a ZWJ sequence
  const std::string thumb = "\U0001F44D\U0001F3FD";                         // with a skin tone
  const std::string accented = "e\u0301";                                   // a combining acute
  const std::string flag = "\U0001F1EF\U0001F1F5";                          // a regional-indicator pair
  struct Case {
    std::string text;
    std::vector<std::string> graphemes;
  };
  const Case cases[] = {
      {"", {}},
      {"abc", {"a", "b", "c"}},
      {"a\r\nb", {"a", "\r\n", "b"}},
      {family + "x", {family, "x"}},
      {accented + thumb + flag, {accented, thumb, flag}},
      {"\u304B\u3099", {"\u304B\u3099"}},  // a kana with a combining voiced mark
  };
  for (const auto& c : cases) {
    EXPECT_EQ(splitGraphemes(c.text), c.graphemes) << c.text;
    EXPECT_EQ(graphemeCount(c.text), c.graphemes.size()) << c.text;
    std::string prefix;
    for (std::size_t n = 0; n <= c.graphemes.size() + 1; ++n) {
      EXPECT_EQ(graphemePrefix(c.text, n), prefix) << c.text << " " << n;
      if (n < c.graphemes.size()) prefix += c.graphemes[n];
    }
  }
}

TEST(UnicodeText, TrimmingTakesUnicodeWhiteSpaceOnly) {
  const std::pair<std::string, std::string> cases[] = {
      {"  a b \n", "a b"},    {"\u3000\u00A0x\u2029", "x"},
      {"\u200Bx", "\u200Bx"},  // a zero-width space is no white space
      {" \t ", ""},           {"\xFF ", "\xFF"},
  };
  for (const auto& [text, trimmed] : cases) EXPECT_EQ(trimmedText(text), trimmed) << text;
}

}  // namespace
}  // namespace glimmerstrand::cypher
