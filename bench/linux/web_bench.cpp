// Pages in Chromium and Firefox on a headless desktop of the bench's own,
// served on loopback: a price list of 800 rows (2,400 elements, about 4,000 accessible
// objects) with a field above it, and a form that sends to itself. Side by
// side, per browser:
//   PerCallWalk      every element of the page read one call at a time, every
//                    child listed, as a tool without a mirror reads a page on
//                    every call;
//   FirstWalk        the mirror's walk of the window, narrowed to the rows in
//                    view;
//   PartialWalk      the walk of the field after its value changed;
//   QueryOverSocket  a query answered from the mirror through the daemon;
//   SubmitOverSocket a form's submit pressed through the daemon, to the report
//                    of the page it loaded.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "desktop_reads.h"
#include "platform/linux/page_server.h"
#include "platform/linux/test_desktop.h"
#include "support/daemon_client.h"

namespace {

using namespace glimmerstrand;
using platform::Accessibility;
using platform::Element;

const std::string formPage =
    "<!doctype html><title>Order</title><h1>Order</h1><form action=\"form.html\">"
    "<label>Name <input name=\"name\"></label><button>Send order</button></form>";

std::string longPage() {
  std::string page = testing::priceListPage(800);
  const std::string heading = "<h1>Price list</h1>";
  return page.replace(page.find(heading), heading.size(), heading + "<label>Filter <input></label>");
}

struct Desktop {
  std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("glimmerstrand-web-bench-" + std::to_string(::getpid()));
  std::unique_ptr<testing::PageServer> server;
  std::unique_ptr<testing::TestDesktop> desktop;
  std::unique_ptr<bench::LinuxReads> reads;

  Desktop() {
    std::filesystem::create_directories(folder);
    server = std::make_unique<testing::PageServer>(
        folder, std::map<std::string, std::string>{{"long.html", longPage()}, {"form.html", formPage}});
    desktop = std::make_unique<testing::TestDesktop>(std::vector<std::string>{
        "chromium --no-first-run " + server->url("long.html"), "firefox-esr " + server->url("long.html")});
    reads = std::make_unique<bench::LinuxReads>();
  }
  ~Desktop() {
    reads.reset();
    desktop.reset();
    server.reset();
    testing::removeBrowserFolder(folder);
  }
  Accessibility& ax() { return reads->ax(); }
  Element app(const std::string& name) { return ax().applicationElement(desktop->pid(name)); }
};

Desktop* desktop = nullptr;

native::WalkResult walk(Accessibility& ax, const Element& app) { return bench::walkWindow(ax, app); }

// The page's document: the first web area of the window's walk.
std::optional<Element> pageOf(const std::string& browser) {
  auto tree = walk(desktop->ax(), desktop->app(browser));
  for (std::size_t n = 0; n < tree.nodes.size(); ++n)
    if (tree.nodes[n].role == "AXWebArea") return tree.elements[n];
  return std::nullopt;
}

void BM_PerCallWalk(benchmark::State& state, const std::string& browser) {
  auto page = pageOf(browser);
  if (!page) return state.SkipWithError("no page");
  std::size_t nodes = 0;
  for (auto _ : state) nodes = bench::perCallWalk(desktop->reads->connection(), *page);
  state.counters["nodes"] = static_cast<double>(nodes);
}

void BM_FirstWalk(benchmark::State& state, const std::string& browser) {
  const Element root = desktop->app(browser);
  std::size_t nodes = 0;
  for (auto _ : state) nodes = walk(desktop->ax(), root).nodes.size();
  state.counters["nodes"] = static_cast<double>(nodes);
}

void BM_PartialWalk(benchmark::State& state, const std::string& browser) {
  auto& ax = desktop->ax();
  auto tree = walk(ax, desktop->app(browser));
  std::optional<Element> field;
  for (std::size_t n = 0; n < tree.nodes.size() && !field; ++n)
    if (tree.nodes[n].role == "AXTextField" && tree.nodes[n].title == "Filter") field = tree.elements[n];
  if (!field) return state.SkipWithError("no field");
  std::int64_t count = 0;
  for (auto _ : state) {
    state.PauseTiming();
    ax.set(*field, "AXValue", platform::AxValue(std::string("item ") + std::to_string(++count)));
    state.ResumeTiming();
    benchmark::DoNotOptimize(native::walkElement(ax, *field, 0, native::AppMirror::maxDepth, 100));
  }
}

void withDaemon(const std::function<void(testing::DaemonClient&)>& use) {
  bench::withDaemon(desktop->desktop->environment(), use);
}

void BM_QueryOverSocket(benchmark::State& state, const std::string& browser) {
  withDaemon([&](testing::DaemonClient& daemon) {
    const std::string query = bench::request("query", browser, "MATCH (c:Cell {name:'Item 5'}) RETURN c.id");
    auto first = daemon.roundTrip(query);  // the first read makes the mirror
    if (first.find("\"ok\":true") == std::string::npos) state.SkipWithError(first.c_str());
    for (auto _ : state) benchmark::DoNotOptimize(daemon.roundTrip(query));
  });
}

// The form sends to itself: each press loads it anew, and the report waits
// for the page.
void BM_SubmitOverSocket(benchmark::State& state, const std::string& browser, const std::string& bar) {
  withDaemon([&](testing::DaemonClient& daemon) {
    const std::string open = "MATCH " + bar + " SET a.value = '" + desktop->server->url("form.html") +
                             "'; CALL ui.key('return'); "
                             "CALL ui.wait_for('MATCH (w:WebArea) WHERE w.name = \\\"Order\\\" RETURN w.id', 10000)";
    auto opened = daemon.roundTrip(bench::request("do", browser, open));
    if (opened.find("\"ok\":true") == std::string::npos) return state.SkipWithError(opened.c_str());
    const std::string press =
        bench::request("do", browser, "MATCH (b:Button {name:'Send order'}) SET b.pressed = true");
    for (auto _ : state) benchmark::DoNotOptimize(daemon.roundTrip(press));
  });
}

void registerAll() {
  struct Browser {
    std::string name, bar;
  };
  const Browser browsers[] = {{"chromium", "(a:TextField {name:'Address and search bar'})"},
                              {"firefox-esr", "(a:ComboBox)"}};
  auto ms = [](benchmark::internal::Benchmark* b) { return b->Unit(benchmark::kMillisecond); };
  for (const auto& b : browsers) {
    ms(benchmark::RegisterBenchmark(("PerCallWalk/" + b.name).c_str(), BM_PerCallWalk, b.name))->Iterations(1);
    ms(benchmark::RegisterBenchmark(("FirstWalk/" + b.name).c_str(), BM_FirstWalk, b.name))->Iterations(10);
    ms(benchmark::RegisterBenchmark(("PartialWalk/" + b.name).c_str(), BM_PartialWalk, b.name))->Iterations(20);
    ms(benchmark::RegisterBenchmark(("QueryOverSocket/" + b.name).c_str(), BM_QueryOverSocket, b.name));
    ms(benchmark::RegisterBenchmark(("SubmitOverSocket/" + b.name).c_str(), BM_SubmitOverSocket, b.name, b.bar))
        ->Iterations(5);
  }
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
