// The statement loop of a run and the operations of ScriptRun that every
// statement shares: snapshots, the graph's life, the shared wait after writes.
#include "core/runner.h"

#include "core/change_report.h"
#include "core/desktop.h"
#include "core/errors.h"
#include "cypher/parser.h"
#include "cypher/projection.h"

namespace glimmerstrand::core {
namespace {

constexpr std::int64_t firstSnapshotMaxAgeMs = 1500;
constexpr std::int64_t freshTimeoutMs = 5000;
constexpr std::size_t sparseNodeCount = 30;
constexpr double sparseDeadlineMs = 5000;
constexpr double sparsePollMs = 250;

bool isAsciiSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }
bool isWordChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;
}
bool isDigit(char c) { return c >= '0' && c <= '9'; }

SnapshotOptions snapshotOptions(AppSelector app, std::optional<std::int64_t> timeoutMs,
                                std::optional<std::int64_t> maxAgeMs) {
  return SnapshotOptions{std::move(app), true, true, timeoutMs, maxAgeMs};
}

AppSelector pidOnly(std::int64_t pid) { return AppSelector{pid, std::nullopt, std::nullopt}; }

bool startsOpen(const std::vector<cypher::Statement>& statements) {
  if (statements.empty()) return false;
  auto call = statements.front().asCall();
  return call && (call->procedure == "ui.open" || call->procedure == "ui.open_url" || call->procedure == "ui.apps");
}

void refuse(const std::vector<cypher::Statement>& statements, bool readOnly) {
  for (const auto& s : statements) {
    auto kind = s.kindName();
    auto call = s.asCall();
    if (readOnly && !s.asRead() && !(call && call->procedure == "ui.apps"))
      throw GlimmerstrandError(codes::invalidArgument,
                               "query は読み取りだけを受け付けます。操作するときは do を使ってください");
    if (kind != "read" && kind != "set" && kind != "call")
      throw GlimmerstrandError(codes::invalidArgument,
                               std::string(kind) + " は使えません。MATCH、SET、CALL を使ってください");
  }
}

}  // namespace

bool scriptReadsMenus(std::string_view s) {
  // The same as :\s*(AppMenuBar|AppMenuBarItem|AppMenu|AppMenuItem)\b|["']m[0-9]+["']
  static constexpr std::string_view labels[] = {"AppMenuBarItem", "AppMenuBar", "AppMenuItem", "AppMenu"};
  for (std::size_t at = 0; at < s.size(); ++at) {
    if (s[at] == ':') {
      std::size_t k = at + 1;
      while (k < s.size() && isAsciiSpace(s[k])) ++k;
      for (auto label : labels)
        if (s.substr(k).starts_with(label) && (k + label.size() == s.size() || !isWordChar(s[k + label.size()])))
          return true;
    } else if ((s[at] == '"' || s[at] == '\'') && at + 2 < s.size() && s[at + 1] == 'm' && isDigit(s[at + 2])) {
      std::size_t k = at + 2;
      while (k < s.size() && isDigit(s[k])) ++k;
      if (k < s.size() && (s[k] == '"' || s[k] == '\'')) return true;
    }
  }
  return false;
}

std::int64_t frontOrFail(UIDriver& driver, Clock& clock, const std::optional<AppSelector>& selector) {
  const bool counts = selector && (selector->pid || (selector->name && !selector->name->empty()) ||
                                   (selector->bundleId && !selector->bundleId->empty()));
  // Whatever is in front, a locked screen takes the input.
  if (driver.screenLocked())
    throw GlimmerstrandError(codes::permission, "画面がロックされているので、キー入力を送りませんでした");
  if (!counts) return driver.frontmost().pid;
  AppInfo app = driver.activate(*selector);
  for (int attempt = 0; attempt < 10; ++attempt) {
    if (driver.frontmost().pid == app.pid) return app.pid;
    clock.sleepMs(30);
  }
  throw GlimmerstrandError(codes::permission, app.name + " を最前面にできないので、キー入力を送りませんでした");
}

CypherRunner::CypherRunner(UIDriver& driver, GraphMemory& memory, Clock& clock, std::optional<EnsureFront> ensureFront)
    : driver_(driver), memory_(memory), clock_(clock) {
  if (ensureFront)
    ensureFront_ = std::move(*ensureFront);
  else
    ensureFront_ = [this](const std::optional<AppSelector>& app) { return frontOrFail(driver_, clock_, app); };
}

