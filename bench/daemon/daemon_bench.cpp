// What an agent waits for: a statement's round trip through the daemon's
// socket, and through MCP over HTTP from outside a sandbox. The daemon runs
// on a simulated desktop with one application of 10,000 elements, unchanged
// between reads. Beside it, the same press and settle straight over the line
// protocol, timed by the operations' own figures: the part of a write's round
// trip that is the application's.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <thread>
#include <vector>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "core/json_value.h"
#include "support/daemon_client.h"
#include "support/line_client.h"

namespace {

using glimmerstrand::core::JSONValue;

// A window of 100 groups, each with 99 buttons and texts.
std::string bigFixture() {
  std::string children;
  for (int g = 0; g < 100; ++g) {
    std::string items;
    for (int k = 0; k < 99; ++k) {
      if (k) items += ',';
      const int y = (g * 99 + k) % 800;
      items += k % 3 ? R"({"role":"AXButton","title":"Action )" + std::to_string(g * 99 + k) + R"(","frame":[10,)" +
                           std::to_string(y) +
                           R"(,80,20],"onPress":[{"append":{"key":"counter","attribute":"AXValue","text":"+"}}]})"
                     : R"({"role":"AXStaticText","value":"Label )" + std::to_string(k) + R"(","frame":[100,)" +
                           std::to_string(y) + R"(,80,20]})";
    }
    if (g) children += ',';
    children += R"({"role":"AXGroup","frame":[0,0,800,800],"children":[)" + items + "]}";
  }
  return R"({"apps":[{"pid":900,"bundleId":"com.example.big","name":"Big","frontmost":true,"windows":[)"
         R"({"role":"AXWindow","title":"Big","frame":[0,0,1000,800],"children":[)"
         R"({"key":"counter","role":"AXStaticText","value":"0","frame":[900,10,80,20]},)" +
         children + "]}]}]}";
}

// A state folder with the big application's description; removed at the end.
class Folder {
 public:
  explicit Folder(const std::string& name) {
    path_ = std::filesystem::temp_directory_path() / (name + "-" + std::to_string(::getpid()));
    std::filesystem::create_directories(path_);
    std::ofstream(path_ / "apps.json") << bigFixture();
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  const std::filesystem::path& path() const { return path_; }

  /// A silent glimmerstrand-native on the big application.
  std::map<std::string, std::string> environment() const {
    return {{"XDG_STATE_HOME", path_.string()},
            {"GLIMMERSTRAND_PLATFORM", "sim"},
            {"GLIMMERSTRAND_SIM_APPS", (path_ / "apps.json").string()},
            {"GLIMMERSTRAND_LOG_LEVEL", "silent"},
            {"GLIMMERSTRAND_CURSOR", "0"},
            {"GLIMMERSTRAND_SOCKET", ""}};
  }

 private:
  std::filesystem::path path_;
};

class Daemon {
 public:
  Daemon() : client_(GLIMMERSTRAND_NATIVE_BINARY, folder_.path().string(), folder_.environment()) {}
  std::string roundTrip(const std::string& line) { return client_.roundTrip(line); }

 private:
  Folder folder_{"daemon-bench"};
  glimmerstrand::testing::DaemonClient client_;
};

// glimmerstrand-native on pipes, one request at a time.
class LineProcess {
 public:
  JSONValue call(const std::string& method, JSONValue::Object params) { return client_.call(method, params); }

