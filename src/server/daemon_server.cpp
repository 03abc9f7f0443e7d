#include "server/daemon_server.h"

#include "core/errors.h"
#include "server/settings.h"

namespace glimmerstrand::server {

bool asksForMcp(std::string_view line) {
  try {
    core::JSONValue message = core::parseJSON(line);
    return message.asObject() && core::optionalString(message, "mode") == "mcp";
  } catch (const core::GlimmerstrandError&) {
    return false;  // not JSON: a plain connection, whose handler ignores the line
  }
}

std::shared_ptr<DaemonServer> DaemonServer::make(std::shared_ptr<ServerBackend> backend, std::filesystem::path stateDir,
                                                 ServerLog log, DaemonServerOptions options) {
  auto server = std::make_shared<DaemonServer>(backend, log, options);
  std::weak_ptr<DaemonServer> weak = server;
  server->requests_ = std::make_unique<RequestHandler>(backend, std::move(stateDir), log, [weak]() -> std::int64_t {
    auto alive = weak.lock();
    return alive ? alive->sessionCount() : 0;
  });
  server->gateway_ = Gateway::make(
      [weak](const GatewayEvent& event) {
        if (auto alive = weak.lock()) alive->onEvent(event);
      },
      options.gateway);
  return server;
}

DaemonServer::DaemonServer(std::shared_ptr<ServerBackend> backend, ServerLog log, DaemonServerOptions options)
    : backend_(std::move(backend)),
      log_(std::move(log)),
      options_(std::move(options)),
      coordinator_(options_.coordinator ? *options_.coordinator : AppCoordinator::shared()) {}

bool DaemonServer::start(const std::string& socketPath, const std::optional<std::string>& requirement) {
  return gateway_->listen(socketPath, requirement);
}

void DaemonServer::stop() { gateway_->stop(); }

std::int64_t DaemonServer::sessionCount() const {
  std::lock_guard guard(lock_);
  std::int64_t count = 0;
  for (const auto& [id, connection] : connections_)
    if (connection.mcp) ++count;
  return count;
}

void DaemonServer::onEvent(const GatewayEvent& event) {
  if (auto open = std::get_if<GatewayOpen>(&event)) {
    std::lock_guard guard(lock_);
    connections_.emplace(open->connection, Connection{});
  } else if (auto line = std::get_if<GatewayLine>(&event)) {
    onLine(line->connection, line->text);
  } else if (auto close = std::get_if<GatewayClose>(&event)) {
    onClose(close->connection);
  } else if (auto rejected = std::get_if<GatewayRejected>(&event)) {
    log_.warn("接続を断りました", {{"reason", rejected->reason}});
  }
}

void DaemonServer::onLine(std::int64_t id, const std::string& text) {
  std::shared_ptr<McpSession> session;
  {
    std::unique_lock guard(lock_);
    auto found = connections_.find(id);
    if (found == connections_.end()) return;
    if (found->second.first) {
      found->second.first = false;
      guard.unlock();
      if (asksForMcp(text)) {
        auto made = makeSession(id);
        guard.lock();
        if (auto again = connections_.find(id); again != connections_.end()) again->second.mcp = std::move(made);
        return;
      }
    } else {
      session = found->second.mcp;
    }
  }
  if (session) {
    session->handleLine(text);
    return;
  }
  if (auto reply = requests_->handleLine(text)) {
    try {
      gateway_->send(id, *reply);
    } catch (const core::GlimmerstrandError&) {
      // The peer is gone or stalled; its reader raises `close`.
    }
  }
}

std::shared_ptr<McpSession> DaemonServer::makeSession(std::int64_t id) {
  std::weak_ptr<DaemonServer> weak = weak_from_this();
  auto send = [weak, id](const std::string& line) {
    auto alive = weak.lock();
    if (!alive) return;
    try {
      alive->gateway_->send(id, line);
    } catch (const core::GlimmerstrandError&) {
      // The peer is gone or stalled; its reader raises `close`.
    }
  };
  ServerLog log = options_.sessionLog ? options_.sessionLog() : makeLog("mcp", currentSettings().logLevel, log_.sink);
  return std::make_shared<McpSession>(backend_, std::move(send), std::move(log));
}

void DaemonServer::onClose(std::int64_t id) {
  std::shared_ptr<McpSession> session;
  {
    std::lock_guard guard(lock_);
    auto found = connections_.find(id);
    if (found == connections_.end()) return;
    session = std::move(found->second.mcp);
    connections_.erase(found);
  }
  if (session) coordinator_.releaseIdle(session->id());
}

}  // namespace glimmerstrand::server
