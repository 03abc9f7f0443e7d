// The applications on the accessibility bus, kept between calls so that
// finding one application never waits on another. The registry's list and
// each bus name's pid come from the registry and the bus daemon, which answer
// for every application; an application's own name is asked of it once, all
// new ones at once, and waited for within the messaging limit (an answer
// that comes later still counts). One that does not answer at all, or does
// not answer others who ask it something, is marked silent: it is left
// out of lists while its name is not known, whoever asks it something may
// leave it out, and it is asked again now and then in the background, with
// nobody waiting, until it answers. Internal to the Linux backend.
//
// Thread-safe: one mutex guards the table, never held across a call on the
// bus. Background askers share the table and a reference to the connection,
// so they may outlive the directory.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/gdbus_call.h"

namespace glimmerstrand::platform::linux_desktop {

class AtspiDirectory {
 public:
  struct Application {
    std::string bus;
    std::int32_t pid = 0;
    std::string name;     // empty until the application told it
    bool silent = false;  // it did not answer within the limit when last asked
  };
  /// Bus names that left the registry's list, told after each look at it.
  using Departures = std::function<void(const std::vector<std::string>& buses)>;
  /// The connection to ask an application on.
  using ConnectionFor = std::function<std::shared_ptr<GDBusConnection>(const std::string& bus)>;

  /// How long the directory waits for new applications to tell their names:
  /// the messaging limit of a mirror's application element.
  static constexpr int nameLimitMs = 300;

  /// `connection` asks the registry and the bus daemon; `connectionFor`,
  /// the applications. Either may be called from threads of the directory's
  /// own after it has gone.
  AtspiDirectory(GDBusConnection* connection, ConnectionFor connectionFor, Departures departures);
  ~AtspiDirectory();
  AtspiDirectory(const AtspiDirectory&) = delete;
  AtspiDirectory& operator=(const AtspiDirectory&) = delete;

  /// Every application that told its name, in the registry's order. Waits
  /// for the names of applications seen for the first time, at most
  /// nameLimitMs; never for one marked silent.
  std::vector<Application> applications();
  /// The application of `pid` (its newest bus name, when it came back under
  /// another), silent or not, with the name it told. Asks only this
  /// application for its name, when it is not known yet and the application
  /// is not marked silent.
  std::optional<Application> application(std::int32_t pid);
  /// An application did not answer a call within the messaging limit.
  void markSilent(const std::string& bus);
  /// The newest bus name of `pid` on the registry's list; asks no
  /// application.
  std::optional<std::string> busOf(std::int32_t pid);
  /// Every bus name on the registry's list, in its order, names or not.
  std::vector<std::string> buses();
  /// The pid behind a bus name, from the bus daemon; remembered for the
  /// applications on the list.
  std::optional<std::int32_t> pidOf(const std::string& bus);
  /// Whether the bus name was on the registry's list at the last look.
  bool listed(const std::string& bus);

  struct Table;

 private:
  std::shared_ptr<Table> table_;
  guint departureWatch_ = 0;  // the subscription to bus names losing their owners
};

}  // namespace glimmerstrand::platform::linux_desktop
