#include "fake_driver.h"

#include "cypher/values.h"

namespace glimmerstrand::core::testing {
namespace {

std::string num(double v) { return cypher::numberText(v); }
std::string point(double x, double y) { return num(x) + "," + num(y); }
std::string optionalNum(const std::optional<double>& v) { return v ? num(*v) : "-"; }

// A call's arguments as the tests read them back: keys are the field names;
// an absent optional leaves no key.
JSONValue toJSON(const AppSelector& v) {
  JSONValue::Object o;
  putIf(o, "pid", v.pid);
  putIf(o, "bundleId", v.bundleId);
  putIf(o, "name", v.name);
  return o;
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

JSONValue toJSON(const SettleOptions& v) {
  JSONValue::Object o{{"pid", v.pid}};
  putIf(o, "since", v.since);
  putIf(o, "quietMs", v.quietMs);
  putIf(o, "firstMs", v.firstMs);
  putIf(o, "timeoutMs", v.timeoutMs);
  return o;
}

}  // namespace

AxNode node(std::int64_t i, std::int64_t parent, std::string role, std::optional<std::string> title,
            std::optional<std::string> value) {
  AxNode n;
  n.i = i;
  n.uid = i + 100;
  n.parent = parent;
  n.role = std::move(role);
  n.title = std::move(title);
  n.value = std::move(value);
  return n;
}

void FakeDriver::record(const std::string& name, const std::string& args) {
  {
    std::lock_guard guard(lock_);
    calls.push_back(args.empty() ? name : name + " " + args);
  }
  if (auto failure = failures.find(name); failure != failures.end())
    throw GlimmerstrandError(failure->second, name + " failed");
}

std::vector<std::string> FakeDriver::callNames() const {
  std::vector<std::string> names;
  for (const auto& c : calls) names.push_back(c.substr(0, c.find(' ')));
  return names;
}

AxNode& FakeDriver::byUid(std::int64_t uid) {
  for (auto& n : nodes)
    if (n.uid == uid) return n;
  throw std::logic_error("no node with uid " + std::to_string(uid));
}

AxSnapshot FakeDriver::axSnapshot(const SnapshotOptions& options) {
  record("axSnapshot", jsonText(toJSON(options)));
  if (onSnapshot) onSnapshot(*this);
  if (!running) throw GlimmerstrandError(codes::notFound, "アプリケーションが見つかりません");
  AxSnapshot s;
  s.app = app;
  s.pid = app.pid;
  s.generation = generation;
  s.notifications = counter;
  s.nodes = NodeList(nodes);
  return s;
}

std::pair<std::int64_t, std::int64_t> FakeDriver::axCounter(const AppSelector& selector) {
  record("axCounter", jsonText(toJSON(selector)));
  return {app.pid, counter};
}

AxMenus FakeDriver::axMenus(const AppSelector& selector, std::optional<std::int64_t> maxAgeMs) {
  record("axMenus", jsonText(toJSON(selector)) + " " + std::to_string(maxAgeMs.value_or(-1)));
  return AxMenus{app, app.pid, NodeList(std::vector<AxNode>{})};
}

PressResult FakeDriver::press(const ElementRef& ref) {
  record("press", jsonText(toJSON(ref)));
  if (onPress) onPress(*this, ref);
  return PressResult{"AXPress", true, counter, 1};
}

void FakeDriver::focus(const ElementRef& ref) {
  record("focus", jsonText(toJSON(ref)));
  if (onFocus) onFocus(*this, ref);
}

SetValueResult FakeDriver::setValue(const ElementRef& ref, const std::string& text) {
  record("setValue", jsonText(toJSON(ref)) + " " + jsonString(text));
  return SetValueResult{valueApplied};
}

void FakeDriver::selectAll(const ElementRef& ref) { record("selectAll", jsonText(toJSON(ref))); }

SettleResult FakeDriver::waitSettle(const SettleOptions& options) {
  record("waitSettle", jsonText(toJSON(options)));
  if (onWaitSettle) return onWaitSettle(*this, options);
  return SettleResult{true, true, 1, 5};
}

void FakeDriver::key(const std::string& keys, std::optional<std::int64_t> pid) {
  record("key", jsonString(keys) + " " + std::to_string(pid.value_or(-1)));
}

bool FakeDriver::type(const std::string& text, std::optional<std::int64_t> pid) {
  record("type", jsonString(text) + " " + std::to_string(pid.value_or(-1)));
  return typedSeen;
}

void FakeDriver::click(double x, double y, const ClickOptions& options) {
  record("click", point(x, y) + " " + options.button + " " + std::to_string(options.count));
  if (options.button == "right" && lostRightClicks-- <= 0) openMenu();
}
void FakeDriver::move(double x, double y) { record("move", point(x, y)); }
void FakeDriver::drag(double x1, double y1, double x2, double y2) {
  record("drag", point(x1, y1) + " " + point(x2, y2));
}
void FakeDriver::scroll(const ScrollDelta& delta) {
  record("scroll", "dx=" + optionalNum(delta.dx) + " dy=" + optionalNum(delta.dy) + " at " + optionalNum(delta.x) +
                       "," + optionalNum(delta.y));
}
void FakeDriver::axRefresh(const AppSelector& selector) { record("axRefresh", jsonText(toJSON(selector))); }

AppInfo FakeDriver::frontmost() {
  record("frontmost", "");
  return front;
}

std::vector<RunningApp> FakeDriver::apps() {
  record("apps", "");
  return {RunningApp{app.pid, app.bundleId, app.name, front.pid == app.pid, false}};
}

AppInfo FakeDriver::launch(const std::string& name) {
  record("launch", jsonString(name));
  if (onLaunch) return onLaunch(*this, name);
  running = true;
  return app;
}

QuitResult FakeDriver::quit(const AppSelector& selector) {
  record("quit", jsonText(toJSON(selector)));
  if (quitTerminates) running = false;
  return QuitResult{app.name, app.pid, quitTerminates};
}

AppInfo FakeDriver::activate(const AppSelector& selector) {
  record("activate", jsonText(toJSON(selector)));
  front = app;
  return app;
}

std::vector<WindowInfo> FakeDriver::windows(const AppSelector& selector) {
  record("windows", jsonText(toJSON(selector)));
  return windowList;
}

std::string FakeDriver::raiseWindow(const AppSelector& selector, const WindowSelector& window) {
  const auto* index = std::get_if<double>(&window.by);
  record("raiseWindow", jsonText(toJSON(selector)) + " " +
                            (index ? "index=" + num(*index) : "title=" + jsonString(std::get<std::string>(window.by))));
  return index ? windowList.at(static_cast<std::size_t>(*index) - 1).title : std::get<std::string>(window.by);
}

ReadTextResult FakeDriver::readText(const ElementRef& ref) {
  record("readText", jsonText(toJSON(ref)));
  return readResult;
}

InspectResult FakeDriver::inspect(const ElementRef& ref) {
  record("inspect", jsonText(toJSON(ref)));
  return inspection;
}

void FakeDriver::showMenu(const ElementRef& ref) {
  record("showMenu", jsonText(toJSON(ref)));
  openMenu();
}

void FakeDriver::openMenu() {
  if (menuOpens) nodes.push_back(node(static_cast<std::int64_t>(nodes.size()), 0, "AXMenu", "Context"));
}

std::optional<std::string> FakeDriver::clipboard() {
  record("clipboard", "");
  return clipboardText;
}

void FakeDriver::setClipboard(const std::string& text) {
  record("setClipboard", jsonString(text));
  clipboardText = text;
}
void FakeDriver::copyImage(const std::vector<std::uint8_t>& png) { record("copyImage", std::to_string(png.size())); }

std::optional<AppInfo> FakeDriver::openURL(const std::string& url) {
  record("openURL", jsonString(url));
  if (!urlNamesApp) return std::nullopt;
  return app;
}

Capture FakeDriver::captureRegion(double x, double y, double width, double height, const CaptureOptions& options) {
  record("captureRegion", point(x, y) + " " + point(width, height) + " " + std::to_string(options.maxSide) + " " +
                              options.format + " " + num(options.quality) +
                              " pid=" + std::to_string(options.pid.value_or(-1)));
  return Capture{options.format, captureBytes, 2, 2, Rect{x, y, width, height}};
}

bool FakeDriver::screenLocked() {
  record("screenLocked", "");
  return locked;
}

}  // namespace glimmerstrand::core::testing
