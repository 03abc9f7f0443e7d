#include "server/result_text.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <unordered_set>

#include "core/json_value.h"

namespace glimmerstrand::server {
namespace {

using core::JSONValue;
using cypher::RowValue;

std::string joined(const std::vector<std::string>& lines, std::string_view separator) {
  std::string out;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i > 0) out += separator;
    out += lines[i];
  }
  return out;
}

// The canonical text of an unsigned 32-bit integer below 2^32 - 1: what a
// JavaScript engine treats as an array index and lists first.
std::optional<std::uint32_t> indexKey(const std::string& key) {
  if (key.empty() || key.size() > 10) return std::nullopt;
  if (key.size() > 1 && key[0] == '0') return std::nullopt;
  std::uint64_t value = 0;
  for (char c : key) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  if (value > 4294967294ULL) return std::nullopt;
  return static_cast<std::uint32_t>(value);
}

// A row value as JSON with map keys in display order at every depth.
JSONValue displayJSON(const RowValue& value) {
  if (auto scalar = value.asScalar()) return core::jsonValue(RowValue(*scalar));
  if (auto list = value.asList()) {
    JSONValue::Array array;
    for (const auto& item : *list) array.push_back(displayJSON(item));
    return array;
  }
  const auto& map = *value.asMap();
  JSONValue::Object object;
  for (const auto& key : orderedKeys(map.keys())) object.emplace_back(key, displayJSON(*map.get(key)));
  return object;
}

const std::string* stringAt(const RowValue::Map& map, std::string_view key) {
  auto value = map.get(key);
  if (!value) return nullptr;
  auto scalar = value->asScalar();
  return scalar ? scalar->asString() : nullptr;
}

std::optional<bool> boolAt(const RowValue::Map& map, std::string_view key) {
  auto value = map.get(key);
  if (!value || !value->asScalar() || !value->asScalar()->asBool()) return std::nullopt;
  return *value->asScalar()->asBool();
}

// `e7 TextField "Search" = "abc" placeholder="Type here" #search focused`.
std::string nodeForm(const RowValue::Map& map) {
  std::vector<std::string> pieces{*stringAt(map, "id"), *stringAt(map, "_label")};
  const std::string* name = stringAt(map, "name");
  if (name) pieces.push_back(core::jsonString(*name));
  if (auto description = stringAt(map, "description")) pieces.push_back("desc=" + core::jsonString(*description));
  if (auto value = stringAt(map, "value"); value && (!name || *value != *name))
    pieces.push_back("= " + core::jsonString(*value));
  if (auto placeholder = stringAt(map, "placeholder"); placeholder && (!name || *placeholder != *name))
    pieces.push_back("placeholder=" + core::jsonString(*placeholder));
  if (auto identifier = stringAt(map, "identifier")) pieces.push_back("#" + *identifier);
  if (boolAt(map, "enabled") == false) pieces.push_back("disabled");
  if (boolAt(map, "focused") == true) pieces.push_back("focused");
  return joined(pieces, " ");
}

std::string stringCell(const std::string& text) {
  bool breaksTable = text.empty() || text == "null" || text.find_first_of("\t\n\r") != std::string::npos;
  return breaksTable ? core::jsonString(text) : text;
}

// floor(x + 0.5), as the number text prints it.
std::string pointText(double value) { return cypher::numberText(std::floor(value + 0.5)); }

std::string actionLine(const core::ActionRecord& action) {
  std::string line = action.ok ? "ok" : "failed";
  std::vector<std::string> parts;
  if (!action.id.empty()) parts.push_back(action.id);
  if (!action.action.empty()) parts.push_back(action.action);
  if (!parts.empty()) line += " " + joined(parts, " ");
  if (action.error && !action.error->empty()) line += ": " + *action.error;
  return line;
}

std::string imageLine(const core::CypherImage& image) {
  return "(image " + std::to_string(image.width) + "x" + std::to_string(image.height) + "px " + image.format + " of " +
         pointText(image.region.width) + "x" + pointText(image.region.height) + "pt at " + pointText(image.region.x) +
         "," + pointText(image.region.y) + ")";
}

void appendStatement(std::vector<std::string>& lines, const core::StatementResult& result) {
  for (const auto& action : result.actions) lines.push_back(actionLine(action));
  if (result.changes) {
    if (result.changes->empty()) lines.emplace_back("(no visible change)");
    lines.insert(lines.end(), result.changes->begin(), result.changes->end());
  }
  if (result.images)
    for (const auto& image : *result.images) lines.push_back(imageLine(image));
  if (result.outline) lines.insert(lines.end(), result.outline->begin(), result.outline->end());
  if (result.notes)
    for (const auto& note : *result.notes) lines.push_back("note: " + note);
  if (result.timedOut == true) {
    lines.emplace_back("(timed out)");
    return;
  }
  if (result.kind == "read" || result.returns == true || !result.rows.empty()) {
    auto table = renderTable(result.rows, result.total);
    lines.insert(lines.end(), table.begin(), table.end());
  }
}

}  // namespace

