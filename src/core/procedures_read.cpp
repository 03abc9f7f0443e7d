// The procedures that look at the application or at what lies outside it:
// full texts, an element's actions and attributes, outlines, captures and
// the clipboard. None of them joins the pending write.
#include <algorithm>
#include <cmath>

#include "core/base64.h"
#include "core/change_report.h"
#include "core/element_resolution.h"
#include "core/errors.h"
#include "core/json_value.h"
#include "core/procedure_handlers.h"
#include "core/procedures.h"
#include "core/runner.h"
#include "cypher/unicode_text.h"

namespace glimmerstrand::core {
namespace {

using cypher::Row;

constexpr double defaultTreeLines = 200;
constexpr double minTreeLines = 20;
constexpr double maxTreeLines = 1000;
constexpr std::size_t clipboardActionUnits = 40;

const CaptureOptions screenshotCapture{1568, "jpeg", 0.8, std::nullopt};
const CaptureOptions clipboardCapture{2560, "png", 1.0, std::nullopt};

StatementResultRef rowsResult(std::vector<Row> rows) {
  auto result = callResult();
  result->rows = std::move(rows);
  result->returns = true;
  return result;
}

std::size_t treeLines(const cypher::ScalarValue* argument) {
  double n = argument && !argument->isNull() ? numberOf(argument) : defaultTreeLines;
  if (n == 0 || std::isnan(n)) n = defaultTreeLines;
  return static_cast<std::size_t>(std::clamp(n, minTreeLines, maxTreeLines));
}

// A read-only attribute without a value tells an agent nothing.
bool worthShowing(const InspectResult::Attribute& a) {
  return a.settable || (a.value != "" && a.value != "null" && a.value != "\"\"");
}

// The window with no argument, the element otherwise; settles first, so the
// capture shows what the writes before it did.
Capture captureOf(ScriptRun& run, const Arguments& args, CaptureOptions options) {
  run.settlePending();
  std::optional<GraphNode> target;
  if (args.empty()) {
    for (const auto& n : run.graph->nodes())
      if (n.node().parent < 0) {
        target = n;
        break;
      }
  } else {
    target = resolveNode(run, textOf(&args[0]));
  }
  if (!target || !target->node().frame)
    throw GlimmerstrandError(codes::noAction, "撮る範囲がわかりません。要素の ID を渡してください");
  const Rect& f = *target->node().frame;
  options.pid = run.pid();
  return run.driver().captureRegion(f.x, f.y, f.width, f.height, options);
}

}  // namespace

std::string clippedText(std::string_view text) {
  if (cypher::utf16Length(text) <= clipboardActionUnits) return std::string(text);
  // A cut between the halves of a surrogate pair leaves half of it, which
  // becomes U+FFFD.
  return cypher::utf8(cypher::utf16(text).substr(0, clipboardActionUnits)) + "…";
}

namespace procedures {

StatementResultRef read(ScriptRun& run, const Arguments& args) {
  const GraphNode node = resolveNode(run, textOr(argumentAt(args, 0), ""));
  const ReadTextResult text = run.driver().readText(run.elementRef(node));
  Row row{{"id", idText(node.node())}, {"text", text.text}};
  if (text.truncated) row.set("truncated", true);
  return rowsResult({std::move(row)});
}

StatementResultRef inspect(ScriptRun& run, const Arguments& args) {
  const GraphNode node = resolveNode(run, textOr(argumentAt(args, 0), ""));
  const InspectResult found = run.driver().inspect(run.elementRef(node));
  std::vector<Row> rows;
  for (const auto& a : found.actions)
    rows.push_back(Row{{"kind", "action"}, {"name", a.name}, {"value", a.description}, {"settable", nullptr}});
  for (const auto& a : found.attributes)
    if (worthShowing(a))
      rows.push_back(Row{{"kind", "attribute"}, {"name", a.name}, {"value", a.value}, {"settable", a.settable}});
  return rowsResult(std::move(rows));
}

StatementResultRef tree(ScriptRun& run, const Arguments& args) {
  run.settlePending();
  const GraphNode* root = nullptr;
  std::optional<std::string> missing;
  if (const auto* target = argumentAt(args, 0)) {
    const std::string text = textOf(target);
    try {
      root = run.graph->byIndex(resolveNode(run, text).node().i);
    } catch (const std::exception& e) {
      // A stale id still gets an outline: the whole window, with a word on why.
      if (!hasCode(e, codes::notFound) || run.closed) throw;
      missing = text;
    }
  }
  const auto& graph = *run.graph;
  Outline outline = outlineLines(graph, root, treeLines(argumentAt(args, 1)));

  std::vector<std::string> lines;
  if (missing)
    lines.push_back("(" + *missing + " was not found; ids change when a window is replaced; whole outline below)");
  lines.insert(lines.end(), outline.lines.begin(), outline.lines.end());
  if (outline.lines.size() < outline.total)
    lines.push_back("… " + std::to_string(outline.total - outline.lines.size()) +
                    " more lines; call ui.tree(\"eX\") on a part, or query with MATCH");
  for (const auto& n : graph.nodes())
    if (n.node().focused == true) {
      lines.push_back("focused: " + rowLine(n.node()));
      break;
    }
  auto result = callResult();
  result->outline = std::move(lines);
  return result;
}

StatementResultRef screenshot(ScriptRun& run, const Arguments& args) {
  const Capture capture = captureOf(run, args, screenshotCapture);
  auto result = callResult();
  result->images = std::vector<CypherImage>{
      CypherImage{capture.format, base64Text(capture.bytes), capture.width, capture.height, capture.region}};
  return result;
}

StatementResultRef copyScreenshot(ScriptRun& run, const Arguments& args) {
  const Capture capture = captureOf(run, args, clipboardCapture);
  run.driver().copyImage(capture.bytes);
  auto result = callResult();
  result->actions.push_back(
      succeeded(args.empty() ? "" : textOf(&args[0]),
                "copy_screenshot " + std::to_string(capture.width) + "x" + std::to_string(capture.height) + "px png"));
  return result;
}

StatementResultRef clipboard(ScriptRun& run, const Arguments&) {
  const auto text = run.driver().clipboard();
  return rowsResult({Row{{"text", text ? cypher::RowValue(*text) : cypher::RowValue(nullptr)}}});
}

StatementResultRef setClipboard(ScriptRun& run, const Arguments& args) {
  const std::string text = textOr(argumentAt(args, 0), "");
  run.driver().setClipboard(text);
  auto result = callResult();
  result->actions.push_back(succeeded("", "set_clipboard " + jsonString(clippedText(text))));
  return result;
}

}  // namespace procedures
}  // namespace glimmerstrand::core
