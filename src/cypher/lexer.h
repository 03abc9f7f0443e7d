// The lexer of the statement language: one pass over a script, no lookbehind.
// Positions are indices into the text's UTF-16 code units, counted from 0,
// because that is what agents see in error messages. Stateless; safe to call
// from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace glimmerstrand::cypher {

enum class TokenType { keyword, identifier, number, string, boolean, null, punct };

/// "keyword", "identifier", ...: the name the parser prints in "Expected ...".
std::string_view typeName(TokenType type);

struct Token {
  TokenType type = TokenType::punct;
  /// Keyword: upper-cased; identifier: as written; number: the digits as
  /// written; string: the contents with escapes resolved; boolean: "true" or
  /// "false"; null: "null"; punct: the punctuation.
  std::string value;
  /// UTF-16 index of the first code unit (the opening quote of a string).
  std::int64_t start = 0;
  /// The word as written; keywords only.
  std::optional<std::string> raw;

  bool operator==(const Token&) const = default;
};

/// The tokens of `text` (UTF-8), without an end marker. Throws
/// BadRequestError on an unterminated string or a character that starts no
/// token.
std::vector<Token> tokenize(std::string_view text);

}  // namespace glimmerstrand::cypher
