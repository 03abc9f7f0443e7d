#include "platform/wayland/wayland_windows.h"

#include <sys/socket.h>
#include <unistd.h>
#include <wayland-client.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <climits>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "platform/wayland/sway_ipc.h"
#include "wlr-foreign-toplevel-management-unstable-v1-client.h"

namespace glimmerstrand::platform::wayland_desktop {

namespace {

using SteadyClock = std::chrono::steady_clock;
// How long a read of sway's tree stands for the places of windows.
constexpr auto treeLife = std::chrono::milliseconds(100);
// How soon after a read a window not found in it is looked for again.
constexpr auto missLife = std::chrono::milliseconds(20);
constexpr auto swayLimit = std::chrono::milliseconds(1000);
// How long a focus we asked for stands before the compositor tells it: its
// state events come when it is idle, after requests that may follow ours.
constexpr auto expectedLife = std::chrono::milliseconds(500);

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

std::string executableOf(std::int32_t pid) {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error).filename().string();
}

// sway's criteria quote their values; a window's pid needs none.
std::string pidCriteria(std::int32_t pid) { return "[pid=" + std::to_string(pid) + "] "; }

}  // namespace

std::int32_t pidForAppId(const std::string& appId, const std::vector<PidCandidate>& candidates) {
  if (appId.empty()) return 0;
  const std::string whole = lowered(appId);
  const std::string last = whole.substr(whole.rfind('.') == std::string::npos ? 0 : whole.rfind('.') + 1);
  std::set<std::int32_t> found;
  for (const auto& c : candidates) {
    const std::string executable = lowered(c.executable), name = lowered(c.name);
    if (executable == whole || name == whole || (!last.empty() && (executable == last || name == last)))
      found.insert(c.pid);
  }
  return found.size() == 1 ? *found.begin() : 0;
}

std::vector<FrameChange> frameChanges(const std::vector<SwayView>& before, const std::vector<SwayView>& after) {
  std::vector<FrameChange> changes;
  for (const auto& now : after) {
    auto was = std::find_if(before.begin(), before.end(), [&](const SwayView& v) { return v.id == now.id; });
    if (was == before.end() || was->frame == now.frame) {
      if (was == before.end()) changes.push_back({now.pid, true});
      continue;
    }
    changes.push_back({now.pid, was->frame.width != now.frame.width || was->frame.height != now.frame.height});
  }
  return changes;
}

struct WaylandWindows::State {
  State(WaylandClient& c, RunLoop& l, linux_desktop::AtspiAccessibility& a) : client(c), loop(l), ax(a) {}

  struct Handle {
    State* state = nullptr;
    zwlr_foreign_toplevel_handle_v1* proxy = nullptr;
    Toplevel shown;                 // as of the last `done`
    Toplevel pending;               // what came since
    std::uint64_t activatedAt = 0;  // when it last took the focus, in activations counted
  };

  WaylandClient& client;
  RunLoop& loop;
  linux_desktop::AtspiAccessibility& ax;
  zwlr_foreign_toplevel_manager_v1* manager = nullptr;
  std::optional<std::string> sway;  // the IPC socket, where sway answers

  std::mutex lock;  // guards everything below
  std::vector<std::unique_ptr<Handle>> handles;
  std::uint64_t nextId = 1;
  std::uint64_t activations = 0;
  std::vector<std::function<void(std::int32_t)>> callbacks;
  std::set<std::int32_t> hidden;
  std::vector<SwayView> views;
  SteadyClock::time_point viewsAt{};
  std::optional<std::int32_t> lastActivePid;  // main run loop only
  int events = -1;                            // the geometry watch's subscription to sway, shut down with the windows
  std::thread watch;
  std::optional<std::uint64_t> expected;  // the toplevel we gave the focus, until the compositor tells it
  SteadyClock::time_point expectedAt{};

  // REQUIRES: lock held. The toplevel with the focus: the one we gave it
  // last, until the compositor has told it, else the one it says is active.
  Handle* active() {
    if (expected && SteadyClock::now() - expectedAt < expectedLife)
      if (auto* h = find(*expected)) return h;
    for (auto& h : handles)
      if (h->shown.activated) return h.get();
    return nullptr;
  }

  // REQUIRES: lock held.
  void expect(std::uint64_t id) {
    expected = id;
    expectedAt = SteadyClock::now();
  }

  Handle* find(std::uint64_t id) {
    for (auto& h : handles)
      if (h->shown.id == id) return h.get();
    return nullptr;
  }

  // sway's windows, read again when the last read is older than `life`.
  std::vector<SwayView> swayViews(std::chrono::milliseconds life) {
    if (!sway) return {};
    {
      std::lock_guard guard(lock);
      if (SteadyClock::now() - viewsAt < life) return views;
    }
    auto tree = swayRequest(*sway, 4, "", swayLimit);
    if (!tree) return {};
    auto read = parseSwayTree(*tree);
    std::lock_guard guard(lock);
    views = read;
    viewsAt = SteadyClock::now();
    return read;
  }

