// The daemon as a process seen from the client: where it lives, how to reach,
// start and stop it, and the settings it was started with. Not thread-safe:
// the client calls it from its one thread, before any bridge thread starts.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace glimmerstrand::client {

/// Where the daemon keeps its socket, lock and log, by the settings the
/// daemon reads.
struct DaemonPaths {
  std::filesystem::path stateFolder;
  std::string socket;

  std::filesystem::path log() const { return stateFolder / "daemon.log"; }
  std::filesystem::path lock() const { return std::filesystem::path(socket).parent_path() / "daemon.lock"; }
};
/// A process's environment: a variable's value, or none when unset or empty.
using Environment = std::function<std::optional<std::string>(const char*)>;
DaemonPaths daemonPaths(const Environment& environment);
/// By this process's own environment.
DaemonPaths daemonPaths();

/// A connection to the daemon's socket; closed when it goes.
class Connection {
 public:
  explicit Connection(int fd) : fd_(fd) {}
  Connection(Connection&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Connection& operator=(Connection&&) = delete;
  ~Connection();

  int fd() const { return fd_; }
  /// The daemon's pid, from the socket's peer credentials.
  pid_t peerPid() const;
  /// One line to the daemon, with no reply awaited.
  void send(const std::string& line) const;
  /// One request line and its reply line; throws when the daemon hangs up.
  std::string request(const std::string& line) const;

 private:
  int fd_;
};

/// A connection when a daemon answers on `socket`.
std::optional<Connection> connectTo(const std::string& socket);

/// The daemon's log is cut over to daemon.log.1 when it would pass this size.
inline constexpr off_t logCapBytes = 1 << 20;

/// Appends what comes from `from` to `log` until end of input; a log that
/// would pass `capBytes` moves to `log`.1 (replacing it) and starts anew.
void copyToLog(int from, const std::filesystem::path& log, off_t capBytes);

/// Starts `glimmerstrand-native daemon` with its output in the log and waits
/// until it answers. Throws at once, with the daemon's own last log lines,
/// when it exits during start.
Connection startDaemon(const DaemonPaths& paths);

/// Sends the daemon a TERM signal and waits until it has gone.
void stopDaemon(pid_t pid);

/// Another process's environment, when it can be read.
std::optional<std::map<std::string, std::string>> processEnvironment(pid_t pid);

/// The process that holds the lock file, when one does.
std::optional<pid_t> lockHolder(const std::filesystem::path& lock);

}  // namespace glimmerstrand::client
