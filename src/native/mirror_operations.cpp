#include "native/mirror_operations.h"

#include <cstdint>

#include "core/errors.h"

namespace glimmerstrand::native {

namespace {

double millisecondsSince(platform::Clock& clock, std::int64_t start) {
  return static_cast<double>(clock.nowNs() - start) / 1e6;
}

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
  throw core::GlimmerstrandError(core::codes::noDesktop, problem);
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

TreeReport axTree(MirrorHost& host, const AppQuery& query, const TreeOptions& options) {
  auto& platform = host.platform();
  auto& ax = platform.accessibility();
  const std::int64_t start = platform.clock().nowNs();
  requireTrust(ax);
  auto app = host.apps().selectApp(query);
  Element element = ax.applicationElement(app.pid);
  ax.setMessagingTimeout(element, options.timeoutSeconds);
  auto walk = walkTree(ax, element, options.scope, options.maxDepth, options.maxNodes);
  return TreeReport{appRecord(app), std::move(walk.nodes), walk.truncated, millisecondsSince(platform.clock(), start)};
}

MirrorSnapshot axSnapshot(MirrorHost& host, const AppQuery& query, const SnapshotRequest& request) {
  auto& platform = host.platform();
  const std::int64_t start = platform.clock().nowNs();
  requireTrust(platform.accessibility());
  auto app = host.apps().selectApp(query);
  auto snapshot = host.mirrors().mirror(app.pid)->snapshot(request);
  snapshot.app = appRecord(app);
  snapshot.elapsedMs = millisecondsSince(platform.clock(), start);
  return snapshot;
}

std::int32_t axRefresh(MirrorHost& host, const AppQuery& query) {
  requireTrust(host.platform().accessibility());
  auto app = host.apps().selectApp(query);
  host.mirrors().mirror(app.pid)->requestUrgentWalk();
  return app.pid;
}

NotificationCount axCounter(MirrorHost& host, const AppQuery& query) {
  requireTrust(host.platform().accessibility());
  auto app = host.apps().selectApp(query);
  return NotificationCount{app.pid, host.mirrors().mirror(app.pid)->notificationCount()};
}

core::SettleResult waitSettle(MirrorHost& host, const core::SettleOptions& options) {
  requireTrust(host.platform().accessibility());
  std::shared_ptr<AppMirror> mirror;
  if (options.pid >= INT32_MIN && options.pid <= INT32_MAX)
    mirror = host.mirrors().existing(static_cast<std::int32_t>(options.pid));
  if (!mirror) throw core::GlimmerstrandError(core::codes::invalidArgument, "写しのある pid が必要です");
  return mirror->waitSettle(options.since, options.quietMs.value_or(40), options.firstMs.value_or(250),
                            options.timeoutMs.value_or(1500));
}

ElementHit elementAt(MirrorHost& host, double x, double y) {
  auto& platform = host.platform();
  auto& ax = platform.accessibility();
  requireTrust(ax);
  auto hit = ax.elementAt(x, y);
  if (!hit.ok() || hit.value.isNull())
    throw core::GlimmerstrandError(core::codes::notFound, "その位置に要素がありません");
  auto pid = ax.pidOf(hit.value);
  if (!pid.ok()) throw core::GlimmerstrandError(core::codes::notFound, "その位置に要素がありません");
  auto role = cleanText(ax.copy(hit.value, "AXRole"), 120).value_or("");
  host.mirrors().mirror(pid.value);
  return ElementHit{pid.value, role};
}

core::AppInfo frontmost(MirrorHost& host) { return appRecord(host.apps().frontmost()); }

MenusReport axMenus(MirrorHost& host, const AppQuery& query, std::int64_t maxAgeMs) {
  auto& platform = host.platform();
  auto& clock = platform.clock();
  const std::int64_t start = clock.nowNs();
  requireTrust(platform.accessibility());
  auto app = host.apps().selectApp(query);
  auto entry = host.menus().entry(app.pid, maxAgeMs);
  const std::int64_t now = clock.nowNs();
  MenusReport report;
  report.app = appRecord(app);
  report.pid = app.pid;
  report.nodes = entry->nodes;
  report.truncated = entry->truncated;
  report.walkMs = entry->walkMs;
  report.ageMs = static_cast<double>(now - entry->at) / 1e6;
  report.elapsedMs = static_cast<double>(now - start) / 1e6;
  return report;
}

ResolvedElement resolveElement(MirrorHost& host, const core::ElementRef& ref) {
  return resolveElement(host.mirrors(), ref, [&host](AppMirror& mirror, std::int64_t uid) {
    return host.menus().elementForMenuUid(mirror.pid(), uid);
  });
}

}  // namespace glimmerstrand::native
