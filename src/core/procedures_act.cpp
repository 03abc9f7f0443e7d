// The procedures that change something in the application. Each joins the
// run's pending write, so the settle that follows reports its effect. Keys go
// to an application in the background; the pointer needs it in front.
#include <algorithm>
#include <cmath>
#include <functional>
#include <set>

#include "core/change_report.h"
#include "core/element_resolution.h"
#include "core/errors.h"
#include "core/json_value.h"
#include "core/procedure_handlers.h"
#include "core/procedures.h"
#include "core/runner.h"

namespace glimmerstrand::core {
namespace {

constexpr double scrollPageShare = 0.8;
constexpr double minScrollPage = 40;
constexpr double maxScrollPages = 20;
constexpr double scrollRefreshDelayMs = 250;
constexpr std::int64_t menuShowsWithinMs = 1500;
// Longer than toolkits' default double-click time (GTK's is 400 ms).
constexpr std::int64_t doubleClickMs = 500;
constexpr std::int64_t msNs = 1'000'000;

// press, focus and set_value are writes of one property on one element.
StatementResultRef writeOne(ScriptRun& run, const Arguments& args, const std::string& property,
                            const cypher::WriteValue* value) {
  const GraphNode node = resolveNode(run, textOr(argumentAt(args, 0), ""));
  auto result = callResult();
  run.markPending(result);
  const auto graph = run.graph;  // the snapshot the reference is built from
  run.writeProperty(node, property, value, graph->snapshot(), result);
  return result;
}

bool isOpenMenu(const AxNode& n) { return n.role == "AXMenu" || (n.role == "AXMenuBarItem" && n.selected == true); }

// The open menus of a copy, by uid.
std::set<std::int64_t> openMenus(const NodeList& nodes) {
  std::set<std::int64_t> uids;
  for (const auto& n : nodes)
    if (isOpenMenu(n)) uids.insert(n.uid.value_or(0));
  return uids;
}

// A menu shows a moment after what opens it, later still on a busy machine.
// The report waits for it, so that the agent reads the menu it asked for. A
// menu the copy held before counts only once it has gone and come back: the
// one an agent just closed may still be in the copy when it opens the next.
// A right click that comes while the application still lets go of a menu
// just closed is lost without a sound (GTK 3, a moment after an item was
// pressed): with `again`, a click after which the settled copy shows no menu
// at all is made once more. A menu that opens shows within that settle.
void reportOnceAMenuShows(ScriptRun& run, const StatementResultRef& result, const std::set<std::int64_t>& before,
                          const std::function<void()>& again = nullptr) {
  const Pending opening = *run.pending;
  run.settlePending();
  if (run.closed) return;
  bool seenWithout = before.empty();
  auto shows = [&](const NodeList& nodes) {
    const auto open = openMenus(nodes);
    if (open.empty()) seenWithout = true;
    return !open.empty() && (seenWithout || !std::includes(before.begin(), before.end(), open.begin(), open.end()));
  };
  if (shows(run.graph->snapshot().nodes)) return;
  if (again && openMenus(run.graph->snapshot().nodes).empty()) again();
  auto& clock = run.clock();
  const std::int64_t start = clock.nowNs();
  bool anyOpen = false;
  for (;;) {
    const std::int64_t remainingMs = menuShowsWithinMs - (clock.nowNs() - start) / msNs;
    if (remainingMs <= 0) break;
    waitForChange(run, run.driver().axCounter(pidSelector(run.pid())).second, remainingMs);
    auto snapshot = run.freshSnapshot(run.pid());
    anyOpen = !openMenus(snapshot.nodes).empty();
    if (shows(snapshot.nodes)) {
      changeReport(run, opening, std::move(snapshot));
      return;
    }
  }
  // A toolkit that opens the same menu object again, between two walks, is
  // seen with the menu open all along.
  if (!anyOpen) result->addNote("no menu showed within " + cypher::numberText(menuShowsWithinMs / 1000.0) + " s");
}

// Keys and text: a failure still shows what was tried.
template <typename Send>
StatementResultRef input(ScriptRun& run, const std::string& action, Send send) {
  auto result = callResult();
  run.markPending(result);
  try {
    send();
  } catch (const std::exception& e) {
    result->actions.push_back(ActionRecord{"", action, false, errorMessage(e)});
    run.partial = result;
    throw;
  }
  result->actions.push_back(succeeded("", action));
  return result;
}

void frontForPointer(ScriptRun& run) { run.runner.ensureFront(run.app ? run.app : pidSelector(run.pid())); }

std::string lowerAscii(std::string text) {
  for (auto& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

std::optional<Rect> intersection(const Rect& a, const Rect& b) {
  const double left = std::max(a.x, b.x), top = std::max(a.y, b.y);
  const double right = std::min(a.x + a.width, b.x + b.width), bottom = std::min(a.y + a.height, b.y + b.height);
  if (right - left <= 0 || bottom - top <= 0) return std::nullopt;
  return Rect{left, top, right - left, bottom - top};
}

bool clipsChildren(const std::optional<std::string>& role) {
  return role == "AXScrollArea" || role == "AXWindow" || role == "AXSheet";
}

}  // namespace

void sendKeys(ScriptRun& run, const std::string& keys) {
  if (run.focusedRef) {
    try {
      run.driver().focus(*run.focusedRef);
    } catch (const std::exception&) {
      // Focus is a courtesy here: the keys still go to the application.
    }
    if (lowerAscii(keys) == "cmd+a") {
      run.selectAllIn(*run.focusedRef);
      return;
    }
  }
  run.driver().key(keys, run.pid());
}

bool typeText(ScriptRun& run, const std::string& text) {
  if (run.focusedRef) {
    try {
      run.driver().focus(*run.focusedRef);
    } catch (const std::exception&) {
      // As for keys: typing goes on into whatever holds the focus.
    }
  }
  return run.driver().type(text, run.pid());
}

std::optional<Rect> visibleFrame(const AxGraph& graph, const GraphNode& node) {
  if (!node.node().frame) return std::nullopt;
  Rect visible = *node.node().frame;
  const GraphNode* at = graph.byIndex(node.node().parent);
  // A malformed tree could loop; no real chain is longer than the graph.
  for (std::size_t steps = 0; at && steps < graph.nodes().size(); ++steps, at = graph.byIndex(at->node().parent)) {
    if (!at->node().frame || !clipsChildren(at->node().role)) continue;
    auto clipped = intersection(visible, *at->node().frame);
    if (!clipped) return node.node().frame;
    visible = *clipped;
  }
  return visible;
}

namespace procedures {

StatementResultRef press(ScriptRun& run, const Arguments& args) {
  const cypher::WriteValue yes{cypher::ScalarValue(true)};
  return writeOne(run, args, "pressed", &yes);
}

StatementResultRef focus(ScriptRun& run, const Arguments& args) {
  const cypher::WriteValue yes{cypher::ScalarValue(true)};
  return writeOne(run, args, "focused", &yes);
}

StatementResultRef setValue(ScriptRun& run, const Arguments& args) {
  const auto* given = argumentAt(args, 1);
  const std::optional<cypher::WriteValue> value =
      given ? std::optional(cypher::WriteValue{*given}) : std::nullopt;  // missing: no value, an empty field
  return writeOne(run, args, "value", value ? &*value : nullptr);
}

StatementResultRef key(ScriptRun& run, const Arguments& args) {
  const std::string keys = textOf(argumentAt(args, 0));
  return input(run, "key " + jsonString(keys), [&] { sendKeys(run, keys); });
}

StatementResultRef type(ScriptRun& run, const Arguments& args) {
  const std::string text = textOf(argumentAt(args, 0));
  bool seen = true;
  auto result = input(run, "type " + jsonString(text), [&] { seen = typeText(run, text); });
  if (!seen && !text.empty()) run.typedUnseen(result);
  return result;
}

StatementResultRef click(ScriptRun& run, const Arguments& args) {
  const PointArgument at = pointArgument(run, args);
  frontForPointer(run);
  auto result = callResult();
  run.markPending(result);
  const std::string button = textOr(argumentAt(at.rest, 0), "left");
  if (button != "left" && button != "right" && button != "double")
    throw GlimmerstrandError(codes::invalidArgument, "ボタンは left、right、double のどれかにしてください: " + button);
  run.driver().click(at.x, at.y, ClickOptions{button == "right" ? "right" : "left", button == "double" ? 2 : 1});
  result->actions.push_back(succeeded(at.id.value_or(""), "click " + button + " " + pointText(at.x, at.y)));
  return result;
}

StatementResultRef hover(ScriptRun& run, const Arguments& args) {
  const PointArgument at = pointArgument(run, args);
  frontForPointer(run);
  auto result = callResult();
  run.markPending(result);
  run.driver().move(at.x, at.y);
  result->actions.push_back(succeeded(at.id.value_or(""), "hover " + pointText(at.x, at.y)));
  return result;
}

StatementResultRef drag(ScriptRun& run, const Arguments& args) {
  const PointArgument from = pointArgument(run, args);
  const PointArgument to = pointArgument(run, from.rest);
  frontForPointer(run);
  auto result = callResult();
  run.markPending(result);
  run.driver().drag(from.x, from.y, to.x, to.y);
  result->actions.push_back(
      succeeded("", "drag " + pointText(from.x, from.y, from.id) + " -> " + pointText(to.x, to.y, to.id)));
  return result;
}

StatementResultRef scroll(ScriptRun& run, const Arguments& args) {
  const std::string target = textOr(argumentAt(args, 0), "");
  const std::string direction = textOr(argumentAt(args, 1), "down");
  const auto* amountArgument = argumentAt(args, 2);
  const double amount = amountArgument && !amountArgument->isNull() ? numberOf(amountArgument) : 1;

  const GraphNode node = resolveNode(run, target);
  const auto frame = visibleFrame(*run.graph, node);
  if (!frame) throw GlimmerstrandError(codes::noAction, target + " は位置がわからないので、スクロールできません");
  const bool sideways = direction == "left" || direction == "right";
  const double page =
      std::max(std::floor((sideways ? frame->width : frame->height) * scrollPageShare + 0.5), minScrollPage);
  double pages = std::floor(amount + 0.5);
  if (pages == 0 || std::isnan(pages)) pages = 1;
  const double delta = page * std::clamp(pages, 1.0, maxScrollPages);
  ScrollDelta scroll;
  if (direction == "up")
    scroll.dy = delta;
  else if (direction == "down")
    scroll.dy = -delta;
  else if (direction == "left")
    scroll.dx = delta;
  else if (direction == "right")
    scroll.dx = -delta;
  else
    throw GlimmerstrandError(codes::invalidArgument,
                             "向きは up、down、left、right のどれかにしてください: " + direction);
  scroll.x = frame->x + frame->width / 2;
  scroll.y = frame->y + frame->height / 2;

  auto result = callResult();
  run.markPending(result);
  run.driver().scroll(scroll);
  result->actions.push_back(succeeded(idText(node.node()), "scroll " + direction + " " + cypher::numberText(amount)));
  // The wheel moves the view after the event returns; ask for a walk once it has.
  run.clock().sleepMs(scrollRefreshDelayMs);
  run.driver().axRefresh(pidSelector(run.pid()));
  return result;
}

StatementResultRef menu(ScriptRun& run, const Arguments& args) {
  const GraphNode node = resolveNode(run, textOr(argumentAt(args, 0), ""));
  const std::string id = idText(node.node());
  const auto before = openMenus(run.graph->snapshot().nodes);
  auto result = callResult();
  run.markPending(result);
  try {
    run.driver().showMenu(run.elementRef(node));
    result->actions.push_back(succeeded(id, "menu"));
  } catch (const std::exception& e) {
    if (!hasCode(e, codes::noAction)) throw;
    // No menu action: a right click on the element opens the same menu.
    const PointArgument at = pointArgument(run, {cypher::ScalarValue(id)});
    frontForPointer(run);
    std::int64_t clickedAt = run.clock().nowNs();
    const auto rightClick = [&] {
      // Two clicks at one place within the double-click time are a double
      // click, which opens no menu.
      const std::int64_t sinceMs = (run.clock().nowNs() - clickedAt) / msNs;
      if (sinceMs < doubleClickMs) run.clock().sleepMs(static_cast<double>(doubleClickMs - sinceMs));
      run.driver().click(at.x, at.y, ClickOptions{"right", 1});
    };
    run.driver().click(at.x, at.y, ClickOptions{"right", 1});
    clickedAt = run.clock().nowNs();
    result->actions.push_back(succeeded(id, "menu by right click"));
    reportOnceAMenuShows(run, result, before, rightClick);
    return result;
  }
  reportOnceAMenuShows(run, result, before);
  return result;
}

}  // namespace procedures
}  // namespace glimmerstrand::core