  // Gives each toplevel without a pid one: from sway's windows, matched by
  // app id and title, else from the applications on the accessibility bus.
  void resolvePids() {
    std::vector<std::pair<std::string, std::string>> unknown;  // app id, title
    {
      std::lock_guard guard(lock);
      for (const auto& h : handles)
        if (!h->shown.pid) unknown.emplace_back(h->shown.appId, h->shown.title);
    }
    if (unknown.empty()) return;
    std::vector<SwayView> found = swayViews(missLife);
    std::vector<PidCandidate> candidates;
    if (found.empty())
      for (const auto& app : ax.applications()) candidates.push_back({app.pid, executableOf(app.pid), app.name});
    std::lock_guard guard(lock);
    for (auto& h : handles) {
      if (h->shown.pid) continue;
      std::int32_t pid = 0;
      int sameApp = 0;
      std::int32_t onlyApp = 0;
      for (const auto& v : found) {
        if (v.appId != h->shown.appId) continue;
        if (v.title == h->shown.title) pid = v.pid;
        ++sameApp;
        onlyApp = v.pid;
      }
      if (!pid && sameApp == 1) pid = onlyApp;
      if (!pid && found.empty()) pid = pidForAppId(h->shown.appId, candidates);
      h->shown.pid = h->pending.pid = pid;
    }
  }

  std::vector<Handle*> handlesOf(std::int32_t pid) {
    std::vector<Handle*> out;
    for (auto& h : handles)
      if (h->shown.pid == pid) out.push_back(h.get());
    return out;
  }

  // The window of `pid` a person would expect in front: the one that has
  // the focus, else the one that had it last.
  Handle* mainHandleOf(std::int32_t pid) {
    Handle* best = nullptr;
    for (auto* h : handlesOf(pid))
      if (!best || h->shown.activated || (!best->shown.activated && h->activatedAt > best->activatedAt)) best = h;
    return best;
  }

  void tellActivation(std::uint64_t id) {
    // On the main run loop, where callbacks run; the pid may need sway.
    loop.post([this, id] {
      resolvePids();
      std::optional<std::int32_t> pid;
      std::vector<std::function<void(std::int32_t)>> told;
      {
        std::lock_guard guard(lock);
        if (auto* h = find(id); h && h->shown.pid) pid = h->shown.pid;
        told = callbacks;
      }
      if (!pid || pid == lastActivePid) return;
      lastActivePid = pid;
      for (const auto& callback : told) callback(*pid);
    });
  }
};

namespace {

using Handle = WaylandWindows::State::Handle;

void onTitle(void* data, zwlr_foreign_toplevel_handle_v1*, const char* title) {
  auto* h = static_cast<Handle*>(data);
  std::lock_guard guard(h->state->lock);
  h->pending.title = title;
}

void onAppId(void* data, zwlr_foreign_toplevel_handle_v1*, const char* appId) {
  auto* h = static_cast<Handle*>(data);
  std::lock_guard guard(h->state->lock);
  h->pending.appId = appId;
}

void onOutput(void*, zwlr_foreign_toplevel_handle_v1*, wl_output*) {}

void onState(void* data, zwlr_foreign_toplevel_handle_v1*, wl_array* states) {
  auto* h = static_cast<Handle*>(data);
  std::lock_guard guard(h->state->lock);
  h->pending.activated = h->pending.minimized = false;
  const auto* state = static_cast<const std::uint32_t*>(states->data);
  for (std::size_t k = 0; k < states->size / sizeof(std::uint32_t); ++k) {
    if (state[k] == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_ACTIVATED) h->pending.activated = true;
    if (state[k] == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_MINIMIZED) h->pending.minimized = true;
  }
}

void onDone(void* data, zwlr_foreign_toplevel_handle_v1*) {
  auto* h = static_cast<Handle*>(data);
  bool activated = false;
  {
    std::lock_guard guard(h->state->lock);
    // A new title or app id may name another application's window.
    if (h->pending.appId != h->shown.appId) h->pending.pid = 0;
    activated = h->pending.activated && !h->shown.activated;
    if (activated) h->activatedAt = ++h->state->activations;
    if (h->pending.activated && h->state->expected == h->pending.id) h->state->expected.reset();
    h->shown = h->pending;
  }
  if (activated) h->state->tellActivation(h->shown.id);
}

void onClosed(void* data, zwlr_foreign_toplevel_handle_v1* proxy) {
  auto* h = static_cast<Handle*>(data);
  auto* state = h->state;
  zwlr_foreign_toplevel_handle_v1_destroy(proxy);
  std::lock_guard guard(state->lock);
  std::erase_if(state->handles, [h](const auto& kept) { return kept.get() == h; });
}

void onParent(void*, zwlr_foreign_toplevel_handle_v1*, zwlr_foreign_toplevel_handle_v1*) {}

const zwlr_foreign_toplevel_handle_v1_listener handleListener{onTitle, onAppId, onOutput, onOutput,
                                                              onState, onDone,  onClosed, onParent};

void onToplevel(void* data, zwlr_foreign_toplevel_manager_v1*, zwlr_foreign_toplevel_handle_v1* proxy) {
  auto* state = static_cast<WaylandWindows::State*>(data);
  auto handle = std::make_unique<Handle>();
  handle->state = state;
  handle->proxy = proxy;
  zwlr_foreign_toplevel_handle_v1_add_listener(proxy, &handleListener, handle.get());
  std::lock_guard guard(state->lock);
  handle->shown.id = handle->pending.id = state->nextId++;
  state->handles.push_back(std::move(handle));
}

void onFinished(void*, zwlr_foreign_toplevel_manager_v1*) {}

const zwlr_foreign_toplevel_manager_v1_listener managerListener{onToplevel, onFinished};

}  // namespace

