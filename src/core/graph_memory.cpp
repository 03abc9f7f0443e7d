#include "core/graph_memory.h"

#include <algorithm>

namespace glimmerstrand::core {

GraphMemory& GraphMemory::shared() {
  static GraphMemory* memory = new GraphMemory;  // lives as long as the process
  return *memory;
}

void GraphMemory::remember(std::shared_ptr<const AxGraph> graph) {
  const std::int64_t pid = graph->snapshot().pid;
  std::lock_guard guard(lock_);
  auto entry = std::find_if(graphs_.begin(), graphs_.end(), [&](const auto& e) { return e.first == pid; });
  if (entry == graphs_.end()) {
    graphs_.emplace_back(pid, std::vector<std::shared_ptr<const AxGraph>>{});
    entry = graphs_.end() - 1;
  }
  auto& list = entry->second;
  if (!list.empty() && list.back() == graph) return;
  list.push_back(std::move(graph));
  if (list.size() > keptGraphs) list.erase(list.begin());
  if (graphs_.size() > keptProcesses) graphs_.erase(graphs_.begin());
}

std::vector<std::shared_ptr<const AxGraph>> GraphMemory::graphs(std::int64_t pid) const {
  std::lock_guard guard(lock_);
  for (const auto& [key, list] : graphs_)
    if (key == pid) return {list.rbegin(), list.rend()};
  return {};
}

}  // namespace glimmerstrand::core
