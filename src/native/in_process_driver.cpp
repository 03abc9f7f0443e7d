#include "native/in_process_driver.h"

#include <limits>

#include "core/base64.h"
#include "core/errors.h"
#include "native/agent_cursor.h"
#include "native/applications.h"
#include "native/rpc_error.h"
#include "native/run_timings.h"

namespace glimmerstrand::native {

using core::JSONValue;

namespace {

std::string cacheKey(const core::SnapshotOptions& options) {
  const auto& app = options.app;
  return (app.pid ? std::to_string(*app.pid) : "") + "|" + app.bundleId.value_or("") + "|" + app.name.value_or("") +
         "|" + (options.all ? "all" : "labeled");
}

JSONValue object(JSONValue::Object pairs) { return JSONValue(std::move(pairs)); }

JSONValue refParams(const core::ElementRef& ref) { return core::toJSON(ref); }

JSONValue with(JSONValue base, std::string key, JSONValue value) {
  base.asObject()->emplace_back(std::move(key), std::move(value));
  return base;
}

core::AppInfo parseApp(const JSONValue& v) { return core::appInfoFromJSON(v); }

bool boolOr(const JSONValue& v, std::string_view key, bool fallback) {
  auto b = v.find(key);
  return b && b->asBool() ? *b->asBool() : fallback;
}

// Runs `work`, its RPCError leaving as the runner's error with the same code
// and message.
template <typename Work>
void withDriverErrors(Work&& work) {
  try {
    work();
  } catch (const RPCError& e) {
    throw core::GlimmerstrandError(e.code(), e.message());
  }
}

}  // namespace

InProcessDriver::InProcessDriver(const OperationTable& operations, Queues& queues, MirrorHost& host,
                                 AgentCursor* cursor)
    : operations_(operations), queues_(queues), host_(host), cursor_(cursor) {}

JSONValue InProcessDriver::call(const std::string& operation, const JSONValue& params, On queue) {
  auto handler = operations_.find(operation);
  if (!handler) throw core::GlimmerstrandError(core::codes::internal, "no line operation " + operation);
  HandlerResult result;
  TimedWait timed(operation == "waitSettle" ? &RunTimings::settleMs : &RunTimings::applicationMs);
  withDriverErrors([&] {
    if (queue == On::input)
      queues_.input.sync([&] { result = (*handler)(params); });
    else
      result = (*handler)(params);
  });
  if (auto raw = std::get_if<RawJSON>(&result)) return core::parseJSON(raw->text);
  auto& value = std::get<JSONValue>(result);
  return value.asObject() || value.asArray() ? std::move(value) : JSONValue(JSONValue::Object{});
}

core::AxSnapshot InProcessDriver::axSnapshot(const core::SnapshotOptions& options) {
  const auto key = cacheKey(options);
  std::optional<CachedSnapshot> cached;
  {
    std::lock_guard guard(lock_);
    if (auto it = snapshots_.find(key); it != snapshots_.end()) cached = it->second;
  }
  auto& platform = host_.platform();
  const auto started = platform.clock().nowNs();
  core::AxSnapshot out;
  std::shared_ptr<AppMirror> source;
  try {
    // Finding the application asks the desktop, and a copy waits for the
    // mirror's walk when it must be fresh: the application's time.
    TimedWait timed(&RunTimings::applicationMs);
    requireTrust(platform.accessibility());
    auto app = host_.apps().selectApp(core::toJSON(options.app));
    SnapshotRequest request;
    request.fresh = options.fresh;
    request.all = options.all;
    request.timeoutMs = options.timeoutMs.value_or(2000);
    request.maxAgeMs = options.maxAgeMs;
    auto mirror = host_.mirrors().mirror(app.pid);
    // Generations count the walks of one mirror: a cached copy of another
    // (an application that came back, a mirror made anew) says nothing.
    const bool sameMirror = cached && cached->mirror.lock() == mirror;
    if (sameMirror) request.ifGeneration = cached->snapshot.generation;
    auto snapshot = mirror->snapshot(request);
    if (!snapshot.nodes && (!sameMirror || cached->snapshot.generation != snapshot.generation)) {
      // The generation matched by chance for another application (the front
      // one changed, say): read again in full. The cache entry is replaced
      // below.
      request.ifGeneration.reset();
      snapshot = mirror->snapshot(request);
    }
    source = mirror;
    if (!snapshot.nodes) {
      out.nodes = cached->snapshot.nodes;
    } else {
      out.nodes = core::NodeList(snapshot.nodes);
    }
    out.app = appRecord(app);
    out.pid = snapshot.pid;
    out.generation = snapshot.generation;
    out.ageMs = snapshot.ageMs;
    out.walkMs = snapshot.walkMs;
    out.dirty = snapshot.dirty;
    out.truncated = snapshot.truncated;
    out.notifications = snapshot.notifications;
  } catch (const RPCError& e) {
    throw core::GlimmerstrandError(e.code(), e.message());
  }
  out.elapsedMs = static_cast<double>(platform.clock().nowNs() - started) / 1e6;
  std::lock_guard guard(lock_);
  // Copies of mirrors that went (their applications left) go with them.
  std::erase_if(snapshots_, [](const auto& entry) { return entry.second.mirror.expired(); });
  snapshots_[key] = CachedSnapshot{out, source};
  return out;
}

std::pair<std::int64_t, std::int64_t> InProcessDriver::axCounter(const core::AppSelector& app) {
  auto r = call("axCounter", core::toJSON(app));
  return {core::optionalInt(r, "pid").value_or(0), core::optionalInt(r, "notifications").value_or(0)};
}

core::AxMenus InProcessDriver::axMenus(const core::AppSelector& app, std::optional<std::int64_t> maxAgeMs) {
  auto params = core::toJSON(app);
  if (maxAgeMs) params = with(std::move(params), "maxAgeMs", *maxAgeMs);
  return core::axMenusFromJSON(call("axMenus", params));
}

void InProcessDriver::requireAnswering(const core::ElementRef& ref) {
  auto mirror =
      ref.pid >= std::numeric_limits<std::int32_t>::min() && ref.pid <= std::numeric_limits<std::int32_t>::max()
          ? host_.mirrors().existing(static_cast<std::int32_t>(ref.pid))
          : nullptr;
  if (mirror && !mirror->answering())
    throw core::GlimmerstrandError(
        core::codes::timeout, "アプリが応答していないので、操作を送りませんでした: pid " + std::to_string(ref.pid));
}

core::PressResult InProcessDriver::press(const core::ElementRef& ref) {
  requireAnswering(ref);
  pulseAtElement(ref, true);
  auto r = call("press", refParams(ref), On::input);
  return core::PressResult{core::optionalString(r, "method").value_or("press"), boolOr(r, "completed", true),
                           core::optionalInt(r, "notificationsBefore").value_or(0),
                           core::optionalNumber(r, "elapsedMs").value_or(0)};
}

void InProcessDriver::focus(const core::ElementRef& ref) {
  requireAnswering(ref);
  pulseAtElement(ref, false);
  auto r = call("focus", refParams(ref), On::input);
  if (!boolOr(r, "moved", true))
    throw core::GlimmerstrandError(core::codes::focusNotMoved,
                                   "The keyboard focus did not move to this element. Click it with ui.click, then "
                                   "type.");
}

core::SetValueResult InProcessDriver::setValue(const core::ElementRef& ref, const std::string& text) {
  requireAnswering(ref);
  pulseAtElement(ref, true);
  auto r = call("setValue", with(refParams(ref), "text", text), On::input);
  return core::SetValueResult{boolOr(r, "applied", false)};
}

void InProcessDriver::selectAll(const core::ElementRef& ref) { call("selectAll", refParams(ref)); }

core::SettleResult InProcessDriver::waitSettle(const core::SettleOptions& options) {
  auto r = call("waitSettle", core::toJSON(options));
  return core::SettleResult{boolOr(r, "changed", false), boolOr(r, "settled", false),
                            core::optionalInt(r, "notifications").value_or(0),
                            core::optionalNumber(r, "waitedMs").value_or(0)};
}

void InProcessDriver::key(const std::string& keys, std::optional<std::int64_t> pid) {
  JSONValue::Object params{{"key", keys}};
  core::putIf(params, "pid", pid);
  call("key", object(std::move(params)), On::input);
}

bool InProcessDriver::type(const std::string& text, std::optional<std::int64_t> pid) {
  JSONValue::Object params{{"text", text}};
  core::putIf(params, "pid", pid);
  return boolOr(call("type", object(std::move(params)), On::input), "seen", true);
}

void InProcessDriver::click(double x, double y, const core::ClickOptions& options) {
  pulseAt(core::Point{x, y}, true);
  call("click", object({{"x", x}, {"y", y}, {"button", options.button}, {"count", options.count}}), On::input);
}

void InProcessDriver::move(double x, double y) {
  pulseAt(core::Point{x, y}, false);
  call("move", object({{"x", x}, {"y", y}}), On::input);
}

void InProcessDriver::drag(double x1, double y1, double x2, double y2) {
  pulseAt(core::Point{x1, y1}, true);
  pulseAt(core::Point{x2, y2}, false);
  call("drag", object({{"x1", x1}, {"y1", y1}, {"x2", x2}, {"y2", y2}}), On::input);
}

void InProcessDriver::scroll(const core::ScrollDelta& delta) {
  if (delta.x && delta.y) pulseAt(core::Point{*delta.x, *delta.y}, false);
  JSONValue::Object params;
  core::putIf(params, "dx", delta.dx);
  core::putIf(params, "dy", delta.dy);
  core::putIf(params, "x", delta.x);
  core::putIf(params, "y", delta.y);
  call("scroll", object(std::move(params)), On::input);
}

void InProcessDriver::axRefresh(const core::AppSelector& app) { call("axRefresh", core::toJSON(app)); }

core::AppInfo InProcessDriver::frontmost() { return parseApp(call("frontmost", object({}))); }

std::vector<core::RunningApp> InProcessDriver::apps() {
  auto r = call("apps", object({}));
  std::vector<core::RunningApp> out;
  const JSONValue* list = r.asArray() ? &r : r.find("apps");
  if (list && list->asArray())
    for (const auto& a : *list->asArray())
      out.push_back(core::RunningApp{
          core::optionalInt(a, "pid").value_or(0), core::optionalString(a, "bundleId").value_or(""),
          core::optionalString(a, "name").value_or(""), boolOr(a, "active", false), boolOr(a, "hidden", false)});
  return out;
}

core::AppInfo InProcessDriver::launch(const std::string& name) {
  return parseApp(call("launch", object({{"name", name}})));
}

core::QuitResult InProcessDriver::quit(const core::AppSelector& app) {
  auto r = call("quit", core::toJSON(app));
  return core::QuitResult{core::optionalString(r, "name").value_or(""), core::optionalInt(r, "pid").value_or(0),
                          boolOr(r, "terminated", false)};
}

core::AppInfo InProcessDriver::activate(const core::AppSelector& app) {
  return parseApp(call("activate", core::toJSON(app), On::input));
}

std::vector<core::WindowInfo> InProcessDriver::windows(const core::AppSelector& app) {
  auto r = call("windows", core::toJSON(app));
  std::vector<core::WindowInfo> out;
  const JSONValue* list = r.asArray() ? &r : r.find("windows");
  if (list && list->asArray())
    for (const auto& w : *list->asArray())
      out.push_back(core::WindowInfo{core::optionalInt(w, "index").value_or(0),
                                     core::optionalString(w, "title").value_or(""), boolOr(w, "main", false),
                                     boolOr(w, "focused", false), boolOr(w, "minimized", false)});
  return out;
}

std::string InProcessDriver::raiseWindow(const core::AppSelector& app, const core::WindowSelector& window) {
  auto params = core::toJSON(app);
  if (auto index = std::get_if<double>(&window.by))
    params = with(std::move(params), "index", *index);
  else
    params = with(std::move(params), "title", std::get<std::string>(window.by));
  return core::optionalString(call("raiseWindow", params, On::input), "title").value_or("");
}

core::ReadTextResult InProcessDriver::readText(const core::ElementRef& ref) {
  auto r = call("readText", refParams(ref));
  return core::ReadTextResult{core::optionalString(r, "text").value_or(""), boolOr(r, "truncated", false)};
}

core::InspectResult InProcessDriver::inspect(const core::ElementRef& ref) {
  auto r = call("inspect", refParams(ref));
  core::InspectResult out;
  if (auto actions = r.find("actions"); actions && actions->asArray())
    for (const auto& a : *actions->asArray())
      out.actions.push_back(
          {core::optionalString(a, "name").value_or(""), core::optionalString(a, "description").value_or("")});
  if (auto attributes = r.find("attributes"); attributes && attributes->asArray())
    for (const auto& a : *attributes->asArray())
      out.attributes.push_back({core::optionalString(a, "name").value_or(""),
                                core::optionalString(a, "value").value_or(""), boolOr(a, "settable", false)});
  return out;
}

void InProcessDriver::showMenu(const core::ElementRef& ref) {
  requireAnswering(ref);
  pulseAtElement(ref, true);
  call("showMenu", refParams(ref), On::input);
}

std::optional<std::string> InProcessDriver::clipboard() {
  return core::optionalString(call("clipboard", object({})), "text");
}

void InProcessDriver::setClipboard(const std::string& text) { call("setClipboard", object({{"text", text}})); }

void InProcessDriver::copyImage(const std::vector<std::uint8_t>& png) {
  withDriverErrors([&] { native::copyImage(host_.platform(), png); });
}

std::optional<core::AppInfo> InProcessDriver::openURL(const std::string& url) {
  auto r = call("openURL", object({{"url", url}}));
  auto app = r.find("app");
  if (!app || !app->asObject()) return std::nullopt;
  return parseApp(*app);
}

core::Capture InProcessDriver::captureRegion(double x, double y, double width, double height,
                                             const core::CaptureOptions& options) {
  JSONValue::Object params{{"maxSide", options.maxSide},
                           {"format", options.format},
                           {"quality", options.quality},
                           {"x", x},
                           {"y", y},
                           {"width", width},
                           {"height", height}};
  core::putIf(params, "pid", options.pid);
  auto r = call("captureRegion", object(std::move(params)));
  core::Capture capture;
  capture.format = core::optionalString(r, "format").value_or(options.format);
  capture.bytes = core::base64Bytes(core::optionalString(r, "data").value_or("")).value_or(std::vector<std::uint8_t>{});
  capture.width = core::optionalInt(r, "width").value_or(0);
  capture.height = core::optionalInt(r, "height").value_or(0);
  auto region = r.find("region");
  capture.region = (region ? core::rectFromJSON(*region) : std::nullopt).value_or(core::Rect{x, y, width, height});
  return capture;
}

bool InProcessDriver::screenLocked() {
  bool locked = false;
  withDriverErrors([&] { locked = host_.platform().session().isScreenLocked(); });
  return locked;
}

std::optional<core::Point> InProcessDriver::elementPoint(const core::ElementRef& ref) {
  std::vector<core::AxSnapshot> candidates;
  {
    std::lock_guard guard(lock_);
    for (const auto& [key, cached] : snapshots_)
      if (cached.snapshot.pid == ref.pid) candidates.push_back(cached.snapshot);
  }
  for (const auto& snapshot : candidates) {
    const core::AxNode* found = nullptr;
    if (ref.uid)
      for (const auto& n : snapshot.nodes)
        if (n.uid == ref.uid) {
          found = &n;
          break;
        }
    if (!found && snapshot.generation == ref.generation)
      for (const auto& n : snapshot.nodes)
        if (n.i == ref.i) {
          found = &n;
          break;
        }
    if (found && found->frame && found->frame->width > 0 && found->frame->height > 0)
      return core::Point{found->frame->x + found->frame->width / 2, found->frame->y + found->frame->height / 2};
  }
  return std::nullopt;
}

void InProcessDriver::pulseAt(std::optional<core::Point> point, bool click) {
  if (cursor_ && point) cursor_->showPointer(point->x, point->y, click);
}

}  // namespace glimmerstrand::native
