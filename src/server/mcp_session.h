// The Model Context Protocol on one connection: JSON-RPC 2.0 messages, one
// per line. A session serves one tool, `do`, and hands the agent the
// instructions that teach the statement language in its `initialize` reply.
// It keeps no protocol state: no handshake is required and every message is
// treated alike.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "core/json_value.h"
#include "server/server_backend.h"
#include "server/server_log.h"

namespace glimmerstrand::server {

/// A failure that goes back as a JSON-RPC error.
struct RPCFailure {
  int code;
  std::string message;
};

/// The `do` tool as tools/list shows it.
core::JSONValue doToolDefinition();

class McpSession {
 public:
  /// Writes one line to this session's connection; must not throw.
  using Send = std::function<void(const std::string&)>;

  McpSession(std::shared_ptr<ServerBackend> backend, Send send, ServerLog log);

  /// Handles one message; every reply leaves through `send`. Called on the
  /// connection's reader thread.
  void handleLine(std::string_view line);

  /// "mcp-" and an upper-case UUID: names the session to the lease
  /// coordinator and the cursor overlay.
  const std::string& id() const { return id_; }

  /// The tool result of a `do` call.
  core::JSONValue doTool(const std::string& cypher, const std::optional<std::string>& app);

 private:
  core::JSONValue runMethod(const std::string& method, const core::JSONValue* params);
  core::JSONValue callTool(const core::JSONValue* params);

  const std::shared_ptr<ServerBackend> backend_;
  const Send send_;
  const ServerLog log_;
  const std::string id_;
  std::mutex lock_;  // held for the whole handling of one message, a `do` included
};

}  // namespace glimmerstrand::server
