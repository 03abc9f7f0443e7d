#include "platform/linux/atspi_accessibility.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <mutex>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "platform/linux/atspi_attributes.h"
#include "platform/linux/atspi_connections.h"
#include "platform/linux/atspi_directory.h"
#include "platform/linux/atspi_element.h"
#include "platform/linux/atspi_windows.h"
#include "platform/linux/toolkit_switch.h"
#include "platform/linux/window_geometry_watch.h"
#include "platform/linux/window_placement.h"

namespace glimmerstrand::platform::linux_desktop {

namespace {

constexpr const char* registryBus = "org.a11y.atspi.Registry";
constexpr const char* accessibleIface = "org.a11y.atspi.Accessible";
constexpr const char* systemWidePath = "/org/a11y/atspi/systemwide";
constexpr int defaultTimeoutMs = 6000;
// How long a prefetched record may stand in for a read of its own.
constexpr auto prefetchLife = std::chrono::milliseconds(1000);
// The most records one prefetch reads ahead, below the elements it was given.
constexpr std::size_t readAheadBudget = 4000;
// How many elements one level of a read-ahead, or a walk's read-aheads
// together, must have before the application's whole cache is read for
// them: a call for all its objects costs about what six calls an element
// cost for a thirtieth of them, and a walk that has read this much of a
// tree is seldom near its end.
constexpr std::size_t cacheWorthyLevel = 64, cacheWorthyWalk = 32;
// Lists longer than this are narrowed by the walk before it reads them.
constexpr std::size_t longList = 500;
// How many levels one prefetch reads ahead: no deeper than a walk goes, or
// a tree without end is read far below what the walk ever takes.
constexpr std::size_t readAheadLevels = 64;
// How many state values an observer remembers to tell repeats.
constexpr std::size_t maxToldStates = 4096;
// How many elements the table of their windows holds before it starts afresh.
constexpr std::size_t maxPlacedElements = 200000;
// How long a window's title read for its place stands.
constexpr auto titleLife = std::chrono::milliseconds(500);

std::string keyOf(const ObjectRef& ref) { return ref.bus + '\n' + ref.path; }

// Records read ahead by a prefetch, for the thread that asked: a walk runs
// on one thread, and no other thread ever sees values read before its own
// action.
struct Prefetched {
  ElementRecord record;
  std::chrono::steady_clock::time_point at;
};
thread_local std::unordered_map<std::string, Prefetched> prefetched;
thread_local std::chrono::steady_clock::time_point lastSweep{};
// How many children the last read of each container's children on this
// thread left out, for the walk that made it.
thread_local std::unordered_map<std::string, std::int64_t> childrenLeftOutOf;

// What the walk in progress on this thread read of whole applications: each
// one's cache, read once the walk has shown itself large, for the walk's
// later reads. Forgotten when the outermost walk ends, so that no walk takes
// the shape of a tree from another walk's time.
struct WalkMemory {
  int depth = 0;
  std::size_t readAhead = 0;  // elements the walk's read-aheads asked for
  std::unordered_map<std::string, std::shared_ptr<const CachedTree>> trees;  // by bus; empty where there is none
};
thread_local WalkMemory walkMemory;

// The cache of the application on `bus` that the walk in progress read.
const CachedTree* walkTree(const std::string& bus) {
  auto it = walkMemory.trees.find(bus);
  return it == walkMemory.trees.end() || it->second->empty() ? nullptr : it->second.get();
}

// Whether a read-ahead goes below an element: not into long lists, which
// the walk narrows to the rows in view first, nor into a closed menu,
// whose items a window's walk leaves out (LibreOffice has a thousand).
bool readAheadEnters(std::uint32_t role, const States& states, std::size_t childCount) {
  const bool closedMenu = isMenuRole(role) && !isMenuBarRole(role) && !states.selected();
  return childCount <= longList && !closedMenu;
}

// The most children of a withheld container read near the view: a screen of
// spreadsheet cells, or of rows.
constexpr std::int32_t mostNearRows = 200, mostNearColumns = 60, mostNearChildren = 2000;

class AtspiObserver final : public Observer {
 public:
  AtspiObserver(std::int32_t pid, std::string bus, ObserverCallback callback)
      : pid_(pid), bus_(std::move(bus)), callback_(std::move(callback)) {}
  std::int32_t pid() const override { return pid_; }
  const std::string& bus() const { return bus_; }

  std::mutex lock;              // guards names, subscriptions, removed and states
  std::set<std::string> names;  // AX notifications delivered
  guint subscription = 0;       // the D-Bus signal subscription, 0 before the first name
  guint departure = 0;          // the watch on the bus name's owner
  bool removed = false;
  std::unordered_map<std::string, std::int32_t> states;  // object path and state name → last value told

  // Whether a state change only repeats the value last told. GTK3 tells
  // some check buttons' state again each time their state is read, which
  // would keep a mirror that reads after every change from ever settling.
  bool repeatsState(std::string_view path, std::string_view state, std::int32_t value) {
    std::string key;
    key.append(path).append(1, '\n').append(state);
    std::lock_guard guard(lock);
    // An application that keeps making objects would grow this for ever.
    if (states.size() >= maxToldStates && !states.count(key)) states.clear();
    auto [it, first] = states.try_emplace(std::move(key), value);
    if (first) return false;
    if (it->second == value) return true;
    it->second = value;
    return false;
  }

  void deliver(const Element& element, const std::string& name) {
    {
      std::lock_guard guard(lock);
      if (removed || !names.count(name)) return;
    }
    callback_(element, name);
  }

 private:
  std::int32_t pid_;
  std::string bus_;
  ObserverCallback callback_;
};

}  // namespace

struct AtspiAccessibility::State {
  AtspiBus& bus;
  RunLoop& mainLoop;
  GDBusConnection* connection;
  std::atomic<int> defaultTimeout{defaultTimeoutMs};

  std::shared_ptr<AtspiConnections> connections;           // one to each application
  AtspiDirectory directory;                                // the applications: bus names, pids, names
  std::mutex lock;                                         // guards everything below; never held across a bus call
  std::unordered_map<std::string, std::string> toolkits;   // bus name → toolkit
  std::unordered_map<std::string, ObjectRef> lastFocused;  // bus name → element that took the focus
  std::set<std::string> registeredEvents;                  // event types told to the registry
  std::vector<std::function<void(std::int32_t)>> activationCallbacks;
  std::vector<std::weak_ptr<AtspiObserver>> observers;  // every observer made, for window geometry
  RootWindowEvents* rootEvents = nullptr;               // the X server's root window; null without one
  std::unique_ptr<WindowGeometryWatch> geometry;        // made by the first who asks for moves or resizes
  guint activationSubscription = 0;
  guint focusSubscription = 0;
  std::chrono::steady_clock::time_point trustCheckedAt{};
  bool trusted = false;
  // Dialogs read as sheets of a window (atspi_windows.h). Both tables are
  // written from what was last read or told, under `lock`.
  std::unordered_map<std::string, std::string> lastActiveWindow;  // bus name → path of its window last made active
  std::unordered_map<std::string, std::unordered_map<std::string, std::string>> sheetOwners;  // bus → sheet → window
  guint windowActivationSubscription = 0;
  // Where frames are window-relative: the places of windows, and which top
  // level each element read lies in (its window's path on the same bus, by
  // element), learned as children are read, under `lock`.
  WindowPlacement* placement = nullptr;  // set once, before use
  bool watchingPlaces = false;           // the placement tells moves and resizes
  std::unordered_map<std::string, std::string> windowOf;
  std::unordered_map<std::string, std::pair<std::string, std::chrono::steady_clock::time_point>> windowTitles;

