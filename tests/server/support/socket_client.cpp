#include "server/support/socket_client.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace glimmerstrand::server::testing {

TempFolder::TempFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "gs-test-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

SocketClient::SocketClient(const std::string& path) {
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error("connect failed: " + std::string(std::strerror(errno)));
}

SocketClient::~SocketClient() { close(); }

void SocketClient::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void SocketClient::write(std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) throw std::runtime_error("write failed");
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

std::optional<std::string> SocketClient::readLine(std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (auto end = buffer_.find('\n'); end != std::string::npos) {
      std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      return line;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    pollfd ready{fd_, POLLIN, 0};
    int polled = ::poll(&ready, 1, static_cast<int>(left.count()));
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) return std::nullopt;
    char chunk[65536];
    ssize_t count = ::read(fd_, chunk, sizeof chunk);
    if (count <= 0) return std::nullopt;
    buffer_.append(chunk, static_cast<std::size_t>(count));
  }
}

bool SocketClient::closedByPeer(std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd ready{fd_, POLLIN, 0};
    int polled = ::poll(&ready, 1, static_cast<int>(left.count()));
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) return false;
    char chunk[4096];
    ssize_t count = ::read(fd_, chunk, sizeof chunk);
    if (count == 0 || (count < 0 && errno == ECONNRESET)) return true;
    if (count < 0) return false;
    buffer_.append(chunk, static_cast<std::size_t>(count));
  }
}

std::string roundTrip(SocketClient& client, std::string_view line) {
  client.sendLine(line);
  auto reply = client.readLine();
  EXPECT_TRUE(reply.has_value()) << "no reply to " << line;
  return reply.value_or("");
}

}  // namespace glimmerstrand::server::testing
