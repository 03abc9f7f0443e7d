// Pages in Chromium and Firefox on a headless desktop of the bench's own,
// served on loopback: a price list of 1,000 rows (about 4,000 accessible
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
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "mirror/app_mirror.h"
#include "platform/linux/atspi_bus.h"
#include "platform/linux/atspi_element.h"
#include "platform/linux/atspi_reader.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/page_server.h"
#include "platform/linux/test_desktop.h"
#include "support/daemon_client.h"

namespace {

using namespace glimmerstrand;
using platform::Accessibility;
using platform::Element;
using platform::linux_desktop::AtspiBus;
using platform::linux_desktop::AtspiElement;
using platform::linux_desktop::ObjectRef;

const std::string formPage =
    "<!doctype html><title>Order</title><h1>Order</h1><form action=\"form.html\">"
    "<label>Name <input name=\"name\"></label><button>Send order</button></form>";

std::string longPage() {
  std::string page = testing::priceListPage(1000);
  const std::string heading = "<h1>Price list</h1>";
  return page.replace(page.find(heading), heading.size(), heading + "<label>Filter <input></label>");
}

struct Desktop {
  std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("glimmerstrand-web-bench-" + std::to_string(::getpid()));
  std::unique_ptr<testing::PageServer> server;
  std::unique_ptr<testing::TestDesktop> desktop;
  std::unique_ptr<platform::Platform> platform;
  std::thread loop;
  std::optional<AtspiBus> bus;

  Desktop() {
    std::filesystem::create_directories(folder);
    server = std::make_unique<testing::PageServer>(
        folder, std::map<std::string, std::string>{{"long.html", longPage()}, {"form.html", formPage}});
    desktop = std::make_unique<testing::TestDesktop>(std::vector<std::string>{
        "chromium --no-first-run " + server->url("long.html"), "firefox-esr " + server->url("long.html")});
    std::string problem;
    platform = platform::linux_desktop::makeLinuxPlatform(problem);
    if (!platform) throw std::runtime_error(problem);
    bus = AtspiBus::connect(problem);
    if (!bus) throw std::runtime_error(problem);
    loop = std::thread([this] { platform->mainLoop().run(); });
  }
  ~Desktop() {
    platform->mainLoop().stop();
    loop.join();
    desktop.reset();
    server.reset();
    testing::removeBrowserFolder(folder);
  }
  Accessibility& ax() { return platform->accessibility(); }
  Element app(const std::string& name) { return ax().applicationElement(desktop->pid(name)); }
};

Desktop* desktop = nullptr;

native::WalkResult walk(Accessibility& ax, const Element& app) {
  return native::walkTree(ax, app, "window", native::AppMirror::maxDepth, native::AppMirror::maxNodes);
}

// The page's document: the first web area of the window's walk.
std::optional<Element> pageOf(const std::string& browser) {
  auto tree = walk(desktop->ax(), desktop->app(browser));
  for (std::size_t n = 0; n < tree.nodes.size(); ++n)
    if (tree.nodes[n].role == "AXWebArea") return tree.elements[n];
  return std::nullopt;
}

// One element's record, then each of its children, one call after another.
std::size_t perCallWalk(GDBusConnection* connection, const ObjectRef& ref, int depth) {
  namespace lx = platform::linux_desktop;
  const auto parts = lx::basicPart | lx::extentsPart | lx::contentPart;
  auto record = lx::readRecords(connection, {ref}, parts, 5000).front();
  if (record.error != platform::AxError::success || depth > 60) return 1;
  auto reply =
      lx::callSync(connection, lx::Call{ref.bus, ref.path, "org.a11y.atspi.Accessible", "GetChildren", nullptr}, 5000);
  std::size_t count = 1;
  for (const auto& child : lx::objectRefs(lx::replyChild(reply))) count += perCallWalk(connection, child, depth + 1);
  return count;
}

void BM_PerCallWalk(benchmark::State& state, const std::string& browser) {
  auto page = pageOf(browser);
  if (!page) return state.SkipWithError("no page");
  const auto* e = page->as<AtspiElement>();
  std::size_t nodes = 0;
  for (auto _ : state) nodes = perCallWalk(desktop->bus->connection(), ObjectRef{e->bus(), e->path()}, 0);
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

// A daemon of the bench's own on the desktop, for the length of `use`.
void withDaemon(const std::function<void(testing::DaemonClient&)>& use) {
  const auto folder = desktop->folder / "daemon";
  std::filesystem::create_directories(folder);
  auto environment = desktop->desktop->environment();
  environment["GLIMMERSTRAND_PLATFORM"] = "linux";
  environment["GLIMMERSTRAND_LOG_LEVEL"] = "silent";
  environment["GLIMMERSTRAND_CURSOR"] = "0";
  testing::DaemonClient daemon(GLIMMERSTRAND_NATIVE_BINARY, folder.string(), environment);
  use(daemon);
}

std::string request(const char* operation, const std::string& app, const std::string& statement) {
  return std::string(R"({"operation":")") + operation + R"(","params":{"app":")" + app + R"(","cypher":")" + statement +
         R"("}})";
}

void BM_QueryOverSocket(benchmark::State& state, const std::string& browser) {
  withDaemon([&](testing::DaemonClient& daemon) {
    const std::string query = request("query", browser, "MATCH (c:Cell {name:'Item 5'}) RETURN c.id");
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
    auto opened = daemon.roundTrip(request("do", browser, open));
    if (opened.find("\"ok\":true") == std::string::npos) return state.SkipWithError(opened.c_str());
    const std::string press = request("do", browser, "MATCH (b:Button {name:'Send order'}) SET b.pressed = true");
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
