// The daemon's server: a Gateway with the plain request handler and MCP
// sessions behind it. A connection's first line settles its kind for life:
// `{"mode":"mcp"}` makes it an MCP session, anything else is served as a
// plain request. Closing a session's connection releases its idle leases.
//
// Threads: events arrive on the gateway's threads, concurrently for
// different connections and in order for one. `lock_` is held only for
// short look-ups and updates, never while a line is handled, so a long `do`
// on one connection holds up no other.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "server/app_coordinator.h"
#include "server/gateway.h"
#include "server/mcp_session.h"
#include "server/request_handler.h"
#include "server/server_backend.h"
#include "server/server_log.h"

namespace glimmerstrand::server {

struct DaemonServerOptions {
  AppCoordinator* coordinator = nullptr;  // the shared one when not given
  GatewayOptions gateway;
  /// The log of each new MCP session; `makeLog("mcp", current level)` with the
  /// daemon log's sink when not given.
  std::function<ServerLog()> sessionLog;
};

class DaemonServer : public std::enable_shared_from_this<DaemonServer> {
 public:
  static std::shared_ptr<DaemonServer> make(std::shared_ptr<ServerBackend> backend, std::filesystem::path stateDir,
                                            ServerLog log, DaemonServerOptions options = {});

  /// Listens on `socketPath`; whether a peer requirement is in force.
  /// Throws the gateway's failure.
  bool start(const std::string& socketPath, const std::optional<std::string>& requirement);
  void stop();
  /// The connections that are MCP sessions now.
  std::int64_t sessionCount() const;

  Gateway& gateway() { return *gateway_; }
  const RequestHandler& requests() const { return *requests_; }

  DaemonServer(std::shared_ptr<ServerBackend> backend, ServerLog log, DaemonServerOptions options);  // use make()

 private:
  struct Connection {
    bool first = true;  // the first line has not been seen yet
    std::shared_ptr<McpSession> mcp;
  };

  void onEvent(const GatewayEvent& event);
  void onLine(std::int64_t id, const std::string& text);
  void onClose(std::int64_t id);
  std::shared_ptr<McpSession> makeSession(std::int64_t id);

  const std::shared_ptr<ServerBackend> backend_;
  const ServerLog log_;
  DaemonServerOptions options_;
  AppCoordinator& coordinator_;
  std::unique_ptr<RequestHandler> requests_;  // set by make()
  std::shared_ptr<Gateway> gateway_;          // set by make()

  mutable std::mutex lock_;  // guards connections_ and each record's fields
  std::map<std::int64_t, Connection> connections_;
};

/// Whether a connection's first line asks for MCP.
bool asksForMcp(std::string_view line);

}  // namespace glimmerstrand::server
