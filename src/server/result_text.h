// The text an agent reads for a result: each statement's lines, the row
// table with tab-separated columns, the error line with its retry hint, and
// the closing line with the app, the generation and the elapsed time. The
// MCP tool and the shell client show the same text. Pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/cypher_result.h"
#include "cypher/values.h"

namespace glimmerstrand::server {

/// Lines joined by line feeds, without a final one.
std::string renderResultText(const core::CypherResult& result);

/// The header, one line per row, and a "(shown of total …)" line when rows
/// were cut; "(no rows)" alone for no rows.
std::vector<std::string> renderTable(const std::vector<cypher::Row>& rows, std::optional<std::int64_t> total);

/// One cell; never holds a tab or a line break. A missing value is null.
std::string cellText(const cypher::RowValue* value);

/// Array-index keys first, in numeric order, then the others as stored.
std::vector<std::string> orderedKeys(const std::vector<std::string>& keys);

/// What an agent should do after a failure with `code` in statement
/// `statement` (counted from 1).
std::string retryHint(const std::optional<std::string>& code, std::int64_t statement);

/// The nearest integer as text, halves away from zero.
std::string roundHalfUp(double value);

}  // namespace glimmerstrand::server
