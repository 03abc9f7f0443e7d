// The Unix-domain socket server: owns the listening socket, accepts and
// checks peers, splits each connection's byte stream into lines and writes
// lines back. It knows nothing of what lines mean; it reports everything
// through one callback of Events.
//
// Threads: one accept thread per listening socket and one thread per
// connection, which checks the peer and then reads its lines; all detached
// and owned by the gateway (they hold it alive and end by themselves after
// stop() or the peer's close). `onEvent` runs on those threads: concurrently
// for different connections, strictly in order for one. No lock of the
// gateway is held while `onEvent` runs. At most `maxConnections` connection
// threads live at once.
//
// Writes: each connection has its own write lock, so a line stays whole and
// a peer that stops reading holds up only the writers to itself. A write
// that makes no progress for `sendTimeout` gives up and shuts that
// connection down, since a half-written line has spoilt its stream.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "server/peer_check.h"

namespace glimmerstrand::server {

struct GatewayOpen {
  std::int64_t connection;
};
struct GatewayLine {
  std::int64_t connection;
  std::string text;  // without its line feed
};
struct GatewayClose {
  std::int64_t connection;
};
struct GatewayRejected {
  std::string reason;
};
using GatewayEvent = std::variant<GatewayOpen, GatewayLine, GatewayClose, GatewayRejected>;

struct GatewayOptions {
  std::shared_ptr<PeerInspector> peers = PeerInspector::system();
  /// How long a write may make no progress before the peer counts as stalled.
  std::chrono::milliseconds sendTimeout{10000};
  /// Connections open or being checked at once. One more is told so in one
  /// line, closed, and reported as `rejected`.
  std::size_t maxConnections = 256;
};

class Gateway : public std::enable_shared_from_this<Gateway> {
 public:
  using EventHandler = std::function<void(const GatewayEvent&)>;

  static std::shared_ptr<Gateway> make(EventHandler onEvent, GatewayOptions options = {});

  /// Listens on `path` (replacing a socket that is there, refusing any
  /// other kind of file with "invalid_argument"), mode 0600. The
  /// requirement holds until the next listen. Returns whether one is in
  /// force. Throws GlimmerstrandError.
  bool listen(const std::string& path, const std::optional<std::string>& requirementText);
  /// Writes `line` and a line feed. Throws "stale" when the connection is
  /// closed or the write fails.
  void send(std::int64_t connection, std::string_view line);
  /// Shuts one connection down; its reader then closes it and raises
  /// `close`. Whether it was open.
  bool closeConnection(std::int64_t connection);
  /// Stops listening and shuts every connection down. The socket file stays.
  void stop();

  /// Waits until the accept thread and every reader have ended, or `limit`
  /// passed; true when none is left. For an orderly end of tests: the
  /// daemon never waits for its threads.
  bool waitForThreads(std::chrono::milliseconds limit);

  Gateway(EventHandler onEvent, GatewayOptions options);  // use make()

 private:
  struct Socket;
  struct Connection;

  void acceptLoop(const std::shared_ptr<Socket>& listening);
  /// On the connection's thread: the peer check, `open`, then its lines.
  void admit(int fd);
  /// At the cap: tells the peer why and closes it.
  void refuse(int fd);
  void readLoop(const std::shared_ptr<Connection>& connection);
  template <typename Loop>
  void startThread(Loop loop);

  const EventHandler onEvent_;
  const GatewayOptions options_;

  std::mutex lock_;                    // guards the five fields below; never held during onEvent_ or a write
  std::shared_ptr<Socket> listening_;  // none when not listening
  std::map<std::int64_t, std::shared_ptr<Connection>> connections_;
  std::int64_t nextConnection_ = 1;  // ids are never reused
  std::optional<PeerRequirement> requirement_;
  std::size_t active_ = 0;  // connection threads alive: checking or reading

  std::mutex threadsLock_;  // guards threads_
  std::condition_variable threadsEnded_;
  int threads_ = 0;
};

}  // namespace glimmerstrand::server