std::vector<std::string> orderedKeys(const std::vector<std::string>& keys) {
  std::vector<std::pair<std::uint32_t, std::string>> indices;
  std::vector<std::string> others;
  for (const auto& key : keys) {
    if (auto index = indexKey(key))
      indices.emplace_back(*index, key);
    else
      others.push_back(key);
  }
  std::stable_sort(indices.begin(), indices.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string> out;
  out.reserve(keys.size());
  for (auto& [index, key] : indices) out.push_back(std::move(key));
  for (auto& key : others) out.push_back(std::move(key));
  return out;
}

std::string cellText(const RowValue* value) {
  if (!value) return "null";
  if (auto scalar = value->asScalar()) {
    if (scalar->isNull()) return "null";
    if (auto b = scalar->asBool()) return *b ? "true" : "false";
    if (auto n = scalar->asNumber()) return core::jsonText(JSONValue(*n));
    return stringCell(*scalar->asString());
  }
  if (auto map = value->asMap(); map && stringAt(*map, "_label") && stringAt(*map, "id")) return nodeForm(*map);
  return core::jsonText(displayJSON(*value));
}

std::vector<std::string> renderTable(const std::vector<cypher::Row>& rows, std::optional<std::int64_t> total) {
  if (rows.empty()) return {"(no rows)"};
  std::vector<std::string> columns;
  std::unordered_set<std::string> seen;
  for (const auto& row : rows)
    for (const auto& key : orderedKeys(row.keys()))
      if (seen.insert(key).second) columns.push_back(key);
  std::vector<std::string> lines{joined(columns, "\t")};
  for (const auto& row : rows) {
    std::vector<std::string> cells;
    cells.reserve(columns.size());
    for (const auto& column : columns) cells.push_back(cellText(row.get(column)));
    lines.push_back(joined(cells, "\t"));
  }
  if (total)
    lines.push_back("(" + std::to_string(rows.size()) + " of " + std::to_string(*total) + " rows; add LIMIT or SKIP)");
  return lines;
}

std::string retryHint(const std::optional<std::string>& code, std::int64_t statement) {
  std::string hint = "retry once; if it fails again, tell the user";
  if (code == "not_found" || code == "stale")
    hint = "read the window again (ui.tree or MATCH), then retry with the new ids or a MATCH on names";
  else if (code == "timeout")
    hint = "safe to retry as is";
  else if (code == "busy")
    hint = "another agent is using this app; wait a few seconds, then retry as is";
  else if (code == "permission")
    hint = "do not retry; tell the user what to allow";
  else if (code == "invalid_argument")
    hint = "fix the statement, then retry";
  else if (code == "focus_not_moved")
    hint = "click the field with ui.click on its center, then ui.type; do not type before the focus moves";
  else if (code == "no_action")
    hint = "the element does not support this; try another way, such as ui.click or ui.inspect";
  else if (code == "no_desktop")
    // Calling again changes nothing until a desktop runs; then the next call finds it.
    hint =
        "there is no desktop to work on; tell the user what the message says is missing, and call again once it "
        "runs";
  if (statement >= 2)
    return "statements before #" + std::to_string(statement) + " already ran, so do not repeat them; " + hint;
  return hint;
}

std::string roundHalfUp(double value) {
  if (!std::isfinite(value)) return cypher::numberText(value);
  if (value < 0) return "-" + roundHalfUp(-value);
  double whole = std::floor(value);
  if (value - whole >= 0.5) whole += 1;
  return cypher::numberText(whole);
}

std::string renderResultText(const core::CypherResult& result) {
  bool numbered = result.results.size() >= 2 || result.error.has_value();
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < result.results.size(); ++i) {
    if (numbered) lines.push_back("#" + std::to_string(i + 1));
    appendStatement(lines, *result.results[i]);
  }
  if (result.error) {
    lines.push_back("error in #" + std::to_string(result.error->statement) + ": " + result.error->message);
    lines.push_back("retry: " + retryHint(result.errorCode, result.error->statement));
  }
  std::string closing = "(" + result.app + " g" + std::to_string(result.generation);
  if (!result.fresh) closing += " stale: call ui.refresh()";
  closing += " " + roundHalfUp(result.elapsedMs) + "ms)";
  lines.push_back(std::move(closing));
  return joined(lines, "\n");
}

}  // namespace glimmerstrand::server
