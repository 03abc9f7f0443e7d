// The mirror family of line operations: axTree, axSnapshot, axRefresh,
// axCounter, waitSettle, elementAt and frontmost, over one MirrorHost.
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
#include "native/operations.h"
#include "platform/platform.h"

namespace glimmerstrand::native {

/// What the mirror operations hold: the platform (or why there is none), the
/// process's Mirrors, the application lookup, and the JSON of recent node
/// lists, encoded once per list. Made once at start; lives for the process.
///
/// The platform may come later than the host: then the first operation that
/// finds it makes the mirrors, the lookup and the menu cache, and starts the
/// watch of activation if it was asked for. `adoptLock_` guards that making
/// and `observing_`; the platform pointer, published last, tells readers the
/// rest is there. `cacheLock_` guards the encoded lists and is held only
/// around the cache. Neither is held across a call into the platform.
class MirrorHost {
 public:
  /// Gives the platform, or null with why not in `problem`. Asked whenever an
  /// operation needs the platform while there is none; it decides itself how
  /// often it really looks.
  using FindPlatform = std::function<platform::Platform*(std::string& problem)>;

  /// Without a platform, every operation fails with RPCError "no_desktop"
  /// and `problem` as its message.
  MirrorHost(platform::Platform* platform, std::string problem);
  explicit MirrorHost(FindPlatform find);
  MirrorHost(const MirrorHost&) = delete;
  MirrorHost& operator=(const MirrorHost&) = delete;

  /// RPCError "no_desktop" without a platform.
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

  /// `[...]`: the nodes as JSON, from the cache when this list was encoded
  /// before.
  std::string nodesText(const NodeList& nodes);

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

  struct Encoded {
    std::weak_ptr<const std::vector<core::AxNode>> list;
    std::shared_ptr<const std::string> text;
  };
  std::mutex cacheLock_;  // guards encoded_
  std::vector<Encoded> encoded_;
};

void addMirrorOperations(OperationTable& table, MirrorHost& host);
/// axMenus.
void addMenuOperations(OperationTable& table, MirrorHost& host);

}  // namespace glimmerstrand::native