  State(AtspiBus& b, RunLoop& loop, RootWindowEvents* root)
      : bus(b),
        mainLoop(loop),
        connection(b.connection()),
        connections(std::make_shared<AtspiConnections>(b.address(), connection)),
        directory(
            connection, [c = connections](const std::string& name) { return c->of(name); },
            [this](const std::vector<std::string>& departed) { forget(departed); }),
        rootEvents(root) {}

  // The connection for calls on an application: its own while it is on
  // the registry's list.
  AtspiConnections::Handle to(const std::string& name) {
    return directory.listed(name) ? connections->of(name) : connections->shared();
  }

  // What was kept about applications that left the bus.
  void forget(const std::vector<std::string>& departed) {
    connections->forget(departed);
    std::lock_guard guard(lock);
    for (const auto& name : departed) {
      toolkits.erase(name);
      lastFocused.erase(name);
      const std::string prefix = name + '\n';
      std::erase_if(windowOf, [&](const auto& entry) { return entry.first.starts_with(prefix); });
      std::erase_if(windowTitles, [&](const auto& entry) { return entry.first.starts_with(prefix); });
    }
  }

  // Notes the window of each child read under `parent`: the parent itself
  // when it is a top level, else the parent's own window.
  // An application's children are top levels themselves.
  void learnWindows(const ObjectRef& parent, const ElementRecord& record, bool sheet, const AxValue& children) {
    const auto* list = children.get<AxList>();
    if (!placement || !list) return;
    const bool application = isApplicationRole(record.role);
    std::lock_guard guard(lock);
    std::string window = parent.path;
    if (!application && !sheet && !isWindowRole(record.role)) {
      auto known = windowOf.find(keyOf(parent));
      if (known == windowOf.end()) return;
      window = known->second;
    }
    if (windowOf.size() + list->size() > maxPlacedElements) windowOf.clear();
    for (const auto& child : *list)
      if (const auto* element = child.get<Element>())
        if (const auto* e = element->as<AtspiElement>(); e && e->bus() == parent.bus)
          windowOf[keyOf(ObjectRef{e->bus(), e->path()})] = application ? e->path() : window;
  }

  // The title of a top level, as last read within a moment.
  std::string windowTitle(const ObjectRef& window, int timeoutMs) {
    const auto now = std::chrono::steady_clock::now();
    {
      std::lock_guard guard(lock);
      auto known = windowTitles.find(keyOf(window));
      if (known != windowTitles.end() && now - known->second.second < titleLife) return known->second.first;
    }
    std::string title = readRecords(to(window.bus).get(), {window}, basicPart, timeoutMs).front().name;
    std::lock_guard guard(lock);
    windowTitles[keyOf(window)] = {title, now};
    return title;
  }

  // Where the window of an element stands, for frames told relative to it.
  std::optional<AxPoint> windowOrigin(const ObjectRef& ref, const ElementRecord& record, int timeoutMs) {
    auto pid = pidOfBus(ref.bus);
    if (!placement || !pid) return std::nullopt;
    std::string title;
    if ((record.parts & basicPart) && isWindowRole(record.role)) {
      title = record.name;
    } else {
      std::optional<std::string> window;
      {
        std::lock_guard guard(lock);
        if (auto known = windowOf.find(keyOf(ref)); known != windowOf.end()) window = known->second;
      }
      if (window) title = windowTitle(ObjectRef{ref.bus, *window}, timeoutMs);
    }
    return placement->origin(*pid, title);
  }

  int timeoutOf(const Element& element) {
    auto* e = element.as<AtspiElement>();
    int own = e ? e->timeoutMs() : 0;
    return own > 0 ? own : defaultTimeout.load();
  }

  // The bus daemon knows, for every application: never the application.
  std::optional<std::int32_t> pidOfBus(const std::string& name) { return directory.pidOf(name); }

  std::string toolkitOf(const std::string& name) {
    {
      std::lock_guard guard(lock);
      if (auto it = toolkits.find(name); it != toolkits.end()) return it->second;
    }
    Reply reply = callSync(to(name).get(), propertyCall(name, rootPath, "org.a11y.atspi.Application", "ToolkitName"),
                           defaultTimeout.load());
    if (!reply.ok() && reply.error != AxError::attributeUnsupported) return "";  // try again next time
    Reply version = callSync(to(name).get(), propertyCall(name, rootPath, "org.a11y.atspi.Application", "Version"),
                             defaultTimeout.load());
    std::string toolkit =
        toolkitName(stringOf(replyChild(reply)).value_or(""), stringOf(replyChild(version)).value_or(""));
    std::lock_guard guard(lock);
    toolkits[name] = toolkit;
    return toolkit;
  }

  ElementRecord record(const ObjectRef& ref, std::uint32_t parts, int timeoutMs) {
    if (auto it = prefetched.find(keyOf(ref)); it != prefetched.end()) {
      Prefetched entry = std::move(it->second);
      prefetched.erase(it);
      if ((entry.record.parts & parts) == parts && std::chrono::steady_clock::now() - entry.at < prefetchLife)
        return std::move(entry.record);
    }
    return std::move(readRecords(to(ref.bus).get(), {ref}, parts, timeoutMs, walkTree(ref.bus)).front());
  }

  // An action waits at least the process default: a handle's shorter
  // timeout bounds the reads of a walk, not what an action takes.
  Reply call(const Element& element, const char* interface, const char* method, GVariant* args) {
    auto* e = element.as<AtspiElement>();
    return callSync(to(e->bus()).get(), Call{e->bus(), e->path(), interface, method, own(args)},
                    std::max(timeoutOf(element), defaultTimeout.load()));
  }

  std::vector<ObjectRef> desktopApplications() {
    std::vector<ObjectRef> out;
    for (auto& name : directory.buses()) out.push_back(ObjectRef{std::move(name), rootPath});
    return out;
  }

  void registerEvents(const std::vector<std::string>& types) {
    for (const auto& type : types) {
      if (type.empty()) continue;
      {
        std::lock_guard guard(lock);
        if (!registeredEvents.insert(type).second) continue;
      }
      // Toolkits send only the events some listener has asked the registry for.
      callSync(connection,
               Call{registryBus, "/org/a11y/atspi/registry", "org.a11y.atspi.Registry", "RegisterEvent",
                    own(g_variant_new("(s@ass)", type.c_str(), g_variant_new_strv(nullptr, 0), ""))},
               defaultTimeout.load());
    }
  }

  // The application's top levels, read now, with the sheets remembered for
  // later reads of their role and parent.
  std::vector<TopLevel> topLevels(const std::string& bus, int timeoutMs) {
    const ObjectRef app{bus, rootPath};
    ElementRecord appRecord = readRecords(to(bus).get(), {app}, childrenPart, timeoutMs).front();
    if (appRecord.error != AxError::success || !appRecord.children) return {};
    auto records = readRecords(to(bus).get(), *appRecord.children, basicPart, timeoutMs);
    std::string lastActive;
    {
      std::lock_guard guard(lock);
      if (auto it = lastActiveWindow.find(bus); it != lastActiveWindow.end()) lastActive = it->second;
    }
    auto tops = classifyTopLevels(*appRecord.children, records, toolkitOf(bus), lastActive);
    std::unordered_map<std::string, std::string> sheets;
    for (const auto& top : tops)
      if (top.kind == TopLevelKind::sheet) sheets[top.ref.path] = tops[*top.owner].ref.path;
    std::lock_guard guard(lock);
    sheetOwners[bus] = std::move(sheets);
    return tops;
  }

  std::optional<ObjectRef> sheetOwner(const ObjectRef& ref) {
    std::lock_guard guard(lock);
    auto app = sheetOwners.find(ref.bus);
    if (app == sheetOwners.end()) return std::nullopt;
    auto sheet = app->second.find(ref.path);
    if (sheet == app->second.end()) return std::nullopt;
    return ObjectRef{ref.bus, sheet->second};
  }

