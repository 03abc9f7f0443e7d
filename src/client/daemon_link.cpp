#include "client/daemon_link.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "core/errors.h"
#include "core/json_value.h"

namespace glimmerstrand::client {
namespace {

// How long a write to the daemon may make no progress: the daemon reads its
// connections all the time, so a stall means it is stuck.
constexpr timeval sendLimit{10, 0};

// The id of a reply line as JSON text, the key its request waits under.
std::optional<std::string> replyKey(std::string_view line) {
  try {
    const core::JSONValue reply = core::parseJSON(line);
    if (const core::JSONValue* id = reply.find("id")) return core::jsonText(*id);
  } catch (const core::GlimmerstrandError&) {
    // Not JSON: nothing of ours to answer.
  }
  return std::nullopt;
}

}  // namespace

// A request waiting for its reply; woken through its own event descriptor,
// so that it can wait for its client's hang-up at the same time.
struct DaemonLink::Waiter {
  Waiter() : event(::eventfd(0, EFD_CLOEXEC)) {}
  ~Waiter() { ::close(event); }
  void wake() const {
    const std::uint64_t one = 1;
    if (::write(event, &one, sizeof one) < 0) return;  // the counter is full: it is awake anyway
  }
  const int event;
  std::optional<std::string> reply;
};

std::shared_ptr<DaemonLink> DaemonLink::open(const std::string& socket) {
  auto connection = connectTo(socket);
  if (!connection) throw core::GlimmerstrandError(core::codes::native, "no daemon answers on " + socket);
  ::setsockopt(connection->fd(), SOL_SOCKET, SO_SNDTIMEO, &sendLimit, sizeof sendLimit);
  auto link = std::make_shared<DaemonLink>(std::move(*connection));
  if (!link->write(R"({"mode":"mcp"})"))
    throw core::GlimmerstrandError(core::codes::native, "the daemon on " + socket + " closed the connection");
  // The reader keeps the link alive until the daemon closes its end.
  std::thread([link] { link->readLoop(); }).detach();
  return link;
}

DaemonLink::DaemonLink(Connection connection) : connection_(std::move(connection)) {}

bool DaemonLink::write(const std::string& line) {
  std::lock_guard guard(writeLock_);
  try {
    connection_.send(line);
    return true;
  } catch (const core::GlimmerstrandError&) {
    return false;
  }
}

DaemonLink::Answer DaemonLink::request(const std::string& line, const std::string& idKey, int client) {
  Waiter waiter;
  {
    std::lock_guard guard(lock_);
    if (ended_ || retired_) return {Outcome::lost, ""};
    if (!waiters_.emplace(idKey, &waiter).second) return {Outcome::duplicate, ""};
  }
  bool sent = write(line);
  bool clientGone = false;
  while (sent) {
    pollfd watched[2] = {{waiter.event, POLLIN, 0}, {client, POLLRDHUP, 0}};
    const int ready = ::poll(watched, client >= 0 ? 2 : 1, -1);
    if (ready < 0 && errno == EINTR) continue;
    // A client that hung up is gone even when its reply came at the same
    // moment: nobody will read it, and its leases should go with the call.
    if (ready < 0 || watched[1].revents & (POLLRDHUP | POLLHUP | POLLERR)) {
      clientGone = true;
      break;
    }
    if (watched[0].revents) break;
  }
  std::lock_guard guard(lock_);
  waiters_.erase(idKey);
  if (clientGone) return {Outcome::clientGone, ""};
  if (waiter.reply) return {Outcome::replied, std::move(*waiter.reply)};
  return {Outcome::lost, ""};
}

bool DaemonLink::post(const std::string& line) {
  {
    std::lock_guard guard(lock_);
    if (ended_ || retired_) return false;
  }
  return write(line);
}

void DaemonLink::retire() {
  {
    std::lock_guard guard(lock_);
    if (retired_) return;
    retired_ = true;
  }
  // The daemon reads what was sent, sees the end, and closes the session
  // once its call in progress is over; the reader still takes those replies.
  ::shutdown(connection_.fd(), SHUT_WR);
}

bool DaemonLink::usable() const {
  std::lock_guard guard(lock_);
  return !ended_ && !retired_;
}

void DaemonLink::readLoop() {
  std::string buffer;
  char chunk[65536];
  for (;;) {
    const ssize_t n = ::read(connection_.fd(), chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    buffer.append(chunk, static_cast<std::size_t>(n));
    std::size_t start = 0;
    for (std::size_t end; (end = buffer.find('\n', start)) != std::string::npos; start = end + 1) {
      std::string line = buffer.substr(start, end - start);
      const auto key = replyKey(line);
      if (!key) continue;
      std::lock_guard guard(lock_);
      if (auto found = waiters_.find(*key); found != waiters_.end()) {
        found->second->reply = std::move(line);
        found->second->wake();
      }  // else its client went away: the reply has nobody to go to
    }
    buffer.erase(0, start);
  }
  std::lock_guard guard(lock_);
  ended_ = true;
  for (const auto& [key, waiter] : waiters_) waiter->wake();
}

}  // namespace glimmerstrand::client
