// What the benches of real applications share: the Linux platform running
// on the bench's desktop, the mirror's walk of a window, the per-call walk a
// tool without a mirror makes, and a daemon of the bench's own.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "mirror/app_mirror.h"
#include "platform/linux/atspi_bus.h"
#include "platform/platform.h"
#include "support/daemon_client.h"

namespace glimmerstrand::bench {

/// The Linux platform on the current desktop, its main loop on a thread,
/// and a bus connection of its own for raw reads.
class LinuxReads {
 public:
  LinuxReads();
  ~LinuxReads();
  LinuxReads(const LinuxReads&) = delete;
  LinuxReads& operator=(const LinuxReads&) = delete;

  platform::Accessibility& ax() { return platform_->accessibility(); }
  GDBusConnection* connection() { return bus_->connection(); }

 private:
  std::unique_ptr<platform::Platform> platform_;
  std::optional<platform::linux_desktop::AtspiBus> bus_;
  std::thread loop_;
};

/// The mirror's walk of an application's windows.
native::WalkResult walkWindow(platform::Accessibility& ax, const platform::Element& app);

/// Every element below `element` read one call at a time, every child of
/// every container listed (but a container of more than 10,000): the count.
std::size_t perCallWalk(GDBusConnection* connection, const platform::Element& element);

/// A daemon with the desktop's environment, in a folder of its own, for the
/// length of `use`.
void withDaemon(const std::map<std::string, std::string>& desktopEnvironment,
                const std::function<void(testing::DaemonClient&)>& use);

/// A request line of the daemon's socket.
std::string request(const char* operation, const std::string& app, const std::string& statement);

}  // namespace glimmerstrand::bench