WaylandWindows::WaylandWindows(WaylandClient& client, RunLoop& mainLoop,
                               linux_desktop::AtspiAccessibility& accessibility)
    : s_(std::make_shared<State>(client, mainLoop, accessibility)) {
  if (auto socket = swaySocket(); socket && swayVersion(*socket)) s_->sway = socket;
  {
    auto guard = client.wire();
    s_->manager =
        static_cast<zwlr_foreign_toplevel_manager_v1*>(client.bind(&zwlr_foreign_toplevel_manager_v1_interface, 3));
    if (s_->manager) zwlr_foreign_toplevel_manager_v1_add_listener(s_->manager, &managerListener, s_.get());
    client.flush();
  }
  // The windows that are there already.
  if (s_->manager) client.settle(std::chrono::seconds(2));
}

WaylandWindows::~WaylandWindows() {
  if (s_->events >= 0) ::shutdown(s_->events, SHUT_RDWR);
  if (s_->watch.joinable()) s_->watch.join();
  if (s_->events >= 0) ::close(s_->events);
  auto guard = s_->client.wire();
  std::lock_guard state(s_->lock);
  for (auto& h : s_->handles) zwlr_foreign_toplevel_handle_v1_destroy(h->proxy);
  s_->handles.clear();
  if (s_->manager) zwlr_foreign_toplevel_manager_v1_destroy(s_->manager);
  s_->client.flush();
}

bool WaylandWindows::listsWindows() const { return s_->manager != nullptr; }
bool WaylandWindows::knowsPlaces() const { return s_->sway.has_value(); }

std::vector<Toplevel> WaylandWindows::toplevels() {
  s_->resolvePids();
  std::lock_guard guard(s_->lock);
  std::vector<Toplevel> out;
  for (const auto& h : s_->handles) out.push_back(h->shown);
  return out;
}

std::vector<linux_desktop::ShownWindow> WaylandWindows::shownWindows() {
  std::vector<linux_desktop::ShownWindow> shown;
  for (const auto& t : toplevels())
    if (!t.minimized) shown.push_back(linux_desktop::ShownWindow{t.id, t.pid, t.title});
  return shown;
}

std::optional<std::int32_t> WaylandWindows::frontPid() {
  if (!s_->manager) {
    for (const auto& v : s_->swayViews(treeLife))
      if (v.focused) return v.pid;
    return std::nullopt;
  }
  s_->resolvePids();
  std::lock_guard guard(s_->lock);
  if (auto* h = s_->active(); h && h->shown.pid) return h->shown.pid;
  return std::nullopt;
}

bool WaylandWindows::watchActivation(std::function<void(std::int32_t pid)> callback) {
  if (!s_->manager) return false;
  std::lock_guard guard(s_->lock);
  s_->callbacks.push_back(std::move(callback));
  return true;
}

std::optional<std::uint64_t> WaylandWindows::activeToplevel() {
  std::lock_guard guard(s_->lock);
  if (auto* h = s_->active()) return h->shown.id;
  return std::nullopt;
}

std::optional<std::uint64_t> WaylandWindows::focus(std::int32_t pid) {
  s_->resolvePids();
  auto wire = s_->client.wire();
  std::lock_guard guard(s_->lock);
  auto* h = s_->mainHandleOf(pid);
  // Its window has the focus already.
  if (h && h == s_->active()) return h->shown.id;
  if (!h || !s_->client.globals().seat) return std::nullopt;
  if (h->shown.minimized) zwlr_foreign_toplevel_handle_v1_unset_minimized(h->proxy);
  zwlr_foreign_toplevel_handle_v1_activate(h->proxy, s_->client.globals().seat);
  s_->client.flush();
  s_->expect(h->shown.id);
  return h->shown.id;
}

