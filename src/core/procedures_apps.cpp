// The procedures that move the rest of a script to another application or
// window, or that list them: open, open_url, quit, window, apps, windows.
#include "core/desktop.h"
#include "core/errors.h"
#include "core/json_value.h"
#include "core/procedure_handlers.h"
#include "core/procedures.h"
#include "core/runner.h"

namespace glimmerstrand::core {
namespace {

using cypher::Row;

constexpr double openDeadlineMs = 10000;
constexpr double openSteadyMs = 3000;
constexpr double openPollMs = 250;
constexpr std::size_t openTextNodes = 5;  // a window with this much text has drawn its content
constexpr double openURLDelayMs = 300;
constexpr std::int64_t openMenuAgeMs = 3000;

std::int64_t msAhead(Clock& clock, double ms) { return clock.nowNs() + static_cast<std::int64_t>(ms * 1e6); }

std::size_t textNodes(const AxSnapshot& snapshot) {
  std::size_t count = 0;
  for (const auto& n : snapshot.nodes)
    for (const auto* field : {&n.title, &n.description, &n.value})
      if (*field && !(*field)->empty()) {
        ++count;
        break;
      }
  return count;
}

// A launched application first shows an empty window, then fills it; the
// graph is built once it has some text and its size has stopped moving.
AxSnapshot loadedSnapshot(ScriptRun& run, std::int64_t pid) {
  auto& clock = run.clock();
  const std::int64_t deadline = msAhead(clock, openDeadlineMs);
  AxSnapshot snapshot = run.freshSnapshot(pid);
  while (textNodes(snapshot) < openTextNodes && clock.nowNs() < deadline) {
    clock.sleepMs(openPollMs);
    snapshot = run.freshSnapshot(pid);
  }
  const std::int64_t steady = std::min(msAhead(clock, openSteadyMs), deadline);
  while (clock.nowNs() < steady) {
    clock.sleepMs(openPollMs);
    AxSnapshot next = run.freshSnapshot(pid);
    const bool same = next.nodes.size() == snapshot.nodes.size();
    snapshot = std::move(next);
    if (same) break;
  }
  return snapshot;
}

// The statements after an open work on the new graph, of an application that
// is open whatever became of the one the run started on.
void startOn(ScriptRun& run, AxSnapshot snapshot) {
  run.rebuildGraph(std::move(snapshot), openMenuAgeMs);
  run.closed = false;
}

const std::string& openWithoutName() {
  static const DesktopText text{
      .mac = "ui.open にはアプリの名前を渡してください。例: ui.open(\"Spotify\")",
      .linuxDesktop = "ui.open にはアプリの名前を渡してください。例: ui.open(\"Calculator\")",
  };
  return text();
}

const std::string& quitWithoutName() {
  static const DesktopText text{
      .mac = "ui.quit にはアプリの名前を渡してください。例: ui.quit(\"Spotify\")",
      .linuxDesktop = "ui.quit にはアプリの名前を渡してください。例: ui.quit(\"Calculator\")",
  };
  return text();
}

StatementResultRef rowsResult(StatementResultRef result, std::vector<Row> rows) {
  result->rows = std::move(rows);
  result->returns = true;
  return result;
}

}  // namespace

namespace procedures {

StatementResultRef apps(ScriptRun& run, const Arguments&) {
  std::vector<Row> rows;
  for (const auto& app : run.driver().apps())
    rows.push_back(Row{{"name", app.name}, {"bundleId", app.bundleId}, {"pid", app.pid}, {"active", app.active}});
  return rowsResult(callResult(), std::move(rows));
}

StatementResultRef open(ScriptRun& run, const Arguments& args) {
  const std::string name = textOr(argumentAt(args, 0), "");
  if (name.empty()) throw GlimmerstrandError(codes::invalidArgument, openWithoutName());
  run.settlePending();
  const AppInfo app = run.driver().launch(name);
  auto result = callResult();
  result->actions.push_back(succeeded("", "open " + jsonString(app.name)));
  run.app = pidSelector(app.pid);
  AxSnapshot snapshot = loadedSnapshot(run, app.pid);
  const auto elements = static_cast<std::int64_t>(snapshot.nodes.size());
  startOn(run, std::move(snapshot));
  return rowsResult(std::move(result), {Row{{"app", app.name}, {"pid", app.pid}, {"elements", elements}}});
}

StatementResultRef openURL(ScriptRun& run, const Arguments& args) {
  const std::string target = textOr(argumentAt(args, 0), "");
  if (target.empty())
    throw GlimmerstrandError(codes::invalidArgument, "ui.open_url には URL を渡してください。例: ui.open_url(\"" +
                                                         std::string(exampleWebAddress) + "\")");
  run.settlePending();
  const auto taken = run.driver().openURL(target);
  auto result = callResult();
  result->actions.push_back(succeeded("", "open_url " + jsonString(target)));
  const AppInfo app = taken ? *taken : run.driver().frontmost();
  run.app = pidSelector(app.pid);
  run.clock().sleepMs(openURLDelayMs);
  startOn(run, run.freshSnapshot(app.pid));
  return rowsResult(std::move(result), {Row{{"app", app.name}, {"pid", app.pid}}});
}

StatementResultRef quit(ScriptRun& run, const Arguments& args) {
  run.settlePending();
  const std::string name = textOr(argumentAt(args, 0), "");
  if (name.empty()) throw GlimmerstrandError(codes::invalidArgument, quitWithoutName());
  const QuitResult quit = run.driver().quit(AppSelector{std::nullopt, std::nullopt, name});
  auto result = callResult();
  // Not quitting is an answer, not a failure: the script goes on.
  result->actions.push_back(ActionRecord{
      "", "quit " + jsonString(quit.name), quit.terminated,
      quit.terminated
          ? std::nullopt
          : std::optional<std::string>("終了しませんでした。保存を確かめるダイアログが出ているかもしれません")});
  return result;
}

StatementResultRef windows(ScriptRun& run, const Arguments&) {
  std::vector<Row> rows;
  for (const auto& w : run.driver().windows(pidSelector(run.pid())))
    rows.push_back(Row{{"index", w.index}, {"title", w.title}, {"main", w.main}, {"minimized", w.minimized}});
  return rowsResult(callResult(), std::move(rows));
}

StatementResultRef window(ScriptRun& run, const Arguments& args) {
  run.settlePending();
  const auto* choice = argumentAt(args, 0);
  const WindowSelector selector =
      choice && choice->isNumber() ? WindowSelector{*choice->asNumber()} : WindowSelector{textOr(choice, "")};
  const std::string title = run.driver().raiseWindow(pidSelector(run.pid()), selector);
  run.driver().axRefresh(pidSelector(run.pid()));
  run.rebuildGraph(run.freshSnapshot(run.pid()), 0);
  auto result = callResult();
  result->actions.push_back(succeeded("", "window " + jsonString(title)));
  return result;
}

}  // namespace procedures
}  // namespace glimmerstrand::core
