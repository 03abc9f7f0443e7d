#include "platform/linux/atspi_connections.h"

#include <algorithm>

namespace glimmerstrand::platform::linux_desktop {

namespace {

// How many forgotten bus names are remembered.
constexpr std::size_t departedKept = 256;

void closeConnection(GDBusConnection* connection) {
  g_dbus_connection_close(connection, nullptr, nullptr, nullptr);
  g_object_unref(connection);
}

}  // namespace

AtspiConnections::AtspiConnections(std::string address, GDBusConnection* shared)
    : address_(std::move(address)), shared_(shared) {}

AtspiConnections::Handle AtspiConnections::shared() const {
  return Handle(shared_, [](GDBusConnection*) {});
}

AtspiConnections::Handle AtspiConnections::of(const std::string& bus) {
  // Only unique names are applications; a well-known name is a service.
  if (bus.empty() || bus.front() != ':') return shared();
  {
    std::lock_guard guard(lock_);
    if (auto it = connections_.find(bus); it != connections_.end()) return it->second;
    if (std::find(departed_.begin(), departed_.end(), bus) != departed_.end()) return shared();
  }
  auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                 G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  GDBusConnection* made = g_dbus_connection_new_for_address_sync(address_.c_str(), flags, nullptr, nullptr, nullptr);
  if (!made) return shared();
  g_dbus_connection_set_exit_on_close(made, FALSE);
  Handle handle(made, closeConnection);
  std::lock_guard guard(lock_);
  if (std::find(departed_.begin(), departed_.end(), bus) != departed_.end()) return shared();
  // Another thread may have made one meanwhile: the first stays.
  return connections_.try_emplace(bus, std::move(handle)).first->second;
}

void AtspiConnections::forget(const std::vector<std::string>& buses) {
  std::vector<Handle> closing;  // closed outside the lock
  std::lock_guard guard(lock_);
  for (const auto& bus : buses) {
    if (auto it = connections_.find(bus); it != connections_.end()) {
      closing.push_back(std::move(it->second));
      connections_.erase(it);
    }
    departed_.push_back(bus);
    if (departed_.size() > departedKept) departed_.pop_front();
  }
}

std::size_t AtspiConnections::size() {
  std::lock_guard guard(lock_);
  return connections_.size();
}

}  // namespace glimmerstrand::platform::linux_desktop