  // The children a person can see; a read-ahead has usually fetched their
  // states already, the others are read in one batch.
  std::vector<ObjectRef> withoutHidden(const ElementRecord& parent, const std::vector<ObjectRef>& children,
                                       std::string_view toolkit, int timeoutMs) {
    if (children.empty()) return {};
    const std::uint32_t parts = basicPart | (hidesByArea(toolkit) ? extentsPart : 0u);
    std::vector<const ElementRecord*> known(children.size(), nullptr);
    std::vector<ObjectRef> missing;
    for (std::size_t k = 0; k < children.size(); ++k) {
      auto it = prefetched.find(keyOf(children[k]));
      if (it != prefetched.end() && (it->second.record.parts & parts) == parts)
        known[k] = &it->second.record;
      else
        missing.push_back(children[k]);
    }
    const auto read =
        readRecords(to(children.front().bus).get(), missing, parts, timeoutMs, walkTree(children.front().bus));
    std::vector<ObjectRef> shown;
    shown.reserve(children.size());
    for (std::size_t k = 0, next = 0; k < children.size(); ++k) {
      const ElementRecord& child = known[k] ? *known[k] : read[next++];
      // What cannot be read is left to the walk, which counts it.
      if (child.error != AxError::success ||
          !isHiddenChild(child.role, child.states, child.extents, parent.states, toolkit))
        shown.push_back(children[k]);
    }
    return shown;
  }

  // The part of a container a person can see: its frame within those of
  // the ancestors that scroll it, as a list is as tall as all its rows.
  std::optional<AxRect> visibleArea(const ObjectRef& ref, int timeoutMs) {
    auto own = readRecords(to(ref.bus).get(), {ref}, extentsPart | parentPart, timeoutMs).front();
    std::optional<AxRect> area = own.extents;
    std::optional<ObjectRef> parent = own.parent;
    for (int step = 0; area && parent && !parent->isNull() && step < 4; ++step) {
      auto up = readRecords(to(ref.bus).get(), {*parent}, basicPart | extentsPart | parentPart, timeoutMs).front();
      if (up.error != AxError::success) break;
      if (up.extents && up.extents->width > 0 && up.extents->height > 0) {
        const double left = std::max(area->x, up.extents->x), top = std::max(area->y, up.extents->y);
        const double right = std::min(area->x + area->width, up.extents->x + up.extents->width);
        const double bottom = std::min(area->y + area->height, up.extents->y + up.extents->height);
        // An ancestor that does not overlap at all tells its frame in other
        // coordinates (LibreOffice's panels do): it clips nothing.
        if (right > left && bottom > top) area = AxRect{left, top, right - left, bottom - top};
      }
      if (isWindowRole(up.role)) break;
      parent = up.parent;
    }
    return area;
  }

  // The index of the first child hit by the points, in order; headers and
  // margins answer nothing, so each corner is tried a little further in.
  std::optional<std::int32_t> firstHit(const ObjectRef& ref, const std::vector<std::pair<double, double>>& points,
                                       int timeoutMs) {
    std::vector<Call> calls;
    for (auto [x, y] : points)
      calls.push_back(method(ref, "org.a11y.atspi.Component", "GetAccessibleAtPoint",
                             g_variant_new("(iiu)", static_cast<gint32>(x), static_cast<gint32>(y), 0u)));
    auto connection = to(ref.bus);
    for (const auto& reply : callAll(connection.get(), calls, timeoutMs)) {
      auto child = objectRef(replyChild(reply));
      if (!child || child->isNull()) continue;
      auto index = callSync(connection.get(), method(*child, accessibleIface, "GetIndexInParent"), timeoutMs);
      if (auto value = int32Of(replyChild(index)); value && *value >= 0) return *value;
    }
    return std::nullopt;
  }

  // The children of a container that must not be asked for all of them:
  // those at and between the corners of its visible area, by the Table
  // interface's row and column where it has one, else by index.
  std::vector<ObjectRef> childrenNearView(const ObjectRef& ref, const ElementRecord& record, int timeoutMs) {
    if (!(record.interfaces & componentInterface)) return {};
    const auto area = visibleArea(ref, timeoutMs);
    if (!area || area->width < 4 || area->height < 4) return {};
    const double x = area->x, y = area->y, w = area->width, h = area->height;
    std::vector<std::pair<double, double>> topLeft, bottomRight;
    for (double dy : {1.0, 8.0, 16.0, 24.0, 32.0, 40.0, 48.0, 64.0})
      for (double dx : {1.0, w / 8}) {
        topLeft.emplace_back(x + dx, y + std::min(dy, h / 2));
        bottomRight.emplace_back(x + w - 1 - dx, y + h - 1 - std::min(dy, h / 2));
      }
    for (double part : {0.75, 0.5, 0.25}) bottomRight.emplace_back(x + w / 2, y + h * part);
    const std::int32_t lastChild = record.childCount > 0 ? record.childCount - 1 : 0;
    const std::int32_t first = firstHit(ref, topLeft, timeoutMs).value_or(0);
    const std::int32_t last = std::max(firstHit(ref, bottomRight, timeoutMs).value_or(lastChild), first);
    return (record.interfaces & tableInterface) ? cellsBetween(ref, first, last, timeoutMs)
                                                : childrenBetween(ref, first, last, record.childCount, timeoutMs);
  }

  // How many children a container has: a table's rows times columns, as
  // the child count of a spreadsheet stops at the largest 32-bit number.
  std::int64_t childTotal(const ObjectRef& ref, const ElementRecord& record, int timeoutMs) {
    const std::int64_t told = std::max<std::int64_t>(record.childCount, 0);
    if (!(record.interfaces & tableInterface)) return told;
    std::vector<Call> calls;
    calls.push_back(propertyCall(ref.bus, ref.path, "org.a11y.atspi.Table", "NRows"));
    calls.push_back(propertyCall(ref.bus, ref.path, "org.a11y.atspi.Table", "NColumns"));
    const auto replies = callAll(to(ref.bus).get(), calls, timeoutMs);
    const std::int64_t rows = int32Of(replyChild(replies[0])).value_or(0);
    const std::int64_t columns = int32Of(replyChild(replies[1])).value_or(0);
    return std::max(told, rows * columns);
  }

  std::vector<ObjectRef> cellsBetween(const ObjectRef& table, std::int32_t first, std::int32_t last, int timeoutMs) {
    auto position = [&](const char* name, std::int32_t index) {
      return method(table, "org.a11y.atspi.Table", name, g_variant_new("(i)", index));
    };
    std::vector<Call> positions;
    for (auto index : {first, last}) {
      positions.push_back(position("GetRowAtIndex", index));
      positions.push_back(position("GetColumnAtIndex", index));
    }
    const auto found = callAll(to(table.bus).get(), positions, timeoutMs);
    std::int32_t bounds[4];
    for (int k = 0; k < 4; ++k) bounds[k] = std::max(int32Of(replyChild(found[k])).value_or(0), 0);
    const std::int32_t rows = std::min(bounds[2] - bounds[0] + 1, mostNearRows);
    const std::int32_t columns = std::min(bounds[3] - bounds[1] + 1, mostNearColumns);
    std::vector<Call> calls;
    for (std::int32_t row = 0; row < rows; ++row)
      for (std::int32_t column = 0; column < columns; ++column)
        calls.push_back(method(table, "org.a11y.atspi.Table", "GetAccessibleAt",
                               g_variant_new("(ii)", bounds[0] + row, bounds[1] + column)));
    return refsOf(callAll(to(table.bus).get(), calls, timeoutMs));
  }

