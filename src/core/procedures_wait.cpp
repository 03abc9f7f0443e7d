// The procedures that wait for the application: a plain sleep, a wait for a
// query to match, and a read of the whole window now. Every sleep and
// deadline goes through the run's clock.
#include <algorithm>
#include <cmath>

#include "core/change_report.h"
#include "core/errors.h"
#include "core/procedure_handlers.h"
#include "core/procedures.h"
#include "core/runner.h"
#include "cypher/parser.h"

namespace glimmerstrand::core {
namespace {

constexpr double maxSleepMs = 5000;
constexpr double secondsUpTo = 10;  // ui.wait(2) means seconds, ui.wait(11) milliseconds
constexpr std::int64_t pollMenuAgeMs = 500;
constexpr double defaultWaitForMs = 3000;
constexpr double maxWaitForMs = 10000;
constexpr double stillSeconds = 3;  // a tree that does not move for this long will not match
constexpr double maxSettleSliceMs = 1500;
constexpr std::int64_t pollQuietMs = 30;

double msSince(Clock& clock, std::int64_t startNs) { return static_cast<double>(clock.nowNs() - startNs) / 1e6; }

double waitForBudget(double timeout) {
  if (std::isnan(timeout)) return maxWaitForMs;
  return std::clamp(timeout, 0.0, maxWaitForMs);
}

}  // namespace

void waitForChange(ScriptRun& run, std::int64_t mark, std::int64_t sliceMs) {
  try {
    auto settled = run.driver().waitSettle(SettleOptions{run.pid(), mark, pollQuietMs, sliceMs, sliceMs});
    if (!settled.changed) run.driver().axRefresh(pidSelector(run.pid()));
  } catch (const std::exception&) {
    // A failed wait costs only the wait: the caller reads the copy afresh.
  }
}

namespace procedures {

StatementResultRef wait(ScriptRun& run, const Arguments& args) {
  const double n = numberOf(argumentAt(args, 0));
  if (n != 0 && !std::isnan(n)) {
    const double ms = n > 0 && n <= secondsUpTo ? n * 1000 : n;
    if (ms > 0) run.clock().sleepMs(std::min(ms, maxSleepMs));
  }
  run.settlePending();
  if (run.pid() < 1 || run.closed) return callResult();
  try {
    run.driver().axRefresh(pidSelector(run.pid()));
  } catch (const std::exception&) {
    // The fresh read below still waits for the walk the notifications ask for.
  }
  run.rebuildGraph(run.freshSnapshot(run.pid()), pollMenuAgeMs);
  return callResult();
}

StatementResultRef waitFor(ScriptRun& run, const Arguments& args) {
  const std::string text = textOr(argumentAt(args, 0), "");
  const auto* timeoutArgument = argumentAt(args, 1);
  const double timeout = timeoutArgument && !timeoutArgument->isNull() ? numberOf(timeoutArgument) : defaultWaitForMs;
  const cypher::Statement statement = cypher::parseStatement(text);
  const cypher::Query* query = statement.asRead();
  if (!query) throw GlimmerstrandError(codes::invalidArgument, "ui.wait_for には MATCH ... RETURN を渡してください");

  auto& clock = run.clock();
  const std::int64_t start = clock.nowNs();
  const double budgetMs = waitForBudget(timeout);
  run.settlePending();
  std::int64_t lastChange = clock.nowNs();
  for (;;) {
    const NodeList old = run.graph->snapshot().nodes;
    const std::int64_t mark = run.driver().axCounter(pidSelector(run.pid())).second;
    auto found = run.runRead(*query);
    if (!found->rows.empty()) {
      found->kind = "call";
      return found;
    }
    const double remainingMs = budgetMs - msSince(clock, start);
    if (remainingMs <= 0) {
      auto result = callResult();
      result->timedOut = true;
      return result;
    }
    if (msSince(clock, lastChange) >= stillSeconds * 1000) {
      auto result = callResult();
      result->addNote("nothing changed for " + cypher::numberText(stillSeconds) + " s; check the query");
      return result;
    }
    waitForChange(run, mark, static_cast<std::int64_t>(std::min(remainingMs, maxSettleSliceMs)));
    run.rebuildGraph(run.freshSnapshot(run.pid()), pollMenuAgeMs);
    if (!changeLines(old, run.graph->snapshot().nodes, 1).empty()) lastChange = clock.nowNs();
  }
}

StatementResultRef refresh(ScriptRun& run, const Arguments&) {
  run.settlePending();
  run.driver().axRefresh(pidSelector(run.pid()));
  run.rebuildGraph(run.freshSnapshot(run.pid()), 0);
  auto result = callResult();
  result->actions.push_back(succeeded("", "refresh"));
  return result;
}

}  // namespace procedures
}  // namespace glimmerstrand::core
