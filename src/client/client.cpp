#include "client/client.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <thread>

#include "core/json_value.h"

namespace glimmerstrand::client {
namespace {

int connectTo(const std::string& path) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) return -1;
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  ::close(fd);
  return -1;
}

void startDaemon() {
  auto native =
      std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "native" / "glimmerstrand-native";
  if (!std::filesystem::exists(native)) native = "glimmerstrand-native";  // from PATH, when installed
  pid_t child = ::fork();
  if (child == 0) {
    ::setsid();  // the daemon outlives this client
    if (::fork() == 0) {
      // Detached from the terminal: its log would only interleave with our output.
      int null = ::open("/dev/null", O_RDWR);
      for (int fd : {0, 1, 2}) ::dup2(null, fd);
      ::execlp(native.c_str(), native.c_str(), "daemon", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::_exit(0);
  }
  ::waitpid(child, nullptr, 0);
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

int usage() {
  std::cerr << "usage: glimmerstrand [--app APP] [--json] do|query STATEMENTS|-\n"
               "       glimmerstrand ping|status|doctor|skill\n"
               "       glimmerstrand mcp\n";
  return 2;
}

}  // namespace

std::string socketPath() {
  const char* bundled = std::getenv("GLIMMERSTRAND_BUNDLED");
  const char* socket = std::getenv("GLIMMERSTRAND_SOCKET");
  if (!(bundled && std::strcmp(bundled, "1") == 0) && socket && *socket) return socket;
  const char* state = std::getenv("XDG_STATE_HOME");
  const char* home = std::getenv("HOME");
  std::filesystem::path folder = state && *state
                                     ? std::filesystem::path(state) / "glimmerstrand"
                                     : std::filesystem::path(home ? home : "/tmp") / ".local/state/glimmerstrand";
  return (folder / "glimmerstrand.sock").string();
}

int connectOrStart() {
  const auto path = socketPath();
  if (int fd = connectTo(path); fd >= 0) return fd;
  startDaemon();
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (int fd = connectTo(path); fd >= 0) return fd;
  }
  return -1;
}

std::optional<std::string> request(int fd, const std::string& line) {
  if (!writeAll(fd, line + "\n")) return std::nullopt;
  std::string reply;
  char c;
  while (::read(fd, &c, 1) == 1) {
    if (c == '\n') return reply;
    reply += c;
  }
  return std::nullopt;
}

int bridgeMcp(int fd) {
  if (!writeAll(fd, "{\"mode\":\"mcp\"}\n")) return 1;
  std::thread([fd] {
    char buffer[65536];
    for (ssize_t n; (n = ::read(0, buffer, sizeof buffer)) > 0;)
      if (!writeAll(fd, std::string_view(buffer, static_cast<std::size_t>(n)))) break;
    ::shutdown(fd, SHUT_WR);
  }).detach();
  char buffer[65536];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
    if (::write(1, buffer, static_cast<std::size_t>(n)) != n) return 1;
  return 0;
}

int runClient(const std::vector<std::string>& args) {
  std::optional<std::string> app;
  bool json = false;
  std::vector<std::string> rest;
  for (std::size_t k = 0; k < args.size(); ++k) {
    if (args[k] == "--app" && k + 1 < args.size())
      app = args[++k];
    else if (args[k] == "--json")
      json = true;
    else
      rest.push_back(args[k]);
  }
  if (rest.empty()) return usage();
  const std::string operation = rest[0];
  int fd = connectOrStart();
  if (fd < 0) {
    std::cerr << "glimmerstrand: the daemon did not start; see glimmerstrand-native daemon\n";
    return 1;
  }
  if (operation == "mcp") return bridgeMcp(fd);

  core::JSONValue::Object params;
  if (operation == "do" || operation == "query") {
    if (rest.size() < 2) return usage();
    std::string statements = rest[1];
    if (statements == "-") statements.assign(std::istreambuf_iterator<char>(std::cin), {});
    core::put(params, "cypher", statements);
    core::putIf(params, "app", app);
  } else if (operation != "ping" && operation != "status" && operation != "doctor" && operation != "skill") {
    return usage();
  }
  core::JSONValue::Object line{{"operation", operation}, {"params", std::move(params)}};
  if (!json) core::put(line, "format", "text");
  auto reply = request(fd, core::jsonText(line));
  ::close(fd);
  if (!reply) return 1;
  if (json) {
    std::cout << *reply << "\n";
    return reply->find("\"ok\":true") != std::string::npos ? 0 : 1;
  }
  auto value = core::parseJSON(*reply);
  const auto* result = value.find("result");
  if (result && result->find("text") && result->find("text")->asString()) {
    std::cout << *result->find("text")->asString() << "\n";
    return result->find("error") ? 1 : 0;
  }
  if (result) {
    std::cout << core::jsonText(*result) << "\n";
    return 0;
  }
  const auto* error = value.find("error");
  std::cerr << (error ? core::optionalString(*error, "message").value_or(*reply) : *reply) << "\n";
  if (error && core::optionalString(*error, "retry")) std::cerr << *core::optionalString(*error, "retry") << "\n";
  return 1;
}

}  // namespace glimmerstrand::client