  std::vector<ObjectRef> childrenBetween(const ObjectRef& list, std::int32_t first, std::int32_t last,
                                         std::int32_t count, int timeoutMs) {
    // One view's length of margin on each side, as the band narrowing keeps.
    const std::int32_t margin = last - first + 1;
    const std::int32_t from = std::max(first - margin, 0);
    std::int32_t until = std::min(last + margin, from + mostNearChildren - 1);
    if (count >= 0) until = std::min(until, count - 1);
    std::vector<Call> calls;
    for (std::int32_t index = from; index <= until; ++index)
      calls.push_back(method(list, accessibleIface, "GetChildAtIndex", g_variant_new("(i)", index)));
    return refsOf(callAll(to(list.bus).get(), calls, timeoutMs));
  }

  static std::vector<ObjectRef> refsOf(const std::vector<Reply>& replies) {
    std::vector<ObjectRef> refs;
    refs.reserve(replies.size());
    for (const auto& reply : replies)
      if (auto ref = objectRef(replyChild(reply)); ref && !ref->isNull()) refs.push_back(std::move(*ref));
    return refs;
  }

  static Call method(const ObjectRef& ref, const char* interface, const char* name, GVariant* args = nullptr) {
    return Call{ref.bus, ref.path, interface, name, own(args)};
  }

  // An element's children as a person sees them: an application's windows
  // and menus without its sheets, a window's visible children with its sheets.
  AxValue shownChildren(const ObjectRef& ref, const ElementRecord& record, const std::string& toolkit, int timeoutMs) {
    if (!record.children) return AxError::noValue;
    std::vector<ObjectRef> children;
    if (isApplicationRole(record.role)) {
      std::vector<ObjectRef> popups;
      for (const auto& top : topLevels(ref.bus, timeoutMs)) {
        if (top.kind == TopLevelKind::window || (top.kind == TopLevelKind::menu && isMenuRole(top.role)))
          children.push_back(top.ref);
        else if (top.kind == TopLevelKind::menu)
          popups.push_back(top.ref);
      }
      // A pop-up window is read for the menu it holds, as a menu hanging from
      // the application.
      for (const auto& popup : readRecords(to(ref.bus).get(), popups, childrenPart, timeoutMs)) {
        if (popup.error != AxError::success || !popup.children) continue;
        const auto inside = readRecords(to(ref.bus).get(), *popup.children, basicPart, timeoutMs);
        for (std::size_t k = 0; k < inside.size(); ++k)
          if (inside[k].error == AxError::success && isMenuRole(inside[k].role))
            children.push_back((*popup.children)[k]);
      }
    } else {
      // A menu bar's closed menus stay, as everywhere; a long list is narrowed
      // by the walk, which must not read every row here.
      if (record.childrenWithheld) {
        children = childrenNearView(ref, record, timeoutMs);
        childrenLeftOutOf[keyOf(ref)] = childTotal(ref, record, timeoutMs) - static_cast<std::int64_t>(children.size());
      } else {
        children = isMenuRole(record.role) || record.children->size() > longList
                       ? *record.children
                       : withoutHidden(record, *record.children, toolkit, timeoutMs);
      }
      if (isWindowRole(record.role) && !sheetOwner(ref)) {
        const auto tops = topLevels(ref.bus, timeoutMs);
        auto self = std::find_if(tops.begin(), tops.end(), [&](const TopLevel& t) { return t.ref == ref; });
        const auto index = static_cast<std::size_t>(self - tops.begin());
        for (const auto& top : tops)
          if (self != tops.end() && top.kind == TopLevelKind::sheet && top.owner == index) children.push_back(top.ref);
      }
    }
    AxList list;
    list.reserve(children.size());
    for (const auto& child : children) list.emplace_back(atspiElement(child.bus, child.path));
    return list;
  }
};

namespace {

ObjectRef refOf(const Element& element) {
  auto* e = element.as<AtspiElement>();
  return e ? ObjectRef{e->bus(), e->path()} : ObjectRef{};
}

bool isOurs(const Element& element) { return element.as<AtspiElement>() != nullptr; }

bool isSystemWide(const Element& element) {
  auto* e = element.as<AtspiElement>();
  return e && e->path() == systemWidePath;
}

// The detail and first number of an event signal, whose arguments are
// (detail, detail1, detail2, any data, properties).
struct EventDetail {
  std::string detail;
  std::int32_t detail1 = 0;
};

EventDetail eventDetail(GVariant* parameters) {
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE_TUPLE) || g_variant_n_children(parameters) < 2) return {};
  return {stringOf(Variant(g_variant_get_child_value(parameters, 0))).value_or(""),
          int32Of(Variant(g_variant_get_child_value(parameters, 1))).value_or(0)};
}

void onEvent(GDBusConnection*, const gchar* sender, const gchar* path, const gchar* interface, const gchar* member,
             GVariant* parameters, gpointer data) {
  auto* observer = static_cast<AtspiObserver*>(data);
  constexpr std::string_view prefix = "org.a11y.atspi.Event.";
  std::string_view iface(interface);
  if (iface.substr(0, prefix.size()) != prefix) return;
  const EventDetail event = eventDetail(parameters);
  if (std::string_view(member) == "StateChanged" && observer->repeatsState(path, event.detail, event.detail1)) return;
  auto notification = notificationFor({iface.substr(prefix.size()), member, event.detail, event.detail1});
  if (!notification) return;
  observer->deliver(atspiElement(sender, path), std::string(*notification));
}

}  // namespace

AtspiAccessibility::AtspiAccessibility(AtspiBus& bus, RunLoop& mainLoop, RootWindowEvents* rootEvents)
    : s_(std::make_unique<State>(bus, mainLoop, rootEvents)) {
  // AT-SPI cannot be asked which element has the focus, nor which window a
  // dialog belongs to: follow both.
  s_->registerEvents({"object:state-changed", "window:activate"});
  s_->windowActivationSubscription = g_dbus_connection_signal_subscribe(
      s_->connection, nullptr, "org.a11y.atspi.Event.Window", "Activate", nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar* sender, const gchar* path, const gchar*, const gchar*, GVariant*,
         gpointer data) {
        auto* state = static_cast<State*>(data);
        std::lock_guard guard(state->lock);
        // A sheet made active leaves its window as the one last active.
        auto sheets = state->sheetOwners.find(sender);
        if (sheets != state->sheetOwners.end() && sheets->second.count(path)) return;
        state->lastActiveWindow[sender] = path;
      },
      s_.get(), nullptr);
  s_->focusSubscription = g_dbus_connection_signal_subscribe(
      s_->connection, nullptr, "org.a11y.atspi.Event.Object", "StateChanged", nullptr, "focused",
      G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar* sender, const gchar* path, const gchar*, const gchar*, GVariant* parameters,
         gpointer data) {
        auto* state = static_cast<State*>(data);
        if (!eventDetail(parameters).detail1) return;  // the focus left
        std::lock_guard guard(state->lock);
        state->lastFocused[sender] = ObjectRef{sender, path};
      },
      s_.get(), nullptr);
}

AtspiAccessibility::~AtspiAccessibility() {
  if (s_->focusSubscription) g_dbus_connection_signal_unsubscribe(s_->connection, s_->focusSubscription);
  if (s_->activationSubscription) g_dbus_connection_signal_unsubscribe(s_->connection, s_->activationSubscription);
  if (s_->windowActivationSubscription)
    g_dbus_connection_signal_unsubscribe(s_->connection, s_->windowActivationSubscription);
}

bool AtspiAccessibility::isTrusted() {
  // Asked at the head of nearly every operation: the switch is read at most
  // once a second.
  const auto now = std::chrono::steady_clock::now();
  {
    std::lock_guard guard(s_->lock);
    if (now - s_->trustCheckedAt < std::chrono::seconds(1)) return s_->trusted;
  }
  const bool trusted = s_->bus.isEnabled();
  std::lock_guard guard(s_->lock);
  s_->trusted = trusted;
  s_->trustCheckedAt = now;
  return trusted;
}

