// The grammar of one statement: dispatch on its first words, the read grammar
// (MATCH clause, patterns, WHERE, RETURN tail) and the write grammar (SET,
// CREATE, DELETE, COPY, CALL). Internal to the parser; one parse at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cypher/statement.h"
#include "cypher/token_cursor.h"

namespace glimmerstrand::cypher {

class StatementParser {
 public:
  explicit StatementParser(std::span<const Token> tokens) : cursor_(tokens) {}

  /// The statement the tokens hold; they must be the whole statement.
  Statement parse();

 private:
  // A WHERE subtree and the depth of its tree.
  struct Condition {
    WhereExpr expr;
    int depth = 1;
  };

  // Read grammar.
  MatchClause parseMatchClause();
  PatternPart parsePatternPart();
  NodePattern parseNodePattern();
  RelationshipPattern parseRelationship();
  void parseHops(RelationshipPattern& relationship);
  OrderedMap<ScalarValue> parseScalarMap();
  ScalarValue parseScalar();
  std::int64_t parseInteger();
  std::int64_t parseNonNegative(std::string_view word);
  Condition parseOr();
  Condition parseAnd();
  Condition parseNot();
  Condition parsePredicate();
  Condition joined(LogicalOperator op, Condition left, Condition right) const;
  ComparisonOperator parseOperator();
  ComparisonOperand parseListOperand();
  Query parseReturnTail(MatchClause match);
  std::vector<ReturnItem> parseItems();
  std::optional<AggregateItem> tryAggregate();
  std::optional<std::string> parseAlias();
  std::vector<OrderItem> parseOrderList();

  // Write grammar.
  SetStatement parseSet(MatchClause match);
  WriteValue parseWriteValue();
  OrderedMap<WriteValue> parseWriteMap();
  CreateNodePattern parseCreateNode();
  CreateStatement parseStandaloneCreate();
  CreateStatement parseAnchoredCreate(MatchClause match);
  DeleteStatement parseDelete(MatchClause match);
  CopyStatement parseCopy(MatchClause match);
  CallStatement parseCall();
  void parseWriteTail();
  void checkBound(const MatchClause& match, const std::string& variable, std::string_view context) const;

  TokenCursor cursor_;
  // Open NOT and parenthesis levels, bounded so that no input can exhaust
  // the stack of the parser or of the evaluator.
  int nesting_ = 0;
};

}  // namespace glimmerstrand::cypher
