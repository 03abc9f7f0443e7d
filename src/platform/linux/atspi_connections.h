// Connections of their own to the accessibility bus, one for each
// application that is called: what one application sends (a 16 MB name, a
// flood of answers) fills its own socket and its own read buffer, which GDBus
// sizes to the largest message it has read and never shrinks, and both go
// when the application leaves the bus. Calls on other bus names, and on any
// application when no connection of its own can be made, use the shared
// connection. Internal to the Linux backend.
//
// Thread-safe: one mutex guards the table; connections are made and closed
// outside it, and a handle keeps its connection for as long as a call uses it.
#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/linux/gdbus_call.h"

namespace glimmerstrand::platform::linux_desktop {

class AtspiConnections {
 public:
  using Handle = std::shared_ptr<GDBusConnection>;

  /// `shared` outlives this object.
  AtspiConnections(std::string address, GDBusConnection* shared);
  AtspiConnections(const AtspiConnections&) = delete;
  AtspiConnections& operator=(const AtspiConnections&) = delete;

  /// The connection for calls on the application of `bus`; made at first
  /// use, unless the application has left.
  Handle of(const std::string& bus);
  /// The shared connection.
  Handle shared() const;
  /// These applications left the bus: their connections close once no call
  /// uses them.
  void forget(const std::vector<std::string>& buses);
  /// How many connections of their own are open.
  std::size_t size();

 private:
  const std::string address_;
  GDBusConnection* const shared_;
  std::mutex lock_;                                      // guards connections_ and departed_
  std::unordered_map<std::string, Handle> connections_;  // by the application's bus name
  // Bus names forgotten lately: a late call for one must not open a
  // connection that nothing would close. The bus never gives a name twice.
  std::deque<std::string> departed_;
};

}  // namespace glimmerstrand::platform::linux_desktop
