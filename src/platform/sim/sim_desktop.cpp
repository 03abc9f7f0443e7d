#include "platform/sim/sim_desktop.h"

#include <algorithm>
#include <functional>

#include "platform/sim/sim_state.h"

namespace glimmerstrand::platform::sim {

namespace {

std::size_t mix(std::size_t a, std::size_t b) { return a ^ (b + 0x9e3779b97f4a7c15ULL + (a << 6) + (a >> 2)); }

bool truthy(const AxValue& value) {
  if (auto b = value.get<bool>()) return *b;
  if (auto n = value.get<double>()) return *n != 0;
  return false;
}

// The notification a real application posts when this attribute changes, and
// whether it is posted about the parent rather than the element.
struct ChangeNotice {
  const char* name = nullptr;
  bool onParent = false;
};

ChangeNotice noticeFor(std::string_view attribute) {
  if (attribute == "AXValue") return {"AXValueChanged"};
  if (attribute == "AXTitle") return {"AXTitleChanged"};
  if (attribute == "AXExpanded") return {"AXExpandedChanged"};
  if (attribute == "AXSelected") return {"AXSelectedChildrenChanged", true};
  return {};
}

bool contains(const AxRect& r, double x, double y) {
  return x >= r.x && y >= r.y && x < r.x + r.width && y < r.y + r.height;
}

}  // namespace

std::size_t SimElement::hash() const {
  std::size_t which = node == 0 ? std::hash<std::int64_t>{}(-std::int64_t{pid} - 1) : std::hash<std::uint64_t>{}(node);
  return mix(std::hash<const void*>{}(desktop), which);
}

bool SimElement::equals(const ElementImpl& other) const {
  auto* o = dynamic_cast<const SimElement*>(&other);
  return o && o->desktop == desktop && o->node == node && (node != 0 || o->pid == pid);
}

std::string SimElement::describe() const {
  if (node == systemWideNode) return "sim system-wide";
  if (node == 0) return "sim application " + std::to_string(pid);
  return "sim element " + std::to_string(pid) + "/" + std::to_string(node);
}

SimDesktop::State::State(const DesktopSpec& spec, Clock& clock, RunLoop& loop)
    : clock(clock), loop(loop), laterQueue(clock.makeSerialQueue("glimmerstrand.sim.later")) {
  displays = spec.displays;
  applicationDirectories = spec.applicationDirectories;
  if (displays.empty()) displays.push_back(DisplaySpec{});
  trusted = spec.trusted;
  screenRecording = spec.screenRecording;
  for (const auto& app : spec.apps) {
    if (app.running) {
      start(app);
    } else {
      apps[app.pid].spec = app;
    }
  }
  if (frontmost == 0 && !launchOrder.empty()) frontmost = launchOrder.front();
}

App* SimDesktop::State::runningApp(std::int32_t pid) {
  auto it = apps.find(pid);
  return it != apps.end() && it->second.running ? &it->second : nullptr;
}

Node* SimDesktop::State::node(std::uint64_t id) {
  auto it = nodes.find(id);
  return it == nodes.end() ? nullptr : &it->second;
}

Element SimDesktop::State::appHandle(std::int32_t pid) const {
  return Element(std::make_shared<SimElement>(this, pid, 0));
}

Node* SimDesktop::State::keyed(std::int32_t pid, const std::string& key) {
  App* app = runningApp(pid);
  if (!app) return nullptr;
  if (key.empty()) return node(app->node);
  auto it = app->keys.find(key);
  return it == app->keys.end() ? nullptr : node(it->second);
}

AxError SimDesktop::State::resolve(const Element& element, Target& target) {
  auto* handle = element.as<SimElement>();
  if (!handle || handle->desktop != this || handle->node == systemWideNode) return AxError::illegalArgument;
  if (!trusted) return AxError::apiDisabled;
  target.handle = handle;
  target.app = runningApp(handle->pid);
  if (!target.app) return AxError::invalidElement;
  target.node = node(handle->node == 0 ? target.app->node : handle->node);
  if (!target.node || target.node->gone) return AxError::invalidElement;
  return AxError::success;
}

std::int64_t SimDesktop::State::frozenWaitNs(const Target& target) const {
  if (!target.app->frozen) return 0;
  double seconds = target.handle->timeoutSeconds.load();
  if (seconds <= 0) seconds = defaultTimeoutSeconds;
  return static_cast<std::int64_t>(seconds * 1e9);
}

AxList SimDesktop::State::childrenOf(const App& app, const Node& n) const {
  AxList list;
  auto add = [&](std::uint64_t id) {
    if (auto it = nodes.find(id); it != nodes.end()) list.emplace_back(Element(it->second.handle));
  };
  if (n.id == app.node) {
    for (auto id : app.windows) add(id);
    if (app.menuBar) add(app.menuBar);
    for (auto id : app.menus) add(id);
  } else {
    list.reserve(n.children.size());
    for (auto id : n.children) add(id);
  }
  return list;
}

AxValue SimDesktop::State::read(App& app, Node& n, std::string_view name) {
  if (n.failAttributes.count(std::string(name))) return AxError::cannotComplete;
  if (name == "AXRole") return n.role;
  if (name == "AXChildren") return childrenOf(app, n);
  bool isApp = n.id == app.node;
  if (isApp) {
    auto front = [&]() -> AxValue {
      if (app.hidden || app.windows.empty()) return AxError::noValue;
      return handle(*node(app.windows.front()));
    };
    if (name == "AXTitle") return app.spec.name;
    if (name == "AXWindows") {
      AxList windows;
      for (auto id : app.windows) windows.emplace_back(handle(*node(id)));
      return windows;
    }
    if (name == "AXFocusedWindow" || name == "AXMainWindow") return front();
    if (name == "AXMenuBar") return app.menuBar ? AxValue(handle(*node(app.menuBar))) : AxValue(AxError::noValue);
    if (name == "AXFocusedUIElement") {
      Node* focused = node(app.focused);
      return focused ? AxValue(handle(*focused)) : AxValue(AxError::noValue);
    }
    if (name == "AXFrontmost") return frontmost == app.spec.pid;
    if (name == "AXHidden") return app.hidden;
    if (name == "AXManualAccessibility") return app.manualAccessibility;
    if (name == "AXEnhancedUserInterface") return app.enhancedUserInterface;
    return AxError::attributeUnsupported;
  }
  if (name == "AXParent") {
    Node* parent = node(n.parent);
    return parent ? AxValue(handle(*parent)) : AxValue(AxError::noValue);
  }
  if (name == "AXPosition") return n.frame ? AxValue(AxPoint{n.frame->x, n.frame->y}) : AxValue(AxError::noValue);
  if (name == "AXSize") return n.frame ? AxValue(AxSize{n.frame->width, n.frame->height}) : AxValue(AxError::noValue);
  if (name == "AXFrame") return n.frame ? AxValue(*n.frame) : AxValue(AxError::noValue);
  if (name == "AXFocused") return app.focused == n.id;
  if (name == "AXWindow" || name == "AXTopLevelUIElement") {
    for (Node* cur = &n; cur; cur = node(cur->parent))
      if (cur->parent == app.node) return handle(*cur);
    return AxError::noValue;
  }
  if (n.role == "AXWindow") {
    if (name == "AXMain") return !app.windows.empty() && app.windows.front() == n.id;
    if (name == "AXMinimized") return false;
  }
  if (name == "AXValue" && n.ticks) return AxValue(++n.reads);
  auto it = n.attributes.find(std::string(name));
  if (it == n.attributes.end()) return AxError::attributeUnsupported;
  return it->second;
}

std::vector<std::string> SimDesktop::State::namesOf(const App& app, const Node& n) const {
  std::vector<std::string> names{"AXRole", "AXChildren"};
  if (n.id == app.node) {
    for (auto name : {"AXTitle", "AXWindows", "AXFocusedWindow", "AXMainWindow", "AXMenuBar", "AXFocusedUIElement",
                      "AXFrontmost", "AXHidden", "AXManualAccessibility", "AXEnhancedUserInterface"})
      names.push_back(name);
    return names;
  }
  for (auto name : {"AXParent", "AXFocused", "AXWindow", "AXTopLevelUIElement"}) names.push_back(name);
  if (n.frame) names.insert(names.end(), {"AXPosition", "AXSize", "AXFrame"});
  if (n.role == "AXWindow") names.insert(names.end(), {"AXMain", "AXMinimized"});
  std::vector<std::string> own;
  for (const auto& [name, value] : n.attributes) own.push_back(name);
  std::sort(own.begin(), own.end());
  names.insert(names.end(), own.begin(), own.end());
  return names;
}

bool SimDesktop::State::editable(const Node& n) const {
  static const std::set<std::string> roles{"AXTextField", "AXTextArea", "AXComboBox", "AXSearchField"};
  return roles.count(n.role) > 0 || n.settable.count("AXValue") > 0;
}

void SimDesktop::State::start(AppSpec spec) {
  App& app = apps[spec.pid];
  app = App{};
  app.spec = spec;
  app.running = true;
  app.hidden = spec.hidden;
  app.frozen = spec.frozen;
  app.refused.insert(spec.refusedNotifications.begin(), spec.refusedNotifications.end());
  Node root;
  root.id = nextNode++;
  root.pid = spec.pid;
  root.role = "AXApplication";
  root.handle = std::make_shared<SimElement>(this, spec.pid, 0);
  app.node = root.id;
  nodes.emplace(root.id, std::move(root));
  for (const auto& window : spec.windows) app.windows.push_back(build(app, window, app.node));
  if (spec.menuBar) app.menuBar = build(app, *spec.menuBar, app.node);
  for (const auto& menu : spec.menus) app.menus.push_back(build(app, menu, app.node));
  launchOrder.push_back(spec.pid);
  if (spec.frontmost) frontmost = spec.pid;
}

std::uint64_t SimDesktop::State::build(App& app, const ElementSpec& spec, std::uint64_t parent) {
  std::uint64_t id = nextNode++;
  Node& n = nodes[id];
  n.id = id;
  n.pid = app.spec.pid;
  n.parent = parent;
  n.key = spec.key;
  n.role = spec.role;
  for (const auto& [name, value] : spec.attributes) {
    if (name == "AXFocused") {
      if (truthy(value)) app.focused = id;
      continue;
    }
    n.attributes[name] = value;
  }
  n.frame = spec.frame;
  n.actions = spec.actions;
  n.settable.insert(spec.settable.begin(), spec.settable.end());
  n.onPress = spec.onPress;
  n.onReturn = spec.onReturn;
  n.onFocus = spec.onFocus;
  n.onSetValue = spec.onSetValue;
  n.ignoresFocus = spec.ignoresFocus;
  n.failAttributes.insert(spec.failAttributes.begin(), spec.failAttributes.end());
  n.gone = spec.gone;
  n.ticks = spec.ticks;
  n.handle = std::make_shared<SimElement>(this, app.spec.pid, id);
  if (!spec.key.empty()) app.keys[spec.key] = id;
  if (spec.focused) app.focused = id;
  for (const auto& child : spec.children) {
    std::uint64_t childId = build(app, child, id);
    nodes[id].children.push_back(childId);
  }
  return id;
}

void SimDesktop::State::erase(App& app, std::uint64_t id) {
  Node* n = node(id);
  if (!n) return;
  for (auto child : std::vector<std::uint64_t>(n->children)) erase(app, child);
  if (auto it = app.keys.find(n->key); it != app.keys.end() && it->second == id) app.keys.erase(it);
  if (app.focused == id) app.focused = 0;
  nodes.erase(id);
}

void SimDesktop::State::notify(const App& app, const Node& n, const std::string& notification) {
  auto registered = [&](const SimObserver& observer) {
    for (const Node* cur = &n; cur;) {
      if (observer.registrations.count({cur->id, notification})) return true;
      if (cur->id == app.node) break;
      auto it = nodes.find(cur->parent);
      cur = it == nodes.end() ? nullptr : &it->second;
    }
    return false;
  };
  for (auto it = observers.begin(); it != observers.end();) {
    auto observer = it->lock();
    if (!observer || observer->removed) {
      it = observers.erase(it);
      continue;
    }
    if (observer->pid() == app.spec.pid && registered(*observer)) {
      loop.post([weak = std::weak_ptr<SimObserver>(observer), element = handle(n), notification] {
        auto target = weak.lock();
        if (target && !target->removed) target->callback(element, notification);
      });
    }
    ++it;
  }
}

void SimDesktop::State::setAttribute(App& app, Node& n, const std::string& name, const AxValue& value,
                                     std::vector<FollowUp>& followUps) {
  if (name == "AXFocused") {
    if (truthy(value))
      focusNode(app, &n, followUps);
    else if (app.focused == n.id)
      focusNode(app, nullptr, followUps);
    return;
  }
  if (name == "AXPosition" || name == "AXSize") {
    AxRect frame = n.frame.value_or(AxRect{});
    if (auto p = value.get<AxPoint>()) frame.x = p->x, frame.y = p->y;
    if (auto s = value.get<AxSize>()) frame.width = s->width, frame.height = s->height;
    n.frame = frame;
    notify(app, n, name == "AXPosition" ? "AXMoved" : "AXResized");
    return;
  }
  if (name == "AXRole") {
    if (auto text = value.get<std::string>()) n.role = *text;
    return;
  }
  n.attributes[name] = value;
  ChangeNotice notice = noticeFor(name);
  if (!notice.name) return;
  Node* about = notice.onParent ? node(n.parent) : &n;
  if (about) notify(app, *about, notice.name);
}

void SimDesktop::State::focusNode(App& app, Node* n, std::vector<FollowUp>& followUps) {
  std::uint64_t id = n ? n->id : 0;
  if (app.focused == id) return;
  app.focused = id;
  notify(app, n ? *n : *node(app.node), "AXFocusedUIElementChanged");
  if (n && !n->onFocus.empty()) followUps.push_back({app.spec.pid, id, n->onFocus});
}

void SimDesktop::State::addChildren(App& app, Node& parent, const std::vector<ElementSpec>& elements) {
  for (const auto& spec : elements) {
    std::uint64_t id = build(app, spec, parent.id);
    Node& added = *node(id);
    if (parent.id != app.node) {
      parent.children.push_back(id);
      notify(app, added, "AXCreated");
    } else if (spec.role == "AXWindow") {
      app.windows.insert(app.windows.begin(), id);
      notify(app, added, "AXWindowCreated");
      notify(app, added, "AXFocusedWindowChanged");
      notify(app, added, "AXMainWindowChanged");
    } else if (spec.role == "AXMenuBar") {
      if (app.menuBar) erase(app, app.menuBar);
      app.menuBar = id;
      notify(app, added, "AXCreated");
    } else {
      app.menus.push_back(id);
      notify(app, added, "AXMenuOpened");
    }
  }
}

void SimDesktop::State::removeNode(App& app, std::uint64_t id) {
  Node* n = node(id);
  if (!n || id == app.node) return;
  notify(app, *n, "AXUIElementDestroyed");
  bool wasFront = !app.windows.empty() && app.windows.front() == id;
  if (n->parent == app.node) {
    if (std::erase(app.menus, id)) notify(app, *n, "AXMenuClosed");
    std::erase(app.windows, id);
    if (app.menuBar == id) app.menuBar = 0;
  } else if (Node* parent = node(n->parent)) {
    std::erase(parent->children, id);
  }
  erase(app, id);
  if (wasFront && !app.windows.empty()) {
    Node& front = *node(app.windows.front());
    notify(app, front, "AXFocusedWindowChanged");
    notify(app, front, "AXMainWindowChanged");
  }
}

void SimDesktop::State::replaceFrontWindow(App& app, const ElementSpec& window) {
  if (!app.windows.empty()) {
    std::uint64_t old = app.windows.front();
    notify(app, *node(old), "AXUIElementDestroyed");
    app.windows.erase(app.windows.begin());
    erase(app, old);
  }
  std::uint64_t id = build(app, window, app.node);
  app.windows.insert(app.windows.begin(), id);
  Node& added = *node(id);
  notify(app, added, "AXWindowCreated");
  notify(app, added, "AXFocusedWindowChanged");
  notify(app, added, "AXMainWindowChanged");
}

void SimDesktop::State::raiseWindow(App& app, std::uint64_t window) {
  auto it = std::find(app.windows.begin(), app.windows.end(), window);
  if (it == app.windows.end() || it == app.windows.begin()) return;
  app.windows.erase(it);
  app.windows.insert(app.windows.begin(), window);
  notify(app, *node(window), "AXFocusedWindowChanged");
  notify(app, *node(window), "AXMainWindowChanged");
}

RunningApplication SimDesktop::State::record(const App& app) const {
  RunningApplication r;
  r.pid = app.spec.pid;
  r.bundleId = app.spec.bundleId;
  r.name = app.spec.name;
  r.bundlePath =
      app.spec.bundlePath.empty() ? "/usr/share/applications/" + app.spec.bundleId + ".desktop" : app.spec.bundlePath;
  r.regular = app.spec.regular;
  r.hidden = app.hidden;
  r.terminated = app.terminated;
  r.finishedLaunching = app.running;
  return r;
}

void SimDesktop::State::activate(App& app) {
  app.hidden = false;
  if (frontmost == app.spec.pid) return;
  frontmost = app.spec.pid;
  loop.post([callbacks = activationCallbacks, record = record(app)] {
    for (const auto& callback : callbacks) callback(record);
  });
}

void SimDesktop::State::quit(App& app) {
  for (auto id : app.windows) notify(app, *node(id), "AXUIElementDestroyed");
  for (auto id : std::vector<std::uint64_t>(app.windows)) erase(app, id);
  for (auto id : std::vector<std::uint64_t>(app.menus)) erase(app, id);
  if (app.menuBar) erase(app, app.menuBar);
  erase(app, app.node);
  app.windows.clear();
  app.menus.clear();
  app.menuBar = 0;
  app.running = false;
  app.terminated = true;
  std::erase(launchOrder, app.spec.pid);
  if (frontmost == app.spec.pid) {
    frontmost = 0;
    if (!launchOrder.empty()) activate(apps[launchOrder.front()]);
  }
}

void SimDesktop::State::apply(App& app, std::uint64_t self, const Effect& effect, std::vector<FollowUp>& followUps) {
  Node* target = effect.key.empty() ? node(self) : keyed(app.spec.pid, effect.key);
  switch (effect.kind) {
    case Effect::Kind::set:
      if (target) setAttribute(app, *target, effect.attribute, effect.value, followUps);
      break;
    case Effect::Kind::append:
      if (target) {
        auto it = target->attributes.find(effect.attribute);
        std::string text;
        if (it != target->attributes.end())
          if (auto old = it->second.get<std::string>()) text = *old;
        setAttribute(app, *target, effect.attribute, text + effect.text, followUps);
      }
      break;
    case Effect::Kind::toggle:
      if (target) {
        auto it = target->attributes.find(effect.attribute);
        AxValue next = 1;
        if (it != target->attributes.end()) {
          if (auto b = it->second.get<bool>()) next = !*b;
          if (auto n = it->second.get<double>()) next = *n != 0 ? 0 : 1;
        }
        setAttribute(app, *target, effect.attribute, next, followUps);
      }
      break;
    case Effect::Kind::add:
      if (target) addChildren(app, *target, effect.elements);
      break;
    case Effect::Kind::remove:
      if (target) removeNode(app, target->id);
      break;
    case Effect::Kind::replaceWindow:
      if (!effect.elements.empty()) replaceFrontWindow(app, effect.elements.front());
      break;
    case Effect::Kind::quit:
      quit(app);
      break;
    case Effect::Kind::hangMs:
      break;
  }
}

Node* SimDesktop::State::hit(double x, double y, std::int32_t onlyPid) {
  std::function<Node*(std::uint64_t)> deepest = [&](std::uint64_t id) -> Node* {
    Node* n = node(id);
    if (!n) return nullptr;
    bool inside = n->frame && contains(*n->frame, x, y);
    if (n->frame && !inside) return nullptr;
    for (auto it = n->children.rbegin(); it != n->children.rend(); ++it)
      if (Node* found = deepest(*it)) return found;
    return inside ? n : nullptr;
  };
  std::vector<std::int32_t> order;
  if (runningApp(frontmost)) order.push_back(frontmost);
  for (auto pid : launchOrder)
    if (pid != frontmost) order.push_back(pid);
  for (auto pid : order) {
    App& app = apps[pid];
    if (app.hidden || (onlyPid && pid != onlyPid)) continue;
    for (auto id : app.menus)
      if (Node* found = deepest(id)) return found;
    for (auto id : app.windows)
      if (Node* found = deepest(id)) return found;
  }
  return nullptr;
}

void SimDesktop::State::runEffects(const FollowUp& work) {
  for (const auto& effect : work.effects) {
    if (effect.kind == Effect::Kind::hangMs) {
      clock.sleepNs(effect.ms * 1'000'000);
      continue;
    }
    std::vector<FollowUp> more;
    {
      std::lock_guard guard(lock);
      App* app = runningApp(work.pid);
      if (!app) return;
      apply(*app, work.node, effect, more);
    }
    for (const auto& next : more) runEffects(next);
  }
}

void SimDesktop::State::later(std::int64_t ms, std::function<void(State&)> task) {
  if (ms <= 0) {
    task(*this);
    return;
  }
  laterQueue->asyncAfter(ms * 1'000'000, [alive = std::weak_ptr<State*>(self), task = std::move(task)] {
    if (auto state = alive.lock()) task(**state);
  });
}

SimDesktop::SimDesktop(const DesktopSpec& spec, Clock& clock, RunLoop& mainLoop)
    : state_(std::make_unique<State>(spec, clock, mainLoop)),
      accessibility_(makeAccessibility(*state_)),
      workspace_(makeWorkspace(*state_)),
      input_(makeInput(*state_)),
      pasteboard_(makePasteboard(*state_)),
      screen_(makeScreen(*state_)),
      session_(makeSession(*state_)),
      overlay_(makeOverlay(*state_)) {}

SimDesktop::~SimDesktop() = default;

Accessibility& SimDesktop::accessibility() { return *accessibility_; }
Workspace& SimDesktop::workspace() { return *workspace_; }
Input& SimDesktop::input() { return *input_; }
Pasteboard& SimDesktop::pasteboard() { return *pasteboard_; }
Screen& SimDesktop::screen() { return *screen_; }
Session& SimDesktop::session() { return *session_; }
OverlayPainter& SimDesktop::overlay() { return *overlay_; }

void SimDesktop::setAttribute(std::int32_t pid, const std::string& key, const std::string& name, const AxValue& value) {
  std::vector<FollowUp> followUps;
  {
    std::lock_guard guard(state_->lock);
    Node* n = state_->keyed(pid, key);
    if (!n) return;
    state_->setAttribute(*state_->runningApp(pid), *n, name, value, followUps);
  }
  for (const auto& work : followUps) state_->runEffects(work);
}

void SimDesktop::appendText(std::int32_t pid, const std::string& key, const std::string& text) {
  std::vector<FollowUp> followUps;
  std::lock_guard guard(state_->lock);
  if (Node* n = state_->keyed(pid, key))
    state_->apply(*state_->runningApp(pid), n->id, appendEffect("", text), followUps);
}

void SimDesktop::addElements(std::int32_t pid, const std::string& parentKey, const std::vector<ElementSpec>& elements) {
  std::lock_guard guard(state_->lock);
  if (Node* parent = state_->keyed(pid, parentKey)) state_->addChildren(*state_->runningApp(pid), *parent, elements);
}

void SimDesktop::removeElement(std::int32_t pid, const std::string& key) {
  std::lock_guard guard(state_->lock);
  if (Node* n = state_->keyed(pid, key)) state_->removeNode(*state_->runningApp(pid), n->id);
}

void SimDesktop::replaceWindow(std::int32_t pid, const ElementSpec& window) {
  std::lock_guard guard(state_->lock);
  if (App* app = state_->runningApp(pid)) state_->replaceFrontWindow(*app, window);
}

void SimDesktop::focus(std::int32_t pid, const std::string& key) { setAttribute(pid, key, "AXFocused", true); }

AxError SimDesktop::perform(std::int32_t pid, const std::string& key, const std::string& action) {
  Element target = element(pid, key);
  if (!target) return AxError::invalidElement;
  return accessibility_->perform(target, action);
}

void SimDesktop::postNotification(std::int32_t pid, const std::string& key, const std::string& notification) {
  std::lock_guard guard(state_->lock);
  if (Node* n = state_->keyed(pid, key)) state_->notify(*state_->runningApp(pid), *n, notification);
}

void SimDesktop::setFrozen(std::int32_t pid, bool frozen) {
  std::lock_guard guard(state_->lock);
  if (App* app = state_->runningApp(pid)) app->frozen = frozen;
}

void SimDesktop::addApp(const AppSpec& app) {
  std::lock_guard guard(state_->lock);
  if (state_->runningApp(app.pid)) return;
  if (app.running) {
    state_->start(app);
    if (state_->frontmost == 0) state_->frontmost = app.pid;
  } else {
    state_->apps[app.pid].spec = app;
  }
}

void SimDesktop::setTrusted(bool trusted) {
  std::lock_guard guard(state_->lock);
  state_->trusted = trusted;
}

void SimDesktop::setScreenLocked(bool locked) {
  std::lock_guard guard(state_->lock);
  state_->screenLocked = locked;
}

Element SimDesktop::element(std::int32_t pid, const std::string& key) {
  std::lock_guard guard(state_->lock);
  Node* n = state_->keyed(pid, key);
  return n ? state_->handle(*n) : Element();
}

std::optional<AxValue> SimDesktop::attribute(std::int32_t pid, const std::string& key, const std::string& name) {
  std::lock_guard guard(state_->lock);
  Node* n = state_->keyed(pid, key);
  if (!n) return std::nullopt;
  auto it = n->attributes.find(name);
  if (it == n->attributes.end()) return std::nullopt;
  return it->second;
}

std::vector<std::string> SimDesktop::openedURLs() {
  std::lock_guard guard(state_->lock);
  return state_->openedURLs;
}

std::vector<Posted> SimDesktop::posted() {
  std::lock_guard guard(state_->lock);
  return state_->posted;
}

void SimDesktop::clearPosted() {
  std::lock_guard guard(state_->lock);
  state_->posted.clear();
}

}  // namespace glimmerstrand::platform::sim
