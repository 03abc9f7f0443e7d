// Graph construction and change lines over a 10,000-node tree shaped like a
// real application: windows of toolbars, lists of rows with text, buttons.
#include <benchmark/benchmark.h>

#include "core/ax_graph.h"
#include "core/change_report.h"

namespace glimmerstrand::core {
namespace {

AxNode make(std::int64_t i, std::int64_t parent, std::int64_t depth, const char* role) {
  AxNode n;
  n.i = i;
  n.uid = 1000 + i;
  n.parent = parent;
  n.depth = depth;
  n.role = role;
  n.frame = Rect{double(i % 800), double(i % 600), 80, 20};
  return n;
}

std::vector<AxNode> tree(std::size_t size) {
  std::vector<AxNode> nodes{make(0, -1, 0, "AXWindow")};
  nodes[0].title = "Library";
  while (nodes.size() < size) {
    auto list = static_cast<std::int64_t>(nodes.size());
    nodes.push_back(make(list, 0, 1, "AXList"));
    for (int r = 0; r < 40 && nodes.size() + 3 <= size; ++r) {
      auto row = static_cast<std::int64_t>(nodes.size());
      nodes.push_back(make(row, list, 2, "AXRow"));
      auto text = make(row + 1, row, 3, "AXStaticText");
      text.value = "Track " + std::to_string(row) + " — Artist " + std::to_string(row % 97);
      nodes.push_back(text);
      auto button = make(row + 2, row, 3, "AXButton");
      button.description = r % 2 ? "Play" : "More";
      nodes.push_back(button);
    }
  }
  nodes.resize(size);
  return nodes;
}

AxSnapshot snapshotOf(std::vector<AxNode> nodes) {
  AxSnapshot s;
  s.app = AppInfo{1, "com.example.music", "Music"};
  s.pid = 1;
  s.nodes = NodeList(std::move(nodes));
  return s;
}

void BM_BuildGraph(benchmark::State& state) {
  auto snapshot = snapshotOf(tree(static_cast<std::size_t>(state.range(0))));
  for (auto _ : state) {
    AxGraph graph(snapshot, {});
    benchmark::DoNotOptimize(graph.nodes().data());
  }
}
BENCHMARK(BM_BuildGraph)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_ChangeLines(benchmark::State& state) {
  auto before = tree(10000);
  auto after = before;
  for (std::size_t k = 0; k < 50; ++k) {
    auto& n = after[100 + k * 150];
    if (n.value)
      n.value = *n.value + " (edited)";
    else
      n.title = "Renamed " + std::to_string(k);
  }
  NodeList a(before), b(after);
  for (auto _ : state) benchmark::DoNotOptimize(changeLines(a, b, maxChangeLines));
}
BENCHMARK(BM_ChangeLines)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace glimmerstrand::core
