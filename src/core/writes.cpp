// SET statements: each assignment is a command to the driver, one action per
// target, recorded as it happens and reported by the next settle.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/errors.h"
#include "core/runner.h"
#include "cypher/targets.h"

namespace glimmerstrand::core {

const std::string_view typedNote =
    "the keys were sent, but the text could not be seen in the tree (some fields, such as those in web dialogs, do "
    "not expose it); assume it was typed, and check with ui.screenshot before typing again";

namespace {

using cypher::ScalarValue;
using cypher::WriteValue;

constexpr std::string_view usageLines[] = {
    "SET b.pressed = true presses; rows and text that cannot be pressed select the nearest row",
    "SET r.selected = true selects a row",
    "SET f.focused = true focuses",
    "SET f.value = \"text\" replaces the value of a text field",
};

std::string notWritable(const std::string& property) {
  std::string message = property + " は書き換えられません。使えるのは ";
  for (std::size_t k = 0; k < std::size(usageLines); ++k) {
    if (k) message += "、";
    message += usageLines[k];
  }
  return message + " です";
}

std::string scalarJSON(const ScalarValue& v) {
  if (auto d = v.asNumber()) return std::isfinite(*d) ? cypher::numberText(*d) : "null";
  if (auto s = v.asString()) return jsonString(*s);
  return v.text();  // true, false, null
}

std::string scalarText(const ScalarValue& v) { return v.isNull() ? "" : v.text(); }

bool isTrue(const WriteValue* value) {
  if (!value) return false;
  auto s = value->asScalar();
  return s && s->asBool() && *s->asBool();
}

}  // namespace

std::string writeValueJSON(const WriteValue* value) {
  if (!value) return "undefined";
  if (auto s = value->asScalar()) return scalarJSON(*s);
  std::string out = "[";
  if (auto list = value->asList()) {
    for (std::size_t k = 0; k < list->size(); ++k) out += (k ? "," : "") + scalarJSON((*list)[k]);
  } else {
    const auto& maps = *value->asMaps();
    for (std::size_t k = 0; k < maps.size(); ++k) {
      out += k ? ",{" : "{";
      bool first = true;
      maps[k].forEach([&](const std::string& key, const ScalarValue& v) {
        out += (first ? "" : ",") + jsonString(key) + ":" + scalarJSON(v);
        first = false;
      });
      out += '}';
    }
  }
  return out + "]";
}

std::string writeValueText(const WriteValue* value) {
  if (!value) return "";
  if (auto s = value->asScalar()) return scalarText(*s);
  std::string out;
  if (auto list = value->asList()) {
    for (std::size_t k = 0; k < list->size(); ++k) out += (k ? "," : "") + scalarText((*list)[k]);
  } else {
    for (std::size_t k = 0; k < value->asMaps()->size(); ++k) out += k ? ",[object Object]" : "[object Object]";
  }
  return out;
}

namespace {

bool digitsAt(const std::string& text, std::initializer_list<std::size_t> at) {
  return std::all_of(at.begin(), at.end(), [&](std::size_t k) { return text[k] >= '0' && text[k] <= '9'; });
}

// "2026-12-24", "2026-12-24T15:30" or "15:30": the value of a browser's date,
// date-and-time or time field.
struct DateTimeValue {
  std::map<std::string, std::string> date;          // year, month and day; none for a time alone
  std::optional<std::pair<int, std::string>> time;  // hours (0 to 23) and minutes
};

std::optional<std::pair<int, std::string>> timeValue(const std::string& text) {
  if (text.size() != 5 || text[2] != ':' || !digitsAt(text, {0, 1, 3, 4})) return std::nullopt;
  const int hours = std::stoi(text.substr(0, 2));
  if (hours > 23) return std::nullopt;
  return std::pair{hours, text.substr(3, 2)};
}

std::optional<DateTimeValue> dateTimeValue(const std::string& text) {
  if (text.size() == 5) {
    auto time = timeValue(text);
    return time ? std::optional(DateTimeValue{{}, time}) : std::nullopt;
  }
  if (text.size() < 10 || text[4] != '-' || text[7] != '-' || !digitsAt(text, {0, 1, 2, 3, 5, 6, 8, 9}))
    return std::nullopt;
  DateTimeValue value{{{"year", text.substr(0, 4)}, {"month", text.substr(5, 2)}, {"day", text.substr(8, 2)}}, {}};
  if (text.size() == 10) return value;
  if (text.size() != 16 || text[10] != 'T' || !(value.time = timeValue(text.substr(11)))) return std::nullopt;
  return value;
}

// What each of a field's parts takes of the value, in the field's order, as
// the field shows it: with an AM/PM part the hour in 12 hours and the half of
// the day by its letter ("03", "P"), else the hour as it is. None unless the
// parts are exactly the value's.
std::optional<std::vector<std::string>> partTexts(const DateTimeValue& value,
                                                  const std::vector<std::pair<std::string, const AxNode*>>& parts) {
  const bool twelveHours = std::any_of(parts.begin(), parts.end(), [](const auto& p) { return p.first == "am/pm"; });
  auto wanted = value.date;
  if (value.time) {
    const auto& [hours, minutes] = *value.time;
    const int shown = !twelveHours ? hours : hours % 12 == 0 ? 12 : hours % 12;
    wanted["hours"] = (shown < 10 ? "0" : "") + std::to_string(shown);
    wanted["minutes"] = minutes;
    if (twelveHours) wanted["am/pm"] = hours < 12 ? "A" : "P";
  }
  if (parts.size() != wanted.size()) return std::nullopt;
  std::vector<std::string> texts;
  for (const auto& [part, node] : parts) {
    const auto found = wanted.find(part);
    if (found == wanted.end()) return std::nullopt;
    texts.push_back(found->second);
  }
  return texts;
}

// A browser's date or time field holds a part for each of its numbers, named
// by its part first ("Month", or "Month Arrival"): spin buttons, and a text
// field for AM/PM in Firefox. Only its parts take keys, the field itself does
// not. In the field's order: a part typed in full hands the focus to the next.
std::vector<std::pair<std::string, const AxNode*>> dateFieldParts(const AxSnapshot& snapshot, const AxNode& field) {
  static const std::set<std::string> names{"year", "month", "day", "hours", "minutes", "am/pm"};
  std::vector<std::pair<std::string, const AxNode*>> parts;
  const auto& nodes = snapshot.nodes;
  for (auto k = static_cast<std::size_t>(field.i) + 1; k < nodes.size() && nodes[k].depth > field.depth; ++k) {
    const AxNode& n = nodes[k];
    if ((n.role != "AXIncrementor" && n.role != "AXTextField") || !n.title) continue;
    std::string first = n.title->substr(0, n.title->find(' '));
    for (auto& c : first) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (names.contains(first)) parts.emplace_back(first, &n);
  }
  return parts;
}

bool belongsTo(const std::string& variable, const cypher::AggregateArg& arg) {
  if (auto v = std::get_if<cypher::AggregateArg::Variable>(&arg.value)) return v->name == variable;
  if (auto p = std::get_if<cypher::PropertyRef>(&arg.value)) return p->variable == variable;
  return true;  // *
}

bool returnsOnly(const cypher::Query& query, const std::string& variable) {
  for (const auto& item : query.returns) {
    if (std::holds_alternative<cypher::ReturnItem::All>(item.value)) return false;
    if (auto v = std::get_if<cypher::ReturnItem::Variable>(&item.value); v && v->variable != variable) return false;
    if (auto p = std::get_if<cypher::ReturnItem::Property>(&item.value); p && p->variable != variable) return false;
    if (auto a = std::get_if<cypher::AggregateItem>(&item.value); a && !belongsTo(variable, a->arg)) return false;
  }
  for (const auto& order : query.orderBy) {
    if (auto v = std::get_if<cypher::OrderKey::Variable>(&order.key.value); v && v->name != variable) return false;
    if (auto p = std::get_if<cypher::OrderKey::Property>(&order.key.value); p && p->variable != variable) return false;
  }
  return true;
}

}  // namespace

cypher::Query narrowToWritten(const cypher::Query& query, const std::optional<std::string>& variable,
                              const std::vector<std::string>& ids) {
  if (!variable || !returnsOnly(query, *variable)) return query;
  cypher::Query narrowed = query;
  narrowed.pattern = cypher::PatternPart{cypher::NodePattern{*variable, std::nullopt, {}}, {}};
  narrowed.more.clear();
  cypher::ComparisonOperand::List list(ids.begin(), ids.end());
  narrowed.where = cypher::WhereExpr{
      cypher::ComparisonExpr{cypher::PropertyRef{*variable, "id"}, cypher::ComparisonOperator::in, {std::move(list)}}};
  return narrowed;
}

StatementResultRef ScriptRun::runSet(const cypher::SetStatement& statement) {
  settlePending();
  ensureOpen();
  auto result = std::make_shared<StatementResult>("set");
  std::vector<std::vector<cypher::Node>> targets;
  for (const auto& assignment : statement.assignments)
    targets.push_back(cypher::resolveTargets(statement.match, assignment.variable, *graph));
  bool any = false;
  for (const auto& list : targets) {
    if (list.size() > maxWriteTargets)
      throw GlimmerstrandError(codes::invalidArgument, std::to_string(list.size()) + " 個の要素が当てはまりました。" +
                                                           std::to_string(maxWriteTargets) +
                                                           " 個以下になるよう、MATCH の条件を絞ってください");
    any = any || !list.empty();
  }
  if (!any) throw GlimmerstrandError(codes::notFound, "MATCH に当てはまる要素がありません。query で探し直してください");
  markPending(result);

  const auto written = graph;  // writes may not replace it, but the references must outlive any change
  std::vector<std::string> ids;
  for (std::size_t a = 0; a < statement.assignments.size(); ++a) {
    const auto& assignment = statement.assignments[a];
    for (auto node : targets[a]) {
      const auto& target = written->graphNode(node);
      ids.push_back(idText(target.node()));
      writeProperty(target, assignment.property, &assignment.value, written->snapshot(), result);
    }
  }
  partial.reset();
  if (!statement.then) return result;

  settlePending();
  auto read = runRead(narrowToWritten(*statement.then, statement.assignments.front().variable, ids));
  result->rows = std::move(read->rows);
  result->returns = true;
  if (read->total) result->total = read->total;
  return result;
}

void ScriptRun::writeProperty(const GraphNode& node, const std::string& property, const WriteValue* value,
                              const AxSnapshot& snapshot, const StatementResultRef& result) {
  const ElementRef ref = elementRefOf(snapshot, node.node());
  const std::string id = idText(node.node());
  std::string action = property == "value" ? "value=" + writeValueJSON(value) : property;
  try {
    if ((property == "pressed" || property == "selected") && isTrue(value)) {
      driver().press(ref);
    } else if (property == "focused" && isTrue(value)) {
      driver().focus(ref);
      focusedRef = ref;
    } else if (property == "value") {
      const std::string text = writeValueText(value);
      // Firefox shows a time field as a plain group of its parts.
      const bool mayHaveParts = node.node().role == "AXDateField" || node.node().role == "AXGroup";
      const auto date = mayHaveParts ? dateTimeValue(text) : std::nullopt;
      const auto parts =
          date ? dateFieldParts(snapshot, node.node()) : std::vector<std::pair<std::string, const AxNode*>>{};
      const auto texts = date ? partTexts(*date, parts) : std::nullopt;
      if (texts) {
        bool byKeys = false;
        for (std::size_t k = 0; k < parts.size(); ++k)
          byKeys = writeText(*parts[k].second, elementRefOf(snapshot, *parts[k].second), (*texts)[k], result, false) ||
                   byKeys;
        action += byKeys ? " by its parts, by keys" : " by its parts";
      } else if (writeText(node.node(), ref, text, result)) {
        action += " by keys";
      }
    } else {
      throw GlimmerstrandError(codes::invalidArgument, notWritable(property));
    }
  } catch (const std::exception& e) {
    result->actions.push_back(ActionRecord{id, action, false, errorMessage(e)});
    partial = result;
    throw;
  }
  result->actions.push_back(ActionRecord{id, action, true, std::nullopt});
}

bool ScriptRun::writeText(const AxNode& target, const ElementRef& ref, const std::string& text,
                          const StatementResultRef& result, bool selectFirst) {
  try {
    if (driver().setValue(ref, text).applied) return false;
  } catch (const std::exception& e) {
    if (!hasCode(e, codes::noAction)) throw;
  }
  driver().focus(ref);
  focusedRef = ref;
  // Keys typed into a chosen cell replace what it holds, and Return enters
  // them, as a person fills a sheet.
  const bool cell = target.role == "AXCell";
  if (!cell && selectFirst) selectAllIn(ref);
  if (!driver().type(text, ref.pid)) typedUnseen(result);
  if (cell) driver().key("return", ref.pid);
  return true;
}

void ScriptRun::selectAllIn(const ElementRef& ref) {
  try {
    driver().selectAll(ref);
  } catch (const std::exception&) {
    driver().key("cmd+a", ref.pid);  // the keyboard way when the element has no selection of its own
  }
}

}  // namespace glimmerstrand::core
