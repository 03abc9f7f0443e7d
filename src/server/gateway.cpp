#include "server/gateway.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "core/errors.h"
#include "core/json_value.h"
#include "server/utf8_lines.h"

namespace glimmerstrand::server {

using core::GlimmerstrandError;

// A descriptor closed by its last owner, so that no thread can act on a
// number that was closed and handed out again meanwhile.
struct Gateway::Socket {
  explicit Socket(int fd) : fd(fd) {}
  ~Socket() { ::close(fd); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  const int fd;
};

struct Gateway::Connection {
  Connection(std::int64_t id, int fd) : id(id), socket(fd) {}
  const std::int64_t id;
  Socket socket;
  std::mutex writeLock;  // held for one whole line, by whichever thread sends
};

namespace {

// The largest path whose address record still fits the size every platform
// accepts (106 bytes: length, family, path and its terminator).
constexpr std::size_t maxPathBytes = 103;

[[noreturn]] void failNative(const std::string& message) {
  throw GlimmerstrandError(core::codes::native, message + std::to_string(errno));
}

}  // namespace

std::shared_ptr<Gateway> Gateway::make(EventHandler onEvent, GatewayOptions options) {
  return std::make_shared<Gateway>(std::move(onEvent), std::move(options));
}

Gateway::Gateway(EventHandler onEvent, GatewayOptions options)
    : onEvent_(std::move(onEvent)), options_(std::move(options)) {}

bool Gateway::listen(const std::string& path, const std::optional<std::string>& requirementText) {
  std::lock_guard guard(lock_);
  if (listening_) throw GlimmerstrandError(core::codes::invalidArgument, "すでに待ち受けています");
  std::optional<PeerRequirement> requirement;
  if (requirementText && !requirementText->empty()) {
    requirement = parsePeerRequirement(*requirementText);
    if (!requirement)
      throw GlimmerstrandError(core::codes::invalidArgument, "署名の条件を読めませんでした: " + *requirementText);
  }
  if (path.size() > maxPathBytes)
    throw GlimmerstrandError(core::codes::invalidArgument, "ソケットのパスが長すぎます: " + path);

  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) failNative("ソケットを作れませんでした: ");
  auto socket = std::make_shared<Socket>(fd);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  // Only a socket is replaced: a file that is something else at this path is
  // no leftover of ours, and is not ours to delete.
  struct stat existing {};
  if (::lstat(path.c_str(), &existing) == 0) {
    if (!S_ISSOCK(existing.st_mode))
      throw GlimmerstrandError(core::codes::invalidArgument,
                               "ソケットのパスにソケットではないファイルがあります: " + path);
    ::unlink(path.c_str());
  }
  mode_t previous = ::umask(0077);  // no moment in which others could connect
  int bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  int bindError = errno;
  ::umask(previous);
  if (bound != 0) {
    errno = bindError;
    failNative("ソケットに名前を付けられませんでした: ");
  }
  ::chmod(path.c_str(), 0600);
  // As deep as the system allows: a burst of clients waits in it instead of
  // being refused while the accept thread catches up.
  if (::listen(fd, SOMAXCONN) != 0) failNative("待ち受けられませんでした: ");

  listening_ = socket;
  requirement_ = std::move(requirement);
  startThread([socket](Gateway& self) { self.acceptLoop(socket); });
  return requirement_.has_value();
}

template <typename Loop>
void Gateway::startThread(Loop loop) {
  {
    std::lock_guard guard(threadsLock_);
    ++threads_;
  }
  std::thread([self = shared_from_this(), loop = std::move(loop)] {
    loop(*self);
    std::lock_guard guard(self->threadsLock_);
    --self->threads_;
    self->threadsEnded_.notify_all();
  }).detach();
}

void Gateway::acceptLoop(const std::shared_ptr<Socket>& listening) {
  for (;;) {
    int fd = ::accept4(listening->fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      // Out of descriptors: the peers waiting in the backlog get their turn
      // once some connection ends.
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        continue;
      }
      return;  // stop() shut the socket down, or it failed for good
    }
    bool full = false;
    {
      std::lock_guard guard(lock_);
      if (listening_ != listening) {
        ::close(fd);
        return;
      }
      full = active_ >= options_.maxConnections;
      if (!full) ++active_;
    }
    if (full) {
      refuse(fd);
      continue;
    }
    // The check may read a large executable: it runs on the connection's
    // own thread, so it holds up no other peer's accept.
    startThread([fd](Gateway& self) {
      self.admit(fd);
      std::lock_guard guard(self.lock_);
      --self.active_;
    });
  }
}

