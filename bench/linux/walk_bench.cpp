// Reading real applications on a headless desktop of the bench's own: a
// text editor (mousepad), a Qt calculator (speedcrunch), LibreOffice Calc, a GTK list of
// 2,000 rows and a GTK tree view of 2,000 rows by 3 columns. Side by side,
// per application:
//   NaiveWalk     every element read one call at a time, every child of
//                 every container listed (but a sheet's 2^31 cells), as a
//                 tool without a mirror walks on every call;
//   PerCallWalk   the mirror's walk without its batching: element by
//                 element, narrowed to the visible band;
//   BulkRead      every element of the tree read in one pipelined batch,
//                 with the list of elements already known: the floor;
//   FirstWalk     the mirror's first full walk, batched by the prefetch hint;
//   PartialWalk   the walk of one text field after its value changed;
//   QueryOverSocket  a query answered from the mirror through the daemon's
//                 socket.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "desktop_reads.h"
#include "platform/linux/atspi_element.h"
#include "platform/linux/atspi_reader.h"
#include "platform/linux/test_desktop.h"
#include "support/daemon_client.h"

namespace {

using namespace glimmerstrand;
using platform::Accessibility;
using platform::Element;
using platform::linux_desktop::AtspiElement;
using platform::linux_desktop::ObjectRef;

const std::string formApp = GLIMMERSTRAND_SOURCE_DIR "/tests/platform/linux/data/form_app.py";
const std::string treeApp = GLIMMERSTRAND_SOURCE_DIR "/tests/platform/linux/data/tree_app.py";

// The same reads without the batching a prefetch allows.
class NoPrefetch final : public platform::AccessibilityWrapper {
 public:
  using AccessibilityWrapper::AccessibilityWrapper;
  void prefetch(const std::vector<Element>&, const std::vector<std::string>&) override {}
};

struct Desktop {
  testing::TestDesktop desktop{{"mousepad", "speedcrunch", formApp + " 2000", treeApp + " 2000", "soffice --calc"}};
  bench::LinuxReads reads;

