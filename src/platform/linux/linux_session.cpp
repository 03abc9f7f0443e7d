#include "platform/linux/linux_session.h"

#include "platform/linux/gdbus_call.h"

namespace glimmerstrand::platform::linux_desktop {

namespace {

// A screen-lock check runs before every reply: a service that is slow to
// answer must not slow every reply down.
constexpr int askTimeoutMs = 200;
// A service that was missing may start later (a screensaver with the desktop).
constexpr auto silenceAfterNoAnswer = std::chrono::seconds(30);

// The one table of this platform's lock vocabulary: who is asked, and how,
// in the order of LinuxSession::Source. logind's "auto" session is the
// caller's, or else the user's display session: a daemon started outside the
// session still finds the screen's.
struct Question {
  bool systemBus;
  const char* bus;
  const char* path;
  const char* interface;
  const char* method;  // a method answering a boolean, or null to read `LockedHint`
};
constexpr Question questions[] = {
    {true, "org.freedesktop.login1", "/org/freedesktop/login1/session/auto", "org.freedesktop.login1.Session", nullptr},
    {false, "org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver", "org.freedesktop.ScreenSaver", "GetActive"},
    {false, "org.gnome.ScreenSaver", "/org/gnome/ScreenSaver", "org.gnome.ScreenSaver", "GetActive"},
};

Call callOf(const Question& q) {
  if (!q.method) return propertyCall(q.bus, q.path, q.interface, "LockedHint");
  return Call{q.bus, q.path, q.interface, q.method, nullptr};
}

Connection connect(GBusType type) {
  GError* error = nullptr;
  Connection connection(g_bus_get_sync(type, nullptr, &error));
  if (error) g_error_free(error);  // no bus: that source is simply never asked
  if (connection) g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
  return connection;
}

}  // namespace

struct LinuxSession::Buses {
  Connection system = connect(G_BUS_TYPE_SYSTEM);
  Connection session = connect(G_BUS_TYPE_SESSION);
};

LinuxSession::LinuxSession() : buses_(std::make_unique<Buses>()) {}

LinuxSession::~LinuxSession() = default;

bool LinuxSession::mayAsk(Source source) {
  std::lock_guard guard(lock_);
  return Clock::now() >= silentUntil_[static_cast<int>(source)];
}

void LinuxSession::markSilent(Source source) {
  std::lock_guard guard(lock_);
  silentUntil_[static_cast<int>(source)] = Clock::now() + silenceAfterNoAnswer;
}

bool LinuxSession::isScreenLocked() {
  for (int n = 0; n < static_cast<int>(Source::count); ++n) {
    const auto source = static_cast<Source>(n);
    if (!mayAsk(source)) continue;
    const Question& question = questions[n];
    GDBusConnection* bus = question.systemBus ? buses_->system.get() : buses_->session.get();
    if (!bus) {
      markSilent(source);
      continue;
    }
    if (auto answer = boolOf(replyChild(callSync(bus, callOf(question), askTimeoutMs)))) return *answer;
    markSilent(source);
  }
  return false;
}

}  // namespace glimmerstrand::platform::linux_desktop
