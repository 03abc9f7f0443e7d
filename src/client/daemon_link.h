// One MCP session on the daemon's socket, as the HTTP transport uses it:
// messages go out as lines, and each reply goes back to the request that is
// waiting for it, found by its JSON-RPC id. The daemon's session runs them in
// order and holds the application leases; when this connection ends the
// daemon releases them, once the call in progress is over.
//
// Threads: a reader thread of its own takes the daemon's replies; any thread
// may send and wait. `lock_` guards the waiters and is never held while
// writing or waiting; `writeLock_` keeps each line whole.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "client/daemon_process.h"

namespace glimmerstrand::client {

class DaemonLink : public std::enable_shared_from_this<DaemonLink> {
 public:
  /// Connects to the daemon on `socket` and asks for MCP. Throws
  /// GlimmerstrandError when no daemon answers there.
  static std::shared_ptr<DaemonLink> open(const std::string& socket);

  enum class Outcome {
    replied,
    clientGone,  // the HTTP client hung up while it waited
    lost,        // the daemon closed the connection, or it was retired
    duplicate,   // a request with this id is already waiting
  };
  struct Answer {
    Outcome outcome;
    std::string reply;  // with `replied`
  };

  /// Sends a request and waits for its reply, for the daemon to close, or for
  /// `client` (a socket) to hang up. `idKey` is the JSON text of its id.
  Answer request(const std::string& line, const std::string& idKey, int client);
  /// Sends a notification or a response, which get no reply; false when the
  /// link is gone.
  bool post(const std::string& line);
  /// Ends the session: the daemon finishes what it was sent, then releases
  /// the session's leases. Waiters still get their replies.
  void retire();
  /// Whether requests can still go out.
  bool usable() const;

  explicit DaemonLink(Connection connection);  // use open()

 private:
  struct Waiter;
  void readLoop();
  bool write(const std::string& line);

  Connection connection_;
  std::mutex writeLock_;     // held for one whole line
  mutable std::mutex lock_;  // guards the three fields below
  std::map<std::string, Waiter*> waiters_;
  bool ended_ = false;    // the daemon closed its end
  bool retired_ = false;  // no more requests go out
};

}  // namespace glimmerstrand::client
