#include "cypher/parser.h"

#include <span>
#include <string>

#include "cypher/lexer.h"
#include "cypher/statement_parser.h"
#include "cypher/values.h"

namespace glimmerstrand::cypher {

const std::string_view kGrammarHint =
    "Supported grammar: MATCH (n:Label {prop: value})[-[:REL|REL2*1..2]->(m:Label) or <-[:REL]-(m)] [, "
    "(o:Label)-[:REL]->(p)]* [WHERE ...] [MATCH ... [WHERE ...]]* RETURN [DISTINCT] n | n.prop | count(*) | ... [ORDER "
    "BY ...] [SKIP <int>] [LIMIT <int>]; MATCH ... SET n.prop = <value> [, n.prop2 = <value>]*; CREATE (n:Label {prop: "
    "value}); MATCH ... CREATE (a)-[:REL]->(n:Label {prop: value}); MATCH ... [DETACH] DELETE n; MATCH ... COPY n; "
    "CALL <procedure>(<literal>, ...). Write values: scalar, [scalars], [{key: scalar, ...}]. MATCH ... SET ... RETURN "
    "... reads the same MATCH after the write. Separate statements with ';'. Comma separated patterns and repeated "
    "MATCH clauses share variables. WHERE n:Label checks a label. Operators: = <> < > <= >= CONTAINS, STARTS WITH, "
    "ENDS WITH, =~ 'regex' (whole string, (?i) for case-insensitive), IN [...]. RETURN items accept AS <name>. Not "
    "supported: WITH, count(DISTINCT ...), RETURN after CREATE / DELETE / COPY, dynamic procedure names.";

std::vector<Statement> parseStatements(std::string_view text) {
  const std::vector<Token> tokens = tokenize(text);
  const std::span<const Token> all(tokens);
  std::vector<Statement> statements;
  std::size_t begin = 0;
  for (std::size_t i = 0; i <= tokens.size(); ++i) {
    bool closes = i == tokens.size() || (tokens[i].type == TokenType::punct && tokens[i].value == ";");
    if (!closes) continue;
    // Leading, doubled and trailing separators leave nothing to parse.
    if (i > begin) statements.push_back(StatementParser(all.subspan(begin, i - begin)).parse());
    begin = i + 1;
  }
  if (statements.empty()) throw BadRequestError("Empty statement", std::string(kGrammarHint));
  return statements;
}

Statement parseStatement(std::string_view text) {
  std::vector<Statement> statements = parseStatements(text);
  if (statements.size() != 1)
    throw BadRequestError("Expected a single statement but found " + std::to_string(statements.size()),
                          std::string(kGrammarHint));
  return std::move(statements.front());
}

}  // namespace glimmerstrand::cypher
