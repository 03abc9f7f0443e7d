// The mirror on a simulated application of 10,000 nodes: a full walk, an
// unchanged snapshot over the line protocol, and one value change carried by
// a partial walk.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <string>

#include "mirror/app_mirror.h"
#include "native/line_operations.h"
#include "native/line_protocol.h"
#include "native/mirror_operations.h"
#include "platform/sim/driven_clock.h"
#include "platform/sim/sim_platform.h"

namespace glimmerstrand::native {
namespace {

using platform::sim::element;

constexpr std::int32_t bigPid = 900;

// A window with 99 groups of 100 buttons: exactly 10,000 nodes.
platform::sim::DesktopSpec bigDesktop() {
  auto window = element("AXWindow").title("Big").withFrame(0, 0, 1000, 1000);
  for (int g = 0; g < 99; ++g) {
    auto group = element("AXGroup").withKey("group" + std::to_string(g)).withFrame(0, g * 10.0, 1000, 10);
    for (int b = 0; b < 100; ++b)
      group.child(element("AXButton")
                      .withKey("b" + std::to_string(g) + "." + std::to_string(b))
                      .title("Button " + std::to_string(b))
                      .value(b)
                      .withFrame(b * 10.0, g * 10.0, 10, 10));
    window.child(std::move(group));
  }
  platform::sim::AppSpec app;
  app.pid = bigPid;
  app.bundleId = "com.example.big";
  app.name = "Big";
  app.frontmost = true;
  app.windows.push_back(std::move(window));
  return platform::sim::DesktopSpec{{}, {app}};
}

void BM_FullWalk10000Nodes(benchmark::State& state) {
  platform::sim::SimPlatform sim(bigDesktop());
  auto& ax = sim.accessibility();
  auto app = ax.applicationElement(bigPid);
  std::size_t nodes = 0;
  for (auto _ : state) {
    auto walk =
        walkTree(ax, app, "window", AppMirror::maxDepth, AppMirror::maxNodes, static_cast<std::size_t>(state.range(0)));
    nodes = walk.nodes.size();
    benchmark::DoNotOptimize(walk);
  }
  if (nodes != 10000) state.SkipWithError("the walk did not read 10,000 nodes");
  state.counters["nodes"] = static_cast<double>(nodes);
}
// The first walk of an application knows nothing of its size; later ones
// expect what the last one found.
BENCHMARK(BM_FullWalk10000Nodes)->ArgName("expected")->Arg(0)->Arg(10000)->Unit(benchmark::kMillisecond);

// A line host whose replies are caught, so that a request can be timed from
// its line to its reply.
struct CaughtLineHost {
  explicit CaughtLineHost(MirrorHost& mirrors) { addMirrorOperations(table, mirrors); }
  // The worker that wrote the last reply still holds the host for a moment.
  ~CaughtLineHost() { host.waitForReplies(std::chrono::seconds(10)); }
  std::string request(const std::string& line) {
    std::unique_lock guard(lock);
    reply.reset();
    guard.unlock();
    host.handleLine(line);
    guard.lock();
    arrived.wait(guard, [&] { return reply.has_value(); });
    return *reply;
  }

  OperationTable table;
  Queues queues;
  std::mutex lock;  // guards reply
  std::condition_variable arrived;
  std::optional<std::string> reply;
  Output output{[this](std::string_view line) {
    std::lock_guard guard(lock);
    reply = std::string(line);
    arrived.notify_all();
  }};
  LineHost host{table, queues, output};
};

void snapshotOverLines(benchmark::State& state, bool unchanged) {
  platform::sim::SimPlatform sim(bigDesktop());
  MirrorHost mirrors(&sim, "");
  CaughtLineHost lines(mirrors);
  auto first = lines.request(R"({"id":0,"method":"axSnapshot","params":{"pid":900,"timeoutMs":60000}})");
  if (first.find("\"generation\":1") == std::string::npos) state.SkipWithError("no first walk");
  const std::string line = unchanged ? R"({"id":1,"method":"axSnapshot","params":{"pid":900,"ifGeneration":1}})"
                                     : R"({"id":1,"method":"axSnapshot","params":{"pid":900,"all":true}})";
  std::size_t bytes = 0;
  for (auto _ : state) bytes = lines.request(line).size();
  state.counters["replyBytes"] = static_cast<double>(bytes);
}

void BM_AxSnapshotUnchanged10000Nodes(benchmark::State& state) { snapshotOverLines(state, true); }
BENCHMARK(BM_AxSnapshotUnchanged10000Nodes)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_AxSnapshotAllNodesCached10000Nodes(benchmark::State& state) { snapshotOverLines(state, false); }
BENCHMARK(BM_AxSnapshotAllNodesCached10000Nodes)->Unit(benchmark::kMicrosecond)->UseRealTime();

// From a change in the application to the fresh snapshot that shows it: the
// notification, one 19-attribute read, the commit of 10,000 nodes. Virtual
// time skips the debounce and the pacing; the figure is the work alone.
void BM_ValueChangeByPartialWalk10000Nodes(benchmark::State& state) {
  platform::sim::DrivenClock clock;
  platform::sim::SimPlatform sim(bigDesktop(), clock, clock.mainLoop());
  Mirrors mirrors(MirrorEnvironment{sim.accessibility(), clock}, sim.workspace());
  auto mirror = mirrors.mirror(bigPid);
  clock.runUntilIdle();
  SnapshotRequest fresh;
  fresh.fresh = true;
  std::int64_t touched = 0;
  int value = 0;
  for (auto _ : state) {
    sim.desktop().setAttribute(bigPid, "b50.50", "AXValue", ++value);
    clock.advance(0);
    auto snapshot = mirror->snapshot(fresh);
    if (snapshot.lastWalk != "partial") state.SkipWithError("not a partial walk");
    touched = snapshot.partialNodes;
    state.PauseTiming();
    clock.runUntilIdle();  // the trailing walk, outside the measure
    state.ResumeTiming();
  }
  state.counters["touched"] = static_cast<double>(touched);
  clock.runUntilIdle();
}
BENCHMARK(BM_ValueChangeByPartialWalk10000Nodes)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace glimmerstrand::native
