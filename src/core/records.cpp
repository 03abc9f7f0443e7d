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

JSONValue::Array nodesJSON(const NodeList& nodes) {
  JSONValue::Array out;
  out.reserve(nodes.size());
  for (const auto& n : nodes) out.push_back(toJSON(n));
  return out;
}

std::vector<AxNode> nodesFromJSON(const JSONValue* v) {
  std::vector<AxNode> out;
  if (!v || !v->asArray()) return out;
  out.reserve(v->asArray()->size());
  for (const auto& n : *v->asArray()) out.push_back(axNodeFromJSON(n));
  return out;
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
  return hashAll(v.app, v.pid, v.generation, v.ageMs, v.walkMs, v.dirty, v.truncated, v.notifications, v.nodes,
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

JSONValue toJSON(const Point& v) { return JSONValue::Object{{"x", v.x}, {"y", v.y}}; }

JSONValue toJSON(const AppInfo& v) {
  return JSONValue::Object{{"pid", v.pid}, {"bundleId", v.bundleId}, {"name", v.name}};
}

JSONValue toJSON(const RunningApp& v) {
  return JSONValue::Object{
      {"pid", v.pid}, {"bundleId", v.bundleId}, {"name", v.name}, {"active", v.active}, {"hidden", v.hidden}};
}

JSONValue toJSON(const AppSelector& v) {
  JSONValue::Object o;
  putIf(o, "pid", v.pid);
  putIf(o, "bundleId", v.bundleId);
  putIf(o, "name", v.name);
  return o;
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

JSONValue toJSON(const AxSnapshot& v) {
  return JSONValue::Object{{"app", toJSON(v.app)},        {"pid", v.pid},
                           {"generation", v.generation},  {"ageMs", v.ageMs},
                           {"walkMs", v.walkMs},          {"dirty", v.dirty},
                           {"truncated", v.truncated},    {"notifications", v.notifications},
                           {"nodes", nodesJSON(v.nodes)}, {"elapsedMs", v.elapsedMs}};
}

JSONValue toJSON(const AxMenus& v) {
  return JSONValue::Object{{"app", toJSON(v.app)}, {"pid", v.pid}, {"nodes", nodesJSON(v.nodes)}};
}

JSONValue toJSON(const SnapshotOptions& v) {
  JSONValue out = toJSON(v.app);
  auto& o = *out.asObject();
  put(o, "fresh", v.fresh);
  put(o, "all", v.all);
  putIf(o, "timeoutMs", v.timeoutMs);
  putIf(o, "maxAgeMs", v.maxAgeMs);
  return out;
}

JSONValue toJSON(const ElementRef& v) {
  JSONValue::Object o{{"pid", v.pid}, {"generation", v.generation}, {"i", v.i}};
  putIf(o, "uid", v.uid);
  putIf(o, "menu", v.menu);
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

JSONValue toJSON(const SettleOptions& v) {
  JSONValue::Object o{{"pid", v.pid}};
  putIf(o, "since", v.since);
  putIf(o, "quietMs", v.quietMs);
  putIf(o, "firstMs", v.firstMs);
  putIf(o, "timeoutMs", v.timeoutMs);
  return o;
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

std::optional<Rect> rectFromJSON(const JSONValue& v) {
  auto x = optionalNumber(v, "x"), y = optionalNumber(v, "y");
  auto w = optionalNumber(v, "width"), h = optionalNumber(v, "height");
  if (!x || !y || !w || !h) return std::nullopt;
  return Rect{*x, *y, *w, *h};
}

AppInfo appInfoFromJSON(const JSONValue& v) {
  return AppInfo{optionalInt(v, "pid").value_or(0), optionalString(v, "bundleId").value_or(""),
                 optionalString(v, "name").value_or("")};
}

AppSelector appSelectorFromJSON(const JSONValue& v) {
  return AppSelector{optionalInt(v, "pid"), optionalString(v, "bundleId"), optionalString(v, "name")};
}

AxNode axNodeFromJSON(const JSONValue& v) {
  AxNode n;
  n.i = optionalInt(v, "i").value_or(0);
  n.uid = optionalInt(v, "uid");
  n.parent = optionalInt(v, "parent").value_or(-1);
  n.depth = optionalInt(v, "depth").value_or(0);
  n.role = optionalString(v, "role");
  n.subrole = optionalString(v, "subrole");
  n.title = optionalString(v, "title");
  n.description = optionalString(v, "description");
  n.value = optionalString(v, "value");
  n.identifier = optionalString(v, "identifier");
  n.placeholder = optionalString(v, "placeholder");
  if (auto f = v.find("frame")) n.frame = rectFromJSON(*f);
  n.enabled = optionalBool(v, "enabled");
  n.focused = optionalBool(v, "focused");
  n.help = optionalString(v, "help");
  n.selected = optionalBool(v, "selected");
  n.expanded = optionalBool(v, "expanded");
  n.shortcut = optionalString(v, "shortcut");
  n.checked = optionalBool(v, "checked");
  n.menu = optionalBool(v, "menu");
  n.url = optionalString(v, "url");
  n.details = optionalString(v, "details");
  n.offscreen = optionalInt(v, "offscreen");
  return n;
}

AxSnapshot axSnapshotFromJSON(const JSONValue& v) {
  AxSnapshot s;
  if (auto app = v.find("app")) s.app = appInfoFromJSON(*app);
  s.pid = optionalInt(v, "pid").value_or(s.app.pid);
  s.generation = optionalInt(v, "generation").value_or(0);
  s.ageMs = optionalNumber(v, "ageMs").value_or(0);
  s.walkMs = optionalNumber(v, "walkMs").value_or(0);
  s.dirty = optionalBool(v, "dirty").value_or(false);
  s.truncated = optionalBool(v, "truncated").value_or(false);
  s.notifications = optionalInt(v, "notifications").value_or(0);
  s.nodes = nodesFromJSON(v.find("nodes"));
  s.elapsedMs = optionalNumber(v, "elapsedMs").value_or(0);
  return s;
}

AxMenus axMenusFromJSON(const JSONValue& v) {
  AxMenus m;
  if (auto app = v.find("app")) m.app = appInfoFromJSON(*app);
  m.pid = optionalInt(v, "pid").value_or(m.app.pid);
  m.nodes = nodesFromJSON(v.find("nodes"));
  return m;
}

ElementRef elementRefFromJSON(const JSONValue& v) {
  ElementRef r;
  r.pid = optionalInt(v, "pid").value_or(0);
  r.generation = optionalInt(v, "generation").value_or(0);
  r.i = optionalInt(v, "i").value_or(0);
  r.uid = optionalInt(v, "uid");
  if (optionalBool(v, "menu") == true) r.menu = true;
  return r;
}

}  // namespace glimmerstrand::core