void WaylandWindows::focusToplevel(std::uint64_t id) {
  auto wire = s_->client.wire();
  std::lock_guard guard(s_->lock);
  auto* h = s_->find(id);
  if (!h || !s_->client.globals().seat) return;
  zwlr_foreign_toplevel_handle_v1_activate(h->proxy, s_->client.globals().seat);
  s_->client.flush();
  s_->expect(id);
}

bool WaylandWindows::activate(std::int32_t pid) {
  if (s_->manager) {
    if (!focus(pid)) return false;
  } else if (!s_->sway || !swayRequest(*s_->sway, 0, pidCriteria(pid) + "focus", swayLimit)) {
    return false;
  }
  std::lock_guard guard(s_->lock);
  s_->hidden.erase(pid);
  return true;
}

// sway has no minimised windows: it hides them in its scratchpad. Elsewhere
// the compositor minimises them.
bool WaylandWindows::hide(std::int32_t pid) {
  bool any = false;
  if (s_->sway) {
    any = swayRequest(*s_->sway, 0, pidCriteria(pid) + "move scratchpad", swayLimit).has_value();
  } else if (s_->manager) {
    s_->resolvePids();
    auto wire = s_->client.wire();
    std::lock_guard guard(s_->lock);
    for (auto* h : s_->handlesOf(pid)) {
      zwlr_foreign_toplevel_handle_v1_set_minimized(h->proxy);
      any = true;
    }
    s_->client.flush();
  }
  if (!any) return false;
  std::lock_guard guard(s_->lock);
  s_->hidden.insert(pid);
  return true;
}

bool WaylandWindows::unhide(std::int32_t pid) {
  {
    std::lock_guard guard(s_->lock);
    if (!s_->hidden.count(pid)) return true;
  }
  if (s_->sway) {
    // Out of the scratchpad a window floats; it goes back among the tiles.
    swayRequest(*s_->sway, 0, pidCriteria(pid) + "scratchpad show, " + pidCriteria(pid) + "floating disable",
                swayLimit);
  } else if (s_->manager) {
    auto wire = s_->client.wire();
    std::lock_guard guard(s_->lock);
    for (auto* h : s_->handlesOf(pid)) zwlr_foreign_toplevel_handle_v1_unset_minimized(h->proxy);
    s_->client.flush();
  }
  std::lock_guard guard(s_->lock);
  s_->hidden.erase(pid);
  return true;
}

bool WaylandWindows::isHidden(std::int32_t pid) {
  std::lock_guard guard(s_->lock);
  return s_->hidden.count(pid) > 0;
}

bool WaylandWindows::close(std::int32_t pid) {
  s_->resolvePids();
  auto wire = s_->client.wire();
  std::lock_guard guard(s_->lock);
  bool any = false;
  for (auto* h : s_->handlesOf(pid)) {
    zwlr_foreign_toplevel_handle_v1_close(h->proxy);
    any = true;
  }
  s_->client.flush();
  return any;
}

bool WaylandWindows::watchGeometry(std::function<void(std::int32_t pid, bool resized)> callback) {
  if (!s_->sway) return false;
  s_->events = swaySubscribe(*s_->sway, R"(["window","workspace"])");
  if (s_->events < 0) return false;
  s_->watch = std::thread([s = s_.get(), callback = std::move(callback)] {
    auto tree = [s] { return parseSwayTree(swayRequest(*s->sway, 4, "", swayLimit).value_or("")); };
    auto last = tree();
    // Each event, or a burst of them, then the tree as it stands after.
    while (swayEvent(s->events)) {
      auto now = tree();
      for (const auto& change : frameChanges(last, now)) callback(change.pid, change.resized);
      last = std::move(now);
    }
  });
  return true;
}

std::optional<AxPoint> WaylandWindows::origin(std::int32_t pid, std::string_view title) {
  auto pick = [&](const std::vector<SwayView>& views, bool exact) -> std::optional<AxPoint> {
    const SwayView* best = nullptr;
    for (const auto& v : views) {
      if (v.pid != pid) continue;
      if (!title.empty() && v.title == title) return v.surface;
      if (!exact && (!best || (v.focused && !best->focused) || (v.visible && !best->visible))) best = &v;
    }
    if (best) return best->surface;
    return std::nullopt;
  };
  auto views = s_->swayViews(treeLife);
  if (auto found = pick(views, !title.empty())) return found;
  // A window just opened is not in a tree read a moment ago.
  views = s_->swayViews(missLife);
  return pick(views, false);
}

}  // namespace glimmerstrand::platform::wayland_desktop
