// What a run of a script gives back: one result per statement, the failing
// statement if any, and the application the last graph showed.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/json_value.h"
#include "core/records.h"
#include "cypher/values.h"

namespace glimmerstrand::core {

struct ActionRecord {
  std::string id;  // empty when the action had no element
  std::string action;
  bool ok = true;
  std::optional<std::string> error;
  bool operator==(const ActionRecord&) const = default;
};

struct CypherImage {
  std::string format;
  std::string base64;
  std::int64_t width = 0;
  std::int64_t height = 0;
  Rect region;
  bool operator==(const CypherImage&) const = default;
};

/// Shared by reference between the run's results and its pending writes: the
/// settle after a later statement fills in `changes` of an earlier result.
struct StatementResult {
  explicit StatementResult(std::string kind) : kind(std::move(kind)) {}

  std::string kind;  // "read", "set" or "call"
  std::vector<cypher::Row> rows;
  std::optional<std::int64_t> total;
  std::vector<ActionRecord> actions;
  std::optional<std::vector<std::string>> changes;
  std::optional<bool> timedOut;
  std::optional<bool> returns;
  std::optional<std::vector<CypherImage>> images;
  std::optional<std::vector<std::string>> outline;
  std::optional<std::vector<std::string>> notes;

  void addNote(std::string note) {
    if (!notes) notes.emplace();
    notes->push_back(std::move(note));
  }
};

using StatementResultRef = std::shared_ptr<StatementResult>;

struct StatementError {
  std::int64_t statement = 0;  // counted from 1
  std::string message;
};

struct CypherResult {
  std::string app;
  std::int64_t pid = 0;
  std::int64_t generation = 0;
  std::vector<StatementResultRef> results;
  std::optional<StatementError> error;
  std::optional<std::string> errorCode;
  bool fresh = true;
  double elapsedMs = 0;
};

JSONValue statementJSON(const StatementResult& result);
JSONValue resultJSON(const CypherResult& result);

}  // namespace glimmerstrand::core
