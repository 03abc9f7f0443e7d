// What the server needs of the rest of the system: running statements and
// two diagnostics. The daemon's implementation runs the shared runner under
// the application's lease. Implementations are called from every
// connection's reader thread at once and must be thread-safe.
#pragma once

#include <optional>
#include <string>

#include "core/cypher_result.h"
#include "core/json_value.h"
#include "core/records.h"

namespace glimmerstrand::server {

class ServerBackend {
 public:
  virtual ~ServerBackend() = default;

  /// Runs a script. `readOnly` is true for a query; `session` is the MCP
  /// session's id, absent for a plain request, and decides how long the
  /// application's lease outlives the call. Throws on failure.
  virtual core::CypherResult run(const std::string& cypher, const std::optional<core::AppSelector>& app, bool readOnly,
                                 const std::optional<std::string>& session) = 0;
  /// An object with `permissions`, `displays` and `frontmost`, in this order.
  virtual core::JSONValue doctor() = 0;
  /// An array with one entry per live mirror.
  virtual core::JSONValue mirrors() = 0;
};

}  // namespace glimmerstrand::server
