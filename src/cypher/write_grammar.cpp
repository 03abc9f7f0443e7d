// The write grammar: SET (with its optional RETURN), standalone and anchored
// CREATE, DELETE, COPY and CALL.
#include <set>

#include "cypher/statement_parser.h"

namespace glimmerstrand::cypher {

SetStatement StatementParser::parseSet(MatchClause match) {
  cursor_.expectKeyword("SET");
  SetStatement statement;
  std::set<std::string> variables;
  do {
    SetAssignment assignment;
    assignment.variable = cursor_.expectType(TokenType::identifier).value;
    cursor_.expectPunct(".");
    assignment.property = cursor_.expectType(TokenType::identifier).value;
    cursor_.expectPunct("=");
    assignment.value = parseWriteValue();
    variables.insert(assignment.variable);
    statement.assignments.push_back(std::move(assignment));
  } while (cursor_.takePunct(","));
  if (variables.size() > 1)
    cursor_.fail("SET assignments must target a single variable",
                 "Split assignments across multiple do calls when updating different variables.");
  if (cursor_.peekKeyword("RETURN")) {
    statement.then = parseReturnTail(match);
  } else {
    parseWriteTail();
  }
  statement.match = std::move(match);
  return statement;
}

WriteValue StatementParser::parseWriteValue() {
  if (!cursor_.peekPunct("[")) return WriteValue{parseScalar()};
  cursor_.take();
  if (cursor_.peekPunct("{")) {
    WriteValue::Maps maps;
    do maps.push_back(parseScalarMap());
    while (cursor_.takePunct(","));
    cursor_.expectPunct("]");
    return WriteValue{std::move(maps)};
  }
  WriteValue::List list;
  if (cursor_.takePunct("]")) return WriteValue{std::move(list)};
  do list.push_back(parseScalar());
  while (cursor_.takePunct(","));
  cursor_.expectPunct("]");
  return WriteValue{std::move(list)};
}

OrderedMap<WriteValue> StatementParser::parseWriteMap() {
  cursor_.expectPunct("{");
  OrderedMap<WriteValue> map;
  if (cursor_.takePunct("}")) return map;
  do {
    std::string key = cursor_.expectType(TokenType::identifier).value;
    cursor_.expectPunct(":");
    map.set(key, parseWriteValue());
  } while (cursor_.takePunct(","));
  cursor_.expectPunct("}");
  return map;
}

CreateNodePattern StatementParser::parseCreateNode() {
  cursor_.expectPunct("(");
  CreateNodePattern node;
  if (cursor_.peekType(TokenType::identifier)) node.variable = cursor_.take().value;
  if (!cursor_.takePunct(":")) cursor_.fail("CREATE requires a node label such as (n:Note)");
  node.label = cursor_.expectType(TokenType::identifier).value;
  if (cursor_.peekPunct("{")) node.createProperties = parseWriteMap();
  cursor_.expectPunct(")");
  return node;
}

CreateStatement StatementParser::parseStandaloneCreate() {
  cursor_.expectKeyword("CREATE");
  if (!cursor_.peekPunct("("))
    cursor_.fail("Standalone CREATE requires a node pattern such as CREATE (n:Label {prop: value})");
  const Token* afterParen = cursor_.peek(1);
  if (afterParen && afterParen->type == TokenType::identifier && cursor_.peekPunct(")", 2) && cursor_.peekPunct("-", 3))
    cursor_.fail("Standalone CREATE cannot use an anchored relationship pattern",
                 "Use MATCH ... CREATE (a)-[:REL]->(n:Label) for anchored CREATE.");
  CreateStatement statement;
  statement.node = parseCreateNode();
  if (!cursor_.atEnd()) cursor_.fail("Unexpected token after CREATE clause");
  return statement;
}

CreateStatement StatementParser::parseAnchoredCreate(MatchClause match) {
  cursor_.expectKeyword("CREATE");
  cursor_.expectPunct("(");
  std::string anchor = cursor_.expectType(TokenType::identifier).value;
  if (cursor_.peekPunct(":") || cursor_.peekPunct("{"))
    cursor_.fail("Anchored CREATE anchor must be a bare variable such as (t)");
  cursor_.expectPunct(")");
  cursor_.expectPunct("-");
  cursor_.expectPunct("[");
  cursor_.expectPunct(":");
  std::string type = cursor_.expectType(TokenType::identifier).value;
  if (cursor_.peekPunct("|"))
    cursor_.fail("Anchored CREATE supports only a single relationship type",
                 "Use one relationship type, e.g. [:HAS_DEVICE].");
  if (cursor_.peekPunct("*")) cursor_.fail("Variable-length relationships are not supported in anchored CREATE");
  cursor_.expectPunct("]");
  cursor_.expectPunct("->");
  CreateStatement statement;
  statement.node = parseCreateNode();
  checkBound(match, anchor, "anchored CREATE");
  parseWriteTail();
  statement.match = std::move(match);
  statement.anchorVariable = std::move(anchor);
  statement.relationshipType = std::move(type);
  return statement;
}

DeleteStatement StatementParser::parseDelete(MatchClause match) {
  cursor_.takeKeyword("DETACH");
  cursor_.expectKeyword("DELETE");
  std::string variable = cursor_.expectType(TokenType::identifier).value;
  checkBound(match, variable, "DELETE");
  parseWriteTail();
  return DeleteStatement{std::move(match), std::move(variable)};
}

CopyStatement StatementParser::parseCopy(MatchClause match) {
  cursor_.expectKeyword("COPY");
  std::string variable = cursor_.expectType(TokenType::identifier).value;
  checkBound(match, variable, "COPY");
  parseWriteTail();
  return CopyStatement{std::move(match), std::move(variable)};
}

CallStatement StatementParser::parseCall() {
  cursor_.expectKeyword("CALL");
  CallStatement statement;
  statement.procedure = cursor_.expectType(TokenType::identifier).value;
  while (cursor_.takePunct(".")) statement.procedure += "." + cursor_.expectType(TokenType::identifier).value;
  cursor_.expectPunct("(");
  if (!cursor_.takePunct(")")) {
    do statement.args.push_back(parseScalar());
    while (cursor_.takePunct(","));
    cursor_.expectPunct(")");
  }
  if (!cursor_.atEnd())
    cursor_.fail("Unexpected token after CALL statement; a single CALL with literal arguments is required");
  return statement;
}

void StatementParser::parseWriteTail() {
  if (cursor_.peekKeyword("RETURN"))
    cursor_.fail("Write statements must not include RETURN; the response includes the diff automatically",
                 "Remove RETURN from the write statement, or use a read-only MATCH ... RETURN query.");
  if (!cursor_.atEnd()) cursor_.fail("Unexpected token after write clause");
}

void StatementParser::checkBound(const MatchClause& match, const std::string& variable,
                                 std::string_view context) const {
  if (!boundVariables(match).contains(variable))
    cursor_.fail("Variable \"" + variable + "\" in " + std::string(context) + " is not bound in the MATCH pattern",
                 "Use a variable that appears in the MATCH pattern.");
}

}  // namespace glimmerstrand::cypher
