// The procedures themselves, one function each, and the pieces they share.
// Internal to the core library: callers go through callProcedure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ax_graph.h"
#include "core/cypher_result.h"
#include "cypher/values.h"

namespace glimmerstrand::core {

class ScriptRun;

using Arguments = std::vector<cypher::ScalarValue>;
using ProcedureHandler = StatementResultRef (*)(ScriptRun&, const Arguments&);

namespace procedures {

// Acting on the application.
StatementResultRef press(ScriptRun& run, const Arguments& args);
StatementResultRef focus(ScriptRun& run, const Arguments& args);
StatementResultRef setValue(ScriptRun& run, const Arguments& args);
StatementResultRef key(ScriptRun& run, const Arguments& args);
StatementResultRef type(ScriptRun& run, const Arguments& args);
StatementResultRef click(ScriptRun& run, const Arguments& args);
StatementResultRef hover(ScriptRun& run, const Arguments& args);
StatementResultRef drag(ScriptRun& run, const Arguments& args);
StatementResultRef scroll(ScriptRun& run, const Arguments& args);
StatementResultRef menu(ScriptRun& run, const Arguments& args);

// Reading the application and what lies outside it.
StatementResultRef read(ScriptRun& run, const Arguments& args);
StatementResultRef inspect(ScriptRun& run, const Arguments& args);
StatementResultRef tree(ScriptRun& run, const Arguments& args);
StatementResultRef screenshot(ScriptRun& run, const Arguments& args);
StatementResultRef copyScreenshot(ScriptRun& run, const Arguments& args);
StatementResultRef clipboard(ScriptRun& run, const Arguments& args);
StatementResultRef setClipboard(ScriptRun& run, const Arguments& args);

// Waiting.
StatementResultRef wait(ScriptRun& run, const Arguments& args);
StatementResultRef waitFor(ScriptRun& run, const Arguments& args);
StatementResultRef refresh(ScriptRun& run, const Arguments& args);

// Moving between applications and windows.
StatementResultRef apps(ScriptRun& run, const Arguments& args);
StatementResultRef open(ScriptRun& run, const Arguments& args);
StatementResultRef openURL(ScriptRun& run, const Arguments& args);
StatementResultRef quit(ScriptRun& run, const Arguments& args);
StatementResultRef windows(ScriptRun& run, const Arguments& args);
StatementResultRef window(ScriptRun& run, const Arguments& args);

}  // namespace procedures

/// A new result of kind "call".
StatementResultRef callResult();
/// The record of an action that went through.
ActionRecord succeeded(std::string id, std::string action);
/// A selector holding only the pid.
AppSelector pidSelector(std::int64_t pid);

/// Key input to the run's application, to the element this run focused last
/// when there is one; "cmd+a" there selects its whole content instead.
void sendKeys(ScriptRun& run, const std::string& keys);
/// Types into the run's application; true when the text was seen afterwards.
bool typeText(ScriptRun& run, const std::string& text);
/// The part of a node's frame that its scroll areas, window or sheet let be
/// seen; the whole frame when that part would be empty.
std::optional<Rect> visibleFrame(const AxGraph& graph, const GraphNode& node);

/// One slice of waiting: for notifications from `mark`, or, when none came,
/// for a walk asked for now.
void waitForChange(ScriptRun& run, std::int64_t mark, std::int64_t sliceMs);

/// At most 40 UTF-16 code units of `text`, then "…" when it was longer.
std::string clippedText(std::string_view text);

}  // namespace glimmerstrand::core
