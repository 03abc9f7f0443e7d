// Compact text forms of rows and errors for table-driven tests: a row reads
// {a: 1, b: "x", n: {_label: "Button"}}, rows are joined by " | ".
#pragma once

#include <string>
#include <vector>

#include "cypher/values.h"

namespace glimmerstrand::cypher::testing {

inline std::string quoted(const std::string& text) { return "\"" + text + "\""; }

inline std::string cellText(const RowValue& value) {
  if (auto scalar = value.asScalar()) return scalar->isString() ? quoted(*scalar->asString()) : scalar->text();
  std::string out;
  if (auto list = value.asList()) {
    out = "[";
    for (std::size_t i = 0; i < list->size(); ++i) out += (i ? ", " : "") + cellText((*list)[i]);
    return out + "]";
  }
  out = "{";
  bool first = true;
  value.asMap()->forEach([&](const std::string& key, const RowValue& cell) {
    out += (first ? "" : ", ") + key + ": " + cellText(cell);
    first = false;
  });
  return out + "}";
}

inline std::string rowsText(const std::vector<Row>& rows) {
  std::string out;
  for (std::size_t i = 0; i < rows.size(); ++i) out += (i ? " | " : "") + cellText(RowValue(rows[i]));
  return out;
}

}  // namespace glimmerstrand::cypher::testing
