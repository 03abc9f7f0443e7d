// The session's accessibility bus: found through the session bus's
// org.a11y.Bus, connected once, and shared by every thread (GDBus
// connections are thread-safe). Also the switch that asks toolkits to build
// their trees (org.a11y.Status.IsEnabled), and the session bus's own list of
// its processes. Internal to the Linux backend.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/gdbus_call.h"

namespace glimmerstrand::platform::linux_desktop {

class AtspiBus {
 public:
  /// Connects, or says why it cannot: no session bus, no accessibility bus.
  /// Never aborts the process, whatever is missing.
  static std::optional<AtspiBus> connect(std::string& problem);

  GDBusConnection* connection() const { return accessibility_.get(); }
  /// Whether toolkits are asked to expose their trees.
  bool isEnabled() const;
  /// Asks them to; true when the switch is on afterwards.
  bool enable() const;
  /// The processes connected to the session bus, each once, in no set order:
  /// the applications of this session, whether or not they joined the
  /// accessibility bus.
  std::vector<std::int32_t> sessionProcesses() const;
  /// The accessibility bus's own address, for logs and the desktop helper.
  const std::string& address() const { return address_; }

 private:
  AtspiBus(Connection session, Connection accessibility, std::string address)
      : session_(std::move(session)), accessibility_(std::move(accessibility)), address_(std::move(address)) {}
  Connection session_;
  Connection accessibility_;
  std::string address_;
};

}  // namespace glimmerstrand::platform::linux_desktop
