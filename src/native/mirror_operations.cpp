#include "native/mirror_operations.h"

#include "core/errors.h"
#include "native/rpc_error.h"

namespace glimmerstrand::native {

namespace {

using core::JSONValue;

constexpr std::size_t maxEncodedLists = 16;

double millisecondsSince(platform::Clock& clock, std::int64_t start) {
  return static_cast<double>(clock.nowNs() - start) / 1e6;
}

JSONValue axTree(MirrorHost& host, const JSONValue& params) {
  auto& platform = host.platform();
  auto& ax = platform.accessibility();
  const std::int64_t start = platform.clock().nowNs();
  requireTrust(platform.accessibility());
  auto app = host.apps().selectApp(params);
  // A one-shot walk straight to the application, apart from its mirror.
  Element element = ax.applicationElement(app.pid);
  ax.setMessagingTimeout(element, core::optionalNumber(params, "timeoutSeconds").value_or(0.3));
  auto walk = walkTree(ax, element, core::optionalString(params, "scope").value_or("window"),
                       core::optionalInt(params, "maxDepth").value_or(AppMirror::maxDepth),
                       core::optionalInt(params, "maxNodes").value_or(4000));
  JSONValue::Array nodes;
  nodes.reserve(walk.nodes.size());
  for (const auto& node : walk.nodes) nodes.push_back(core::toJSON(node));
  return JSONValue::Object{{"app", core::toJSON(appRecord(app))},
                           {"nodes", std::move(nodes)},
                           {"truncated", walk.truncated},
                           {"elapsedMs", millisecondsSince(platform.clock(), start)}};
}

RawJSON axSnapshot(MirrorHost& host, const JSONValue& params) {
  auto& platform = host.platform();
  const std::int64_t start = platform.clock().nowNs();
  requireTrust(platform.accessibility());
  auto app = host.apps().selectApp(params);
  SnapshotRequest request;
  request.fresh = core::optionalBool(params, "fresh").value_or(false);
  request.ifGeneration = core::optionalInt(params, "ifGeneration");
  request.timeoutMs = core::optionalInt(params, "timeoutMs").value_or(2000);
  request.all = core::optionalBool(params, "all").value_or(false);
  request.maxAgeMs = core::optionalInt(params, "maxAgeMs");
  auto snapshot = host.mirrors().mirror(app.pid)->snapshot(request);

  JSONValue::Object head{{"pid", std::int64_t{snapshot.pid}},
                         {"generation", snapshot.generation},
                         {"ageMs", snapshot.ageMs},
                         {"walkMs", snapshot.walkMs},
                         {"dirty", snapshot.dirty},
                         {"truncated", snapshot.truncated},
                         {"notifications", snapshot.notifications},
                         {"fullWalks", snapshot.fullWalks},
                         {"partialWalks", snapshot.partialWalks},
                         {"partialNodes", snapshot.partialNodes},
                         {"lastWalk", snapshot.lastWalk},
                         {"unregisteredNotifications", snapshot.unregisteredNotifications}};
  std::string text = core::jsonText(head);
  text.pop_back();  // the closing brace: more keys follow
  if (snapshot.nodes) {
    text += ",\"nodes\":";
    text += host.nodesText(snapshot.nodes);
  }
  text += ",\"app\":";
  core::appendJSONText(text, core::toJSON(appRecord(app)));
  text += ",\"elapsedMs\":";
  core::appendJSONText(text, millisecondsSince(platform.clock(), start));
  text += '}';
  return RawJSON{std::move(text)};
}

JSONValue axRefresh(MirrorHost& host, const JSONValue& params) {
  requireTrust(host.platform().accessibility());
  auto app = host.apps().selectApp(params);
  host.mirrors().mirror(app.pid)->requestUrgentWalk();
  return JSONValue::Object{{"pid", std::int64_t{app.pid}}};
}

JSONValue axCounter(MirrorHost& host, const JSONValue& params) {
  requireTrust(host.platform().accessibility());
  auto app = host.apps().selectApp(params);
  auto count = host.mirrors().mirror(app.pid)->notificationCount();
  return JSONValue::Object{{"pid", std::int64_t{app.pid}}, {"notifications", count}};
}

JSONValue waitSettle(MirrorHost& host, const JSONValue& params) {
  requireTrust(host.platform().accessibility());
  auto pid = params.find("pid");
  std::shared_ptr<AppMirror> mirror;
  if (pid && pid->asNumber()) {
    double value = *pid->asNumber();
    if (value >= INT32_MIN && value <= INT32_MAX) mirror = host.mirrors().existing(static_cast<std::int32_t>(value));
  }
  if (!mirror) throw RPCError("invalid_argument", "写しのある pid が必要です");
  auto result = mirror->waitSettle(
      core::optionalInt(params, "since"), core::optionalInt(params, "quietMs").value_or(40),
      core::optionalInt(params, "firstMs").value_or(250), core::optionalInt(params, "timeoutMs").value_or(1500));
  return core::toJSON(result);
}

JSONValue elementAt(MirrorHost& host, const JSONValue& params) {
  auto& platform = host.platform();
  requireTrust(platform.accessibility());
  double x = requiredNumber("x", params);
  double y = requiredNumber("y", params);
  auto& ax = platform.accessibility();
  auto hit = ax.elementAt(x, y);
  if (!hit.ok() || hit.value.isNull()) throw RPCError("not_found", "その位置に要素がありません");
  auto pid = ax.pidOf(hit.value);
  if (!pid.ok()) throw RPCError("not_found", "その位置に要素がありません");
  auto role = cleanText(ax.copy(hit.value, "AXRole"), 120).value_or("");
  host.mirrors().mirror(pid.value);
  return JSONValue::Object{{"pid", std::int64_t{pid.value}}, {"role", role}};
}

JSONValue frontmost(MirrorHost& host) { return core::toJSON(appRecord(host.apps().frontmost())); }

}  // namespace

MirrorHost::MirrorHost(platform::Platform* platform, std::string problem) : problem_(std::move(problem)) {
  if (platform) adopt(*platform);
}

MirrorHost::MirrorHost(FindPlatform find) : find_(std::move(find)) {
  std::string problem;
  if (auto* platform = find_(problem)) adopt(*platform);
}

void MirrorHost::adopt(platform::Platform& platform) {
  bool observe = false;
  {
    std::lock_guard guard(adoptLock_);
    if (platform_.load(std::memory_order_relaxed)) return;
    const MirrorEnvironment environment{platform.accessibility(), platform.clock()};
    mirrors_ = std::make_unique<Mirrors>(environment, platform.workspace());
    apps_ = std::make_unique<AppLookup>(platform.workspace());
    menus_ = std::make_unique<MenuCache>(environment);
    platform_.store(&platform, std::memory_order_release);
    observe = observing_;
  }
  if (observe) mirrors_->startObserving();
}

platform::Platform& MirrorHost::platform() {
  if (auto* platform = platform_.load(std::memory_order_acquire)) return *platform;
  std::string problem = problem_;
  if (find_) {
    if (auto* found = find_(problem)) {
      adopt(*found);
      return *platform_.load(std::memory_order_acquire);
    }
  }
  throw RPCError(core::codes::noDesktop, problem);
}

Mirrors& MirrorHost::mirrors() {
  platform();
  return *mirrors_;
}

AppLookup& MirrorHost::apps() {
  platform();
  return *apps_;
}

MenuCache& MirrorHost::menus() {
  platform();
  return *menus_;
}

void MirrorHost::startObserving() {
  {
    std::lock_guard guard(adoptLock_);
    observing_ = true;
    if (!platform_.load(std::memory_order_relaxed)) return;  // adopt starts it
  }
  mirrors_->startObserving();
}

platform::OverlayPainter* MirrorHost::LatePainter::painter() const {
  auto* platform = host_.platform_.load(std::memory_order_acquire);
  return platform ? &platform->overlay() : nullptr;
}

platform::OverlayPainter::PanelId MirrorHost::LatePainter::createPanel(platform::AxSize size,
                                                                       platform::CursorShape shape,
                                                                       std::uint32_t colour) {
  auto* painter = this->painter();
  return painter ? painter->createPanel(size, shape, colour) : 0;
}

void MirrorHost::LatePainter::move(PanelId panel, platform::AxPoint origin, std::int64_t durationMs) {
  if (auto* painter = this->painter()) painter->move(panel, origin, durationMs);
}

void MirrorHost::LatePainter::close(PanelId panel) {
  if (auto* painter = this->painter()) painter->close(panel);
}

void MirrorHost::LatePainter::setAlpha(PanelId panel, double alpha, std::int64_t durationMs) {
  if (auto* painter = this->painter()) painter->setAlpha(panel, alpha, durationMs);
}

void MirrorHost::LatePainter::pulse(PanelId panel, double scale, std::int64_t durationMs) {
  if (auto* painter = this->painter()) painter->pulse(panel, scale, durationMs);
}

std::string MirrorHost::nodesText(const NodeList& nodes) {
  {
    std::lock_guard guard(cacheLock_);
    for (const auto& entry : encoded_)
      if (entry.list.lock() == nodes) return *entry.text;
  }
  std::string text = "[";
  for (std::size_t n = 0; n < nodes->size(); ++n) {
    if (n) text += ',';
    core::appendJSONText(text, core::toJSON((*nodes)[n]));
  }
  text += ']';
  auto shared = std::make_shared<const std::string>(std::move(text));
  std::lock_guard guard(cacheLock_);
  std::erase_if(encoded_, [](const Encoded& entry) { return entry.list.expired(); });
  if (encoded_.size() >= maxEncodedLists) encoded_.erase(encoded_.begin());
  encoded_.push_back(Encoded{nodes, shared});
  return *shared;
}

void addMirrorOperations(OperationTable& table, MirrorHost& host) {
  table.add("axTree", [&host](const JSONValue& params) -> HandlerResult { return axTree(host, params); });
  table.add("axSnapshot", [&host](const JSONValue& params) -> HandlerResult { return axSnapshot(host, params); });
  table.add("axRefresh", [&host](const JSONValue& params) -> HandlerResult { return axRefresh(host, params); });
  table.add("axCounter", [&host](const JSONValue& params) -> HandlerResult { return axCounter(host, params); });
  table.add("waitSettle", [&host](const JSONValue& params) -> HandlerResult { return waitSettle(host, params); });
  table.add("elementAt", [&host](const JSONValue& params) -> HandlerResult { return elementAt(host, params); });
  table.add("frontmost", [&host](const JSONValue&) -> HandlerResult { return frontmost(host); });
}

void addMenuOperations(OperationTable& table, MirrorHost& host) {
  table.add("axMenus", [&host](const JSONValue& params) -> HandlerResult {
    auto& platform = host.platform();
    auto& clock = platform.clock();
    const std::int64_t start = clock.nowNs();
    requireTrust(platform.accessibility());
    auto app = host.apps().selectApp(params);
    auto entry = host.menus().entry(app.pid, core::optionalInt(params, "maxAgeMs").value_or(3000));
    JSONValue::Array nodes;
    nodes.reserve(entry->nodes.size());
    for (const auto& node : entry->nodes) nodes.push_back(core::toJSON(node));
    const std::int64_t now = clock.nowNs();
    return JSONValue::Object{{"pid", std::int64_t{app.pid}},
                             {"app", core::toJSON(appRecord(app))},
                             {"nodes", std::move(nodes)},
                             {"truncated", entry->truncated},
                             {"walkMs", entry->walkMs},
                             {"ageMs", static_cast<double>(now - entry->at) / 1e6},
                             {"elapsedMs", static_cast<double>(now - start) / 1e6}};
  });
}

}  // namespace glimmerstrand::native
