// The session's accessibility bus as a program that starts applications on
// it (`glimmerstrand desktop`) or looks for those missing from it (the
// doctor) sees it: the switch that asks toolkits for their trees, the
// registry's applications, the pid behind each, whether an application's tree
// answers yet, and the session's processes. The Linux backend makes it, from its own
// bus connection and registry directory. Not thread-safe: one caller at a time.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace glimmerstrand::platform {

class AccessibilityBus {
 public:
  /// Connects, or says why it cannot (no session bus, no accessibility bus)
  /// and gives null. Never aborts the process, whatever is missing.
  static std::unique_ptr<AccessibilityBus> connect(std::string& problem);

  virtual ~AccessibilityBus() = default;
  /// The bus's own address, for the applications' environment.
  virtual std::string address() const = 0;
  /// Asks toolkits to expose their trees; true when the switch is on afterwards.
  virtual bool enable() = 0;
  /// The bus names of the applications on the registry's list, in its order.
  virtual std::vector<std::string> registered() = 0;
  /// The process that owns a bus name; absent when none does.
  virtual std::optional<pid_t> ownerOf(const std::string& bus) = 0;
  /// Whether the application's tree answers: its root has children.
  virtual bool treeAnswers(const std::string& bus) = 0;
  /// The processes connected to the session bus: the session's
  /// applications, on the accessibility bus or not.
  virtual std::vector<pid_t> sessionProcesses() = 0;
};

}  // namespace glimmerstrand::platform
