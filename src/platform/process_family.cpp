#include "platform/process_family.h"

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace glimmerstrand::platform {

std::map<pid_t, pid_t> processParents() {
  std::map<pid_t, pid_t> parents;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename().string();
    if (name.empty() || !std::isdigit(static_cast<unsigned char>(name[0]))) continue;
    std::ifstream stat(entry.path() / "stat");
    std::string line;
    if (!std::getline(stat, line)) continue;  // ended meanwhile
    // "pid (command) state ppid ...": the command may hold spaces and ")".
    const auto close = line.rfind(')');
    if (close == std::string::npos) continue;
    char state = 0;
    long parent = 0;
    if (std::sscanf(line.c_str() + close + 1, " %c %ld", &state, &parent) != 2 || state == 'Z') continue;
    parents[static_cast<pid_t>(std::stol(name))] = static_cast<pid_t>(parent);
  }
  return parents;
}

std::set<pid_t> processFamily(pid_t root, const std::map<pid_t, pid_t>& parents, pid_t self,
                              const std::set<pid_t>& known) {
  std::map<pid_t, std::vector<pid_t>> children;
  for (const auto& [pid, parent] : parents) children[parent].push_back(pid);
  std::set<pid_t> family{root};
  std::vector<pid_t> pending{root};
  if (self > 0)
    for (pid_t orphan : children[self])
      if (orphan != root && !known.contains(orphan) && family.insert(orphan).second) pending.push_back(orphan);
  while (!pending.empty()) {
    const pid_t pid = pending.back();
    pending.pop_back();
    for (pid_t child : children[pid])
      if (family.insert(child).second) pending.push_back(child);
  }
  return family;
}

}  // namespace glimmerstrand::platform