namespace {

// Some applications of a Mac drop nearly their whole tree while behind other
// windows; such an application is brought to the front and read again. An
// AT-SPI tree is whole in the background, and a small one is just small.
std::optional<AxSnapshot> frontIfSparse(const CypherRunner& runner, const AxSnapshot& snapshot) {
  if (currentDesktop() == Desktop::linuxDesktop) return std::nullopt;
  const auto& nodes = snapshot.nodes;
  bool hasWindow = false;
  for (const auto& n : nodes) {
    if (n.role == "AXWebArea") return std::nullopt;
    if (n.role == "AXWindow") hasWindow = true;
  }
  if (nodes.empty() || !hasWindow || nodes.size() >= sparseNodeCount) return std::nullopt;
  try {
    if (runner.driver().frontmost().pid == snapshot.pid) return std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;  // without knowing the front, leave the application where it is
  }
  runner.ensureFront(pidOnly(snapshot.pid));
  auto& clock = runner.clock();
  const auto deadline = clock.nowNs() + static_cast<std::int64_t>(sparseDeadlineMs * 1e6);
  AxSnapshot last = snapshot;
  while (clock.nowNs() < deadline) {
    clock.sleepMs(sparsePollMs);
    last = runner.driver().axSnapshot(snapshotOptions(pidOnly(snapshot.pid), freshTimeoutMs, std::nullopt));
    if (last.nodes.size() >= sparseNodeCount) break;
  }
  return last;
}

// What a script that opens an application starts from when its own
// application can't be read: the front application, or, on a desktop with
// nothing in front, no application at all; the opening replaces it anyway.
AxSnapshot openingStart(UIDriver& driver, SnapshotOptions options, bool frontUntried) {
  if (frontUntried) {
    options.app = AppSelector{};
    try {
      return driver.axSnapshot(options);
    } catch (const std::exception&) {
      // nothing in front: fall through to the empty start
    }
  }
  return AxSnapshot{};
}

}  // namespace

CypherResult CypherRunner::run(std::string_view script, const std::optional<AppSelector>& app, bool readOnly) {
  const auto started = clock_.nowNs();
  auto statements = cypher::parseStatements(script);
  refuse(statements, readOnly);

  ScriptRun run(*this, app);
  run.menus = scriptReadsMenus(script);
  const bool opening = startsOpen(statements);

  auto first = snapshotOptions(app.value_or(AppSelector{}), std::nullopt, firstSnapshotMaxAgeMs);
  AxSnapshot snapshot;
  try {
    snapshot = driver_.axSnapshot(first);
  } catch (const std::exception& e) {
    if (!opening || (app && !hasCode(e, codes::notFound))) throw;
    snapshot = openingStart(driver_, first, app.has_value());
  }
  bool broughtForward = false;
  if (!opening) {
    if (auto forward = frontIfSparse(*this, snapshot)) {
      snapshot = std::move(*forward);
      broughtForward = true;
    }
  }
  run.rebuildGraph(std::move(snapshot), 3000);

  CypherResult result;
  for (std::size_t k = 0; k < statements.size(); ++k) {
    run.partial.reset();
    try {
      const auto& statement = statements[k];
      StatementResultRef done;
      if (auto call = statement.asCall()) {
        done = callProcedure(run, *call);
      } else if (auto set = statement.asSet()) {
        done = run.runSet(*set);
      } else {
        run.settlePending();
        done = run.runRead(*statement.asRead());
      }
      result.results.push_back(std::move(done));
    } catch (const std::exception& e) {
      if (run.partial) result.results.push_back(run.partial);
      if (result.results.empty()) throw;
      result.error = StatementError{static_cast<std::int64_t>(k + 1), errorMessage(e)};
      result.errorCode = errorCode(e);
      break;
    }
  }
  run.settlePending();

  if (broughtForward && !result.results.empty()) {
    auto& notes = result.results.front()->notes;
    if (!notes) notes.emplace();
    notes->insert(notes->begin(),
                  run.appName() + " showed almost nothing in the background, so it was brought to the front");
  }
  const auto& last = run.graph->snapshot();
  result.app = last.app.name;
  result.pid = last.pid;
  result.generation = last.generation;
  result.fresh = !last.dirty;
  result.elapsedMs = static_cast<double>(clock_.nowNs() - started) / 1e6;
  return result;
}

