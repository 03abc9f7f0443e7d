// The ui.* procedures: the table of their names and usage lines, and the
// helpers that turn their loose literal arguments into texts, numbers and
// points. The procedures run through callProcedure (runner.h).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/desktop.h"
#include "cypher/values.h"

namespace glimmerstrand::core {

class ScriptRun;

struct ProcedureInfo {
  std::string_view name;
  std::string usage;
};

/// The 26 procedures in table order: the order of the unknown-procedure
/// message and of the usage text shown to agents, with the usage lines of
/// that desktop, or of the current one (desktop.h).
const std::vector<ProcedureInfo>& procedureTable(Desktop desktop);
const std::vector<ProcedureInfo>& procedureTable();

/// The web address the usage line and the error of ui.open_url show.
inline constexpr std::string_view exampleWebAddress = "https://example.com";

/// Argument `at` of a call, or nullptr when it was not written ("missing",
/// which differs from null).
const cypher::ScalarValue* argumentAt(const std::vector<cypher::ScalarValue>& args, std::size_t at);

/// Missing gives "undefined", null "null", a boolean "true" or "false", a
/// number its numberText, a text itself.
std::string textOf(const cypher::ScalarValue* argument);
/// `fallback` for missing or null, otherwise textOf.
std::string textOr(const cypher::ScalarValue* argument, std::string_view fallback);
/// Missing gives NaN, null 0, booleans 1 and 0; a text is read as a decimal
/// number after trimming ("" is 0, "Infinity" and "-Infinity" count), and
/// anything else that is not a number is NaN.
double numberOf(const cypher::ScalarValue* argument);

/// Where a pointer procedure acts: two numbers, or the middle of an element.
struct PointArgument {
  double x = 0;
  double y = 0;
  std::optional<std::string> id;          // the element's id when given by element
  std::vector<cypher::ScalarValue> rest;  // the arguments after the point
};

/// Reads a point from the front of `args`: two numbers, or any other first
/// argument taken as an element and resolved. Throws "no_action" for an
/// element without a frame.
PointArgument pointArgument(ScriptRun& run, const std::vector<cypher::ScalarValue>& args);

/// The id when there is one, otherwise the rounded coordinates as "x,y".
std::string pointText(double x, double y, const std::optional<std::string>& id = std::nullopt);

}  // namespace glimmerstrand::core
