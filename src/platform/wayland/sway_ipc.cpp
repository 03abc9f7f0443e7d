#include "platform/wayland/sway_ipc.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

namespace glimmerstrand::platform::wayland_desktop {

namespace {

using Json = nlohmann::json;
using SteadyClock = std::chrono::steady_clock;
constexpr char magic[] = {'i', '3', '-', 'i', 'p', 'c'};
constexpr std::size_t headerSize = sizeof magic + 8;

AxRect rectOf(const Json& node, const char* key) {
  const auto found = node.find(key);
  if (found == node.end() || !found->is_object()) return {};
  return AxRect{found->value("x", 0.0), found->value("y", 0.0), found->value("width", 0.0),
                found->value("height", 0.0)};
}

void collect(const Json& node, std::vector<SwayView>& views) {
  if (!node.is_object()) return;
  if (node.contains("pid") && node["pid"].is_number_integer() && node.value("type", "") != "workspace") {
    SwayView view;
    view.id = node.value("id", std::int64_t{0});
    view.pid = node["pid"].get<std::int32_t>();
    if (auto app = node.find("app_id"); app != node.end() && app->is_string()) view.appId = *app;
    // An X client under Xwayland has a class instead.
    if (view.appId.empty())
      if (auto props = node.find("window_properties"); props != node.end() && props->is_object())
        view.appId = props->value("class", "");
    if (auto name = node.find("name"); name != node.end() && name->is_string()) view.title = *name;
    const AxRect rect = rectOf(node, "rect"), inner = rectOf(node, "window_rect"), geometry = rectOf(node, "geometry");
    view.frame = AxRect{rect.x + inner.x, rect.y + inner.y, inner.width, inner.height};
    // The geometry's corner is where the window's content starts inside its
    // surface: a client that draws its own shadow starts it further in.
    view.surface = AxPoint{view.frame.x - geometry.x, view.frame.y - geometry.y};
    view.focused = node.value("focused", false);
    view.visible = node.value("visible", false);
    views.push_back(std::move(view));
  }
  for (const char* children : {"nodes", "floating_nodes"})
    if (auto list = node.find(children); list != node.end() && list->is_array())
      for (const auto& child : *list) collect(child, views);
}

bool writeAll(int fd, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

bool readAll(int fd, char* into, std::size_t size, SteadyClock::time_point deadline) {
  std::size_t got = 0;
  while (got < size) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
    pollfd ready{fd, POLLIN, 0};
    if (left <= 0 || ::poll(&ready, 1, static_cast<int>(std::min<long long>(left, INT_MAX))) <= 0) return false;
    const ssize_t n = ::read(fd, into + got, size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    got += static_cast<std::size_t>(n);
  }
  return true;
}

int connectTo(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return -1;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

std::vector<SwayView> parseSwayTree(const std::string& json) {
  std::vector<SwayView> views;
  const Json tree = Json::parse(json, nullptr, false);
  if (tree.is_discarded()) return views;
  collect(tree, views);
  return views;
}

std::optional<std::string> swayRequest(const std::string& socket, std::uint32_t type, const std::string& payload,
                                       std::chrono::milliseconds limit) {
  const int fd = connectTo(socket);
  if (fd < 0) return std::nullopt;
  const auto deadline = SteadyClock::now() + limit;
  std::string message(magic, sizeof magic);
  const auto length = static_cast<std::uint32_t>(payload.size());
  message.append(reinterpret_cast<const char*>(&length), 4);
  message.append(reinterpret_cast<const char*>(&type), 4);
  message += payload;
  std::optional<std::string> reply;
  char header[headerSize];
  if (writeAll(fd, message) && readAll(fd, header, headerSize, deadline) &&
      std::memcmp(header, magic, sizeof magic) == 0) {
    std::uint32_t size = 0;
    std::memcpy(&size, header + sizeof magic, 4);
    std::string body(size, '\0');
    if (readAll(fd, body.data(), size, deadline)) reply = std::move(body);
  }
  ::close(fd);
  return reply;
}

int swaySubscribe(const std::string& socket, const std::string& events) {
  const int fd = connectTo(socket);
  if (fd < 0) return -1;
  std::string message(magic, sizeof magic);
  const auto length = static_cast<std::uint32_t>(events.size());
  const std::uint32_t subscribe = 2;
  message.append(reinterpret_cast<const char*>(&length), 4);
  message.append(reinterpret_cast<const char*>(&subscribe), 4);
  message += events;
  char header[headerSize];
  std::uint32_t size = 0;
  std::string body;
  if (writeAll(fd, message) && readAll(fd, header, headerSize, SteadyClock::now() + std::chrono::seconds(1))) {
    std::memcpy(&size, header + sizeof magic, 4);
    body.resize(size);
    if (readAll(fd, body.data(), size, SteadyClock::now() + std::chrono::seconds(1)) &&
        body.find("true") != std::string::npos)
      return fd;
  }
  ::close(fd);
  return -1;
}

bool swayEvent(int connection) {
  char header[headerSize];
  // No limit: the watch waits for as long as nothing happens.
  const auto never = SteadyClock::now() + std::chrono::hours(24 * 365);
  if (!readAll(connection, header, headerSize, never)) return false;
  std::uint32_t size = 0;
  std::memcpy(&size, header + sizeof magic, 4);
  std::string body(size, '\0');
  return readAll(connection, body.data(), size, never);
}

std::optional<std::string> swaySocket() {
  if (const char* given = std::getenv("SWAYSOCK"); given && *given) return std::string(given);
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (!runtime || !*runtime) return std::nullopt;
  const std::string prefix = "sway-ipc." + std::to_string(::getuid()) + ".";
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(runtime, error)) {
    const std::string name = entry.path().filename().string();
    if (!name.starts_with(prefix) || !name.ends_with(".sock")) continue;
    if (swayRequest(entry.path().string(), 7, "", std::chrono::milliseconds(500))) return entry.path().string();
  }
  return std::nullopt;
}

std::optional<std::string> swayVersion(const std::string& socket) {
  auto reply = swayRequest(socket, 7, "", std::chrono::milliseconds(1000));
  if (!reply) return std::nullopt;
  const Json version = Json::parse(*reply, nullptr, false);
  if (!version.is_object()) return std::nullopt;
  return version.value("variant", std::string("sway")) + " " + version.value("human_readable", std::string());
}

}  // namespace glimmerstrand::platform::wayland_desktop
