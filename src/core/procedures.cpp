// The procedure table, the dispatch of CALL statements, and the reading of
// loose literal arguments as texts, numbers and points.
#include "core/procedures.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "core/desktop.h"
#include "core/element_resolution.h"
#include "core/errors.h"
#include "core/procedure_handlers.h"
#include "core/runner.h"
#include "cypher/unicode_text.h"

namespace glimmerstrand::core {
namespace {

struct Entry {
  std::string_view name;
  DesktopText usage;
  ProcedureHandler handler;
};

// A usage line that reads the same on every desktop.
DesktopText same(const std::string& usage) { return DesktopText{usage, usage}; }

const std::vector<Entry>& entries() {
  using namespace procedures;
  static const std::vector<Entry> table{
      {"ui.press", same("ui.press(\"e12\") presses an element; a unique name also works, e.g. ui.press(\"次へ\")"),
       press},
      {"ui.focus", same("ui.focus(\"e12\") focuses an element"), focus},
      {"ui.set_value", same("ui.set_value(\"e12\", \"text\") replaces the value of a text field"), setValue},
      {"ui.key", same("ui.key(\"return\") sends keys straight to the app without bringing it to the front"), key},
      {"ui.type", same("ui.type(\"text\") types into the focused element of the app without bringing it to the front"),
       type},
      {"ui.wait", same("ui.wait(ms) sleeps, up to 5000ms, then reads the window again; 10 or less means seconds"),
       wait},
      {"ui.wait_for",
       same(
           "ui.wait_for(\"MATCH ... RETURN ...\", ms) waits until the query returns a row, up to 10000ms, and gives up "
           "after 3 s without any change; match loosely with CONTAINS and a short word, since guessed exact names "
           "often "
           "miss"),
       waitFor},
      {"ui.apps", same("ui.apps() lists running apps with name, bundleId, pid and active"), apps},
      {"ui.quit",
       {.mac = "ui.quit(\"Spotify\") quits an app without sending keys",
        .linuxDesktop = "ui.quit(\"Calculator\") quits an app without sending keys"},
       quit},
      {"ui.refresh", same("ui.refresh() re-reads the whole window now, when results look stale"), refresh},
      {"ui.read",
       same("ui.read(\"e12\") returns the full text of an element and its descendants, beyond the 120 character cut"),
       read},
      {"ui.scroll",
       same("ui.scroll(\"e12\", \"down\", 3) scrolls the element up, down, left or right by pages; the cursor jumps "
            "there "
            "for a moment and comes back"),
       scroll},
      {"ui.screenshot",
       same("ui.screenshot() or ui.screenshot(\"e12\") returns an image of the window or the element, for things the "
            "tree "
            "does not show"),
       screenshot},
      {"ui.copy_screenshot",
       {.mac = "ui.copy_screenshot() or ui.copy_screenshot(\"e12\") copies a PNG of the window or the element to the "
               "clipboard, to paste into another app with ui.key(\"cmd+v\")",
        .linuxDesktop = "ui.copy_screenshot() or ui.copy_screenshot(\"e12\") copies a PNG of the window or the element "
                        "to the clipboard, to paste into another app with ui.key(\"ctrl+v\")"},
       copyScreenshot},
      {"ui.tree",
       same("ui.tree() or ui.tree(\"e12\") returns an indented outline of the window or one part with ids; start here "
            "to "
            "get oriented, then query with MATCH"),
       tree},
      {"ui.inspect", same("ui.inspect(\"e12\") lists the actions, attributes and settable attributes of one element"),
       inspect},
      {"ui.click",
       same(
           "ui.click(\"e12\"), ui.click(\"e12\", \"right\"), ui.click(\"e12\", \"double\") or ui.click(x, y, \"left\") "
           "clicks with the pointer; use it when SET pressed does not work, for context clicks, or on a point read "
           "from a "
           "screenshot"),
       click},
      {"ui.hover", same("ui.hover(\"e12\") or ui.hover(x, y) moves the pointer there, for things that appear on hover"),
       hover},
      {"ui.drag", same("ui.drag(\"e1\", \"e2\") or ui.drag(x1, y1, x2, y2) drags with the left button"), drag},
      {"ui.menu",
       same("ui.menu(\"e12\") opens the context menu of an element; its items join the tree as Menu and MenuItem with "
            "ids"),
       menu},
      {"ui.windows", same("ui.windows() lists the windows of the app with index and title"), windows},
      {"ui.window",
       same("ui.window(\"title\") or ui.window(1) brings that window to the front and points the following statements "
            "at "
            "it"),
       window},
      {"ui.clipboard", same("ui.clipboard() reads the clipboard text"), clipboard},
      {"ui.set_clipboard", same("ui.set_clipboard(\"text\") replaces the clipboard text"), setClipboard},
      {"ui.open_url",
       same("ui.open_url(\"" + std::string(exampleWebAddress) +
            "\") opens a URL or a file path with its default app and points the following statements at the app in "
            "front"),
       openURL},
      {"ui.open",
       {.mac = "ui.open(\"Spotify\") launches or activates an app, waits for its window, and points the following "
               "statements at it",
        .linuxDesktop = "ui.open(\"Calculator\") launches or activates an app, waits for its window, and points the "
                        "following statements at it"},
       open},
  };
  return table;
}

std::string unknownProcedure(const std::string& name) {
  std::string message = "未知の手続きです: " + name + "。使えるのは ";
  const auto& table = entries();
  for (std::size_t k = 0; k < table.size(); ++k) {
    if (k) message += "、";
    message += table[k].name;
  }
  return message + " です";
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

std::size_t digitsAt(std::string_view s, std::size_t at) {
  std::size_t end = at;
  while (end < s.size() && isDigit(s[end])) ++end;
  return end - at;
}

// ^[+-]?([0-9]+\.?[0-9]*|\.[0-9]+)([eE][+-]?[0-9]+)?$
bool isDecimal(std::string_view s) {
  std::size_t at = (!s.empty() && (s[0] == '+' || s[0] == '-')) ? 1 : 0;
  const std::size_t whole = digitsAt(s, at);
  at += whole;
  if (whole > 0) {
    if (at < s.size() && s[at] == '.') at += 1 + digitsAt(s, at + 1);
  } else {
    if (at >= s.size() || s[at] != '.') return false;
    const std::size_t fraction = digitsAt(s, at + 1);
    if (fraction == 0) return false;
    at += 1 + fraction;
  }
  if (at < s.size() && (s[at] == 'e' || s[at] == 'E')) {
    ++at;
    if (at < s.size() && (s[at] == '+' || s[at] == '-')) ++at;
    const std::size_t exponent = digitsAt(s, at);
    if (exponent == 0) return false;
    at += exponent;
  }
  return at == s.size();
}

double decimalValue(std::string_view s) {
  const std::string_view number = s.front() == '+' ? s.substr(1) : s;
  double value = 0;
  auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
  // Out of range: the nearest double, an infinity or zero, as strtod gives.
  if (error != std::errc() || end != number.data() + number.size())
    value = std::strtod(std::string(number).c_str(), nullptr);
  return value;
}

}  // namespace

const std::vector<ProcedureInfo>& procedureTable(Desktop desktop) {
  auto tableOf = [](Desktop of) {
    std::vector<ProcedureInfo> out;
    for (const auto& e : entries()) out.push_back(ProcedureInfo{e.name, e.usage.in(of)});
    return out;
  };
  static const std::vector<ProcedureInfo> mac = tableOf(Desktop::mac);
  static const std::vector<ProcedureInfo> linuxDesktop = tableOf(Desktop::linuxDesktop);
  return desktop == Desktop::linuxDesktop ? linuxDesktop : mac;
}

const std::vector<ProcedureInfo>& procedureTable() { return procedureTable(currentDesktop()); }

StatementResultRef callProcedure(ScriptRun& run, const cypher::CallStatement& call) {
  for (const auto& e : entries())
    if (e.name == call.procedure) return e.handler(run, call.args);
  throw GlimmerstrandError(codes::invalidArgument, unknownProcedure(call.procedure));
}

StatementResultRef callResult() { return std::make_shared<StatementResult>("call"); }

ActionRecord succeeded(std::string id, std::string action) {
  return ActionRecord{std::move(id), std::move(action), true, std::nullopt};
}

AppSelector pidSelector(std::int64_t pid) { return AppSelector{pid, std::nullopt, std::nullopt}; }

const cypher::ScalarValue* argumentAt(const std::vector<cypher::ScalarValue>& args, std::size_t at) {
  return at < args.size() ? &args[at] : nullptr;
}

std::string textOf(const cypher::ScalarValue* argument) { return argument ? argument->text() : "undefined"; }

std::string textOr(const cypher::ScalarValue* argument, std::string_view fallback) {
  if (!argument || argument->isNull()) return std::string(fallback);
  return textOf(argument);
}

double numberOf(const cypher::ScalarValue* argument) {
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  constexpr double infinity = std::numeric_limits<double>::infinity();
  if (!argument) return nan;
  if (argument->isNull()) return 0;
  if (auto b = argument->asBool()) return *b ? 1 : 0;
  if (auto d = argument->asNumber()) return *d;
  const std::string_view s = cypher::trimmedText(*argument->asString());
  if (s.empty()) return 0;
  if (s == "Infinity" || s == "+Infinity") return infinity;
  if (s == "-Infinity") return -infinity;
  return isDecimal(s) ? decimalValue(s) : nan;
}

PointArgument pointArgument(ScriptRun& run, const std::vector<cypher::ScalarValue>& args) {
  if (args.size() >= 2 && args[0].isNumber() && args[1].isNumber())
    return PointArgument{*args[0].asNumber(), *args[1].asNumber(), std::nullopt, {args.begin() + 2, args.end()}};
  const std::string text = textOr(argumentAt(args, 0), "");
  const GraphNode node = resolveNode(run, text);
  if (!node.node().frame)
    throw GlimmerstrandError(codes::noAction, text + " は位置がわからないので、ポインタで操作できません");
  const Rect& f = *node.node().frame;
  std::vector<cypher::ScalarValue> rest;
  if (!args.empty()) rest.assign(args.begin() + 1, args.end());
  return PointArgument{f.x + f.width / 2, f.y + f.height / 2, idText(node.node()), std::move(rest)};
}

std::string pointText(double x, double y, const std::optional<std::string>& id) {
  if (id) return *id;
  return cypher::numberText(std::floor(x + 0.5)) + "," + cypher::numberText(std::floor(y + 0.5));
}

}  // namespace glimmerstrand::core
