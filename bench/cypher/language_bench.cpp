// The statement language over a 10,000-node tree shaped like an application's
// window: nested groups, tables of rows and cells, toolbars, and leaves with
// the names a UI has.
#include <benchmark/benchmark.h>

#include <random>

#include "cypher/lexer.h"
#include "cypher/parser.h"
#include "cypher/projection.h"
#include "cypher/property_graph.h"

namespace glimmerstrand::cypher {
namespace {

using testing::PropertyGraph;

constexpr const char* kContainers[] = {"Group", "ScrollArea", "Table", "Row", "Cell", "Toolbar", "SplitGroup"};
constexpr const char* kLeaves[] = {"Button", "Button",    "StaticText", "StaticText", "StaticText",
                                   "Image",  "TextField", "CheckBox",   "Link"};
constexpr const char* kWords[] = {"Play",  "Pause", "Next", "Export",   "Index",   "Inbox", "Mix",   "Search", "Fix",
                                  "Close", "Open",  "Save", "Settings", "Library", "Queue", "Share", "Delete"};

PropertyGraph appTree(std::size_t size) {
  std::mt19937 random(42);
  PropertyGraph g;
  g.declareInverse("CHILD", "PARENT");
  g.add({"Application"}, {{"name", "Music"}, {"depth", 0}});
  std::vector<std::pair<std::size_t, int>> open;  // containers that may take children, with depth
  for (int w = 0; w < 3; ++w) {
    auto window = g.add({"Window"}, {{"name", std::string(kWords[w]) + " window"}, {"depth", 1}});
    g.child(0, window);
    open.emplace_back(window, 1);
  }
  while (g.size() < size) {
    auto [parent, depth] = open[random() % open.size()];
    bool container = depth < 14 && random() % 3 == 0;
    const char* label = container ? kContainers[random() % 7] : kLeaves[random() % 9];
    OrderedMap<ScalarValue> properties{{"depth", depth + 1}};
    if (!container || random() % 4 == 0)
      properties.set("name", std::string(kWords[random() % 17]) + " " + std::to_string(random() % 100));
    auto node = g.add({label}, std::move(properties));
    g.child(parent, node);
    if (container) open.emplace_back(node, depth + 1);
  }
  return g;
}

const PropertyGraph& tree() {
  static const PropertyGraph graph = appTree(10'000);
  return graph;
}

void runQuery(benchmark::State& state, const char* text) {
  const auto& graph = tree();
  std::size_t rows = 0;
  for (auto _ : state) {
    auto result = executeQuery(*parseStatement(text).asRead(), graph);
    rows = result.size();
    benchmark::DoNotOptimize(result);
  }
  state.counters["rows"] = static_cast<double>(rows);
}

void ButtonsWhoseNameContains(benchmark::State& state) {
  runQuery(state, "MATCH (b:Button) WHERE b.name CONTAINS \"x\" RETURN b");
}
BENCHMARK(ButtonsWhoseNameContains)->Unit(benchmark::kMicrosecond);

void ButtonsUpToEightLevelsBelowWindows(benchmark::State& state) {
  runQuery(state, "MATCH (w:Window)-[:CHILD*1..8]->(b:Button) RETURN b.name");
}
BENCHMARK(ButtonsUpToEightLevelsBelowWindows)->Unit(benchmark::kMicrosecond);

void CountByRoleOrdered(benchmark::State& state) {
  runQuery(state, "MATCH (n) RETURN n.depth AS d, count(*) AS c ORDER BY c DESC");
}
BENCHMARK(CountByRoleOrdered)->Unit(benchmark::kMicrosecond);

constexpr const char* kScript =
    "MATCH (w:Window {name: 'Play window'})-[:CHILD*1..3]->(f:TextField) SET f.value = 'jazz' RETURN f.name;\n"
    "MATCH (b:Button) WHERE b.name =~ '(?i)search.*' AND NOT b.enabled = false RETURN b LIMIT 1;\n"
    "CALL ui.press(\"e42\");\n"
    "MATCH (r:Row)<-[:CHILD]-(t:Table) WHERE r.name STARTS WITH 'Inbox' RETURN t.name, count(r) ORDER BY count(r) "
    "DESC;\n"
    "MATCH (n:StaticText) WHERE n.name IN ['Play 1', 'Next 2'] RETURN DISTINCT n.name AS name SKIP 1 LIMIT 5";

void ParseFiveStatementScript(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(parseStatements(kScript));
}
BENCHMARK(ParseFiveStatementScript);

void TokenizeFiveStatementScript(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(tokenize(kScript));
}
BENCHMARK(TokenizeFiveStatementScript);

}  // namespace
}  // namespace glimmerstrand::cypher
