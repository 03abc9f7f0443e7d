#include "cypher/token_cursor.h"

#include "cypher/parser.h"
#include "cypher/values.h"

namespace glimmerstrand::cypher {

bool TokenCursor::peekPunct(std::string_view punct, std::size_t ahead) const {
  const Token* t = peek(ahead);
  return t && t->type == TokenType::punct && t->value == punct;
}

bool TokenCursor::peekKeyword(std::string_view word) const {
  const Token* t = peek();
  return t && t->type == TokenType::keyword && t->value == word;
}

bool TokenCursor::peekType(TokenType type) const {
  const Token* t = peek();
  return t && t->type == type;
}

bool TokenCursor::takeKeyword(std::string_view word) {
  if (!peekKeyword(word)) return false;
  ++index_;
  return true;
}

bool TokenCursor::takePunct(std::string_view punct) {
  if (!peekPunct(punct)) return false;
  ++index_;
  return true;
}

void TokenCursor::expectKeyword(std::string_view word) {
  if (!takeKeyword(word)) fail("Expected keyword \"" + std::string(word) + "\"");
}

void TokenCursor::expectPunct(std::string_view punct) {
  if (!takePunct(punct)) fail("Expected \"" + std::string(punct) + "\"");
}

const Token& TokenCursor::expectType(TokenType type) {
  if (!peekType(type)) fail("Expected " + std::string(typeName(type)));
  return take();
}

void TokenCursor::fail(const std::string& detail) const { fail(detail, std::string(kGrammarHint)); }

void TokenCursor::fail(const std::string& detail, std::optional<std::string> hint) const {
  std::string found = "end of query";
  if (const Token* t = peek()) found = "\"" + t->value + "\" (position " + std::to_string(t->start) + ")";
  throw BadRequestError("Cypher parse error: " + detail + ", but found " + found, std::move(hint));
}

}  // namespace glimmerstrand::cypher
