// What an agent waits for: a statement's round trip through the daemon's
// socket. The daemon runs on a simulated desktop with one application of
// 10,000 elements, unchanged between reads. Beside it, the same press and
// settle straight over the line protocol, timed by the operations' own
// figures: the part of a write's round trip that is the application's.
#include <benchmark/benchmark.h>
#include <unistd.h>

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

}  // namespace