bool AtspiAccessibility::requestTrust() {
  const bool trusted = s_->bus.enable();
  std::lock_guard guard(s_->lock);
  s_->trusted = trusted;
  s_->trustCheckedAt = std::chrono::steady_clock::now();
  return trusted;
}

Element AtspiAccessibility::applicationElement(std::int32_t pid) {
  auto cell = std::make_shared<std::atomic<int>>(0);
  if (auto bus = s_->directory.busOf(pid)) return Element(std::make_shared<AtspiElement>(*bus, rootPath, cell));
  // Calls on a bus name that no application holds fail as a gone element.
  return Element(std::make_shared<AtspiElement>(":no-application-" + std::to_string(pid), rootPath, cell));
}

Element AtspiAccessibility::systemWide() { return atspiElement(registryBus, systemWidePath); }

AxError AtspiAccessibility::setMessagingTimeout(const Element& element, double seconds) {
  auto* e = element.as<AtspiElement>();
  if (!e || seconds < 0) return AxError::illegalArgument;
  const int ms = seconds > 0 ? std::max(1, static_cast<int>(std::lround(seconds * 1000))) : 0;
  if (isSystemWide(element)) {
    s_->defaultTimeout = ms > 0 ? ms : defaultTimeoutMs;
  } else {
    if (!e->timeoutCell()) return AxError::illegalArgument;  // only handles made with a cell carry their own
    e->timeoutCell()->store(ms);
  }
  return AxError::success;
}

namespace {

// What `parts` tell of an application's top-level children (its windows).
std::vector<ElementRecord> topLevelRecords(GDBusConnection* connection, const ObjectRef& app, std::uint32_t parts,
                                           int timeoutMs) {
  auto windows = readRecords(connection, {app}, childrenPart, timeoutMs).front().children;
  if (!windows) return {};
  return readRecords(connection, *windows, parts, timeoutMs);
}

bool anyActive(const std::vector<ElementRecord>& windows) {
  return std::any_of(windows.begin(), windows.end(), [](const auto& r) { return r.states.active(); });
}

// The first element, breadth first, in the application's active window (in
// any of its windows where none is active, as without a window manager) that
// `wanted` takes, read one level at a time. Long lists are not entered: what
// is looked for here is never one of their rows.
std::optional<ObjectRef> findInWindows(GDBusConnection* connection, const ObjectRef& app, int timeoutMs,
                                       const std::function<bool(const ElementRecord&)>& wanted) {
  constexpr std::size_t budget = 3000;
  const auto tops = topLevelRecords(connection, app, basicPart | childrenPart, timeoutMs);
  const bool active = anyActive(tops);
  std::vector<ObjectRef> level;
  for (const auto& r : tops)
    if (r.error == AxError::success && r.children && (r.states.active() || !active))
      level.insert(level.end(), r.children->begin(), r.children->end());
  for (std::size_t read = 0; !level.empty() && read < budget;) {
    auto records = readRecords(connection, level, basicPart | childrenPart, timeoutMs);
    read += level.size();
    std::vector<ObjectRef> next;
    for (std::size_t k = 0; k < records.size(); ++k) {
      const auto& r = records[k];
      if (r.error != AxError::success) continue;
      if (wanted(r)) return level[k];
      if (r.children && r.children->size() <= longList) next.insert(next.end(), r.children->begin(), r.children->end());
    }
    level = std::move(next);
  }
  return std::nullopt;
}

// An element's record for the attribute table: the parts asked for, read
// only where there are any, and what object it is.
ElementRecord attributeRecord(AtspiAccessibility::State& s, const Element& element, std::uint32_t parts) {
  if (isSystemWide(element)) return desktopRecord();
  const ObjectRef ref = refOf(element);
  ElementRecord record = parts ? s.record(ref, parts, s.timeoutOf(element)) : ElementRecord{};
  if (ref.path == rootPath) record.kind = ObjectKind::application;
  return record;
}

// The record of an element about to be acted on. Gecko keeps answering for
// an object whose node went (a page replaced), marked defunct: an act on it
// fails as on an object the application no longer knows.
ElementRecord actionRecord(ElementRecord record) {
  if (record.error == AxError::success && record.states.defunct()) record.error = AxError::invalidElement;
  return record;
}

// The calls of the attribute table on one element over the bus. Lives for
// one read or write, on the caller's thread.
class BusCalls final : public ElementCalls {
 public:
  BusCalls(AtspiAccessibility& ax, AtspiAccessibility::State& s, const Element& element, const ElementRecord& record,
           std::string_view toolkit)
      : ax_(ax),
        s_(s),
        element_(element),
        ref_(refOf(element)),
        record_(record),
        toolkit_(toolkit),
        timeoutMs_(s.timeoutOf(element)) {}

  AxValue shownChildren() override {
    AxValue children = s_.shownChildren(ref_, record_, toolkit_, timeoutMs_);
    s_.learnWindows(ref_, record_, record_.sheetOwner.has_value(), children);
    return children;
  }

  AxValue focusedElement() override {
    if (isSystemWide(element_)) {
      auto app = frontApplicationElement();
      return app ? ax_.copy(*app, "AXFocusedUIElement") : AxValue(AxError::noValue);
    }
    ObjectRef focused;
    {
      std::lock_guard guard(s_.lock);
      if (auto it = s_.lastFocused.find(ref_.bus); it != s_.lastFocused.end()) focused = it->second;
    }
    if (!focused.bus.empty()) {
      ElementRecord r = s_.record(focused, basicPart, timeoutMs_);
      // An application in the background keeps the element that had its
      // focus, though toolkits clear the state while its window is inactive.
      if (r.error == AxError::success &&
          (r.states.focused() || !anyActive(topLevelRecords(s_.to(ref_.bus).get(), ref_, basicPart, timeoutMs_))))
        return AxValue(atspiElement(focused.bus, focused.path));
    }
    // The focus moved before we listened, or a toolkit didn't tell: look.
    auto found =
        findInWindows(s_.to(ref_.bus).get(), ref_, timeoutMs_, [](const auto& r) { return r.states.focused(); });
    if (!found) return AxError::noValue;
    {
      std::lock_guard guard(s_.lock);
      s_.lastFocused[found->bus] = *found;
    }
    return AxValue(atspiElement(found->bus, found->path));
  }

  AxValue frontApplication() override {
    auto app = frontApplicationElement();
    return app ? AxValue(*app) : AxValue(AxError::noValue);
  }

  AxValue menuBar() override {
    // Toolkits here keep the menu bar inside the window.
    auto bar =
        findInWindows(s_.to(ref_.bus).get(), ref_, timeoutMs_, [](const auto& r) { return isMenuBarRole(r.role); });
    if (!bar) return AxError::noValue;
    return AxValue(atspiElement(bar->bus, bar->path));
  }

  AxValue windows() override {
    AxList list;
    for (const auto& top : s_.topLevels(ref_.bus, timeoutMs_))
      if (top.kind == TopLevelKind::window) list.emplace_back(atspiElement(top.ref.bus, top.ref.path));
    return list;
  }

  AxValue frontWindow() override {
    // The front is the active window, or the window whose sheet is active.
    const auto tops = s_.topLevels(ref_.bus, timeoutMs_);
    auto front = linux_desktop::frontWindow(tops);
    if (!front) return AxError::noValue;
    return AxValue(atspiElement(tops[*front].ref.bus, tops[*front].ref.path));
  }

  AxValue frontmost() override {
    const auto tops = s_.topLevels(ref_.bus, timeoutMs_);
    return AxValue(std::any_of(tops.begin(), tops.end(), [](const TopLevel& t) { return t.active; }));
  }