  Accessibility& ax() { return reads.ax(); }
  Element app(const std::string& name) { return ax().applicationElement(desktop.pid(name)); }
};

Desktop* desktop = nullptr;

native::WalkResult walk(Accessibility& ax, const Element& app) { return bench::walkWindow(ax, app); }

void BM_NaiveWalk(benchmark::State& state, const std::string& app) {
  const Element root = desktop->app(app);
  std::size_t nodes = 0;
  for (auto _ : state) nodes = bench::perCallWalk(desktop->reads.connection(), root);
  state.counters["nodes"] = static_cast<double>(nodes);
}

void BM_PerCallWalk(benchmark::State& state, const std::string& app) {
  NoPrefetch plain(desktop->ax());
  const Element root = desktop->app(app);
  std::size_t nodes = 0;
  for (auto _ : state) nodes = walk(plain, root).nodes.size();
  state.counters["nodes"] = static_cast<double>(nodes);
}

void BM_BulkRead(benchmark::State& state, const std::string& app) {
  auto tree = walk(desktop->ax(), desktop->app(app));
  std::vector<ObjectRef> refs;
  for (const auto& element : tree.elements) {
    const auto* e = element.as<AtspiElement>();
    refs.push_back({e->bus(), e->path()});
  }
  const auto parts = platform::linux_desktop::partsFor(native::walkAttributes());
  for (auto _ : state)
    benchmark::DoNotOptimize(platform::linux_desktop::readRecords(desktop->reads.connection(), refs, parts, 5000));
  state.counters["nodes"] = static_cast<double>(refs.size());
}

void BM_FirstWalk(benchmark::State& state, const std::string& app) {
  const Element root = desktop->app(app);
  std::size_t nodes = 0;
  for (auto _ : state) nodes = walk(desktop->ax(), root).nodes.size();
  state.counters["nodes"] = static_cast<double>(nodes);
}

// The text field's subtree walked again after each change of its value,
// which is what the mirror's partial walk reads for one changed field.
void BM_PartialWalk(benchmark::State& state, const std::string& app, const std::string& role) {
  auto& ax = desktop->ax();
  auto tree = walk(ax, desktop->app(app));
  std::optional<Element> field;
  for (std::size_t n = 0; n < tree.nodes.size() && !field; ++n)
    if (tree.nodes[n].role == role) field = tree.elements[n];
  if (!field) return state.SkipWithError("no text field");
  std::int64_t count = 0;
  for (auto _ : state) {
    state.PauseTiming();
    ax.set(*field, "AXValue", platform::AxValue(std::string("changed ") + std::to_string(++count)));
    state.ResumeTiming();
    benchmark::DoNotOptimize(native::walkElement(ax, *field, 0, native::AppMirror::maxDepth, 100));
  }
}

void withDaemon(const std::function<void(testing::DaemonClient&)>& use) {
  bench::withDaemon(desktop->desktop.environment(), use);
}

void BM_QueryOverSocket(benchmark::State& state, const std::string& app, const std::string& statement) {
  withDaemon([&](testing::DaemonClient& daemon) {
    const std::string query = bench::request("query", app, statement);
    auto first = daemon.roundTrip(query);  // the first read makes the mirror
    if (first.find("\"ok\":true") == std::string::npos) state.SkipWithError(first.c_str());
    for (auto _ : state) benchmark::DoNotOptimize(daemon.roundTrip(query));
  });
}

// A write's round trip through the daemon's socket, from the request to the
// report of what changed; `statement` holds {n}, replaced by a new number
// each time.
void BM_WriteOverSocket(benchmark::State& state, const std::string& app, const std::string& statement) {
  withDaemon([&](testing::DaemonClient& daemon) {
    auto write = [&](std::int64_t n) {
      std::string text = statement;
      text.replace(text.find("{n}"), 3, std::to_string(n));
      return bench::request("do", app, text);
    };
    auto first = daemon.roundTrip(write(1));
    if (first.find("\"ok\":true") == std::string::npos) state.SkipWithError(first.c_str());
    std::int64_t n = 1;
    for (auto _ : state) benchmark::DoNotOptimize(daemon.roundTrip(write(++n)));
  });
}

void registerAll() {
  struct App {
    std::string name, field, query;
    int slowIterations;
  };
  const App apps[] = {
      {"mousepad", "AXTextArea", "MATCH (b:MenuBarItem {name:'File'}) RETURN b.id", 5},
      {"speedcrunch", "AXTextArea", "MATCH (b:MenuBarItem {name:'File'}) RETURN b.id", 5},
      {"form_app.py", "AXTextField", "MATCH (r:StaticText {name:'Row 5'}) RETURN r.id", 2},
      {"tree_app.py", "", "MATCH (c:Cell {name:'Row 5'}) RETURN c.id", 1},
      {"soffice", "", "MATCH (c:Cell {name:'B2'}) RETURN c.value", 1},
  };
  for (const auto& app : apps) {
    auto ms = [](benchmark::internal::Benchmark* b) { return b->Unit(benchmark::kMillisecond); };
    ms(benchmark::RegisterBenchmark(("NaiveWalk/" + app.name).c_str(), BM_NaiveWalk, app.name))->Iterations(1);
    ms(benchmark::RegisterBenchmark(("PerCallWalk/" + app.name).c_str(), BM_PerCallWalk, app.name))
        ->Iterations(app.slowIterations);
    ms(benchmark::RegisterBenchmark(("BulkRead/" + app.name).c_str(), BM_BulkRead, app.name));
    ms(benchmark::RegisterBenchmark(("FirstWalk/" + app.name).c_str(), BM_FirstWalk, app.name));
    if (!app.field.empty())
      ms(benchmark::RegisterBenchmark(("PartialWalk/" + app.name).c_str(), BM_PartialWalk, app.name, app.field));
    ms(benchmark::RegisterBenchmark(("QueryOverSocket/" + app.name).c_str(), BM_QueryOverSocket, app.name, app.query));
  }
  benchmark::RegisterBenchmark("WriteOverSocket/soffice", BM_WriteOverSocket, "soffice",
                               "MATCH (c:Cell {name:'B2'}) SET c.value = '{n}'")
      ->Unit(benchmark::kMillisecond)
      ->Iterations(5);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Desktop here;
  desktop = &here;
  registerAll();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  desktop = nullptr;
}
