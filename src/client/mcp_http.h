// MCP's Streamable HTTP transport in front of the daemon: one endpoint,
// /mcp, where a POST carries one JSON-RPC message and gets its reply as JSON,
// and DELETE ends a session. Each session (an `Mcp-Session-Id`) is one MCP
// session on the daemon's socket, which answers the messages and holds the
// session's application leases as it does for any agent; this side only
// checks who calls, routes messages and watches for clients that go away.
//
// What a session carries is small on purpose: its id, its link to the
// daemon and when it was last used. Nothing of the protocol is remembered
// here; the daemon's session keeps no protocol state either.
//
// Threads: screen() and handle() run on the HTTP server's connection threads,
// concurrently. `lock_` guards the session table and is held only to look up
// and update it, never while a message travels to the daemon.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "client/daemon_link.h"
#include "client/http_server.h"

namespace glimmerstrand::client {

struct McpHttpOptions {
  std::string token;  // the bearer token every request must carry
  /// Sessions at once; at the limit a new one replaces the longest unused
  /// session that has no call in progress.
  std::size_t maxSessions = 64;
  /// A session unused for this long ends when the next session starts.
  std::chrono::seconds sessionIdleLimit{3600};
};

/// The protocol versions a client may name in `MCP-Protocol-Version`.
bool knownProtocolVersion(const std::string& version);

class McpHttpTransport {
 public:
  /// Opens a new MCP session on the daemon; throws when none answers.
  using OpenLink = std::function<std::shared_ptr<DaemonLink>()>;

  McpHttpTransport(OpenLink openLink, McpHttpOptions options);

  /// The refusals that need no body: a foreign origin (403), a missing or
  /// wrong token (401), another path (404) or method (405), an unknown
  /// protocol version (400).
  std::optional<HttpResponse> screen(const HttpRequest& head) const;
  /// A request that passed the screen.
  HttpResponse handle(const HttpRequest& request);

  std::size_t sessionCount() const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Session {
    std::shared_ptr<DaemonLink> link;  // none until needed again after a client went away
    Clock::time_point lastUsed;
    int calls = 0;  // requests in progress
  };

  HttpResponse post(const HttpRequest& request);
  HttpResponse remove(const HttpRequest& request);
  /// A new session's id, with its link open; none when the table is full of
  /// busy sessions.
  std::optional<std::string> startSession();
  /// The session's link, opened anew when its last one was retired; marks a
  /// call in progress. None when the session is unknown.
  std::shared_ptr<DaemonLink> beginCall(const std::string& id);
  void endCall(const std::string& id, const std::shared_ptr<DaemonLink>& link, DaemonLink::Outcome outcome);
  void dropIdleSessions(Clock::time_point now);

  const OpenLink openLink_;
  const McpHttpOptions options_;
  mutable std::mutex lock_;  // guards sessions_
  std::map<std::string, Session> sessions_;
};

}  // namespace glimmerstrand::client
