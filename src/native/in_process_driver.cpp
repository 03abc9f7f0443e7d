#include "native/in_process_driver.h"

#include <limits>
#include <type_traits>

#include "core/errors.h"
#include "native/agent_cursor.h"
#include "native/applications.h"
#include "native/element_actions.h"
#include "native/held_applications.h"
#include "native/input.h"

namespace glimmerstrand::native {

namespace {

std::string cacheKey(const core::SnapshotOptions& options) {
  const auto& app = options.app;
  return (app.pid ? std::to_string(*app.pid) : "") + "|" + app.bundleId.value_or("") + "|" + app.name.value_or("") +
         "|" + (options.all ? "all" : "labeled");
}

std::optional<std::int32_t> targetPid(std::optional<std::int64_t> pid) {
  if (!pid) return std::nullopt;
  return native::processId(static_cast<double>(*pid));
}

}  // namespace

InProcessDriver::InProcessDriver(Queues& queues, MirrorHost& host, Capturer& capturer, AgentCursor* cursor)
    : queues_(queues), host_(host), capturer_(capturer), cursor_(cursor) {}

template <typename Work>
auto InProcessDriver::here(Work&& work, double RunTimings::*figure) -> decltype(work()) {
  TimedWait timed(figure);
  return work();
}

template <typename Work>
auto InProcessDriver::onInput(Work&& work) -> decltype(work()) {
  TimedWait timed(&RunTimings::applicationMs);
  TimedWait acting(&RunTimings::actionMs);
  using Result = decltype(work());
  if constexpr (std::is_void_v<Result>) {
    queues_.input.sync([&] { work(); });
  } else {
    std::optional<Result> result;
    queues_.input.sync([&] { result.emplace(work()); });
    return std::move(*result);
  }
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
  {
    // Finding the application asks the desktop, and a copy waits for the
    // mirror's walk when it must be fresh: the application's time.
    TimedWait timed(&RunTimings::applicationMs);
    requireTrust(platform.accessibility());
    auto app = host_.apps().selectApp(options.app);
    SnapshotRequest request;
    request.fresh = options.fresh;
    request.all = options.all;
    request.timeoutMs = options.timeoutMs.value_or(2000);
    // An application held inside our press answers no walk until it comes
    // back: its copy as it stands, at once.
    const bool held = HeldApplications::shared().held(platform.accessibility(), app.pid);
    if (held) request.timeoutMs = 0;
    request.maxAgeMs = options.maxAgeMs;
    auto mirror = host_.mirrors().mirror(app.pid);
    // Generations count the walks of one mirror: a cached copy of another
    // (an application that came back, a mirror made anew) says nothing.
    const bool sameMirror = cached && cached->mirror.lock() == mirror;
    if (sameMirror) request.ifGeneration = cached->snapshot.generation;
    auto snapshot = mirror->snapshot(request);
    if (snapshot.unchanged && (!sameMirror || cached->snapshot.generation != snapshot.generation)) {
      // The generation matched by chance for another application (the front
      // one changed, say): read again in full. The cache entry is replaced
      // below.
      request.ifGeneration.reset();
      snapshot = mirror->snapshot(request);
    }
    source = mirror;
    out = snapshot;  // the mirror's copy is core's snapshot, walk counts aside
    if (snapshot.unchanged) out.nodes = cached->snapshot.nodes;
    out.app = appRecord(app);
    out.held = held;
  }
  out.elapsedMs = static_cast<double>(platform.clock().nowNs() - started) / 1e6;
  std::lock_guard guard(lock_);
  // Copies of mirrors that went (their applications left) go with them.
  std::erase_if(snapshots_, [](const auto& entry) { return entry.second.mirror.expired(); });
  snapshots_[key] = CachedSnapshot{out, source};
  return out;
}

std::pair<std::int64_t, std::int64_t> InProcessDriver::axCounter(const core::AppSelector& app) {
  auto count = here([&] { return native::axCounter(host_, app); });
  return {count.pid, count.notifications};
}

core::AxMenus InProcessDriver::axMenus(const core::AppSelector& app, std::optional<std::int64_t> maxAgeMs) {
  return here([&] { return native::axMenus(host_, app, maxAgeMs.value_or(3000)); });
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
  return onInput([&] {
    auto target = resolveElement(host_, ref);
    return native::press(host_.platform(), target);
  });
}

void InProcessDriver::focus(const core::ElementRef& ref) {
  requireAnswering(ref);
  pulseAtElement(ref, false);
  auto report = onInput([&] {
    auto target = resolveElement(host_, ref);
    return native::focus(host_.platform(), target);
  });
  if (!report.moved)
    throw core::GlimmerstrandError(core::codes::focusNotMoved,
                                   "The keyboard focus did not move to this element. Click it with ui.click, then "
                                   "type.");
}

core::SetValueResult InProcessDriver::setValue(const core::ElementRef& ref, const std::string& text) {
  requireAnswering(ref);
  pulseAtElement(ref, true);
  return onInput([&] {
    auto target = resolveElement(host_, ref);
    return native::setValue(host_.platform(), target, text);
  });
}

void InProcessDriver::selectAll(const core::ElementRef& ref) {
  here([&] {
    auto target = resolveElement(host_, ref);
    native::selectAll(host_.platform(), target);
  });
}

core::SettleResult InProcessDriver::waitSettle(const core::SettleOptions& options) {
  return here([&] { return native::waitSettle(host_, options); }, &RunTimings::settleMs);
}

void InProcessDriver::key(const std::string& keys, std::optional<std::int64_t> pid) {
  onInput([&] {
    auto& platform = host_.platform();
    native::key(platform, keys, targetPid(pid));
  });
}

bool InProcessDriver::type(const std::string& text, std::optional<std::int64_t> pid) {
  return onInput([&] {
           auto& platform = host_.platform();
           return native::type(platform, text, targetPid(pid));
         })
      .seen;
}

void InProcessDriver::click(double x, double y, const core::ClickOptions& options) {
  pulseAt(core::Point{x, y}, true);
  ClickRequest request;
  request.at = platform::AxPoint{x, y};
  if (options.button == "right") request.button = platform::MouseButton::right;
  request.count = options.count;
  onInput([&] { native::click(host_.platform(), request); });
}

void InProcessDriver::move(double x, double y) {
  pulseAt(core::Point{x, y}, false);
  onInput([&] { native::move(host_.platform(), platform::AxPoint{x, y}); });
}

void InProcessDriver::drag(double x1, double y1, double x2, double y2) {
  pulseAt(core::Point{x1, y1}, true);
  pulseAt(core::Point{x2, y2}, false);
  onInput([&] { native::drag(host_.platform(), platform::AxPoint{x1, y1}, platform::AxPoint{x2, y2}); });
}

void InProcessDriver::scroll(const core::ScrollDelta& delta) {
  if (delta.x && delta.y) pulseAt(core::Point{*delta.x, *delta.y}, false);
  ScrollRequest request;
  request.dx = delta.dx.value_or(0);
  request.dy = delta.dy.value_or(0);
  if (delta.x && delta.y) request.at = platform::AxPoint{*delta.x, *delta.y};
  onInput([&] {
    auto& platform = host_.platform();
    // A place needs both coordinates.
    if (delta.x && !delta.y) throw core::GlimmerstrandError(core::codes::invalidArgument, "y が必要です");
    native::scroll(platform, request);
  });
}

void InProcessDriver::axRefresh(const core::AppSelector& app) {
  here([&] { native::axRefresh(host_, app); });
}

core::AppInfo InProcessDriver::frontmost() {
  return here([&] { return native::frontmost(host_); });
}

std::vector<core::RunningApp> InProcessDriver::apps() {
  return here([&] { return native::apps(host_.platform()); });
}

core::AppInfo InProcessDriver::launch(const std::string& name) {
  return here([&] {
    auto& platform = host_.platform();
    return native::launch(platform, host_, name);
  });
}

core::QuitResult InProcessDriver::quit(const core::AppSelector& app) {
  return here([&] {
    auto& platform = host_.platform();
    return native::quit(platform, host_, app);
  });
}

core::AppInfo InProcessDriver::activate(const core::AppSelector& app) {
  return onInput([&] {
    auto& platform = host_.platform();
    return native::activate(platform, host_, app);
  });
}

std::vector<core::WindowInfo> InProcessDriver::windows(const core::AppSelector& app) {
  auto reports = here([&] {
    auto& platform = host_.platform();
    return native::windows(platform, host_, app);
  });
  return std::vector<core::WindowInfo>(reports.begin(), reports.end());
}

std::string InProcessDriver::raiseWindow(const core::AppSelector& app, const core::WindowSelector& window) {
  return onInput([&] {
    auto& platform = host_.platform();
    return native::raiseWindow(platform, host_, app, window);
  });
}

core::ReadTextResult InProcessDriver::readText(const core::ElementRef& ref) {
  return here([&] {
    auto target = resolveElement(host_, ref);
    return native::readText(host_.platform(), target);
  });
}

core::InspectResult InProcessDriver::inspect(const core::ElementRef& ref) {
  return here([&] {
    auto target = resolveElement(host_, ref);
    return native::inspect(host_.platform(), target);
  });
}

void InProcessDriver::showMenu(const core::ElementRef& ref) {
  requireAnswering(ref);
  pulseAtElement(ref, true);
  onInput([&] {
    auto target = resolveElement(host_, ref);
    native::showMenu(host_.platform(), target);
  });
}

std::optional<std::string> InProcessDriver::clipboard() {
  return here([&] { return native::clipboard(host_.platform()); });
}

void InProcessDriver::setClipboard(const std::string& text) {
  here([&] { native::setClipboard(host_.platform(), text); });
}

void InProcessDriver::copyImage(const std::vector<std::uint8_t>& png) { native::copyImage(host_.platform(), png); }

std::optional<core::AppInfo> InProcessDriver::openURL(const std::string& url) {
  return here([&] { return native::openURL(host_.platform(), url).app; });
}

core::Capture InProcessDriver::captureRegion(double x, double y, double width, double height,
                                             const core::CaptureOptions& options) {
  RegionRequest request;
  request.area = core::Rect{x, y, width, height};
  request.maxSide = options.maxSide;
  request.format = options.format;
  request.quality = options.quality;
  if (options.pid) request.pid = static_cast<std::int32_t>(*options.pid);
  return here([&] { return capturer_.captureRegion(request); });
}

bool InProcessDriver::screenLocked() { return host_.platform().session().isScreenLocked(); }

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