 private:
  Folder folder_{"line-bench"};
  glimmerstrand::testing::LineClient client_{GLIMMERSTRAND_NATIVE_BINARY, folder_.environment()};
};

void BM_QueryOverSocket(benchmark::State& state) {
  Daemon daemon;
  const std::string request =
      R"({"operation":"query","params":{"app":"Big","cypher":"MATCH (b:Button) RETURN b LIMIT 20"}})";
  auto first = daemon.roundTrip(request);  // the first read makes the mirror
  if (first.find("\"ok\":true") == std::string::npos) state.SkipWithError(first.c_str());
  for (auto _ : state) benchmark::DoNotOptimize(daemon.roundTrip(request));
}
BENCHMARK(BM_QueryOverSocket)->Unit(benchmark::kMillisecond)->Repetitions(3)->ReportAggregatesOnly(true);

// One press and a read: the press settles (60 ms of quiet after its change)
// before the read, so the figure to compare is that settle plus our own cost.
void BM_PressAndReadOverSocket(benchmark::State& state) {
  Daemon daemon;
  const std::string request = R"({"operation":"do","params":{"app":"Big","cypher":"CALL ui.press(\"Action 1\"); )"
                              R"(MATCH (b:Button {name:\"Action 1\"}) RETURN b.name"}})";
  auto first = daemon.roundTrip(request);
  if (first.find("\"ok\":true") == std::string::npos) state.SkipWithError(first.c_str());
  for (auto _ : state) benchmark::DoNotOptimize(daemon.roundTrip(request));
}
BENCHMARK(BM_PressAndReadOverSocket)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(30)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

// The settle time of that same press: the press itself, the wait for quiet
// and the fresh copy after it, as the operations measure them, without the
// statement's own work. The fresh copy's figure includes writing its 10,000
// nodes as JSON, which a statement never does; a read of the same nodes that
// waits for nothing measures that writing, and it is taken off.
void BM_PressSettle(benchmark::State& state) {
  namespace core = glimmerstrand::core;
  LineProcess line;
  const JSONValue pid = std::int64_t{900};
  std::optional<std::int64_t> uid;
  auto copy = line.call("axSnapshot", {{"pid", pid}, {"fresh", true}});
  for (const auto& node : *copy.find("nodes")->asArray())
    if (core::optionalString(node, "title") == "Action 1") uid = core::optionalInt(node, "uid");
  if (!uid) return state.SkipWithError("no button Action 1");
  auto figure = [](const JSONValue& result, const char* key) { return *core::optionalNumber(result, key); };
  std::map<std::string, double> totals;
  for (auto _ : state) {
    auto pressed = line.call("press", {{"pid", pid}, {"uid", *uid}});
    auto settled = line.call("waitSettle", {{"pid", pid},
                                            {"since", *core::optionalInt(pressed, "notificationsBefore")},
                                            {"quietMs", std::int64_t{60}},
                                            {"firstMs", std::int64_t{150}}});
    // The labelled copy first, so that the copy of all nodes is written anew.
    auto fresh = line.call("axSnapshot", {{"pid", pid}, {"fresh", true}});
    auto written = line.call("axSnapshot", {{"pid", pid}, {"all", true}});
    const std::map<std::string, double> parts{{"pressMs", figure(pressed, "elapsedMs")},
                                              {"waitedMs", figure(settled, "waitedMs")},
                                              {"copyMs", figure(fresh, "elapsedMs")},
                                              {"writingMs", figure(written, "elapsedMs")}};
    for (const auto& [name, ms] : parts) totals[name] += ms;
    state.SetIterationTime((parts.at("pressMs") + parts.at("waitedMs") + parts.at("copyMs") - parts.at("writingMs")) /
                           1000);
  }
  for (const auto& [name, ms] : totals) state.counters[name] = ms / static_cast<double>(state.iterations());
}
BENCHMARK(BM_PressSettle)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(30)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

