// The mirror family of operations over one MirrorHost: axTree, axSnapshot,
// axRefresh, axCounter, waitSettle, elementAt, frontmost and axMenus, each a
// typed function that the driver calls and the line protocol adapts; and the
// turning of an element reference into a live element.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mirror/menu_cache.h"
#include "mirror/mirrors.h"
#include "native/app_lookup.h"
#include "platform/platform.h"

namespace glimmerstrand::native {

/// What the mirror operations hold: the platform (or why there is none), the
/// process's Mirrors, the application lookup and the menu cache. Made once at
/// start; lives for the process.
///
/// The platform may come later than the host: then the first operation that
/// finds it makes the mirrors, the lookup and the menu cache, and starts the
/// watch of activation if it was asked for. `adoptLock_` guards that making
/// and `observing_`; the platform pointer, published last, tells readers the
/// rest is there. It is not held across a call into the platform.
class MirrorHost {
 public:
  /// Gives the platform, or null with why not in `problem`. Asked whenever an
  /// operation needs the platform while there is none; it decides itself how
  /// often it really looks.
  using FindPlatform = std::function<platform::Platform*(std::string& problem)>;

  /// Without a platform, every operation fails "no_desktop"
  /// and `problem` as its message.
  MirrorHost(platform::Platform* platform, std::string problem);
  explicit MirrorHost(FindPlatform find);
  MirrorHost(const MirrorHost&) = delete;
  MirrorHost& operator=(const MirrorHost&) = delete;

  /// Fails "no_desktop" without a platform.
  platform::Platform& platform();
  Mirrors& mirrors();
  AppLookup& apps();
  /// The process's menu bar copies.
  MenuCache& menus();
  /// Watches activation, now or once there is a platform.
  void startObserving();
  /// The platform's painter once there is a platform; until then one that
  /// draws nothing. Main loop only, as every painter.
  platform::OverlayPainter& overlay() { return overlay_; }

 private:
  // Draws with the platform's painter when there is one.
  class LatePainter final : public platform::OverlayPainter {
   public:
    explicit LatePainter(MirrorHost& host) : host_(host) {}
    PanelId createPanel(platform::AxSize size, platform::CursorShape shape, std::uint32_t colour) override;
    void move(PanelId panel, platform::AxPoint origin, std::int64_t durationMs) override;
    void close(PanelId panel) override;
    void setAlpha(PanelId panel, double alpha, std::int64_t durationMs) override;
    void pulse(PanelId panel, double scale, std::int64_t durationMs) override;

   private:
    platform::OverlayPainter* painter() const;
    MirrorHost& host_;
  };

  void adopt(platform::Platform& platform);

  const FindPlatform find_;
  const std::string problem_;
  std::atomic<platform::Platform*> platform_{nullptr};
  std::mutex adoptLock_;    // guards the making of the three below, and observing_
  bool observing_ = false;  // guarded by adoptLock_
  std::unique_ptr<Mirrors> mirrors_;
  std::unique_ptr<AppLookup> apps_;
  std::unique_ptr<MenuCache> menus_;
  LatePainter overlay_{*this};
};

/// A one-shot walk straight to the application, apart from its mirror.
struct TreeOptions {
  std::string scope = "window";
  std::int64_t maxDepth = AppMirror::maxDepth;
  std::int64_t maxNodes = 4000;
  double timeoutSeconds = 0.3;
};
struct TreeReport {
  core::AppInfo app;
  std::vector<core::AxNode> nodes;
  bool truncated = false;
  double elapsedMs = 0;
};
TreeReport axTree(MirrorHost& host, const AppQuery& app, const TreeOptions& options);

/// The application's copy, with `app` and `elapsedMs` filled in.
MirrorSnapshot axSnapshot(MirrorHost& host, const AppQuery& app, const SnapshotRequest& request);
/// Asks for an urgent walk and returns at once; the application's pid.
std::int32_t axRefresh(MirrorHost& host, const AppQuery& app);

struct NotificationCount {
  std::int32_t pid = 0;
  std::int64_t notifications = 0;
};
NotificationCount axCounter(MirrorHost& host, const AppQuery& app);

/// Fails "invalid_argument" when the pid has no mirror.
core::SettleResult waitSettle(MirrorHost& host, const core::SettleOptions& options);

struct ElementHit {
  std::int32_t pid = 0;
  std::string role;
};
/// The element on screen at a point; its application gets a mirror.
ElementHit elementAt(MirrorHost& host, double x, double y);
core::AppInfo frontmost(MirrorHost& host);

/// The menu bar's copy, and how old it is.
struct MenusReport : core::AxMenus {
  bool truncated = false;
  double walkMs = 0;
  double ageMs = 0;
  double elapsedMs = 0;
};
/// The stored copy when at most `maxAgeMs` old, else a new walk.
MenusReport axMenus(MirrorHost& host, const AppQuery& app, std::int64_t maxAgeMs = 3000);

/// The live element of a reference; menu items through the menu cache.
ResolvedElement resolveElement(MirrorHost& host, const core::ElementRef& ref);

}  // namespace glimmerstrand::native
