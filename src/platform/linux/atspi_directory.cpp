#include "platform/linux/atspi_directory.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "platform/linux/atspi_element.h"
#include "platform/linux/atspi_reader.h"

namespace glimmerstrand::platform::linux_desktop {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* registryBus = "org.a11y.atspi.Registry";
// The registry and the bus daemon answer for every application.
constexpr int desktopLimitMs = 1000;
// One look at the registry's list serves the calls of this long.
constexpr auto listLife = std::chrono::milliseconds(20);
// A silent application is asked again this long after, in the background,
// and given this long to answer.
constexpr auto silentRetry = std::chrono::seconds(5);
constexpr int backgroundLimitMs = 2000;

// An application's name is shown in lists: no more of it than this, in bytes.
constexpr std::size_t nameBytes = 256;

std::string shortened(std::string name) {
  if (name.size() <= nameBytes) return name;
  std::size_t end = nameBytes;
  while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) --end;
  name.resize(end);
  return name;
}

struct Entry {
  std::optional<std::int32_t> pid;
  std::optional<std::string> name;  // once the application told it
  bool asking = false;              // a name is asked of it now, and waited for
  bool silent = false;              // it did not answer within the limit last time
  Clock::time_point askedAt{};
};

}  // namespace

struct AtspiDirectory::Table {
  Table(GDBusConnection* c, ConnectionFor f, Departures d)
      : connection(c), connectionFor(std::move(f)), departures(std::move(d)) {
    g_object_ref(connection);
  }
  ~Table() { g_object_unref(connection); }

  GDBusConnection* connection;
  const ConnectionFor connectionFor;
  const Departures departures;

  std::mutex lock;                                 // guards everything below
  std::condition_variable asked;                   // an ask for names ended
  std::unordered_map<std::string, Entry> entries;  // the applications on the list, by bus name
  std::vector<std::string> order;                  // their bus names, in the registry's order
  Clock::time_point listedAt{};
  bool backgroundAsking = false;
};

