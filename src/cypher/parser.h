// The parser of the statement language: scripts of statements separated by
// ";", read into the statement model. Hand-written recursive descent over the
// token array; it looks nothing up in a graph. Stateless; safe to call from
// any thread.
#pragma once

#include <string_view>
#include <vector>

#include "cypher/statement.h"

namespace glimmerstrand::cypher {

/// The hint of most syntax errors: the whole grammar in one line.
extern const std::string_view kGrammarHint;

/// Every statement of the script, in text order (at least one). A lexical or
/// syntax error anywhere fails the whole script with BadRequestError.
std::vector<Statement> parseStatements(std::string_view text);

/// The one statement of the script; any other count fails.
Statement parseStatement(std::string_view text);

}  // namespace glimmerstrand::cypher
