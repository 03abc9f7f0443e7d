// The parser's cursor over the tokens of one statement, and the failures that
// name the token under it. Internal to the parser; one parse at a time.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "cypher/lexer.h"

namespace glimmerstrand::cypher {

class TokenCursor {
 public:
  explicit TokenCursor(std::span<const Token> tokens) : tokens_(tokens) {}

  bool atEnd() const { return index_ >= tokens_.size(); }
  /// The token under the cursor, or nullptr past the last one.
  const Token* peek(std::size_t ahead = 0) const {
    return index_ + ahead < tokens_.size() ? &tokens_[index_ + ahead] : nullptr;
  }
  bool peekPunct(std::string_view punct, std::size_t ahead = 0) const;
  bool peekKeyword(std::string_view word) const;
  bool peekType(TokenType type) const;

  /// Consumes the token under the cursor, which must exist.
  const Token& take() { return tokens_[index_++]; }
  /// Consumes the keyword if it is next.
  bool takeKeyword(std::string_view word);
  /// Consumes the punctuation if it is next.
  bool takePunct(std::string_view punct);

  void expectKeyword(std::string_view word);
  void expectPunct(std::string_view punct);
  const Token& expectType(TokenType type);

  /// "Cypher parse error: {detail}, but found {found}", found naming the
  /// token under the cursor; the hint defaults to the grammar.
  [[noreturn]] void fail(const std::string& detail) const;
  [[noreturn]] void fail(const std::string& detail, std::optional<std::string> hint) const;

 private:
  std::span<const Token> tokens_;
  std::size_t index_ = 0;
};

}  // namespace glimmerstrand::cypher
