#include "core/records.h"

#include <bit>
#include <functional>

namespace glimmerstrand::core {
namespace {

// Order-sensitive combination of field hashes.
struct Feed {
  std::size_t state = 0x9e3779b97f4a7c15ULL;
  void mix(std::size_t h) { state ^= h + 0x9e3779b97f4a7c15ULL + (state << 6) + (state >> 2); }

  void operator()(bool v) { mix(v ? 1 : 2); }
  void operator()(std::int64_t v) { mix(std::hash<std::int64_t>{}(v)); }
  void operator()(double v) { mix(std::hash<std::uint64_t>{}(std::bit_cast<std::uint64_t>(v == 0.0 ? 0.0 : v))); }
  void operator()(const std::string& v) { mix(std::hash<std::string>{}(v)); }
  template <typename T>
  void operator()(const std::optional<T>& v) {
    mix(v ? 3 : 4);
    if (v) (*this)(*v);
  }
  void operator()(const NodeList& v) { (*this)(v.vector()); }
  template <typename T>
  void operator()(const std::vector<T>& v) {
    mix(v.size());
    for (const auto& e : v) (*this)(e);
  }
  template <typename... T>
  void operator()(const std::variant<T...>& v) {
    mix(v.index());
    std::visit([&](const auto& x) { (*this)(x); }, v);
  }
  template <typename T>
  auto operator()(const T& record) -> decltype(hashValue(record), void()) {
    mix(hashValue(record));
  }
  void operator()(std::uint8_t v) { mix(v); }
};

template <typename... Fields>
std::size_t hashAll(const Fields&... fields) {
  Feed feed;
  (feed(fields), ...);
  return feed.state;
}

}  // namespace

std::size_t hashValue(const Rect& v) { return hashAll(v.x, v.y, v.width, v.height); }
std::size_t hashValue(const Point& v) { return hashAll(v.x, v.y); }
std::size_t hashValue(const AppInfo& v) { return hashAll(v.pid, v.bundleId, v.name); }
std::size_t hashValue(const RunningApp& v) { return hashAll(v.pid, v.bundleId, v.name, v.active, v.hidden); }
std::size_t hashValue(const AppSelector& v) { return hashAll(v.pid, v.bundleId, v.name); }
std::size_t hashValue(const AxNode& v) {
  return hashAll(v.i, v.uid, v.parent, v.depth, v.role, v.subrole, v.title, v.description, v.value, v.identifier,
                 v.placeholder, v.frame, v.enabled, v.focused, v.help, v.selected, v.expanded, v.shortcut, v.checked,
                 v.menu, v.url, v.details, v.offscreen);
}
std::size_t hashValue(const AxSnapshot& v) {
  return hashAll(v.app, v.pid, v.generation, v.ageMs, v.walkMs, v.dirty, v.truncated, v.held, v.notifications, v.nodes,
                 v.elapsedMs);
}
std::size_t hashValue(const AxMenus& v) { return hashAll(v.app, v.pid, v.nodes); }
std::size_t hashValue(const SnapshotOptions& v) { return hashAll(v.app, v.fresh, v.all, v.timeoutMs, v.maxAgeMs); }
std::size_t hashValue(const ElementRef& v) { return hashAll(v.pid, v.generation, v.i, v.uid, v.menu); }
std::size_t hashValue(const PressResult& v) {
  return hashAll(v.method, v.completed, v.notificationsBefore, v.elapsedMs);
}
std::size_t hashValue(const SettleResult& v) { return hashAll(v.changed, v.settled, v.notifications, v.waitedMs); }
std::size_t hashValue(const SettleOptions& v) { return hashAll(v.pid, v.since, v.quietMs, v.firstMs, v.timeoutMs); }
std::size_t hashValue(const ClickOptions& v) { return hashAll(v.button, v.count); }
std::size_t hashValue(const ScrollDelta& v) { return hashAll(v.dx, v.dy, v.x, v.y); }
std::size_t hashValue(const SetValueResult& v) { return hashAll(v.applied); }
std::size_t hashValue(const QuitResult& v) { return hashAll(v.name, v.pid, v.terminated); }
std::size_t hashValue(const WindowInfo& v) { return hashAll(v.index, v.title, v.main, v.focused, v.minimized); }
std::size_t hashValue(const WindowSelector& v) { return hashAll(v.by); }
std::size_t hashValue(const ReadTextResult& v) { return hashAll(v.text, v.truncated); }
std::size_t hashValue(const InspectResult::Action& v) { return hashAll(v.name, v.description); }
std::size_t hashValue(const InspectResult::Attribute& v) { return hashAll(v.name, v.value, v.settable); }
std::size_t hashValue(const InspectResult& v) { return hashAll(v.actions, v.attributes); }
std::size_t hashValue(const CaptureOptions& v) { return hashAll(v.maxSide, v.format, v.quality, v.pid); }
std::size_t hashValue(const Capture& v) { return hashAll(v.format, v.bytes, v.width, v.height, v.region); }

JSONValue toJSON(const Rect& v) {
  return JSONValue::Object{{"x", v.x}, {"y", v.y}, {"width", v.width}, {"height", v.height}};
}

JSONValue toJSON(const AppInfo& v) {
  return JSONValue::Object{{"pid", v.pid}, {"bundleId", v.bundleId}, {"name", v.name}};
}

JSONValue toJSON(const RunningApp& v) {
  return JSONValue::Object{
      {"pid", v.pid}, {"bundleId", v.bundleId}, {"name", v.name}, {"active", v.active}, {"hidden", v.hidden}};
}

JSONValue toJSON(const AxNode& v) {
  JSONValue::Object o;
  o.reserve(12);
  put(o, "i", v.i);
  putIf(o, "uid", v.uid);
  put(o, "parent", v.parent);
  put(o, "depth", v.depth);
  putIf(o, "role", v.role);
  putIf(o, "subrole", v.subrole);
  putIf(o, "title", v.title);
  putIf(o, "description", v.description);
  putIf(o, "value", v.value);
  putIf(o, "identifier", v.identifier);
  putIf(o, "placeholder", v.placeholder);
  if (v.frame) put(o, "frame", toJSON(*v.frame));
  putIf(o, "enabled", v.enabled);
  putIf(o, "focused", v.focused);
  putIf(o, "help", v.help);
  putIf(o, "selected", v.selected);
  putIf(o, "expanded", v.expanded);
  putIf(o, "shortcut", v.shortcut);
  putIf(o, "checked", v.checked);
  putIf(o, "menu", v.menu);
  putIf(o, "url", v.url);
  putIf(o, "details", v.details);
  putIf(o, "offscreen", v.offscreen);
  return o;
}

JSONValue toJSON(const PressResult& v) {
  return JSONValue::Object{{"method", v.method},
                           {"completed", v.completed},
                           {"notificationsBefore", v.notificationsBefore},
                           {"elapsedMs", v.elapsedMs}};
}

JSONValue toJSON(const SettleResult& v) {
  return JSONValue::Object{
      {"changed", v.changed}, {"settled", v.settled}, {"notifications", v.notifications}, {"waitedMs", v.waitedMs}};
}

JSONValue toJSON(const QuitResult& v) {
  return JSONValue::Object{{"name", v.name}, {"pid", v.pid}, {"terminated", v.terminated}};
}

JSONValue toJSON(const WindowInfo& v) {
  return JSONValue::Object{
      {"index", v.index}, {"title", v.title}, {"main", v.main}, {"focused", v.focused}, {"minimized", v.minimized}};
}

JSONValue toJSON(const ReadTextResult& v) { return JSONValue::Object{{"text", v.text}, {"truncated", v.truncated}}; }

JSONValue toJSON(const InspectResult& v) {
  JSONValue::Array actions, attributes;
  for (const auto& a : v.actions)
    actions.push_back(JSONValue::Object{{"name", a.name}, {"description", a.description}});
  for (const auto& a : v.attributes)
    attributes.push_back(JSONValue::Object{{"name", a.name}, {"value", a.value}, {"settable", a.settable}});
  return JSONValue::Object{{"actions", std::move(actions)}, {"attributes", std::move(attributes)}};
}

AppSelector appSelectorFromJSON(const JSONValue& v) {
  return AppSelector{optionalInt(v, "pid"), optionalString(v, "bundleId"), optionalString(v, "name")};
}

}  // namespace glimmerstrand::core