  AxError setText(const std::string& text) override {
    return outcomeOf(
        s_.call(element_, "org.a11y.atspi.EditableText", "SetTextContents", g_variant_new("(s)", text.c_str())));
  }

  AxError setNumber(double number) override {
    return outcomeOf(
        s_.call(element_, "org.freedesktop.DBus.Properties", "Set",
                g_variant_new("(ssv)", "org.a11y.atspi.Value", "CurrentValue", g_variant_new_double(number))));
  }

  AxError grabFocus() override {
    const AxError grabbed = outcomeOf(s_.call(element_, "org.a11y.atspi.Component", "GrabFocus", nullptr));
    // Qt moves the focus inside a window in the background without telling:
    // the element is its window's focus until the window comes forward.
    if (grabbed == AxError::success &&
        !anyActive(topLevelRecords(s_.to(ref_.bus).get(), {ref_.bus, rootPath}, basicPart, timeoutMs_))) {
      std::lock_guard guard(s_.lock);
      s_.lastFocused[ref_.bus] = ref_;
    }
    return grabbed;
  }

  AxError select(bool selected) override {
    ElementRecord withParent = s_.record(ref_, parentPart, timeoutMs_);
    auto index = int32Of(replyChild(s_.call(element_, accessibleIface, "GetIndexInParent", nullptr)));
    if (!withParent.parent || !index) return AxError::cannotComplete;
    Element parent = atspiElement(withParent.parent->bus, withParent.parent->path);
    return outcomeOf(s_.call(parent, "org.a11y.atspi.Selection", selected ? "SelectChild" : "DeselectChild",
                             g_variant_new("(i)", *index)));
  }

  AxError selectChoice(const std::string& name) override {
    const auto combo = s_.record(ref_, childrenPart, timeoutMs_);
    if (!combo.children || combo.children->empty()) return AxError::cannotComplete;
    const auto menu = s_.record(combo.children->front(), childrenPart, timeoutMs_);
    if (!menu.children) return AxError::cannotComplete;
    const auto options = readRecords(s_.to(ref_.bus).get(), *menu.children, basicPart, timeoutMs_);
    for (std::size_t k = 0; k < options.size(); ++k)
      if (options[k].error == AxError::success && cleanedName(options[k].name, options[k].role, toolkit_) == name)
        return outcomeOf(
            s_.call(element_, "org.a11y.atspi.Selection", "SelectChild", g_variant_new("(i)", static_cast<gint32>(k))));
    return AxError::illegalArgument;
  }

  AxError selectText(const AxRange& range) override {
    const auto start = static_cast<gint32>(range.location);
    const auto end = static_cast<gint32>(range.location + range.length);
    if (range.length == 0)
      return outcomeOf(s_.call(element_, "org.a11y.atspi.Text", "SetCaretOffset", g_variant_new("(i)", start)));
    // Setting a selection fails where there is none; adding one works.
    s_.call(element_, "org.a11y.atspi.Text", "RemoveSelection", g_variant_new("(i)", 0));
    return outcomeOf(s_.call(element_, "org.a11y.atspi.Text", "AddSelection", g_variant_new("(ii)", start, end)));
  }

  AxError showAssistiveClient() override {
    if (!waitsForAssistiveClient(s_.toolkitOf(ref_.bus))) return AxError::success;
    return linux_desktop::showAssistiveClient(s_.to(ref_.bus).get(), ref_.bus, timeoutMs_);
  }

 private:
  // The application with an active window, as the desktop's front.
  std::optional<Element> frontApplicationElement() {
    for (const auto& app : s_.desktopApplications()) {
      Element candidate = atspiElement(app.bus, rootPath);
      if (ax_.copy(candidate, "AXFrontmost").as<bool>().value_or(false)) return candidate;
    }
    return std::nullopt;
  }

  AtspiAccessibility& ax_;
  AtspiAccessibility::State& s_;
  const Element& element_;
  const ObjectRef ref_;
  const ElementRecord& record_;
  const std::string toolkit_;
  const int timeoutMs_;
};

}  // namespace

AxResult<std::vector<AxValue>> AtspiAccessibility::copyMultiple(const Element& element,
                                                                const std::vector<std::string>& names) {
  if (!isOurs(element)) return {AxError::illegalArgument, {}};
  const std::uint32_t parts = partsFor(names);
  ElementRecord record = attributeRecord(*s_, element, parts);
  if (record.error != AxError::success) return {record.error, {}};
  std::string toolkit;
  if (parts && record.kind != ObjectKind::desktop) {
    const ObjectRef ref = refOf(element);
    // The toolkit's quirks are those of what the element itself tells.
    if (record.parts & basicPart) toolkit = s_->toolkitOf(ref.bus);
    record.sheetOwner = s_->sheetOwner(ref);
    if (record.extents) placeFrame(ref, record);
  }
  BusCalls calls(*this, *s_, element, record, toolkit);
  std::vector<AxValue> values;
  values.reserve(names.size());
  for (const auto& name : names) values.push_back(readAttribute(name, AttributeInput{record, toolkit, &calls}));
  for (auto& value : values) shareTimeout(value, element);
  return {AxError::success, std::move(values)};
}

AxValue AtspiAccessibility::copy(const Element& element, std::string_view name) {
  auto values = copyMultiple(element, {std::string(name)});
  if (!values.ok()) return values.error;
  return std::move(values.value.front());
}

AxError AtspiAccessibility::set(const Element& element, std::string_view name, const AxValue& value) {
  if (!isOurs(element) || isSystemWide(element)) return AxError::illegalArgument;
  const ObjectRef ref = refOf(element);
  prefetched.erase(keyOf(ref));
  ElementRecord r = actionRecord(attributeRecord(*s_, element, partsToSet(name)));
  BusCalls calls(*this, *s_, element, r, "");
  return writeAttribute(name, r, value, calls);
}

AxResult<bool> AtspiAccessibility::isSettable(const Element& element, std::string_view name) {
  if (!isOurs(element) || isSystemWide(element)) return {AxError::illegalArgument, false};
  ElementRecord r = actionRecord(attributeRecord(*s_, element, partsToSet(name)));
  if (r.error != AxError::success) return {r.error, false};
  return {AxError::success, isAttributeSettable(name, r)};
}

AxResult<std::vector<std::string>> AtspiAccessibility::attributeNames(const Element& element) {
  static const std::vector<std::string> candidates = attributeTableNames();
  auto values = copyMultiple(element, candidates);
  if (!values.ok()) return {values.error, {}};
  std::vector<std::string> names;
  for (std::size_t k = 0; k < candidates.size(); ++k)
    if (!values.value[k].isError()) names.push_back(candidates[k]);
  return {AxError::success, std::move(names)};
}

AxResult<std::vector<std::string>> AtspiAccessibility::actionNames(const Element& element) {
  if (!isOurs(element) || isSystemWide(element)) return {AxError::illegalArgument, {}};
  ElementRecord r = actionRecord(s_->record(refOf(element), basicPart | actionsPart, s_->timeoutOf(element)));
  if (r.error != AxError::success) return {r.error, {}};
  return {AxError::success, axActionNames(r.actions, r.interfaces)};
}

AxResult<std::string> AtspiAccessibility::actionDescription(const Element& element, std::string_view action) {
  auto names = actionNames(element);
  if (!names.ok()) return {names.error, ""};
  if (std::find(names.value.begin(), names.value.end(), action) == names.value.end())
    return {AxError::actionUnsupported, ""};
  std::string text(action.substr(action.rfind("AX") == 0 ? 2 : 0));
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return {AxError::success, text};
}

