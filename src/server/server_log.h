// The daemon's structured log: one JSON object per line on standard error,
// with a level threshold. A ServerLog is a plain value; each component keeps
// its own named copy. Lines from different threads are separate single
// writes and need no lock.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/json_value.h"

namespace glimmerstrand::server {

using LogFields = std::vector<std::pair<std::string, core::JSONValue>>;

/// 0 for "debug" up to 4 for "silent"; 1 ("info") for an unknown name.
int logLevelRank(std::string_view name);

struct ServerLog {
  /// Receives one finished line, line feed included. Empty: standard error.
  using Sink = std::function<void(std::string_view)>;

  std::string name;  // "daemon" or "mcp"
  int level = 1;     // lines below this rank are not written
  Sink sink;

  /// Writes `message` with `fields` sorted by key after `t`, `level`,
  /// `name` and `message`, when `levelName` reaches the threshold.
  void log(std::string_view levelName, std::string_view message, LogFields fields = {}) const;
  void debug(std::string_view message, LogFields fields = {}) const { log("debug", message, std::move(fields)); }
  void info(std::string_view message, LogFields fields = {}) const { log("info", message, std::move(fields)); }
  void warn(std::string_view message, LogFields fields = {}) const { log("warn", message, std::move(fields)); }
  void error(std::string_view message, LogFields fields = {}) const { log("error", message, std::move(fields)); }

  /// The same threshold and sink under another name.
  ServerLog named(std::string otherName) const { return ServerLog{std::move(otherName), level, sink}; }
};

ServerLog makeLog(std::string name, std::string_view levelName, ServerLog::Sink sink = {});

/// `2026-03-01T09:30:12.345Z`: date, time with milliseconds, in UTC.
std::string internetDateText(std::chrono::system_clock::time_point time);

}  // namespace glimmerstrand::server
