#include "server/support/socket_client.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

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

// Reads what arrives before `deadline` into the buffer; false at the end of
// the stream or of the time.
bool SocketClient::fill(std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd ready{fd_, POLLIN, 0};
    int polled = ::poll(&ready, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) return false;
    char chunk[65536];
    ssize_t count = ::read(fd_, chunk, sizeof chunk);
    if (count <= 0) {
      ended_ = true;
      return false;
    }
    buffer_.append(chunk, static_cast<std::size_t>(count));
    return true;
  }
}

std::optional<std::string> SocketClient::readLine(std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  std::size_t end;
  while ((end = buffer_.find('\n')) == std::string::npos)
    if (!fill(deadline)) return std::nullopt;
  std::string line = buffer_.substr(0, end);
  buffer_.erase(0, end + 1);
  return line;
}

bool SocketClient::closedByPeer(std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (fill(deadline)) {
  }
  return ended_;
}

std::string roundTrip(SocketClient& client, std::string_view line) {
  client.sendLine(line);
  auto reply = client.readLine();
  EXPECT_TRUE(reply.has_value()) << "no reply to " << line;
  return reply.value_or("");
}

bool eventually(const std::function<bool()>& condition) {
  for (auto deadline = std::chrono::steady_clock::now() + 10s; std::chrono::steady_clock::now() < deadline;) {
    if (condition()) return true;
    std::this_thread::sleep_for(2ms);
  }
  return condition();
}

}  // namespace glimmerstrand::server::testing