AxError AtspiAccessibility::perform(const Element& element, std::string_view action) {
  if (!isOurs(element) || isSystemWide(element)) return AxError::illegalArgument;
  const ObjectRef ref = refOf(element);
  prefetched.erase(keyOf(ref));
  ElementRecord r = actionRecord(s_->record(ref, basicPart | actionsPart | contentPart, s_->timeoutOf(element)));
  if (r.error != AxError::success) return r.error;
  // Toolkits answer success to an action on a disabled control and do
  // nothing: refuse it here instead of reporting a press that never happened.
  if (!r.states.enabled() && (r.interfaces & actionInterface)) return AxError::cannotComplete;
  if (auto index = atspiActionFor(action, r.actions))
    return outcomeOf(
        s_->call(element, "org.a11y.atspi.Action", "DoAction", g_variant_new("(i)", static_cast<gint32>(*index))));
  if ((action == "AXIncrement" || action == "AXDecrement") && (r.interfaces & valueInterface) && r.value) {
    double step = r.step.value_or(0) > 0 ? *r.step : 1;
    double next = *r.value + (action == "AXIncrement" ? step : -step);
    if (r.maximum) next = std::min(next, *r.maximum);
    if (r.minimum) next = std::max(next, *r.minimum);
    return set(element, "AXValue", AxValue(next));
  }
  // A window comes forward by the focus's write, though it need not be
  // focusable itself.
  if (action == "AXRaise" && (r.interfaces & componentInterface))
    return r.states.focused() ? AxError::success : BusCalls(*this, *s_, element, r, "").grabFocus();
  return AxError::actionUnsupported;
}

AxResult<Element> AtspiAccessibility::elementAt(double x, double y) {
  const gint32 px = static_cast<gint32>(std::floor(x)), py = static_cast<gint32>(std::floor(y));
  std::optional<ObjectRef> best;
  bool bestActive = false;
  AxPoint bestOrigin;  // where the window stands, where frames are told relative to it
  for (const auto& app : s_->desktopApplications()) {
    ElementRecord a = s_->record(app, childrenPart, s_->defaultTimeout.load());
    if (a.error != AxError::success || !a.children) continue;
    auto windows = readRecords(s_->to(app.bus).get(), *a.children, basicPart | extentsPart, s_->defaultTimeout.load());
    for (std::size_t k = 0; k < windows.size(); ++k) {
      const auto& w = windows[k];
      if (w.error != AxError::success || !w.extents || !w.states.showing()) continue;
      const AxPoint origin = s_->windowOrigin((*a.children)[k], w, s_->defaultTimeout.load()).value_or(AxPoint{});
      const AxRect e{w.extents->x + origin.x, w.extents->y + origin.y, w.extents->width, w.extents->height};
      if (px < e.x || py < e.y || px >= e.x + e.width || py >= e.y + e.height) continue;
      if (!best || (w.states.active() && !bestActive)) {
        best = (*a.children)[k];
        bestActive = w.states.active();
        bestOrigin = origin;
      }
    }
  }
  if (!best) return {AxError::noValue, Element()};
  ObjectRef current = *best;
  const auto wx = static_cast<gint32>(px - bestOrigin.x), wy = static_cast<gint32>(py - bestOrigin.y);
  for (int depth = 0; depth < 64; ++depth) {
    Reply reply = callSync(s_->to(current.bus).get(),
                           Call{current.bus, current.path, "org.a11y.atspi.Component", "GetAccessibleAtPoint",
                                own(g_variant_new("(iiu)", wx, wy, 0u))},
                           s_->defaultTimeout.load());
    auto next = objectRef(replyChild(reply));
    if (!next || next->isNull() || *next == current) break;
    current = *next;
  }
  return {AxError::success, atspiElement(current.bus, current.path)};
}

AxResult<std::int32_t> AtspiAccessibility::pidOf(const Element& element) {
  auto* e = element.as<AtspiElement>();
  if (!e || isSystemWide(element)) return {AxError::illegalArgument, 0};
  auto pid = s_->pidOfBus(e->bus());
  if (!pid) return {AxError::invalidElement, 0};
  return {AxError::success, *pid};
}

std::int64_t AtspiAccessibility::childrenLeftOut(const Element& element) {
  auto it = childrenLeftOutOf.find(keyOf(refOf(element)));
  if (it == childrenLeftOutOf.end()) return 0;
  const auto count = it->second;
  childrenLeftOutOf.erase(it);
  return std::max<std::int64_t>(count, 0);
}

void AtspiAccessibility::prefetch(const std::vector<Element>& elements, const std::vector<std::string>& names) {
  // A walk prefetches at every node: sweep what it left unread only now and
  // then, not each time.
  const auto now = std::chrono::steady_clock::now();
  if (now - lastSweep >= prefetchLife) {
    std::erase_if(prefetched, [&](const auto& entry) { return now - entry.second.at >= prefetchLife; });
    lastSweep = now;
  }
  if (elements.empty() || !isOurs(elements.front())) return;
  const std::uint32_t parts = partsFor(names);
  const int timeoutMs = s_->timeoutOf(elements.front());
  const auto via = s_->to(refOf(elements.front()).bus);
  std::vector<ObjectRef> level;
  for (const auto& element : elements) {
    ObjectRef ref = refOf(element);
    if (!ref.bus.empty() && !prefetched.count(keyOf(ref))) level.push_back(std::move(ref));
  }
  // Read ahead level by level below the elements given, so that a walk of
  // the subtree costs one round trip a level instead of one an element;
  // where the application's cache tells the shape of the tree, everything
  // it tells below a level is read with that level.
  const std::string bus = level.empty() ? std::string() : level.front().bus;
  std::size_t read = 0;
  std::vector<std::string> added;
  std::shared_ptr<const CachedTree> cached;
  bool fetched = walkMemory.depth > 0 && walkMemory.trees.count(bus);
  // Browsers give a whole text for an end of -1; GTK4 gives none.
  const bool textToEnd = !bus.empty() && isWebToolkit(s_->toolkitOf(bus));
  if (auto it = walkMemory.trees.find(bus); it != walkMemory.trees.end() && !it->second->empty()) cached = it->second;
  for (std::size_t levels = 0; !level.empty() && read < readAheadBudget && levels < readAheadLevels; ++levels) {
    if (level.size() > readAheadBudget - read) level.resize(readAheadBudget - read);
    const bool inWalk = walkMemory.depth > 0;
    if (!fetched &&
        (level.size() >= cacheWorthyLevel || (inWalk && walkMemory.readAhead + level.size() >= cacheWorthyWalk))) {
      fetched = true;
      cached = std::make_shared<const CachedTree>(cachedTree(bus, readCachedItems(via.get(), bus, timeoutMs)));
      if (inWalk) walkMemory.trees[bus] = cached;
      if (cached->empty()) cached.reset();
    }
    if (cached && (parts & childrenPart)) {
      std::unordered_set<std::string> inLevel;
      for (const auto& ref : level) inLevel.insert(ref.path);
      auto below = cachedDescendants(
          *cached, level, readAheadBudget - read - level.size(), readAheadLevels - levels, [](const CachedItem& item) {
            return readAheadEnters(item.role, item.states, static_cast<std::size_t>(std::max(item.childCount, 0))) &&
                   !withholdsChildren(item.states, item.childCount);
          });
      for (auto& ref : below)
        if (!prefetched.count(keyOf(ref)) && inLevel.insert(ref.path).second) level.push_back(std::move(ref));
    }
    if (inWalk) walkMemory.readAhead += level.size();
    auto records = readRecords(via.get(), level, parts, timeoutMs, cached.get(), textToEnd);
    read += level.size();
    std::unordered_set<std::string> inBatch;
    for (const auto& ref : level) inBatch.insert(ref.path);
    std::vector<ObjectRef> next;
    for (std::size_t k = 0; k < records.size(); ++k) {
      auto& r = records[k];
      // An element that did not answer is told so at once when the walk
      // reads it, instead of being waited for a second time.
      if (r.error != AxError::success && r.error != AxError::cannotComplete) continue;
      if (r.error == AxError::success && (parts & childrenPart) && r.children &&
          readAheadEnters(r.role, r.states, r.children->size()))
        for (const auto& child : *r.children)
          if (!inBatch.count(child.path) && !prefetched.count(keyOf(child))) next.push_back(child);
      added.push_back(keyOf(level[k]));
      prefetched[added.back()] = Prefetched{std::move(r), now};
    }
    if (!(parts & childrenPart)) break;
    level = std::move(next);
  }
  // The walk reads what came ahead right after this: its life starts now, or
  // the first levels of a large read-ahead would be stale before they are used.
  const auto done = std::chrono::steady_clock::now();
  for (const auto& key : added) prefetched[key].at = done;
}