// `glimmerstrand mcp --http 127.0.0.1:0` on the big application, which
// starts its daemon; ended by pid, with the daemon, at the end.
class HttpBridge {
 public:
  HttpBridge() {
    auto environment = folder_.environment();
    environment["GLIMMERSTRAND_HTTP_TOKEN"] = "bench";
    environment["HOME"] = folder_.path().string();
    std::vector<std::string> entries;
    for (const auto& [name, value] : environment) entries.push_back(name + "=" + value);
    int output[2];
    if (::pipe(output) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(output[1], 2);
      ::close(output[0]);
      std::vector<char*> envp;
      for (auto& entry : entries) envp.push_back(entry.data());
      envp.push_back(nullptr);
      const char* argv[] = {GLIMMERSTRAND_CLIENT_BINARY, "mcp", "--http", "127.0.0.1:0", nullptr};
      ::execve(argv[0], const_cast<char**>(argv), envp.data());
      ::_exit(127);
    }
    ::close(output[1]);
    std::string said;
    static const std::regex url(R"(MCP on http://127\.0\.0\.1:(\d+)/mcp)");
    std::smatch match;
    char buffer[512];
    for (ssize_t n; !std::regex_search(said, match, url) && (n = ::read(output[0], buffer, sizeof buffer)) > 0;)
      said.append(buffer, static_cast<std::size_t>(n));
    ::close(output[0]);
    if (std::regex_search(said, match, url)) port_ = static_cast<std::uint16_t>(std::stoi(match[1]));
  }
  ~HttpBridge() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
    }
    // The daemon it started: stopped as the client stops it.
    const std::string stop = "env XDG_STATE_HOME=" + folder_.path().string() + " " GLIMMERSTRAND_CLIENT_BINARY " stop";
    if (std::system((stop + " >/dev/null").c_str()) != 0) return;
  }
  std::uint16_t port() const { return port_; }

 private:
  Folder folder_{"http-bench"};
  pid_t pid_ = -1;
  std::uint16_t port_ = 0;
};

// One kept-alive HTTP connection, one POST at a time.
class HttpConnection {
 public:
  explicit HttpConnection(std::uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    const int on = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  ~HttpConnection() { ::close(fd_); }
  bool connected() const { return connected_; }

  /// The reply's headers and body, as one text.
  std::string post(const std::string& body, const std::string& session = "") {
    std::string request =
        "POST /mcp HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer bench\r\n"
        "Content-Type: application/json\r\nAccept: application/json, text/event-stream\r\n";
    if (!session.empty()) request += "Mcp-Session-Id: " + session + "\r\nMCP-Protocol-Version: 2025-11-25\r\n";
    request += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    if (::send(fd_, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) return "";
    std::string reply;
    char buffer[65536];
    for (;;) {
      const auto end = reply.find("\r\n\r\n");
      if (end != std::string::npos) {
        const auto length = reply.find("Content-Length: ");
        const std::size_t size = length == std::string::npos ? 0 : std::stoul(reply.substr(length + 16));
        if (reply.size() >= end + 4 + size) return reply;
      }
      const ssize_t n = ::read(fd_, buffer, sizeof buffer);
      if (n <= 0) return reply;
      reply.append(buffer, static_cast<std::size_t>(n));
    }
  }

 private:
  int fd_;
  bool connected_ = false;
};

// A `do` that reads, within one session, as an agent outside the sandbox
// sends it. Each call's time goes into the median beside the mean.
void BM_DoReadOverHttp(benchmark::State& state) {
  HttpBridge bridge;
  HttpConnection connection(bridge.port());
  if (!bridge.port() || !connection.connected()) return state.SkipWithError("no mcp --http");
  const std::string initialized =
      connection.post(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-11-25",)"
                      R"("capabilities":{},"clientInfo":{"name":"bench","version":"1"}}})");
  static const std::regex id(R"(Mcp-Session-Id: (\w+))", std::regex::icase);
  std::smatch match;
  if (!std::regex_search(initialized, match, id)) return state.SkipWithError(initialized.c_str());
  const std::string session = match[1];
  const std::string read = R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"do","arguments":)"
                           R"({"app":"Big","cypher":"MATCH (b:Button) RETURN b LIMIT 20"}}})";
  const std::string first = connection.post(read, session);  // the first read makes the mirror
  if (first.find("\"isError\"") != std::string::npos || first.find("200 OK") == std::string::npos)
    return state.SkipWithError(first.c_str());
  std::vector<double> calls;
  for (auto _ : state) {
    const auto started = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(connection.post(read, session));
    calls.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count());
  }
  std::sort(calls.begin(), calls.end());
  state.counters["medianMs"] = calls[calls.size() / 2];
  state.counters["p90Ms"] = calls[calls.size() * 9 / 10];
}
BENCHMARK(BM_DoReadOverHttp)->Unit(benchmark::kMillisecond)->Repetitions(3)->ReportAggregatesOnly(true);

}  // namespace