namespace {

using Table = AtspiDirectory::Table;

// Looks at the registry's list unless a look within listLife serves, and
// asks the bus daemon for the pids of bus names new on it.
void look(const std::shared_ptr<Table>& t, bool force) {
  {
    std::lock_guard guard(t->lock);
    if (!force && Clock::now() - t->listedAt < listLife) return;
  }
  Reply reply = callSync(
      t->connection, Call{registryBus, rootPath, "org.a11y.atspi.Accessible", "GetChildren", nullptr}, desktopLimitMs);
  if (!reply.ok()) return;  // what was known stands
  std::vector<std::string> listed;
  for (const auto& ref : objectRefs(replyChild(reply)))
    if (std::find(listed.begin(), listed.end(), ref.bus) == listed.end()) listed.push_back(ref.bus);
  std::vector<std::string> departed, unknown;
  {
    std::lock_guard guard(t->lock);
    for (auto it = t->entries.begin(); it != t->entries.end();) {
      if (std::find(listed.begin(), listed.end(), it->first) == listed.end()) {
        departed.push_back(it->first);
        it = t->entries.erase(it);
      } else {
        ++it;
      }
    }
    for (const auto& bus : listed)
      if (!t->entries[bus].pid) unknown.push_back(bus);
    t->order = listed;
  }
  if (!unknown.empty()) {
    std::vector<Call> calls;
    for (const auto& bus : unknown)
      calls.push_back(Call{"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "GetConnectionUnixProcessID", own(g_variant_new("(s)", bus.c_str()))});
    auto replies = callAll(t->connection, calls, desktopLimitMs);
    std::lock_guard guard(t->lock);
    for (std::size_t k = 0; k < unknown.size(); ++k)
      if (auto owner = uint32Of(replyChild(replies[k])))
        if (auto it = t->entries.find(unknown[k]); it != t->entries.end())
          it->second.pid = static_cast<std::int32_t>(*owner);
  }
  {
    std::lock_guard guard(t->lock);
    t->listedAt = Clock::now();
  }
  if (!departed.empty() && t->departures) t->departures(departed);
}

// A bus name lost its owner: its application left the bus.
void depart(const std::shared_ptr<Table>& t, const std::string& bus) {
  {
    std::lock_guard guard(t->lock);
    if (!t->entries.erase(bus)) return;
    std::erase(t->order, bus);
  }
  if (t->departures) t->departures({bus});
}

// Asks each application for its name, all at once, for at most `limitMs`
// of silence; one that stays silent is marked so.
void askNames(const std::shared_ptr<Table>& t, const std::vector<std::string>& buses, int limitMs) {
  std::vector<Call> calls;
  std::vector<std::shared_ptr<GDBusConnection>> connections;  // held for the length of the calls
  for (const auto& bus : buses) {
    calls.push_back(propertyCall(bus, rootPath, "org.a11y.atspi.Accessible", "Name"));
    if (t->connectionFor) calls.back().via = connections.emplace_back(t->connectionFor(bus)).get();
  }
  auto replies = callAll(t->connection, calls, limitMs);
  {
    std::lock_guard guard(t->lock);
    const auto now = Clock::now();
    for (std::size_t k = 0; k < buses.size(); ++k) {
      auto it = t->entries.find(buses[k]);
      if (it == t->entries.end()) continue;  // left the bus meanwhile
      Entry& entry = it->second;
      entry.askedAt = now;
      entry.asking = false;
      entry.silent = replies[k].error == AxError::cannotComplete;
      if (!entry.silent) entry.name = shortened(boundedStringOf(replyChild(replies[k])).value_or(""));
    }
  }
  t->asked.notify_all();
}

// Asks each of `buses`, already marked as being asked, for its name on a
// thread of its own, so that one that does not answer holds up no other
// answer: a caller waits no longer than it chooses, and an application that
// answers after that is still named.
void askInBackground(const std::shared_ptr<Table>& t, const std::vector<std::string>& buses) {
  for (const auto& bus : buses) std::thread([t, bus] { askNames(t, {bus}, backgroundLimitMs); }).detach();
}

// Asks the silent applications among `buses` again, on a thread of its own,
// when they are due and no such ask is under way.
void retrySilent(const std::shared_ptr<Table>& t, const std::vector<std::string>& buses) {
  std::vector<std::string> due;
  {
    std::lock_guard guard(t->lock);
    if (t->backgroundAsking) return;
    const auto now = Clock::now();
    for (const auto& bus : buses)
      if (auto it = t->entries.find(bus);
          it != t->entries.end() && it->second.silent && now - it->second.askedAt >= silentRetry)
        due.push_back(bus);
    if (due.empty()) return;
    t->backgroundAsking = true;
  }
  std::thread([t, due] {
    askNames(t, due, backgroundLimitMs);
    std::lock_guard guard(t->lock);
    t->backgroundAsking = false;
  }).detach();
}

// Asks the applications among `buses` that were never asked, and waits for
// every ask of theirs under way at most nameLimitMs. What answers later is
// named then; what does not answer within backgroundLimitMs is silent.
void ensureNames(const std::shared_ptr<Table>& t, const std::vector<std::string>& buses) {
  std::vector<std::string> fresh;
  {
    std::lock_guard guard(t->lock);
    for (const auto& bus : buses)
      if (auto it = t->entries.find(bus);
          it != t->entries.end() && !it->second.name && !it->second.asking && !it->second.silent) {
        it->second.asking = true;
        fresh.push_back(bus);
      }
  }
  const auto deadline = Clock::now() + std::chrono::milliseconds(AtspiDirectory::nameLimitMs);
  askInBackground(t, fresh);
  std::unique_lock guard(t->lock);
  t->asked.wait_until(guard, deadline, [&] {
    return std::none_of(buses.begin(), buses.end(), [&](const std::string& bus) {
      auto it = t->entries.find(bus);
      return it != t->entries.end() && it->second.asking;
    });
  });
}

}  // namespace

AtspiDirectory::AtspiDirectory(GDBusConnection* connection, ConnectionFor connectionFor, Departures departures)
    : table_(std::make_shared<Table>(connection, std::move(connectionFor), std::move(departures))) {
  // An application that leaves the bus is forgotten at once, not at the
  // next look: what was kept for it goes with it.
  departureWatch_ = g_dbus_connection_signal_subscribe(
      connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", "/org/freedesktop/DBus", nullptr,
      G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
         gpointer data) {
        const gchar *name = nullptr, *before = nullptr, *after = nullptr;
        g_variant_get(parameters, "(&s&s&s)", &name, &before, &after);
        if (*after) return;
        if (auto t = static_cast<std::weak_ptr<Table>*>(data)->lock()) depart(t, name);
      },
      new std::weak_ptr<Table>(table_), [](gpointer data) { delete static_cast<std::weak_ptr<Table>*>(data); });
}

bool AtspiDirectory::listed(const std::string& bus) {
  std::lock_guard guard(table_->lock);
  return table_->entries.count(bus) > 0;
}

AtspiDirectory::~AtspiDirectory() { g_dbus_connection_signal_unsubscribe(table_->connection, departureWatch_); }

std::vector<AtspiDirectory::Application> AtspiDirectory::applications() {
  look(table_, false);
  std::vector<std::string> buses;
  {
    std::lock_guard guard(table_->lock);
    for (const auto& bus : table_->order)
      if (table_->entries[bus].pid) buses.push_back(bus);
  }
  ensureNames(table_, buses);
  retrySilent(table_, buses);
  std::vector<Application> out;
  std::lock_guard guard(table_->lock);
  for (const auto& bus : table_->order) {
    auto it = table_->entries.find(bus);
    if (it != table_->entries.end() && it->second.pid && it->second.name)
      out.push_back(Application{bus, *it->second.pid, *it->second.name, it->second.silent});
  }
  return out;
}

std::optional<std::string> AtspiDirectory::busOf(std::int32_t pid) {
  auto find = [&]() -> std::optional<std::string> {
    std::lock_guard guard(table_->lock);
    for (auto bus = table_->order.rbegin(); bus != table_->order.rend(); ++bus)
      if (table_->entries[*bus].pid == pid) return *bus;
    return std::nullopt;
  };
  look(table_, false);
  if (auto bus = find()) return bus;
  // It may have come on the bus a moment ago.
  look(table_, true);
  return find();
}

std::optional<AtspiDirectory::Application> AtspiDirectory::application(std::int32_t pid) {
  auto bus = busOf(pid);
  if (!bus) return std::nullopt;
  ensureNames(table_, {*bus});
  retrySilent(table_, {*bus});
  std::lock_guard guard(table_->lock);
  Application out{*bus, pid, ""};
  if (auto it = table_->entries.find(*bus); it != table_->entries.end()) {
    out.name = it->second.name.value_or("");
    out.silent = it->second.silent;
  }
  return out;
}

void AtspiDirectory::markSilent(const std::string& bus) {
  std::lock_guard guard(table_->lock);
  if (auto it = table_->entries.find(bus); it != table_->entries.end()) {
    it->second.silent = true;
    it->second.askedAt = Clock::now();
  }
}

std::vector<std::string> AtspiDirectory::buses() {
  look(table_, false);
  std::lock_guard guard(table_->lock);
  return table_->order;
}

std::optional<std::int32_t> AtspiDirectory::pidOf(const std::string& bus) {
  {
    std::lock_guard guard(table_->lock);
    if (auto it = table_->entries.find(bus); it != table_->entries.end() && it->second.pid) return it->second.pid;
  }
  Reply reply = callSync(table_->connection,
                         Call{"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                              "GetConnectionUnixProcessID", own(g_variant_new("(s)", bus.c_str()))},
                         desktopLimitMs);
  auto owner = uint32Of(replyChild(reply));
  if (!owner) return std::nullopt;
  const auto pid = static_cast<std::int32_t>(*owner);
  std::lock_guard guard(table_->lock);
  // Only bus names on the list are kept: any sender may ask about its own.
  if (auto it = table_->entries.find(bus); it != table_->entries.end()) it->second.pid = pid;
  return pid;
}

}  // namespace glimmerstrand::platform::linux_desktop
