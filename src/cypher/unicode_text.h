// Unicode text as the whole program counts, cuts and repairs it, with ICU
// behind it: texts travel as UTF-8; the language counts positions and orders
// texts by UTF-16 code units; a person counts graphemes (a letter with its
// accents, an emoji with its modifiers, "\r\n"), so typing sends one key per
// grapheme and lengths and cuts shown to callers count graphemes. The one
// place for these, below every library that needs them. Pure functions; safe
// from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace glimmerstrand::cypher {

struct CodePoint {
  char32_t value = 0;
  /// UTF-8 bytes taken by the code point (1 to 4).
  std::size_t bytes = 1;
  /// UTF-16 code units it takes (1 or 2).
  std::size_t units() const { return value >= 0x10000 ? 2 : 1; }
};

/// The code point at byte `at` of valid UTF-8.
CodePoint decodeAt(std::string_view text, std::size_t at);

/// The UTF-8 encoding of one code point.
std::string encodeUtf8(char32_t value);

bool isValidUtf8(std::string_view bytes);
/// The bytes as UTF-8, each maximal ill-formed subsequence replaced by one
/// U+FFFD.
std::string validUtf8(std::string_view bytes);

/// UTF-16 of UTF-8 text; ill-formed bytes become U+FFFD.
std::u16string utf16(std::string_view text);
/// UTF-8 of UTF-16 text; a lone surrogate becomes U+FFFD.
std::string utf8(std::u16string_view text);
/// The number of UTF-16 code units of valid UTF-8 text.
std::size_t utf16Length(std::string_view text);

/// Lexicographic order of the UTF-16 code units of two valid UTF-8 texts,
/// a proper prefix first: negative, zero or positive.
int compareCodeUnits(std::string_view a, std::string_view b);

/// The graphemes of a UTF-8 text, in order.
std::vector<std::string> splitGraphemes(std::string_view text);
std::size_t graphemeCount(std::string_view text);
/// The first `count` graphemes of the text: the one cut to a number of
/// characters.
std::string graphemePrefix(std::string_view text, std::size_t count);

/// The text without white space and line ends (Unicode's White_Space) at
/// either end.
std::string_view trimmedText(std::string_view text);

}  // namespace glimmerstrand::cypher
