// Graphs of recent runs, so that a later call can use an id an earlier call
// read: at most 4 graphs for each of at most 8 processes. Shared by all runs;
// one lock, never held while calling out.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "core/ax_graph.h"

namespace glimmerstrand::core {

class GraphMemory {
 public:
  static constexpr std::size_t keptGraphs = 4;
  static constexpr std::size_t keptProcesses = 8;

  /// The process-wide memory, made at first use.
  static GraphMemory& shared();

  void remember(std::shared_ptr<const AxGraph> graph);
  /// The graphs of that process, newest first.
  std::vector<std::shared_ptr<const AxGraph>> graphs(std::int64_t pid) const;

 private:
  mutable std::mutex lock_;  // guards graphs_
  // pid -> graphs oldest first; pids in the order they were first stored.
  std::vector<std::pair<std::int64_t, std::vector<std::shared_ptr<const AxGraph>>>> graphs_;
};

}  // namespace glimmerstrand::core