AxSnapshot ScriptRun::freshSnapshot(std::int64_t pid) {
  return driver().axSnapshot(snapshotOptions(pidOnly(pid), freshTimeoutMs, std::nullopt));
}

void ScriptRun::rebuildGraph(AxSnapshot snapshot, std::int64_t menuAgeMs) {
  std::vector<AxNode> menuNodes;
  if (menus) menuNodes = driver().axMenus(pidOnly(snapshot.pid), menuAgeMs).nodes.vector();
  // An application unchanged since an earlier graph hands back the very same
  // node list; that graph's tables serve again.
  std::shared_ptr<const AxGraph> earlier;
  for (const auto& kept : runner.memory().graphs(snapshot.pid))
    if (kept->holdsSameNodes(snapshot, menuNodes)) {
      earlier = kept;
      break;
    }
  graph = earlier ? std::make_shared<const AxGraph>(std::move(snapshot), *earlier)
                  : std::make_shared<const AxGraph>(std::move(snapshot), menuNodes);
  runner.memory().remember(graph);
}

void ScriptRun::markPending(const StatementResultRef& result) {
  if (pending) {
    pending->result = result;
    return;
  }
  auto counter = driver().axCounter(pidOnly(pid()));
  pending = Pending{graph->snapshot(), counter.second, result, {}};
}

void ScriptRun::typedUnseen(const StatementResultRef& result) {
  if (pending)
    pending->typedUnseen.push_back(result);
  else
    result->addNote(std::string(typedNote));
}

namespace {

// Text that can't be seen where it was typed may still show in what it did: a
// calculator's display, a list that filtered. Only a tree that did not move at
// all leaves the agent in doubt.
void noteTypingIfNothingChanged(const Pending& settled) {
  const auto& report = *settled.result;
  const bool changed = (report.changes && !report.changes->empty()) || report.outline;
  if (changed) return;
  for (const auto& typed : settled.typedUnseen) typed->addNote(std::string(typedNote));
}

}  // namespace

void ScriptRun::settlePending() {
  if (!pending) return;
  Pending settling = std::move(*pending);
  pending.reset();
  try {
    driver().waitSettle(SettleOptions{pid(), settling.since, 60, 150, std::nullopt});
  } catch (const std::exception&) {
    // A failed wait costs only the wait: the fresh read below still reports.
  }
  AxSnapshot after;
  try {
    after = freshSnapshot(pid());
  } catch (const std::exception& e) {
    if (!hasCode(e, codes::notFound)) {
      noteTypingIfNothingChanged(settling);
      throw;
    }
    settling.result->changes = std::vector<std::string>{"(" + appName() + " closed)"};
    closed = true;
    return;
  }
  const bool held = after.held;
  changeReport(*this, settling, std::move(after));
  noteTypingIfNothingChanged(settling);
  if (held)
    settling.result->addNote(appName() +
                             " answers nothing since this act: it runs a window it opened from within it (a dialog, "
                             "most likely) until that window is answered, and its copy is as it stood. Answer the "
                             "window with ui.click at the point ui.screenshot shows; keys wait until it answers.");
}

void ScriptRun::ensureOpen() const {
  if (closed) throw GlimmerstrandError(codes::notFound, appName() + " は終了しています。ui.open で開き直してください");
}

StatementResultRef ScriptRun::runRead(const cypher::Query& query) {
  ensureOpen();
  auto rows = cypher::executeQuery(query, *graph);
  auto result = std::make_shared<StatementResult>("read");
  if (!query.limit && rows.size() > rowCap) {
    result->total = static_cast<std::int64_t>(rows.size());
    rows.resize(rowCap);
  }
  result->rows = std::move(rows);
  return result;
}

ElementRef elementRefOf(const AxSnapshot& snapshot, const AxNode& node) {
  ElementRef ref{snapshot.pid, snapshot.generation, node.i, node.uid, std::nullopt};
  if (node.menu == true) ref.menu = true;
  return ref;
}

ElementRef ScriptRun::elementRef(const GraphNode& node) const { return elementRefOf(graph->snapshot(), node.node()); }

}  // namespace glimmerstrand::core
