// The plain request protocol of the daemon's socket: a JSON line in, a JSON
// line out. Six operations: ping, skill, doctor, status, do and query. The
// handler keeps no state per connection and nothing that changes, so it is
// called from every plain connection's reader thread at once without a lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/json_value.h"
#include "core/records.h"
#include "server/server_backend.h"
#include "server/server_log.h"

namespace glimmerstrand::server {

/// The `app` text of a request or a tool call: "pid:" and a decimal number
/// not below 0 selects by process id, any other non-empty text by name (a
/// bundle id travels as a name too), empty text selects nothing.
std::optional<core::AppSelector> parseAppSelector(const std::optional<std::string>& app);

class RequestHandler {
 public:
  /// `sessions` counts the MCP sessions connected now; it must be callable
  /// from any thread.
  RequestHandler(std::shared_ptr<ServerBackend> backend, std::filesystem::path stateDir, ServerLog log,
                 std::function<std::int64_t()> sessions);

  /// The reply line, without its line feed; nothing for a line that is not
  /// a JSON object.
  std::optional<std::string> handleLine(std::string_view line) const;

  std::chrono::system_clock::time_point startedAt() const { return startedAt_; }

 private:
  core::JSONValue perform(const std::string& operation, const core::JSONValue& params, bool textForm) const;
  core::JSONValue status() const;
  core::JSONValue runStatements(const core::JSONValue& params, bool readOnly, bool textForm) const;

  std::shared_ptr<ServerBackend> backend_;
  std::filesystem::path stateDir_;
  ServerLog log_;
  std::chrono::system_clock::time_point startedAt_;
  std::chrono::steady_clock::time_point startedSteady_;  // uptime must not jump with the wall clock
  std::function<std::int64_t()> sessions_;
};

/// `text` (the result text and an "image: " line per written file) and,
/// when the result carries an error, `error`. Images go to "screenshots"
/// below `stateDir` (folder 0700, files 0600).
core::JSONValue renderTextReply(const core::CypherResult& result, const std::filesystem::path& stateDir);

}  // namespace glimmerstrand::server
