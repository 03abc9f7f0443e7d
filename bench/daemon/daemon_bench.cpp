// What an agent waits for: a statement's round trip through the daemon's
// socket. The daemon runs on a simulated desktop with one application of
// 10,000 elements, unchanged between reads. Beside it, the same press and
// settle straight over the line protocol, timed by the operations' own
// figures: the part of a write's round trip that is the application's.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

#include "core/json_value.h"

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

  /// In a child: the environment of a silent glimmerstrand-native on the big
  /// application, then the executable with `mode` ("" for the line protocol).
  [[noreturn]] void execNative(const char* mode) const {
    ::setenv("XDG_STATE_HOME", path_.c_str(), 1);
    ::setenv("GLIMMERSTRAND_PLATFORM", "sim", 1);
    ::setenv("GLIMMERSTRAND_SIM_APPS", (path_ / "apps.json").c_str(), 1);
    ::setenv("GLIMMERSTRAND_LOG_LEVEL", "silent", 1);
    ::setenv("GLIMMERSTRAND_CURSOR", "0", 1);
    ::unsetenv("GLIMMERSTRAND_SOCKET");
    if (*mode)
      ::execl(GLIMMERSTRAND_NATIVE_BINARY, GLIMMERSTRAND_NATIVE_BINARY, mode, static_cast<char*>(nullptr));
    else
      ::execl(GLIMMERSTRAND_NATIVE_BINARY, GLIMMERSTRAND_NATIVE_BINARY, static_cast<char*>(nullptr));
    ::_exit(127);
  }

 private:
  std::filesystem::path path_;
};

// Reads one line at a time from `fd`, keeping what comes after it.
std::string readLine(int fd, std::string& pending) {
  char buffer[65536];
  for (std::size_t end; (end = pending.find('\n')) == std::string::npos;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n <= 0) throw std::runtime_error("read");
    pending.append(buffer, static_cast<std::size_t>(n));
  }
  const std::size_t end = pending.find('\n');
  std::string line = pending.substr(0, end);
  pending.erase(0, end + 1);
  return line;
}

void writeLine(int fd, const std::string& line) {
  const std::string out = line + "\n";
  if (::write(fd, out.data(), out.size()) != static_cast<ssize_t>(out.size())) throw std::runtime_error("write");
}

class Daemon {
 public:
  Daemon() : folder_("daemon-bench") {
    socket_ = (folder_.path() / "glimmerstrand/glimmerstrand.sock").string();
    pid_ = ::fork();
    if (pid_ == 0) folder_.execNative("daemon");
    for (int k = 0; k < 500 && fd_ < 0; ++k) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      fd_ = connectTo(socket_);
    }
    if (fd_ < 0) throw std::runtime_error("the daemon did not come up");
  }
  ~Daemon() {
    ::close(fd_);
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }

  std::string roundTrip(const std::string& line) {
    writeLine(fd_, line);
    return readLine(fd_, pending_);
  }

 private:
  static int connectTo(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    ::close(fd);
    return -1;
  }
  Folder folder_;
  std::string socket_;
  std::string pending_;
  pid_t pid_ = -1;
  int fd_ = -1;
};

// glimmerstrand-native on pipes, one request at a time.
class LineProcess {
 public:
  LineProcess() : folder_("line-bench") {
    int toChild[2], fromChild[2];
    if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(toChild[0], 0);
      ::dup2(fromChild[1], 1);
      ::close(toChild[1]);
      ::close(fromChild[0]);
      folder_.execNative("");
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    in_ = toChild[1];
    out_ = fromChild[0];
  }
  ~LineProcess() {
    ::close(in_);  // end of input ends the process
    ::waitpid(pid_, nullptr, 0);
    ::close(out_);
  }

  /// The result of one operation; a failure throws.
  JSONValue call(const std::string& method, JSONValue::Object params) {
    namespace core = glimmerstrand::core;
    writeLine(in_, core::jsonText(JSONValue::Object{{"id", ++lastId_}, {"method", method}, {"params", params}}));
    auto reply = core::parseJSON(readLine(out_, pending_));
    if (core::optionalBool(reply, "ok") != true) throw std::runtime_error(method + ": " + core::jsonText(reply));
    return *reply.find("result");
  }

 private:
  Folder folder_;
  pid_t pid_ = -1;
  int in_ = -1, out_ = -1;
  std::int64_t lastId_ = 0;
  std::string pending_;
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

}  // namespace