void AtspiAccessibility::walkStarted() { ++walkMemory.depth; }

void AtspiAccessibility::walkEnded() {
  if (walkMemory.depth > 0 && --walkMemory.depth > 0) return;
  walkMemory.readAhead = 0;
  walkMemory.trees.clear();
}

AxResult<std::shared_ptr<Observer>> AtspiAccessibility::createObserver(std::int32_t pid, ObserverCallback callback) {
  auto bus = s_->directory.busOf(pid);
  if (!bus) return {AxError::invalidElement, nullptr};
  auto observer = std::make_shared<AtspiObserver>(pid, *bus, std::move(callback));
  // When the bus name loses its owner the application has left the bus, as
  // it does when it ends: its element is destroyed.
  observer->departure = g_dbus_connection_signal_subscribe(
      s_->connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", "/org/freedesktop/DBus",
      bus->c_str(), G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
         gpointer data) {
        const gchar *name = nullptr, *before = nullptr, *after = nullptr;
        g_variant_get(parameters, "(&s&s&s)", &name, &before, &after);
        if (*after) return;
        if (auto observer = static_cast<std::weak_ptr<AtspiObserver>*>(data)->lock())
          observer->deliver(atspiElement(name, rootPath), "AXUIElementDestroyed");
      },
      new std::weak_ptr<AtspiObserver>(observer),
      [](gpointer data) { delete static_cast<std::weak_ptr<AtspiObserver>*>(data); });
  std::lock_guard guard(s_->lock);
  std::erase_if(s_->observers, [](const auto& weak) { return weak.expired(); });
  s_->observers.push_back(observer);
  return {AxError::success, observer};
}

void AtspiAccessibility::placeWindowsWith(WindowPlacement* placement) { s_->placement = placement; }

void AtspiAccessibility::placeFrame(const ObjectRef& ref, ElementRecord& record) {
  if (!s_->placement) return;
  if (auto origin = s_->windowOrigin(ref, record, s_->defaultTimeout.load())) {
    record.extents->x += origin->x;
    record.extents->y += origin->y;
  }
}

void AtspiAccessibility::watchWindowGeometry() {
  // Told to the observers of the process, on the main run loop.
  auto tell = [s = s_.get()](std::int32_t pid, bool resized) {
    const std::string name = resized ? "AXResized" : "AXMoved";
    std::vector<std::shared_ptr<AtspiObserver>> targets;
    {
      std::lock_guard guard(s->lock);
      for (const auto& weak : s->observers)
        if (auto observer = weak.lock(); observer && observer->pid() == pid) targets.push_back(std::move(observer));
    }
    for (auto& observer : targets) observer->deliver(atspiElement(observer->bus(), rootPath), name);
  };
  WindowPlacement* placement = nullptr;
  {
    std::lock_guard guard(s_->lock);
    if (s_->geometry || s_->watchingPlaces) return;
    if (s_->rootEvents) {
      s_->geometry = std::make_unique<WindowGeometryWatch>(
          *s_->rootEvents, s_->mainLoop, [tell](std::int32_t pid, WindowGeometryWatch::Change change) {
            tell(pid, change == WindowGeometryWatch::Change::resized);
          });
      return;
    }
    placement = s_->placement;
    s_->watchingPlaces = placement != nullptr;
  }
  // Where the compositor tells the windows' places, from it.
  if (placement)
    placement->watchGeometry([tell, loop = &s_->mainLoop](std::int32_t pid, bool resized) {
      loop->post([tell, pid, resized] { tell(pid, resized); });
    });
}

AxError AtspiAccessibility::addNotification(Observer& observer, const Element& element, std::string_view notification) {
  auto* ours = dynamic_cast<AtspiObserver*>(&observer);
  if (!ours || !isOurs(element)) return AxError::illegalArgument;
  const auto types = eventTypesFor(notification);
  if (types.empty()) return AxError::notificationUnsupported;
  s_->registerEvents(types);
  if (notification == "AXMoved" || notification == "AXResized") watchWindowGeometry();
  std::lock_guard guard(ours->lock);
  if (ours->removed) return AxError::invalidObserver;
  if (!ours->names.insert(std::string(notification)).second) return AxError::notificationAlreadyRegistered;
  if (ours->subscription == 0) {
    // Signals are dispatched to the context that is the thread's default at
    // subscription; no thread of ours keeps one pushed outside a batch of
    // calls, so that is the global one the main loop runs.
    ours->subscription =
        g_dbus_connection_signal_subscribe(s_->connection, ours->bus().c_str(), nullptr, nullptr, nullptr, nullptr,
                                           G_DBUS_SIGNAL_FLAGS_NONE, onEvent, ours, nullptr);
  }
  return AxError::success;
}

void AtspiAccessibility::removeObserver(Observer& observer) {
  auto* ours = dynamic_cast<AtspiObserver*>(&observer);
  if (!ours) return;
  std::lock_guard guard(ours->lock);
  ours->removed = true;
  ours->names.clear();
  ours->states.clear();
  if (ours->subscription) g_dbus_connection_signal_unsubscribe(s_->connection, ours->subscription);
  if (ours->departure) g_dbus_connection_signal_unsubscribe(s_->connection, ours->departure);
  ours->subscription = 0;
  ours->departure = 0;
}

std::vector<BusApplication> AtspiAccessibility::applications() {
  std::vector<BusApplication> apps;
  for (auto& app : s_->directory.applications())
    apps.push_back(BusApplication{std::move(app.bus), app.pid, std::move(app.name), !app.silent});
  return apps;
}

void AtspiAccessibility::markSilent(std::int32_t pid) {
  if (auto bus = s_->directory.busOf(pid)) s_->directory.markSilent(*bus);
}

std::optional<BusApplication> AtspiAccessibility::application(std::int32_t pid) {
  auto app = s_->directory.application(pid);
  if (!app) return std::nullopt;
  return BusApplication{std::move(app->bus), app->pid, std::move(app->name), !app->silent};
}

void AtspiAccessibility::observeActivation(std::function<void(std::int32_t pid)> callback) {
  s_->registerEvents({"window:activate", "object:state-changed"});
  std::lock_guard guard(s_->lock);
  s_->activationCallbacks.push_back(std::move(callback));
  if (s_->activationSubscription) return;
  s_->activationSubscription = g_dbus_connection_signal_subscribe(
      s_->connection, nullptr, "org.a11y.atspi.Event.Window", "Activate", nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar*, GVariant*, gpointer data) {
        auto* state = static_cast<State*>(data);
        // The bus name's pid is cached after the first window of an application.
        auto pid = state->pidOfBus(sender);
        if (!pid) return;
        std::vector<std::function<void(std::int32_t)>> callbacks;
        {
          std::lock_guard guard(state->lock);
          callbacks = state->activationCallbacks;
        }
        for (auto& callback : callbacks) callback(*pid);
      },
      s_.get(), nullptr);
}

}  // namespace glimmerstrand::platform::linux_desktop
