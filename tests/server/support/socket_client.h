// A client end of the daemon's socket for tests: connects, writes raw bytes
// or lines, and reads reply lines with a generous limit, so that a missing
// reply fails the test instead of hanging it.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace glimmerstrand::server::testing {

using namespace std::chrono_literals;

/// A private folder under the system's temporary folder, removed at the end.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::string socketPath() const { return (path_ / "g.sock").string(); }

 private:
  std::filesystem::path path_;
};

class SocketClient {
 public:
  explicit SocketClient(const std::string& path);
  ~SocketClient();
  SocketClient(const SocketClient&) = delete;
  SocketClient& operator=(const SocketClient&) = delete;

  void write(std::string_view bytes);
  void sendLine(std::string_view line) { write(std::string(line) + "\n"); }
  /// The next line without its line feed; nothing when the connection ended
  /// or `limit` passed first.
  std::optional<std::string> readLine(std::chrono::milliseconds limit = 10s);
  /// Whether the server ended the connection within `limit`; lines before
  /// the end are kept for readLine.
  bool closedByPeer(std::chrono::milliseconds limit = 10s);
  /// Ends this side of the connection.
  void close();
  int fd() const { return fd_; }

 private:
  bool fill(std::chrono::steady_clock::time_point deadline);

  int fd_ = -1;
  std::string buffer_;
  bool ended_ = false;  // the server ended the stream
};

/// Waits up to 10 s for something other threads bring about and nobody
/// signals.
bool eventually(const std::function<bool()>& condition);

/// Sends one line and gives the one reply line.
std::string roundTrip(SocketClient& client, std::string_view line);

}  // namespace glimmerstrand::server::testing
