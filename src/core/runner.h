// The statement runner: a script of statements against one application. A
// run takes one snapshot, answers reads from the graph over it, lets writes
// go out back to back, and waits for the application to settle only when a
// statement has to see their effect, or at the end.
//
// `CypherRunner` is shared by every caller and may run scripts on several
// threads at once; each run has its own `ScriptRun`, used on one thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/ax_graph.h"
#include "core/clock.h"
#include "core/cypher_result.h"
#include "core/graph_memory.h"
#include "core/ui_driver.h"
#include "cypher/statement.h"

namespace glimmerstrand::core {

/// Makes sure the application is in front and gives its pid.
using EnsureFront = std::function<std::int64_t(const std::optional<AppSelector>&)>;

/// The check that key input will reach what it should: the selected
/// application activated and in front, or the frontmost one when the selector
/// names nothing, and never a locked screen.
std::int64_t frontOrFail(UIDriver& driver, Clock& clock, const std::optional<AppSelector>& selector);

class CypherRunner {
 public:
  CypherRunner(UIDriver& driver, GraphMemory& memory, Clock& clock = Clock::system(),
               std::optional<EnsureFront> ensureFront = std::nullopt);

  /// Runs `script`. Throws when nothing worth reporting happened (parse
  /// error, refusal, first snapshot failed, first statement failed with
  /// nothing to show); later failures come back inside the result.
  CypherResult run(std::string_view script, const std::optional<AppSelector>& app, bool readOnly);

  UIDriver& driver() const { return driver_; }
  GraphMemory& memory() const { return memory_; }
  Clock& clock() const { return clock_; }
  std::int64_t ensureFront(const std::optional<AppSelector>& app) const { return ensureFront_(app); }

 private:
  UIDriver& driver_;
  GraphMemory& memory_;
  Clock& clock_;
  EnsureFront ensureFront_;
};

/// Writes waiting for one shared settle.
struct Pending {
  AxSnapshot before;          // the graph's snapshot at the first write
  std::int64_t since = 0;     // the notification counter at that moment
  StatementResultRef result;  // the latest write's result, which gets the report
  /// Results of typing the driver could not see arrive; they get `typedNote`
  /// when the settle finds nothing changed either.
  std::vector<StatementResultRef> typedUnseen;
};

/// The state of one run. Procedures and writes work through it.
class ScriptRun {
 public:
  ScriptRun(const CypherRunner& runner, std::optional<AppSelector> app) : runner(runner), app(std::move(app)) {}

  const CypherRunner& runner;
  std::shared_ptr<const AxGraph> graph;  // set before the first statement
  StatementResultRef partial;            // a failed statement's result worth showing
  std::optional<Pending> pending;
  std::optional<AppSelector> app;
  bool menus = false;   // the script reads the menu bar
  bool closed = false;  // the application went away during this run
  std::optional<ElementRef> focusedRef;

  UIDriver& driver() const { return runner.driver(); }
  Clock& clock() const { return runner.clock(); }
  std::int64_t pid() const { return graph->snapshot().pid; }
  const std::string& appName() const { return graph->snapshot().app.name; }

  AxSnapshot freshSnapshot(std::int64_t pid);
  void rebuildGraph(AxSnapshot snapshot, std::int64_t menuAgeMs);
  void markPending(const StatementResultRef& result);
  /// Typing of `result` went out, but the driver did not see the text land.
  /// REQUIRES: markPending before the typing.
  void typedUnseen(const StatementResultRef& result);
  void settlePending();
  void ensureOpen() const;
  StatementResultRef runRead(const cypher::Query& query);

  StatementResultRef runSet(const cypher::SetStatement& statement);
  /// One driver action for one target; records the action, and on failure
  /// sets `partial` before it throws.
  void writeProperty(const GraphNode& node, const std::string& property, const cypher::WriteValue* value,
                     const AxSnapshot& snapshot, const StatementResultRef& result);
  /// Writes a text value, through the element's own value where it takes
  /// one, else by keys after focusing it and, with `selectFirst`, selecting
  /// what it holds (a date's part holds its value selected once focused,
  /// and a select-all there reaches past it); true when by keys.
  bool writeText(const AxNode& target, const ElementRef& ref, const std::string& text, const StatementResultRef& result,
                 bool selectFirst = true);
  void selectAllIn(const ElementRef& ref);

  /// The reference of a node of the current graph.
  ElementRef elementRef(const GraphNode& node) const;
};

/// The reference of a node, from the snapshot it was read in.
ElementRef elementRefOf(const AxSnapshot& snapshot, const AxNode& node);

/// Runs a CALL statement; every procedure's result has the kind "call".
StatementResultRef callProcedure(ScriptRun& run, const cypher::CallStatement& call);

// Pieces of writes, shared with the procedures.
std::string writeValueJSON(const cypher::WriteValue* value);
std::string writeValueText(const cypher::WriteValue* value);
cypher::Query narrowToWritten(const cypher::Query& query, const std::optional<std::string>& variable,
                              const std::vector<std::string>& ids);

/// Whether a script names the menu bar: a menu label after a colon, or a
/// quoted id like "m12". Only such scripts pay for reading the menu bar.
bool scriptReadsMenus(std::string_view script);

/// "the keys were sent, but the text could not be seen in the tree …"
extern const std::string_view typedNote;

/// A SET may write at most this many nodes for each assignment.
inline constexpr std::size_t maxWriteTargets = 10;

/// Rows beyond this, without a LIMIT, are cut and counted in `total`.
inline constexpr std::size_t rowCap = 100;

}  // namespace glimmerstrand::core