void Gateway::refuse(int fd) {
  const std::string reason = "接続が多すぎます: 上限 " + std::to_string(options_.maxConnections);
  // One line in the form of an error reply, so that the peer learns why; a
  // peer that doesn't read it loses nothing, as the socket is closed next.
  const std::string line =
      "{\"ok\":false,\"error\":{\"code\":\"busy\",\"message\":" + core::jsonString(reason) + "}}\n";
  ::send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  ::close(fd);
  onEvent_(GatewayRejected{reason});
}

void Gateway::admit(int fd) {
  timeval timeout{};
  timeout.tv_sec = static_cast<time_t>(options_.sendTimeout.count() / 1000);
  timeout.tv_usec = static_cast<suseconds_t>((options_.sendTimeout.count() % 1000) * 1000);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);

  std::optional<PeerRequirement> requirement;
  {
    std::lock_guard guard(lock_);
    requirement = requirement_;
  }
  if (auto reason = checkPeer(fd, requirement, *options_.peers)) {
    onEvent_(GatewayRejected{*reason});
    ::close(fd);
    return;
  }
  std::shared_ptr<Connection> connection;
  {
    std::lock_guard guard(lock_);
    connection = std::make_shared<Connection>(nextConnection_++, fd);
    connections_[connection->id] = connection;
  }
  onEvent_(GatewayOpen{connection->id});  // before the first line
  readLoop(connection);
}

void Gateway::readLoop(const std::shared_ptr<Connection>& connection) {
  LineBuffer buffer;
  std::vector<char> chunk(65536);
  for (;;) {
    ssize_t count = ::read(connection->socket.fd, chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    buffer.append(std::string_view(chunk.data(), static_cast<std::size_t>(count)));
    while (auto line = buffer.nextLine())
      if (!line->empty()) onEvent_(GatewayLine{connection->id, std::move(*line)});
  }
  {
    std::lock_guard guard(lock_);
    auto found = connections_.find(connection->id);
    if (found != connections_.end()) connections_.erase(found);
  }
  onEvent_(GatewayClose{connection->id});
}

void Gateway::send(std::int64_t id, std::string_view line) {
  std::string bytes;
  bytes.reserve(line.size() + 1);
  bytes.append(line);
  bytes.push_back('\n');
  std::shared_ptr<Connection> connection;
  {
    std::lock_guard guard(lock_);
    auto found = connections_.find(id);
    if (found == connections_.end())
      throw GlimmerstrandError(core::codes::stale, "接続 " + std::to_string(id) + " はもう閉じています");
    connection = found->second;
  }
  std::lock_guard write(connection->writeLock);
  std::string_view rest = bytes;
  while (!rest.empty()) {
    ssize_t written = ::send(connection->socket.fd, rest.data(), rest.size(), MSG_NOSIGNAL);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      // A peer that stopped reading: what went out may end mid-line, so the
      // stream can't carry another line. Ending it frees the writers.
      if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) ::shutdown(connection->socket.fd, SHUT_RDWR);
      throw GlimmerstrandError(core::codes::stale, "接続 " + std::to_string(id) + " に書けませんでした");
    }
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
}

bool Gateway::closeConnection(std::int64_t id) {
  std::lock_guard guard(lock_);
  auto found = connections_.find(id);
  if (found == connections_.end()) return false;
  ::shutdown(found->second->socket.fd, SHUT_RDWR);
  connections_.erase(found);
  return true;
}

void Gateway::stop() {
  std::shared_ptr<Socket> listening;
  std::vector<std::shared_ptr<Connection>> open;
  {
    std::lock_guard guard(lock_);
    listening = std::move(listening_);
    listening_.reset();
    for (const auto& [id, connection] : connections_) open.push_back(connection);
  }
  // Shutting down wakes the accept loop and the readers, which then end and
  // close their sockets themselves.
  if (listening) ::shutdown(listening->fd, SHUT_RDWR);
  for (const auto& connection : open) ::shutdown(connection->socket.fd, SHUT_RDWR);
}

bool Gateway::waitForThreads(std::chrono::milliseconds limit) {
  std::unique_lock guard(threadsLock_);
  return threadsEnded_.wait_for(guard, limit, [&] { return threads_ == 0; });
}

}  // namespace glimmerstrand::server
