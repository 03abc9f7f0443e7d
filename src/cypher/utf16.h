// UTF-16 views of the UTF-8 texts the language stores: the language counts
// positions and orders texts by UTF-16 code units, whatever the encoding kept.
// Pure functions; safe from any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

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

/// `text` with each ill-formed UTF-8 sequence replaced by U+FFFD, or none
/// when it is well formed already.
std::optional<std::string> repairedUtf8(std::string_view text);

/// The UTF-8 encoding of one code point.
std::string encodeUtf8(char32_t value);

/// Lexicographic order of the UTF-16 code units of two valid UTF-8 texts,
/// a proper prefix first: negative, zero or positive.
int compareCodeUnits(std::string_view a, std::string_view b);

}  // namespace glimmerstrand::cypher
